#pragma once

// A command-line program as a child process with its standard input and output on pipes, its
// errors merged into the output or kept apart; OpensslProcess runs the openssl tool, to make test
// certificates and as an independent TLS peer (s_server, s_client). Every wait has a bound; the
// destructor ends the process and reaps it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace kavrin::tcpTest {

class ChildProcess {
  public:
    enum class Errors { merged, separate };

    // program is found on PATH unless it holds a slash.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 Errors errors = Errors::merged) {
        // Standard input is a socket, so that writing to a process that has ended cannot raise
        // SIGPIPE (MSG_NOSIGNAL).
        int input[2];
        int output[2];
        int error[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0) {
            return;
        }
        if (::pipe2(output, O_CLOEXEC) != 0 ||
            (errors == Errors::separate && ::pipe2(error, O_CLOEXEC) != 0)) {
            for (const int fd : {input[0], input[1], output[0], output[1]}) ::close(fd);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[1], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        posix_spawn_file_actions_adddup2(&actions,
                                         errors == Errors::separate ? error[1] : output[1], 2);
        std::vector<std::string> argv = {program};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (auto& argument : argv) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        if (::posix_spawnp(&pid_, program.c_str(), &actions, nullptr, pointers.data(), environ) !=
            0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(input[1]);
        ::close(output[1]);
        if (error[1] != -1) ::close(error[1]);
        input_ = input[0];
        output_ = output[0];
        errors_ = error[0];
    }

    ~ChildProcess() {
        if (pid_ > 0 && !status_) {
            ::kill(pid_, SIGTERM);
            if (!waitForExit(std::chrono::seconds(5))) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
            }
        }
        for (const int fd : {input_, output_, errors_}) {
            if (fd != -1) ::close(fd);
        }
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    const std::string& output() const { return text_; }
    // Standard error, when kept apart.
    const std::string& errors() const { return errorText_; }

    bool send(std::string_view text) {
        return input_ != -1 && ::send(input_, text.data(), text.size(), MSG_NOSIGNAL) ==
                                   static_cast<ssize_t>(text.size());
    }

    // Reads output until `done` holds for it; false at the bound or when the output ends first.
    bool waitFor(const std::function<bool(const std::string&)>& done,
                 std::chrono::milliseconds bound) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (!done(text_)) {
            if (output_ == -1 || !readSome(deadline)) {
                return false;
            }
        }
        return true;
    }

    bool waitForOutput(std::string_view text, std::chrono::milliseconds bound) {
        return waitFor(
            [text](const std::string& output) { return output.find(text) != output.npos; }, bound);
    }

    // The next line of output not yet taken, without its line break.
    std::optional<std::string> nextLine(std::chrono::milliseconds bound) {
        if (!waitFor(
                [this](const std::string& output) {
                    return output.find('\n', taken_) != output.npos;
                },
                bound)) {
            return std::nullopt;
        }
        const auto end = text_.find('\n', taken_);
        std::string line = text_.substr(taken_, end - taken_);
        taken_ = end + 1;
        return line;
    }

    // The exit status (128 + the signal's number for one that ended it), once the process has
    // ended within the bound.
    std::optional<int> waitForExit(std::chrono::milliseconds bound) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (!status_ && pid_ > 0) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                // What it wrote last may still be in the pipes.
                const auto drained = std::chrono::steady_clock::now() + std::chrono::seconds(1);
                while ((output_ != -1 || errors_ != -1) && readSome(drained)) {
                }
                break;
            }
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) {
                break;
            }
            // Draining the output keeps a chatty process from blocking on a full pipe, and the
            // poll in it is the wait between checks; once the output has ended, a plain wait.
            const auto step = std::min(deadline, now + std::chrono::milliseconds(20));
            if (!readSome(step)) {
                ::poll(nullptr, 0, static_cast<int>(left(step).count()));
            }
        }
        return status_;
    }

    // Asks the process to end (SIGTERM) and waits for its exit status.
    std::optional<int> stop(std::chrono::milliseconds bound) {
        if (pid_ > 0 && !status_) ::kill(pid_, SIGTERM);
        return waitForExit(bound);
    }

  private:
    static std::chrono::milliseconds left(std::chrono::steady_clock::time_point deadline) {
        return std::max(std::chrono::milliseconds(0),
                        std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now()));
    }

    // Reads what either stream has; false when the deadline passed first or both have ended.
    bool readSome(std::chrono::steady_clock::time_point deadline) {
        pollfd entries[2];
        nfds_t count = 0;
        for (const int fd : {output_, errors_}) {
            if (fd != -1) entries[count++] = {fd, POLLIN, 0};
        }
        const auto wait = left(deadline);
        if (count == 0 || wait.count() <= 0 ||
            ::poll(entries, count, static_cast<int>(wait.count())) <= 0) {
            return false;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (entries[i].revents == 0) continue;
            const bool isOutput = entries[i].fd == output_;
            char buffer[4096];
            const ssize_t length = ::read(entries[i].fd, buffer, sizeof buffer);
            if (length <= 0) {
                ::close(entries[i].fd);
                (isOutput ? output_ : errors_) = -1;
            } else {
                (isOutput ? text_ : errorText_).append(buffer, static_cast<std::size_t>(length));
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::string text_;
    std::string errorText_;
    std::size_t taken_ = 0;
    std::optional<int> status_;
};

class OpensslProcess : public ChildProcess {
  public:
    explicit OpensslProcess(const std::vector<std::string>& arguments)
        : ChildProcess("openssl", arguments) {}
};

}  // namespace kavrin::tcpTest
