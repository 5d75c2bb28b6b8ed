#pragma once

// A command-line program as a child process with its standard input and output on pipes, its
// errors merged into the output or kept apart, and its environment this one's with `variables`
// ("NAME=value") set over it; OpensslProcess runs the openssl tool, to make test
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
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string_view>

extern char** environ;

namespace kavrin::tcpTest {

class ChildProcess {
  public:
    enum class Errors { merged, separate };

    // program is found on PATH unless it holds a slash. Standard input is a socket, so that
    // writing to a process that has ended cannot raise SIGPIPE (MSG_NOSIGNAL).
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 Errors errors = Errors::merged, std::vector<std::string> variables = {}) {
        for (char** variable = environ; *variable; ++variable) {
            const std::string_view name(*variable, std::strcspn(*variable, "="));
            if (std::none_of(variables.begin(), variables.end(), [&](const std::string& set) {
                    return set.starts_with(name) && set.size() > name.size() &&
                           set[name.size()] == '=';
                })) {
                variables.emplace_back(*variable);
            }
        }
        std::vector<char*> environment;
        for (auto& variable : variables) environment.push_back(variable.data());
        environment.push_back(nullptr);
        int input[2] = {-1, -1}, output[2] = {-1, -1}, error[2] = {-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) == 0 &&
            ::pipe2(output, O_CLOEXEC) == 0 &&
            (errors == Errors::merged || ::pipe2(error, O_CLOEXEC) == 0)) {
            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init(&actions);
            posix_spawn_file_actions_adddup2(&actions, input[1], 0);
            posix_spawn_file_actions_adddup2(&actions, output[1], 1);
            posix_spawn_file_actions_adddup2(&actions, error[1] != -1 ? error[1] : output[1], 2);
            std::vector<std::string> argv = {program};
            argv.insert(argv.end(), arguments.begin(), arguments.end());
            std::vector<char*> pointers;
            for (auto& argument : argv) pointers.push_back(argument.data());
            pointers.push_back(nullptr);
            if (::posix_spawnp(&pid_, program.c_str(), &actions, nullptr, pointers.data(),
                               environment.data()) != 0) {
                pid_ = -1;
            }
            posix_spawn_file_actions_destroy(&actions);
        }
        closeAll({input[1], output[1], error[1]});
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
        closeAll({input_, output_, errors_});
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
        const auto deadline = Clock::now() + bound;
        while (!done(text_)) {
            if (output_ == -1 || !readSome(deadline)) return false;
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

    // The lines up to and including the next one that starts with `prefix`; on timeout, those
    // read until then and an empty line.
    std::vector<std::string> linesThrough(
        std::string_view prefix, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        std::vector<std::string> lines;
        do {
            lines.push_back(nextLine(bound).value_or(""));
        } while (!lines.back().empty() && !lines.back().starts_with(prefix));
        return lines;
    }

    // The exit status (128 + the signal's number for one that ended it), once the process has
    // ended within the bound. Reading the output meanwhile keeps a chatty process from blocking
    // on a full pipe; what it wrote last may still be in the pipes when it has ended.
    std::optional<int> waitForExit(std::chrono::milliseconds bound) {
        const auto deadline = Clock::now() + bound;
        for (int status = 0; !status_ && pid_ > 0;) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                for (const auto drained = Clock::now() + std::chrono::seconds(1);
                     readSome(drained);) {
                }
                break;
            }
            if (Clock::now() >= deadline) break;
            const auto step = std::min(deadline, Clock::now() + std::chrono::milliseconds(20));
            if (!readSome(step)) ::poll(nullptr, 0, static_cast<int>(left(step).count()));
        }
        return status_;
    }

    // Asks the process to end (SIGTERM, unless another signal is given) and waits for its exit
    // status.
    std::optional<int> stop(std::chrono::milliseconds bound, int signal = SIGTERM) {
        if (pid_ > 0 && !status_) ::kill(pid_, signal);
        return waitForExit(bound);
    }

  private:
    using Clock = std::chrono::steady_clock;

    static std::chrono::milliseconds left(Clock::time_point deadline) {
        return std::max(
            std::chrono::milliseconds(0),
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
    }

    static void closeAll(std::initializer_list<int> fds) {
        for (const int fd : fds) {
            if (fd != -1) ::close(fd);
        }
    }

    // Reads what either stream has; false when the deadline passed first or both have ended.
    bool readSome(Clock::time_point deadline) {
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

    // The port s_server accepts on, once its line "ACCEPT" with the address is whole; 0 when
    // that does not come within the bound.
    std::uint16_t acceptingPort(std::chrono::milliseconds bound) {
        const auto lineEnd = [](const std::string& output) {
            const auto accept = output.find("ACCEPT");
            return accept == output.npos ? output.npos : output.find('\n', accept);
        };
        if (!waitFor([&](const std::string& output) { return lineEnd(output) != output.npos; },
                     bound)) {
            return 0;
        }
        return static_cast<std::uint16_t>(
            std::stoi(output().substr(output().rfind(':', lineEnd(output())) + 1)));
    }
};

}  // namespace kavrin::tcpTest
