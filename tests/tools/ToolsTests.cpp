// kavrin-dump and kavrin-send against independent peers as black boxes: liblo's tools, openssl's
// s_client and s_server, and the npm package "osc" (slip_peer.js); liblo's and npm's skip
// when missing.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../UdpPeer.hpp"
#include "../transport/TestCertificates.hpp"
#include "NpmPeers.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using tcpTest::ChildProcess;
using tcpTest::OpensslProcess;
using test::npmPeers;
using test::onPath;
using Arguments = std::vector<std::string>;

const std::string kavrinDump = KAVRIN_DUMP;
const std::string kavrinSend = KAVRIN_SEND;

std::string joined(const Arguments& arguments) {
    std::string text;
    for (const auto& argument : arguments) text += (text.empty() ? "" : " ") + argument;
    return text;
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A port of the kernel's choice that nothing uses now, in either family.
std::uint16_t freePort(int type) {
    const int fd = socket(AF_INET6, type | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof address;
    const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (fd >= 0) close(fd);
    return bound ? ntohs(address.sin6_port) : 0;
}

// Whether something accepts TCP connections on the port within 10 s.
bool accepting(std::uint16_t port) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        auto address = loopback(port);
        const bool connected =
            connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        socklen_t length = sizeof address;
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        close(fd);
        // A connect to a free port can meet itself, when the kernel picks that port to leave from.
        if (connected && ntohs(address.sin_port) != port) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        poll(nullptr, 0, 20);
    }
}

struct Outcome {
    std::optional<int> status;
    std::string errors;
};

Outcome run(const std::string& program, const Arguments& arguments) {
    ChildProcess process(program, arguments, ChildProcess::Errors::separate);
    const auto status = process.waitForExit(20s);
    return {status, process.errors() + (status ? "" : "(still running after 20 s)")};
}

std::string framed(const std::string& packet) {
    const std::uint32_t size = htonl(static_cast<std::uint32_t>(packet.size()));
    return std::string(reinterpret_cast<const char*>(&size), sizeof size) + packet;
}

enum class Via { udp, tcp };
enum class Tool { liblo, kavrin };

// oscdump or kavrin-dump listening on a free port, ready.
class Receiver {
  public:
    Receiver(Tool tool, Via via) : isKavrin_(tool == Tool::kavrin), via_(via) {
        port_ = freePort(via == Via::tcp ? SOCK_STREAM : SOCK_DGRAM);
        const auto port = std::to_string(port_);
        process_ = std::make_unique<ChildProcess>(
            isKavrin_ ? kavrinDump : "oscdump",
            isKavrin_ ? Arguments{via == Via::tcp ? "--tcp" : "--udp", port}
                      : Arguments{"-L", (via == Via::tcp ? "osc.tcp://:" : "osc.udp://:") + port},
            ChildProcess::Errors::separate);
        ready_ = via == Via::tcp ? accepting(port_) : hearsProbes();
    }
    bool ready() const { return ready_; }
    ChildProcess& process() { return *process_; }

    // The next message line other than a probe, without oscdump's leading time stamp.
    std::string line() {
        for (;;) {
            const auto line = process_->nextLine(10s);
            if (!line) return "(no line within 10 s; standard error: " + process_->errors() + ")";
            if (line->find("/probe") != std::string::npos) continue;
            return isKavrin_ ? *line : line->substr(line->find(' ') + 1);
        }
    }

    // Sends the message to this receiver with oscsend or kavrin-send.
    void receive(Tool sender, const Arguments& message) {
        const bool byKavrin = sender == Tool::kavrin;
        const auto port = std::to_string(port_);
        Arguments arguments =
            byKavrin
                ? Arguments{via_ == Via::tcp ? "--tcp" : "--udp", "localhost", port}
                : Arguments{(via_ == Via::tcp ? "osc.tcp://localhost:" : "osc.udp://localhost:") +
                            port};
        arguments.insert(arguments.end(), message.begin(), message.end());
        const auto outcome = run(byKavrin ? kavrinSend : "oscsend", arguments);
        EXPECT_EQ(outcome.status, 0) << joined(arguments) << ": " << outcome.errors;
    }

  private:
    // Datagrams to a port not yet bound are lost: probe until one is printed.
    bool hearsProbes() {
        test::UdpPeer prober;
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        bool heard = false;
        while (!heard && std::chrono::steady_clock::now() < deadline) {
            prober.sendTo(port_, test::oscMessageBytes("/probe"));
            const auto line = process_->nextLine(100ms);
            heard = line && line->find("/probe") != std::string::npos;
        }
        return heard;
    }

