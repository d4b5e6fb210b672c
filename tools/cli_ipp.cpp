// qoraprinter: network printers over IPP (status, driverless PPD).
#include "cli_ipp.hpp"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "cli.hpp"
#include "paths.hpp"

namespace qpipp {
namespace {

using qp::tool::kDriverless;
using qp::tool::kIpptool;
constexpr int kToolTimeoutMs = 20000;
constexpr size_t kMaxOutput = 1 << 20;
// What a printer is asked for: its state, formats, identity and supplies.
constexpr const char *kRequest =
    "{\n"
    "OPERATION Get-Printer-Attributes\n"
    "VERSION 2.0\n"
    "GROUP operation-attributes-tag\n"
    "ATTR charset attributes-charset utf-8\n"
    "ATTR naturalLanguage attributes-natural-language en\n"
    "ATTR uri printer-uri $uri\n"
    "ATTR keyword requested-attributes printer-state,printer-state-reasons,printer-state-message,"
    "printer-is-accepting-jobs,printer-make-and-model,printer-device-id,document-format-supported,"
    "marker-names,marker-types,marker-colors,marker-levels,marker-low-levels,marker-high-levels,"
    "printer-supply,printer-supply-description\n"
    "}\n";
// Formats a driverless queue can send, in the order the PPD maker prefers.
constexpr const char *kDriverlessFormats[] = {"image/pwg-raster", "image/urf", "application/PCLm", "application/pdf"};

struct ToolRun {
    int status = -1;  // exit status; -1 not started or killed
    bool timed_out = false;
    std::string out, err;
};

long long now_ms() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

// Runs argv[0] (an absolute path) with input on its stdin, in a process
// group of its own that is killed after timeout_ms; keeps at most
// kMaxOutput bytes of each output.
ToolRun run_tool(const std::vector<std::string> &argv, const std::string &input, int timeout_ms) {
    ToolRun r;
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0) return r;
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]), close(in[1]);
        return r;
    }
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(in[0]), close(in[1]), close(out[0]), close(out[1]);
        return r;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    posix_spawn_file_actions_adddup2(&fa, err[1], 2);
    posix_spawn_file_actions_addclosefrom_np(&fa, 3);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    std::vector<char *> args;
    for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    char lc[] = "LC_ALL=C", path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char *env[] = {lc, path, nullptr};
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0], &fa, &attr, args.data(), env);
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    close(in[0]), close(out[1]), close(err[1]);
    if (rc != 0) {
        close(in[1]), close(out[0]), close(err[0]);
        r.err = std::string(argv[0]) + ": " + strerror(rc);
        return r;
    }
    // The input is small (well under a pipe's buffer): written at once.
    signal(SIGPIPE, SIG_IGN);
    if (!input.empty() && write(in[1], input.data(), input.size()) < 0) {
    }
    close(in[1]);
    const long long deadline = now_ms() + timeout_ms;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *dest[2] = {&r.out, &r.err};
    for (int open_ends = 2; open_ends > 0;) {
        const long long left = deadline - now_ms();
        if (left <= 0) {
            r.timed_out = true;
            break;
        }
        const int n = poll(fds, 2, static_cast<int>(left));
        if (n < 0 && errno != EINTR) break;
        for (int i = 0; n > 0 && i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            char buf[8192];
            const ssize_t got = read(fds[i].fd, buf, sizeof buf);
            if (got > 0) {
                const size_t room = kMaxOutput - std::min(kMaxOutput, dest[i]->size());
                dest[i]->append(buf, std::min(room, static_cast<size_t>(got)));
            } else if (got == 0 || errno != EINTR) {
                fds[i].fd = -1;
                --open_ends;
            }
        }
    }
    if (r.timed_out) kill(-pid, SIGKILL);
    close(out[0]), close(err[0]);
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    if (!r.timed_out && WIFEXITED(st)) r.status = WEXITSTATUS(st);
    return r;
}

// The last line of a tool's stderr that says something.
std::string last_line(const std::string &text) {
    std::string line, last;
    for (char c : text) {
        if (c == '\n') {
            if (line.find_first_not_of(" \t\r") != std::string::npos) last = line;
            line.clear();
        } else {
            line += c;
        }
    }
    if (line.find_first_not_of(" \t\r") != std::string::npos) last = line;
    return last.substr(0, 300);
}

