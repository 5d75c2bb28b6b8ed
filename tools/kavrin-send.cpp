// Sends one OSC message over UDP, TCP or SLIP on TCP, optionally with TLS, and says plainly
// when it could not.

#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/dispatch/RunLoop.hpp"
#include "osc/stream/OSCStreamClient.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "tools/common/CommandLine.hpp"
#include "tools/common/TypedValues.hpp"

using namespace kavrin;

namespace {

constexpr const char* usage =
    "usage: kavrin-send [--udp | --tcp | --slip] [--tls [--ca FILE | --insecure]]\n"
    "                   [--local-epoch] HOST PORT ADDRESS [TYPES [VALUES...]]\n"
    "\n"
    "Sends one OSC message to HOST (a name or a numeric address) and PORT, and exits 0 once\n"
    "it has gone out, or with 1 and the reason when it could not (a name that does not\n"
    "resolve, a refused connection, a failed TLS handshake); 2 for bad arguments.\n"
    "  --udp       one datagram (the default)\n"
    "  --tcp       a TCP connection, the packet after its size (OSC 1.0)\n"
    "  --slip      a TCP connection, the packet SLIP-framed (OSC 1.1)\n"
    "  --tls       secures the connection; the server's certificate is checked against the\n"
    "              system's trusted CAs, or those in the PEM file given by --ca, and must\n"
    "              carry HOST; --insecure checks nothing (for tests only)\n"
    "  --local-epoch\n"
    "              time tags (t now) count from 1900 in this machine's time zone, the\n"
    "              library's default, not from 1900 UTC as NTP and other programs do\n"
    "TYPES has one character per value, as oscsend reads them:\n"
    "  i h f d  32- and 64-bit integers, 32- and 64-bit floating point (rounded to the\n"
    "           type; inf, -inf and nan as written; beyond the type's range refused)\n"
    "  s S c    a string, a symbol, a character\n"
    "  m        4 MIDI bytes as 8 hexadecimal digits (port, status, data1, data2)\n"
    "  T F N I  true, false, nil, infinitum (no value)\n"
    "and also b (a blob as hexadecimal bytes, 0102ff), t (a time tag as oscdump prints it,\n"
    "eeb09384.80000000, or now) and [ ] around an array.\n"
    "Example: kavrin-send --tcp localhost 9000 /mixer/ch/1/fader f 0.75\n";

int fail(const std::string& message) {
    std::cerr << "kavrin-send: " << message << "\n\n" << usage;
    return 2;
}

int failed(const std::string& what, const SocketError& error) {
    std::cerr << "kavrin-send: " << what << ": " << tools::errorText(error) << '\n';
    return 1;
}

int sendDatagram(const std::vector<std::uint8_t>& packet, const std::string& host,
                 std::uint16_t port) {
    class Outcome final : public UdpSocketDelegate {
      public:
        explicit Outcome(RunLoop& loop) : loop_(loop) {}
        void udpSocketDidSendDataWithTag(UdpSocket&, std::int64_t) override { loop_.stop(0); }
        void udpSocketDidNotSendDataWithTag(UdpSocket&, std::int64_t,
                                            const UdpSocketError& error) override {
            loop_.stop(failed("not sent", error));
        }
        // A send the system refuses outright (not a full buffer) closes the socket.
        void udpSocketDidClose(UdpSocket&, const std::optional<UdpSocketError>& error) override {
            if (error) loop_.stop(failed("not sent", *error));
        }

      private:
        RunLoop& loop_;
    };
    auto loop = std::make_shared<RunLoop>();
    auto outcome = std::make_shared<Outcome>(*loop);
    auto socket = UdpSocket::create(outcome, loop);
    socket->sendData(packet, host, port, 5.0, 0);
    return loop->run();
}

int sendOnStream(const OSCMessage& message, const std::string& host, std::uint16_t port,
                 OSCStreamSettings settings) {
    auto loop = std::make_shared<RunLoop>();
    loop->stopOnSignals({SIGINT, SIGTERM});
    auto client = OSCStreamClient::create(host, port, loop, settings);
    client->setReconnect({.enabled = false});
    client->setStateHandler(
        [&](OSCStreamClient::State state, const std::optional<TcpSocketError>& error) {
            if (state != OSCStreamClient::State::closed) return;
            loop->stop(error ? failed("not sent", *error) : 0);
        });
    client->connect();
    TcpSocketError error;
    // A connect refused at once may have closed the client already: its state handler, run by
    // the loop, then says why, where the send would only say that the client is closed.
    if (!client->send(message, &error) && client->state() != OSCStreamClient::State::closed) {
        return failed("not sent", error);
    }
    client->close();  // once the message is written
    return loop->run();
}

}  // namespace

int main(int argc, char** argv) {
    tools::TransportOptions transport;
    bool insecure = false, localEpoch = false;
    std::string caFile;
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        if (!positional.empty() || option == "-" || !option.starts_with("-")) {
            positional.emplace_back(option);  // from HOST on, everything is an argument
        } else if (option == "--help" || option == "-h") {
            std::cout << usage;
            return 0;
        } else if (transport.take(option)) {
        } else if (option == "--insecure") {
            insecure = true;
        } else if (option == "--local-epoch") {
            localEpoch = true;
        } else if (option == "--ca") {
            if (i + 1 >= argc) return fail("missing file after --ca");
            caFile = argv[++i];
        } else {
            return fail("unknown option " + std::string(option));
        }
    }
    if (positional.size() < 3) return fail("HOST, PORT and ADDRESS are needed");
    if (!transport.problem().empty()) return fail(std::string(transport.problem()));
    if (!transport.tls && (insecure || !caFile.empty()))
        return fail("--ca and --insecure go with --tls");
    if (insecure && !caFile.empty()) return fail("--ca and --insecure exclude each other");
    const std::string& host = positional[0];
    const auto port = tools::parsePort(positional[1]);
    if (!port || *port == 0) return fail("not a port: " + positional[1]);  // 0 names no peer

    if (!positional[2].starts_with('/')) return fail("ADDRESS must start with '/'");

    // The tags go to other programs, which count from NTP's epoch.
    if (!localEpoch) OSCTimeTag::setEpoch(OSCTimeTag::Epoch::utc);
    OSCMessage message;
    std::vector<std::uint8_t> packet;
    try {
        const std::string types = positional.size() > 3 ? positional[3] : "";
        const std::vector<std::string> values(
            positional.begin() + std::min<std::size_t>(4, positional.size()), positional.end());
        message = OSCMessage(OSCAddressPattern(positional[2]), tools::typedValues(types, values));
        packet = message.rawData();
    } catch (const tools::TypedValuesError& error) {
        return fail(error.what());
    } catch (const OSCEncodeError& error) {
        return fail(std::string("cannot encode the message: ") + error.what());
    }
    if (transport.mode == tools::TransportOptions::Mode::udp)
        return sendDatagram(packet, host, *port);

    OSCStreamSettings settings;
    settings.framing = transport.framing();
    if (transport.tls) {
        settings.tls = TlsSettings{};
        settings.tls->caFile = caFile;
        settings.tls->verifyPeer = !insecure;
    }
    return sendOnStream(message, host, *port, settings);
}
