// qoraprinter subcommands for CUPS queues, PPD files, printing and jobs.
#include <errno.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cli.hpp"
#include "paths.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace {

using namespace qpcli;

int queue_add(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string ppd;
    qpcli::take_option(a, "--ppd", ppd);
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    if (QORAPrinterCupsAdd(a[0].c_str(), ppd.empty() ? nullptr : ppd.c_str()) != 0) return qpcli::fail("queue add");
    return qpcli::print_queue_name(a[0], "queue add: reading the name");
}

// A network printer's record from flags, or from its stored section.
int queue_add_net(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string from, ip, name, backend, qname, id, ppd;
    qpcli::take_option(a, "--ppd", ppd);
    const bool stored = qpcli::take_option(a, "--from", from);
    qpcli::take_option(a, "--ip", ip);
    qpcli::take_option(a, "--name", name);
    qpcli::take_option(a, "--backend", backend);
    qpcli::take_option(a, "--qname", qname);
    qpcli::take_option(a, "--id", id);
    if (!a.empty()) return qpcli::kBadArgs;
    begin_call();
    if (stored) {
        if (!ip.empty() || !name.empty() || !backend.empty() || !qname.empty() || !id.empty()) return qpcli::kBadArgs;
        PQLIBSZHASH hash = QLIBCSzHashAlloc(512);
        if (!hash) return qpcli::fail("queue add-net");
        if (QLIBCFileGetSection(qp::path::kPrinterConf, from.c_str(), &hash) > 0) {
            auto get = [&](const char *key) {
                const char *v = QLIBCSzHashGetValue(hash, key);
                return std::string(v ? v : "");
            };
            ip = get("IP");
            name = get("cups printer name");
            backend = get("Backend");
            qname = get("QName");
        }
        QLIBCSzHashFree(hash);
        if (ip.empty() || backend.empty())
            return say(qpcli::kNo, "queue add-net: %s has no network printer section [%s].", qp::path::kPrinterConf,
                       from.c_str());
        id = from;
    } else {
        if (ip.empty() || backend.empty()) return qpcli::kBadArgs;
        if (id.empty()) id = ip + "-" + name;
    }
    PrinterNetConf conf = {};
    if (!set_field(conf.szIP, ip) || !set_field(conf.szCupsPrinterName, name) || !set_field(conf.szBackend, backend) ||
        !set_field(conf.szQName, qname) || !set_field(conf.szPrinterId, id))
        return say(qpcli::kUsage, "queue add-net: a value is too long for its field.");
    begin_call();
    return done(QORAPrinterNetCupsAdd(&conf, ppd.empty() ? nullptr : ppd.c_str()), "queue add-net");
}

int queue_rm(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string name, net;
    const bool by_name = qpcli::take_option(a, "--name", name);
    const bool by_net = qpcli::take_option(a, "--net", net);
    begin_call();
    if (by_name && !by_net && a.empty()) return done(QORAPrinterCupsRmByName(name.c_str()), "queue rm");
    if (by_net && !by_name && a.empty()) return done(QORAPrinterNetCupsRm(net.c_str()), "queue rm");
    if (!by_name && !by_net && a.size() == 1) return done(QORAPrinterCupsRm(a[0].c_str()), "queue rm");
    return qpcli::kBadArgs;
}

int queue_switch(const qpcli::Args &a, int on) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterCupsPrinterEnable(a[0].c_str(), on), on ? "queue enable" : "queue disable");
}
int queue_enable(const qpcli::Args &a) { return queue_switch(a, 1); }
int queue_disable(const qpcli::Args &a) { return queue_switch(a, 0); }

int queue_check(const qpcli::Args &a) {
    if (a.size() != 2) return qpcli::kBadArgs;
    begin_call();
    const int rc = QORAPrinterCupsNameCheck(a[0].c_str(), a[1].c_str());
    if (rc < 0 || rc > 2) return qpcli::fail("queue check");
    static const char *const kAnswer[] = {"no-queue", "this-printer", "another-device"};
    static const char *const kText[] = {"no such queue (or cupsd is not running)", "the queue serves this printer",
                                        "the queue serves another device"};
    if (json()) {
        qpcli::Json().open().field("printer", a[0]).field("queue", a[1]).field("answer", kAnswer[rc]).close().print();
    } else {
        std::printf("%s\n", kText[rc]);
    }
    return rc == 1 ? qpcli::kOk : rc == 0 ? qpcli::kNo : qpcli::kPartly;
}

