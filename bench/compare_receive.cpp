// Loopback receive: Kavrin's OSCServer against liblo's server thread, oscpack's listening socket
// and bare blocking recvfrom and recvmmsg loops (the ceilings). Sender and receiver are separate
// processes pinned to different cores; every receiver runs all its threads on its one core.
//
// Drain mode measures the receiver alone: the receiver binds and reports ready, is stopped
// (SIGSTOP), the sender fills its socket buffer with the whole run, the receiver is continued
// (SIGCONT) and timed from then to the last message it counts. The buffer is made large enough
// to hold the run (SO_RCVBUFFORCE; ours through setKernelReceiveBufferSize).
//
// Paced mode offers a steady stream (bursts of sendmmsg every 100 us, paced by the clock) for a
// fixed time and counts what each receiver delivered at its library's default buffer, plus ours
// with a 4 MiB buffer; once with the receiver's core kept awake, once with it left to idle.
//
// Runs go round all receivers in turn rather than one receiver's runs back to back. The
// receivers themselves are in receive_receivers.hpp, the processes' plumbing in
// loopback_bench.hpp.
//
// A plain program: the figures are rates and losses, not per-iteration times.
//
// usage: compare_receive [--runs N] [--paced-runs N] [--count N] [--rates R,R,...]
//                        [--seconds S] [--receivers kavrin,liblo,oscpack,recvfrom,recvmmsg]
//                        [--paced-cores awake,idle] [--json FILE]
// (internal roles: compare_receive receive KIND BUFFER EXPECTED CPU
//                  compare_receive send PORT COUNT RATE CPU)

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "osc/codec/OSCMessage.hpp"
#include "receive_receivers.hpp"

