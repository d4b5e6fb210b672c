// lpstat -v listings as queue names and device URIs may make them, through
// every reader of them: the queue word of a line is the text after its
// second blank up to a colon; a queue or address found is in the listing;
// an answer does not change when other queues are listed before it, and a
// line added after a listing that lacked the queue (or address) is found.
//
// Input: the listing; the queue looked for is the queue word of its first
// line (or "Office").
#include <cstdint>
#include <cstring>
#include <string>

#include "cups/cups_scan.hpp"
#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

const char *const kPattern = "/10.123.0.2/";
const char *const kDevice = "04a9:1827:A1B2C3";

template <class F>
auto run(const std::string &text, F &&scan) {
    FILE *f = stream(text);
    check(f != nullptr);
    auto r = scan(f);
    std::fclose(f);
    return r;
}

int name_scan(const std::string &text, const std::string &name) {
    const int r = run(text, [&](FILE *f) { return qp::net::lpstat_name_scan(f, name.c_str(), kPattern); });
    check(r == 0 || r == 1 || r == 2);
    if (r != 0) check(contains(text, name));
    if (r == 1) check(contains(text, kPattern));
    return r;
}

int ip_scan(const std::string &text) {
    const int r = run(text, [&](FILE *f) { return qp::net::lpstat_ip_scan(f, kPattern); });
    check(r == 0 || r == 1);
    if (r == 0) check(contains(text, kPattern));
    return r;
}

int check_scan(const std::string &text, const std::string &name) {
    const int r = run(text, [&](FILE *f) { return qp::cups::name_check_scan(f, kDevice, name.c_str()); });
    check(r == 0 || r == 1 || r == 2);
    if (r != 0) check(contains(text, name));
    if (r == 1) check(contains(text, kDevice));
    return r;
}

std::pair<bool, bool> usb_scan(const std::string &text, bool start) {
    bool seen1 = start, seen2 = start;
    check(!run(text, [&](FILE *f) { return qp::cups::usb_names_scan(f, seen1, seen2); }));
    if (!start) {
        check(!seen1 || contains(text, "usbprinter1"));
        check(!seen2 || contains(text, "usbprinter2"));
    } else {
        check(seen1 && seen2);
    }
    return {seen1, seen2};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string first = text.substr(0, text.find_first_of(std::string("\n\0", 2)));
    std::string_view word;
    std::string name = "Office";
    if (qp::net::lpstat_queue_word(first, &word)) {
        check(word.find(':') == std::string_view::npos);
        check(word.data() >= first.data() && word.data() + word.size() <= first.data() + first.size());
        check(word.data() > first.data() + 1 && word.data()[-1] == ' ');
        if (!word.empty() && word.size() < 200) name = word;
    }
    // Names lpstat cannot print are not looked for.
    if (name.find_first_of(" \t\r\v\f") == 0 || name.find_last_of(" \t\r\v\f") == name.size() - 1) name = "Office";
    const std::string other = name == "qp-other" ? "qp-else" : "qp-other";
    const std::string before = "device for " + other + ": ipp://10.9.9.9/q usbprinter3\n";
    const std::string after = "device for " + name + ": ipp://10.123.0.2/ipp/print usb:/dev/usb/" + kDevice + "\n";
    const std::string around = before + closed(text) + after;

    const int n = name_scan(text, name);
    check(name_scan(before + text, name) == n);
    check(name_scan(around, name) == (n == 0 ? 1 : n));

    const int i = ip_scan(text);
    check(ip_scan(before + text) == i);
    check(ip_scan(around) == 0);

    // This reader takes the first line holding the name anywhere.
    const int c = check_scan(text, name);
    if (!contains(before, name)) {
        check(check_scan(before + text, name) == c);
        check(check_scan(around, name) == (c == 0 ? 1 : c));
    }

    const auto u = usb_scan(text, false);
    check(usb_scan(before + text, false) == u);
    usb_scan(text, true);
    const auto all = usb_scan(closed(text) + "device for usbprinter1: usb:/dev/usb/a\nusbprinter2\n", false);
    check(all.first && all.second);
    return 0;
}
