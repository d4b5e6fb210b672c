// QORAPrinterCupsNameCheck against a bare run of "lpstat -v" on the same
// scheduler, with 2, 50 and 500 queues.  The two are timed alternately in
// each iteration, taking turns at going first, so that load on the machine
// hits both alike; "ratio" is the median library time over the median bare
// time (goal <= 1.10).
//
// Runs inside qp-sandbox: it starts its own cupsd with the test fixture's
// private configuration and writes /etc/cups and printer.conf.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "qoraprinter.h"

// The fixture is self-contained; compiled in here so the benchmark needs
// nothing from the test tree's build.
#include "../tests/cups/cupsd_fixture.cpp"

extern char **environ;

namespace {

qpcups::Cupsd *g_cupsd = nullptr;
int g_queues = -1;

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

char queue_name_buf[32];
const char *queue_name(int i) {
    snprintf(queue_name_buf, sizeof queue_name_buf, "q%04d", i);
    return queue_name_buf;
}
std::string printer_id(int i) {
    char buf[64];
    snprintf(buf, sizeof buf, "04a9:1827:S%04d", i);
    return buf;
}

// n queues, written while the scheduler is stopped (500 lpadmin runs would
// take far longer than the measurement).
void prepare(int n) {
    if (g_queues == n) return;
    // The first start also writes the scheduler's private configuration.
    if (!g_cupsd) {
        g_cupsd = new qpcups::Cupsd;
        if (!g_cupsd->start()) std::exit(1);
    }
    g_cupsd->stop();
    std::ofstream conf(qpcups::kPrintersConf, std::ios::trunc);
    for (int i = 0; i < n; ++i) {
        conf << "<Printer " << queue_name(i) << ">\nDeviceURI usb:/dev/usb/" << printer_id(i)
             << "\nState Idle\nAccepting Yes\n</Printer>\n";
    }
    conf.close();
    const auto queues = [] { return qpcups::lines_of({"/usr/bin/lpstat", "-e"}).size(); };
    if (!g_cupsd->start() || queues() != static_cast<size_t>(n)) {
        fprintf(stderr, "cups_bench: scheduler with %d queues did not come up\n", n);
        std::exit(1);
    }
    g_queues = n;
}

// lpstat -v run directly: spawn, read everything, reap.
void bare_lpstat() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    char *argv[] = {const_cast<char *>("/usr/bin/lpstat"), const_cast<char *>("-v"), nullptr};
    pid_t pid;
    if (posix_spawn(&pid, argv[0], &fa, nullptr, argv, environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&fa);
    close(fds[1]);
    char buf[65536];
    size_t lines = 0;
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        lines += static_cast<size_t>(std::count(buf, buf + n, '\n'));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    benchmark::DoNotOptimize(lines);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

void BM_NameCheckVsLpstat(benchmark::State &state) {
    const int n = static_cast<int>(state.range(0));
    prepare(n);
    // The last queue: the whole listing is read, as in the bare run.
    const std::string id = printer_id(n - 1);
    const std::string name = queue_name(n - 1);
    std::vector<double> bare, lib;
    bool bare_first = true;
    for (auto _ : state) {
        double tb = 0, tl = 0;
        int answer = 0;
        for (int k = 0; k < 2; ++k) {
            double t0 = now_s();
            if ((k == 0) == bare_first) {
                bare_lpstat();
                tb = now_s() - t0;
            } else {
                answer = QORAPrinterCupsNameCheck(id.c_str(), name.c_str());
                tl = now_s() - t0;
            }
        }
        bare_first = !bare_first;
        if (answer != 1) {
            state.SkipWithError("name check did not find the queue");
            break;
        }
        bare.push_back(tb);
        lib.push_back(tl);
        state.SetIterationTime(tl);
    }
    const double b = median(bare), l = median(lib);
    state.counters["bare_ms"] = b * 1e3;
    state.counters["lib_ms"] = l * 1e3;
    state.counters["ratio"] = b > 0 ? l / b : 0;
}
BENCHMARK(BM_NameCheckVsLpstat)->Arg(2)->Arg(50)->Arg(500)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->MinTime(3.0);

}  // namespace

int main(int argc, char **argv) {
    const char *sandbox = getenv("QP_SANDBOX");
    if (!sandbox || strcmp(sandbox, "1") != 0) {
        fprintf(stderr, "cups_bench starts cupsd and writes /etc/cups: run it inside qp-sandbox\n");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    delete g_cupsd;
    return 0;
}
