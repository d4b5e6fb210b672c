// The qoraprinter command-line front end: shared pieces.
//
// Each tools/cli_<area>.cpp registers its rows of the command table with a
// static qpcli::Register; main() dispatches on the first word(s), and --help,
// the family help and the bash completion are all printed from that table.
// A new subcommand is one cmd(...) row plus its handler.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace qpcli {

// Exit statuses, the same for every subcommand.
enum Exit : int {
    kOk = 0,        // success, or "yes"
    kFailed = 1,    // the operation failed
    kUsage = 2,     // wrong command line
    kNo = 3,        // "no": not found, absent, offline, not active
    kPartly = 4,    // exists but answers otherwise: another device, another address, identified in part
    kTimedOut = 5,  // the wait ended with the job still queued
};

// A handler's answer for arguments that do not fit the synopsis (exit 2).
constexpr int kBadArgs = -1;

using Args = std::vector<std::string>;
using Handler = int (*)(const Args &);

// Flags of a row.
enum : unsigned { kJson = 1 };  // prints data: takes --json

struct Command {
    std::string name;   // one or two words: "attach", "queue add"
    std::string usage;  // argument synopsis (options as --name VALUE)
    std::string help;   // one sentence
    Handler run;        // gets the arguments after the name
    unsigned flags;
};

inline Command cmd(std::string name, std::string usage, std::string help, Handler fn, unsigned flags = 0) {
    return Command{std::move(name), std::move(usage), std::move(help), fn, flags};
}

std::vector<Command> &registry();

struct Register {
    explicit Register(std::vector<Command> cmds);
};

// --json was given: handlers print one JSON document instead of text.
bool json();

// Starts a library call: empties the error slot (the library never clears
// it), errno, the captured log lines and the core's last failed program.
void begin_call();

// Prints "qoraprinter: WHAT failed: NAME (0xCODE)[: strerror]." with the
// library's log lines of the call and the first stderr line of a failed
// tool, and returns kFailed.
int fail(std::string_view what);
// Prints the queue name stored for PRINTER (with --json, the printer and the
// queue); fail(what) when none can be read.
int print_queue_name(const std::string &printer, std::string_view what);
// 0 for a zero result, else fail(what).
int done(int rc, const char *what);
// Prints "qoraprinter: TEXT" (a sentence) on stderr and returns status.
int say(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Name of an error code ("ERR_BAD_PARAMETER"), "" when unknown.
const char *error_name(unsigned int code);

// Takes "--flag VALUE" out of args; true when found.
bool take_option(Args &args, std::string_view flag, std::string &value);
// Takes "--flag" out of args; true when found.
bool take_flag(Args &args, std::string_view flag);

// Reads a secret from FILE, or standard input for "-": its first line
// without the line end.  false (with the reason printed) when it cannot be
// read or holds more than max bytes.
bool read_secret(const std::string &from, std::string &secret, size_t max);

// Copies text into a fixed-width record field; false when it does not fit
// with its NUL.
template <std::size_t N>
bool set_field(char (&field)[N], std::string_view text) {
    if (text.size() >= N) return false;
    std::memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
    return true;
}

// Text with control bytes shown as '?', for a terminal.
std::string printable(std::string_view s);

// One JSON document written as its parts come; keys keep the order given.
class Json {
public:
    Json &open() { return opening('{', {}); }                         // {
    Json &close() { return closing('}'); }                            // }
    Json &array(std::string_view key) { return opening('[', key); }   // "key": [
    Json &end_array() { return closing(']'); }                        // ]
    Json &object(std::string_view key) { return opening('{', key); }  // "key": {
    Json &key(std::string_view key);
    Json &str(std::string_view value);  // also an array item
    Json &field(std::string_view k, std::string_view v) { return key(k).str(v); }
    Json &field(std::string_view k, const char *v) { return key(k).str(v); }
    Json &field(std::string_view k, bool v);
    Json &field(std::string_view k, long long v);
    Json &null(std::string_view k);
    // Prints the document and a newline on stdout.
    void print();
    const std::string &text() const { return out_; }

private:
    Json &opening(char bracket, std::string_view key);
    Json &closing(char bracket);
    void comma();
    std::string out_;
    bool first_ = true;
};

// Log lines captured from the library (syslog), oldest first.
struct LogLine {
    int priority;
    std::string text;
};
void set_verbose(bool on);
std::vector<LogLine> take_log();

}  // namespace qpcli
