// Loopback TCP: messages per second received over one connection by Kavrin's OSCStreamServer
// (length-prefixed and SLIP, plain and over TLS) against liblo's TCP server thread and a bare
// blocking recv loop (the ceiling). Sender and receiver are separate processes pinned to
// different cores; every receiver runs all its threads on its one core.
//
// The sender connects (and, for TLS, shakes hands with OpenSSL, verifying nothing: the bench
// measures the receiver), then writes the Typical message, framed once beforehand, as fast as
// the receiver takes it. The receiver is timed from the first message its handler counts to the
// last, so the connection and the handshake stay out of it.
//
// Before any timing every receiver is run once with a handler that checks each message: it
// must count exactly the messages sent, all of them the Typical one, or the program stops.
// Runs then go round all receivers in turn, each turn starting one further on. The receivers
// are in tcp_receivers.hpp, the processes' plumbing in loopback_bench.hpp.
//
// A plain program: the figures are rates, not per-iteration times.
//
// usage: compare_tcp [--runs N] [--count N] [--liblo-slip-count N] [--json FILE]
//                    [--receivers kavrin,kavrin-slip,kavrin-tls,kavrin-slip-tls,liblo,liblo-slip,recv]
// (internal roles: compare_tcp receive RECEIVER CERTIFICATES EXPECTED CPU check|count
//                  compare_tcp send PORT RECEIVER COUNT CPU)

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "osc/stream/OSCFraming.hpp"
#include "tcp_receivers.hpp"

namespace {

using namespace tcp_bench;

// A receiver reports once its count has not moved for this long after the sender finished.
constexpr auto quietPeriod = std::chrono::milliseconds(500);
// What the sender hands to one write: about as much as one of Kavrin's reads takes.
constexpr std::size_t writeBytes = 64 * 1024;

std::vector<std::uint8_t> typicalFrame(kavrin::OSCFraming framing) {
    std::vector<std::uint8_t> frame;
    kavrin::appendFrame(framing, typicalMessage().rawData(), frame);
    return frame;
}

// ---- receiver side --------------------------------------------------------------------------

// Protocol on stdout: "ready PORT", then after "go" on stdin (the sender has written all) and
// the full or a quiet count, "result COUNT WRONG FIRST_NS LAST_NS".
int receiverMain(const Row& row, const std::string& certificates, long expected, int cpu,
                 bool check) {
    pinToCpu(cpu);  // before any thread exists, so every thread of the receiver inherits it
    Counter counter(expected);
    Wrong wrong{0};
    auto receiver = makeReceiver(row, certificates, counter, check ? &wrong : nullptr);
    std::printf("ready %u\n", receiver->port());
    std::fflush(stdout);

    char line[16];
    if (!std::fgets(line, sizeof line, stdin)) fail("receiver: no go");
    counter.await(quietPeriod, std::chrono::milliseconds(5), 0);
    std::printf("result %ld %ld %lld %lld\n", counter.count.load(std::memory_order_acquire),
                wrong.load(), static_cast<long long>(counter.first.load()),
                static_cast<long long>(counter.last.load()));
    std::fflush(stdout);
    receiver.reset();
    return 0;
}

// ---- sender side ----------------------------------------------------------------------------

[[noreturn]] void failTls(const std::string& what) {
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    fail(what + ": " + reason);
}

// One connection, plain or TLS, written to with blocking calls.
class SenderConnection {
  public:
    SenderConnection(std::uint16_t port, bool tls) : fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        if (fd < 0) failErrno("socket");
        const sockaddr_in target = loopback(port);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
            failErrno("connect");
        }
        // The last partial segment leaves at once rather than after the peer's delayed ACK.
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (!tls) return;
        context = SSL_CTX_new(TLS_client_method());
        if (!context) failTls("SSL_CTX_new");
        SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
        ssl = SSL_new(context);
        if (!ssl || SSL_set_fd(ssl, fd) != 1) failTls("SSL_new");
        if (SSL_connect(ssl) != 1) failTls("TLS handshake");
    }
    ~SenderConnection() {
        if (ssl) {
            SSL_shutdown(ssl);
            SSL_free(ssl);
            SSL_CTX_free(context);
        }
        ::close(fd);
    }
    SenderConnection(const SenderConnection&) = delete;
    SenderConnection& operator=(const SenderConnection&) = delete;

    void writeAll(const std::uint8_t* data, std::size_t size) {
        if (ssl) {
            // Without SSL_MODE_ENABLE_PARTIAL_WRITE a blocking SSL_write takes all or fails.
            if (SSL_write(ssl, data, static_cast<int>(size)) <= 0) failTls("SSL_write");
            return;
        }
        while (size > 0) {
            const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) failErrno("send");
            data += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    // What the handshake settled, for the results: "TLSv1.3 TLS_AES_256_GCM_SHA384", or "-".
    std::string security() const {
        return ssl ? std::string(SSL_get_version(ssl)) + " " + SSL_get_cipher_name(ssl) : "-";
    }

  private:
    int fd;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
};

