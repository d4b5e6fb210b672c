// QORACupsGetPPD on PPD files of 10,000, 30,000 and 100,000 lines: the time
// per line (median of 5 repetitions) must stay flat (max/min within 20 %),
// i.e. reading is linear in the file's size.
//
// Runs inside qp-sandbox: it writes /etc/cups/ppd/.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

constexpr int kSizes[] = {10000, 30000, 100000};

std::string name_of(int lines) { return "bench" + std::to_string(lines); }

void write_ppd(int lines) {
    std::string text = "*PPD-Adobe: \"4.3\"\n";
    for (int i = 1; i < lines; ++i) {
        char line[96];
        snprintf(line, sizeof line, "*OpenUI *Option%d/Option number %d: PickOne \"value %08d\"\n", i, i, i);
        text += line;
    }
    qpt::write_file("/etc/cups/ppd/" + name_of(lines) + ".ppd", text);
}

double now_s() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Leaves the CPU caches as a PPD read once finds them: cold.  Without this
// the 10,000-line file (640 KB) is copied within the CPU cache while the
// 100,000-line one is not, which measures the cache, not the reader.
void flush_caches() {
    static std::vector<char> junk(64 << 20);
    for (size_t i = 0; i < junk.size(); i += 64) junk[i] = static_cast<char>(junk[i] + 1);
    benchmark::ClobberMemory();
}

// Reads one file again and again: the steady state of a reader, where the
// block of the previous read is reused.  Every size is measured in its own
// runs (interleaving them would make the allocator hand out fresh pages to
// one size and not to another, which measures page faults, not the reader).
void BM_GetPPD(benchmark::State &state) {
    const int lines = static_cast<int>(state.range(0));
    write_ppd(lines);
    const std::string name = name_of(lines);
    for (auto _ : state) {
        flush_caches();
        const double s = now_s();
        char *got = QORACupsGetPPD(name.c_str());
        const double e = now_s();
        if (got == nullptr) {
            state.SkipWithError("no text");
            return;
        }
        free(got);
        state.SetIterationTime(e - s);
    }
}

// Keeps the median time (ns) of the repetitions of each size.
class MedianReporter : public benchmark::ConsoleReporter {
public:
    std::map<int, double> ns;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Aggregate || r.aggregate_name != "median") continue;
            ns[std::stoi(r.run_name.args)] = r.GetAdjustedRealTime() * 1e3;  // unit: microseconds
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv) {
    if (!qpt::in_sandbox()) {
        fprintf(stderr, "ppd_bench writes /etc/cups/ppd: run it inside qp-sandbox\n");
        return 2;
    }
    benchmark::RegisterBenchmark("BM_GetPPD", BM_GetPPD)
        ->Arg(1)
        ->Arg(kSizes[0])
        ->Arg(kSizes[1])
        ->Arg(kSizes[2])
        ->Unit(benchmark::kMicrosecond)
        ->UseManualTime()
        ->Iterations(60)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true);
    benchmark::Initialize(&argc, argv);
    MedianReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    benchmark::Shutdown();

    // The marginal time per line: the one-line file's time (opening, the
    // cold start) taken off, as that is no cost of the lines.
    double ns[3], lo = 1e300, hi = 0;
    if (rep.ns.count(1) == 0) {
        printf("QORACupsGetPPD per line: not measured\n");
        return 1;
    }
    for (int i = 0; i < 3; ++i) {
        auto it = rep.ns.find(kSizes[i]);
        if (it == rep.ns.end()) {
            printf("QORACupsGetPPD per line: not measured\n");
            return 1;
        }
        ns[i] = (it->second - rep.ns[1]) / (kSizes[i] - 1);
        lo = std::min(lo, ns[i]), hi = std::max(hi, ns[i]);
    }
    const bool met = lo > 0 && hi / lo <= 1.20;
    printf("QORACupsGetPPD per line (marginal, cold caches): %.1f / %.1f / %.1f ns at 10000 / 30000 / 100000 lines: max/min=%.3f "
           "goal<=1.20 %s\n",
           ns[0], ns[1], ns[2], hi / lo, met ? "met" : "MISSED");
    return met ? 0 : 1;
}
