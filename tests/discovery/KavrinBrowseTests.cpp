// kavrin-browse as a child process: the services kavrin-dump and an OSCQuery server of this
// test advertise, with the OSCQuery tree; and its exit status with nothing found and without
// a daemon.
#include <gtest/gtest.h>

#include "../transport/OpensslProcess.hpp"
#include "ZeroconfTest.hpp"
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/query/OSCQueryServer.hpp"

namespace kavrin::zeroconfTest {
namespace {

using namespace std::chrono_literals;
using tcpTest::ChildProcess;

struct Outcome {
    std::optional<int> status;
    std::string output, errors;
};

// kavrin-browse's run; with `bus` it looks for the daemon there instead.
Outcome browse(const std::vector<std::string>& arguments, const std::string& bus = busAddress) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
    ChildProcess process(KAVRIN_BROWSE, arguments, ChildProcess::Errors::separate);
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", busAddress.c_str(), 1);
    const auto status = process.waitForExit(20s);
    return {status, process.output(), process.errors()};
}

TEST_F(Zeroconf, KavrinBrowseListsServicesAndOSCQueryTrees) {
    ChildProcess dump(KAVRIN_DUMP, {"--slip", "--advertise", named("Dump on loopback"), "0"},
                      ChildProcess::Errors::separate);
    const auto space = std::make_shared<OSCAddressSpace>();
    OSCQueryServer query(space, SerialQueue::create("space"));
    OSCQueryAttributes gain;
    gain.type = "f";
    query.registerMethod("/mixer/gain", [](const std::vector<OSCValue>&) {}, gain);
    query.registerMethod("/ping", [](const std::vector<OSCValue>&) {});
    query.start();
    OSCServiceAdvertiser advertiser(OSCService(named("Query desk"), std::string(oscQueryServiceType), query.boundPort()));

    // Avahi probes each name for most of a second before it announces it.
    const auto found = browse({"--once", "--timeout", "3", "--tree"});
    EXPECT_EQ(found.status, 0) << found.errors;
    const auto has = [&](const std::string& line) { return found.output.find(line) != std::string::npos; };
    EXPECT_TRUE(has("\t" + named("Dump on loopback") + "\t_osc._tcp\t")) << found.output;
    EXPECT_TRUE(has("+\t" + named("Query desk") + "\t_oscjson._tcp\t")) << found.output;
    EXPECT_TRUE(has(".local\t" + std::to_string(query.boundPort()) + "\t127.0.0.1\n")) << found.output;
    EXPECT_TRUE(has("\n/mixer/gain\tf\n/ping\t\n")) << found.output;

    const auto nothing = browse({"--once", "--timeout", "0.5", "--type", "_nothing._udp"});
    EXPECT_EQ(nothing.status, 1) << nothing.errors;
    EXPECT_EQ(nothing.output, "");

    const auto noDaemon = browse({"--once", "--timeout", "3"}, "unix:path=" + directory + "/no-bus");
    EXPECT_EQ(noDaemon.status, 2);
    EXPECT_EQ(noDaemon.errors, "kavrin-browse: the Avahi daemon is not running\n");
}

}  // namespace
}  // namespace kavrin::zeroconfTest