std::string xml_text(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '&') {
            out += s[i];
            continue;
        }
        static const struct {
            const char *ent, *ch;
        } kEnt[] = {{"&amp;", "&"}, {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&apos;", "'"}};
        bool done = false;
        for (const auto &e : kEnt) {
            if (s.compare(i, strlen(e.ent), e.ent) == 0) {
                out += e.ch;
                i += strlen(e.ent) - 1;
                done = true;
                break;
            }
        }
        if (!done) out += '&';
    }
    return out;
}

std::string base64_decode(const std::string &s) {
    std::string out;
    unsigned int acc = 0;
    int bits = 0;
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        int v;
        if (c >= 'A' && c <= 'Z')
            v = c - 'A';
        else if (c >= 'a' && c <= 'z')
            v = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            v = c - '0' + 52;
        else if (c == '+')
            v = 62;
        else if (c == '/')
            v = 63;
        else
            continue;
        acc = (acc << 6) | static_cast<unsigned int>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    return out;
}

// The report as a list of tags and texts: {true, "dict"}, {true, "/dict"},
// {false, "text"}.  "<true />" becomes the tag "true/".
struct Token {
    bool tag;
    std::string text;
};

std::vector<Token> tokens(const std::string &xml) {
    std::vector<Token> t;
    size_t i = 0;
    while (i < xml.size()) {
        const size_t lt = xml.find('<', i);
        const std::string text = xml.substr(i, lt == std::string::npos ? std::string::npos : lt - i);
        if (!t.empty() && t.back().tag && text.find_first_not_of(" \t\r\n") != std::string::npos)
            t.push_back({false, xml_text(text)});
        if (lt == std::string::npos) break;
        const size_t gt = xml.find('>', lt);
        if (gt == std::string::npos) break;
        std::string name = xml.substr(lt + 1, gt - lt - 1);
        name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
        if (!name.empty() && name[0] != '?' && name[0] != '!') t.push_back({true, name});
        i = gt + 1;
    }
    return t;
}

// One scalar value at t[i] ("<string>x</string>", "<integer>3</integer>",
// "<true/>"), its text added to values; i moves past it.  A collection
// ("<dict>") is skipped.
void take_value(const std::vector<Token> &t, size_t &i, std::vector<std::string> &values) {
    if (i >= t.size() || !t[i].tag) {
        ++i;
        return;
    }
    const std::string &name = t[i].text;
    if (name == "true/" || name == "false/") {
        values.push_back(name == "true/" ? "true" : "false");
        ++i;
        return;
    }
    if (name == "dict") {
        for (int depth = 0; i < t.size(); ++i) {
            if (t[i].tag && t[i].text == "dict") ++depth;
            if (t[i].tag && t[i].text == "/dict" && --depth == 0) break;
        }
        ++i;
        values.push_back("");
        return;
    }
    std::string text;
    ++i;
    if (i < t.size() && !t[i].tag) text = t[i++].text;
    if (i < t.size() && t[i].tag && t[i].text == "/" + name) ++i;
    values.push_back(name == "data" ? base64_decode(text) : text);
}

int to_int(const std::string &s, int fallback) {
    char *end = nullptr;
    errno = 0;
    const long v = strtol(s.c_str(), &end, 10);
    if (errno || end == s.c_str() || *end || v < -1000000 || v > 1000000) return fallback;
    return static_cast<int>(v);
}

std::string at(const Attrs &a, const char *name, size_t i = 0) {
    const auto it = a.find(name);
    return it != a.end() && i < it->second.size() ? it->second[i] : "";
}

size_t count(const Attrs &a, const char *name) {
    const auto it = a.find(name);
    return it == a.end() ? 0 : it->second.size();
}

// "index=1;class=..;type=toner;unit=percent;maxcapacity=100;level=75;colorantname=black;"
std::string supply_field(const std::string &item, const std::string &key) {
    size_t p = 0;
    while (p < item.size()) {
        size_t semi = item.find(';', p);
        if (semi == std::string::npos) semi = item.size();
        const std::string part = item.substr(p, semi - p);
        if (part.compare(0, key.size() + 1, key + "=") == 0) return part.substr(key.size() + 1);
        p = semi + 1;
    }
    return "";
}

