#include "app/QuitSignalNotifier.hpp"

#include <fcntl.h>
#include <unistd.h>
#include <QSocketNotifier>
#include <cerrno>
#include <cstring>
#include <string>

#include "support/FatalError.hpp"

namespace kavrin {
namespace {

// Written by the handler, so a plain int set before any handler is installed.
int writeEnd = -1;

void onSignal(int signalNumber) {
    const int savedErrno = errno;
    const auto byte = static_cast<unsigned char>(signalNumber);
    // A full pipe already holds a pending request; dropping this one loses nothing.
    [[maybe_unused]] const ssize_t written = ::write(writeEnd, &byte, 1);
    errno = savedErrno;
}

}  // namespace

QuitSignalNotifier::QuitSignalNotifier(std::vector<int> signalNumbers, QObject* parent)
    : QObject(parent), signalNumbers_(std::move(signalNumbers)) {
    if (::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        fatalError(std::string("cannot create the signal pipe: ") + std::strerror(errno));
    }
    writeEnd = pipe_[1];
    notifier_ = std::make_unique<QSocketNotifier>(pipe_[0], QSocketNotifier::Read);
    connect(notifier_.get(), &QSocketNotifier::activated, this, &QuitSignalNotifier::readPipe);

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signalNumber : signalNumbers_) {
        if (::sigaction(signalNumber, &action, nullptr) != 0) {
            fatalError("cannot handle signal " + std::to_string(signalNumber) + ": " +
                       std::strerror(errno));
        }
    }
}

QuitSignalNotifier::~QuitSignalNotifier() {
    for (const int signalNumber : signalNumbers_) {
        ::signal(signalNumber, SIG_DFL);
    }
    writeEnd = -1;
    notifier_.reset();
    ::close(pipe_[0]);
    ::close(pipe_[1]);
}

void QuitSignalNotifier::readPipe() {
    unsigned char byte = 0;
    while (::read(pipe_[0], &byte, 1) == 1) {
        emit activated(byte);
    }
}

}  // namespace kavrin
