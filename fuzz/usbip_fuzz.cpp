// A shared printer's /tmp/usbip_* status file as any local user may write it:
// the lock status is the file's LOCK value or "Free", the queue name its
// QUEUE value with the bracketed note rewritten, each cut to the buffer and
// never past it; lines added around the file change neither.
//
// Input: one byte for the buffer size, then the file.  Runs in the sandbox
// (the file is the machine's own path there).
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "fuzz_util.hpp"
#include "qoraprinter.h"

using namespace qpfuzz;

namespace {

const char *const kStatus = "/tmp/usbip_qpfuzz";

struct Status {
    bool has_lock;
    int queue_rc;
    std::string queue, lock;
};

Status read(const std::string &text, size_t cb) {
    {
        std::ofstream f(kStatus, std::ios::binary | std::ios::trunc);
        f.write(text.data(), static_cast<std::streamsize>(text.size()));
        check(static_cast<bool>(f));
    }
    Status s{};
    char value[4096];
    s.has_lock = QLIBCFileGetKeyValue(kStatus, "LOCK", value, static_cast<int>(cb), 0) >= 0;
    const std::string lock = s.has_lock ? value : "Free";

    char *buf = guarded(cb);
    check(QORAPrinterUsbipGetLockStatus("qpfuzz", buf, static_cast<int>(cb)) == 0);
    check(::strnlen(buf, cb) < cb && lock.substr(0, cb - 1) == buf);
    s.lock = buf;

    const bool has_queue = QLIBCFileGetKeyValue(kStatus, "QUEUE", value, sizeof value, 0) >= 0;
    const std::string queue = has_queue ? value : "";
    buf = guarded(cb);
    s.queue_rc = QORAPrinterQueueGet("qpfuzz", buf, static_cast<int>(cb));
    check(s.queue_rc == (has_queue ? 0 : -1));
    if (s.queue_rc == 0) {
        const size_t n = ::strnlen(buf, cb);
        check(n < cb);
        s.queue.assign(buf, n);
        // The text before the note stays; a queue without one is kept whole.
        const std::string kept = queue.substr(0, queue.find('('));
        const size_t common = std::min(kept.size(), n);
        check(s.queue.compare(0, common, kept, 0, common) == 0);
        if (kept.size() == queue.size()) check(s.queue == queue.substr(0, cb - 1));
    } else {
        check(untouched(buf, cb));
    }
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const size_t cb = data[0] + 1u;
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    const Status s = read(text, cb);
    const Status moved = read("# status\nPID=\"1\"\n" + closed(text) + "LOCK=\"Locked\"\nQUEUE=\"other\"\n", cb);
    check(moved.lock == (s.has_lock ? s.lock : std::string("Locked").substr(0, cb - 1)));
    check(moved.queue_rc == 0 && moved.queue == (s.queue_rc == 0 ? s.queue : std::string("other").substr(0, cb - 1)));
    return 0;
}
