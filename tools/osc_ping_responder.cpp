// Answers OSC pings: every message whose address is the ping address gets a reply message at the
// reply address, carrying the ping's own arguments. Used to stand in for a console in end-to-end
// tests and demos, over UDP, TCP or SLIP; it can advertise itself and describe its methods over
// OSCQuery, as consoles that can be found do.

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "osc/codec/OSCMessage.hpp"
#ifdef KAVRIN_HAVE_DISCOVERY
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#endif
#include "osc/dispatch/RunLoop.hpp"
#ifdef KAVRIN_HAVE_QUERY
#include "osc/query/OSCQueryServer.hpp"
#endif
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/UdpSocketError.hpp"
#include "tools/common/Advertising.hpp"
#include "tools/common/CommandLine.hpp"

using namespace kavrin;
using kavrin::tools::parsePort;

namespace {

constexpr const char* usage =
    "usage: osc_ping_responder [--listen PORT] [--tcp | --slip] [--reply-to-sender]\n"
    "                          [--reply-port PORT] [--reply-host HOST]\n"
    "                          [--ping ADDRESS] [--reply ADDRESS]\n"
    "                          [--advertise NAME] [--oscquery PORT [--http-bind ADDRESS]]\n"
    "\n"
    "Listens for OSC on PORT (default 8000, IPv4 and IPv6): over UDP, or with --tcp (each\n"
    "packet after its size) or --slip (SLIP frames) on TCP connections. Each message whose\n"
    "address is exactly the ping ADDRESS (default /eos/ping) is answered with a message at the\n"
    "reply ADDRESS (default /eos/out/ping) carrying the ping's own arguments. Over TCP the reply\n"
    "goes back on the ping's connection. Over UDP it goes to the ping's sender (or to HOST, when\n"
    "given) on the reply PORT (default 8001); with --reply-to-sender, to the port the ping came\n"
    "from, sent from the listening port. Messages inside bundles count too; other messages are\n"
    "ignored. Prints one line per answered ping on standard output. Runs until interrupted\n"
    "(SIGINT or SIGTERM).\n"
    "  --advertise NAME   publishes the listening port with zeroconf as NAME: _osc._udp, or\n"
    "                     _osc._tcp with framing=slip or framing=length; and the OSCQuery\n"
    "                     port, when there is one, as _oscjson._tcp\n"
    "  --oscquery PORT    describes the methods over OSCQuery on HTTP PORT (0: any free one):\n"
    "                     the ping, and /responder/pings, the number of pings answered\n"
    "  --http-bind ADDRESS  where OSCQuery listens (default 127.0.0.1; 0.0.0.0 for everyone)\n";

int fail(const std::string& message) {
    std::cerr << "osc_ping_responder: " << message << "\n\n" << usage;
    return 2;
}

// What the responder tells others of itself, each part only when asked for: its listening port,
// advertised with zeroconf; and over OSCQuery its ping method, which takes anything, and the
// number of pings answered, streamed to listeners after each one. Use from the main thread.
class Publication {
  public:
    static constexpr std::string_view pingsAddress = "/responder/pings";

    std::string name;                        // advertised as; empty: not advertised
    std::optional<std::uint16_t> queryPort;  // none: no OSCQuery
    std::string httpAddress = "127.0.0.1";

    // What this build cannot do of what was asked; empty when nothing.
    std::string missing() const {
#ifndef KAVRIN_HAVE_DISCOVERY
        if (!name.empty()) return tools::noZeroconf;
#endif
#ifndef KAVRIN_HAVE_QUERY
        if (queryPort) return "--oscquery: built without OSCQuery (libboost1.81-dev, nlohmann-json3-dev)";
#endif
        return "";
    }

