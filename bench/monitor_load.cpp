// The monitor under load: starts the built program headless with a private configuration, sends
// it `/load/msg ,i N` from loopback at a steady rate, reads its stdout as it comes, and reports
// per round what arrived, what the kernel dropped, the CPU time per message, the lag from each
// send to its "Received OSC message" line, and the memory the monitor grew by per 100,000 lines
// of its log view. Over udp each message is a datagram to the monitor's listening port; over tcp
// the program stands in for the console the monitor connects to (Transport=tcp) and sends each
// message on that connection after its size. Prints a markdown table of medians over the rounds
// with their range. A plain program rather than a Google Benchmark: the monitor is a separate
// process and the figures are rates, losses and latencies.
//
// usage: monitor_load --monitor PATH [--transport udp|tcp] [--rate N] [--seconds S] [--rounds R]
//        (defaults: udp, 20000 messages/s, 20 s, 5 rounds)

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "monitor_load: %s\n", what.c_str());
    std::exit(1);
}

struct Options {
    std::string monitor;
    bool tcp = false;
    double rate = 20'000;
    double seconds = 20;
    int rounds = 5;
};

struct Round {
    std::size_t sent = 0;
    std::size_t logged = 0;      // distinct N seen in a "Received OSC message" line
    std::size_t duplicates = 0;  // an N seen twice
    std::uint64_t kernelDrops = 0;
    double linesPerMessage = 0;  // stdout lines other than the start and the pings
    double cpuMicrosPerMessage = 0;
    double lagP50Millis = 0;
    double lagP99Millis = 0;
    double rssMiBPer100k = 0;
    double achievedRate = 0;
};

// A UDP socket (`type` SOCK_DGRAM) or a listening TCP socket (SOCK_STREAM) on 127.0.0.1 with a
// port of the kernel's choice.
int loopbackSocket(std::uint16_t* port, int type = SOCK_DGRAM) {
    const int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
    if (fd < 0) die(std::string("socket: ") + std::strerror(errno));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
        (type == SOCK_STREAM && ::listen(fd, 1) != 0)) {
        die(std::string("bind or listen: ") + std::strerror(errno));
    }
    socklen_t length = sizeof local;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length);
    *port = ntohs(local.sin_port);
    return fd;
}

std::uint16_t freePort() {
    std::uint16_t port = 0;
    ::close(loopbackSocket(&port));
    return port;
}

// "/load/msg" padded to 12 bytes, the type tags ",i" padded to 4, then N as a big-endian int32;
// `framed`, after its size (20) as a big-endian int32.
std::vector<std::uint8_t> loadMessage(std::int32_t n, bool framed) {
    std::vector<std::uint8_t> bytes = {'/', 'l', 'o', 'a', 'd', '/', 'm', 's', 'g', 0, 0, 0,
                                       ',', 'i', 0,   0};
    if (framed) bytes.insert(bytes.begin(), {0, 0, 0, 20});
    const auto u = static_cast<std::uint32_t>(n);
    for (int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<std::uint8_t>(u >> shift));
    return bytes;
}

// The process's user plus system time, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // Fields after the command name, which is in parentheses and may hold spaces.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double rssMiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    }
    return 0;
}

// The kernel's count of datagrams dropped on the IPv4 UDP socket bound to `port` (the last
// column of /proc/net/udp); the monitor's server listens there and on IPv6.
std::uint64_t kernelDrops(std::uint16_t port) {
    char local[8];
    std::snprintf(local, sizeof local, ":%04X ", port);
    std::uint64_t drops = 0;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        std::ifstream file(table);
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream columns(line);
            std::string sl, address, last;
            columns >> sl >> address;
            if ((address + " ").find(local) == std::string::npos) continue;
            for (std::string column; columns >> column;) last = column;
            drops += std::stoull(last);
        }
    }
    return drops;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    const auto k = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(k), values.end());
    return values[k];
}

// Reads the monitor's stdout on its own thread and timestamps each "Received OSC message" line
// as it is read; the value N is on the description's next line.
class StdoutReader {
  public:
    StdoutReader(int fd, std::size_t capacity) : fd_(fd), received_(capacity, Clock::time_point{}) {
        thread_ = std::thread([this] { run(); });
    }
    ~StdoutReader() { thread_.join(); }  // ends when the monitor closes its stdout

