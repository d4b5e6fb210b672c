// qoraprinter: what a hot-plug rule or an administrator runs.
#include <cstdio>
#include <algorithm>
#include <cstring>

#include "cli.hpp"
#include "qoracore.h"

namespace qpcli {

std::vector<Command> &registry() {
    static std::vector<Command> commands;
    return commands;
}

Register::Register(std::vector<Command> cmds) {
    for (auto &c : cmds) registry().push_back(std::move(c));
}

const char *error_name(unsigned int code) {
    switch (code) {
    case ERR_NAME_TOO_LONG: return "ERR_NAME_TOO_LONG";
    case ERR_OUT_OF_MEMORY: return "ERR_OUT_OF_MEMORY";
    case ERR_LOCK_FAILED: return "ERR_LOCK_FAILED";
    case ERR_UNLOCK_FAILED: return "ERR_UNLOCK_FAILED";
    case ERR_OPEN_FAILED: return "ERR_OPEN_FAILED";
    case ERR_READ_FAILED: return "ERR_READ_FAILED";
    case ERR_WRITE_FAILED: return "ERR_WRITE_FAILED";
    case ERR_BAD_PARAMETER: return "ERR_BAD_PARAMETER";
    case ERR_KEY_NOT_FOUND: return "ERR_KEY_NOT_FOUND";
    case ERR_FIELD_NOT_FOUND: return "ERR_FIELD_NOT_FOUND";
    case ERR_RENAME_FAILED: return "ERR_RENAME_FAILED";
    case ERR_EXTERNAL_FAILED: return "ERR_EXTERNAL_FAILED";
    case ERR_REMOVE_KEY_FAILED: return "ERR_REMOVE_KEY_FAILED";
    case ERR_VALUE_TOO_LONG: return "ERR_VALUE_TOO_LONG";
    case ERR_SERVICE_RUNNING: return "ERR_SERVICE_RUNNING";
    default: return "";
    }
}

int fail(std::string_view what) {
    unsigned int code = QLIBCErrGet();
    const char *file = QLIBCErrorGetFile();
    if (code == 0) {
        std::fprintf(stderr, "%.*s: failed\n", static_cast<int>(what.size()), what.data());
    } else {
        std::fprintf(stderr, "%.*s: error 0x%04X %s at %s:%d\n", static_cast<int>(what.size()), what.data(), code,
                     error_name(code), file ? file : "?", QLIBCErrorGetLine());
    }
    return 1;
}

bool take_option(Args &args, std::string_view flag, std::string &value) {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == flag) {
            value = args[i + 1];
            args.erase(args.begin() + static_cast<long>(i), args.begin() + static_cast<long>(i) + 2);
            return true;
        }
    }
    return false;
}

bool take_flag(Args &args, std::string_view flag) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == flag) {
            args.erase(args.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

int usage(const Command &cmd) {
    std::fprintf(stderr, "usage: qoraprinter %s %s\n", cmd.name.c_str(), cmd.usage.c_str());
    return 1;
}

Command cmd(std::string name, std::string usage_text, std::string help, int (*fn)(const Args &)) {
    Command c{std::move(name), std::move(usage_text), std::move(help), nullptr};
    c.run = [c, fn](const Args &a) {
        int rc = fn(a);
        return rc < 0 ? usage(c) : rc;
    };
    return c;
}

void clear_slot() { QLIBCErrSetEx(0, "", 0); }

int done(int rc, const char *what) { return rc == 0 ? 0 : fail(what); }

}  // namespace qpcli

namespace {

void print_help(FILE *out) {
    std::fprintf(out, "usage: qoraprinter COMMAND [ARGS...]\n\ncommands:\n");
    for (const auto &c : qpcli::registry())
        std::fprintf(out, "  %-22s %-28s %s\n", c.name.c_str(), c.usage.c_str(), c.help.c_str());
    std::fprintf(out, "\nExit status 0 on success, 1 on failure (the error code, its name and place go to stderr).\n");
}

}  // namespace

int main(int argc, char **argv) {
    qpcli::Args args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        print_help(args.empty() ? stderr : stdout);
        return args.empty() ? 1 : 0;
    }
    // Longest match first: "queue add" before "queue".
    const qpcli::Command *best = nullptr;
    size_t best_words = 0;
    for (const auto &c : qpcli::registry()) {
        size_t words = 1 + static_cast<size_t>(std::count(c.name.begin(), c.name.end(), ' '));
        if (words > args.size() || words < best_words) continue;
        std::string joined = args[0];
        for (size_t i = 1; i < words; ++i) joined += " " + args[i];
        if (joined == c.name && words > best_words) {
            best = &c;
            best_words = words;
        }
    }
    if (!best) {
        std::fprintf(stderr, "qoraprinter: unknown command '%s' (see --help)\n", args[0].c_str());
        return 1;
    }
    qpcli::Args rest(args.begin() + static_cast<long>(best_words), args.end());
    if (qpcli::take_flag(rest, "--help")) {
        std::printf("usage: qoraprinter %s %s\n  %s\n", best->name.c_str(), best->usage.c_str(), best->help.c_str());
        return 0;
    }
    return best->run(rest);
}
