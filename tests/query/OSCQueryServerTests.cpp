// The OSCQuery server over raw HTTP and WebSocket connections: what it answers, and what it
// does with bad input and with peers that hold on to connections or never read.
#include <nlohmann/json.hpp>

#include <sys/resource.h>

#include <list>

#include "ServedSpace.hpp"
#include "osc/codec/OSCMessage.hpp"

namespace kavrin::queryTest {
namespace {

using Json = nlohmann::json;

TEST(OSCQueryServer, AnswersTheTreeItsAttributesAndHostInfo) {
    ServedSpace served;
    const Json gain = R"({"FULL_PATH": "/mixer/gain", "TYPE": "f", "DESCRIPTION": "Gain", "ACCESS": 3,
                          "RANGE": [{"MIN": 0.0, "MAX": 1.0}], "VALUE": [0.5]})"_json;
    const Json mixer = {{"FULL_PATH", "/mixer"},
                        {"CONTENTS",
                         {{"gain", gain},
                          {"name", {{"FULL_PATH", "/mixer/name"}, {"TYPE", "s"}, {"ACCESS", 1}}}}}};
    const Json root = {{"FULL_PATH", "/"},
                       {"CONTENTS", {{"mixer", mixer}, {"ping", {{"FULL_PATH", "/ping"}, {"ACCESS", 0}}}}}};
    const struct {
        std::string target;
        int status;
        Json body;  // null: none
    } cases[] = {
        {"/", 200, root},
        {"/mixer/", 200, mixer},
        {"/mixer/gain?VALUE", 200, {{"VALUE", {0.5}}}},
        {"/mixer/gain?TYPE", 200, {{"TYPE", "f"}}},
        {"/mixer%2Fgain?RANGE", 200, {{"RANGE", gain["RANGE"]}}},  // an escaped slash is a slash
        {"/mixer/name?VALUE", 204, nullptr},
        {"/mixer?ACCESS", 204, nullptr},
        {"/nowhere", 404, {{"ERROR", "no node at /nowhere"}}},
        {"/mixer/gain?COLOUR", 400, {{"ERROR", "no attribute COLOUR"}}},
        {"/a/%2E%2E/mixer", 400, {{"ERROR", "the path holds .."}}},
        {"/mixer%00", 400, {{"ERROR", "the path holds a NUL"}}},
        {"/mixer%C3%A9", 400, {{"ERROR", "the path holds a byte outside ASCII"}}},
        {"/mixer%4", 400, {{"ERROR", "a broken percent-escape in the path"}}},
    };
    for (const auto& test : cases) {
        const auto response = served.get(test.target);
        EXPECT_EQ(statusOf(response), test.status) << test.target << "\n" << response;
        EXPECT_NE(response.find("Access-Control-Allow-Origin: *\r\n"), response.npos) << test.target;
        const auto body = bodyOf(response);
        if (test.body.is_null()) {
            EXPECT_EQ(body, "") << test.target;
        } else {
            EXPECT_EQ(Json::parse(body, nullptr, false), test.body) << test.target << ": " << body;
            EXPECT_EQ(body, Json::parse(body, nullptr, false).dump()) << "not as the JSON library writes it";
        }
    }
    // The tree as it is now, not as it was last read.
    served.server->setValue("/mixer/gain", {OSCValue(0.25f)});
    OSCQueryAttributes desk;
    desk.description = "Desk";
    served.server->setAttributes("/mixer", desk);
    served.server->registerMethod(R"(/say"hi")", [](const OSCValueList&) {});
    served.queue->sync([] {});
    const auto body = bodyOf(served.get("/"));
    const auto tree = Json::parse(body);
    EXPECT_EQ(body, tree.dump());
    EXPECT_EQ(tree["CONTENTS"]["say\"hi\""]["FULL_PATH"], R"(/say"hi")");
    EXPECT_EQ(tree["CONTENTS"]["mixer"]["DESCRIPTION"], "Desk");
    EXPECT_EQ(tree["CONTENTS"]["mixer"]["CONTENTS"]["gain"]["VALUE"], Json::array({0.25}));
    const auto info = Json::parse(bodyOf(served.get("/?HOST_INFO")));
    EXPECT_EQ(info["NAME"], "Test desk");
    EXPECT_EQ(info["OSC_IP"], "127.0.0.1");  // where this client reached the server
    EXPECT_EQ(info["OSC_PORT"], 9000);
    EXPECT_EQ(info["OSC_TRANSPORT"], "UDP");
    EXPECT_EQ(info["EXTENSIONS"]["LISTEN"], true);
    EXPECT_EQ(info["EXTENSIONS"]["PATH_RENAMED"], false);
}

TEST(OSCQueryServer, BadRequestsCostOnlyTheirOwnConnection) {
    ServedSpace served;
    const struct {
        std::string request;
        int status;
    } cases[] = {
        {"HELLO\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: x\r\nX-Long: " + std::string(9000, 'a') + "\r\n\r\n", 431},
        {"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n", 413},
        {"POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\n{}", 405},
        {"DELETE /mixer HTTP/1.1\r\nHost: x\r\n\r\n", 405},
    };
    for (const auto& test : cases) {
        RawPeer peer(served.port());
        peer.write(test.request);
        const auto response = peer.readAll();
        EXPECT_EQ(statusOf(response), test.status) << test.request.substr(0, 40) << "\n" << response;
        EXPECT_TRUE(peer.closed()) << test.request.substr(0, 40);
    }
    // A browser's preflight is answered; the connection stays for the request after it.
    RawPeer preflight(served.port());
    preflight.write("OPTIONS /mixer HTTP/1.1\r\nHost: x\r\nOrigin: http://page.example\r\n\r\n");
    const auto answer = preflight.readUntil([](const std::string& text) { return text.find("\r\n\r\n") != text.npos; });
    EXPECT_EQ(statusOf(answer), 204) << answer;
    EXPECT_NE(answer.find("Access-Control-Allow-Methods: GET, OPTIONS"), answer.npos) << answer;
    EXPECT_EQ(statusOf(served.get("/")), 200);
}

