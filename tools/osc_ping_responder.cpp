// Answers OSC pings: every message whose address is the ping address gets a reply message at the
// reply address, carrying the ping's own arguments. Used to stand in for a console in end-to-end
// tests and demos, over UDP, TCP or SLIP.

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
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "tools/common/CommandLine.hpp"

using namespace kavrin;
using kavrin::tools::parsePort;

namespace {

constexpr const char* usage =
    "usage: osc_ping_responder [--listen PORT] [--tcp | --slip] [--reply-to-sender]\n"
    "                          [--reply-port PORT] [--reply-host HOST]\n"
    "                          [--ping ADDRESS] [--reply ADDRESS]\n"
    "\n"
    "Listens for OSC on PORT (default 8000, IPv4 and IPv6): over UDP, or with --tcp (each\n"
    "packet after its size) or --slip (SLIP frames) on TCP connections. Each message whose\n"
    "address is exactly the ping ADDRESS (default /eos/ping) is answered with a message at the\n"
    "reply ADDRESS (default /eos/out/ping) carrying the ping's own arguments. Over TCP the reply\n"
    "goes back on the ping's connection. Over UDP it goes to the ping's sender (or to HOST, when\n"
    "given) on the reply PORT (default 8001); with --reply-to-sender, to the port the ping came\n"
    "from, sent from the listening port. Messages inside bundles count too; other messages are\n"
    "ignored. Prints one line per answered ping on standard output. Runs until interrupted\n"
    "(SIGINT or SIGTERM).\n";

int fail(const std::string& message) {
    std::cerr << "osc_ping_responder: " << message << "\n\n" << usage;
    return 2;
}

void answered(const std::string& ping, const std::string& reply, const std::string& host,
              std::uint16_t port) {
    std::printf("%s -> %s %s:%u\n", ping.c_str(), reply.c_str(), host.c_str(),
                static_cast<unsigned>(port));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    std::uint16_t listenPort = 8000;
    std::uint16_t replyPort = 8001;
    std::optional<std::string> replyHost;
    std::string pingAddress = "/eos/ping";
    std::string replyAddress = "/eos/out/ping";
    tools::TransportOptions transport;
    bool replyToSender = false;

    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help" || option == "-h") {
            std::cout << usage;
            return 0;
        }
        if (option != "--tls" && transport.take(option)) continue;
        if (option == "--reply-to-sender") {
            replyToSender = true;
            continue;
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
    const auto replyTo = [&](const OSCMessage& ping) {
        return OSCMessage(OSCAddressPattern(replyAddress), ping.values);
    };

    // Replies are sent from the main thread, which runs the handlers' queue until a signal.
    auto mainQueue = std::make_shared<RunLoop>();
    mainQueue->stopOnSignals({SIGINT, SIGTERM});
    std::string listening;
    std::shared_ptr<OSCStreamServer> streamServer;
    std::shared_ptr<OSCServer> server;
    OSCClient client;
    try {
        if (transport.mode != tools::TransportOptions::Mode::udp) {
            OSCStreamSettings settings;
            settings.framing = transport.framing();
            streamServer = OSCStreamServer::create(
                listenPort, mainQueue, OSCServer::TimeTagMode::ignore, settings,
                [&](const OSCMessage& message, const OSCTimeTag&,
                    const std::shared_ptr<OSCStreamConnection>& from) {
                    if (message.addressPattern.rawAddress() != pingAddress) return;
                    if (from->send(replyTo(message))) {
                        answered(pingAddress, replyAddress, from->peerHost(), from->peerPort());
                    }
                });
            streamServer->start();
            listening = transport.mode == tools::TransportOptions::Mode::tcp ? "TCP" : "SLIP";
        } else {
            server = OSCServer::create(listenPort, nullptr, mainQueue, OSCServer::TimeTagMode::ignore);
            server->setSourceHandler(
                [&](const OSCMessage& message, const OSCTimeTag&, const SocketAddress& sender) {
                    if (message.addressPattern.rawAddress() != pingAddress) return;
                    if (replyToSender) {
                        server->send(replyTo(message), sender);
                        answered(pingAddress, replyAddress, sender.host(), sender.port());
                        return;
                    }
                    const std::string host = replyHost ? *replyHost : sender.host();
                    if (!replyHost && host.empty()) return;
                    client.send(replyTo(message), host, replyPort);
                    answered(pingAddress, replyAddress, host, replyPort);
                });
            server->start();
            listening = "UDP";
        }
    } catch (const SocketError& error) {
        std::cerr << "osc_ping_responder: cannot listen on port " << listenPort << ": "
                  << tools::errorText(error) << '\n';
        return 1;
    }
    std::cerr << "osc_ping_responder: listening on " << listening << " port " << listenPort
              << " for " << pingAddress << ", replying " << replyAddress << " to "
              << (streamServer ? "the connection"
                  : replyToSender ? "the sender's port"
                                  : replyHost.value_or("the sender") + " on port " +
                                        std::to_string(replyPort))
              << std::endl;
    mainQueue->run();
    return 0;
}