    bool isKavrin_;
    Via via_;
    std::uint16_t port_ = 0;
    std::unique_ptr<ChildProcess> process_;
    bool ready_ = false;
};

// Each message goes from oscsend and from kavrin-send to oscdump and to kavrin-dump; the four
// lines must all be oscdump's line for oscsend's message.
void expectAllAgree(Via via, const std::vector<Arguments>& messages) {
    Receiver oscdump(Tool::liblo, via);
    Receiver dump(Tool::kavrin, via);
    ASSERT_TRUE(oscdump.ready()) << "oscdump: " << oscdump.process().errors();
    ASSERT_TRUE(dump.ready()) << "kavrin-dump: " << dump.process().errors();
    for (const auto& message : messages) {
        oscdump.receive(Tool::liblo, message);
        const auto expected = oscdump.line();
        dump.receive(Tool::liblo, message);
        EXPECT_EQ(dump.line(), expected) << "kavrin-dump reading oscsend " << joined(message);
        oscdump.receive(Tool::kavrin, message);
        EXPECT_EQ(oscdump.line(), expected) << "oscdump reading kavrin-send " << joined(message);
        dump.receive(Tool::kavrin, message);
        EXPECT_EQ(dump.line(), expected) << "kavrin-dump reading kavrin-send " << joined(message);
    }
    // Beyond what oscsend can send: blobs (an empty one, a zero byte) and time tags.
    const Arguments beyond = {"/b", "bbtt", "", "00c0ff", "eeb09384.80000000", "0.1"};
    const std::string expected =
        "/b bbtt [0b ] [3b 00 0xc0 0xff] eeb09384.80000000 00000000.00000001";
    oscdump.receive(Tool::kavrin, beyond);
    EXPECT_EQ(oscdump.line(), expected) << "oscdump reading kavrin-send";
    dump.receive(Tool::kavrin, beyond);
    EXPECT_EQ(dump.line(), expected) << "kavrin-dump reading kavrin-send";
    // 128 + SIGTERM is the run loop's own exit on the signal; a leak or a crash would differ.
    EXPECT_EQ(dump.process().stop(10s), 143) << dump.process().errors();
    EXPECT_EQ(dump.process().errors(), "");
}

TEST(ToolsAgainstLiblo, EveryTypeBothWaysOverTcpAndUdpAsOscdumpAndOscsend) {
    if (!onPath("oscdump") || !onPath("oscsend")) GTEST_SKIP() << "liblo-tools is not installed";
    expectAllAgree(Via::tcp, {{"/all", "ihfdsScmTFNI", "1", "-5000000000", "3.5", "4.25", "str",
                               "sym", "x", "01903c7f"},
                              {"/limits", "iihh", "-2147483648", "2147483647",
                               "-9223372036854775808", "9223372036854775807"},
                              {"/floats", "ffffffdddd", "0.1", "-1e-7", "1e30", "-0.0", "nan",
                               "-inf", "1e300", "-2.5e-10", "123456789.125", "inf"},
                              {"/text/with spaces", "sssSSc", "", "with space",
                               "a \"quoted\" 'word'", "", "sym bol", " "},
                              {"/none"}});
    expectAllAgree(Via::udp, {{"/udp", "ifsm", "-7", "2.5", "text", "01903c7f"}});
}

