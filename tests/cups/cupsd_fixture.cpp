// A private CUPS scheduler for tests (see cupsd_fixture.hpp).
#include "cupsd_fixture.hpp"

#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "qp_test.hpp"

namespace qpcups {
namespace {

bool install_done = false;

// State letter of a process from /proc/PID/stat, 0 when gone.
char proc_state(pid_t pid) {
    const std::string stat = qpt::read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() ? 0 : stat[paren + 2];
}

std::vector<std::string> lines_of(const std::vector<std::string> &argv) {
    std::istringstream in(qpt::run(argv).out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

Cupsd::~Cupsd() { stop(); }

void Cupsd::install() {
    // No system bus in the sandbox: cupsd (ours, or one the library starts,
    // which inherits this) fails fast instead of looking for one.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    const qpt::RunResult r = qpt::run({qpt::bin_path("qp-cupsd-setup")});
    if (r.status != 0) fprintf(stderr, "qp-cupsd-setup failed (%d): %s\n", r.status, r.err.c_str());
    install_done = true;
}

bool Cupsd::running() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", kSocket);
    const bool ok = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

pid_t Cupsd::find_pid() {
    pid_t found = -1;
    DIR *d = opendir("/proc");
    while (struct dirent *e = d ? readdir(d) : nullptr) {
        const pid_t pid = atoi(e->d_name);
        const char st = pid > 0 ? proc_state(pid) : 0;
        if (st && st != 'Z' && qpt::read_file("/proc/" + std::string(e->d_name) + "/comm") == "cupsd\n") {
            found = pid;
            break;
        }
    }
    if (d) closedir(d);
    return found;
}

bool Cupsd::start() {
    if (!install_done) install();
    if (find_pid() < 0) pid_ = qpt::start({"/usr/sbin/cupsd", "-f"});
    return qpt::wait_until(running, 5000);
}

void Cupsd::stop() {
    pid_t pid;
    for (int round = 0; round < 5 && (pid = find_pid()) > 0; ++round) {
        if (pid == pid_) {
            qpt::stop(pid_);
            pid_ = -1;
            continue;
        }
        // One the library started: gone from /proc, or a zombie its parent reaps.
        kill(pid, SIGTERM);
        qpt::wait_until([&] {
            waitpid(pid, nullptr, WNOHANG);
            const char st = proc_state(pid);
            return st == 0 || st == 'Z';
        });
    }
}

std::vector<Queue> Cupsd::queues() {
    std::vector<Queue> list;
    const std::string prefix = "device for ";
    for (const std::string &line : lines_of({"/usr/bin/lpstat", "-v"})) {
        const size_t colon = line.find(": ", prefix.size());
        if (line.rfind(prefix, 0) == 0 && colon != std::string::npos)
            list.push_back({line.substr(prefix.size(), colon - prefix.size()), line.substr(colon + 2)});
    }
    return list;
}

bool Cupsd::has_queue(const std::string &name) {
    for (const auto &q : queues())
        if (q.name == name) return true;
    return false;
}

std::string Cupsd::uri_of(const std::string &name) {
    for (const auto &q : queues())
        if (q.name == name) return q.uri;
    return "";
}

bool Cupsd::is_stopped(const std::string &name) {
    const qpt::RunResult r = qpt::run({"/usr/bin/lpstat", "-p", name});
    return r.status == 0 && r.out.find(" disabled") != std::string::npos;
}

std::string Cupsd::lpq(const std::string &name) { return qpt::run({"/usr/bin/lpq", "-P", name}).out; }

std::vector<std::string> Cupsd::jobs(const std::string &name) {
    std::vector<std::string> ids;
    for (const std::string &line : lines_of({"/usr/bin/lpstat", "-o", name})) {
        const std::string first = line.substr(0, line.find(' '));
        if (first.rfind('-') != std::string::npos) ids.push_back(first.substr(first.rfind('-') + 1));
    }
    return ids;
}

bool Cupsd::add_queue(const std::string &name, const std::string &uri, const std::string &ppd) {
    std::vector<std::string> argv = {"/usr/sbin/lpadmin", "-p", name, "-E", "-v", uri};
    if (!ppd.empty()) argv.insert(argv.end(), {"-P", ppd});
    return qpt::run(argv).status == 0;
}

void Cupsd::remove_all_queues() {
    for (const auto &q : queues()) qpt::run({"/usr/sbin/lpadmin", "-x", q.name});
}

bool Cupsd::wait_printers_conf(const std::string &text, bool present, int timeout_ms) {
    return qpt::wait_until(
        [&] { return (qpt::read_file(kPrintersConf).find(text) != std::string::npos) == present; }, timeout_ms);
}

}  // namespace qpcups
