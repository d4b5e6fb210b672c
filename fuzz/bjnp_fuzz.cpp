// The BJNP backend's listing as printers on the network may make it: the
// device ID taken for the address is text of the listing beginning with a
// maker key, maker and model come from it, only those fields and the backend
// are written, and other printers listed before it (one at a longer address
// that begins like this one) change nothing.
//
// Input: the listing.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

struct Found {
    int rc;
    PrinterNetInfo *info;
};

Found read(const std::string &text) {
    FILE *f = stream(text);
    check(f != nullptr);
    auto *info = static_cast<PrinterNetInfo *>(std::malloc(sizeof(PrinterNetInfo)));
    std::memset(info, 0x5a, sizeof *info);
    const int rc = qp::net::bjnp_read(f, "/10.123.0.2:8611", info);
    std::fclose(f);
    check(rc == -1 || rc == 0 || rc == 1);
    check(untouched(info->szReserved, sizeof info->szReserved));
    check(untouched(info->szQName, sizeof info->szQName));
    if (rc == 1) check(untouched(reinterpret_cast<char *>(info), sizeof *info));
    if (rc == 0) {
        check(contains(text, "/10.123.0.2:8611"));
        const size_t n = ::strnlen(info->szStringId, sizeof info->szStringId);
        check(n < sizeof info->szStringId);
        const std::string id(info->szStringId, n);
        check(contains(text, id));
        check(id.rfind("MANUFACTURER:", 0) == 0 || id.rfind("MFG:", 0) == 0 || id.rfind("MFR:", 0) == 0);
        for (const char *field : {info->szVendor, info->szModel}) {
            const size_t m = ::strnlen(field, sizeof info->szVendor);
            check(m < sizeof info->szVendor && contains(id, std::string(field, m)));
        }
        check(std::strcmp(info->szBackend, "bjnp") == 0);
    }
    return {rc, info};
}

void same(const Found &a, const Found &b) {
    check(a.rc == b.rc && std::memcmp(a.info, b.info, sizeof *a.info) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const Found got = read(text);
    const Found again = read(text);
    same(got, again);

    const std::string before = "network bjnp://10.123.0.20:8611 \"B\" \"B 10.123.0.20\" \"MFG:B;MDL:B;\"\n";
    const Found moved = read(before + text);
    same(got, moved);

    // A line for the address after the listing counts only when nothing
    // before it ended the reading.
    const Found tail = read(closed(text) + "network bjnp://10.123.0.2:8611 \"Z\" \"Z\" \"MFG:Z;MDL:Z;\"\n");
    if (got.rc != 1) {
        same(got, tail);
    } else if (!contains(text, "\"Unknown\"")) {
        check(tail.rc == 0 && std::strcmp(tail.info->szStringId, "MFG:Z;MDL:Z") == 0);
        check(std::strcmp(tail.info->szVendor, "Z") == 0 && std::strcmp(tail.info->szModel, "Z") == 0);
    }
    for (const Found &f : {got, again, moved, tail}) std::free(f.info);
    return 0;
}
