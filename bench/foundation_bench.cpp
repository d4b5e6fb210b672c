// Costs of the foundation: running a program through the core library, from
// a small process and from one holding 1 GiB, and rewriting one section of a
// large printer.conf.  Each is measured next to its baseline in the same run
// and reported as a ratio against its goal.
//
// Runs inside qp-sandbox: it writes /usr/qora/etc/printer.conf.
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <benchmark/benchmark.h>

#include "qoracore.h"
#include "qoraprinter.h"

extern char **environ;

namespace {

constexpr const char *kConf = "/usr/qora/etc/printer.conf";
constexpr int kSections = 1000;

void BM_SpawnBare(benchmark::State &state) {
    char *argv[] = {const_cast<char *>("/bin/true"), nullptr};
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int st;
        while (waitpid(pid, &st, 0) < 0) {
        }
    }
}

void BM_QlibcExec(benchmark::State &state) {
    for (auto _ : state) {
        if (QLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr) != 0) {
            state.SkipWithError("QLIBCExec failed");
            break;
        }
    }
}

// Registered last: once touched, the gigabyte stays for the rest of the run.
void BM_QlibcExecFrom1GiB(benchmark::State &state) {
    static void *big = [] {
        const size_t size = size_t{1} << 30;
        void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p != MAP_FAILED) std::memset(p, 0xA5, size);
        return p;
    }();
    if (big == MAP_FAILED) {
        state.SkipWithError("cannot map 1 GiB");
        return;
    }
    for (auto _ : state) {
        if (QLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr) != 0) {
            state.SkipWithError("QLIBCExec failed");
            break;
        }
    }
}

std::string section_text(int i) {
    char id[64];
    std::snprintf(id, sizeof id, "04a9:%04x:SER%06d", i, i);
    return std::string("[") + id + "]\n\tproducer = ACME\n\tproduct name = Laser " + std::to_string(i) +
           "\n\tmode = usbip\n\tdriver = pcl6\n\tdriver brand = ACME\n"
           "\tusblp string id = MFG:ACME;CMD:PCL,PJL;MDL:Laser 100;CLS:PRINTER;\n"
           "\tcups printer name = usbprinter1\n";
}

bool write_big_conf() {
    std::string text;
    for (int i = 0; i < kSections; ++i) text += section_text(i);
    FILE *f = std::fopen(kConf, "w");
    if (!f) return false;
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    return std::fclose(f) == 0 && ok;
}

void BM_ConfSetup1000(benchmark::State &state) {
    if (!write_big_conf()) {
        state.SkipWithError("cannot write printer.conf");
        return;
    }
    PrinterConf c{};
    std::snprintf(c.szPrinterId, sizeof c.szPrinterId, "04a9:%04x:SER%06d", kSections / 2, kSections / 2);
    std::strcpy(c.szMode, "usbip");
    int n = 0;
    for (auto _ : state) {
        std::snprintf(c.szProducer, sizeof c.szProducer, "ACME %d", n++ & 1);
        if (QORAPrinterConfSetup(&c, 0) != 0) {
            state.SkipWithError("QORAPrinterConfSetup failed");
            break;
        }
    }
}

// The core library calls QORAPrinterConfSetup makes, one at a time, to show
// where its time goes.
void BM_CoreSectionCalls1000(benchmark::State &state) {
    if (!write_big_conf()) {
        state.SkipWithError("cannot write printer.conf");
        return;
    }
    char id[64];
    std::snprintf(id, sizeof id, "04a9:%04x:SER%06d", kSections / 2, kSections / 2);
    PQLIBSZHASH h = QLIBCSzHashAlloc(512);
    QLIBCFileGetSection(kConf, id, &h);
    const int which = static_cast<int>(state.range(0));
    for (auto _ : state) {
        int rc = 0;
        if (which == 0) {
            PQLIBSZHASH r = QLIBCSzHashAlloc(512);
            rc = QLIBCFileGetSection(kConf, id, &r) > 0 ? 0 : -1;
            QLIBCSzHashFree(r);
        } else if (which == 1) {
            rc = QLIBCFileAddSection(kConf, id, h, "\t%s = %s\n") == 0 ? 0 : -1;
        } else {
            rc = QLIBCFileSetSection(kConf, id, id, h, "\t%s = %s\n") >= 1 ? 0 : -1;
        }
        if (rc != 0) {
            state.SkipWithError("core call failed");
            break;
        }
    }
    QLIBCSzHashFree(h);
    state.SetLabel(which == 0 ? "GetSection" : which == 1 ? "AddSection (exists)" : "SetSection");
}

