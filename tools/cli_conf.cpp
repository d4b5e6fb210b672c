// qoraprinter subcommands for device ID strings, printer.conf sections,
// model detection and the cloud print account.
#include <cstdio>
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

// The library never clears the error slot; the CLI does, so that "not found"
// (no code) can be told from a failure (a code).
int parse_result(int rc, const char *buf, const char *what) {
    if (rc == 0) {
        std::printf("%s\n", buf);
        return 0;
    }
    if (QLIBCErrGet() == 0) {
        std::fprintf(stderr, "%s: not found\n", what);
        return 1;
    }
    return qpcli::fail(what);
}

int stringid_field(const qpcli::Args &a, int (*fn)(char *, char *, int), const char *what) {
    if (a.size() != 1) return -1;
    std::string id = a[0];
    char buf[1024] = {};
    clear_slot();
    return parse_result(fn(id.data(), buf, sizeof buf), buf, what);
}

int stringid_get(const qpcli::Args &a) {
    if (a.size() != 2) return -1;
    std::string id = a[1];
    char buf[1024] = {};
    clear_slot();
    return parse_result(QORAPrinterConfStringIdParse(id.data(), a[0].c_str(), buf, sizeof buf), buf, "stringid get");
}

bool set_conf_key(PrinterConf &c, std::string_view key, std::string_view v, bool &fits) {
    fits = true;
    if (key == "producer") fits = set_field(c.szProducer, v);
    else if (key == "product name") fits = set_field(c.szProductName, v);
    else if (key == "mode") fits = set_field(c.szMode, v);
    else if (key == "autolock timer") fits = set_field(c.szAutoLockTimer, v);
    else if (key == "manuallock timer") fits = set_field(c.szManualLockTimer, v);
    else if (key == "enable airprint") fits = set_field(c.szEnableAirprint, v);
    else if (key == "enable google cloud print") fits = set_field(c.szEnableGoogleCloudPrint, v);
    else if (key == "driver") fits = set_field(c.szDriver, v);
    else if (key == "driver brand") fits = set_field(c.szDriverBrand, v);
    else if (key == "usblp string id") fits = set_field(c.szUsblpStringId, v);
    else if (key == "fit to page") fits = set_field(c.szFitToPage, v);
    else return false;
    return true;
}

int conf_show(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    PQLIBSZHASH hash = QLIBCSzHashAlloc(512);
    if (!hash) return qpcli::fail("conf show");
    int n = QLIBCFileGetSection(kPrinterConf, a[0].c_str(), &hash);
    PQLIBSZLIST keys = QLIBCSzListAlloc(256);
    int rc = 0;
    if (n <= 0) {
        std::fprintf(stderr, "conf show: no section [%s] in %s\n", a[0].c_str(), kPrinterConf);
        rc = 1;
    } else if (!keys || QLIBCSzHashEnumKey(hash, &keys) < 0) {
        rc = qpcli::fail("conf show");
    } else {
        std::printf("[%s]\n", a[0].c_str());
        for (int i = 0; i < keys->nItem; ++i) {
            const char *v = QLIBCSzHashGetValue(hash, keys->pszItem[i]);
            std::printf("\t%s = %s\n", keys->pszItem[i], v ? v : "");
        }
    }
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(hash);
    return rc;
}

int conf_set(const qpcli::Args &args) {
    qpcli::Args a = args;
    const bool force = qpcli::take_flag(a, "--force");
    if (a.empty()) return -1;
    PrinterConf conf{};
    if (!set_field(conf.szPrinterId, a[0])) {
        std::fprintf(stderr, "conf set: printer ID longer than %zu characters\n", sizeof conf.szPrinterId - 1);
        return 1;
    }
    for (size_t i = 1; i < a.size(); ++i) {
        const size_t eq = a[i].find('=');
        if (eq == std::string::npos) {
            std::fprintf(stderr, "conf set: expected key=value, got '%s'\n", a[i].c_str());
            return 1;
        }
        std::string_view key(a[i].data(), eq), value(a[i].data() + eq + 1, a[i].size() - eq - 1);
        bool fits = true;
        if (!set_conf_key(conf, key, value, fits)) {
            std::fprintf(stderr, "conf set: unknown key '%.*s'\n", static_cast<int>(key.size()), key.data());
            return 1;
        }
        if (!fits) {
            std::fprintf(stderr, "conf set: value of '%.*s' too long\n", static_cast<int>(key.size()), key.data());
            return 1;
        }
    }
    if (QORAPrinterConfSetup(&conf, force ? 1 : 0) != 0) return qpcli::fail("conf set");
    return 0;
}

