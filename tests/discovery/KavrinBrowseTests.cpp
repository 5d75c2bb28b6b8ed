// kavrin-browse as a child process: the services kavrin-dump and the ping responder advertise,
// with the responder's OSCQuery tree; its exit status with nothing found and without a daemon.
// The responder's OSCQuery server read by OSCQueryClient.

#include <regex>

#include "../transport/OpensslProcess.hpp"
#include "ZeroconfTest.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/query/OSCQueryClient.hpp"

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

// The port a line of the responder's standard error names, as "…prefix1234".
std::uint16_t portAfter(const ChildProcess& process, const std::string& prefix) {
    std::smatch match;
    const bool found = std::regex_search(process.output(), match, std::regex(prefix + "([0-9]+)"));
    EXPECT_TRUE(found) << prefix << " in " << process.output();
    return found ? static_cast<std::uint16_t>(std::stoi(match[1])) : 0;
}

TEST_F(Zeroconf, KavrinBrowseListsServicesAndOSCQueryTrees) {
    ChildProcess dump(KAVRIN_DUMP, {"--slip", "--advertise", named("Dump on loopback"), "0"},
                      ChildProcess::Errors::separate);
    ChildProcess responder(KAVRIN_RESPONDER, {"--listen", "0", "--reply-to-sender", "--advertise",
                                              named("Responder"), "--oscquery", "0"},
                           ChildProcess::Errors::merged);
    // Standard error is unbuffered: the port is whole once what follows it has come.
    ASSERT_TRUE(responder.waitForOutput(", replying", 10s)) << responder.output();
    const std::uint16_t queryPort = portAfter(responder, "OSCQuery on http://127.0.0.1:");

    // Avahi probes each name for most of a second before it announces it.
    const auto found = browse({"--once", "--timeout", "3", "--tree"});
    EXPECT_EQ(found.status, 0) << found.errors;
    const auto has = [&](const std::string& line) { return found.output.find(line) != std::string::npos; };
    EXPECT_TRUE(has("\t" + named("Dump on loopback") + "\t_osc._tcp\t")) << found.output;
    EXPECT_TRUE(has("+\t" + named("Responder") + "\t_osc._udp\t")) << found.output;
    EXPECT_TRUE(has("+\t" + named("Responder") + "\t_oscjson._tcp\t")) << found.output;
    EXPECT_TRUE(has(".local\t" + std::to_string(queryPort) + "\t127.0.0.1\n")) << found.output;
    EXPECT_TRUE(has("\n/eos/ping\t\n/responder/pings\ti\n")) << found.output;

    const auto nothing = browse({"--once", "--timeout", "0.5", "--type", "_nothing._udp"});
    EXPECT_EQ(nothing.status, 1) << nothing.errors;
    EXPECT_EQ(nothing.output, "");

    const auto noDaemon = browse({"--once", "--timeout", "3"}, "unix:path=" + directory + "/no-bus");
    EXPECT_EQ(noDaemon.status, 2);
    EXPECT_EQ(noDaemon.errors, "kavrin-browse: the Avahi daemon is not running\n");

    // The responder's OSCQuery: its OSC port, its read-only count of pings, streamed as it grows.
    auto queue = std::make_shared<ManualQueue>();
    auto client = OSCQueryClient::create("127.0.0.1", queryPort, queue);
    std::optional<OSCQueryHostInfo> info;
    std::optional<OSCQueryNode> tree;
    std::vector<OSCMessage> counts;
    client->fetchHostInfo([&](std::optional<OSCQueryHostInfo> read, const std::string&) { info = read; });
    client->fetchTree([&](std::optional<OSCQueryNode> read, const std::string&) { tree = read; });
    client->setValueHandler([&](const OSCMessage& message) { counts.push_back(message); });
    client->listen("/responder/pings");
    ASSERT_TRUE(queue->drainUntil([&] { return info && tree && counts.size() == 1; }, 10s));
    EXPECT_EQ(info->name, named("Responder"));
    EXPECT_EQ(info->oscPort, portAfter(responder, "listening on UDP port "));
    EXPECT_EQ(info->oscTransport, OSCQueryTransport::udp);
    const OSCQueryNode* ping = tree->find("/eos/ping");
    const OSCQueryNode* pings = tree->find("/responder/pings");
    ASSERT_TRUE(ping && pings);
    EXPECT_EQ(ping->attributes.type, std::nullopt) << "takes anything";
    EXPECT_EQ(pings->attributes.access, OSCQueryAccess::readOnly);
    client->send(OSCMessage("/eos/ping", {OSCValue(std::int32_t{7})}));  // to HOST_INFO's port
    ASSERT_TRUE(queue->drainUntil([&] { return counts.size() == 2; }, 10s)) << responder.output();
    EXPECT_EQ(counts[0], OSCMessage("/responder/pings", {OSCValue(std::int32_t{0})}));
    EXPECT_EQ(counts[1], OSCMessage("/responder/pings", {OSCValue(std::int32_t{1})}));
}

}  // namespace
}  // namespace kavrin::zeroconfTest