    // Publishes the started `server` (an OSCServer or an OSCStreamServer) as asked. Throws
    // std::system_error when OSCQuery cannot listen.
    template <class Server>
    void start([[maybe_unused]] const Server& server, [[maybe_unused]] const std::string& pingAddress,
               [[maybe_unused]] const std::shared_ptr<RunLoop>& loop) {
#ifdef KAVRIN_HAVE_QUERY
        if (queryPort) {
            OSCQueryServer::Settings settings;
            settings.name = name.empty() ? "osc_ping_responder" : name;
            settings.httpAddress = httpAddress;
            settings.httpPort = *queryPort;
            query_ = std::make_unique<OSCQueryServer>(std::make_shared<OSCAddressSpace>(), loop, settings);
            query_->describeOSCServer(server);
            // Described only: the server's handler answers the pings.
            const auto answeredElsewhere = [](const OSCValueList&) {};
            query_->registerMethod(pingAddress, answeredElsewhere);
            OSCQueryAttributes pings;
            pings.type = "i";
            pings.access = OSCQueryAccess::readOnly;
            pings.description = "pings answered so far";
            query_->registerMethod(std::string(pingsAddress), answeredElsewhere, pings);
            query_->setValue(pingsAddress, {OSCValue(std::int32_t{0})});
            query_->start();
            std::cerr << "osc_ping_responder: OSCQuery on http://" << httpAddress << ':'
                      << query_->boundPort() << '/' << std::endl;
        }
#endif
#ifdef KAVRIN_HAVE_DISCOVERY
        if (!name.empty()) {
            advertisers_.push_back(
                std::make_unique<OSCServiceAdvertiser>(name, server, loop, tools::logAdvertising));
#ifdef KAVRIN_HAVE_QUERY
            if (query_) {
                advertisers_.push_back(std::make_unique<OSCServiceAdvertiser>(
                    OSCService(name, std::string(oscQueryServiceType), query_->boundPort()), loop,
                    tools::logAdvertising));
            }
#endif
        }
#endif
    }

    void pingAnswered() {
        ++pings_;
#ifdef KAVRIN_HAVE_QUERY
        if (query_) query_->setValue(pingsAddress, {OSCValue(pings_)});
#endif
    }

  private:
    std::int32_t pings_ = 0;
#ifdef KAVRIN_HAVE_QUERY
    std::unique_ptr<OSCQueryServer> query_;
#endif
#ifdef KAVRIN_HAVE_DISCOVERY
    std::vector<std::unique_ptr<OSCServiceAdvertiser>> advertisers_;
#endif
};

}  // namespace

int main(int argc, char** argv) {
    std::uint16_t listenPort = 8000;
    std::uint16_t replyPort = 8001;
    std::optional<std::string> replyHost;
    std::string pingAddress = "/eos/ping";
    std::string replyAddress = "/eos/out/ping";
    tools::TransportOptions transport;
    bool replyToSender = false;
    Publication publication;

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
        if (option == "--listen" || option == "--reply-port" || option == "--oscquery") {
            const auto port = parsePort(value);
            if (!port) return fail("not a port: " + std::string(value));
            if (option == "--oscquery") {
                publication.queryPort = port;
            } else {
                (option == "--listen" ? listenPort : replyPort) = *port;
            }
        } else if (option == "--advertise") {
            if (value.empty()) return fail("missing NAME after --advertise");
            publication.name = value;
        } else if (option == "--http-bind") {
            publication.httpAddress = value;
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
    if (!publication.missing().empty()) return fail(publication.missing());
    const auto replyTo = [&](const OSCMessage& ping) {
        return OSCMessage(OSCAddressPattern(replyAddress), ping.values);
    };
    const auto answered = [&](const std::string& host, std::uint16_t port) {
        std::printf("%s -> %s %s:%u\n", pingAddress.c_str(), replyAddress.c_str(), host.c_str(),
                    static_cast<unsigned>(port));
        std::fflush(stdout);
        publication.pingAnswered();
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
                        answered(from->peerHost(), from->peerPort());
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
                        answered(sender.host(), sender.port());
                        return;
                    }
                    const std::string host = replyHost ? *replyHost : sender.host();
                    if (!replyHost && host.empty()) return;
                    client.send(replyTo(message), host, replyPort);
                    answered(host, replyPort);
                });
            server->start();
            listening = "UDP";
        }
    } catch (const SocketError& error) {
        std::cerr << "osc_ping_responder: cannot listen on port " << listenPort << ": "
                  << tools::errorText(error) << '\n';
        return 1;
    }
    try {
        if (streamServer) {
            publication.start(*streamServer, pingAddress, mainQueue);
        } else {
            publication.start(*server, pingAddress, mainQueue);
        }
    } catch (const std::system_error& error) {
        std::cerr << "osc_ping_responder: cannot serve OSCQuery on " << publication.httpAddress
                  << " port " << *publication.queryPort << ": " << error.what() << '\n';
        return 1;
    }
    std::cerr << "osc_ping_responder: listening on " << listening << " port "
              << (server ? server->boundPort() : streamServer->boundPort())
              << " for " << pingAddress << ", replying " << replyAddress << " to "
              << (streamServer ? "the connection"
                  : replyToSender ? "the sender's port"
                                  : replyHost.value_or("the sender") + " on port " +
                                        std::to_string(replyPort))
              << std::endl;
    mainQueue->run();
    return 0;
}
