#include "osc/dispatch/RunLoop.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace kavrin {

namespace {

// Where the handler writes the number of a signal that arrived. A signal handler may do little
// more than write(), so a thread reads the pipe and stops the loop.
std::atomic<int> signalPipe{-1};

extern "C" void onSignal(int number) {
    const int saved = errno;
    const unsigned char byte = static_cast<unsigned char>(number);
    const int fd = signalPipe.load();
    if (fd >= 0) (void)!::write(fd, &byte, 1);
    errno = saved;
}

}  // namespace

struct RunLoop::SignalWatch {
    SignalWatch(RunLoop& loop, std::initializer_list<int> signals) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "signal pipe");
        }
        readEnd = fds[0];
        writeEnd = fds[1];
        signalPipe.store(writeEnd);
        reader = std::thread([this, &loop] {
            unsigned char number = 0;
            ssize_t got;
            while ((got = ::read(readEnd, &number, 1)) < 0 && errno == EINTR) {
            }
            if (got == 1) loop.stop(128 + number);
        });
        for (const int number : signals) {
            struct sigaction action {};
            action.sa_handler = onSignal;
            sigemptyset(&action.sa_mask);
            action.sa_flags = SA_RESTART;
            struct sigaction former {};
            if (::sigaction(number, &action, &former) == 0) replaced.emplace_back(number, former);
        }
    }

    ~SignalWatch() {
        for (auto& [number, former] : replaced) ::sigaction(number, &former, nullptr);
        signalPipe.store(-1);
        ::close(writeEnd);  // the reader sees the end of the pipe and finishes
        reader.join();
        ::close(readEnd);
    }

    int readEnd = -1;
    int writeEnd = -1;
    std::thread reader;
    std::vector<std::pair<int, struct sigaction>> replaced;
};

RunLoop::RunLoop() = default;

RunLoop::~RunLoop() = default;

void RunLoop::async(Work work) {
    queue_.async(std::move(work));
}

void RunLoop::asyncAfter(Clock::time_point deadline, Work work) {
    queue_.asyncAfter(deadline, std::move(work));
}

bool RunLoop::isCurrent() const {
    return queue_.isCurrent();
}

int RunLoop::run() {
    queue_.drainUntil([this] { return stopRequested_.load(); }, Clock::duration::max());
    // A stop() made from here on is for the next run().
    stopRequested_.exchange(false);
    return status_.load();
}

void RunLoop::stop(int status) {
    status_ = status;
    stopRequested_ = true;
    queue_.async([] {});  // wakes a run() that waits for work
}

void RunLoop::stopOnSignals(std::initializer_list<int> signals) {
    signals_.reset();
    signals_ = std::make_unique<SignalWatch>(*this, signals);
}

}  // namespace kavrin
