// What both attacker tests need: a child that runs as the unprivileged user
// 65534 and is killed when it outlives the bound.
#pragma once

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>

namespace qpatk {

constexpr uid_t kNobody = 65534;
constexpr int kBoundSeconds = 10;

inline void drop_to_nobody() {
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
}

// Runs f in a child (as 65534 when `nobody`, from /tmp) within kBoundSeconds:
// 0 when f returned true, 1 when false, -1 when it had to be killed.
inline int in_child(const std::function<bool()> &f, bool nobody) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (nobody) drop_to_nobody();
        if (chdir("/tmp") != 0) _exit(2);
        _exit(f() ? 0 : 1);
    }
    const time_t end = time(nullptr) + kBoundSeconds;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (time(nullptr) >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(20000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace qpatk