TEST(ToolsOverTls, AgainstOpensslClientAndServer) {
    tcpTest::TestCertificates certificates;
    const auto path = [&](const std::string& name) { return certificates.path(name); };

    // s_client, checking kavrin-dump's chain and name strictly, sends one framed message.
    {
        const auto port = std::to_string(freePort(SOCK_STREAM));
        ChildProcess dump(
            kavrinDump,
            {"--tcp", "--tls", "--cert", path("server.pem"), "--key", path("server.key"), port},
            ChildProcess::Errors::separate);
        ASSERT_TRUE(accepting(static_cast<std::uint16_t>(std::stoi(port)))) << dump.errors();
        OpensslProcess client({"s_client", "-connect", "localhost:" + port, "-CAfile",
                               path("ca.pem"), "-verify_return_error", "-quiet"});
        ASSERT_TRUE(client.send(framed("/kavrin/tls\0,is\0\0\0\0\x07hi\0\0"s)));
        EXPECT_EQ(dump.nextLine(10s), "/kavrin/tls is 7 \"hi\"")
            << "kavrin-dump: " << dump.errors() << "\ns_client: " << client.output();
    }

    // kavrin-send to s_server: refused with an unrelated CA, then sent with the right one.
    OpensslProcess server(
        {"s_server", "-accept", "0", "-cert", path("server.pem"), "-key", path("server.key")});
    const auto port = std::to_string(server.acceptingPort(10s));
    ASSERT_NE(port, "0") << "s_server did not start: " << server.output();
    const auto refused = run(
        kavrinSend, {"--tcp", "--tls", "--ca", path("other.pem"), "localhost", port, "/kavrin/no"});
    EXPECT_EQ(refused.status, 1) << refused.errors;
    EXPECT_NE(refused.errors.find("unable to get local issuer certificate"), std::string::npos)
        << refused.errors;
    const auto sent = run(kavrinSend, {"--tcp", "--tls", "--ca", path("ca.pem"), "localhost", port,
                                       "/kavrin/tls", "i", "1"});
    EXPECT_EQ(sent.status, 0) << sent.errors;
    // s_server prints what it reads as it comes: the size, then the packet.
    EXPECT_TRUE(server.waitForOutput(framed("/kavrin/tls\0,i\0\0\0\0\0\x01"s), 10s))
        << server.output();
    EXPECT_EQ(server.output().find("/kavrin/no"), std::string::npos) << server.output();

    // A server that hangs up during the handshake: nothing went out.
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto address = loopback(0);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    ChildProcess hungUp(kavrinSend,
                        {"--tcp", "--tls", "--ca", path("ca.pem"), "127.0.0.1",
                         std::to_string(ntohs(address.sin_port)), "/kavrin/lost"},
                        ChildProcess::Errors::separate);
    pollfd incoming{listener, POLLIN, 0};
    EXPECT_EQ(poll(&incoming, 1, 10000), 1);
    close(accept(listener, nullptr, nullptr));
    close(listener);
    EXPECT_EQ(hungUp.waitForExit(10s), 1)
        << "kavrin-send to a server that hung up during the handshake: " << hungUp.errors();
}

TEST(ToolsOverSlip, BothWaysWithAJavaScriptPeer) {
    if (!onPath("node") || !onPath("npm")) {
        GTEST_SKIP() << "node or npm is not installed (scripts/setup installs them)";
    }
    const auto modules = npmPeers();
    ASSERT_FALSE(modules.empty());
    const std::string script = KAVRIN_SOURCE_DIR "/tests/tools/slip_peer.js";

    // Two packets on one connection; the first has SLIP's END and ESC bytes in its values, the
    // second a string in UTF-8, which --utf8 prints as it is.
    const auto port = freePort(SOCK_STREAM);
    ChildProcess dump(kavrinDump, {"--slip", "--utf8", std::to_string(port)},
                      ChildProcess::Errors::separate);
    ASSERT_TRUE(accepting(port)) << dump.errors();
    const auto sent = run("node", {script, modules, "send", std::to_string(port)});
    EXPECT_EQ(sent.status, 0) << sent.errors;
    EXPECT_EQ(dump.nextLine(10s),
              "/peer/all ihfdsScmbtTFNI[if] -1073741824 9223372032559808731 0.500000 -2.250000 "
              "\"text\" 'sym 'x' MIDI [0x01 0x90 0x3c 0x7f] [4b 0xc0 0xdb 0xdc 0xdd] "
              "eeb09384.80000000 #T #F Nil Infinitum [1 2.000000]")
        << dump.errors();
    EXPECT_EQ(dump.nextLine(10s), "/peer/second s \"w\xC3\xB6rld\\t\"") << dump.errors();

    ChildProcess peer("node", {script, modules, "receive"}, ChildProcess::Errors::separate);
    const auto announced = peer.nextLine(20s);
    ASSERT_TRUE(announced && announced->starts_with("port ")) << peer.errors();
    const auto received = run(
        kavrinSend, {"--slip", "localhost", announced->substr(5), "/kavrin/slip",
                     "ihfdsScmbtTFNI[if]", "-1073741824", "9223372032559808731", "0.5", "-2.25",
                     "text", "sym", "x", "01903c7f", "c0dbdcdd", "eeb09384.80000000", "1", "2"});
    EXPECT_EQ(received.status, 0) << received.errors;
    EXPECT_EQ(peer.nextLine(10s),
              R"({"address":"/kavrin/slip","args":[{"type":"i","value":-1073741824},)"
              R"({"type":"h","value":"9223372032559808731"},{"type":"f","value":0.5},)"
              R"({"type":"d","value":-2.25},{"type":"s","value":"text"},)"
              R"({"type":"S","value":"sym"},{"type":"c","value":"x"},)"
              R"({"type":"m","value":[1,144,60,127]},{"type":"b","value":[192,219,220,221]},)"
              R"({"type":"t","value":{"raw":[4004549508,2147483648]}},)"
              R"({"type":"T","value":true},{"type":"F","value":false},)"
              R"({"type":"N","value":null},{"type":"I","value":1},)"
              R"([{"type":"i","value":1},{"type":"f","value":2}]]})")
        << peer.errors();
}

