// qp-sandbox [--keep-net] [--bind PATH]... -- PROGRAM [ARGS...]
//
// Runs PROGRAM in private mount, PID and network namespaces over a
// copy-on-write overlay of the root file system, so every file it writes
// and every daemon it starts vanish when it ends (except under a --bind
// PATH, which is the machine's own).  --keep-net keeps the machine's
// network namespace.  Exits with PROGRAM's
// status (128+signal when a signal ended it, 125 when the sandbox could not
// be set up, 127 when PROGRAM could not be started).
//
// Layout of processes:
//   qp-sandbox (outer, stays in the machine's mount namespace and waits)
//     `- init: PID 1 of the new PID namespace; builds the root, catches
//        syslog on /dev/log, reaps orphans
//          `- PROGRAM
// When PROGRAM exits, init exits with its status, and the kernel kills
// whatever else still runs in the namespace (daemons the tests started).
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sandbox.hpp"

namespace {

constexpr const char *kLogSocket = "/dev/log";
constexpr const char *kLogFile = "/run/qp-test/syslog";

struct Options {
    bool keep_net = false;
    std::vector<std::string> binds;
    std::vector<char *> argv;  // PROGRAM and its arguments, null-terminated
};

[[noreturn]] void usage() {
    fprintf(stderr, "usage: qp-sandbox [--keep-net] [--bind PATH]... -- PROGRAM [ARGS...]\n");
    exit(2);
}

Options parse(int argc, char **argv) {
    Options o;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        if (a == "--keep-net") {
            o.keep_net = true;
        } else if (a == "--bind" && i + 1 < argc) {
            o.binds.push_back(argv[++i]);
        } else if (a.size() > 1 && a[0] == '-') {
            usage();
        } else {
            break;  // PROGRAM without "--"
        }
    }
    if (i >= argc) usage();
    for (; i < argc; ++i) o.argv.push_back(argv[i]);
    o.argv.push_back(nullptr);
    return o;
}

int status_code(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return 1;
}

void noop_handler(int) {}

constexpr int kForwarded[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// PID 1 drops every signal it has no handler for, even blocked ones, so
// the signals it reads from its signalfd get a handler that does nothing.
int block_init_signals(sigset_t *old) {
    sigset_t set;
    sigemptyset(&set);
    struct sigaction sa = {};
    sa.sa_handler = noop_handler;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGCHLD, &sa, nullptr);
    sigaddset(&set, SIGCHLD);
    for (int s : kForwarded) {
        sigaction(s, &sa, nullptr);
        sigaddset(&set, s);
    }
    sigprocmask(SIG_BLOCK, &set, old);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

[[noreturn]] void exec_program(const Options &o, const sigset_t &old_mask) {
    struct sigaction sa = {};
    sa.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &sa, nullptr);
    for (int s : kForwarded) sigaction(s, &sa, nullptr);
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    prctl(PR_SET_PDEATHSIG, 0);
    setenv("QP_SANDBOX", "1", 1);
    // A scheduler started by a test must not look for a system bus.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    execvp(o.argv[0], o.argv.data());
    fprintf(stderr, "qp-sandbox: cannot run %s: %s\n", o.argv[0], strerror(errno));
    _exit(127);
}

void write_text(const char *path, const char *text) {
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return;
    ssize_t r = write(fd, text, strlen(text));
    (void)r;
    close(fd);
}

