// Puts tool_recorder.sh in a tool's place for one test and reads what it saw.
#pragma once

#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "qp_test.hpp"

namespace qpcups {

using Argv = std::vector<std::string>;

class Recorder {
public:
    // Replaces tool (e.g. "/usr/bin/lpadmin") with a recording copy that runs
    // real (e.g. "/usr/sbin/lpadmin"), by default the program that stood at
    // tool, kept meanwhile in a ".qp-saved" directory beside it under its own
    // name (so a daemon started through it keeps its process name).  The
    // destructor puts back what stood there.
    explicit Recorder(std::string tool, std::string real = "") : tool_(std::move(tool)) {
        size_t slash = tool_.rfind('/');
        const std::string base = tool_.substr(slash + 1);
        dir_ = "/run/qp-rec/" + base + "/";
        qpt::mkdirs(dir_);
        for (const char *f : {"log", "fail", "output", "delay_ms", "restore"}) unlink((dir_ + f).c_str());
        char target[4096] = {0};
        if (readlink(tool_.c_str(), target, sizeof target - 1) > 0) old_link_ = target;
        if (old_link_.empty() && qpt::exists(tool_)) {
            qpt::mkdirs(tool_.substr(0, slash) + "/.qp-saved");
            saved_ = tool_.substr(0, slash) + "/.qp-saved/" + base;
            rename(tool_.c_str(), saved_.c_str());
        }
        unlink(tool_.c_str());
        qpt::write_file(dir_ + "real", real.empty() ? saved_ : real);
        qpt::write_file(tool_, qpt::read_file(qpt::source_path("tests/cups/tool_recorder.sh")), 0755);
    }
    ~Recorder() {
        if (!saved_.empty() && !qpt::exists(saved_)) return;  // put back by its run already
        unlink(tool_.c_str());
        if (!old_link_.empty()) {
            if (symlink(old_link_.c_str(), tool_.c_str()) != 0) perror("symlink");
        } else if (!saved_.empty()) {
            rename(saved_.c_str(), tool_.c_str());
        }
    }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // The next n runs exit with status (negative: die by that signal).
    void fail_next(int n, int status) { qpt::write_file(dir_ + "fail", std::to_string(n) + " " + std::to_string(status)); }
    // Every run prints this instead of running the real tool.
    void play(const std::string &output) { qpt::write_file(dir_ + "output", output); }
    void delay_ms(int ms) { qpt::write_file(dir_ + "delay_ms", std::to_string(ms)); }
    // The next run puts the real program back in the tool's place and runs
    // it from there: a daemon runs its own program, as the service check wants.
    void restore_on_run() { qpt::write_file(dir_ + "restore", ""); }

    std::vector<Argv> runs() const {
        std::vector<Argv> all;
        std::istringstream in(qpt::read_file(dir_ + "log"));
        std::string line;
        while (std::getline(in, line)) {
            Argv argv;
            size_t start = 0;
            for (size_t sep; (sep = line.find('\x1f', start)) != std::string::npos; start = sep + 1)
                argv.push_back(line.substr(start, sep - start));
            argv.push_back(line.substr(start));
            all.push_back(argv);
        }
        return all;
    }
    void forget() { unlink((dir_ + "log").c_str()); }

private:
    std::string tool_, dir_, old_link_, saved_;
};

}  // namespace qpcups