    bool waitForStart(std::chrono::seconds bound) {
        std::unique_lock lock(mutex_);
        return started_.wait_for(lock, bound, [this] { return serverStarted_ || ended_; }) &&
               serverStarted_;
    }

    std::size_t logged() const { return logged_.load(); }
    std::size_t duplicates() const { return duplicates_.load(); }
    std::size_t eventLines() const { return eventLines_.load(); }
    const std::vector<Clock::time_point>& receivedAt() const { return received_; }

  private:
    void run() {
        std::vector<char> chunk(1 << 16);
        std::string pending;
        for (;;) {
            const ssize_t n = ::read(fd_, chunk.data(), chunk.size());
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            const Clock::time_point now = Clock::now();
            pending.append(chunk.data(), static_cast<std::size_t>(n));
            std::size_t start = 0;
            for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos;
                 start = end + 1) {
                line(std::string_view(pending).substr(start, end - start), now);
            }
            pending.erase(0, start);
        }
        std::lock_guard lock(mutex_);
        ended_ = true;
        started_.notify_all();
    }

    void line(std::string_view text, Clock::time_point now) {
        if (text.starts_with("OSC Server started on port")) {
            std::lock_guard lock(mutex_);
            serverStarted_ = true;
            started_.notify_all();
            return;
        }
        if (text.starts_with("Sent OSC ping")) return;
        ++eventLines_;
        if (text.starts_with("Received OSC message: ")) {
            awaitingValue_ = true;
            receivedLine_ = now;
            return;
        }
        if (!awaitingValue_) return;
        awaitingValue_ = false;
        const std::size_t digits = text.find_last_of("0123456789");
        if (digits == std::string_view::npos) return;
        std::size_t first = digits;
        while (first > 0 && std::isdigit(static_cast<unsigned char>(text[first - 1]))) --first;
        const std::size_t n = std::strtoull(std::string(text.substr(first, digits - first + 1)).c_str(),
                                            nullptr, 10);
        if (n >= received_.size()) return;
        if (received_[n] != Clock::time_point{}) {
            ++duplicates_;
            return;
        }
        received_[n] = receivedLine_;
        ++logged_;
    }

    int fd_;
    std::vector<Clock::time_point> received_;  // by N; written by the reader only
    std::mutex mutex_;
    std::condition_variable started_;
    bool serverStarted_ = false;
    bool ended_ = false;
    bool awaitingValue_ = false;
    Clock::time_point receivedLine_;
    std::atomic<std::size_t> logged_{0}, duplicates_{0}, eventLines_{0};
    std::thread thread_;
};

