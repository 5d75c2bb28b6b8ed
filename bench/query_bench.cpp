// The OSCQuery server and zeroconf against their goals: the whole tree of 1,000 methods answered
// over HTTP within 5 ms; 10,000 value updates a second streamed to 10 listeners with none
// dropped; a service advertised reported by a browser within 2 s (Avahi probes the name for
// most of a second first). Real time per iteration, measured by the program (manual time).
// The zeroconf case needs an Avahi daemon (scripts/bench starts a private one on loopback) and
// is skipped without one.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "osc/discovery/OSCServiceAdvertiser.hpp"
#include "osc/discovery/OSCServiceBrowser.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/dispatch/SerialQueue.hpp"
#include "osc/query/OSCQueryClient.hpp"
#include "osc/query/OSCQueryServer.hpp"

namespace {

using namespace kavrin;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// 10 banks of 100 channels, each a gain with its type, access, range and value.
std::unique_ptr<OSCQueryServer> servedTree(const std::shared_ptr<SerialQueue>& queue) {
    auto server = std::make_unique<OSCQueryServer>(std::make_shared<OSCAddressSpace>(), queue);
    server->start();
    OSCQueryAttributes gain;
    gain.type = "f";
    gain.description = "Channel gain";
    gain.access = OSCQueryAccess::readWrite;
    gain.range = {OSCQueryRange{OSCValue(0.0f), OSCValue(1.0f), {}}};
    for (int bank = 0; bank < 10; ++bank) {
        for (int channel = 0; channel < 100; ++channel) {
            const auto address = "/bank/" + std::to_string(bank) + "/ch/" + std::to_string(channel) + "/gain";
            server->registerMethod(address, [](const OSCValueList&) {}, gain);
            server->setValue(address, {OSCValue(0.5f)});
        }
    }
    queue->sync([] {});
    return server;
}

// One keep-alive HTTP connection that reads whole responses by their Content-Length.
class Connection {
  public:
    explicit Connection(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    ~Connection() { ::close(fd_); }

    // The body's size, 0 when the answer did not come whole within 5 s.
    std::size_t get(const std::string& target) {
        const auto request = "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
        ::send(fd_, request.data(), request.size(), MSG_NOSIGNAL);
        std::string text;
        std::size_t header = std::string::npos, length = 0;
        char buffer[65536];
        while (header == std::string::npos || text.size() < header + length) {
            pollfd entry{fd_, POLLIN, 0};
            if (::poll(&entry, 1, 5000) <= 0) return 0;
            const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
            if (got <= 0) return 0;
            text.append(buffer, static_cast<std::size_t>(got));
            if (header == std::string::npos && (header = text.find("\r\n\r\n")) != std::string::npos) {
                header += 4;
                const auto field = text.find("Content-Length: ");
                length = field < header ? std::stoul(text.substr(field + 16)) : 0;
            }
        }
        return length;
    }

  private:
    const int fd_;
};

void treeRequest(benchmark::State& state, const std::string& target) {
    auto queue = SerialQueue::create("space");
    const auto server = servedTree(queue);
    Connection connection(server->boundPort());
    std::size_t bytes = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        bytes = connection.get(target);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        if (bytes == 0) state.SkipWithError("no whole answer");
    }
    state.counters["body_bytes"] = static_cast<double>(bytes);
}

void Tree1000Methods(benchmark::State& state) { treeRequest(state, "/"); }
void OneValueOf1000(benchmark::State& state) { treeRequest(state, "/bank/3/ch/42/gain?VALUE"); }
BENCHMARK(Tree1000Methods)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(OneValueOf1000)->UseManualTime()->Unit(benchmark::kMillisecond);

// 10,000 updates sent at 10,000 a second, in steps of 100 every 10 ms, to 10 listeners: the time
// until the last listener has the last one, and how many never arrived.
void Stream10000PerSecondTo10Listeners(benchmark::State& state) {
    constexpr int listeners = 10, updates = 10'000;
    auto queue = SerialQueue::create("space");
    const auto server = servedTree(queue);
    auto delivered = std::make_shared<std::atomic<long>>(0);
    auto clients = SerialQueue::create("listeners");
    std::vector<std::shared_ptr<OSCQueryClient>> readers;
    for (int i = 0; i < listeners; ++i) {
        readers.push_back(OSCQueryClient::create("127.0.0.1", server->boundPort(), clients));
        readers.back()->setValueHandler([delivered](const OSCMessage&) { ++*delivered; });
        readers.back()->listen("/bank/0/ch/0/gain");
    }
    const auto deadline = Clock::now() + 10s;
    while (server->listenerCount("/bank/0/ch/0/gain") < listeners && Clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    clients->sync([] {});
    long dropped = 0;
    for (auto _ : state) {
        *delivered = 0;
        const auto start = Clock::now();
        for (int i = 0; i < updates; ++i) {
            if (i % 100 == 0) std::this_thread::sleep_until(start + i * 100us);
            server->setValue("/bank/0/ch/0/gain", {OSCValue(static_cast<float>(i))});
        }
        const auto wait = Clock::now() + 10s;
        while (*delivered < listeners * updates && Clock::now() < wait) std::this_thread::sleep_for(100us);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        dropped += listeners * updates - *delivered;
    }
    state.counters["dropped"] = static_cast<double>(dropped);
}
BENCHMARK(Stream10000PerSecondTo10Listeners)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

// From the advertiser's start to the browser's report of it.
void BrowserReportsAService(benchmark::State& state) {
    auto queue = std::make_shared<ManualQueue>();
    std::string appeared;
    OSCServiceBrowser browser({std::string(oscUdpServiceType)}, queue,
                              [&](OSCServiceBrowser::Event event, const OSCService& service) {
                                  if (event == OSCServiceBrowser::Event::appeared) appeared = service.name;
                              });
    if (!queue->drainUntil([&] { return browser.status().state == OSCZeroconfStatus::State::running; }, 5s)) {
        state.SkipWithError(("no Avahi daemon: " + browser.status().text).c_str());
        for (auto _ : state) {
        }
        return;
    }
    int round = 0;
    for (auto _ : state) {
        const auto name = "Kavrin bench " + std::to_string(::getpid()) + " " + std::to_string(round++);
        const auto start = Clock::now();
        OSCServiceAdvertiser advertiser(OSCService(name, std::string(oscUdpServiceType), 9));
        if (!queue->drainUntil([&] { return appeared == name; }, 10s)) state.SkipWithError("not reported in 10 s");
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
}
BENCHMARK(BrowserReportsAService)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
