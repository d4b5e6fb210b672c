// avahi-browse -arpt output as the announcements on the network make it: the
// TXT data kept per port is a whole field of a line of the address, the one
// right after that port's field; every piece listed is a field of the input;
// lines of other addresses around it change nothing; the maker and model read
// from the TXT data are its items or "Not Found", and nothing else of the
// record is written.
//
// Input: the browse output.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

const char *const kPattern = ";10.123.0.2;";
const char *const kPorts[4] = {"8611", "9100", "515", "631"};

// True when the input holds PORT, one or more ';', VALUE, with PORT at the
// start of a field.
bool follows(const std::string &text, const std::string &port, const std::string &value) {
    for (size_t at = text.find(value); at != std::string::npos; at = text.find(value, at + 1)) {
        size_t p = at;
        if (p == 0 || text[p - 1] != ';') continue;
        while (p > 0 && text[p - 1] == ';') --p;
        if (p < port.size() || text.compare(p - port.size(), port.size(), port) != 0) continue;
        return true;
    }
    return false;
}

qp::net::AvahiSlots browse(const std::string &text) {
    FILE *f = stream(text);
    check(f != nullptr);
    PQLIBSZLIST list = QLIBCSzListAlloc(16);
    check(list != nullptr);
    qp::net::AvahiSlots slots = {};
    check(qp::net::avahi_read(f, kPattern, &list, &slots) == 0);
    std::fclose(f);
    for (int i = 0; i < list->nItem; ++i) {
        const std::string piece = list->pszItem[i];
        check(!piece.empty() && piece.find(';') == std::string::npos && contains(text, piece));
    }
    QLIBCSzListFree(list);
    for (int i = 0; i < 4; ++i) {
        const size_t n = ::strnlen(slots.txt[i], sizeof slots.txt[i]);
        check(n < sizeof slots.txt[i]);
        if (n > 0) check(follows(text, kPorts[i], slots.txt[i]));
    }
    return slots;
}

// A value read from TXT data: "Not Found" or text of the data up to a quote.
void item(const char *field, size_t size, const std::string &txt) {
    const size_t n = ::strnlen(field, size);
    check(n < size);
    const std::string v(field, n);
    check(v == "Not Found" || (v.find('"') == std::string::npos && contains(txt, v)));
}

void txt(const std::string &data, bool held) {
    auto *info = static_cast<PrinterNetInfo *>(std::malloc(sizeof(PrinterNetInfo)));
    std::memset(info, 0x5a, sizeof *info);
    info->szVendor[0] = info->szModel[0] = '\0';
    const std::string kept = "MFG:KEEP;MDL:KEEP;";
    if (held) std::strcpy(info->szStringId, kept.c_str());
    else info->szStringId[0] = '\0';
    check(qp::net::avahi_txt_read(data.c_str(), info) == 0);
    item(info->szVendor, sizeof info->szVendor, data);
    item(info->szModel, sizeof info->szModel, data);
    check(untouched(info->szReserved, sizeof info->szReserved));
    check(untouched(info->szBackend, sizeof info->szBackend));
    check(untouched(info->szQName, sizeof info->szQName));
    const size_t n = ::strnlen(info->szStringId, sizeof info->szStringId);
    check(n < sizeof info->szStringId);
    if (held) {
        check(info->szStringId == kept);
    } else {
        const std::string want = ("MFG:" + std::string(info->szVendor) + ";").substr(0, sizeof info->szStringId - 1);
        check(std::string(info->szStringId, n).substr(0, want.size()) == want);
    }
    std::free(info);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const qp::net::AvahiSlots slots = browse(text);
    const qp::net::AvahiSlots again = browse(text);
    check(std::memcmp(&slots, &again, sizeof slots) == 0);

    // Announcements of other addresses (one a longer address that begins
    // like this one) before and after.
    const std::string around = "=;eth0;IPv4;Other;_ipp._tcp;local;o.local;10.9.9.9;631;\"usb_MDL=O\"\n" +
                               closed(text) +
                               "=;eth0;IPv4;Far;_pdl-datastream._tcp;local;f.local;10.123.0.21;9100;\"usb_MFG=F\"\n"
                               "+;eth0;IPv4;Office;_ipp._tcp;local\n";
    const qp::net::AvahiSlots moved = browse(around);
    check(std::memcmp(&slots, &moved, sizeof slots) == 0);

    for (const auto &slot : slots.txt) {
        if (!slot[0]) continue;
        txt(slot, false);
        txt(slot, true);
    }
    std::string raw = text.substr(0, text.find('\0')).substr(0, qp::net::kLineSize - 1);
    txt(raw, false);
    return 0;
}
