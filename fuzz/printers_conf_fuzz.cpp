// The scheduler's printers.conf as queue names and descriptions may make it:
// removing the USB queues' blocks keeps every other line of the file byte
// for byte and in order, and drops exactly the lines from a line that opens
// a USB queue ("<Printer usbprinter>", "<Printer usbprinter1>",
// "<Printer usbprinter2>") through the next line that begins "</Printer>".
//
// Runs in the sandbox: the file is the scheduler's own path there.
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "fuzz_util.hpp"
#include "qoraprinter.h"

using namespace qpfuzz;

namespace {

const char *const kConf = "/etc/cups/printers.conf";

std::string without_usb_blocks(const std::string &text) {
    std::string out;
    bool skipping = false;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string_view line(text.data() + at, end - at);
        at = end;
        if (skipping) {
            skipping = line.substr(0, 10) != "</Printer>";
            continue;
        }
        for (const char *open : {"<Printer usbprinter>", "<Printer usbprinter1>", "<Printer usbprinter2>"})
            skipping = skipping || line.substr(0, std::string_view(open).size()) == open;
        if (!skipping) out.append(line);
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ::mkdir("/etc/cups", 0755);
    const std::string text(reinterpret_cast<const char *>(data), size);
    {
        std::ofstream f(kConf, std::ios::binary | std::ios::trunc);
        f.write(text.data(), static_cast<std::streamsize>(text.size()));
        check(static_cast<bool>(f));
    }
    check(QORAPrinterCupsUsbConfRmAll() == 0);
    std::ifstream f(kConf, std::ios::binary);
    std::stringstream got;
    got << f.rdbuf();
    check(got.str() == without_usb_blocks(text));
    return 0;
}
