#include "net_lab.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "qp_test.hpp"

namespace qpnet {

bool lab_up(const std::vector<std::string> &components) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket", 1);
    std::vector<std::string> argv = {"/bin/bash", qpt::source_path("tests/net/netlab.sh"), "up"};
    argv.insert(argv.end(), components.begin(), components.end());
    const qpt::RunResult r = qpt::run(argv);
    if (r.status != 0) fprintf(stderr, "netlab.sh failed (%d): %s%s\n", r.status, r.out.c_str(), r.err.c_str());
    return r.status == 0;
}

StandIn::StandIn(std::string p, std::optional<std::string> output, const std::string &delay_s) : path(std::move(p)) {
    EXPECT_EQ(rename(path.c_str(), (path + ".away").c_str()), 0) << path;
    if (!output) return;
    qpt::write_file(path + ".out", *output);
    qpt::write_file(path, "#!/bin/sh\necho run >>\"$0.runs\"\nn=$(wc -l <\"$0.runs\")\nsleep " + delay_s +
                              "\nif [ -f \"$0.out.$n\" ]; then cat \"$0.out.$n\"; else cat \"$0.out\"; fi\n",
                    0755);
}

StandIn::~StandIn() {
    for (const char *ext : {".out", ".runs", ".out.1"}) qpt::remove_file(path + ext);
    rename((path + ".away").c_str(), path.c_str());
}

int StandIn::runs() const {
    int n = 0;
    for (char c : qpt::read_file(path + ".runs")) n += c == '\n';
    return n;
}

void on_alarm(int) {}

Interrupter::Interrupter(int period_ms) {
    struct sigaction sa {};
    sa.sa_handler = on_alarm;  // no SA_RESTART
    sigaction(SIGALRM, &sa, nullptr);
    const timeval period = {period_ms / 1000, (period_ms % 1000) * 1000};
    const itimerval timer = {period, period};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

Interrupter::~Interrupter() {
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
}

}  // namespace qpnet
