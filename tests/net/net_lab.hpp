// What the network printer tests share (and include): the simulated printers
// of netlab.sh, stand-ins for the network tools, and reads interrupted by a signal.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <syslog.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "qoraprinter.h"
#include "qp_test.hpp"

namespace qpnet {

// The lab (netlab.sh up) with these components, up before the first test;
// a failure stops the tests at once, with the script's output.  The lab's
// daemons and the tests use the sandbox's system bus.
struct LabUp : ::testing::Environment {
    explicit LabUp(std::vector<std::string> c) : components(std::move(c)) {}
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket", 1);
        std::vector<std::string> argv = {"/bin/bash", qpt::source_path("tests/net/netlab.sh"), "up"};
        argv.insert(argv.end(), components.begin(), components.end());
        const qpt::RunResult r = qpt::run(argv);
        ASSERT_EQ(r.status, 0) << "netlab.sh failed: " << r.out << r.err;
    }
    const std::vector<std::string> components;
};

// While alive, a script stands in for the tool at path: it counts its runs,
// waits delay_s seconds and prints the output (PATH.out.N in place of it for
// the N-th run when a test wrote that file).  Without output nothing stands
// in, and starting the tool fails.
struct StandIn {
    explicit StandIn(std::string p, std::optional<std::string> output = {}, const std::string &delay_s = "0")
        : path(std::move(p)) {
        EXPECT_EQ(rename(path.c_str(), (path + ".away").c_str()), 0) << path;
        if (!output) return;
        qpt::write_file(path + ".out", *output);
        qpt::write_file(path, "#!/bin/sh\necho run >>\"$0.runs\"\nn=$(wc -l <\"$0.runs\")\nsleep " + delay_s +
                                  "\nif [ -f \"$0.out.$n\" ]; then cat \"$0.out.$n\"; else cat \"$0.out\"; fi\n",
                        0755);
    }
    ~StandIn() {
        for (const char *ext : {".out", ".runs", ".out.1"}) qpt::remove_file(path + ext);
        rename((path + ".away").c_str(), path.c_str());
    }
    int runs() const {
        const std::string lines = qpt::read_file(path + ".runs");
        return static_cast<int>(std::count(lines.begin(), lines.end(), '\n'));
    }
    const std::string path;
};

// While alive, SIGALRM arrives every period_ms with a handler installed
// without SA_RESTART, so a blocked read of a pipe fails with EINTR.
struct Interrupter {
    explicit Interrupter(int period_ms) {
        struct sigaction sa {};
        sa.sa_handler = [](int) {};  // no SA_RESTART
        sigaction(SIGALRM, &sa, nullptr);
        const timeval period = {period_ms / 1000, (period_ms % 1000) * 1000};
        const itimerval timer = {period, period};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }
    ~Interrupter() {
        const itimerval off = {};
        setitimer(ITIMER_REAL, &off, nullptr);
        signal(SIGALRM, SIG_DFL);
    }
};

}  // namespace qpnet
