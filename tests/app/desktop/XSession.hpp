#pragma once

#include "tests/transport/OpensslProcess.hpp"

namespace kavrin::test {

// A private X server (Xvfb) with a window manager that has a system tray (jwm), for the tests
// that need a real desktop; both are ended with the session, the window manager first.
// display() is empty when Xvfb is not installed or did not start within its bound.
class XSession {
  public:
    XSession() {
        // Xvfb picks a free display and writes its number to the descriptor given: its output.
        server_ = std::make_unique<tcpTest::ChildProcess>(
            "Xvfb",
            std::vector<std::string>{"-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten",
                                     "tcp"},
            tcpTest::ChildProcess::Errors::separate);
        const auto number = server_->nextLine(std::chrono::seconds(10));
        if (!number || number->empty()) return;
        display_ = ":" + *number;
        windowManager_ = std::make_unique<tcpTest::ChildProcess>(
            "jwm", std::vector<std::string>{"-display", display_});
    }

    const std::string& display() const { return display_; }

  private:
    std::unique_ptr<tcpTest::ChildProcess> server_;
    std::unique_ptr<tcpTest::ChildProcess> windowManager_;
    std::string display_;
};

// The display the desktop tests run on, e.g. ":1"; empty when there is none.
const std::string& desktopDisplay();

}  // namespace kavrin::test
