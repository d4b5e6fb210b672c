// Network printers.
//
// 1. QORAPrinterNetGetStringId against a simulated printer (real snmpd in a
//    namespace, tests/net/netlab.sh) whose private-enterprise subtree holds
//    10,000 objects with the device ID third, against a full snmpwalk of the
//    same agent read to its end.  Both are timed alternately in each
//    iteration; the reported ratio is median query over median walk (goal
//    <= 0.2: the query must stop at the first qualifying line).
// 2. Parsing cost per line of recorded snmpwalk and avahi-browse output, N =
//    100, 1,000, 10,000 lines with no qualifying line (so every line is
//    read): ns per line must stay flat (within 20 %).
//
// Runs inside qp-sandbox: it creates the namespaces and starts snmpd.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "net/net_scan.hpp"
#include "qoraprinter.h"
#include "qp_test.hpp"

namespace {

constexpr const char *kBigAgent = "10.123.0.6";

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The whole walk, read to its end as the library would read it.
size_t full_walk() {
    FILE *walk = QLIBCPopen("/usr/bin/snmpwalk", "r", "-v", "1", "-c", "tarvel", kBigAgent, "enterprises",
                            static_cast<char *>(nullptr));
    if (!walk) return 0;
    char line[1024];
    size_t lines = 0;
    while (fgets(line, sizeof line, walk)) ++lines;
    QLIBCPclose(walk);
    return lines;
}

void BM_StringIdVsFullWalk(benchmark::State &state) {
    std::vector<double> query, walk;
    size_t walked = 0;
    for (auto _ : state) {
        char id[1024];
        const double t0 = now();
        const int r = QORAPrinterNetGetStringId(kBigAgent, id, sizeof id);
        const double t1 = now();
        walked = full_walk();
        const double t2 = now();
        if (r != 0 || walked < 10000) {
            state.SkipWithError("the simulated agent did not answer as expected");
            return;
        }
        query.push_back(t1 - t0);
        walk.push_back(t2 - t1);
        state.SetIterationTime(t1 - t0);
    }
    state.counters["walk_lines"] = static_cast<double>(walked);
    state.counters["query_ms"] = median(query) * 1e3;
    state.counters["walk_ms"] = median(walk) * 1e3;
    state.counters["ratio"] = median(query) / median(walk);
}
BENCHMARK(BM_StringIdVsFullWalk)->Iterations(15)->UseManualTime()->Unit(benchmark::kMillisecond);

// A recorded output of n lines, in a stream like the tool's pipe.
FILE *recorded(const std::string &line, int64_t n) {
    FILE *f = tmpfile();
    for (int64_t i = 0; i < n; ++i) fputs(line.c_str(), f);
    return f;
}

void per_line(benchmark::State &state, double seconds, int64_t lines) {
    state.counters["ns_per_line"] = benchmark::Counter(seconds * 1e9 / static_cast<double>(lines));
    state.SetItemsProcessed(state.iterations() * lines);
}

void BM_SnmpwalkParsePerLine(benchmark::State &state) {
    const int64_t n = state.range(0);
    // Names a maker but no model: read, trimmed and tested, never taken.
    FILE *f = recorded("SNMPv2-SMI::enterprises.2699.1.2.1.9.1.77 = STRING: \"MFG:ACME;CMD:PCL;card 77\"\n", n);
    double total = 0;
    for (auto _ : state) {
        rewind(f);
        char id[1024];
        const double t0 = now();
        benchmark::DoNotOptimize(qp::net::string_id_read(f, id, sizeof id));
        total += now() - t0;
    }
    fclose(f);
    per_line(state, total / static_cast<double>(state.iterations()), n);
}
BENCHMARK(BM_SnmpwalkParsePerLine)->Arg(100)->Arg(1000)->Arg(10000);

void BM_AvahiBrowseParsePerLine(benchmark::State &state) {
    const int64_t n = state.range(0);
    // Every line is a record of the address, on a port that is not a printer's.
    FILE *f = recorded("=;veth-c;IPv4;Office;Web Site;local;office.local;10.123.0.2;80;"
                       "\"usb_CMD=PCL\" \"usb_MDL=X1\" \"usb_MFG=ACME\"\n",
                       n);
    double total = 0;
    for (auto _ : state) {
        rewind(f);
        qp::net::AvahiSlots slots = {};
        PQLIBSZLIST list = QLIBCSzListAlloc(1024);
        const double t0 = now();
        benchmark::DoNotOptimize(qp::net::avahi_read(f, ";10.123.0.2;", &list, &slots));
        total += now() - t0;
        QLIBCSzListFree(list);
    }
    fclose(f);
    per_line(state, total / static_cast<double>(state.iterations()), n);
}
BENCHMARK(BM_AvahiBrowseParsePerLine)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

int main(int argc, char **argv) {
    if (!qpt::in_sandbox()) {
        fprintf(stderr, "net_bench starts daemons and namespaces: run it inside qp-sandbox\n");
        return 2;
    }
    const qpt::RunResult lab = qpt::run({"/bin/bash", qpt::source_path("tests/net/netlab.sh"), "up", "snmp"});
    if (lab.status != 0) {
        fprintf(stderr, "netlab.sh failed: %s\n", lab.err.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
