// Helpers shared by the network printer tests: the simulated printers of
// netlab.sh, recorded tool outputs, and reads interrupted by a signal.
#pragma once

#include <string>
#include <vector>

namespace qpnet {

// netlab.sh up with these components; false (and its stderr printed) on failure.
bool lab_up(const std::vector<std::string> &components);

// Makes the stand-in for a tool print this output (key as in replay.sh:
// "snmpwalk-AGENT", "ping-ADDRESS", "bjnp", "avahi-browse"), after a delay.
void replay(const std::string &key, const std::string &output, const std::string &delay_s = "");
// Back to the real tool (also drops outputs for single runs, KEY.out.N).
void unreplay(const std::string &key);
// How often the stand-in printed the output since replay().
int replay_runs(const std::string &key);

// While alive, SIGALRM arrives every period_ms with a handler installed
// without SA_RESTART, so a blocked read of a pipe fails with EINTR.
class Interrupter {
public:
    explicit Interrupter(int period_ms);
    ~Interrupter();
    Interrupter(const Interrupter &) = delete;
    Interrupter &operator=(const Interrupter &) = delete;
};

}  // namespace qpnet