int conf_cups_name(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    char buf[128] = {};
    if (QORAPrinterCupsNameGet(a[0].c_str(), buf, sizeof buf) != 0) return qpcli::fail("conf cups-name");
    std::printf("%s\n", buf);
    return 0;
}

int conf_detect(const qpcli::Args &a) {
    if (a.size() != 1) return -1;
    PrinterConf conf{};
    if (!set_field(conf.szPrinterId, a[0])) {
        std::fprintf(stderr, "conf detect: printer ID longer than %zu characters\n", sizeof conf.szPrinterId - 1);
        return 1;
    }
    if (QORAPrinterModelDetect(&conf) != 0) return qpcli::fail("conf detect");
    std::printf("maker: %s\nmodel: %s\n", conf.szDetectedVendor, conf.szDetectedModel);
    return 0;
}

int cloud_set(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string password, token;
    const bool has_pass = qpcli::take_option(a, "--password", password);
    const bool has_token = qpcli::take_option(a, "--token", token);
    if (a.size() != 1 || has_pass == has_token) return -1;
    PrinterGoogleInfo info{};
    if (!set_field(info.szAccount, a[0]) || !set_field(info.szPassword, password) ||
        !set_field(info.szRefreshToken, token)) {
        std::fprintf(stderr, "cloud set: account (254), password (127) or token (255 characters) too long\n");
        return 1;
    }
    const int rc = QORAPrinterGoogleInfoSet(&info);
    explicit_bzero(&info, sizeof info);
    if (rc != 0) return qpcli::fail("cloud set");
    return 0;
}

int cloud_show(const qpcli::Args &args) {
    qpcli::Args a = args;
    const bool reveal = qpcli::take_flag(a, "--reveal");
    if (!a.empty()) return -1;
    PrinterGoogleInfo info{};
    clear_slot();
    if (QORAPrinterGoogleInfoGet(&info) != 0) {
        // No account: nothing in the slot, or only the core library's failed
        // open of a printer.conf that does not exist yet.
        const unsigned int code = QLIBCErrGet();
        const bool no_file = code == ERR_OPEN_FAILED && !QLIBCFileExist(kPrinterConf);
        if ((code == 0 || no_file) && info.szAccount[0] == '\0') {
            std::fprintf(stderr, "cloud show: no account stored\n");
            return 1;
        }
        return qpcli::fail("cloud show");
    }
    const bool pass = info.szPassword[0] != '\0';
    std::printf("account: %s\nsecret: %s\n", info.szAccount, pass ? "password" : "refresh token");
    if (reveal) std::printf("%s: %s\n", pass ? "password" : "refresh token", pass ? info.szPassword : info.szRefreshToken);
    explicit_bzero(&info, sizeof info);
    return 0;
}

// Runs a handler; -1 from it means the arguments did not fit the synopsis.
int stringid_vendor(const qpcli::Args &a) {
    return stringid_field(a, QORAPrinterConfStringIdGetVendor, "stringid vendor");
}
int stringid_model(const qpcli::Args &a) {
    return stringid_field(a, QORAPrinterConfStringIdGetModel, "stringid model");
}
int stringid_cmd(const qpcli::Args &a) { return stringid_field(a, QORAPrinterConfStringIdGetCmd, "stringid cmd"); }

const qpcli::Register reg{{
    cmd("stringid vendor", "STRING", "maker in a device ID string (MANUFACTURER:, MFG:, MFR:)", stringid_vendor),
    cmd("stringid model", "STRING", "model in a device ID string (MODEL:, MDL:, DESCRIPTION:, DES:)", stringid_model),
    cmd("stringid cmd", "STRING", "command set in a device ID string (COMMAND SET:, CMD:)", stringid_cmd),
    cmd("stringid get", "KEY STRING", "value of KEY (with its colon); exit 1 when absent", stringid_get),
    cmd("conf show", "ID", "print a printer's section of printer.conf", conf_show),
    cmd("conf set", "ID key=value... [--force]", "write a USB printer's section (QORAPrinterConfSetup)", conf_set),
    cmd("conf cups-name", "ID", "the printer's stored CUPS queue name", conf_cups_name),
    cmd("conf detect", "ID", "maker and model from the stored device ID string", conf_detect),
    cmd("cloud set", "ACCOUNT --password P | --token T", "store the cloud print account", cloud_set),
    cmd("cloud show", "[--reveal]", "the cloud print account and which secret is stored", cloud_show),
}};

}  // namespace