// Sends `count` Typical messages framed as the receiver reads them, in writes of many frames.
// Prints "sent COUNT SECONDS SECURITY", then keeps the connection until a line on stdin: a close
// with the peer's unread bytes (TLS session tickets) could otherwise reset it mid-count.
int senderMain(std::uint16_t port, const Row& row, long count, int cpu) {
    pinToCpu(cpu);
    const auto frame = typicalFrame(row.framing);
    const long perWrite = static_cast<long>(writeBytes / frame.size());
    std::vector<std::uint8_t> frames;
    for (long i = 0; i < perWrite; ++i) frames.insert(frames.end(), frame.begin(), frame.end());

    SenderConnection connection(port, row.tls);
    const auto start = Clock::now();
    for (long sent = 0; sent < count;) {
        const long n = std::min(perWrite, count - sent);
        connection.writeAll(frames.data(), static_cast<std::size_t>(n) * frame.size());
        sent += n;
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("sent %ld %.6f %s\n", count, seconds, connection.security().c_str());
    std::fflush(stdout);
    std::getchar();  // a line, or the orchestrator's end
    return 0;
}

// ---- orchestration --------------------------------------------------------------------------

// The folder of the TLS receivers' self-signed certificate (cert.pem, key.pem), made with the
// openssl command on first use and removed again at exit, a failed one included.
const std::string& certificates() {
    static const std::string folder = [] {
        char name[] = "/tmp/compare_tcp-XXXXXX";
        if (::mkdtemp(name) == nullptr) failErrno("mkdtemp");
        static std::string made = name;
        std::atexit([] { std::filesystem::remove_all(made); });
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
            made + "/key.pem -out " + made + "/cert.pem -subj /CN=localhost -days 1 >" + made +
            "/openssl.log 2>&1";
        if (std::system(command.c_str()) != 0) {
            std::ifstream log(made + "/openssl.log");
            std::stringstream text;
            text << log.rdbuf();
            fail("the openssl command could not make a certificate: " + text.str());
        }
        return made;
    }();
    return folder;
}

struct RunResult {
    long delivered = 0;
    long wrong = 0;
    double seconds = 0;  // from the first message counted to the last
    std::string security;
};

RunResult runOnce(const Setup& setup, const Row& row, long count, bool check) {
    Child receiver({"receive", row.name, row.tls ? certificates() : "-", std::to_string(count),
                    std::to_string(setup.receiverCpu), check ? "check" : "count"});
    unsigned port = 0;
    if (std::sscanf(receiver.readLine(std::chrono::seconds(10)).c_str(), "ready %u", &port) != 1) {
        fail(row.name + ": bad ready line");
    }
    RunResult result;
    long long first = 0, last = 0;
    {
        Child sender({"send", std::to_string(port), row.name, std::to_string(count),
                      std::to_string(setup.senderCpu)});
        long sent = 0;
        double sendSeconds = 0;
        char security[128] = "";
        if (std::sscanf(sender.readLine(std::chrono::seconds(300)).c_str(), "sent %ld %lf %127[^\n]",
                        &sent, &sendSeconds, security) != 3) {
            fail("bad sender line");
        }
        result.security = security;
        receiver.writeLine("go");
        if (std::sscanf(receiver.readLine(std::chrono::seconds(300)).c_str(),
                        "result %ld %ld %lld %lld", &result.delivered, &result.wrong, &first,
                        &last) != 4) {
            fail(row.name + ": bad result line");
        }
        sender.writeLine("close");
    }
    result.seconds = static_cast<double>(last - first) / 1e9;
    if (result.delivered != count || result.wrong != 0 || result.seconds <= 0) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "%s counted %ld of the %ld messages sent, %ld of them not the Typical one",
                      row.name.c_str(), result.delivered, count, result.wrong);
        fail(text);
    }
    return result;
}

struct Options : CommonOptions {
    Options() { receivers = {"kavrin", "kavrin-slip", "kavrin-tls", "kavrin-slip-tls", "liblo", "liblo-slip", "recv"}; }
    // Of SLIP frames that arrive together liblo handles a few hundred a second (about one every
    // 10 ms once the sender pauses): 200,000 would take a quarter of an hour or more.
    long libloSlipCount = 2000;
};

Options parse(int argc, char** argv) {
    Options options;
    parseOptions(argc, argv, options, 2, [&](const std::string& name, const std::string& value) {
        if (name != "--liblo-slip-count") return false;
        options.libloSlipCount = std::max(2L, std::atol(value.c_str()));
        return true;
    });
    for (const auto& name : options.receivers) rowNamed(name);  // fails on an unknown one
    return options;
}