TEST(KavrinSend, RefusesBadInputAndSaysWhy) {
    const auto port = std::to_string(freePort(SOCK_STREAM));  // nothing listens there
    struct Case {
        Arguments arguments;
        int status;
        std::string message;
    };
    for (const auto& [arguments, status, message] : std::vector<Case>{
             {{"localhost", port, "/a", "iq", "1", "2"}, 2, "unknown type 'q'"},
             {{"localhost", port, "/a", "i", "1.5"},
              2,
              "value '1.5' for type i is not a whole number"},
             {{"localhost", port, "/a", "m", "0102"},
              2,
              "value '0102' for type m is not 8 hexadecimal digits"},
             {{"localhost", port, "/a", "ifs", "1", "2"}, 2, "no value for type s"},
             {{"localhost", port, "/a", "f", "3.5e38"},
              2,
              "value '3.5e38' for type f is out of range: beyond the largest 32-bit float"},
             {{"localhost", port, "/a", "d", "1e309"},
              2,
              "value '1e309' for type d is out of range: beyond the largest 64-bit float"},
             {{"localhost", port, "a"}, 2, "ADDRESS must start with '/'"},
             {{"localhost", "65536", "/a"}, 2, "not a port: 65536"},
             {{"--tcp", "localhost", "0", "/a"}, 2, "not a port: 0"},
             {{"localhost", "0", "/a"}, 2, "not a port: 0"},
             {{"--tcp", "localhost", port, "/a", "i", "1"}, 1, "not sent: Connection refused"},
             {{"--slip", "127.0.0.1", port, "/a"}, 1, "not sent: Connection refused"}}) {
        const auto outcome = run(kavrinSend, arguments);
        EXPECT_EQ(outcome.status, status) << joined(arguments) << ": " << outcome.errors;
        EXPECT_EQ(outcome.errors.rfind("kavrin-send: " + message, 0), 0u)
            << joined(arguments) << ": " << outcome.errors;
    }
}

// The datagram kavrin-send sends with these arguments, five hours west of UTC.
std::string sentWestOfUTC(const Arguments& options, const Arguments& message) {
    test::UdpPeer receiver;
    Arguments arguments = {"TZ=EST5", kavrinSend};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"127.0.0.1", std::to_string(receiver.port())});
    arguments.insert(arguments.end(), message.begin(), message.end());
    const auto outcome = run("env", arguments);
    EXPECT_EQ(outcome.status, 0) << joined(arguments) << ": " << outcome.errors;
    const auto datagram = receiver.receive(10s).value_or(std::vector<std::uint8_t>());
    return std::string(datagram.begin(), datagram.end());
}

// f and d: what rounds to a finite value of the type is that value, and infinity and NaN are
// sent when written as such (what is beyond the range is refused, above). t now counts from
// NTP's epoch, or with --local-epoch from the library's default, 1900 in the local zone.
TEST(KavrinSend, WritesFloatsAsTheyRoundAndTimeTagsFromNTPsEpoch) {
    EXPECT_EQ(sentWestOfUTC({}, {"/f", "ffdd", "3.4028235e38", "-inf", "1e-400", "nan"}),
              "/f\0\0,ffdd\0\0\0"
              "\x7F\x7F\xFF\xFF"         // the largest float
              "\xFF\x80\0\0"             // -inf
              "\0\0\0\0\0\0\0\0"         // rounds to 0
              "\x7F\xF8\0\0\0\0\0\0"s);  // a quiet NaN
    const auto secondsOf = [](const std::string& datagram) -> std::int64_t {
        if (datagram.size() != 16) return 0;
        const auto byte = [&](std::size_t i) { return std::int64_t{std::uint8_t(datagram[i])}; };
        return byte(8) << 24 | byte(9) << 16 | byte(10) << 8 | byte(11);
    };
    const std::int64_t ntpNow = std::time(nullptr) + 2208988800;
    const auto ntp = secondsOf(sentWestOfUTC({}, {"/t", "t", "now"}));
    EXPECT_LT(std::abs(ntp - ntpNow), 600) << ntp << " for " << ntpNow;
    // Midnight in that zone came five hours after midnight UTC.
    const auto local = secondsOf(sentWestOfUTC({"--local-epoch"}, {"/t", "t", "now"}));
    EXPECT_LT(std::abs(local - (ntpNow - 5 * 3600)), 600) << local << " for " << ntpNow;
}

}  // namespace
}  // namespace kavrin
