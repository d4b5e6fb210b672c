// What both attacker tests need: children that run as the unprivileged user
// 65534 and are killed when they outlive the bound, and what such a user
// plants in /tmp.
#pragma once

#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "qp_test.hpp"

namespace qpatk {

using Step = std::function<bool()>;
constexpr uid_t kNobody = 65534;
constexpr int kBoundSeconds = 10;

inline void drop_to_nobody() {
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(2);
}

// Runs f in a child (as 65534 when `nobody`, from /tmp) within kBoundSeconds:
// 0 when f returned true, 1 when false, -1 when it had to be killed.
inline int in_child(const Step &f, bool nobody) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (nobody) drop_to_nobody();
        if (chdir("/tmp") != 0) _exit(2);
        _exit(f() ? 0 : 1);
    }
    int status = 0;
    const bool in_time = qpt::wait_until([&] { return waitpid(pid, &status, WNOHANG) != 0; }, kBoundSeconds * 1000);
    if (!in_time) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

// Root's call, made in a child of its own so that a call that blocks is
// killed at the bound: it must answer in time, and as expected.
inline void expect_answer(const Step &call) {
    const int verdict = in_child(call, false);
    EXPECT_EQ(verdict, 0) << (verdict == -1 ? "no answer within the time bound" : "unexpected answer");
}

// What the user plants (run these as 65534).
inline Step link_to(const std::string &at, const std::string &target) {
    return [=] { return symlink(target.c_str(), at.c_str()) == 0; };
}
inline Step fifo(const std::string &at) { return [=] { return mkfifo(at.c_str(), 0666) == 0; }; }
inline Step own_file(const std::string &at, const std::string &content) {
    return [=] {
        qpt::write_file(at, content, 0666);
        return qpt::read_file(at) == content;
    };
}

}  // namespace qpatk
