// Puts tool_recorder.sh in a tool's place for one test and reads what it saw.
#pragma once

#include <stdio.h>

#include <sstream>
#include <string>
#include <vector>

#include "qp_test.hpp"

namespace qpcups {

using Argv = std::vector<std::string>;

class Recorder {
public:
    // Replaces tool (e.g. "/usr/bin/lpadmin") with a recording copy that runs
    // real (e.g. "/usr/sbin/lpadmin"), by default the program (or link) that
    // stood at tool, kept meanwhile in a ".qp-saved" directory beside it under
    // its own name (so a daemon started through it keeps its process name).
    // The destructor puts it back.
    explicit Recorder(const std::string &tool, const std::string &real = "") : tool_(tool) {
        const size_t slash = tool_.rfind('/');
        dir_ = "/run/qp-rec/" + tool_.substr(slash + 1) + "/";
        saved_ = tool_.substr(0, slash) + "/.qp-saved/" + tool_.substr(slash + 1);
        qpt::run({"/bin/rm", "-rf", dir_});
        qpt::mkdirs(dir_);
        qpt::mkdirs(tool_.substr(0, slash) + "/.qp-saved");
        if (rename(tool_.c_str(), saved_.c_str()) != 0) perror(tool_.c_str());
        qpt::write_file(dir_ + "real", real.empty() ? saved_ : real);
        qpt::write_file(tool_, qpt::read_file(qpt::source_path("tests/cups/tool_recorder.sh")), 0755);
    }
    // Unless a run with restore_on_run() put it back already.
    ~Recorder() { rename(saved_.c_str(), tool_.c_str()); }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    // The next n runs exit with status (negative: die by that signal).
    void fail_next(int n, int status) { control("fail", std::to_string(n) + " " + std::to_string(status)); }
    // Every run prints this instead of running the real tool.
    void play(const std::string &output) { control("output", output); }
    void delay(const char *seconds) { control("delay", seconds); }
    // The next run puts the real program back in the tool's place and runs
    // it from there: a daemon runs its own program, as the service check wants.
    void restore_on_run() { control("restore", ""); }

    std::vector<Argv> runs() const {
        std::vector<Argv> all;
        std::istringstream in(qpt::read_file(dir_ + "log"));
        for (std::string line; std::getline(in, line);) {
            std::istringstream args(line);
            all.emplace_back();
            for (std::string arg; std::getline(args, arg, '\x1f');) all.back().push_back(arg);
        }
        return all;
    }
    void forget() { qpt::remove_file(dir_ + "log"); }

private:
    void control(const char *file, const std::string &text) { qpt::write_file(dir_ + file, text); }
    std::string tool_, dir_, saved_;
};

}  // namespace qpcups
