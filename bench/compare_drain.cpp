// In-process drain: every receiver in this one program, one after another. Each is bound and
// receiving, then every other thread of the process is parked, the main thread queues the whole
// run in the receiver's socket buffer, and the receiver is let go and timed to its last message.
// So each receiver meets the same full buffer, with no sender competing for a core, and what is
// timed is the receiver alone: reading, decoding and handing each message to its handler.
//
// The receivers (receive_receivers.hpp): OSCServer with a counting owning handler on a serial
// queue, OSCServer with a counting view handler, UdpSocket alone with a counting delegate,
// oscpack, liblo, and a bare recvmmsg loop. Runs go round all receivers in turn.
//
// Needs a socket buffer that holds the whole run: run as root (SO_RCVBUFFORCE) or with
// net.core.rmem_max raised; a run that lost datagrams is marked INCOMPLETE.
//
// usage: compare_drain [--runs N] [--count N] [--receivers kavrin,...] [--json FILE]

#include <dirent.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "osc/codec/OSCMessage.hpp"
#include "receive_receivers.hpp"

namespace {

using namespace receive_bench;

constexpr std::size_t drainBufferBytes = std::size_t{1} << 30;
// A receiver is done once its count has not moved for this long.
constexpr auto quietPeriod = std::chrono::milliseconds(300);

// Parks every other thread of the process in a signal handler until thaw(): the receiver's
// threads stop where they are, as a stopped receiver process would, while this thread sends.
// Nothing this thread does meanwhile may take a lock: a parked thread may hold it.
class ThreadParking {
  public:
    ThreadParking() {
        ::sem_init(&gate, 0, 0);
        struct sigaction action {};
        action.sa_handler = &ThreadParking::park;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        if (::sigaction(SIGUSR2, &action, nullptr) != 0) failErrno("sigaction");
    }

    void freeze() {
        parked.store(0);
        signalled = 0;
        const pid_t self = static_cast<pid_t>(::syscall(SYS_gettid));
        DIR* dir = ::opendir("/proc/self/task");
        if (!dir) failErrno("opendir /proc/self/task");
        while (const dirent* entry = ::readdir(dir)) {
            const int tid = std::atoi(entry->d_name);
            if (tid <= 0 || tid == self) continue;
            if (::syscall(SYS_tgkill, ::getpid(), tid, SIGUSR2) == 0) ++signalled;
        }
        ::closedir(dir);
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        while (parked.load() < signalled) {
            if (Clock::now() > deadline) fail("threads did not park");
            std::this_thread::yield();
        }
    }

    void thaw() {
        for (int i = 0; i < signalled; ++i) ::sem_post(&gate);
    }

