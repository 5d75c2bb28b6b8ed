#pragma once

// The openssl command-line tool as a child process with its standard input and output (errors
// merged) on pipes: to make test certificates, and as an independent TLS peer (s_server,
// s_client). Every wait has a bound; the destructor ends the process and reaps it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

extern char** environ;

namespace kavrin::tcpTest {

class OpensslProcess {
  public:
    explicit OpensslProcess(const std::vector<std::string>& arguments) {
        // Standard input is a socket, so that writing to a process that has ended cannot raise
        // SIGPIPE (MSG_NOSIGNAL).
        int input[2];
        int output[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0) {
            return;
        }
        if (::pipe2(output, O_CLOEXEC) != 0) {
            ::close(input[0]);
            ::close(input[1]);
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[1], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        posix_spawn_file_actions_adddup2(&actions, output[1], 2);
        std::vector<std::string> argv = {"openssl"};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<char*> pointers;
        for (auto& argument : argv) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        if (::posix_spawnp(&pid_, "openssl", &actions, nullptr, pointers.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(input[1]);
        ::close(output[1]);
        input_ = input[0];
        output_ = output[0];
    }

    ~OpensslProcess() {
        if (pid_ > 0 && !status_) {
            ::kill(pid_, SIGTERM);
            if (!waitForExit(std::chrono::seconds(5))) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
            }
        }
        if (input_ != -1) {
            ::close(input_);
        }
        if (output_ != -1) {
            ::close(output_);
        }
    }

    OpensslProcess(const OpensslProcess&) = delete;
    OpensslProcess& operator=(const OpensslProcess&) = delete;

    bool started() const { return pid_ > 0; }
    const std::string& output() const { return text_; }

    bool send(std::string_view text) {
        return input_ != -1 && ::send(input_, text.data(), text.size(), MSG_NOSIGNAL) ==
                                   static_cast<ssize_t>(text.size());
    }

    // Reads output until it holds text; false at the bound or when the output ends first.
    bool waitForOutput(std::string_view text, std::chrono::milliseconds bound) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (text_.find(text) == std::string::npos) {
            if (!readSome(deadline)) {
                return false;
            }
        }
        return true;
    }

    // The exit status, once the process has ended within the bound.
    std::optional<int> waitForExit(std::chrono::milliseconds bound) {
        const auto deadline = std::chrono::steady_clock::now() + bound;
        while (!status_ && pid_ > 0) {
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            // Draining the output keeps a chatty process from blocking on a full pipe, and the
            // poll in it is the wait between checks.
            if (!readSome(std::min(deadline, std::chrono::steady_clock::now() +
                                                 std::chrono::milliseconds(20))) &&
                std::chrono::steady_clock::now() >= deadline) {
                break;
            }
        }
        return status_;
    }

  private:
    bool readSome(std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{output_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) != 1) {
            return false;
        }
        char buffer[4096];
        const ssize_t count = ::read(output_, buffer, sizeof buffer);
        if (count <= 0) {
            return false;
        }
        text_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string text_;
    std::optional<int> status_;
};

}  // namespace kavrin::tcpTest
