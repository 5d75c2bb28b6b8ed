#include "app/StdoutLines.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace kavrin {
namespace {

thread_local std::string pending;
thread_local int depth = 0;

// All of `bytes`, resuming after interruptions and partial writes; stdout may be a pipe that
// someone made non-blocking, so a full pipe is waited for. A stdout that fails otherwise is
// reported once on stderr and the lines are dropped: the monitor's check goes on without them.
void writeAll(std::string_view bytes) {
    static bool reported = false;
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd writable{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            if (!reported) {
                reported = true;
                std::fprintf(stderr, "kavrin: cannot write to stdout: %s\n", std::strerror(errno));
            }
            return;
        }
    }
}

}  // namespace

void StdoutLines::write(std::string_view line) {
    pending.append(line);
    pending.push_back('\n');
    if (depth == 0) flush();
}

void StdoutLines::flush() {
    writeAll(pending);
    pending.clear();
}

StdoutLines::Batch::Batch() {
    ++depth;
}

StdoutLines::Batch::~Batch() {
    if (--depth == 0) flush();
}

}  // namespace kavrin
