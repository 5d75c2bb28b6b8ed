#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QStandardPaths>
#include <QString>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace kavrin::test {

// A private X server (Xvfb) with a window manager that has a system tray (jwm), for the tests
// that need a real desktop. Started in the constructor, each step bounded; stopped in the
// destructor. display() is empty when Xvfb is not installed or did not start.
class XSession {
  public:
    XSession() {
        const QString xvfb = QStandardPaths::findExecutable(QStringLiteral("Xvfb"));
        if (xvfb.isEmpty()) return;
        int ready[2];
        if (::pipe(ready) != 0) return;
        // Xvfb picks a free display and writes its number to the inherited descriptor.
        server_ = spawn(xvfb.toStdString(), {"-displayfd", std::to_string(ready[1]), "-screen", "0",
                                             "1024x768x24", "-nolisten", "tcp"});
        ::close(ready[1]);
        std::string number;
        pollfd readable{ready[0], POLLIN, 0};
        char c;
        while (::poll(&readable, 1, 10'000) == 1 && ::read(ready[0], &c, 1) == 1 && c != '\n') {
            number += c;
        }
        ::close(ready[0]);
        if (number.empty()) return;
        display_ = ":" + number;
        const QString jwm = QStandardPaths::findExecutable(QStringLiteral("jwm"));
        if (!jwm.isEmpty()) windowManager_ = spawn(jwm.toStdString(), {"-display", display_});
    }

    ~XSession() {
        for (pid_t pid : {windowManager_, server_}) {
            if (pid <= 0) continue;
            ::kill(pid, SIGTERM);
            int status = 0;
            for (int i = 0; i < 50 && ::waitpid(pid, &status, WNOHANG) == 0; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            if (::waitpid(pid, &status, WNOHANG) == 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &status, 0);
            }
        }
    }

    XSession(const XSession&) = delete;
    XSession& operator=(const XSession&) = delete;

    const std::string& display() const { return display_; }

  private:
    static pid_t spawn(const std::string& program, std::vector<std::string> arguments) {
        std::vector<char*> argv;
        std::string path = program;
        argv.push_back(path.data());
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        pid_t pid = -1;
        if (::posix_spawn(&pid, path.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }

    pid_t server_ = -1;
    pid_t windowManager_ = -1;
    std::string display_;
};

// The display the desktop tests run on, e.g. ":1"; empty when there is none.
const std::string& desktopDisplay();

}  // namespace kavrin::test
