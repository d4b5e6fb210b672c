// qoraprinter subcommands for CUPS queues, PPD files, printing and jobs.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "cli.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace {

using qpcli::clear_slot;
using qpcli::cmd;
using qpcli::done;
using qpcli::set_field;

constexpr const char *kPrinterConf = "/usr/qora/etc/printer.conf";

int queue_add(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string ppd;
    qpcli::take_option(a, "--ppd", ppd);
    if (a.size() != 1) return -1;
    clear_slot();
    if (QORAPrinterCupsAdd(a[0].c_str(), ppd.empty() ? nullptr : ppd.c_str()) != 0) return qpcli::fail("queue add");
    char name[128] = {};
    if (QORAPrinterCupsNameGet(a[0].c_str(), name, sizeof name) == 0) std::printf("%s\n", name);
    return 0;
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
    if (!a.empty()) return -1;
    if (stored) {
        if (!ip.empty() || !name.empty() || !backend.empty() || !qname.empty() || !id.empty()) return -1;
        PQLIBSZHASH hash = QLIBCSzHashAlloc(512);
        if (!hash) return qpcli::fail("queue add-net");
        if (QLIBCFileGetSection(kPrinterConf, from.c_str(), &hash) > 0) {
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
        if (ip.empty() || backend.empty()) {
            std::fprintf(stderr, "queue add-net: no network printer section [%s] in %s\n", from.c_str(), kPrinterConf);
            return 1;
        }
        id = from;
    } else {
        if (ip.empty() || backend.empty()) return -1;
        if (id.empty()) id = ip + "-" + name;
    }
    PrinterNetConf conf = {};
    if (!set_field(conf.szIP, ip) || !set_field(conf.szCupsPrinterName, name) ||
        !set_field(conf.szBackend, backend) || !set_field(conf.szQName, qname) ||
        !set_field(conf.szPrinterId, id)) {
        std::fprintf(stderr, "queue add-net: a value is too long for its field\n");
        return 1;
    }
    clear_slot();
    return done(QORAPrinterNetCupsAdd(&conf, ppd.empty() ? nullptr : ppd.c_str()), "queue add-net");
}

int queue_rm(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string name, net;
    const bool by_name = qpcli::take_option(a, "--name", name);
    const bool by_net = qpcli::take_option(a, "--net", net);
    clear_slot();
    if (by_name && !by_net && a.empty()) return done(QORAPrinterCupsRmByName(name.c_str()), "queue rm");
    if (by_net && !by_name && a.empty()) return done(QORAPrinterNetCupsRm(net.c_str()), "queue rm");
    if (!by_name && !by_net && a.size() == 1) return done(QORAPrinterCupsRm(a[0].c_str()), "queue rm");
    return -1;
}

int queue_switch(const qpcli::Args &a, int on) {
    if (a.size() != 1) return -1;
    clear_slot();
    return done(QORAPrinterCupsPrinterEnable(a[0].c_str(), on), on ? "queue enable" : "queue disable");
}
int queue_enable(const qpcli::Args &a) { return queue_switch(a, 1); }
int queue_disable(const qpcli::Args &a) { return queue_switch(a, 0); }

int queue_check(const qpcli::Args &a) {
    if (a.size() != 2) return -1;
    clear_slot();
    int rc = QORAPrinterCupsNameCheck(a[0].c_str(), a[1].c_str());
    switch (rc) {
    case 0: std::printf("0 no such queue (or cupsd not running)\n"); return 0;
    case 1: std::printf("1 queue serves this printer\n"); return 0;
    case 2: std::printf("2 queue serves another device\n"); return 0;
    default: return qpcli::fail("queue check");
    }
}

int queue_scrub_usb(const qpcli::Args &a) {
    if (!a.empty()) return -1;
    clear_slot();
    return done(QORAPrinterCupsUsbConfRmAll(), "queue scrub-usb");
}

int ppd_show(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    clear_slot();
    char *text = QORACupsGetPPD(a[0].c_str());
    if (!text) return qpcli::fail("ppd show");
    std::fputs(text, stdout);
    std::free(text);
    return 0;
}

int print_file(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string title;
    const bool titled = qpcli::take_option(a, "--title", title);
    const bool remove = qpcli::take_flag(a, "--remove");
    if (a.size() != 2) return -1;
    clear_slot();
    return done(QORAPrinterCupsPrintFile(a[0].c_str(), a[1].c_str(), titled ? title.c_str() : nullptr, remove ? 1 : 0),
                "print");
}

int print_test(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    clear_slot();
    return done(QORAPrinterCupsPrintTestPage(a[0].c_str()), "print-test");
}

int job_wait(const qpcli::Args &a) {
    if (a.size() != 2) return -1;
    clear_slot();
    int rc = QORAPrinterCupsJobWaitComplete(a[0].c_str(), a[1].c_str());
    if (rc < 0) return qpcli::fail("job wait");
    std::printf("%s\n", rc == 0 ? "complete" : "still queued");
    return 0;
}

int spool_clean(const qpcli::Args &a) {
    if (!a.empty()) return -1;
    clear_slot();
    return done(QORAPrinterCleanSpool(), "spool clean");
}

const qpcli::Register reg{{
    cmd("queue add", "ID [--ppd FILE]", "create a USB printer's queue (stopped); prints its name", queue_add),
    cmd("queue add-net", "--ip IP --name Q --backend B [--qname R] [--id ID] [--ppd FILE] | --from ID [--ppd FILE]",
        "create a network printer's queue", queue_add_net),
    cmd("queue rm", "ID | --name Q | --net ID", "remove a queue by printer, by name, or a network printer's", queue_rm),
    cmd("queue enable", "Q", "start a queue (usbprinter1 with its twin)", queue_enable),
    cmd("queue disable", "Q", "stop a queue (usbprinter1 with its twin)", queue_disable),
    cmd("queue check", "ID Q", "does queue Q exist and serve printer ID (0, 1, 2)", queue_check),
    cmd("queue scrub-usb", "", "drop the USB queues from printers.conf (cupsd stopped)", queue_scrub_usb),
    cmd("ppd show", "NAME", "print /etc/cups/ppd/NAME.ppd", ppd_show),
    cmd("print", "ID FILE [--title T] [--remove]", "print a file on the printer's queue", print_file),
    cmd("print-test", "ID", "print the test page", print_test),
    cmd("job wait", "ID JOB", "whether job JOB is still in the printer's queue", job_wait),
    cmd("spool clean", "", "cancel all jobs and empty the spool directory", spool_clean),
}};

}  // namespace
