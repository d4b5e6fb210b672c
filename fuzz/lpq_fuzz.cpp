// lpq's listing as job titles and user names may make it: the job counts as
// queued exactly when one of the listing's lines holds its ID (up to the
// line's first NUL byte, which ends the text of a line).
//
// Input: the job ID, a newline, the listing.
#include <cstdint>
#include <string>

#include "cups/cups_scan.hpp"
#include "fuzz_util.hpp"

using namespace qpfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string input(reinterpret_cast<const char *>(data), size);
    const size_t nl = input.find('\n');
    std::string job = input.substr(0, nl);
    if (job.empty() || job.find('\0') != std::string::npos) job = "1";
    const std::string listing = nl == std::string::npos ? "" : input.substr(nl + 1);

    bool want = false;
    for (size_t at = 0; at < listing.size() && !want;) {
        size_t end = listing.find('\n', at);
        if (end == std::string::npos) end = listing.size();
        const std::string line = listing.substr(at, end - at);
        want = contains(line.substr(0, line.find('\0')), job);
        at = end + 1;
    }

    FILE *f = stream(listing);
    check(f != nullptr);
    const qp::cups::LpqScan got = qp::cups::lpq_job_scan(f, job.c_str());
    std::fclose(f);
    check(got == (want ? qp::cups::LpqScan::kListed : qp::cups::LpqScan::kEnd));
    return 0;
}
