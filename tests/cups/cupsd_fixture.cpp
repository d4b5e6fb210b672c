// A private CUPS scheduler for tests (see cupsd_fixture.hpp).
#include "cupsd_fixture.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char **environ;

namespace qpcups {
namespace {

// Unix socket only: no TCP, so nothing leaves the sandbox.  Every operation
// is allowed to everyone because tests run as root without authentication.
constexpr const char *kCupsdConf =
    "LogLevel warn\n"
    "Listen /run/cups/cups.sock\n"
    "Browsing No\n"
    "BrowseLocalProtocols none\n"
    "WebInterface No\n"
    "DirtyCleanInterval 0\n"
    "DefaultAuthType None\n"
    "<Location />\n"
    "  Order allow,deny\n"
    "  Allow all\n"
    "</Location>\n"
    "<Policy default>\n"
    "  <Limit All>\n"
    "    Order allow,deny\n"
    "    Allow all\n"
    "  </Limit>\n"
    "</Policy>\n";

// Logs go to files: the sandbox catches syslog for the tests' own checks.
constexpr const char *kCupsFilesConf =
    "SystemGroup root\n"
    "ErrorLog /var/log/cups/error_log\n"
    "AccessLog /var/log/cups/access_log\n"
    "PageLog /var/log/cups/page_log\n";

void sleep_ms(int ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

template <class F>
bool poll_until(F &&cond, int timeout_ms) {
    for (int waited = 0;; waited += 5) {
        if (cond()) return true;
        if (waited >= timeout_ms) return false;
        sleep_ms(5);
    }
}

void mkdirs(const std::string &path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0755);
    }
}

void write_text(const std::string &path, const char *text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

void link_tool(const char *at, const char *target) {
    unlink(at);
    if (symlink(target, at) != 0) fprintf(stderr, "cupsd fixture: symlink %s: %s\n", at, strerror(errno));
}

std::string read_text(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// State letter of a process from /proc/PID/stat, 0 when gone.
char proc_state(pid_t pid) {
    std::string stat = read_text("/proc/" + std::to_string(pid) + "/stat");
    size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos || close_paren + 2 >= stat.size()) return 0;
    return stat[close_paren + 2];
}

bool install_done = false;

}  // namespace

ToolResult run_tool(const std::vector<std::string> &argv) {
    ToolResult r;
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return r;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return r;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(out[1]);
    close(err[1]);
    if (rc == 0) {
        struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
        std::string *dest[2] = {&r.out, &r.err};
        int open_ends = 2;
        while (open_ends > 0) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                break;
            }
            for (int i = 0; i < 2; ++i) {
                if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                char buf[4096];
                ssize_t n = read(fds[i].fd, buf, sizeof buf);
                if (n > 0) {
                    dest[i]->append(buf, static_cast<size_t>(n));
                } else if (n == 0 || errno != EINTR) {
                    fds[i].fd = -1;
                    --open_ends;
                }
            }
        }
        int st = 0;
        while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
        }
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    close(out[0]);
    close(err[0]);
    return r;
}

Cupsd::~Cupsd() { stop(); }

void Cupsd::install() {
    mkdirs("/etc/cups/ppd");
    mkdirs("/run/cups");
    mkdirs("/var/spool/cups/tmp");
    mkdirs("/var/cache/cups");
    mkdirs("/var/log/cups");
    write_text("/etc/cups/cupsd.conf", kCupsdConf);
    write_text("/etc/cups/cups-files.conf", kCupsFilesConf);
    for (const char *f : {"/etc/cups/printers.conf", "/etc/cups/printers.conf.O", "/etc/cups/classes.conf",
                          "/etc/cups/subscriptions.conf"})
        unlink(f);
    if (DIR *d = opendir(kPpdDir)) {
        while (struct dirent *e = readdir(d)) {
            if (e->d_name[0] != '.') unlink((std::string(kPpdDir) + "/" + e->d_name).c_str());
        }
        closedir(d);
    }
    // The library runs these from /usr/bin; Debian installs them in /usr/sbin.
    // cupsenable and cupsdisable are one program that acts on its own name,
    // so each link keeps its name.
    link_tool("/usr/bin/lpadmin", "/usr/sbin/lpadmin");
    link_tool("/usr/bin/cupsenable", "/usr/sbin/cupsenable");
    link_tool("/usr/bin/cupsdisable", "/usr/sbin/cupsdisable");
    // No system bus in the sandbox: let cupsd (ours or one the library
    // starts, which inherits this) fail fast instead of looking for one.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    install_done = true;
}

