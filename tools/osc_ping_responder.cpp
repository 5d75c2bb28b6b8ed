// Answers OSC pings: every message whose address is the ping address gets a reply message, with
// no values, at the reply address. Used to stand in for a console in end-to-end tests.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/RunLoop.hpp"
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "tools/common/CommandLine.hpp"

using namespace kavrin;
using kavrin::tools::parsePort;

namespace {

constexpr const char* usage =
    "usage: osc_ping_responder [--listen PORT] [--reply-port PORT] [--reply-host HOST]\n"
    "                          [--ping ADDRESS] [--reply ADDRESS]\n"
    "\n"
    "Listens for OSC over UDP on PORT (default 8000, IPv4 and IPv6). Each message whose\n"
    "address is exactly the ping ADDRESS (default /eos/ping) is answered with a message at\n"
    "the reply ADDRESS (default /eos/out/ping), with no values, sent to the ping's sender\n"
    "(or to HOST, when given) on the reply PORT (default 8001). Messages inside bundles\n"
    "count too; other messages are ignored. Prints one line per answered ping on standard\n"
    "output. Runs until interrupted (SIGINT or SIGTERM).\n";

int fail(const std::string& message) {
    std::cerr << "osc_ping_responder: " << message << "\n\n" << usage;
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::uint16_t listenPort = 8000;
    std::uint16_t replyPort = 8001;
    std::optional<std::string> replyHost;
    std::string pingAddress = "/eos/ping";
    std::string replyAddress = "/eos/out/ping";

    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help" || option == "-h") {
            std::cout << usage;
            return 0;
        }
        if (i + 1 >= argc) return fail("missing value after " + std::string(option));
        const std::string_view value = argv[++i];
        if (option == "--listen" || option == "--reply-port") {
            const auto port = parsePort(value);
            if (!port) return fail("not a port: " + std::string(value));
            (option == "--listen" ? listenPort : replyPort) = *port;
        } else if (option == "--reply-host") {
            replyHost = value;
        } else if (option == "--ping") {
            pingAddress = value;
        } else if (option == "--reply") {
            replyAddress = value;
        } else {
            return fail("unknown option " + std::string(option));
        }
    }

    // Replies are sent from the main thread, which runs the handler's queue until a signal.
    auto mainQueue = std::make_shared<RunLoop>();
    mainQueue->stopOnSignals({SIGINT, SIGTERM});
    OSCClient client;
    const OSCMessage reply(replyAddress);
    auto server = OSCServer::create(listenPort, nullptr, mainQueue, OSCServer::TimeTagMode::ignore);
    server->setSourceHandler(
        [&](const OSCMessage& message, const OSCTimeTag&, const SocketAddress& sender) {
            if (message.addressPattern.rawAddress() != pingAddress) return;
            const std::string host = replyHost ? *replyHost : sender.host();
            if (!replyHost && host.empty()) return;
            client.send(reply, host, replyPort);
            std::printf("%s -> %s %s:%u\n", pingAddress.c_str(), replyAddress.c_str(), host.c_str(),
                        static_cast<unsigned>(replyPort));
            std::fflush(stdout);
        });
    try {
        server->start();
    } catch (const UdpSocketError& error) {
        std::cerr << "osc_ping_responder: cannot listen on port " << listenPort << ": "
                  << (error.failureReason() ? *error.failureReason() + ": " : "")
                  << error.description() << '\n';
        return 1;
    }
    std::cerr << "osc_ping_responder: listening on port " << listenPort << " for " << pingAddress
              << ", replying " << replyAddress << " to " << replyHost.value_or("the sender")
              << " on port " << replyPort << std::endl;
    mainQueue->run();
    return 0;
}