// Printable text from a printer: control bytes become blanks.
std::string clean(const std::string &s) {
    std::string out = s;
    for (char &c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    return out;
}

std::string joined(const std::vector<std::string> &v) {
    std::string out;
    for (const auto &s : v) out += (out.empty() ? "" : ", ") + s;
    return out;
}

// Asks the printer; false (and problem) when it gave no IPP answer; a tool
// that could not run sets tool_failed.
bool ask(const std::string &host, Attrs &attrs, std::string &problem, bool &tool_failed) {
    const std::string uri = printer_uri(host);
    const ToolRun r = run_tool({kIpptool, "-T", "5", "-X", uri, "/dev/stdin"}, kRequest, kToolTimeoutMs);
    std::string code;
    tool_failed = r.status < 0 && !r.timed_out;
    if (tool_failed) {
        problem = r.err.empty() ? std::string(kIpptool) + " did not run to its end" : r.err;
        return false;
    }
    if (r.timed_out) {
        problem = "no IPP answer from " + uri + " within " + std::to_string(kToolTimeoutMs / 1000) + " s";
        return false;
    }
    if (!parse_report(r.out, code, attrs)) {
        const std::string why = last_line(r.err);
        problem = "no IPP answer from " + uri + (why.empty() ? "" : " (" + clean(why) + ")");
        return false;
    }
    if (code.rfind("successful-ok", 0) != 0) {
        problem = uri + " refused the attribute request: " + clean(code);
        return false;
    }
    return true;
}

}  // namespace

