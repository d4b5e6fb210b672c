// ping's output as an answering host and the network may shape it: the
// status is "Offline" or "Online" cut to the buffer and never past it, the
// first summary line decides (lines around it change nothing), and a field
// added after the loss figure does not change how a summary reads.
//
// Input: one byte for the buffer size, then the output.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

std::string status(const std::string &out, size_t cb) {
    FILE *f = stream(out);
    check(f != nullptr);
    char *buf = guarded(cb);
    check(qp::net::ping_read(f, buf, static_cast<int>(cb)) == 0);
    std::fclose(f);
    if (cb == 0) return "";
    const size_t n = ::strnlen(buf, cb);
    check(n < cb);
    const std::string s(buf, n);
    check(s == std::string("Offline").substr(0, cb - 1) || s == std::string("Online").substr(0, cb - 1));
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t cb = data[0] % 12;
    const std::string out(reinterpret_cast<const char *>(data + 1), size - 1);

    const std::string s = status(out, cb);
    check(status(out, cb) == s);
    const std::string around = "PING 10.123.0.2 (10.123.0.2) 56(84) bytes of data.\n" + closed(out) +
                               "1 packets transmitted, 0 received, 100% packet loss, time 0ms\n";
    check(status(around, cb) == s);
    // An answered summary after the output decides only when the output had none.
    const std::string online = status(closed(out) + "1 packets transmitted, 1 received, 0% packet loss\n", 8);
    if (!contains(out, "packet loss") || status(out, 8) == "Online") check(online == "Online");
    const std::string line = out.substr(0, out.find_first_of(std::string("\n\0", 2)));
    check(qp::net::ping_summary_online(line) == qp::net::ping_summary_online(line + ", time 5ms"));
    return 0;
}
