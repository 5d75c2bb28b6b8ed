// Independent peers read the tree: curl, and headless Chromium on a page of another origin (a
// file), which reports through its console. Each skips without its peer.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "../transport/OpensslProcess.hpp"
#include "ServedSpace.hpp"

namespace kavrin::queryTest {
namespace {

constexpr const char* page = R"(<!doctype html><title>OSCQuery</title><script>
const base = '//127.0.0.1:QUERY_PORT';
const report = (text) => console.log('result: ' + text);
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

TEST(OSCQueryPeers, ChromiumReadsTheTreeAndListensFromAnotherOrigin) {
    // The browser itself, not Debian's wrapper script: stopping the process started must stop
    // the browser, which then ends its helpers.
    const std::string browser = "/usr/lib/chromium/chromium";
    if (::access(browser.c_str(), X_OK) != 0) GTEST_SKIP() << "chromium is not installed";
    ServedSpace served;
    const auto folder = std::filesystem::temp_directory_path() /
                        ("kavrin-chromium-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    std::string html = page;
    html.replace(html.find("QUERY_PORT"), 10, std::to_string(served.port()));
    std::ofstream(folder / "page.html") << html;
    // Its console goes to standard error, merged into the output.
    tcpTest::ChildProcess chromium(
        browser,
        {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--enable-logging=stderr", "--user-data-dir=" + (folder / "profile").string(),
         "file://" + (folder / "page.html").string()});
    const bool listening = eventually([&] { return served.server->listenerCount("/mixer/gain") == 1; }, 60s);
    if (listening) served.server->setValue("/mixer/gain", {OSCValue(0.75f)});
    chromium.waitForOutput("\"result: ", 20s);
    chromium.stop(10s);
    std::filesystem::remove_all(folder);
    // What the page reported, among the browser's own lines.
    const auto& output = chromium.output();
    ASSERT_TRUE(listening) << "the page never listened:\n" << output.substr(0, 4000);
    EXPECT_NE(output.find("\"result: tree-f-0.5-update-0.75\""), output.npos) << output.substr(0, 4000);
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
