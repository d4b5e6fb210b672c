// QORAPrinterCleanSpool: cancel all jobs and empty the share's spool
// directory.  The one wildcard pattern of the library is expanded here, on
// the library's own constant pattern, with glob(3); rm gets the matches as
// explicit paths after "--" (no program run by the library expands anything).
#include <glob.h>

#include <algorithm>
#include <string>
#include <vector>

#include "frame.hpp"
#include "paths.hpp"

namespace {

constexpr const char *kSpoolPattern = "/var/services/printer/*.*";
// Paths handed to one rm run; a full spool takes several runs.
constexpr size_t kPathsPerRun = 256;

// The matches of the spool pattern, sorted; none for an empty spool.
std::vector<std::string> spool_entries() {
    std::vector<std::string> out;
    glob_t g{};
    if (::glob(kSpoolPattern, 0, nullptr, &g) == 0)
        for (size_t i = 0; i < g.gl_pathc; ++i) out.emplace_back(g.gl_pathv[i]);
    ::globfree(&g);
    return out;
}

// Runs rm -rf -- over the paths (at least once, so an empty spool still
// checks that rm runs); the first non-zero result, or 0.
int remove_all(const std::vector<std::string> &paths) {
    size_t at = 0;
    do {
        std::vector<char *> argv{const_cast<char *>(qp::tool::kRm), const_cast<char *>("-rf"),
                                 const_cast<char *>("--")};
        for (size_t end = std::min(paths.size(), at + kPathsPerRun); at < end; ++at)
            argv.push_back(const_cast<char *>(paths[at].c_str()));
        argv.push_back(nullptr);
        if (int rc = QLIBCExecv(qp::tool::kRm, argv.data(), 1); rc != 0) return rc;
    } while (at < paths.size());
    return 0;
}

}  // namespace

QP_EXPORT int QORAPrinterCleanSpool(void) {
    return QP_GUARD(-1, {
        // lprm of this print service answers 'unknown destination "all"' and
        // exits 1; that is logged and the clean-up goes on.
        if (QLIBCExec(qp::tool::kLprm, "all", NULL, NULL, NULL) != 0)
            QP_LOG_ERR("lprm all failed. " QP_LOWER_FMT, QP_LOWER_ARGS);

        if (int rc = remove_all(spool_entries()); rc != 0) {
            // An exit status is rm's answer and leaves the slot alone.
            if (rc > 0) QP_SET_ERR(ERR_EXTERNAL_FAILED);
            QP_LOG_ERR("remove %s failed. " QP_LOWER_FMT, qp::path::kSpool, QP_LOWER_ARGS);
            return -1;
        }
        return 0;
    });
}