bool valid_host(const std::string &host) {
    unsigned char buf[sizeof(in6_addr)];
    if (host.empty() || host.size() > 253 || host[0] == '-' || host[0] == '.') return false;
    if (inet_pton(AF_INET, host.c_str(), buf) == 1 || inet_pton(AF_INET6, host.c_str(), buf) == 1) return true;
    return std::all_of(host.begin(), host.end(),
                       [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.'; });
}

std::string printer_uri(const std::string &host) {
    const bool v6 = host.find(':') != std::string::npos;
    return "ipp://" + (v6 ? "[" + host + "]" : host) + "/ipp/print";
}

bool parse_report(const std::string &xml, std::string &status_code, Attrs &attrs) {
    const std::vector<Token> t = tokens(xml);
    bool have_code = false, have_response = false;
    for (size_t i = 0; i + 1 < t.size(); ++i) {
        if (!t[i].tag || t[i].text != "key" || t[i + 1].tag) continue;
        const std::string &key = t[i + 1].text;
        if (key == "StatusCode" && !have_code) {
            std::vector<std::string> v;
            size_t j = i + 3;
            take_value(t, j, v);
            status_code = v.empty() ? "" : v[0];
            have_code = true;
        } else if (key == "ResponseAttributes" && !have_response) {
            have_response = true;
            size_t j = i + 3;  // past <key>ResponseAttributes</key>
            if (j >= t.size() || !t[j].tag || t[j].text != "array") continue;
            ++j;
            // Groups (dicts) of key / value pairs, up to the array's end.
            for (int depth = 0; j < t.size();) {
                const Token &k = t[j];
                if (k.tag && k.text == "/array" && depth == 0) break;
                if (k.tag && k.text == "dict")
                    ++depth, ++j;
                else if (k.tag && k.text == "/dict")
                    --depth, ++j;
                else if (k.tag && k.text == "key" && j + 3 < t.size() && !t[j + 1].tag) {
                    std::vector<std::string> &values = attrs[t[j + 1].text];
                    j += 3;
                    if (j < t.size() && t[j].tag && t[j].text == "array") {
                        ++j;
                        while (j < t.size() && !(t[j].tag && t[j].text == "/array")) take_value(t, j, values);
                        ++j;
                    } else {
                        take_value(t, j, values);
                    }
                } else {
                    ++j;
                }
            }
        }
    }
    return have_code && have_response;
}

void fill_status(const Attrs &a, PrinterStatus &st) {
    static const char *const kStates[] = {"idle", "processing", "stopped"};
    const int state = to_int(at(a, "printer-state"), 0);
    st.state = state >= 3 && state <= 5 ? kStates[state - 3] : "unknown";
    st.message = clean(at(a, "printer-state-message"));
    st.make_and_model = clean(at(a, "printer-make-and-model"));
    st.accepting = at(a, "printer-is-accepting-jobs") == "true";
    for (const char *name : {"printer-state-reasons", "document-format-supported"}) {
        auto &dest = name[0] == 'p' ? st.reasons : st.formats;
        const auto it = a.find(name);
        if (it == a.end()) continue;
        for (const auto &v : it->second) {
            if (v != "none") dest.push_back(clean(v));
        }
    }
    for (const char *f : kDriverlessFormats) {
        if (std::find(st.formats.begin(), st.formats.end(), f) != st.formats.end()) st.everywhere = true;
    }
    if (!st.everywhere) {
        std::vector<std::string> wanted(std::begin(kDriverlessFormats), std::end(kDriverlessFormats));
        st.problem = "it answers IPP but is no IPP Everywhere printer: it takes none of the driverless formats " +
                     joined(wanted) + " (it takes: " + (st.formats.empty() ? "nothing" : joined(st.formats)) + ")";
    }
    // Supplies from the marker attributes, else from printer-supply.
    const size_t markers = count(a, "marker-names");
    for (size_t i = 0; i < markers && i < 64; ++i) {
        Supply s;
        s.name = clean(at(a, "marker-names", i));
        s.type = clean(at(a, "marker-types", i));
        s.color = clean(at(a, "marker-colors", i));
        s.level = to_int(at(a, "marker-levels", i), -1);
        s.low = to_int(at(a, "marker-low-levels", i), -1);
        s.high = to_int(at(a, "marker-high-levels", i), -1);
        if (s.level > 100) s.level = -1;
        st.supplies.push_back(s);
    }
    for (size_t i = 0; markers == 0 && i < count(a, "printer-supply") && i < 64; ++i) {
        const std::string item = at(a, "printer-supply", i);
        Supply s;
        s.name = clean(at(a, "printer-supply-description", i));
        s.type = clean(supply_field(item, "type"));
        s.color = clean(supply_field(item, "colorantname"));
        const int level = to_int(supply_field(item, "level"), -1);
        const int max = to_int(supply_field(item, "maxcapacity"), -1);
        if (level >= 0 && max > 0 && level <= max) s.level = level * 100 / max;
        st.supplies.push_back(s);
    }
}

PrinterStatus query_status(const std::string &host) {
    PrinterStatus st;
    st.address = host;
    st.uri = printer_uri(host);
    Attrs attrs;
    st.ipp = ask(host, attrs, st.problem, st.failed);
    if (st.ipp) fill_status(attrs, st);
    return st;
}

void print_status_json(const PrinterStatus &st) {
    qpcli::Json j;
    j.open().field("address", st.address).field("uri", st.uri).field("ipp", st.ipp);
    if (!st.ipp) {
        j.field("problem", st.problem).close().print();
        return;
    }
    const auto list = [&j](std::string_view key, const std::vector<std::string> &items) {
        j.array(key);
        for (const std::string &item : items) j.str(item);
        j.end_array();
    };
    // A level the printer does not report is null.
    const auto level = [&j](std::string_view key, int value) {
        if (value < 0) {
            j.null(key);
        } else {
            j.field(key, static_cast<long long>(value));
        }
    };
    j.field("make_and_model", st.make_and_model).field("state", st.state);
    list("reasons", st.reasons);
    j.field("message", st.message).field("accepting", st.accepting).field("driverless", st.everywhere);
    list("formats", st.formats);
    j.array("supplies");
    for (const Supply &s : st.supplies) {
        j.open().field("name", s.name).field("type", s.type).field("color", s.color);
        level("level", s.level);
        level("low", s.low);
        level("high", s.high);
        j.close();
    }
    j.end_array().close().print();
}

void print_status(const PrinterStatus &st, bool json, FILE *out) {
    if (json) {
        print_status_json(st);
        return;
    }
    if (!st.ipp) {
        fprintf(out, "%s does not speak IPP: %s\n", st.address.c_str(), st.problem.c_str());
        return;
    }
    const std::string reasons = st.reasons.empty() ? "" : " (" + joined(st.reasons) + ")";
    fprintf(out, "printer:   %s\nuri:       %s\nstate:     %s%s\n", st.make_and_model.c_str(), st.uri.c_str(),
            st.state.c_str(), reasons.c_str());
    if (!st.message.empty()) fprintf(out, "message:   %s\n", st.message.c_str());
    fprintf(out, "accepting: %s\nformats:   %s\ndriverless: %s\n", st.accepting ? "yes" : "no",
            joined(st.formats).c_str(), st.everywhere ? "yes" : "no");
    for (const Supply &s : st.supplies) {
        const std::string level = s.level < 0 ? "unknown" : std::to_string(s.level) + " %";
        const bool low = s.level >= 0 && s.low >= 0 && s.level <= s.low && s.type.find("waste") == std::string::npos;
        fprintf(out, "supply:    %s (%s%s%s): %s%s\n", s.name.c_str(), s.type.c_str(), s.color.empty() ? "" : ", ",
                s.color.c_str(), level.c_str(), low ? " (low)" : "");
    }
}

DriverlessPpd::~DriverlessPpd() {
    if (!path.empty()) unlink(path.c_str());
    if (!dir.empty()) rmdir(dir.c_str());
}

void make_driverless_ppd(const std::string &host, DriverlessPpd &out) {
    PrinterStatus st;
    Attrs attrs;
    bool failed = false;
    if (!ask(host, attrs, out.problem, failed)) {
        out.no = !failed;
        if (failed) return;
        out.problem = host + " does not speak IPP: " + out.problem;
        return;
    }
    fill_status(attrs, st);
    if (!st.everywhere) {
        out.no = true;
        out.problem = host + ": " + st.problem;
        return;
    }
    out.make_and_model = st.make_and_model;
    out.device_id = clean(at(attrs, "printer-device-id"));

    const ToolRun r = run_tool({kDriverless, "cat", printer_uri(host)}, "", kToolTimeoutMs);
    if (r.status != 0 || r.out.compare(0, 11, "*PPD-Adobe:") != 0) {
        const std::string why = r.timed_out ? "timed out" : clean(last_line(r.err));
        out.problem = std::string(kDriverless) + " made no PPD for " + printer_uri(host);
        if (!why.empty()) out.problem += ": " + why;
        return;
    }
    // A private directory: nobody else can put a file or link in it.
    char tmpl[] = "/tmp/qoraprinter-ppd.XXXXXX";
    if (!mkdtemp(tmpl)) {
        out.problem = std::string("cannot make a directory for the PPD: ") + strerror(errno);
        return;
    }
    out.dir = tmpl;
    const std::string path = out.dir + "/driverless.ppd";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        out.problem = "cannot write the PPD: " + std::string(strerror(errno));
        return;
    }
    out.path = path;
    size_t done = 0;
    while (done < r.out.size()) {
        const ssize_t n = write(fd, r.out.data() + done, r.out.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0 || done != r.out.size()) {
        out.problem = "cannot write the PPD " + path;
        return;
    }
    out.ok = true;
}

namespace {

int net_status(const qpcli::Args &args) {
    if (args.size() != 1) return qpcli::kBadArgs;
    if (!valid_host(args[0]))
        return qpcli::say(qpcli::kUsage, "net status: '%s' is no address or host name.", args[0].c_str());
    const PrinterStatus st = query_status(args[0]);
    if (st.failed) return qpcli::say(qpcli::kFailed, "net status: %s", st.problem.c_str());
    print_status(st, qpcli::json(), stdout);
    return st.ipp ? qpcli::kOk : qpcli::kNo;
}

const qpcli::Register kIpp({
    qpcli::cmd("net status", "IP", "State, reasons and supplies of a printer that speaks IPP (3: it does not).",
               net_status, qpcli::kJson),
});

}  // namespace
}  // namespace qpipp
