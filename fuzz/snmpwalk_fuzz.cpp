// snmpwalk output as a printer's agent may make it: the device ID value and
// the device URI taken from it come straight out of the walk (after the
// opening quote), end inside the caller's buffer, are the same on a second
// run, and stay the same when unrelated objects are walked before and after
// them; the URI's backend is a known one and its queue a path segment of it.
//
// Input: one byte that sets the buffer sizes, then the walk.
#include <strings.h>

#include <cstdint>
#include <string>

#include "fuzz_util.hpp"
#include "net/net_scan.hpp"

using namespace qpfuzz;

namespace {

const std::string kInteger = "SNMPv2-SMI::enterprises.2699.1.2.1.1.1.0 = INTEGER: 1\n";

struct Read {
    int rc;
    std::string value;
};

// Runs READ (one of the walk readers) over WALK into a guarded buffer of CB
// bytes, with the checks both readers share: a known result, the buffer left
// alone unless a value was found, and a value that ends inside the buffer.
template <class Reader>
Read run(Reader read, const std::string &walk, size_t cb) {
    FILE *f = stream(walk);
    check(f != nullptr);
    char *buf = guarded(cb);
    const int rc = read(f, buf, static_cast<int>(cb));
    std::fclose(f);
    check(rc == -1 || rc == 0 || rc == 1);
    if (rc != 0) {
        check(untouched(buf, cb));
        return {rc, ""};
    }
    const size_t n = ::strnlen(buf, cb);
    check(n < cb);
    return {rc, std::string(buf, n)};
}

Read string_id(const std::string &walk, size_t cb) {
    const Read r = run(qp::net::string_id_read, walk, cb);
    check((r.rc == 1) == walk.empty());
    if (r.rc == 0) check(contains(walk, "STRING: \"" + r.value));
    return r;
}

Read uri(const std::string &walk, size_t cb) {
    const Read r = run(qp::net::uri_read, walk, cb);
    if (r.rc != 0) return r;
    check(contains(walk, "\"" + r.value));
    bool known = false;
    for (const char *scheme : {"LPR", "lpd", "ipp", "socket", "bjnp"})
        known = known || ::strncasecmp(r.value.c_str(), scheme, std::min(r.value.size(), ::strlen(scheme))) == 0;
    check(known);
    return r;
}

// The split of a URI (NUL-free, shorter than a line) into backend and queue.
void split(const std::string &uri, size_t cb_backend, size_t cb_queue) {
    char text[qp::net::kLineSize] = {};
    uri.copy(text, sizeof text - 1);
    char *backend = guarded(cb_backend, 1), *queue = guarded(cb_queue, 2);
    const int rc = qp::net::uri_split(text, backend, static_cast<int>(cb_backend), queue, static_cast<int>(cb_queue));

    const size_t colon = uri.find(':');
    std::string scheme = uri.substr(0, colon);
    for (char &c : scheme) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    const bool lpr = scheme == "lpr";
    const bool known = lpr || scheme == "lpd" || scheme == "ipp" || scheme == "socket" || scheme == "bjnp";
    check((rc == 0) == (known && colon != std::string::npos));
    if (rc != 0) {
        check(untouched(queue, cb_queue));
        if (!known) check(untouched(backend, cb_backend));
        return;
    }
    if (cb_backend > 0) {
        const std::string want = (lpr ? std::string("lpd") : scheme).substr(0, cb_backend - 1);
        check(::strnlen(backend, cb_backend) < cb_backend && want == backend);
    } else {
        check(untouched(backend, cb_backend));
    }
    if (cb_queue > 0) {
        check(::strnlen(queue, cb_queue) < cb_queue);
        const std::string q(queue);
        check(q.find('/') == std::string::npos);
        check(q.empty() || contains(uri.substr(colon), "/" + q));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const unsigned b = data[0];
    const std::string walk(reinterpret_cast<const char *>(data + 1), size - 1);
    const size_t cb_id = b * 4, cb_uri = ((b * 37) % 256) * 4;

    const Read id = string_id(walk, cb_id);
    const Read again = string_id(walk, cb_id);
    check(again.rc == id.rc && again.value == id.value);
    if (id.rc == 0) {
        const std::string around =
            kInteger + closed(walk) + "SNMPv2-SMI::enterprises.2 = STRING: \"MFG:Z;MDL:Z;\"\n" + kInteger;
        const Read moved = string_id(around, cb_id);
        check(moved.rc == 0 && moved.value == id.value);
    }

    const Read u = uri(walk, cb_uri);
    const Read u_again = uri(walk, cb_uri);
    check(u_again.rc == u.rc && u_again.value == u.value);
    // A URI after the walk is taken only when the walk selected none and was
    // not stopped.
    const std::string other = "ipp://10.9.9.9/other";
    const Read moved = uri(kInteger + closed(walk) + "X = STRING: \"" + other + "\"\n", cb_uri);
    if (u.rc == 1 && cb_uri > 0) {
        check(moved.rc == 0 && moved.value == other.substr(0, cb_uri - 1));
    } else if (u.rc == 1) {
        check(moved.rc == -1);
    } else {
        check(moved.rc == u.rc && moved.value == u.value);
    }

    // The split runs on what the walk selected (as the exported function
    // does) and on the walk's first line taken as a URI.
    if (u.rc == 0) split(u.value, b % 11, (b * 13) % 200);
    std::string first = walk.substr(0, walk.find_first_of(std::string("\n\0", 2)));
    split(first.substr(0, qp::net::kLineSize - 1), (b * 7) % 11, (b * 5) % 200);
    return 0;
}
