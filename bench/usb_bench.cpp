// USB printers against the simulated printer class driver (qp-usbdev).
//
// 1. One attach+detach cycle of lp0, with a printer.conf of 100 sections,
//    against the bare work it cannot avoid: the same number of
//    open+ioctl+close of the node as the cycle makes (device ID request,
//    enable notice, disable notice) and two small atomic file rewrites
//    (temp file, fsync, rename, fsync of the directory).  Both are timed alternately in each iteration, so load
//    on the machine hits both alike; the ratio is the median cycle over the
//    median bare work (goal <= 3).
// 2. QORAPrinterEnumCount(3) with two USB printers and N nptab lines, N = 0,
//    100, 1,000, 10,000.  The time per line must stay flat (within 20 %)
//    from 100 to 10,000 lines.  Reported twice: the raw time per line, which
//    at 100 lines still carries the fixed cost of the USB side, and the
//    marginal time per line (the N = 0 run subtracted), which is the test
//    for linear growth.
//
// Runs inside qp-sandbox: it mounts the simulated nodes and a fake USB sysfs
// and writes the library's fixed paths.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "qoraprinter.h"
#include "qp_test.hpp"

// The rig is self-contained; compiled in here so the benchmark needs
// nothing from the test tree's build but the simulated driver program.
#include "../tests/usb/usb_rig.cpp"

namespace {

const char *kConf = "/usr/qora/etc/printer.conf";
const char *kNptab = "/usr/qora/etc/nptab";

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

void world() {
    static bool ready = false;
    if (ready) return;
    usbrig::setup();
    usbrig::add_device({.busid = "1-1"});
    usbrig::add_device({.busid = "1-2", .vendor = "03f0", .product = "002a", .serial = "XZ9"});
    ready = true;
}

// Same steps as the core library's rewrite of a small file.
bool atomic_rewrite(const char *dir, const char *name, const std::string &text) {
    std::string tmp = std::string(dir) + "/." + name + ".XXXXXX";
    int fd = mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), (std::string(dir) + "/" + name).c_str()) != 0) return false;
    int dfd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return false;
    ok = fsync(dfd) == 0;
    close(dfd);
    return ok;
}