TEST(OSCQueryServer, IdleConnectionsAreBoundedAndOthersAreStillServed) {
    // Both ends of 1,100 connections live in this process.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::max<rlim_t>(files.rlim_cur, std::min<rlim_t>(files.rlim_max, 4096));
    setrlimit(RLIMIT_NOFILE, &files);
    ServedSpace served;
    std::list<RawPeer> idle;
    for (int i = 0; i < 1000; ++i) idle.emplace_back(served.port());
    ASSERT_TRUE(eventually([&] { return served.server->connectionCount() == 1000; }))
        << served.server->connectionCount();
    EXPECT_EQ(statusOf(served.get("/mixer/gain?VALUE")), 200);
    // Past the cap the longest idle ones make room, and requests are still answered.
    for (int i = 0; i < 100; ++i) idle.emplace_back(served.port());
    EXPECT_EQ(statusOf(served.get("/mixer/gain?VALUE")), 200);
    EXPECT_LE(served.server->connectionCount(), 1024u);
    EXPECT_TRUE(idle.front().readUntil([](const std::string&) { return false; }, 2s).empty());
    EXPECT_TRUE(idle.front().closed());
}

// The status code and reason of the close frame among unmasked server frames, "" before one.
std::string closeFrame(const std::string& bytes) {
    for (std::size_t i = 0; i + 2 <= bytes.size();) {
        const auto opcode = static_cast<unsigned char>(bytes[i]) & 0x0F;
        const std::size_t length = static_cast<unsigned char>(bytes[i + 1]) & 0x7F;
        if (length >= 126 || i + 2 + length > bytes.size()) return "";
        if (opcode == 8 && length >= 2) {
            return std::to_string(static_cast<unsigned char>(bytes[i + 2]) << 8 |
                                  static_cast<unsigned char>(bytes[i + 3])) +
                   " " + bytes.substr(i + 4, length - 2);
        }
        i += 2 + length;
    }
    return "";
}

std::string closeReason(RawPeer& peer) {
    return closeFrame(peer.readUntil([](const std::string& bytes) { return !closeFrame(bytes).empty(); }));
}

TEST(OSCQueryServer, BadCommandsAndUnwantedWritesCloseTheWebSocket) {
    OSCQueryServer::Settings settings;
    settings.acceptValues = true;
    settings.writeOrigins = {"http://good.example"};
    ServedSpace served(settings);
    ServedSpace readOnly;
    const auto write = OSCMessage("/mixer/gain", {OSCValue(0.25f)}).rawData();
    const std::string packet(write.begin(), write.end());
    const struct {
        ServedSpace& served;
        std::string origin;
        int opcode;
        std::string payload;
        std::string closed;  // the close frame's code and reason
    } cases[] = {
        {served, "", 1, "LISTEN /mixer/gain", "1008 a bad command: not JSON"},
        {served, "", 1, R"({"COMMAND": "SHOUT", "DATA": "/mixer"})", "1008 a bad command: an unknown command SHOUT"},
        {served, "", 1, R"({"COMMAND": "LISTEN", "DATA": "/../etc"})", "1008 a bad command: the path holds .."},
        {served, "", 2, "not OSC", "1008 not an OSC packet"},
        {readOnly, "", 2, packet, "1008 this server takes no values"},
        {served, "http://evil.example", 2, packet, "1008 pages of http://evil.example may not send values"},
    };
    for (const auto& test : cases) {
        RawPeer peer(test.served.port());
        ASSERT_TRUE(peer.upgrade(test.origin));
        peer.sendFrame(test.opcode, test.payload);
        EXPECT_EQ(closeReason(peer), test.closed) << test.payload;
    }
    for (const std::string origin : {"", "http://good.example"}) {
        RawPeer peer(served.port());
        ASSERT_TRUE(peer.upgrade(origin));
        const int before = served.gainWrites;
        peer.sendFrame(2, packet);
        EXPECT_TRUE(eventually([&] { return served.gainWrites == before + 1; })) << origin;
    }
}

TEST(OSCQueryServer, AListenerThatNeverReadsIsDroppedPastTheQueueBound) {
    ServedSpace served;
    RawPeer slow(served.port());
    ASSERT_TRUE(slow.upgrade());
    slow.sendFrame(1, R"({"COMMAND": "LISTEN", "DATA": "/big"})");
    ASSERT_TRUE(eventually([&] { return served.server->listenerCount("/big") == 1; }));
    const OSCValue blob(OSCBlob(std::vector<std::uint8_t>(60'000, 0xAB)));
    // 16 MiB waits for it at most, besides what the kernel's buffers hold.
    for (int i = 0; i < 2000 && served.server->listenerCount("/big") == 1; ++i) {
        served.server->setValue("/big", {blob});
        if (i % 100 == 99) eventually([&] { return served.server->listenerCount("/big") == 0; }, 50ms);
    }
    EXPECT_TRUE(eventually([&] { return served.server->listenerCount("/big") == 0; }));
    EXPECT_EQ(statusOf(served.get("/mixer/gain?VALUE")), 200);
}

}  // namespace
}  // namespace kavrin::queryTest