namespace {

using namespace receive_bench;

// Enough for 200,000 small datagrams: on loopback each one costs the buffer about a kilobyte.
constexpr std::size_t drainBufferBytes = std::size_t{1} << 30;
constexpr std::size_t enlargedBufferBytes = std::size_t{4} << 20;
// A receiver reports once its count has not moved for this long after the sender finished.
constexpr auto quietPeriod = std::chrono::milliseconds(300);

// ---- receiver side --------------------------------------------------------------------------

// Protocol on stdout: "ready PORT RCVBUF", then after "go" on stdin and a quiet count,
// "result COUNT LAST_NS".
int receiverMain(const std::string& kind, std::size_t buffer, long expected, int cpu) {
    pinToCpu(cpu);  // before any thread exists, so every thread of the receiver inherits it
    Counter counter(expected);
    auto receiver = makeReceiver(kind, counter, buffer);
    const auto sockets = socketsBoundTo(receiver->port());
    if (sockets.empty()) fail(kind + ": no socket bound to the port");
    if (buffer != 0 && !receiver->setsOwnBuffer()) {
        for (int fd : sockets) forceReceiveBuffer(fd, buffer);
    }
    int rcvbuf = 0;
    for (int fd : sockets) rcvbuf = std::max(rcvbuf, receiveBufferOf(fd));
    std::printf("ready %u %d\n", receiver->port(), rcvbuf);
    std::fflush(stdout);

    char line[16];
    if (!std::fgets(line, sizeof line, stdin)) fail("receiver: no go");
    const std::int64_t lastChangeNs = counter.await(quietPeriod, std::chrono::milliseconds(5), 0);
    const long count = counter.count.load(std::memory_order_acquire);
    // Short of the expected count the last timestamp is the poll that saw the final change.
    const std::int64_t lastNs =
        count >= expected ? counter.last.load(std::memory_order_relaxed) : lastChangeNs;
    std::printf("result %ld %lld\n", count, static_cast<long long>(lastNs));
    std::fflush(stdout);
    receiver.reset();
    return 0;
}

// ---- sender side ----------------------------------------------------------------------------

// Sends `count` datagrams to 127.0.0.1:port; rate 0 sends as fast as it can, otherwise in
// bursts every 100 us so the offered rate holds over the run. Prints "sent COUNT SECONDS".
int senderMain(std::uint16_t port, long count, double rate, int cpu) {
    pinToCpu(cpu);
    const auto datagram = typicalDatagram();
    const int fd = connectedSender(port);
    constexpr int batch = 64;
    iovec iov{const_cast<std::uint8_t*>(datagram.data()), datagram.size()};
    std::vector<mmsghdr> messages(batch);
    for (auto& m : messages) {
        m.msg_hdr = {};
        m.msg_hdr.msg_iov = &iov;
        m.msg_hdr.msg_iovlen = 1;
    }
    const long burst = rate > 0 ? std::max(1L, static_cast<long>(rate / 10000)) : batch;
    const auto start = Clock::now();
    long sent = 0;
    while (sent < count) {
        long due = count;
        if (rate > 0) {
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            due = std::min(count, static_cast<long>(elapsed * rate));
            if (due - sent < burst && due < count) continue;  // spin: this core is the sender's
        }
        const unsigned n = static_cast<unsigned>(std::min<long>(due - sent, batch));
        const int done = ::sendmmsg(fd, messages.data(), n, 0);
        if (done < 0) {
            if (errno == EINTR || errno == ENOBUFS || errno == ECONNREFUSED) continue;
            failErrno("sendmmsg");
        }
        sent += done;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    ::close(fd);
    std::printf("sent %ld %.6f\n", sent, seconds);
    std::fflush(stdout);
    return 0;
}

// ---- orchestration --------------------------------------------------------------------------

struct RunResult {
    int rcvbuf = 0;
    long sent = 0;
    double sendSeconds = 0;
    long delivered = 0;
    double receiveSeconds = 0;  // drain: from continuing the receiver to its last message
};

// Keeps a core out of its idle state with a process that runs only when nothing else wants the
// core (SCHED_IDLE): a waking receiver preempts it at once. On a virtual machine an idle core
// halts, and waking it again can take longer than a small socket buffer lasts.
class CoreKeeper {
  public:
    explicit CoreKeeper(int cpu) : pid(::fork()) {
        if (pid < 0) failErrno("fork");
        if (pid == 0) {
            pinToCpu(cpu);
            const sched_param param{};
            if (::sched_setscheduler(0, SCHED_IDLE, &param) != 0) std::_Exit(1);
            for (;;) asm volatile("pause");
        }
    }
    ~CoreKeeper() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    CoreKeeper(const CoreKeeper&) = delete;
    CoreKeeper& operator=(const CoreKeeper&) = delete;

  private:
    pid_t pid;
};

// One receiver process and one sender process. Drain (rate 0): the receiver is stopped while
// the sender fills its buffer.
RunResult runOnce(const Setup& setup, const std::string& kind, std::size_t buffer, long count,
                  double rate, bool keepReceiverCoreAwake = false) {
    const bool drain = rate == 0;
    std::optional<CoreKeeper> keeper;
    if (keepReceiverCoreAwake) keeper.emplace(setup.receiverCpu);
    Child receiver({"receive", kind, std::to_string(buffer), std::to_string(count),
                    std::to_string(setup.receiverCpu)});
    RunResult result;
    unsigned port = 0;
    if (std::sscanf(receiver.readLine(std::chrono::seconds(10)).c_str(), "ready %u %d", &port,
                    &result.rcvbuf) != 2) {
        fail(kind + ": bad ready line");
    }
    if (drain) receiver.stop();
    {
        Child sender({"send", std::to_string(port), std::to_string(count),
                      std::to_string(static_cast<long>(rate)), std::to_string(setup.senderCpu)});
        if (std::sscanf(sender.readLine(std::chrono::seconds(60)).c_str(), "sent %ld %lf",
                        &result.sent, &result.sendSeconds) != 2) {
            fail("bad sender line");
        }
    }
    // The drain is timed from here (one clock for all processes), not from the first message
    // counted: that would leave out the first batch of a receiver that reads many datagrams
    // before handing any on.
    const std::int64_t resumed = nanosecondsNow();
    if (drain) receiver.resume();
    receiver.writeLine("go");
    long long last = 0;
    if (std::sscanf(receiver.readLine(std::chrono::seconds(120)).c_str(), "result %ld %lld",
                    &result.delivered, &last) != 2) {
        fail(kind + ": bad result line");
    }
    if (drain) result.receiveSeconds = static_cast<double>(last - resumed) / 1e9;
    return result;
}

struct Options : CommonOptions {
    Options() { receivers = {"kavrin", "liblo", "oscpack", "recvfrom", "recvmmsg"}; }
    int pacedRuns = 3;
    std::vector<double> rates{100000, 150000, 200000, 300000};
    double seconds = 1.0;
    std::vector<std::string> cores{"awake", "idle"};
};

Options parse(int argc, char** argv) {
    Options options;
    parseOptions(argc, argv, options, 1, [&](const std::string& name, const std::string& value) {
        if (name == "--paced-runs") {
            options.pacedRuns = std::max(1, std::atoi(value.c_str()));
        } else if (name == "--rates") {
            options.rates.clear();
            for (const auto& r : split(value)) options.rates.push_back(std::atof(r.c_str()));
        } else if (name == "--seconds") {
            options.seconds = std::atof(value.c_str());
        } else if (name == "--paced-cores") {
            options.cores = split(value);
        } else {
            return false;
        }
        return true;
    });
    return options;
}

std::string label(const std::string& kind, std::size_t buffer) {
    return buffer == enlargedBufferBytes ? kind + " (4 MiB)" : kind;
}

int orchestrate(const Options& options) {
    const Setup setup = chooseCpus();
    pinToCpu(setup.senderCpu);  // keep this mostly idle process off the receiver's core
    const std::size_t datagramSize = typicalDatagram().size();
    std::printf(
        "Loopback receive of the %zu-byte Typical message; receiver on cpu %d, sender on "
        "cpu %d\n\n",
        datagramSize, setup.receiverCpu, setup.senderCpu);
    std::string json = "{\n  \"datagram_bytes\": " + std::to_string(datagramSize) +
                       ",\n  \"receiver_cpu\": " + std::to_string(setup.receiverCpu) +
                       ",\n  \"sender_cpu\": " + std::to_string(setup.senderCpu) +
                       ",\n  \"drain_count\": " + std::to_string(options.count) +
                       ",\n  \"drain_runs\": " + std::to_string(options.runs) +
                       ",\n  \"paced_runs\": " + std::to_string(options.pacedRuns) +
                       ",\n  \"paced_seconds\": " + std::to_string(options.seconds) +
                       ",\n  \"drain\": [";
    char text[512];

    // Each turn round the receivers starts one further on, so that a noisy spell on the machine
    // falls on all of them rather than on the one whose runs it happened to meet.
    const std::size_t kinds = options.receivers.size();
    std::vector<std::vector<double>> drainRates(kinds);
    std::vector<long> worstDelivered(kinds, options.count);
    std::vector<int> drainRcvbuf(kinds);
    for (int run = 0; run < options.runs; ++run) {
        for (std::size_t step = 0; step < kinds; ++step) {
            const std::size_t k = (step + static_cast<std::size_t>(run)) % kinds;
            const RunResult r =
                runOnce(setup, options.receivers[k], drainBufferBytes, options.count, 0);
            drainRates[k].push_back(r.receiveSeconds > 0 ? r.delivered / r.receiveSeconds : 0);
            worstDelivered[k] = std::min(worstDelivered[k], r.delivered);
            drainRcvbuf[k] = r.rcvbuf;
        }
    }
    std::printf("Drain: %ld datagrams queued, then received; median of %d runs\n", options.count,
                options.runs);
    std::printf("%-16s %14s %14s %12s %10s\n", "receiver", "datagrams/s", "min..max (k/s)",
                "delivered", "rcvbuf");
    for (std::size_t k = 0; k < kinds; ++k) {
        const auto& rates = drainRates[k];
        const double med = median(rates);
        std::snprintf(text, sizeof text, "%.0f..%.0f",
                      *std::min_element(rates.begin(), rates.end()) / 1e3,
                      *std::max_element(rates.begin(), rates.end()) / 1e3);
        std::printf("%-16s %14.0f %14s %5ld/%-6ld %10d%s\n", options.receivers[k].c_str(), med,
                    text, worstDelivered[k], options.count, drainRcvbuf[k],
                    worstDelivered[k] < options.count ? "  INCOMPLETE" : "");
        std::snprintf(text, sizeof text,
                      "%s\n    {\"receiver\": \"%s\", \"rcvbuf\": %d, \"median_rate\": %.0f, "
                      "\"min_delivered\": %ld, \"complete\": %s, \"rates\": [",
                      k ? "," : "", options.receivers[k].c_str(), drainRcvbuf[k], med,
                      worstDelivered[k], worstDelivered[k] == options.count ? "true" : "false");
        json += text;
        for (std::size_t run = 0; run < rates.size(); ++run) {
            json += (run ? ", " : "") + std::to_string(static_cast<long>(rates[run]));
        }
        json += "]}";
    }
    std::fflush(stdout);
    json += "\n  ],\n  \"paced\": [";

    // Every (receiver, buffer, offered rate) of one core state, run in the same rotation.
    struct PacedCell {
        std::string kind;
        std::size_t buffer;
        double rate;
        std::vector<double> achieved, delivered, lost;
        int rcvbuf = 0;
    };
    bool firstEntry = true;
    for (const auto& core : options.cores) {
        const bool awake = core == "awake";
        if (!awake && core != "idle") fail("unknown core state " + core);
        std::vector<PacedCell> cells;
        for (const auto& kind : options.receivers) {
            for (std::size_t buffer : {std::size_t{0}, enlargedBufferBytes}) {
                if (buffer != 0 && kind != "kavrin") continue;
                for (double rate : options.rates) cells.push_back({kind, buffer, rate, {}, {}, {}});
            }
        }
        for (int run = 0; run < options.pacedRuns; ++run) {
            for (std::size_t step = 0; step < cells.size(); ++step) {
                auto& cell = cells[(step + static_cast<std::size_t>(run)) % cells.size()];
                const long count = static_cast<long>(cell.rate * options.seconds);
                const RunResult r = runOnce(setup, cell.kind, cell.buffer, count, cell.rate, awake);
                cell.achieved.push_back(r.sendSeconds > 0 ? r.sent / r.sendSeconds : 0);
                cell.delivered.push_back(static_cast<double>(r.delivered));
                cell.lost.push_back(static_cast<double>(r.sent - r.delivered));
                cell.rcvbuf = r.rcvbuf;
            }
        }
        std::printf(
            "\nPaced: %.1f s at each offered rate, default buffers, receiver's core %s; "
            "median of %d runs\n",
            options.seconds, awake ? "kept awake" : "left to idle", options.pacedRuns);
        std::printf("%-16s %10s %10s %10s %10s %8s %10s\n", "receiver", "offered", "achieved",
                    "delivered", "lost", "lost %", "rcvbuf");
        for (const auto& cell : cells) {
            const long count = static_cast<long>(cell.rate * options.seconds);
            const double lostMedian = median(cell.lost);
            const std::string name = label(cell.kind, cell.buffer);
            std::printf("%-16s %10.0f %10.0f %10.0f %10.0f %7.2f%% %10d\n", name.c_str(), cell.rate,
                        median(cell.achieved), median(cell.delivered), lostMedian,
                        100.0 * lostMedian / static_cast<double>(count), cell.rcvbuf);
            std::snprintf(text, sizeof text,
                          "%s\n    {\"core\": \"%s\", \"receiver\": \"%s\", \"rcvbuf\": %d, "
                          "\"offered\": %.0f, \"achieved\": %.0f, \"sent\": %ld, "
                          "\"delivered\": %.0f, \"lost\": %.0f}",
                          firstEntry ? "" : ",", core.c_str(), name.c_str(), cell.rcvbuf, cell.rate,
                          median(cell.achieved), count, median(cell.delivered), lostMedian);
            json += text;
            firstEntry = false;
        }
        std::fflush(stdout);
    }
    writeJson(options.json, std::move(json));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // A receiver that goes away early must not kill the orchestrator through a write.
    ::signal(SIGPIPE, SIG_IGN);
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "receive" && argc == 6) {
        return receiverMain(argv[2], std::strtoull(argv[3], nullptr, 10), std::atol(argv[4]),
                            std::atoi(argv[5]));
    }
    if (role == "send" && argc == 6) {
        return senderMain(static_cast<std::uint16_t>(std::atoi(argv[2])), std::atol(argv[3]),
                          std::atof(argv[4]), std::atoi(argv[5]));
    }
    return orchestrate(parse(argc, argv));
}
