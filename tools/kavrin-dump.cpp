// Prints every OSC message that arrives on a port, one line each, over UDP, TCP or SLIP on TCP,
// optionally with TLS: a tool for seeing what a console or a program really sends.

#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "osc/codec/OSCPacket.hpp"
#ifdef KAVRIN_HAVE_DISCOVERY
#include "osc/discovery/OSCServiceAdvertiser.hpp"
#endif
#include "osc/dispatch/RunLoop.hpp"
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "support/HexDump.hpp"
#include "support/Logger.hpp"
#include "tools/common/Advertising.hpp"
#include "tools/common/CommandLine.hpp"
#include "tools/common/MessageLine.hpp"

using namespace kavrin;

namespace {

constexpr const char* usage =
    "usage: kavrin-dump [--udp | --tcp | --slip] [--tls --cert FILE --key FILE] [--utf8]\n"
    "                   [--raw] [--verbose] [--advertise NAME] PORT\n"
    "\n"
    "Prints every OSC message received on PORT (IPv4 and IPv6) as one line on standard\n"
    "output: its address, its type tags and its values, as oscdump prints them; the messages\n"
    "of a bundle each on a line of their own.\n"
    "  --udp      datagrams (the default)\n"
    "  --tcp      a TCP stream of packets, each after its size (OSC 1.0)\n"
    "  --slip     a TCP stream of SLIP-framed packets (OSC 1.1)\n"
    "  --tls      secures each TCP connection, with the certificate chain and the private key\n"
    "             in the PEM files given by --cert and --key\n"
    "  --utf8     takes strings in UTF-8 and prints them as they are, controls escaped (else\n"
    "             a packet with a string that is not ASCII is dropped with a warning)\n"
    "  --raw      follows each packet's lines with a hex dump of its bytes\n"
    "  --verbose  logs connections and every packet to standard error (else only what is\n"
    "             dropped; KAVRIN_LOG chooses otherwise, e.g. KAVRIN_LOG=*=debug)\n"
    "  --advertise NAME  publishes the port with zeroconf as NAME, _osc._udp or _osc._tcp\n"
    "             (framing=slip for --slip), through the Avahi daemon\n"
    "Runs until interrupted (SIGINT or SIGTERM).\n";

int fail(const std::string& message) {
    std::cerr << "kavrin-dump: " << message << "\n\n" << usage;
    return 2;
}

// Prints what one packet holds, from whoever sent it.
class Printer {
  public:
    Printer(bool raw, OSCTextPolicy policy)
        : raw_(raw),
          policy_(policy),
          codec_(Logger::shared().category("codec")),
          transport_(Logger::shared().category("transport")) {}

    void print(std::span<const std::uint8_t> bytes, const std::string& sender) {
        transport_.debug("{} bytes from {}", bytes.size(), sender);
        try {
            if (auto packet = OSCPacket::decode(bytes, policy_)) {
                printLines(*packet);
            } else {
                codec_.warning("dropped {} bytes from {}: not an OSC packet", bytes.size(), sender);
            }
        } catch (const OSCDecodeError& error) {
            codec_.warning("dropped {} bytes from {}: {}", bytes.size(), sender, error.what());
        }
        if (raw_) std::fputs(hexDump(bytes).c_str(), stdout);
        std::fflush(stdout);
    }

  private:
    void printLines(const OSCPacket& packet) {
        if (const auto* bundle = std::get_if<OSCBundle>(&packet)) {
            for (const auto& element : bundle->elements) printLines(element);
            return;
        }
        const std::string line = tools::messageLine(std::get<OSCMessage>(packet)) + '\n';
        std::fputs(line.c_str(), stdout);
    }

    const bool raw_;
    const OSCTextPolicy policy_;
    const LogCategory codec_;
    const LogCategory transport_;
};

class DatagramPrinter final : public UdpSocketDelegate {
  public:
    explicit DatagramPrinter(Printer& printer) : printer_(printer) {}
    void udpSocketDidReceiveData(UdpSocket&, std::vector<std::uint8_t> data,
                                 const SocketAddress& sender, const std::any&) override {
        printer_.print(data, sender.description());
    }

  private:
    Printer& printer_;
};

}  // namespace

