// Our encoding against an independent OSC implementation, used strictly as a black box: the
// liblo command-line tools print what they receive (oscdump) and write what they would send
// (oscsend -). Skipped when the tools are not installed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "osc/codec/OSCPacket.hpp"

extern char** environ;

namespace kavrin {
namespace {

using Clock = std::chrono::steady_clock;

bool toolInstalled(const char* name) {
    return access((std::string("/usr/bin/") + name).c_str(), X_OK) == 0;
}

std::uint16_t freeUdpPort() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) close(fd);
        return 0;
    }
    close(fd);
    return ntohs(address.sin_port);
}

// oscdump on a port, its standard output read line by line with a deadline.
class Dump {
  public:
    explicit Dump(std::uint16_t port) {
        int fds[2];
        if (pipe(fds) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        const std::string portText = std::to_string(port);
        char* argv[] = {const_cast<char*>("oscdump"), const_cast<char*>("-L"),
                        const_cast<char*>(portText.c_str()), nullptr};
        if (posix_spawn(&pid_, "/usr/bin/oscdump", &actions, nullptr, argv, environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        fd_ = fds[0];
    }
    ~Dump() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0) close(fd_);
    }
    bool running() const { return pid_ > 0; }

    // The next line, or nothing once `deadline` passes.
    std::optional<std::string> line(Clock::time_point deadline) {
        for (;;) {
            if (const auto end = buffer_.find('\n'); end != std::string::npos) {
                auto text = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return text;
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd poller{fd_, POLLIN, 0};
            if (poll(&poller, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            const auto count = read(fd_, chunk, sizeof chunk);
            if (count <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(count));
        }
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
    std::string buffer_;
};

void sendTo(std::uint16_t port, const std::vector<std::uint8_t>& bytes) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const auto sent = sendto(fd, bytes.data(), bytes.size(), 0,
                             reinterpret_cast<sockaddr*>(&address), sizeof address);
    close(fd);
    ASSERT_EQ(sent, static_cast<ssize_t>(bytes.size()));
}

// The line without its leading receive time.
std::string withoutTime(const std::string& line) {
    return line.substr(line.find(' ') + 1);
}

const OSCMessage everyLibloKind("/kavrin/all", {1, std::int64_t{-5000000000}, 3.5f, 4.25,
                                                std::string("str"), OSCStringAltValue{"sym"},
                                                char32_t{'x'}, OSCMIDIValue{1, 0x90, 0x3c, 0x7f},
                                                true, false, OSCNullValue{}, OSCImpulseValue{}});

TEST(Interop, AnIndependentReceiverReadsOurMessagesAndBundles) {
    if (!toolInstalled("oscdump")) GTEST_SKIP() << "oscdump (liblo-tools) is not installed";
    const auto port = freeUdpPort();
    ASSERT_NE(port, 0);
    Dump dump(port);
    ASSERT_TRUE(dump.running());

    // Probe until the receiver is listening.
    const auto probe = OSCMessage("/kavrin/probe").rawData();
    const auto listenDeadline = Clock::now() + std::chrono::seconds(10);
    bool listening = false;
    while (!listening && Clock::now() < listenDeadline) {
        sendTo(port, probe);
        const auto line = dump.line(Clock::now() + std::chrono::milliseconds(100));
        listening = line && line->find("/kavrin/probe") != std::string::npos;
    }
    ASSERT_TRUE(listening) << "oscdump did not print a probe within 10 s";

    sendTo(port, everyLibloKind.rawData());
    sendTo(port, OSCMessage("/kavrin/blob", {OSCBlob{1, 2, 3}}).rawData());
    // A time tag in the past, so that the receiver delivers at once and prints the tag.
    const OSCTimeTag past{0, (std::uint64_t{3900000000} << 32) | 0x80000000};
    sendTo(port,
           OSCBundle(past, {OSCMessage("/kavrin/in/bundle", {7}),
                            OSCBundle(past, {OSCMessage("/kavrin/nested", {std::string("b")})})})
               .rawData());

    std::vector<std::string> lines;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (lines.size() < 4) {
        const auto line = dump.line(deadline);
        if (!line) break;
        if (line->find("/kavrin/probe") == std::string::npos) lines.push_back(*line);
    }
    ASSERT_EQ(lines.size(), 4u) << "oscdump printed too little within 10 s";
    EXPECT_EQ(withoutTime(lines[0]),
              "/kavrin/all ihfdsScmTFNI 1 -5000000000 3.500000 4.250000 \"str\" 'sym 'x' "
              "MIDI [0x01 0x90 0x3c 0x7f] #T #F Nil Infinitum");
    EXPECT_EQ(withoutTime(lines[1]), "/kavrin/blob b [3b 0x1 0x2 0x3]");
    EXPECT_EQ(lines[2], "e8754700.80000000 /kavrin/in/bundle i 7");
    EXPECT_EQ(lines[3], "e8754700.80000000 /kavrin/nested s \"b\"");
}

TEST(Interop, WeDecodeWhatAnIndependentSenderWrites) {
    if (!toolInstalled("oscsend")) GTEST_SKIP() << "oscsend (liblo-tools) is not installed";
    // "-" as the destination writes the datagram to standard output.
    FILE* output = popen(
        "timeout 10 /usr/bin/oscsend - /kavrin/all ihfdsScmTFNI 1 -5000000000 3.5 4.25 str sym x "
        "01903c7f",
        "r");
    ASSERT_NE(output, nullptr);
    std::vector<std::uint8_t> bytes;
    std::uint8_t chunk[4096];
    for (std::size_t count; (count = fread(chunk, 1, sizeof chunk, output)) > 0;) {
        bytes.insert(bytes.end(), chunk, chunk + count);
    }
    ASSERT_EQ(pclose(output), 0);
    const auto decoded = OSCPacket::decode(bytes);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::get<OSCMessage>(decoded->base()), everyLibloKind);
    EXPECT_EQ(decoded->rawData(), bytes);  // and we would write the same bytes
}

}  // namespace
}  // namespace kavrin