// One open+ioctl+close of lp0.
bool node_request(unsigned long request, void *arg) {
    int fd = open("/dev/usb/lp0", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ioctl(fd, request, arg) == 0;
    close(fd);
    return ok;
}

bool bare_work() {
    unsigned char reply[4095] = {};
    int unused = 0;
    return node_request(0x8FFF5001UL, reply) && node_request(0x40005008UL, &unused) &&
           node_request(0x40005007UL, &unused) && atomic_rewrite("/tmp", "bench_a", "lp0=\"1-1\"\n") &&
           atomic_rewrite("/usr/qora/etc", "bench_b", "[x]\n\tmode = usbip\n");
}

void BM_AttachDetachVsBare(benchmark::State &state) {
    world();
    usbrig::clear_library_files();
    std::string conf;
    for (int i = 0; i < 99; ++i) {
        char head[64];
        snprintf(head, sizeof(head), "[04a9:1827:S%04d]\n", i);
        conf += head;
        conf += "\tproducer = Acme\n\tproduct name = Laser 100\n\tmode = usbip\n\tdriver = gutenprint\n";
    }
    conf += "[04a9:1827:A1B2C3]\n\tmode = usbip\n";
    qpt::write_file(kConf, conf);

    std::vector<double> lib, bare;
    for (auto _ : state) {
        double t0 = now_s();
        bool ok = QORAPrinterEnableExt(1, "lp0", "1-1") == 0 && QORAPrinterEnableExt(0, "lp0", nullptr) == 0;
        double t1 = now_s();
        ok = bare_work() && ok;
        double t2 = now_s();
        if (!ok) {
            state.SkipWithError("a call failed");
            break;
        }
        lib.push_back(t1 - t0);
        bare.push_back(t2 - t1);
        state.SetIterationTime(t2 - t0);
        // The event log would grow without bound.
        if (lib.size() % 256 == 0) usbrig::clear_events();
    }
    double l = median(lib), b = median(bare);
    state.counters["cycle_us"] = l * 1e6;
    state.counters["bare_us"] = b * 1e6;
    state.counters["ratio"] = b > 0 ? l / b : 0;
}

void BM_EnumCount(benchmark::State &state) {
    world();
    const int lines = static_cast<int>(state.range(0));
    qpt::write_file("/tmp/usbtab", "lp0=\"1-1\"\nlp1=\"1-2\"\n");
    std::string table;
    for (int i = 0; i < lines; ++i) {
        char line[64];
        snprintf(line, sizeof(line), "10.%d.%d.%d=\"queue_%d\"\n", i / 65536, (i / 256) % 256, i % 256, i);
        table += line;
    }
    qpt::write_file(kNptab, table);
    for (auto _ : state) {
        int n = QORAPrinterEnumCount(3, nullptr);
        if (n != lines + 2) {
            state.SkipWithError("wrong count");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * lines);
}

class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> ns;  // real time per iteration, by "function/args"
    std::map<std::string, double> counters;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            std::string name = r.run_name.function_name;
            if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
            ns[name] = r.GetAdjustedRealTime();
            for (const auto &[k, v] : r.counters) counters[name + ":" + k] = v.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv) {
    if (!qpt::in_sandbox()) {
        fprintf(stderr, "usb_bench mounts over /dev/usb and the USB sysfs: run it inside qp-sandbox\n");
        return 2;
    }
    benchmark::RegisterBenchmark("BM_AttachDetachVsBare", BM_AttachDetachVsBare)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->MinTime(3.0);
    benchmark::RegisterBenchmark("BM_EnumCount", BM_EnumCount)
        ->Arg(0)
        ->Arg(100)
        ->Arg(1000)
        ->Arg(10000)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime()
        ->MinTime(1.0);
    benchmark::Initialize(&argc, argv);
    RatioReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    benchmark::Shutdown();

    int missed = 0;
    auto ratio = rep.counters.find("BM_AttachDetachVsBare:ratio");
    if (ratio == rep.counters.end()) {
        printf("attach+detach vs open+ioctl+2 rewrites: not measured\n");
    } else {
        bool met = ratio->second <= 3.0;
        missed += !met;
        printf("attach+detach (100 sections) vs 3 open+ioctl + 2 atomic rewrites: ratio=%.3f goal<=3.00 %s\n",
               ratio->second, met ? "met" : "MISSED");
    }

    auto at = [&](int n) {
        auto it = rep.ns.find("BM_EnumCount/" + std::to_string(n));
        return it == rep.ns.end() ? -1.0 : it->second;
    };
    double t0 = at(0), t100 = at(100), t1k = at(1000), t10k = at(10000);
    if (t0 < 0 || t100 < 0 || t1k < 0 || t10k < 0) {
        printf("EnumCount per line: not measured\n");
    } else {
        double raw100 = t100 / 100, raw10k = t10k / 10000;
        double m100 = (t100 - t0) / 100, m1k = (t1k - t0) / 1000, m10k = (t10k - t0) / 10000;
        double lo = std::min({m100, m1k, m10k}), hi = std::max({m100, m1k, m10k});
        bool met = lo > 0 && hi / lo <= 1.20;
        missed += !met;
        printf("EnumCount(3) per nptab line, raw: %.0f ns at 100, %.0f ns at 10000 (ratio %.3f)\n", raw100 * 1e3,
               raw10k * 1e3, raw10k / raw100);
        printf("EnumCount(3) per nptab line, marginal: %.0f / %.0f / %.0f ns at 100 / 1000 / 10000: "
               "max/min=%.3f goal<=1.20 %s\n",
               m100 * 1e3, m1k * 1e3, m10k * 1e3, hi / lo, met ? "met" : "MISSED");
    }
    return missed ? 1 : 0;
}