int main(int argc, char** argv) {
    tools::TransportOptions transport;
    bool raw = false, verbose = false;
    auto policy = OSCTextPolicy::ascii;
    std::string certificate, key;
    std::optional<std::uint16_t> port;
    std::string advertisedName;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (option == "--help" || option == "-h") {
            std::cout << usage;
            return 0;
        } else if (transport.take(option)) {
        } else if (option == "--utf8") {
            policy = OSCTextPolicy::utf8;
        } else if (option == "--raw") {
            raw = true;
        } else if (option == "--verbose") {
            verbose = true;
        } else if (option == "--advertise") {
            if (i + 1 >= argc || std::string_view(argv[i + 1]).empty())
                return fail("missing NAME after --advertise");
            advertisedName = argv[++i];
        } else if (option == "--cert" || option == "--key") {
            if (i + 1 >= argc) return fail("missing file after " + std::string(option));
            (option == "--cert" ? certificate : key) = argv[++i];
        } else if (!option.starts_with("-") && !port) {
            port = tools::parsePort(option);
            if (!port) return fail("not a port: " + std::string(option));
        } else {
            return fail("unknown argument " + std::string(option));
        }
    }
    if (!port) return fail("no PORT");
    if (!transport.problem().empty()) return fail(std::string(transport.problem()));
    if (transport.tls && (certificate.empty() || key.empty())) {
        return fail("--tls needs --cert and --key");
    }
    if (!transport.tls && !(certificate.empty() && key.empty())) {
        return fail("--cert and --key go with --tls");
    }
#ifndef KAVRIN_HAVE_DISCOVERY
    if (!advertisedName.empty())
        return fail(tools::noZeroconf);
#endif
    if (verbose) Logger::shared().setDefaultLevel(LogLevel::debug);
    const auto log = Logger::shared().category("transport");

    auto mainQueue = std::make_shared<RunLoop>();
    mainQueue->stopOnSignals({SIGINT, SIGTERM});
    Printer printer(raw, policy);

    if (transport.mode == tools::TransportOptions::Mode::udp) {
        auto delegate = std::make_shared<DatagramPrinter>(printer);
        auto socket = UdpSocket::create(delegate, mainQueue);
        socket->setMaxReceiveIPv4BufferSize(65535);
        socket->setMaxReceiveIPv6BufferSize(65535);
        UdpSocketError error;
        if (!socket->bindToPort(*port, &error) || !socket->beginReceiving(&error)) {
            std::cerr << "kavrin-dump: cannot listen on UDP port " << *port << ": "
                      << error.description() << '\n';
            return 1;
        }
        log.info("listening on UDP port {}", socket->localPortIPv4());
#ifdef KAVRIN_HAVE_DISCOVERY
        std::optional<OSCServiceAdvertiser> advertiser;
        if (!advertisedName.empty()) {
            advertiser.emplace(
                OSCService(advertisedName, std::string(oscUdpServiceType), socket->localPortIPv4()),
                mainQueue, tools::logAdvertising);
        }
#endif
        return mainQueue->run();
    }

    OSCStreamSettings settings;
    settings.framing = transport.framing();
    settings.textPolicy = policy;
    if (transport.tls) {
        settings.tls = TlsSettings{};
        settings.tls->certificateChainFile = certificate;
        settings.tls->privateKeyFile = key;
    }
    auto server =
        OSCStreamServer::create(*port, mainQueue, OSCStreamServer::TimeTagMode::ignore, settings);
    server->setPacketHandler(
        [&](std::span<const std::uint8_t> packet, const OSCStreamServer::Connection& from) {
            printer.print(packet, from->peerAddress().description());
        });
    server->setOpenHandler([&](const OSCStreamServer::Connection& connection) {
        log.info("{} connected{}", connection->peerAddress().description(),
                 connection->isSecure() ? " (TLS)" : "");
    });
    server->setCloseHandler([&](const OSCStreamServer::Connection& connection,
                                const std::optional<TcpSocketError>& error) {
        if (error) {
            // A refused handshake or a broken stream is worth seeing without --verbose.
            log.warning("{} dropped: {}", connection->peerAddress().description(),
                        tools::errorText(*error));
        } else {
            log.info("{} disconnected", connection->peerAddress().description());
        }
    });
    try {
        server->start();
    } catch (const TcpSocketError& error) {
        std::cerr << "kavrin-dump: cannot listen on TCP port " << *port << ": "
                  << error.description() << '\n';
        return 1;
    }
    log.info("listening on TCP port {}{}", server->boundPort(), transport.tls ? " with TLS" : "");
#ifdef KAVRIN_HAVE_DISCOVERY
    std::optional<OSCServiceAdvertiser> advertiser;
    if (!advertisedName.empty())
        advertiser.emplace(advertisedName, *server, mainQueue, tools::logAdvertising);
#endif
    return mainQueue->run();
}
