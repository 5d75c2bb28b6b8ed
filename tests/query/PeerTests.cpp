// Independent peers read the tree: curl, and headless Chromium on a page from another origin
// (a port of this test's own), which reports back to it. Each skips without its peer.
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "../transport/OpensslProcess.hpp"
#include "ServedSpace.hpp"

namespace kavrin::queryTest {
namespace {

constexpr const char* page = R"(<!doctype html><title>OSCQuery</title><script>
const base = '//127.0.0.1:QUERY_PORT';
const report = (text) => fetch('/result?' + encodeURIComponent(text));
(async () => {
  try {
    const tree = await (await fetch('http:' + base + '/')).json();
    const gain = tree.CONTENTS.mixer.CONTENTS.gain;
    const ws = new WebSocket('ws:' + base + '/');
    ws.binaryType = 'arraybuffer';
    ws.onopen = () => ws.send(JSON.stringify({COMMAND: 'LISTEN', DATA: '/mixer/gain'}));
    ws.onerror = () => report('WebSocket error');
    ws.onmessage = (event) => {
      if (typeof event.data === 'string') return;
      // "/mixer/gain" and its padding take 12 bytes, ",f" and its padding 4, then the float.
      const value = new DataView(event.data).getFloat32(16);
      if (value === 0.75) report('tree-' + gain.TYPE + '-' + gain.VALUE[0] + '-update-' + value);
    };
  } catch (error) {
    report('failed: ' + error);
  }
})();
</script>)";

// Serves the page at every path but /result, whose query it keeps.
class PageServer {
  public:
    explicit PageServer(std::string html)
        : html_(std::move(html)),
          listener_(tcpTest::rawListen("127.0.0.1", &port_)),
          thread_([this] { serve(); }) {}
    ~PageServer() {
        stop_ = true;
        thread_.join();
    }
    std::uint16_t port() const { return port_; }
    std::string result() {
        std::lock_guard lock(mutex_);
        return result_;
    }

  private:
    void serve() {
        while (!stop_) {
            RawPeer browser(tcpTest::rawAccept(listener_.get(), 50ms));
            if (!browser.connected()) continue;
            // A browser opens connections ahead of need and may close them unused.
            const auto request = browser.readUntil(
                [](const std::string& text) { return text.find("\r\n\r\n") != text.npos; }, 2s);
            const auto space = request.find(' ');
            const auto target = space == request.npos ? std::string()
                                                      : request.substr(space + 1, request.find(' ', space + 1) - space - 1);
            std::string response = "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n";
            if (target.starts_with("/result?")) {
                std::lock_guard lock(mutex_);
                result_ = target.substr(8);  // as sent: a failure's text stays percent-escaped
            } else if (target == "/") {
                response = "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nConnection: close\r\nContent-Length: " +
                           std::to_string(html_.size()) + "\r\n\r\n" + html_;
            }
            browser.write(response);
        }
    }

    const std::string html_;
    std::uint16_t port_ = 0;
    tcpTest::Fd listener_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::string result_;
    std::thread thread_;  // last: it serves with all of the above
};

TEST(OSCQueryPeers, ChromiumReadsTheTreeAndListensFromAnotherOrigin) {
    // The browser itself, not Debian's wrapper script: stopping the process started must stop
    // the browser, which then ends its helpers.
    const std::string browser = "/usr/lib/chromium/chromium";
    if (::access(browser.c_str(), X_OK) != 0) GTEST_SKIP() << "chromium is not installed";
    ServedSpace served;
    std::string html = page;
    html.replace(html.find("QUERY_PORT"), 10, std::to_string(served.port()));
    PageServer pages(html);
    const auto profile = std::filesystem::temp_directory_path() /
                         ("kavrin-chromium-" + std::to_string(::getpid()));
    tcpTest::ChildProcess chromium(
        browser,
        {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--user-data-dir=" + profile.string(), "http://127.0.0.1:" + std::to_string(pages.port()) + "/"},
        tcpTest::ChildProcess::Errors::separate);
    const bool listening = eventually([&] { return served.server->listenerCount("/mixer/gain") == 1; }, 60s);
    if (listening) served.server->setValue("/mixer/gain", {OSCValue(0.75f)});
    eventually([&] { return !pages.result().empty(); }, 20s);
    chromium.stop(10s);
    std::filesystem::remove_all(profile);
    ASSERT_TRUE(listening) << "the page never listened; it reported: " << pages.result() << "\n"
                           << chromium.errors().substr(0, 2000);
    EXPECT_EQ(pages.result(), "tree-f-0.5-update-0.75") << chromium.errors().substr(0, 2000);
}

TEST(OSCQueryPeers, CurlReadsTheTreeAndAnAttribute) {
    if (::access("/usr/bin/curl", X_OK) != 0) GTEST_SKIP() << "curl is not installed";
    ServedSpace served;
    const auto base = "http://127.0.0.1:" + std::to_string(served.port());
    tcpTest::ChildProcess value("/usr/bin/curl", {"--silent", "--show-error", "--include", base + "/mixer/gain?VALUE"},
                                tcpTest::ChildProcess::Errors::separate);
    ASSERT_EQ(value.waitForExit(10s), 0) << value.errors();
    EXPECT_TRUE(value.output().starts_with("HTTP/1.1 200 OK\r\n")) << value.output();
    EXPECT_NE(value.output().find("\r\nContent-Type: application/json\r\n"), std::string::npos) << value.output();
    EXPECT_TRUE(value.output().ends_with("\r\n\r\n{\"VALUE\":[0.5]}")) << value.output();
    tcpTest::ChildProcess tree("/usr/bin/curl", {"--silent", "--show-error", "--fail", base + "/mixer"},
                               tcpTest::ChildProcess::Errors::separate);
    ASSERT_EQ(tree.waitForExit(10s), 0) << tree.errors();
    EXPECT_TRUE(tree.output().starts_with("{\"CONTENTS\":{\"gain\":{")) << tree.output();
}

}  // namespace
}  // namespace kavrin::queryTest