int queue_scrub_usb(const qpcli::Args &a) {
    if (!a.empty()) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterCupsUsbConfRmAll(), "queue scrub-usb");
}

int ppd_show(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    char *text = QORACupsGetPPD(a[0].c_str());
    if (!text) return qpcli::fail("ppd show");
    if (json())
        qpcli::Json().open().field("name", a[0]).field("text", text).close().print();
    else
        std::fputs(text, stdout);
    std::free(text);
    return qpcli::kOk;
}

int print_file(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string title;
    const bool titled = qpcli::take_option(a, "--title", title);
    const bool remove = qpcli::take_flag(a, "--remove");
    if (a.size() != 2) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterCupsPrintFile(a[0].c_str(), a[1].c_str(), titled ? title.c_str() : nullptr, remove ? 1 : 0),
                "print");
}

int print_test(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterCupsPrintTestPage(a[0].c_str()), "print-test");
}

long long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Asks the library until the job has left the queue or the time is up; each
// question lists the queue once (up to five times, a second apart, when a
// listing fails).
int job_wait(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string limit = "0";
    qpcli::take_option(a, "--timeout", limit);
    char *end = nullptr;
    errno = 0;
    const long seconds = std::strtol(limit.c_str(), &end, 10);
    if (a.size() != 2) return qpcli::kBadArgs;
    if (limit.empty() || *end || errno || seconds < 0 || seconds > 86400)
        return say(qpcli::kUsage, "job wait: --timeout takes whole seconds from 0 to 86400, not '%s'.", limit.c_str());
    const long long start = now_ms(), deadline = start + seconds * 1000;
    int rc;
    for (;;) {
        begin_call();
        rc = QORAPrinterCupsJobWaitComplete(a[0].c_str(), a[1].c_str());
        if (rc != 1 || now_ms() >= deadline) break;
        const long long pause = std::min(1000LL, deadline - now_ms());
        if (pause > 0) {
            const timespec ts{static_cast<time_t>(pause / 1000), static_cast<long>(pause % 1000) * 1000000L};
            nanosleep(&ts, nullptr);
        }
    }
    if (rc < 0) return qpcli::fail("job wait");
    const long long waited = (now_ms() - start) / 1000;
    if (json()) {
        qpcli::Json()
            .open()
            .field("printer", a[0])
            .field("job", a[1])
            .field("complete", rc == 0)
            .field("seconds", waited)
            .close()
            .print();
    } else if (rc == 0) {
        std::printf("job %s has left the queue\n", a[1].c_str());
    } else {
        std::printf("job %s is still queued after %lld s\n", a[1].c_str(), waited);
    }
    return rc == 0 ? qpcli::kOk : qpcli::kTimedOut;
}

int spool_clean(const qpcli::Args &a) {
    if (!a.empty()) return qpcli::kBadArgs;
    begin_call();
    return done(QORAPrinterCleanSpool(), "spool clean");
}

const qpcli::Register reg{{
    cmd("queue add", "ID [--ppd FILE]", "Create a USB printer's queue, stopped, and print its name.", queue_add, kJson),
    cmd("queue add-net", "--ip IP --backend URI [--name Q] [--qname R] [--id ID] [--ppd FILE] | --from ID [--ppd FILE]",
        "Create a network printer's queue from these values or from its stored section.", queue_add_net),
    cmd("queue rm", "ID | --name Q | --net ID", "Remove a queue by printer, by name, or a network printer's.",
        queue_rm),
    cmd("queue enable", "Q", "Start a queue (usbprinter1 with its twin).", queue_enable),
    cmd("queue disable", "Q", "Stop a queue (usbprinter1 with its twin).", queue_disable),
    cmd("queue check", "ID Q", "Whether queue Q exists and serves printer ID (0 yes, 3 no queue, 4 another device).",
        queue_check, kJson),
    cmd("queue scrub-usb", "", "Drop the USB queues from printers.conf (cupsd stopped).", queue_scrub_usb),
    cmd("ppd show", "NAME", "The PPD file /etc/cups/ppd/NAME.ppd.", ppd_show, kJson),
    cmd("print", "ID FILE [--title T] [--remove]", "Print a file on the printer's queue.", print_file),
    cmd("print-test", "ID", "Print the test page.", print_test),
    cmd("job wait", "ID JOB [--timeout SECONDS]",
        "Wait until job JOB has left the printer's queue (0) or the time is up (5); without --timeout, ask once.",
        job_wait, kJson),
    cmd("spool clean", "", "Cancel all jobs and empty the spool directory.", spool_clean),
}};

}  // namespace
