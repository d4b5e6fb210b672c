// qoraprinter: what a hot-plug rule or an administrator runs.
//
// Dispatch, help, --version and the bash completion, all from the command
// table that the cli_<area>.cpp files register.
#include <algorithm>
#include <cstdio>
#include <set>

#include "cli.hpp"

#ifndef QP_VERSION
#error "QP_VERSION must be defined"
#endif

namespace qpcli {

std::vector<Command> &registry() {
    static std::vector<Command> commands;
    return commands;
}

Register::Register(std::vector<Command> cmds) {
    for (auto &c : cmds) registry().push_back(std::move(c));
}

namespace {
bool g_json = false;
}
bool json() { return g_json; }

}  // namespace qpcli

namespace {

using qpcli::Command;

constexpr size_t kWidth = 80;

// The order of families in help and completion; first words not listed come last.
constexpr const char *kOrder[] = {"stringid",  "conf",  "cloud",        "attach", "detach", "list",
                                  "device-id", "reset", "share-status", "nptab",  "usbip",  "queue",
                                  "ppd",       "print", "print-test",   "job",    "spool",  "net"};

std::string first_word(const std::string &name) { return name.substr(0, name.find(' ')); }

size_t rank(const Command &c) {
    const std::string w = first_word(c.name);
    return static_cast<size_t>(std::find(std::begin(kOrder), std::end(kOrder), w) - std::begin(kOrder));
}

std::vector<const Command *> table() {
    std::vector<const Command *> out;
    for (const Command &c : qpcli::registry()) out.push_back(&c);
    std::stable_sort(out.begin(), out.end(), [](const Command *a, const Command *b) { return rank(*a) < rank(*b); });
    return out;
}

std::string synopsis(const Command &c) {
    std::string s = c.name;
    if (!c.usage.empty()) s += " " + c.usage;
    if (c.flags & qpcli::kJson) s += " [--json]";
    return s;
}

// Prints text from column `indent`, broken at blanks so no line passes 80 columns.
void wrap(FILE *out, const std::string &text, size_t indent, size_t next_indent) {
    size_t col = indent, pos = 0;
    std::fprintf(out, "%*s", static_cast<int>(indent), "");
    while (pos < text.size()) {
        size_t end = text.find(' ', pos);
        if (end == std::string::npos) end = text.size();
        const size_t len = end - pos;
        if (col > indent && col + 1 + len > kWidth) {
            std::fprintf(out, "\n%*s", static_cast<int>(next_indent), "");
            col = indent = next_indent;
        } else if (col > indent) {
            std::fputc(' ', out);
            ++col;
        }
        std::fwrite(text.data() + pos, 1, len, out);
        col += len;
        pos = end + 1;
    }
    std::fputc('\n', out);
}

void print_command(FILE *out, const Command &c) {
    wrap(out, synopsis(c), 2, 8);
    wrap(out, c.help, 6, 6);
}

constexpr const char *kTail =
    "Options anywhere: -v, --verbose  copy the library's log lines to stderr\n"
    "                  --json         one JSON document on stdout (data commands)\n"
    "Secrets are read from a file or standard input (-), never from arguments.\n"
    "Exit status: 0 success or yes, 1 failure, 2 usage error, 3 no or not found,\n"
    "4 partly or elsewhere, 5 timed out.  See qoraprinter(8).\n";

// The whole table, or one family ("queue"); false when there is no such family.
bool print_help(FILE *out, const std::string &family) {
    std::vector<const Command *> rows;
    for (const Command *c : table())
        if (family.empty() || first_word(c->name) == family) rows.push_back(c);
    if (rows.empty()) return false;
    if (family.empty()) {
        std::fprintf(out,
                     "usage: qoraprinter [-v] [--json] COMMAND [ARGS...]\n"
                     "       qoraprinter FAMILY [--help] | --help | --version\n\ncommands:\n");
    } else {
        std::fprintf(out, "usage: qoraprinter %s SUBCOMMAND [ARGS...]\n\n", family.c_str());
    }
    for (const Command *c : rows) print_command(out, *c);
    std::fprintf(out, "\n%s", kTail);
    return true;
}

// Bash completion: command words, then each command's options, from the table.
void print_completion(FILE *out) {
    std::string top = "--help --version --verbose --json";
    std::string groups, commands;
    std::set<std::string> seen;
    for (const Command *c : table()) {
        const std::string w = first_word(c->name);
        const bool two = c->name.size() > w.size();
        if (seen.insert(w).second) {
            top += " " + w;
            std::string subs;
            for (const Command *d : table())
                if (first_word(d->name) == w && d->name.size() > w.size())
                    subs += (subs.empty() ? "" : " ") + d->name.substr(w.size() + 1);
            if (!subs.empty()) groups += "        1:" + w + ") opts=\"" + subs + "\" ;;\n";
        }
        std::string opts = "--help";
        const std::string syn = synopsis(*c);
        for (size_t p = syn.find("--"); p != std::string::npos; p = syn.find("--", p + 2)) {
            const size_t e = syn.find_first_of(" ]|", p);
            const std::string o = syn.substr(p, e == std::string::npos ? e : e - p);
            if (opts.find(o + " ") == std::string::npos && !opts.ends_with(o)) opts += " " + o;
        }
        commands += "        \"" + c->name + (two ? "\"" : " \"*") + ") opts=\"" + opts + "\" ;;\n";
    }
    std::fprintf(out,
                 "# bash completion for qoraprinter (generated by qoraprinter --bash-completion)\n"
                 "_qoraprinter() {\n"
                 "    local cur=${COMP_WORDS[COMP_CWORD]} i opts= words=()\n"
                 "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
                 "        case ${COMP_WORDS[i]} in\n"
                 "            -v | --verbose | --json) ;;\n"
                 "            *) words+=(\"${COMP_WORDS[i]}\") ;;\n"
                 "        esac\n"
                 "    done\n"
                 "    case ${#words[@]}:${words[0]} in\n"
                 "        0:) opts=\"%s\" ;;\n%s"
                 "    esac\n"
                 "    [[ -n $opts ]] || case \"${words[0]} ${words[1]}\" in\n%s"
                 "    esac\n"
                 "    COMPREPLY=($(compgen -W \"$opts\" -- \"$cur\"))\n"
                 "}\n"
                 "complete -o default -F _qoraprinter qoraprinter\n",
                 top.c_str(), groups.c_str(), commands.c_str());
}

const Command *match(const qpcli::Args &args, size_t &words) {
    const Command *best = nullptr;
    words = 0;
    for (const Command &c : qpcli::registry()) {
        const size_t n = c.name.find(' ') == std::string::npos ? 1 : 2;
        if (n > args.size() || n <= words) continue;
        if ((n == 1 ? args[0] : args[0] + " " + args[1]) == c.name) {
            best = &c;
            words = n;
        }
    }
    return best;
}

}  // namespace

