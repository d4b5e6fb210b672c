// Helpers shared by the network printer tests: the simulated printers of
// netlab.sh, stand-ins for the network tools, and reads interrupted by a signal.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace qpnet {

// netlab.sh up with these components; false (and its stderr printed) on
// failure.  The lab's daemons and the tests use the sandbox's system bus.
bool lab_up(const std::vector<std::string> &components);

// The lab with these components, up before the first test.
struct LabUp : ::testing::Environment {
    explicit LabUp(std::vector<std::string> c) : components(std::move(c)) {}
    void SetUp() override { ASSERT_TRUE(lab_up(components)); }
    const std::vector<std::string> components;
};

// While alive, a script stands in for the tool at path: it counts its runs,
// waits delay_s seconds and prints the output (PATH.out.N in place of it for
// the N-th run when a test wrote that file).  Without output nothing stands
// in, and starting the tool fails.
class StandIn {
public:
    explicit StandIn(std::string path, std::optional<std::string> output = {}, const std::string &delay_s = "0");
    ~StandIn();
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;
    int runs() const;
    const std::string path;
};

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