// The least a safe rewrite costs: read the file, write it to a temporary
// file beside it, fsync, rename over the original.
void BM_PlainRewrite1000(benchmark::State &state) {
    if (!write_big_conf()) {
        state.SkipWithError("cannot write printer.conf");
        return;
    }
    const std::string tmp = std::string(kConf) + ".bench";
    std::string text;
    for (auto _ : state) {
        text.clear();
        int in = open(kConf, O_RDONLY | O_CLOEXEC);
        char buf[65536];
        ssize_t got;
        while ((got = read(in, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(got));
        close(in);
        int out = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const bool ok = write(out, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(out) == 0;
        close(out);
        if (!ok || rename(tmp.c_str(), kConf) != 0) {
            state.SkipWithError("rewrite failed");
            break;
        }
    }
}

// Keeps each benchmark's real time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> ns;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs)
            if (!r.error_occurred && r.run_type == Run::RT_Iteration)
                ns[r.run_name.function_name] = r.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv) {
    if (const char *s = std::getenv("QP_SANDBOX"); !s || std::strcmp(s, "1") != 0) {
        std::fprintf(stderr, "foundation_bench writes %s: run it inside qp-sandbox\n", kConf);
        return 2;
    }
    benchmark::RegisterBenchmark("BM_SpawnBare", BM_SpawnBare)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("BM_QlibcExec", BM_QlibcExec)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("BM_ConfSetup1000", BM_ConfSetup1000)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("BM_PlainRewrite1000", BM_PlainRewrite1000)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("BM_CoreSectionCalls1000", BM_CoreSectionCalls1000)
        ->DenseRange(0, 2)
        ->UseRealTime()
        ->MinTime(1.0);
    benchmark::RegisterBenchmark("BM_QlibcExecFrom1GiB", BM_QlibcExecFrom1GiB)->UseRealTime()->MinTime(2.0);
    benchmark::Initialize(&argc, argv);
    RatioReporter rep;
    benchmark::RunSpecifiedBenchmarks(&rep);
    benchmark::Shutdown();

    struct Goal {
        const char *what, *num, *den;
        double limit;
    } goals[] = {
        {"QLIBCExec vs posix_spawn+waitpid", "BM_QlibcExec", "BM_SpawnBare", 1.10},
        {"QLIBCExec from 1 GiB vs small process", "BM_QlibcExecFrom1GiB", "BM_QlibcExec", 1.10},
        {"QORAPrinterConfSetup vs read+atomic rewrite (1000 sections)", "BM_ConfSetup1000", "BM_PlainRewrite1000",
         3.0},
    };
    int missed = 0;
    for (const Goal &g : goals) {
        auto a = rep.ns.find(g.num), b = rep.ns.find(g.den);
        if (a == rep.ns.end() || b == rep.ns.end() || b->second <= 0) {
            std::printf("%s: not measured\n", g.what);
            continue;
        }
        const double ratio = a->second / b->second;
        const bool met = ratio <= g.limit;
        missed += !met;
        std::printf("%s: ratio=%.3f goal<=%.2f %s\n", g.what, ratio, g.limit, met ? "met" : "MISSED");
    }
    return missed ? 1 : 0;
}
