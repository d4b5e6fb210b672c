// A queue's PPD file as a driver package or a printer may make it: reading
// it gives its whole text (lines cut at a NUL byte, which ends a line's
// text), or NULL for a file with no text.
//
// Runs in the sandbox: the file is the scheduler's own path there.
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fuzz_util.hpp"
#include "qoraprinter.h"

using namespace qpfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    ::mkdir("/etc/cups", 0755);
    ::mkdir("/etc/cups/ppd", 0755);
    const std::string text(reinterpret_cast<const char *>(data), size);
    {
        std::ofstream f("/etc/cups/ppd/qpfuzz.ppd", std::ios::binary | std::ios::trunc);
        f.write(text.data(), static_cast<std::streamsize>(text.size()));
        check(static_cast<bool>(f));
    }
    std::string want;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end + 1;
        const std::string line = text.substr(at, end - at);
        want += line.substr(0, line.find('\0'));
        at = end;
    }
    char *got = QORACupsGetPPD("qpfuzz");
    check(want.empty() ? got == nullptr || *got == '\0' : got != nullptr && want == got);
    std::free(got);
    return 0;
}
