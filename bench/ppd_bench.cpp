// QORACupsGetPPD on PPD files of 10,000, 30,000 and 100,000 lines: the time
// per line must stay flat (max/min within 20 %), i.e. reading is linear in
// the file's size.
//
// Runs inside qp-sandbox: it writes /etc/cups/ppd/.
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

void BM_GetPPD(benchmark::State &state) {
    const int lines = static_cast<int>(state.range(0));
    std::string text = "*PPD-Adobe: \"4.3\"\n";
    for (int i = 1; i < lines; ++i) {
        char line[96];
        snprintf(line, sizeof line, "*OpenUI *Option%d/Option number %d: PickOne \"value %08d\"\n", i, i, i);
        text += line;
    }
    qpt::write_file("/etc/cups/ppd/bench.ppd", text);
    for (auto _ : state) {
        char *got = QORACupsGetPPD("bench");
        if (got == nullptr) {
            state.SkipWithError("no text");
            break;
        }
        benchmark::DoNotOptimize(got);
        free(got);
    }
    state.SetItemsProcessed(state.iterations() * lines);
}

class PerLineReporter : public benchmark::ConsoleReporter {
public:
    std::map<int, double> ns_per_line;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            const int lines = std::stoi(r.run_name.args);
            ns_per_line[lines] = r.GetAdjustedRealTime() * 1e3 / lines;  // time unit: microseconds
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
        ->Arg(10000)
        ->Arg(30000)
        ->Arg(100000)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime()
        ->MinTime(1.0);
    benchmark::Initialize(&argc, argv);
    PerLineReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    benchmark::Shutdown();

    if (rep.ns_per_line.size() != 3) {
        printf("QORACupsGetPPD per line: not measured\n");
        return 1;
    }
    double lo = 1e300, hi = 0;
    for (const auto &[lines, ns] : rep.ns_per_line) lo = std::min(lo, ns), hi = std::max(hi, ns);
    const bool met = lo > 0 && hi / lo <= 1.20;
    printf("QORACupsGetPPD per line: %.1f / %.1f / %.1f ns at 10000 / 30000 / 100000 lines: max/min=%.3f "
           "goal<=1.20 %s\n",
           rep.ns_per_line[10000], rep.ns_per_line[30000], rep.ns_per_line[100000], hi / lo, met ? "met" : "MISSED");
    return met ? 0 : 1;
}
