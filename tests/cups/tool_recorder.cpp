// Stands in a tool's place (a copy of this program at e.g. /usr/bin/lpadmin)
// and records every run, then runs the real tool or plays a chosen part.
//
// Control files in /run/qp-rec/NAME/, NAME being the basename of the path
// this copy was started from:
//   real      path of the real program; exec'ed with the same arguments
//   log       one line per run: the arguments, argv[0] included, joined by \x1f
//   fail      "N STATUS": the next N runs exit with STATUS (a negative STATUS
//             kills the run with that signal) without running the real tool
//   output    when present, written to stdout instead of running the real
//             tool; the run then exits 0 (or as "fail" says)
//   delay_ms  wait this long first
//   vanish    when present, this copy deletes itself after the run
//   restore   when present, the real program is moved back over this copy
//             and run from there (a daemon then runs its own program path)
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string read_text(const std::string &path, bool &found) {
    std::ifstream in(path);
    found = static_cast<bool>(in);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

int main(int argc, char **argv) {
    char self[PATH_MAX] = {0};
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) return 126;
    const char *base = strrchr(self, '/');
    const std::string dir = std::string("/run/qp-rec/") + (base ? base + 1 : self) + "/";

    bool found = false;
    std::string delay = read_text(dir + "delay_ms", found);
    if (found) {
        long ms = atol(delay.c_str());
        struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
        nanosleep(&ts, nullptr);
    }
    {
        std::ofstream log(dir + "log", std::ios::app);
        for (int i = 0; i < argc; ++i) log << (i ? "\x1f" : "") << argv[i];
        log << "\n";
    }
    bool vanish = false;
    read_text(dir + "vanish", vanish);
    if (vanish) unlink(self);

    int status = 0;
    std::string fail = read_text(dir + "fail", found);
    int left = 0;
    if (found && sscanf(fail.c_str(), "%d %d", &left, &status) == 2 && left > 0) {
        std::ofstream(dir + "fail", std::ios::trunc) << (left - 1) << " " << status << "\n";
    } else {
        left = 0;
        status = 0;
    }

    std::string output = read_text(dir + "output", found);
    if (found) fwrite(output.data(), 1, output.size(), stdout);
    if (left > 0 || found) {
        fflush(stdout);
        if (status < 0) {
            signal(-status, SIG_DFL);
            raise(-status);
        }
        return status;
    }

    std::string real = read_text(dir + "real", found);
    while (!real.empty() && (real.back() == '\n' || real.back() == ' ')) real.pop_back();
    if (real.empty()) return 127;
    bool restore = false;
    read_text(dir + "restore", restore);
    if (restore && rename(real.c_str(), self) == 0) real = self;
    argv[0] = real.data();
    execv(real.c_str(), argv);
    return 127;
}