int orchestrate(const Options& options) {
    const Setup setup = chooseCpus();
    pinToCpu(setup.senderCpu);  // keep this mostly idle process off the receiver's core
    std::vector<Row> rows;
    for (const auto& name : options.receivers) rows.push_back(rowNamed(name));
    const auto countOf = [&](const Row& row) {
        return row.name == "liblo-slip" ? options.libloSlipCount : options.count;
    };
    const std::size_t messageSize = typicalMessage().rawData().size();
    std::printf(
        "Loopback TCP receive of the %zu-byte Typical message over one connection; receiver on "
        "cpu %d, sender on cpu %d\n\n",
        messageSize, setup.receiverCpu, setup.senderCpu);

    // Every receiver counts a whole run right, checking each message, before any is timed.
    std::vector<std::string> security(rows.size());
    for (std::size_t k = 0; k < rows.size(); ++k) {
        security[k] = runOnce(setup, rows[k], countOf(rows[k]), true).security;
    }

    // Each turn round the receivers starts one further on, so that a noisy spell on the machine
    // falls on all of them rather than on the one whose runs it happened to meet.
    std::vector<std::vector<double>> rates(rows.size());
    for (int run = 0; run < options.runs; ++run) {
        for (std::size_t step = 0; step < rows.size(); ++step) {
            const std::size_t k = (step + static_cast<std::size_t>(run)) % rows.size();
            const long count = countOf(rows[k]);
            const RunResult r = runOnce(setup, rows[k], count, false);
            rates[k].push_back(static_cast<double>(count - 1) / r.seconds);
        }
    }

    // A plain row against liblo on the same framing, in this program's runs.
    const auto libloRate = [&](kavrin::OSCFraming framing) {
        for (std::size_t k = 0; k < rows.size(); ++k) {
            if (rows[k].library == "liblo" && rows[k].framing == framing) return median(rates[k]);
        }
        return 0.0;
    };
    std::printf("Messages received per second, first to last; median of %d runs\n", options.runs);
    std::printf("%-16s %-16s %-4s %8s %12s %16s %8s\n", "receiver", "framing", "TLS", "messages",
                "messages/s", "min..max (k/s)", "÷ liblo");
    std::string json = "{\n  \"message_bytes\": " + std::to_string(messageSize) +
                       ",\n  \"receiver_cpu\": " + std::to_string(setup.receiverCpu) +
                       ",\n  \"sender_cpu\": " + std::to_string(setup.senderCpu) +
                       ",\n  \"runs\": " + std::to_string(options.runs) + ",\n  \"rows\": [";
    char text[512];
    for (std::size_t k = 0; k < rows.size(); ++k) {
        const Row& row = rows[k];
        const double med = median(rates[k]);
        std::snprintf(text, sizeof text, "%.0f..%.0f",
                      *std::min_element(rates[k].begin(), rates[k].end()) / 1e3,
                      *std::max_element(rates[k].begin(), rates[k].end()) / 1e3);
        std::string ratio = "";
        if (libloRate(row.framing) > 0 && !row.tls) {
            char r[32];
            std::snprintf(r, sizeof r, "%.2f", med / libloRate(row.framing));
            ratio = r;
        }
        std::printf("%-16s %-16s %-4s %8ld %12.0f %16s %8s\n", row.name.c_str(),
                    framingName(row.framing), row.tls ? "yes" : "no", countOf(row), med, text,
                    ratio.c_str());
        std::snprintf(text, sizeof text,
                      "%s\n    {\"receiver\": \"%s\", \"library\": \"%s\", \"framing\": \"%s\", "
                      "\"frame_bytes\": %zu, \"tls\": %s, \"security\": \"%s\", \"count\": %ld, "
                      "\"median_rate\": %.0f, \"rates\": [",
                      k ? "," : "", row.name.c_str(), row.library.c_str(), framingName(row.framing),
                      typicalFrame(row.framing).size(), row.tls ? "true" : "false",
                      security[k].c_str(), countOf(row), med);
        json += text;
        for (std::size_t run = 0; run < rates[k].size(); ++run) {
            json += (run ? ", " : "") + std::to_string(static_cast<long>(rates[k][run]));
        }
        json += "]}";
    }
    for (std::size_t k = 0; k < rows.size(); ++k) {
        if (rows[k].tls) {
            std::printf("\nTLS: %s\n", security[k].c_str());
            break;
        }
    }
    std::fflush(stdout);
    writeJson(options.json, std::move(json));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // A receiver that goes away early must not kill the orchestrator through a write.
    ::signal(SIGPIPE, SIG_IGN);
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "receive" && argc == 7) {
        return receiverMain(rowNamed(argv[2]), argv[3], std::atol(argv[4]), std::atoi(argv[5]),
                            std::string(argv[6]) == "check");
    }
    if (role == "send" && argc == 6) {
        return senderMain(static_cast<std::uint16_t>(std::atoi(argv[2])), rowNamed(argv[3]),
                          std::atol(argv[4]), std::atoi(argv[5]));
    }
    return orchestrate(parse(argc, argv));
}
