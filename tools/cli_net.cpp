// qoraprinter net ...: identify a network printer, register and configure it,
// check an address against the print queues, ping it, remove it.
#include <stdio.h>
#include <string.h>

#include <string>

#include "cli.hpp"
#include "cli_ipp.hpp"
#include "qoraprinter.h"

namespace {

using qpcli::Args;

int bad_usage(const char *name) {
    for (const qpcli::Command &c : qpcli::registry()) {
        if (c.name == name) return qpcli::usage(c);
    }
    return 1;
}

// Copies text into a record field, refusing what does not fit.
template <size_t N>
bool put(char (&field)[N], const std::string &value, const char *what) {
    if (qpcli::set_field(field, value)) return true;
    fprintf(stderr, "%s is too long (at most %zu characters)\n", what, N - 1);
    return false;
}

// Identification by SNMP (the default), BJNP or mDNS: the library's result.
int identify_by(const std::string &how, const std::string &ip, PrinterNetInfo &info) {
    memset(&info, 0, sizeof info);
    if (how == "bjnp") return QORAPrinterNetBjnpInfoGet(ip.c_str(), &info);
    if (how == "mdns") return QORAPrinterNetAvahiInfoGet(ip.c_str(), &info);
    return QORAPrinterNetInfoGetByIP(ip.c_str(), &info);
}

int net_identify(const Args &args) {
    Args a = args;
    std::string how = "snmp";
    if (qpcli::take_flag(a, "--bjnp")) how = "bjnp";
    if (qpcli::take_flag(a, "--mdns")) how = "mdns";
    qpcli::take_flag(a, "--snmp");
    if (a.size() != 1) return bad_usage("net identify");
    PrinterNetInfo info;
    const int r = identify_by(how, a[0], info);
    if (r < 0) return qpcli::fail("net identify");
    printf("backend:   %s\nqueue:     %s\nvendor:    %s\nmodel:     %s\ndevice ID: %s\n", info.szBackend,
           info.szQName, info.szVendor, info.szModel, info.szStringId);
    if (r == 1) {
        printf("(%s: not identified, or only in part)\n", how.c_str());
        return 2;
    }
    return 0;
}

int net_configure(const Args &args) {
    Args a = args;
    std::string name, backend, qname, brand, model, stringId, driver, driverBrand, ppd, how = "snmp";
    qpcli::take_option(a, "--name", name);
    const bool given = qpcli::take_option(a, "--backend", backend);
    const bool qnameGiven = qpcli::take_option(a, "--qname", qname);
    qpcli::take_option(a, "--brand", brand);
    qpcli::take_option(a, "--model", model);
    qpcli::take_option(a, "--string-id", stringId);
    qpcli::take_option(a, "--driver", driver);
    qpcli::take_option(a, "--driver-brand", driverBrand);
    qpcli::take_option(a, "--ppd", ppd);
    qpcli::take_option(a, "--by", how);
    const bool driverless = qpcli::take_flag(a, "--driverless");
    if (a.size() != 1 || name.empty() || (driverless && (given || !ppd.empty()))) return bad_usage("net configure");
    const std::string ip = a[0];

    qpipp::DriverlessPpd made;
    if (driverless) {
        // The printer describes itself over IPP; its queue prints to ipp://IP/ipp/print.
        if (!qpipp::valid_host(ip) || ip.find(':') != std::string::npos) {
            fprintf(stderr, "net configure: '%s' is no IPv4 address or host name\n", ip.c_str());
            return 1;
        }
        qpipp::make_driverless_ppd(ip, made);
        if (!made.ok) {
            fprintf(stderr, "net configure: %s\n", made.problem.c_str());
            return made.no ? qpipp::kExitNo : 1;
        }
        backend = "ipp", qname = "ipp/print", ppd = made.path;
        if (model.empty()) model = made.make_and_model;
        if (brand.empty()) brand = model.substr(0, model.find(' '));
        if (stringId.empty()) stringId = made.device_id;
        if (driver.empty()) driver = "driverless";
    } else if (!given) {
        PrinterNetInfo info;
        if (identify_by(how, ip, info) < 0) return qpcli::fail("net configure: identification");
        backend = info.szBackend;
        if (!qnameGiven) qname = info.szQName;
        if (brand.empty()) brand = info.szVendor;
        if (model.empty()) model = info.szModel;
        if (stringId.empty()) stringId = info.szStringId;
        if (backend.empty()) {
            fprintf(stderr, "net configure: %s found no backend for %s; give --backend\n", how.c_str(), ip.c_str());
            return 1;
        }
    }

    PrinterNetConf conf;
    memset(&conf, 0, sizeof conf);
    const std::string id = ip + "-" + name;
    if (!put(conf.szIP, ip, "the address") || !put(conf.szCupsPrinterName, name, "the queue name") ||
        !put(conf.szPrinterId, id, "address-queue") || !put(conf.szBackend, backend, "the backend") ||
        !put(conf.szQName, qname, "the remote queue") || !put(conf.szBrand, brand.substr(0, 127), "brand") ||
        !put(conf.szModel, model.substr(0, 127), "model") || !put(conf.szDriver, driver, "the driver") ||
        !put(conf.szDriverBrand, driverBrand, "the driver brand") ||
        !put(conf.szStringId, stringId.substr(0, 1023), "the device ID")) {
        return 1;
    }
    if (QORAPrinterNetUpdateConf(1, &conf) != 0) return qpcli::fail("net configure: nptab");
    if (QORAPrinterNetConfSetup(&conf, 0) != 0) return qpcli::fail("net configure: printer.conf");
    if (QORAPrinterNetCupsAdd(&conf, ppd.empty() ? nullptr : ppd.c_str()) != 0) {
        return qpcli::fail("net configure: queue");
    }
    printf("%s\n", id.c_str());
    return 0;
}

int net_check(const Args &a) {
    int r;
    if (a.size() == 1) {
        r = QORAPrinterNetIPCheck(a[0].c_str());
        if (r < 0) return qpcli::fail("net check");
        printf("%s\n", r == 0 ? "a queue prints to this address" : "no queue prints to this address");
        return r;
    }
    if (a.size() != 2) return bad_usage("net check");
    r = QORAPrinterNetCupsNameAndIPCheck(a[0].c_str(), a[1].c_str());
    if (r < 0) return qpcli::fail("net check");
    static const char *const kAnswers[] = {"no such queue", "the queue prints to this address",
                                           "the queue prints elsewhere"};
    printf("%s\n", kAnswers[r]);
    return r == 1 ? 0 : 1 + r;
}

int net_ping(const Args &a) {
    if (a.size() != 1) return bad_usage("net ping");
    char status[16];
    if (QORAPrinterNetPingStatus(a[0].c_str(), status, sizeof status) != 0) return qpcli::fail("net ping");
    printf("%s\n", status);
    return 0;
}

int net_remove(const Args &args) {
    Args a = args;
    std::string name;
    qpcli::take_option(a, "--name", name);
    if (a.size() != 1 || name.empty()) return bad_usage("net remove");
    PrinterNetConf conf;
    memset(&conf, 0, sizeof conf);
    if (!put(conf.szIP, a[0], "the address") || !put(conf.szCupsPrinterName, name, "the queue name")) return 1;
    const std::string id = a[0] + "-" + name;
    int rc = 0;
    if (QORAPrinterNetCupsRm(id.c_str()) != 0) rc = qpcli::fail("net remove: queue");
    if (QORAPrinterNetUpdateConf(0, &conf) != 0) rc = qpcli::fail("net remove: nptab");
    return rc;
}

const qpcli::Register kNet({
    {"net identify", "IP [--snmp|--bjnp|--mdns]",
     "identify the printer at an address (exit 2: not or partly identified)", net_identify},
    {"net configure", "IP --name QUEUE [--driverless | --by snmp|bjnp|mdns] [--backend B --qname Q --brand B "
                      "--model M --string-id S --driver D --driver-brand DB --ppd FILE]",
     "register a network printer: nptab line, printer.conf section and queue (--driverless: PPD from the "
     "printer over IPP; exit 3: it does not speak IPP Everywhere)", net_configure},
    {"net check", "IP [QUEUE]", "does a queue (this queue) print to the address?", net_check},
    {"net ping", "IP", "Online or Offline", net_ping},
    {"net remove", "IP --name QUEUE", "remove a network printer's queue and nptab line", net_remove},
});

}  // namespace