int main(int argc, char **argv) {
    qpcli::Args args(argv + 1, argv + argc);
    bool verbose = false;
    while (qpcli::take_flag(args, "-v") || qpcli::take_flag(args, "--verbose")) verbose = true;
    while (qpcli::take_flag(args, "--json")) qpcli::g_json = true;
    qpcli::set_verbose(verbose);

    if (args.empty()) {
        print_help(stderr, "");
        return qpcli::kUsage;
    }
    const std::string &first = args[0];
    if (first == "--help" || first == "-h" || first == "help") {
        if (args.size() > 1 && !print_help(stdout, args[1]))
            return qpcli::say(qpcli::kUsage, "no command family '%s' (see qoraprinter --help).", args[1].c_str());
        if (args.size() == 1) print_help(stdout, "");
        return qpcli::kOk;
    }
    if (first == "--version") {
        std::printf("qoraprinter %s\n", QP_VERSION);
        return qpcli::kOk;
    }
    if (first == "--bash-completion") {
        print_completion(stdout);
        return qpcli::kOk;
    }
    size_t words = 0;
    const Command *c = match(args, words);
    if (!c) {
        // A family alone, or with --help, shows the family's help.
        const bool asked = args.size() == 2 && (args[1] == "--help" || args[1] == "-h");
        if ((args.size() == 1 || asked) && print_help(asked ? stdout : stderr, first))
            return asked ? qpcli::kOk : qpcli::kUsage;
        if (args.size() > 1 && print_help(stderr, first))
            return qpcli::say(qpcli::kUsage, "%s has no subcommand '%s'.", first.c_str(), args[1].c_str());
        return qpcli::say(qpcli::kUsage, "unknown command '%s' (see qoraprinter --help).", first.c_str());
    }
    qpcli::Args rest(args.begin() + static_cast<long>(words), args.end());
    if (qpcli::take_flag(rest, "--help") || qpcli::take_flag(rest, "-h")) {
        wrap(stdout, "usage: qoraprinter " + synopsis(*c), 0, 8);
        wrap(stdout, c->help, 2, 2);
        return qpcli::kOk;
    }
    if (qpcli::json() && !(c->flags & qpcli::kJson))
        return qpcli::say(qpcli::kUsage, "%s prints no data; --json does not apply.", c->name.c_str());
    const int rc = c->run(rest);
    if (rc != qpcli::kBadArgs) return rc;
    wrap(stderr, "usage: qoraprinter " + synopsis(*c), 0, 8);
    return qpcli::kUsage;
}
