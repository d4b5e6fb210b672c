#include "net_lab.hpp"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>

#include "qp_test.hpp"

namespace qpnet {

namespace {
const std::string kReplay = "/tmp/qp-net/replay/";
void on_alarm(int) {}
}  // namespace

bool lab_up(const std::vector<std::string> &components) {
    std::vector<std::string> argv = {"/bin/bash", qpt::source_path("tests/net/netlab.sh"), "up"};
    argv.insert(argv.end(), components.begin(), components.end());
    const qpt::RunResult r = qpt::run(argv);
    if (r.status != 0) fprintf(stderr, "netlab.sh failed (%d): %s%s\n", r.status, r.out.c_str(), r.err.c_str());
    return r.status == 0;
}

void replay(const std::string &key, const std::string &output, const std::string &delay_s) {
    qpt::write_file(kReplay + key + ".out", output);
    qpt::remove_file(kReplay + key + ".runs");
    if (!delay_s.empty()) {
        qpt::write_file(kReplay + key + ".delay", delay_s);
    } else {
        qpt::remove_file(kReplay + key + ".delay");
    }
}

void unreplay(const std::string &key) {
    for (const char *ext : {".out", ".runs", ".delay", ".out.1", ".out.2", ".out.3"}) {
        qpt::remove_file(kReplay + key + ext);
    }
}

int replay_runs(const std::string &key) {
    int n = 0;
    for (char c : qpt::read_file(kReplay + key + ".runs")) n += c == '\n';
    return n;
}

Interrupter::Interrupter(int period_ms) {
    struct sigaction sa {};
    sa.sa_handler = on_alarm;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART
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
