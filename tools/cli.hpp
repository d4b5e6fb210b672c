// The qoraprinter command-line front end: shared pieces.
//
// Each tools/cli_<area>.cpp registers its subcommands with a static
// qpcli::Register object; main() dispatches on the first word(s).
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qpcli {

using Args = std::vector<std::string>;

struct Command {
    std::string name;     // one or two words: "attach", "queue add"
    std::string usage;    // argument synopsis
    std::string help;     // one line
    std::function<int(const Args &)> run;  // gets the arguments after the name
};

std::vector<Command> &registry();

struct Register {
    explicit Register(std::vector<Command> cmds);
};

// Prints "error 0x0D00 ERR_BAD_PARAMETER at file.cpp:42" from the error slot
// to stderr, after "what: ", and returns 1.
int fail(std::string_view what);

// Name of an error code ("ERR_BAD_PARAMETER"), "" when unknown.
const char *error_name(unsigned int code);

// Takes "--flag VALUE" out of args; true when found.
bool take_option(Args &args, std::string_view flag, std::string &value);
// Takes "--flag" out of args; true when found.
bool take_flag(Args &args, std::string_view flag);

// Copies text into a fixed-width record field; false when it does not fit
// with its NUL.
template <std::size_t N>
bool set_field(char (&field)[N], std::string_view text) {
    if (text.size() >= N) return false;
    std::memcpy(field, text.data(), text.size());
    field[text.size()] = '\0';
    return true;
}

// Prints usage of one command and returns 1.
int usage(const Command &cmd);

// A command whose handler answers -1 for wrong arguments (usage is printed),
// else its exit status.
Command cmd(std::string name, std::string usage, std::string help, int (*fn)(const Args &));

// Empties the error slot before a call: the library never clears it, so a
// failure without a code of its own would otherwise show a stale one.
void clear_slot();

// 0 for a zero result, else the failure printed by fail().
int done(int rc, const char *what);

}  // namespace qpcli
