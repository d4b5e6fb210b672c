// qp-platform-child MODE [ARGS...]: a program for the core library's process
// tests to run.  Run under the name "cupsd" it plays a scheduler that puts
// itself in the background and listens on /run/cups/cups.sock.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

extern char **environ;

namespace {

int list_fds() {
    DIR *d = opendir("/proc/self/fd");
    if (!d) return 2;
    while (struct dirent *e = readdir(d)) {
        if (e->d_name[0] == '.' || atoi(e->d_name) == dirfd(d)) continue;
        char target[512] = "";
        std::string link = std::string("/proc/self/fd/") + e->d_name;
        ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
        if (n > 0) target[n] = '\0';
        printf("%s %s\n", e->d_name, target);
    }
    closedir(d);
    return 0;
}

int signal_state() {
    FILE *f = fopen("/proc/self/status", "r");
    if (!f) return 2;
    char line[256];
    while (fgets(line, sizeof line, f))
        if (strncmp(line, "SigBlk:", 7) == 0 || strncmp(line, "SigIgn:", 7) == 0) fputs(line, stdout);
    fclose(f);
    return 0;
}

// A stand-in scheduler: the parent returns once the socket accepts, as the
// real one does when it daemonises.
int fake_daemon() {
    if (access("/run/qp-fake-cupsd.fail", F_OK) == 0) return 1;
    if (FILE *f = fopen("/run/qp-fake-cupsd.count", "a")) {
        fputs("start\n", f);
        fclose(f);
    }
    int ready[2];
    if (pipe(ready) != 0) return 1;
    pid_t pid = fork();
    if (pid < 0) return 1;
    if (pid > 0) {
        close(ready[1]);
        char c;
        return read(ready[0], &c, 1) == 1 ? 0 : 1;
    }
    close(ready[0]);
    setsid();
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/run/cups/cups.sock");
    mkdir("/run/cups", 0755);
    unlink(addr.sun_path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) _exit(1);
    (void)!write(ready[1], "r", 1);
    close(ready[1]);
    for (;;) {
        int c = accept(fd, nullptr, nullptr);
        if (c >= 0) close(c);
    }
}

}  // namespace

int main(int argc, char **argv) {
    const char *base = strrchr(argv[0], '/');
    base = base ? base + 1 : argv[0];
    if (strcmp(base, "cupsd") == 0) return fake_daemon();
    if (argc < 2) return 64;
    std::string mode = argv[1];
    if (mode == "exit") {
        puts("out");
        if (argc > 3) fprintf(stderr, "\n%s\nsecond line\n", argv[3]);
        return argc > 2 ? atoi(argv[2]) : 0;
    }
    if (mode == "kill") {
        int sig = argc > 2 ? atoi(argv[2]) : SIGKILL;
        signal(sig, SIG_DFL);
        raise(sig);
        return 0;
    }
    if (mode == "args") {
        for (int i = 0; i < argc; ++i) puts(argv[i]);
        return 0;
    }
    if (mode == "argsto" && argc > 2) {
        FILE *f = fopen(argv[2], "w");
        if (!f) return 2;
        for (int i = 0; i < argc; ++i) fprintf(f, "%s\n", argv[i]);
        fclose(f);
        return 0;
    }
    if (mode == "yes") {
        for (;;) puts("y");
    }
    if (mode == "fds") return list_fds();
    if (mode == "env") {
        for (char **e = environ; *e; ++e) puts(*e);
        return 0;
    }
    if (mode == "sig") return signal_state();
    if (mode == "stdin") {
        char buf[64];
        ssize_t n = read(0, buf, sizeof buf);
        printf("%zd\n", n);
        return 0;
    }
    if (mode == "sleep") {
        sleep(60);
        return 0;
    }
    return 64;
}
