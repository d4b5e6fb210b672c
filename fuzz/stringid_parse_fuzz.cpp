// Device ID lookups on arbitrary strings and keys: the string comes back
// unchanged, the output is terminated within its size, a miss leaves the
// buffer alone, and the value found is the one a plain case-insensitive
// search gives.
//
// Input: one byte for the buffer size, then the key, a newline, the string.
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qoraprinter.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

// The value a lenient lookup must find, or false.
bool expected(const std::string &id, const std::string &key, int size, std::string &value) {
    if (id.empty() || key.empty() || size <= 0) return false;
    const char *at = ::strcasestr(id.c_str(), key.c_str());
    if (!at) return false;
    std::string v(at + key.size());
    v = v.substr(0, v.find(';'));
    value = v.substr(0, static_cast<size_t>(size) - 1);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const int cb = data[0] == 0xFF ? 0 : data[0] % 80 + 1;
    std::string rest(reinterpret_cast<const char *>(data + 1), size - 1);
    rest = rest.substr(0, rest.find('\0'));
    const size_t nl = rest.find('\n');
    const std::string key = nl == std::string::npos ? "MFG:" : rest.substr(0, nl);
    const std::string id = nl == std::string::npos ? rest : rest.substr(nl + 1);

    // Exact-size copies so that reading past a NUL is caught.
    char *s = static_cast<char *>(std::malloc(id.size() + 1));
    std::memcpy(s, id.c_str(), id.size() + 1);
    char *k = static_cast<char *>(std::malloc(key.size() + 1));
    std::memcpy(k, key.c_str(), key.size() + 1);
    char *buf = static_cast<char *>(std::malloc(static_cast<size_t>(cb) + 1));

    auto run = [&](int rc, const std::string *want) {
        check(std::memcmp(s, id.c_str(), id.size() + 1) == 0);
        if (rc == 0) {
            check(cb > 0 && ::strnlen(buf, static_cast<size_t>(cb)) < static_cast<size_t>(cb));
            if (want) check(*want == buf);
        } else {
            check(rc == -1);
            for (int i = 0; i <= cb; ++i) check(buf[i] == '\x5a');
        }
    };
    auto reset = [&] { std::memset(buf, 0x5a, static_cast<size_t>(cb) + 1); };

    std::string want;
    reset();
    const bool found = expected(id, key, cb, want);
    const int rc = QORAPrinterConfStringIdParse(s, k, buf, cb);
    check((rc == 0) == found);
    run(rc, &want);

    reset();
    run(QORAPrinterConfStringIdGetVendor(s, buf, cb), nullptr);
    reset();
    run(QORAPrinterConfStringIdGetModel(s, buf, cb), nullptr);
    reset();
    run(QORAPrinterConfStringIdGetCmd(s, buf, cb), nullptr);

    std::free(buf);
    std::free(k);
    std::free(s);
    return 0;
}
