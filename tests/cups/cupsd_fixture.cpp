// A private CUPS scheduler for tests (see cupsd_fixture.hpp).
#include "cupsd_fixture.hpp"

#include <stdio.h>
#include <stdlib.h>

#include <sstream>

#include "qp_test.hpp"

namespace qpcups {
namespace {

std::vector<std::string> lines_of(const std::vector<std::string> &argv) {
    std::istringstream in(qpt::run(argv).out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

bool Cupsd::start() {
    static bool installed = false;
    if (!installed) {
        // No system bus in the sandbox: cupsd (ours, or one the library starts,
        // which inherits this) fails fast instead of looking for one.
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        installed = qpt::run({qpt::bin_path("qp-cupsd-setup")}).status == 0;
    }
    const qpt::RunResult r = qpt::run({qpt::bin_path("qp-cupsd-setup"), "start"});
    if (r.status != 0) fprintf(stderr, "qp-cupsd-setup failed (%d): %s\n", r.status, r.err.c_str());
    return installed && r.status == 0;
}

void Cupsd::stop() { qpt::run({qpt::bin_path("qp-cupsd-setup"), "stop"}); }

std::string Cupsd::uri_of(const std::string &name) {
    // "device for NAME: URI\n", or nothing.
    const std::string out = qpt::run({"/usr/bin/lpstat", "-v", name}).out;
    const size_t colon = out.find(": ");
    return colon == std::string::npos ? "" : out.substr(colon + 2, out.size() - colon - 3);
}

bool Cupsd::is_stopped(const std::string &name) {
    const qpt::RunResult r = qpt::run({"/usr/bin/lpstat", "-p", name});
    return r.status == 0 && r.out.find(" disabled") != std::string::npos;
}

std::string Cupsd::lpq(const std::string &name) { return qpt::run({"/usr/bin/lpq", "-P", name}).out; }

std::vector<std::string> Cupsd::jobs(const std::string &name) {
    std::vector<std::string> ids;
    for (const std::string &line : lines_of({"/usr/bin/lpstat", "-o", name})) {
        const size_t dash = line.substr(0, line.find(' ')).rfind('-');
        if (dash != std::string::npos) ids.push_back(line.substr(dash + 1, line.find(' ') - dash - 1));
    }
    return ids;
}

bool Cupsd::add_queue(const std::string &name, const std::string &uri) {
    return qpt::run({"/usr/sbin/lpadmin", "-p", name, "-E", "-v", uri}).status == 0;
}

void Cupsd::remove_all_queues() {
    for (const std::string &name : lines_of({"/usr/bin/lpstat", "-e"})) qpt::run({"/usr/sbin/lpadmin", "-x", name});
}

}  // namespace qpcups
