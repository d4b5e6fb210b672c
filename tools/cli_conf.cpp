// qoraprinter subcommands for device ID strings, printer.conf sections,
// model detection and the cloud print account.
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "cli.hpp"
#include "paths.hpp"
#include "qoracore.h"
#include "qoraprinter.h"

namespace {

using namespace qpcli;

// A parse answers non-zero without an error code when the key is absent:
// "no" (3), not a failure; begin_call() emptied the slot to tell them apart.
int parse_result(int rc, const char *key, const char *buf, const char *what) {
    const bool found = rc == 0;
    if (!found && QLIBCErrGet() != 0) return qpcli::fail(what);
    if (json()) {
        qpcli::Json j;
        j.open();
        if (key) j.field("key", key);
        found ? j.field("value", buf) : j.null("value");
        j.close().print();
    } else if (found) {
        std::printf("%s\n", buf);
    }
    if (!found) say(0, "%s: the string has no %s.", what, key ? key : "such field");
    return found ? qpcli::kOk : qpcli::kNo;
}

int stringid_field(const qpcli::Args &a, int (*fn)(char *, char *, int), const char *what) {
    if (a.size() != 1) return qpcli::kBadArgs;
    std::string id = a[0];
    char buf[1024] = {};
    begin_call();
    return parse_result(fn(id.data(), buf, sizeof buf), nullptr, buf, what);
}

int stringid_vendor(const qpcli::Args &a) {
    return stringid_field(a, QORAPrinterConfStringIdGetVendor, "stringid vendor");
}
int stringid_model(const qpcli::Args &a) {
    return stringid_field(a, QORAPrinterConfStringIdGetModel, "stringid model");
}
int stringid_cmd(const qpcli::Args &a) { return stringid_field(a, QORAPrinterConfStringIdGetCmd, "stringid cmd"); }

int stringid_get(const qpcli::Args &a) {
    if (a.size() != 2) return qpcli::kBadArgs;
    std::string id = a[1];
    char buf[1024] = {};
    begin_call();
    return parse_result(QORAPrinterConfStringIdParse(id.data(), a[0].c_str(), buf, sizeof buf), a[0].c_str(), buf,
                        "stringid get");
}

// The printer.conf keys "conf set" takes, and the record fields they fill.
struct ConfKey {
    const char *key;
    size_t offset, size;
};
#define QP_CONF_KEY(key, member) \
    { key, offsetof(PrinterConf, member), sizeof(PrinterConf::member) }
constexpr ConfKey kConfKeys[] = {
    QP_CONF_KEY("producer", szProducer),
    QP_CONF_KEY("product name", szProductName),
    QP_CONF_KEY("mode", szMode),
    QP_CONF_KEY("autolock timer", szAutoLockTimer),
    QP_CONF_KEY("manuallock timer", szManualLockTimer),
    QP_CONF_KEY("enable airprint", szEnableAirprint),
    QP_CONF_KEY("enable google cloud print", szEnableGoogleCloudPrint),
    QP_CONF_KEY("driver", szDriver),
    QP_CONF_KEY("driver brand", szDriverBrand),
    QP_CONF_KEY("usblp string id", szUsblpStringId),
    QP_CONF_KEY("fit to page", szFitToPage),
};
#undef QP_CONF_KEY

// Sets KEY's field to V; false for a key not in the table.  FITS tells
// whether V fitted (a value that does not leaves the field as it was).
bool set_conf_key(PrinterConf &c, std::string_view key, std::string_view v, bool &fits) {
    for (const ConfKey &k : kConfKeys) {
        if (key != k.key) continue;
        fits = v.size() < k.size;
        if (fits) {
            char *field = reinterpret_cast<char *>(&c) + k.offset;
            std::memcpy(field, v.data(), v.size());
            field[v.size()] = '\0';
        }
        return true;
    }
    fits = true;
    return false;
}

int conf_show(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    PQLIBSZHASH hash = QLIBCSzHashAlloc(512);
    if (!hash) return qpcli::fail("conf show");
    const int n = QLIBCFileGetSection(qp::path::kPrinterConf, a[0].c_str(), &hash);
    PQLIBSZLIST keys = QLIBCSzListAlloc(256);
    int rc = qpcli::kOk;
    if (n < 0 && QLIBCFileExist(qp::path::kPrinterConf)) {
        rc = qpcli::fail("conf show");
    } else if (n <= 0) {
        rc = say(qpcli::kNo, "conf show: %s has no section [%s].", qp::path::kPrinterConf, a[0].c_str());
        if (json()) qpcli::Json().open().field("printer", a[0]).null("keys").close().print();
    } else if (!keys || QLIBCSzHashEnumKey(hash, &keys) < 0) {
        rc = qpcli::fail("conf show");
    } else {
        qpcli::Json j;
        j.open().field("printer", a[0]).object("keys");
        if (!json()) std::printf("[%s]\n", a[0].c_str());
        for (int i = 0; i < keys->nItem; ++i) {
            const char *v = QLIBCSzHashGetValue(hash, keys->pszItem[i]);
            if (json())
                j.field(keys->pszItem[i], v ? v : "");
            else
                std::printf("\t%s = %s\n", keys->pszItem[i], v ? v : "");
        }
        if (json()) j.close().close().print();
    }
    QLIBCSzListFree(keys);
    QLIBCSzHashFree(hash);
    return rc;
}

int conf_set(const qpcli::Args &args) {
    qpcli::Args a = args;
    const bool force = qpcli::take_flag(a, "--force");
    if (a.empty()) return qpcli::kBadArgs;
    PrinterConf conf{};
    if (!set_field(conf.szPrinterId, a[0]))
        return say(qpcli::kUsage, "conf set: the printer ID is longer than %zu bytes.", sizeof conf.szPrinterId - 1);
    for (size_t i = 1; i < a.size(); ++i) {
        const size_t eq = a[i].find('=');
        if (eq == std::string::npos) return say(qpcli::kUsage, "conf set: '%s' is not key=value.", a[i].c_str());
        const std::string key = a[i].substr(0, eq);
        bool fits = true;
        if (!set_conf_key(conf, key, std::string_view(a[i]).substr(eq + 1), fits))
            return say(qpcli::kUsage, "conf set: there is no key '%s'.", key.c_str());
        if (!fits) return say(qpcli::kUsage, "conf set: the value of '%s' is too long.", key.c_str());
    }
    begin_call();
    return qpcli::done(QORAPrinterConfSetup(&conf, force ? 1 : 0), "conf set");
}

int conf_cups_name(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    begin_call();
    return qpcli::print_queue_name(a[0], "conf cups-name");
}

int conf_detect(const qpcli::Args &a) {
    if (a.size() != 1) return qpcli::kBadArgs;
    PrinterConf conf{};
    if (!set_field(conf.szPrinterId, a[0]))
        return say(qpcli::kUsage, "conf detect: the printer ID is longer than %zu bytes.", sizeof conf.szPrinterId - 1);
    begin_call();
    if (QORAPrinterModelDetect(&conf) != 0) return qpcli::fail("conf detect");
    if (json()) {
        qpcli::Json()
            .open()
            .field("printer", a[0])
            .field("maker", conf.szDetectedVendor)
            .field("model", conf.szDetectedModel)
            .close()
            .print();
    } else {
        std::printf("maker: %s\nmodel: %s\n", conf.szDetectedVendor, conf.szDetectedModel);
    }
    return qpcli::kOk;
}

// Secrets never come from the command line, which every user can read in /proc.
int cloud_set(const qpcli::Args &args) {
    qpcli::Args a = args;
    std::string ignored, from, secret;
    for (const char *refused : {"--password", "--token"}) {
        if (qpcli::take_option(a, refused, ignored) || qpcli::take_flag(a, refused)) {
            explicit_bzero(ignored.data(), ignored.size());
            return say(qpcli::kUsage,
                       "cloud set: %s would show the secret to every user (/proc/PID/cmdline); give %s-file FILE, "
                       "or - for standard input.",
                       refused, refused);
        }
    }
    const bool pass = qpcli::take_option(a, "--password-file", from);
    const bool token = qpcli::take_option(a, "--token-file", from);
    if (a.size() != 1 || pass == token) return qpcli::kBadArgs;
    PrinterGoogleInfo info{};
    if (!set_field(info.szAccount, a[0]))
        return say(qpcli::kUsage, "cloud set: the account is longer than %zu bytes.", sizeof info.szAccount - 1);
    if (!qpcli::read_secret(from, secret, pass ? sizeof info.szPassword - 1 : sizeof info.szRefreshToken - 1))
        return qpcli::kFailed;
    if (pass)
        set_field(info.szPassword, secret);
    else
        set_field(info.szRefreshToken, secret);
    explicit_bzero(secret.data(), secret.size());
    begin_call();
    const int rc = QORAPrinterGoogleInfoSet(&info);
    explicit_bzero(&info, sizeof info);
    return qpcli::done(rc, "cloud set");
}

int cloud_show(const qpcli::Args &args) {
    qpcli::Args a = args;
    const bool reveal = qpcli::take_flag(a, "--reveal");
    if (!a.empty()) return qpcli::kBadArgs;
    PrinterGoogleInfo info{};
    begin_call();
    if (QORAPrinterGoogleInfoGet(&info) != 0) {
        // No account: nothing in the slot, or only the core library's failed
        // open of a printer.conf that does not exist yet.
        const unsigned int code = QLIBCErrGet();
        const bool no_file = code == ERR_OPEN_FAILED && !QLIBCFileExist(qp::path::kPrinterConf);
        if ((code != 0 && !no_file) || info.szAccount[0] != '\0') return qpcli::fail("cloud show");
        if (json()) qpcli::Json().open().null("account").close().print();
        return say(qpcli::kNo, "cloud show: no account is stored.");
    }
    const bool pass = info.szPassword[0] != '\0';
    const char *kind = pass ? "password" : "refresh token";
    const char *value = pass ? info.szPassword : info.szRefreshToken;
    if (json()) {
        qpcli::Json j;
        j.open().field("account", info.szAccount).field("secret", kind);
        if (reveal) j.field("value", value);
        j.close().print();
        explicit_bzero(const_cast<char *>(j.text().data()), j.text().size());
    } else {
        std::printf("account: %s\nsecret: %s\n", info.szAccount, kind);
        if (reveal) std::printf("%s: %s\n", kind, value);
    }
    explicit_bzero(&info, sizeof info);
    return qpcli::kOk;
}

const qpcli::Register reg{{
    cmd("stringid vendor", "STRING", "The maker in a device ID string (MANUFACTURER:, MFG:, MFR:).", stringid_vendor,
        kJson),
    cmd("stringid model", "STRING", "The model in a device ID string (MODEL:, MDL:, DESCRIPTION:, DES:).",
        stringid_model, kJson),
    cmd("stringid cmd", "STRING", "The command set in a device ID string (COMMAND SET:, CMD:).", stringid_cmd, kJson),
    cmd("stringid get", "KEY STRING", "The value of KEY (with its colon) in a device ID string.", stringid_get, kJson),
    cmd("conf show", "ID", "A printer's section of printer.conf.", conf_show, kJson),
    cmd("conf set", "ID [KEY=VALUE...] [--force]", "Write a USB printer's section of printer.conf.", conf_set),
    cmd("conf cups-name", "ID", "The printer's stored CUPS queue name.", conf_cups_name, kJson),
    cmd("conf detect", "ID", "Maker and model from the printer's stored device ID string.", conf_detect, kJson),
    cmd("cloud set", "ACCOUNT --password-file FILE|--token-file FILE",
        "Store the cloud print account; the secret is the first line of FILE (- for standard input).", cloud_set),
    cmd("cloud show", "[--reveal]", "The cloud print account and which secret is stored.", cloud_show, kJson),
}};

}  // namespace
