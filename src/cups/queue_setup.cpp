#include "cups/queue_setup.hpp"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "cups/cups_argv.hpp"
#include "frame.hpp"
#include "internal.hpp"
#include "paths.hpp"

namespace qp::cups {

bool choose_ppd(const char *ppd_file, const char *printer_id, std::string &ppd, const char *file, int line) {
    ppd.clear();
    if (ppd_file && ppd_file[0]) {
        struct stat st;
        if (::stat(ppd_file, &st) != 0) {
            ::syslog(LOG_ERR, "%s:%d add cups printer, ppd file does not exist,path=%s", file, line, ppd_file);
            return false;
        }
        if (printer_backup_ppd(ppd_file, printer_id) != 0)
            ::syslog(LOG_ERR, "%s:%d Failed to backup ppd file: %s" QP_LOWER_FMT, file, line, ppd_file, QP_LOWER_ARGS);
        ppd = ppd_file;
        return true;
    }
    std::string kept = std::string(path::kCupsPpdDir) + printer_id + ".ppd";
    if (::QLIBCFileExist(kept.c_str())) ppd = std::move(kept);
    return true;
}

int create_queue(const char *queue, const char *uri, const std::string &ppd, const char *file, int line) {
    ArgList args;
    args.add(tool::kLpadmin).add("-p").add(queue).add("-E").add("-v").add(uri);
    char host[65] = {0};  // a host name has at most 64 bytes
    if (::gethostname(host, sizeof host - 1) == 0 && host[0]) args.add("-L").add(host);
    if (!ppd.empty()) args.add("-P").add(ppd);

    for (int left = 3;;) {
        const int ret = ::QLIBCExecv(tool::kLpadmin, args.argv(), 1);
        if (ret == 0) return 0;
        --left;
        ::syslog(LOG_ERR, "%s:%d add cups printer=%s, retry(%d) ... %s [%d]", file, line, queue, left, tool::kLpadmin,
                 ret);
        if (left == 0) return -1;
        ::sleep(2);
    }
}

}  // namespace qp::cups