[[noreturn]] void run_init(const Options &o, const std::string &cwd, const std::vector<std::string> &keep,
                           const std::vector<std::string> &binds) {
    // Die with the outer process (a test runner's timeout kills only it).
    prctl(PR_SET_PDEATHSIG, SIGKILL);

    if (unshare(CLONE_NEWNS) != 0) {
        perror("qp-sandbox: unshare mount namespace");
        _exit(qps::kSetupFailed);
    }
    if (!qps::enter_new_root(cwd, keep, binds)) _exit(qps::kSetupFailed);
    qps::populate_root();
    if (!o.keep_net) {
        if (!qps::loopback_up()) _exit(qps::kSetupFailed);
        // Per network namespace: let the catcher's queue hold long bursts.
        write_text("/proc/sys/net/unix/max_dgram_qlen", "65536");
    }

    int log_out = open(kLogFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int log_sock = qps::bind_log_socket(kLogSocket);
    if (log_out < 0 || log_sock < 0) {
        perror("qp-sandbox: syslog catcher");
        _exit(qps::kSetupFailed);
    }

    sigset_t old_mask;
    int sig_fd = block_init_signals(&old_mask);
    if (sig_fd < 0) {
        perror("qp-sandbox: signalfd");
        _exit(qps::kSetupFailed);
    }

    pid_t prog = fork();
    if (prog < 0) {
        perror("qp-sandbox: fork");
        _exit(qps::kSetupFailed);
    }
    if (prog == 0) exec_program(o, old_mask);

    for (;;) {
        struct pollfd fds[2] = {{sig_fd, POLLIN, 0}, {log_sock, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            perror("qp-sandbox: poll");
            _exit(qps::kSetupFailed);
        }
        if (fds[1].revents & POLLIN) qps::drain_log_socket(log_sock, log_out);
        struct signalfd_siginfo si;
        while (read(sig_fd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
            if (si.ssi_signo != SIGCHLD) {
                kill(prog, static_cast<int>(si.ssi_signo));
                continue;
            }
            int status;
            pid_t pid;
            while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
                if (pid != prog) continue;  // an orphan reaped
                qps::drain_log_socket(log_sock, log_out);
                _exit(status_code(status));
            }
        }
    }
}

volatile sig_atomic_t g_init_pid = 0;

void forward_to_init(int sig) {
    if (g_init_pid > 0) kill(g_init_pid, sig);
}

}  // namespace

int main(int argc, char **argv) {
    Options o = parse(argc, argv);

    char cwd_buf[PATH_MAX];
    std::string cwd = getcwd(cwd_buf, sizeof cwd_buf) ? cwd_buf : "/";
    std::vector<std::string> keep = {cwd};
    if (strchr(o.argv[0], '/')) {
        char real[PATH_MAX];
        if (realpath(o.argv[0], real)) keep.push_back(real);
    }
    std::vector<std::string> binds;
    for (const std::string &b : o.binds) {
        char real[PATH_MAX];
        if (!realpath(b.c_str(), real)) {
            fprintf(stderr, "qp-sandbox: --bind %s: %s\n", b.c_str(), strerror(errno));
            return qps::kSetupFailed;
        }
        binds.push_back(real);
    }

    // Only init goes into the new namespaces: afterwards this process
    // returns to its own, so it can still make threads and children (the
    // leak checker of sanitizer builds does) once the namespace is gone.
    int own_pid_ns = open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC);
    int own_net_ns = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (unshare(CLONE_NEWPID | (o.keep_net ? 0 : CLONE_NEWNET)) != 0) {
        perror("qp-sandbox: unshare (needs root)");
        return qps::kSetupFailed;
    }
    pid_t init = fork();
    if (init < 0) {
        perror("qp-sandbox: fork");
        return qps::kSetupFailed;
    }
    if (init == 0) {
        close(own_pid_ns);
        close(own_net_ns);
        run_init(o, cwd, keep, binds);
    }
    if (own_pid_ns >= 0) setns(own_pid_ns, CLONE_NEWPID), close(own_pid_ns);
    if (own_net_ns >= 0) setns(own_net_ns, CLONE_NEWNET), close(own_net_ns);

    g_init_pid = init;
    struct sigaction sa = {};
    sa.sa_handler = forward_to_init;
    sigemptyset(&sa.sa_mask);
    for (int s : kForwarded) sigaction(s, &sa, nullptr);

    int status;
    while (waitpid(init, &status, 0) < 0) {
        if (errno != EINTR) {
            perror("qp-sandbox: waitpid");
            return qps::kSetupFailed;
        }
    }
    return status_code(status);
}
