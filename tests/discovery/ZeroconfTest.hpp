#pragma once

// The zeroconf tests' common ground: the private bus and Avahi daemon that ctest starts for
// them (tests/discovery/zeroconf), found through DBUS_SYSTEM_BUS_ADDRESS as Avahi's client
// library finds the system bus (once per process: the bus library keeps the first address it
// reads); a skip when they could not be had.

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>

namespace kavrin::zeroconfTest {

inline const std::string directory = KAVRIN_ZEROCONF;
inline const std::string busAddress = "unix:path=" + directory + "/bus";

/// A service name of this process's own: the daemon's cache may still hold, for a second, the
/// services of a test run just before with the same names and other ports.
inline std::string named(const std::string& name) { return name + " " + std::to_string(::getpid()); }

/// Points this process at the test run's bus and daemon; why the zeroconf tests must skip
/// instead, when they could not be had.
inline std::optional<std::string> useTestDaemon() {
    std::ifstream skip(directory + "/skip");
    if (skip) {
        std::stringstream reason;
        reason << skip.rdbuf();
        return "zeroconf tests skipped: " + reason.str();
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.c_str(), 1);
    return std::nullopt;
}

class Zeroconf : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const auto skip = useTestDaemon()) GTEST_SKIP() << *skip;
    }
    // The daemon stopped and started again, as when it is restarted; false when that failed.
    static bool stopDaemon() { return script("stop-daemon"); }
    static bool startDaemon() { return script("start-daemon"); }

  private:
    static bool script(const std::string& command) {
        return std::system((std::string(KAVRIN_ZEROCONF_SCRIPT) + " " + command + " " + directory).c_str()) == 0;
    }
};

}  // namespace kavrin::zeroconfTest
