// A private CUPS scheduler for tests that run inside the sandbox.
//
// start() first runs qp-cupsd-setup (cupsd_setup.sh): the configuration for
// the real /usr/sbin/cupsd at its default place in the sandbox's /etc/cups,
// so a plain "/usr/sbin/cupsd" (as the library starts it) uses it too.
//
// Use from any test binary: add cupsd_fixture.cpp to its SOURCES and
//
//     qpcups::Cupsd cupsd;          // one per binary, e.g. in a test environment
//     ASSERT_TRUE(cupsd.start());
//     qpcups::Cupsd::uri_of("q");   // lpstat -v q: its device URI
//
// Never use it outside the sandbox: it writes /etc/cups and starts a daemon.
#pragma once

#include <string>
#include <vector>

namespace qpcups {

inline constexpr const char *kPrintersConf = "/etc/cups/printers.conf";
inline constexpr const char *kPpdDir = "/etc/cups/ppd";
// A real PPD file that ships with the print service's filters.
inline constexpr const char *kPpdGeneric = "/usr/share/ppd/cupsfilters/Generic-PDF_Printer-PDF.ppd";

class Cupsd {
public:
    ~Cupsd() { stop(); }

    // Starts /usr/sbin/cupsd unless one runs; true once it answers.
    bool start();
    // Stops whichever cupsd runs (ours, or one the library started) and waits
    // until it is gone.
    void stop();

    static bool has_queue(const std::string &name) { return !uri_of(name).empty(); }
    static std::string uri_of(const std::string &name);  // "" when absent
    // "lpstat -p NAME" says "disabled".
    static bool is_stopped(const std::string &name);
    // "lpq -P NAME" output.
    static std::string lpq(const std::string &name);
    // Job IDs that "lpstat -o NAME" lists for the queue.
    static std::vector<std::string> jobs(const std::string &name);

    // Creates a queue directly with the real lpadmin (not the library).
    static bool add_queue(const std::string &name, const std::string &uri);
    // Deletes every queue, and every job with it.
    static void remove_all_queues();
};

}  // namespace qpcups