  private:
    static void park(int) {
        const int saved = errno;
        parked.fetch_add(1);
        while (::sem_wait(&gate) != 0 && errno == EINTR) {
        }
        errno = saved;
    }
    static inline sem_t gate;
    static inline std::atomic<int> parked{0};
    int signalled = 0;
};

// Sends `count` copies of `datagram` to 127.0.0.1:port, 64 per system call, allocating nothing.
void fill(std::uint16_t port, const std::vector<std::uint8_t>& datagram, long count) {
    const int fd = connectedSender(port);
    constexpr int batch = 64;
    iovec iov{const_cast<std::uint8_t*>(datagram.data()), datagram.size()};
    mmsghdr messages[batch];
    for (auto& m : messages) {
        m = {};
        m.msg_hdr.msg_iov = &iov;
        m.msg_hdr.msg_iovlen = 1;
    }
    for (long sent = 0; sent < count;) {
        const int done =
            ::sendmmsg(fd, messages, static_cast<unsigned>(std::min<long>(count - sent, batch)), 0);
        if (done < 0) {
            if (errno == EINTR || errno == ENOBUFS) continue;
            failErrno("sendmmsg");
        }
        sent += done;
    }
    ::close(fd);
}

struct Run {
    long delivered = 0;
    double seconds = 0;
};

Run drainOnce(ThreadParking& parking, const Setup& setup, const std::string& kind, long count,
              const std::vector<std::uint8_t>& datagram) {
    // The receiver's threads inherit this thread's core.
    pinToCpu(setup.receiverCpu);
    Counter counter(count);
    auto receiver = makeReceiver(kind, counter, 0);
    pinToCpu(setup.senderCpu);
    const auto sockets = socketsBoundTo(receiver->port());
    if (sockets.empty()) fail(kind + ": no socket bound to the port");
    for (int fd : sockets) forceReceiveBuffer(fd, drainBufferBytes);
    parking.freeze();
    fill(receiver->port(), datagram, count);
    const std::int64_t start = nanosecondsNow();
    parking.thaw();
    const std::int64_t lastChangeNs = counter.await(quietPeriod, std::chrono::milliseconds(2), start);
    Run run;
    run.delivered = counter.count.load(std::memory_order_acquire);
    const std::int64_t end =
        run.delivered >= count ? counter.last.load(std::memory_order_relaxed) : lastChangeNs;
    run.seconds = static_cast<double>(end - start) / 1e9;
    return run;
}

struct Options : CommonOptions {
    Options() { receivers = {"kavrin", "kavrin-view", "udpsocket", "oscpack", "liblo", "recvmmsg"}; }
};

Options parse(int argc, char** argv) {
    Options options;
    parseOptions(argc, argv, options, 1, [](const std::string&, const std::string&) { return false; });
    return options;
}

// The median rate of receiver `of` over that of `by`, or 0 where `by` was not run.
double ratio(const std::vector<std::string>& kinds, const std::vector<double>& medians,
             std::size_t of, const std::string& by) {
    const auto it = std::find(kinds.begin(), kinds.end(), by);
    if (it == kinds.end()) return 0;
    const double base = medians[static_cast<std::size_t>(it - kinds.begin())];
    return base > 0 ? medians[of] / base : 0;
}

int drain(const Options& options) {
    const Setup setup = chooseCpus();
    const auto datagram = typicalDatagram();
    ThreadParking parking;
    const std::size_t kinds = options.receivers.size();
    std::vector<std::vector<double>> rates(kinds);
    std::vector<long> worst(kinds, options.count);
    for (int run = 0; run < options.runs; ++run) {
        for (std::size_t step = 0; step < kinds; ++step) {
            const std::size_t k = (step + static_cast<std::size_t>(run)) % kinds;
            const Run r = drainOnce(parking, setup, options.receivers[k], options.count, datagram);
            rates[k].push_back(r.seconds > 0 ? static_cast<double>(r.delivered) / r.seconds : 0);
            worst[k] = std::min(worst[k], r.delivered);
        }
    }
    std::vector<double> medians(kinds);
    for (std::size_t k = 0; k < kinds; ++k) medians[k] = median(rates[k]);

    std::printf(
        "In-process drain: %ld datagrams of %zu bytes queued, then received; receiver threads on "
        "cpu %d; median of %d runs\n",
        options.count, datagram.size(), setup.receiverCpu, options.runs);
    std::printf("%-12s %12s %18s %9s %9s %12s %s\n", "receiver", "datagrams/s", "range",
                "/oscpack", "/liblo", "/recvmmsg", "delivered");
    std::string json = "{\n  \"datagram_bytes\": " + std::to_string(datagram.size()) +
                       ",\n  \"count\": " + std::to_string(options.count) +
                       ",\n  \"runs\": " + std::to_string(options.runs) + ",\n  \"drain\": [";
    char text[512];
    for (std::size_t k = 0; k < kinds; ++k) {
        const auto [low, high] = std::minmax_element(rates[k].begin(), rates[k].end());
        std::snprintf(text, sizeof text, "%.0f-%.0f", *low, *high);
        std::printf("%-12s %12.0f %18s %9.2f %9.2f %12.2f %ld/%ld%s\n",
                    options.receivers[k].c_str(), medians[k], text,
                    ratio(options.receivers, medians, k, "oscpack"),
                    ratio(options.receivers, medians, k, "liblo"),
                    ratio(options.receivers, medians, k, "recvmmsg"), worst[k], options.count,
                    worst[k] < options.count ? "  INCOMPLETE" : "");
        std::snprintf(text, sizeof text,
                      "%s\n    {\"receiver\": \"%s\", \"median_rate\": %.0f, \"min_rate\": %.0f, "
                      "\"max_rate\": %.0f, \"complete\": %s, \"rates\": [",
                      k ? "," : "", options.receivers[k].c_str(), medians[k], *low, *high,
                      worst[k] == options.count ? "true" : "false");
        json += text;
        for (std::size_t run = 0; run < rates[k].size(); ++run) {
            json += (run ? ", " : "") + std::to_string(static_cast<long>(rates[k][run]));
        }
        json += "]}";
    }
    std::fflush(stdout);
    writeJson(options.json, std::move(json));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return drain(parse(argc, argv));
}
