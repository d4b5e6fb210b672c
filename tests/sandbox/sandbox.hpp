// qp-sandbox: runs one program inside throw-away namespaces so the tests can
// write the library's fixed paths, start daemons and open sockets without
// touching the machine.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qps {

// Exit status used when the sandbox itself cannot be set up.
inline constexpr int kSetupFailed = 125;

// Builds the new root (overlay of / with fresh /proc /sys /dev /tmp /run),
// switches into it and changes to cwd there (or / when it does not exist).
// `keep` lists host paths whose mounts must stay visible (the program, the
// working directory); `binds` host paths shared read-write with the machine
// (writes there survive the run).  Returns false after printing why.
bool enter_new_root(const std::string &cwd, const std::vector<std::string> &keep,
                    const std::vector<std::string> &binds);

// Creates the directories and links the library and its tools expect.
void populate_root();

// Brings the loopback interface up in the current network namespace.
bool loopback_up();

// One syslog datagram as one line of the catcher's file: "<severity> text\n"
// with the header (priority, timestamp, tag) removed, embedded newlines
// escaped and the trailing newline dropped.
std::string syslog_line(std::string_view datagram);

// Binds the catcher's datagram socket on path; returns the descriptor or -1.
int bind_log_socket(const char *path);

// Reads every datagram queued on sock (non-blocking) and appends the lines
// to out_fd.  Returns the number of datagrams read.
size_t drain_log_socket(int sock, int out_fd);

}  // namespace qps
