// What the loopback comparisons (compare_receive, compare_tcp) share: a receiver and a sender
// run as separate processes of the same program, each pinned to its own core, driven by an
// orchestrator through their stdin and stdout; the counter the receivers' handlers bump; medians.
#pragma once

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace loopback_bench {

using Clock = std::chrono::steady_clock;

// Prefixed with the program's name, which every role of it shares.
[[noreturn]] inline void fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::exit(1);
}

[[noreturn]] inline void failErrno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

inline std::int64_t nanosecondsNow() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

inline void pinToCpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) failErrno("sched_setaffinity");
}

inline sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Counts messages; written by one receiving thread at a time (a serial queue for ours), read
// by the main thread. The first message and the expected-last take a timestamp.
struct Counter {
    explicit Counter(long expected) : expected(expected) {}
    void hit() {
        const long n = count.load(std::memory_order_relaxed) + 1;
        if (n == 1) first.store(nanosecondsNow(), std::memory_order_relaxed);
        if (n == expected) last.store(nanosecondsNow(), std::memory_order_relaxed);
        count.store(n, std::memory_order_release);
    }
    // Waits until the expected count has come, or none has for `quiet`, looking every `poll`;
    // when the count last changed (nanosecondsNow), `since` if it never did.
    std::int64_t await(std::chrono::milliseconds quiet, std::chrono::milliseconds poll,
                       std::int64_t since) const {
        long seen = -1;
        auto changed = Clock::now();
        for (;;) {
            const long now = count.load(std::memory_order_acquire);
            if (now >= expected) return since;
            if (now != seen) {
                seen = now;
                changed = Clock::now();
                since = nanosecondsNow();
            } else if (Clock::now() - changed > quiet) {
                return since;
            }
            std::this_thread::sleep_for(poll);
        }
    }

    const long expected;
    std::atomic<long> count{0};
    std::atomic<std::int64_t> first{0};
    std::atomic<std::int64_t> last{0};
};

inline std::string selfPath() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n < 0) failErrno("readlink /proc/self/exe");
    return std::string(path, static_cast<std::size_t>(n));
}

// A child running this program in another role, talking through its stdin and stdout.
class Child {
  public:
    explicit Child(const std::vector<std::string>& args) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) failErrno("pipe");
        pid = ::fork();
        if (pid < 0) failErrno("fork");
        if (pid == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            std::vector<char*> argv;
            static const std::string self = selfPath();
            argv.push_back(const_cast<char*>(self.c_str()));
            for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            ::execv(self.c_str(), argv.data());
            std::_Exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        toChild = in[1];
        fromChild = out[0];
    }
    ~Child() {
        ::close(toChild);
        ::close(fromChild);
        if (pid > 0) {
            // A child that does not end within 5 s of its last line is stuck: kill it.
            for (int i = 0; i < 500; ++i) {
                if (::waitpid(pid, nullptr, WNOHANG) == pid) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The next line the child prints; fails after `timeout` without one.
    std::string readLine(std::chrono::seconds timeout) {
        std::string line;
        const auto deadline = Clock::now() + timeout;
        for (;;) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            pollfd p{fromChild, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) == 0) {
                fail("child timed out");
            }
            char c;
            const ssize_t n = ::read(fromChild, &c, 1);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) fail("child ended early");
            if (c == '\n') return line;
            line += c;
        }
    }
    void writeLine(const std::string& line) {
        const std::string text = line + "\n";
        if (::write(toChild, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            failErrno("write to child");
        }
    }
    void stop() {
        if (::kill(pid, SIGSTOP) != 0) failErrno("SIGSTOP");
        int status = 0;
        if (::waitpid(pid, &status, WUNTRACED) != pid || !WIFSTOPPED(status)) {
            fail("receiver did not stop");
        }
    }
    void resume() {
        if (::kill(pid, SIGCONT) != 0) failErrno("SIGCONT");
    }

  private:
    pid_t pid = -1;
    int toChild = -1;
    int fromChild = -1;
};

struct Setup {
    int receiverCpu = 0;
    int senderCpu = 0;
};

// The first and the last core this process may run on: sender and receiver.
inline Setup chooseCpus() {
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof set, &set) != 0) failErrno("sched_getaffinity");
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) cpus.push_back(cpu);
    }
    if (cpus.size() < 2)
        std::fprintf(stderr, "warning: one core only; sender and receiver share it\n");
    return {cpus.back(), cpus.front()};
}

// The machine-readable results, closed as a JSON document, into `path` when one was given.
inline void writeJson(const std::string& path, std::string json) {
    json += "\n  ]\n}\n";
    if (path.empty()) return;
    FILE* file = std::fopen(path.c_str(), "w");
    if (!file || std::fputs(json.c_str(), file) < 0 || std::fclose(file) != 0) {
        failErrno("writing " + path);
    }
}

inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

inline std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream stream(text);
    for (std::string part; std::getline(stream, part, ',');) {
        if (!part.empty()) parts.push_back(part);
    }
    return parts;
}

// Options come as "--name value" pairs. Every comparison takes --runs, --count, --receivers and
// --json; `own(name, value)` reads the rest and is false for a name it does not know.
struct CommonOptions {
    int runs = 5;
    long count = 200000;
    std::vector<std::string> receivers;
    std::string json;
};

template <class Own>
void parseOptions(int argc, char** argv, CommonOptions& options, long minimumCount, Own own) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (i + 1 >= argc) fail("missing value after " + name);
        const std::string value = argv[++i];
        if (name == "--runs") {
            options.runs = std::max(1, std::atoi(value.c_str()));
        } else if (name == "--count") {
            options.count = std::max(minimumCount, std::atol(value.c_str()));
        } else if (name == "--receivers") {
            options.receivers = split(value);
        } else if (name == "--json") {
            options.json = value;
        } else if (!own(name, value)) {
            fail("unknown option " + name);
        }
    }
}

}  // namespace loopback_bench