Round runRound(const Options& options) {
    const fs::path home = fs::temp_directory_path() / ("monitor_load." + std::to_string(::getpid()));
    fs::remove_all(home);
    fs::create_directories(home / "config/Kavrin");
    fs::create_directories(home / "data");
    // Takes the pings, unread: over tcp the console's end of the connection.
    std::uint16_t sinkPort = 0;
    const int sink = loopbackSocket(&sinkPort, options.tcp ? SOCK_STREAM : SOCK_DGRAM);
    const std::uint16_t inPort = freePort();
    // Not advertised: a benchmark's monitor is nothing for the network to find.
    std::ofstream(home / "config/Kavrin/Kavrin.conf")
        << "[General]\nip=127.0.0.1\nOutPort=" << sinkPort << "\nInPort=" << inPort
        << "\nTransport=" << (options.tcp ? "tcp" : "udp") << "\nAdvertise=false\n";

    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string_view entry = *e;
        if (!entry.starts_with("QT_QPA_PLATFORM=") && !entry.starts_with("XDG_CONFIG_HOME=") &&
            !entry.starts_with("XDG_DATA_HOME=")) {
            environment.emplace_back(entry);
        }
    }
    environment.push_back("QT_QPA_PLATFORM=offscreen");
    environment.push_back("XDG_CONFIG_HOME=" + (home / "config").string());
    environment.push_back("XDG_DATA_HOME=" + (home / "data").string());
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) die("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (home / "stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string program = options.monitor;
    char* argv[] = {program.data(), nullptr};
    pid_t pid = 0;
    if (const int error = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data());
        error != 0) {
        die("cannot start " + program + ": " + std::strerror(error));
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);

    const auto total = static_cast<std::size_t>(options.rate * options.seconds);
    Round round;
    {
        StdoutReader reader(out[0], total);
        if (!reader.waitForStart(std::chrono::seconds(15))) {
            ::kill(pid, SIGKILL);
            die("the monitor did not start its server; see " + (home / "stderr").string());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let start-up settle

        const double cpu0 = cpuSeconds(pid);
        const double rss0 = rssMiB(pid);
        const std::uint64_t drops0 = kernelDrops(inPort);

        int sender = -1;
        if (options.tcp) {
            // The monitor connects at start.
            pollfd incoming{sink, POLLIN, 0};
            if (::poll(&incoming, 1, 10'000) != 1 ||
                (sender = ::accept4(sink, nullptr, nullptr, SOCK_CLOEXEC)) < 0) {
                ::kill(pid, SIGKILL);
                die("the monitor did not connect; see " + (home / "stderr").string());
            }
            // Each message leaves as it is sent. With Nagle's algorithm the sender would hold
            // messages back until the monitor acknowledges the last, which measures the sender.
            const int on = 1;
            ::setsockopt(sender, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        } else {
            std::uint16_t senderPort = 0;
            sender = loopbackSocket(&senderPort);
            sockaddr_in monitor{};
            monitor.sin_family = AF_INET;
            monitor.sin_port = htons(inPort);
            monitor.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::connect(sender, reinterpret_cast<sockaddr*>(&monitor), sizeof monitor) != 0) {
                die(std::string("connect: ") + std::strerror(errno));
            }
        }
        std::vector<Clock::time_point> sentAt(total);
        const auto period = std::chrono::duration<double>(1.0 / options.rate);
        const Clock::time_point begin = Clock::now();
        for (std::size_t n = 0; n < total; ++n) {
            const auto due =
                begin + std::chrono::duration_cast<Clock::duration>(period * static_cast<double>(n));
            if (Clock::now() < due) {
                timespec at{};
                const auto since = due.time_since_epoch();
                at.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(since).count();
                at.tv_nsec = (since - std::chrono::seconds(at.tv_sec)).count();
                while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
                }
            }
            const auto bytes = loadMessage(static_cast<std::int32_t>(n), options.tcp);
            sentAt[n] = Clock::now();
            if (::send(sender, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(bytes.size())) {
                die(std::string("send: ") + std::strerror(errno));
            }
        }
        const double sendSeconds = std::chrono::duration<double>(Clock::now() - begin).count();

        // Waits for the last lines, bounded: until all arrived or none came for 3 s.
        std::size_t seen = reader.logged();
        for (auto quiet = Clock::now(); seen < total && Clock::now() - quiet < std::chrono::seconds(3);) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (reader.logged() != seen) {
                seen = reader.logged();
                quiet = Clock::now();
            }
        }
        round.sent = total;
        round.logged = reader.logged();
        round.duplicates = reader.duplicates();
        round.kernelDrops = kernelDrops(inPort) - drops0;
        round.cpuMicrosPerMessage = (cpuSeconds(pid) - cpu0) * 1e6 / static_cast<double>(total);
        round.rssMiBPer100k =
            round.logged ? (rssMiB(pid) - rss0) * 100'000.0 / static_cast<double>(round.logged) : 0;
        round.achievedRate = static_cast<double>(total) / sendSeconds;
        round.linesPerMessage =
            round.logged ? static_cast<double>(reader.eventLines()) / static_cast<double>(round.logged)
                         : 0;
        std::vector<double> lags;
        lags.reserve(round.logged);
        for (std::size_t n = 0; n < total; ++n) {
            if (reader.receivedAt()[n] != Clock::time_point{}) {
                lags.push_back(std::chrono::duration<double, std::milli>(reader.receivedAt()[n] -
                                                                         sentAt[n])
                                   .count());
            }
        }
        round.lagP50Millis = percentile(lags, 0.50);
        round.lagP99Millis = percentile(lags, 0.99);

        ::close(sender);  // after the last lines: a closed connection is no reason to stop reading
        ::kill(pid, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100 && ::waitpid(pid, &status, WNOHANG) == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (::waitpid(pid, &status, WNOHANG) == 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
        }
    }  // the reader ends with the monitor's stdout
    ::close(out[0]);
    ::close(sink);
    fs::remove_all(home);
    return round;
}

std::string number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// "median (min–max)".
std::string summary(const std::vector<Round>& rounds, double Round::*field, int decimals) {
    std::vector<double> values;
    for (const auto& r : rounds) values.push_back(r.*field);
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    return number(median, decimals) + " (" + number(values.front(), decimals) + "–" +
           number(values.back(), decimals) + ")";
}

// Every round's count, in order.
std::string eachRound(const std::vector<Round>& rounds,
                      const std::function<std::uint64_t(const Round&)>& count) {
    std::string text;
    for (const auto& r : rounds) text += (text.empty() ? "" : ", ") + std::to_string(count(r));
    return text;
}

std::string loadAverage() {
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        const char* value = argv[i + 1];
        if (option == "--monitor") options.monitor = value;
        else if (option == "--transport" && (std::string_view(value) == "udp" || std::string_view(value) == "tcp"))
            options.tcp = std::string_view(value) == "tcp";
        else if (option == "--rate") options.rate = std::atof(value);
        else if (option == "--seconds") options.seconds = std::atof(value);
        else if (option == "--rounds") options.rounds = std::atoi(value);
        else die("unknown option " + std::string(option));
    }
    if (options.monitor.empty() || options.rate <= 0 || options.seconds <= 0 || options.rounds < 1) {
        std::fprintf(stderr,
                     "usage: monitor_load --monitor PATH [--transport udp|tcp] [--rate N] [--seconds S] "
                     "[--rounds R]\n");
        return 2;
    }
    // Sleeps end on time, so the sends keep their pace instead of leaving in bursts.
    ::prctl(PR_SET_TIMERSLACK, 1UL);

    const std::string loadBefore = loadAverage();
    std::vector<Round> rounds;
    for (int i = 0; i < options.rounds; ++i) {
        rounds.push_back(runRound(options));
        const Round& r = rounds.back();
        std::fprintf(stderr,
                     "monitor_load: round %d: %zu of %zu logged, %zu duplicates, %llu kernel drops, "
                     "%.1f µs CPU per message, lag p99 %.2f ms, %.2f MiB per 100k lines\n",
                     i + 1, r.logged, r.sent, r.duplicates,
                     static_cast<unsigned long long>(r.kernelDrops), r.cpuMicrosPerMessage,
                     r.lagP99Millis, r.rssMiBPer100k);
    }

    std::size_t clean = 0;
    for (const auto& r : rounds) clean += r.logged == r.sent && r.duplicates == 0;

    std::printf("%g messages/s over %s for %g s, %d rounds; load average %s before, %s after; %u cores\n\n",
                options.rate, options.tcp ? "the monitor's TCP connection" : "UDP", options.seconds,
                options.rounds, loadBefore.c_str(),
                loadAverage().c_str(), std::thread::hardware_concurrency());
    std::printf("| measure | median (range) |\n|---|---|\n");
    std::printf("| rounds with every message logged once | %zu of %zu |\n", clean, rounds.size());
    std::printf("| messages logged per round, of %zu sent | %s |\n", rounds.front().sent,
                eachRound(rounds, [](const Round& r) { return r.logged; }).c_str());
    std::printf("| messages lost per round | %s |\n",
                eachRound(rounds, [](const Round& r) { return r.sent - r.logged; }).c_str());
    if (!options.tcp) {  // TCP holds back the sender instead
        std::printf("| kernel receive-buffer drops per round | %s |\n",
                    eachRound(rounds, [](const Round& r) { return r.kernelDrops; }).c_str());
    }
    std::printf("| sender's achieved rate (messages/s) | %s |\n",
                summary(rounds, &Round::achievedRate, 0).c_str());
    std::printf("| monitor CPU per message (µs) | %s |\n",
                summary(rounds, &Round::cpuMicrosPerMessage, 1).c_str());
    std::printf("| stdout lines per message | %s |\n",
                summary(rounds, &Round::linesPerMessage, 2).c_str());
    std::printf("| lag from send to its stdout line, p50 (ms) | %s |\n",
                summary(rounds, &Round::lagP50Millis, 2).c_str());
    std::printf("| lag from send to its stdout line, p99 (ms) | %s |\n",
                summary(rounds, &Round::lagP99Millis, 2).c_str());
    std::printf("| RSS growth per 100,000 log-view lines (MiB) | %s |\n",
                summary(rounds, &Round::rssMiBPer100k, 1).c_str());
    return 0;
}
