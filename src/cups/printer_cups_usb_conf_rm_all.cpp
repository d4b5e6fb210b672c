// QORAPrinterCupsUsbConfRmAll: drop the blocks of the USB queues from the
// scheduler's printers.conf while the scheduler is stopped (a running cupsd
// rewrites the file from memory and would undo the edit).
//
// The new text goes to a temporary file beside the old one, which takes the
// old file's mode and owner (root:lp 0600) and is flushed to disk before it
// is renamed over it: at every instant the file is the old or the new one.
// The file is read line by line whatever a line's length.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "frame.hpp"
#include "owners.hpp"
#include "paths.hpp"
#include "qorasdk.h"

namespace {

bool opens_usb_block(const char *line) {
    return strncmp(line, "<Printer usbprinter>", 20) == 0 || strncmp(line, "<Printer usbprinter1>", 21) == 0 ||
           strncmp(line, "<Printer usbprinter2>", 21) == 0;
}

// Makes the rename durable too; a failure here leaves a correct file.
void sync_dir(const char *dir) {
    qp::UniqueFd fd(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.valid()) fsync(fd.get());
}

}  // namespace

QP_EXPORT int QORAPrinterCupsUsbConfRmAll(void) {
    return QP_GUARD(-1, {
        if (QLIBServiceIsRunning("cupsd") == 1) {
            QP_SET_ERR(ERR_SERVICE_RUNNING);
            QP_LOG_ERR("skip remove printer, %s alive. " QP_LOWER_FMT, "cupsd", QP_LOWER_ARGS);
            return -1;
        }
        if (!QLIBCFileExist(qp::path::kCupsPrintersConf)) return 0;

        qp::File in(fopen(qp::path::kCupsPrintersConf, "re"));
        if (!in) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return -1;
        }
        char tmp_path[256];
        snprintf(tmp_path, sizeof tmp_path, "%s.XXXXXX", qp::path::kCupsPrintersConf);
        qp::File out(QLIBCFileTempFileOpen(tmp_path));
        if (!out) {
            QP_SET_ERR(ERR_OPEN_FAILED);
            return -1;
        }

        // Write failures keep the old file; the temporary file is left for
        // inspection.
        auto write_failed = [&]() {
            QP_SET_ERR(ERR_WRITE_FAILED);
            return -1;
        };

        struct stat st;
        if (fstat(fileno(in.get()), &st) != 0 || fchmod(fileno(out.get()), st.st_mode & 07777) != 0 ||
            fchown(fileno(out.get()), st.st_uid, st.st_gid) != 0)
            return write_failed();

        // Whole lines, however long: a long value must never let its tail
        // be taken for a line of its own.
        qp::MallocPtr<char> line;
        size_t cap = 0;
        bool skipping = false;
        for (ssize_t n; (n = getline(line.addr(), &cap, in.get())) >= 0;) {
            if (skipping) {
                if (strncmp(line.get(), "</Printer>", 10) == 0) skipping = false;
                continue;
            }
            if (opens_usb_block(line.get())) {
                skipping = true;
                continue;
            }
            if (fwrite(line.get(), 1, static_cast<size_t>(n), out.get()) != static_cast<size_t>(n))
                return write_failed();
        }
        // A read error would turn into a shortened file: keep the old one.
        if (ferror(in.get())) {
            QP_SET_ERR(ERR_READ_FAILED);
            unlink(tmp_path);
            return -1;
        }
        in.close();
        if (fflush(out.get()) != 0 || fsync(fileno(out.get())) != 0 || out.close() != 0) return write_failed();

        if (rename(tmp_path, qp::path::kCupsPrintersConf) != 0) {
            QP_SET_ERR(ERR_RENAME_FAILED);
            return -1;
        }
        sync_dir("/etc/cups");
        return 0;
    });
}