bool Cupsd::running() {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocket);
    bool ok = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

pid_t Cupsd::find_pid() {
    pid_t found = -1;
    DIR *d = opendir("/proc");
    if (!d) return -1;
    while (struct dirent *e = readdir(d)) {
        char *end = nullptr;
        long pid = strtol(e->d_name, &end, 10);
        if (!end || *end || pid <= 0) continue;
        std::string comm = read_text("/proc/" + std::string(e->d_name) + "/comm");
        if (comm == "cupsd\n") {
            char st = proc_state(static_cast<pid_t>(pid));
            if (st && st != 'Z') {
                found = static_cast<pid_t>(pid);
                break;
            }
        }
    }
    closedir(d);
    return found;
}

bool Cupsd::start() {
    if (!install_done) install();
    if (find_pid() > 0 && poll_until(running, 5000)) return true;
    const char *argv[] = {"/usr/sbin/cupsd", "-f", nullptr};
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return false;
    pid_ = pid;
    return poll_until(running, 5000);
}

void Cupsd::stop() {
    for (int round = 0; round < 5; ++round) {
        pid_t pid = find_pid();
        if (pid < 0) break;
        kill(pid, SIGTERM);
        // Reap it when it is ours; otherwise wait until /proc shows it gone
        // (or a zombie that its parent will reap).
        poll_until(
            [&] {
                if (pid == pid_ || waitpid(pid, nullptr, WNOHANG) == pid) {
                    if (pid == pid_) {
                        waitpid(pid, nullptr, 0);
                        pid_ = -1;
                    }
                    return true;
                }
                char st = proc_state(pid);
                return st == 0 || st == 'Z';
            },
            5000);
    }
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
}

std::vector<Queue> Cupsd::queues() {
    std::vector<Queue> list;
    ToolResult r = run_tool({"/usr/bin/lpstat", "-v"});
    std::istringstream in(r.out);
    std::string line;
    const std::string prefix = "device for ";
    while (std::getline(in, line)) {
        if (line.compare(0, prefix.size(), prefix) != 0) continue;
        size_t colon = line.find(": ", prefix.size());
        if (colon == std::string::npos) continue;
        list.push_back({line.substr(prefix.size(), colon - prefix.size()), line.substr(colon + 2)});
    }
    return list;
}

bool Cupsd::has_queue(const std::string &name) {
    for (const auto &q : queues())
        if (q.name == name) return true;
    return false;
}

std::string Cupsd::uri_of(const std::string &name) {
    for (const auto &q : queues())
        if (q.name == name) return q.uri;
    return "";
}

bool Cupsd::is_stopped(const std::string &name) {
    ToolResult r = run_tool({"/usr/bin/lpstat", "-p", name});
    return r.status == 0 && r.out.find(" disabled") != std::string::npos;
}

std::string Cupsd::lpq(const std::string &name) { return run_tool({"/usr/bin/lpq", "-P", name}).out; }

std::vector<std::string> Cupsd::jobs(const std::string &name) {
    std::vector<std::string> ids;
    ToolResult r = run_tool({"/usr/bin/lpstat", "-o", name});
    std::istringstream in(r.out);
    std::string line;
    while (std::getline(in, line)) {
        std::string first = line.substr(0, line.find(' '));
        size_t dash = first.rfind('-');
        if (dash != std::string::npos) ids.push_back(first.substr(dash + 1));
    }
    return ids;
}

bool Cupsd::add_queue(const std::string &name, const std::string &uri, const std::string &ppd) {
    std::vector<std::string> argv = {"/usr/sbin/lpadmin", "-p", name, "-E", "-v", uri};
    if (!ppd.empty()) {
        argv.push_back("-P");
        argv.push_back(ppd);
    }
    return run_tool(argv).status == 0;
}

void Cupsd::remove_all_queues() {
    for (const auto &q : queues()) run_tool({"/usr/sbin/lpadmin", "-x", q.name});
}

bool Cupsd::wait_printers_conf(const std::string &text, bool present, int timeout_ms) {
    return poll_until([&] { return (read_text(kPrintersConf).find(text) != std::string::npos) == present; },
                      timeout_ms);
}

}  // namespace qpcups
