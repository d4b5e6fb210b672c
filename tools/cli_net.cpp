// qoraprinter net ...: identify a network printer, register and configure it,
// check an address against the print queues, ping it, remove it.
#include <stdio.h>
#include <string.h>

#include <string>

#include "cli.hpp"
#include "cli_ipp.hpp"
#include "qoraprinter.h"

namespace {

using namespace qpcli;

// Copies text into a record field, refusing what does not fit.
template <size_t N>
bool put(char (&field)[N], const std::string &value, const char *what) {
    if (qpcli::set_field(field, value)) return true;
    qpcli::say(0, "%s is too long (at most %zu bytes).", what, N - 1);
    return false;
}

// Identification by SNMP (the default), BJNP or mDNS: the library's result.
int identify_by(const std::string &how, const std::string &ip, PrinterNetInfo &info) {
    memset(&info, 0, sizeof info);
    begin_call();
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
    if (a.size() != 1) return qpcli::kBadArgs;
    PrinterNetInfo info;
    const int r = identify_by(how, a[0], info);
    if (r < 0) return qpcli::fail("net identify");
    const bool nothing =
        !info.szBackend[0] && !info.szQName[0] && !info.szVendor[0] && !info.szModel[0] && !info.szStringId[0];
    if (json()) {
        qpcli::Json()
            .open()
            .field("address", a[0])
            .field("method", how)
            .field("complete", r == 0)
            .field("backend", info.szBackend)
            .field("queue", info.szQName)
            .field("vendor", info.szVendor)
            .field("model", info.szModel)
            .field("device_id", info.szStringId)
            .close()
            .print();
    } else {
        printf("backend:   %s\nqueue:     %s\nvendor:    %s\nmodel:     %s\ndevice ID: %s\n", info.szBackend,
               info.szQName, info.szVendor, info.szModel, info.szStringId);
    }
    if (r == 0) return qpcli::kOk;
    qpcli::say(0, "net identify: %s %s %s.", how.c_str(), nothing ? "did not identify" : "identified only in part",
               a[0].c_str());
    return nothing ? qpcli::kNo : qpcli::kPartly;
}

int net_configure(const Args &args) {
    Args a = args;
    std::string name, backend, qname, brand, model, string_id, driver, driver_brand, ppd, how = "snmp";
    qpcli::take_option(a, "--name", name);
    const bool given = qpcli::take_option(a, "--backend", backend);
    const bool qname_given = qpcli::take_option(a, "--qname", qname);
    qpcli::take_option(a, "--brand", brand);
    qpcli::take_option(a, "--model", model);
    qpcli::take_option(a, "--string-id", string_id);
    qpcli::take_option(a, "--driver", driver);
    qpcli::take_option(a, "--driver-brand", driver_brand);
    qpcli::take_option(a, "--ppd", ppd);
    qpcli::take_option(a, "--by", how);
    const bool driverless = qpcli::take_flag(a, "--driverless");
    if (a.size() != 1 || name.empty() || (driverless && (given || !ppd.empty()))) return qpcli::kBadArgs;
    const std::string ip = a[0];

    qpipp::DriverlessPpd made;
    if (driverless) {
        // The printer describes itself over IPP; its queue prints to ipp://IP/ipp/print.
        if (!qpipp::valid_host(ip) || ip.find(':') != std::string::npos) {
            return qpcli::say(qpcli::kFailed, "net configure: '%s' is no IPv4 address or host name.", ip.c_str());
        }
        qpipp::make_driverless_ppd(ip, made);
        if (!made.ok) {
            return qpcli::say(made.no ? qpcli::kNo : qpcli::kFailed, "net configure: %s", made.problem.c_str());
        }
        backend = "ipp", qname = "ipp/print", ppd = made.path;
        if (model.empty()) model = made.make_and_model;
        if (brand.empty()) brand = model.substr(0, model.find(' '));
        if (string_id.empty()) string_id = made.device_id;
        if (driver.empty()) driver = "driverless";
    } else if (!given) {
        PrinterNetInfo info;
        if (identify_by(how, ip, info) < 0) return qpcli::fail("net configure: identification");
        backend = info.szBackend;
        if (!qname_given) qname = info.szQName;
        if (brand.empty()) brand = info.szVendor;
        if (model.empty()) model = info.szModel;
        if (string_id.empty()) string_id = info.szStringId;
        if (backend.empty())
            return qpcli::say(qpcli::kNo, "net configure: %s found no backend for %s; give --backend.", how.c_str(),
                              ip.c_str());
    }

    PrinterNetConf conf;
    memset(&conf, 0, sizeof conf);
    const std::string id = ip + "-" + name;
    if (!put(conf.szIP, ip, "the address") || !put(conf.szCupsPrinterName, name, "the queue name") ||
        !put(conf.szPrinterId, id, "address-queue") || !put(conf.szBackend, backend, "the backend") ||
        !put(conf.szQName, qname, "the remote queue") || !put(conf.szBrand, brand.substr(0, 127), "brand") ||
        !put(conf.szModel, model.substr(0, 127), "model") || !put(conf.szDriver, driver, "the driver") ||
        !put(conf.szDriverBrand, driver_brand, "the driver brand") ||
        !put(conf.szStringId, string_id.substr(0, 1023), "the device ID")) {
        return qpcli::kUsage;
    }
    begin_call();
    if (QORAPrinterNetUpdateConf(1, &conf) != 0) return qpcli::fail("net configure: nptab");
    begin_call();
    if (QORAPrinterNetConfSetup(&conf, 0) != 0) return qpcli::fail("net configure: printer.conf");
    begin_call();
    if (QORAPrinterNetCupsAdd(&conf, ppd.empty() ? nullptr : ppd.c_str()) != 0)
        return qpcli::fail("net configure: queue");
    if (json())
        qpcli::Json().open().field("printer", id).close().print();
    else
        printf("%s\n", id.c_str());
    return qpcli::kOk;
}

int net_check(const Args &a) {
    if (a.empty() || a.size() > 2) return qpcli::kBadArgs;
    begin_call();
    // IP alone: 0 a queue prints there, 1 none.  With a queue: 0 no such
    // queue, 1 it prints there, 2 it prints elsewhere.
    const int r = a.size() == 1 ? QORAPrinterNetIPCheck(a[0].c_str())
                                : QORAPrinterNetCupsNameAndIPCheck(a[0].c_str(), a[1].c_str());
    if (r < 0 || r > (a.size() == 1 ? 1 : 2)) return qpcli::fail("net check");
    static const char *const kAnswer[2][3] = {{"served", "not-served", ""}, {"no-queue", "this-address", "elsewhere"}};
    static const char *const kText[2][3] = {
        {"a queue prints to this address", "no queue prints to this address", ""},
        {"no such queue", "the queue prints to this address", "the queue prints elsewhere"}};
    static const int kStatus[2][3] = {{qpcli::kOk, qpcli::kNo, 0}, {qpcli::kNo, qpcli::kOk, qpcli::kPartly}};
    const size_t form = a.size() - 1;
    if (json()) {
        qpcli::Json j;
        j.open().field("address", a[0]);
        form ? j.field("queue", a[1]) : j.null("queue");
        j.field("answer", kAnswer[form][r]).close().print();
    } else {
        printf("%s\n", kText[form][r]);
    }
    return kStatus[form][r];
}

int net_ping(const Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    char status[16];
    begin_call();
    if (QORAPrinterNetPingStatus(a[0].c_str(), status, sizeof status) != 0) return qpcli::fail("net ping");
    if (json())
        qpcli::Json().open().field("address", a[0]).field("status", status).close().print();
    else
        printf("%s\n", status);
    return strcmp(status, "Online") == 0 ? qpcli::kOk : qpcli::kNo;
}

int net_remove(const Args &args) {
    Args a = args;
    std::string name;
    qpcli::take_option(a, "--name", name);
    if (a.size() != 1 || name.empty()) return qpcli::kBadArgs;
    PrinterNetConf conf;
    memset(&conf, 0, sizeof conf);
    if (!put(conf.szIP, a[0], "the address") || !put(conf.szCupsPrinterName, name, "the queue name"))
        return qpcli::kUsage;
    const std::string id = a[0] + "-" + name;
    int rc = qpcli::kOk;
    begin_call();
    if (QORAPrinterNetCupsRm(id.c_str()) != 0) rc = qpcli::fail("net remove: queue");
    begin_call();
    if (QORAPrinterNetUpdateConf(0, &conf) != 0) rc = qpcli::fail("net remove: nptab");
    return rc;
}

const qpcli::Register kNet({
    cmd("net identify", "IP [--snmp|--bjnp|--mdns]",
        "Identify the printer at an address (0 identified, 3 not, 4 in part).", net_identify, kJson),
    cmd("net configure",
        "IP --name QUEUE [--driverless | --by snmp|bjnp|mdns] [--backend B] [--qname Q] [--brand B] "
        "[--model M] [--string-id S] [--driver D] [--driver-brand DB] [--ppd FILE]",
        "Register a network printer: nptab line, printer.conf section and queue; prints its ID "
        "(--driverless: PPD made from the printer's IPP attributes; 3 it does not print driverless).",
        net_configure, kJson),
    cmd("net check", "IP [QUEUE]",
        "Does a queue (this queue) print to the address? (0 yes, 3 no or no such queue, 4 elsewhere)", net_check,
        kJson),
    cmd("net ping", "IP", "Online (0) or Offline (3).", net_ping, kJson),
    cmd("net remove", "IP --name QUEUE", "Remove a network printer's queue and nptab line.", net_remove),
});

}  // namespace
