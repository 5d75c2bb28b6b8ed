// OSCQueryClient against our server: reading the tree and HOST_INFO, listening, following the
// tree's changes and sending to the OSC port; and the JSON of values both ways.

#include "ServedSpace.hpp"
#include "osc/dispatch/ManualQueue.hpp"
#include "osc/query/OSCQueryClient.hpp"
#include "osc/query/detail/OSCQueryJson.hpp"
#include "osc/transport/OSCServer.hpp"

namespace kavrin::queryTest {
namespace {

struct Client {
    explicit Client(std::uint16_t port) : client(OSCQueryClient::create("127.0.0.1", port, queue)) {}
    bool until(const std::function<bool()>& done) { return queue->drainUntil(done, 5s); }

    const std::shared_ptr<ManualQueue> queue = std::make_shared<ManualQueue>();
    const std::shared_ptr<OSCQueryClient> client;
};

TEST(OSCQueryClient, ReadsTheTreeAndHostInfo) {
    ServedSpace served;
    Client reader(served.port());
    std::optional<OSCQueryNode> tree;
    std::optional<OSCQueryHostInfo> info;
    std::string missing;
    reader.client->fetchTree([&](std::optional<OSCQueryNode> found, const std::string&) { tree = found; });
    reader.client->fetchHostInfo([&](std::optional<OSCQueryHostInfo> found, const std::string&) { info = found; });
    reader.client->fetchTree([&](std::optional<OSCQueryNode>, const std::string& error) { missing = error; },
                             "/nowhere");
    ASSERT_TRUE(reader.until([&] { return tree && info && !missing.empty(); }));

    std::vector<std::string> methods;
    for (const auto* method : tree->methods()) methods.push_back(method->fullPath);
    EXPECT_EQ(methods, (std::vector<std::string>{"/mixer/gain", "/mixer/name", "/ping"}));
    const OSCQueryAttributes gain{
        "f", "Gain", OSCQueryAccess::readWrite, {{OSCValue(0.0f), OSCValue(1.0f), {}}}};
    ASSERT_NE(tree->find("/mixer/gain"), nullptr);
    EXPECT_EQ(*tree->find("/mixer/gain"), (OSCQueryNode{"/mixer/gain", gain, {OSCValue(0.5f)}}));
    EXPECT_EQ(tree->find("/ping")->attributes.type, std::nullopt);
    EXPECT_EQ(tree->find("/mixer/gai"), nullptr);

    EXPECT_EQ(info->name, "Test desk");
    EXPECT_EQ(info->oscPort, 9000);
    EXPECT_EQ(info->oscTransport, OSCQueryTransport::udp);
    EXPECT_EQ(missing, "HTTP 404: no node at /nowhere");

    std::string refused;
    Client nobody(served.port());
    served.server.reset();
    nobody.client->fetchTree([&](std::optional<OSCQueryNode>, const std::string& error) { refused = error; });
    ASSERT_TRUE(nobody.until([&] { return !refused.empty(); }));
    EXPECT_TRUE(refused.starts_with("cannot connect")) << refused;
}

TEST(OSCQueryClient, ListensToValuesAndFollowsTheTree) {
    ServedSpace served;
    Client listener(served.port());
    std::vector<OSCMessage> values;
    std::vector<std::string> changes;
    listener.client->setValueHandler([&](const OSCMessage& message) { values.push_back(message); });
    listener.client->setPathHandler([&](OSCQueryClient::PathEvent event, const std::string& path, const OSCQueryNode* node) {
        changes.push_back((event == OSCQueryClient::PathEvent::added ? "+" : "-") + path +
                          (node && node->attributes.type ? " " + *node->attributes.type : ""));
    });
    listener.client->listen("/mixer/gain");
    // A listener starts from the current value, then gets each new one.
    ASSERT_TRUE(listener.until([&] { return values.size() == 1; }));
    served.server->setValue("/mixer/gain", {OSCValue(0.75f)});
    served.server->setValue("/mixer/name", {OSCValue(std::string("not listened to"))});
    ASSERT_TRUE(listener.until([&] { return values.size() == 2; }));
    EXPECT_EQ(values[0], OSCMessage("/mixer/gain", {OSCValue(0.5f)}));
    EXPECT_EQ(values[1], OSCMessage("/mixer/gain", {OSCValue(0.75f)}));

    OSCQueryAttributes mute;
    mute.type = "T";
    served.server->registerMethod("/mixer/mute", [](const OSCValueList&) {}, mute);
    served.server->unregisterMethod("/mixer/mute");
    ASSERT_TRUE(listener.until([&] { return changes.size() == 2; }));
    EXPECT_EQ(changes, (std::vector<std::string>{"+/mixer/mute T", "-/mixer/mute"}));

    listener.client->ignore("/mixer/gain");
    EXPECT_TRUE(eventually([&] { return served.server->listenerCount("/mixer/gain") == 0; }));
}

TEST(OSCQueryClient, SendsToTheOSCPortHostInfoNames) {
    auto queue = std::make_shared<ManualQueue>();
    std::vector<OSCMessage> received;
    auto osc = OSCServer::create(0, nullptr, queue, OSCServer::TimeTagMode::ignore,
                                 [&](const OSCMessage& message, const OSCTimeTag&) { received.push_back(message); });
    osc->start();
    ServedSpace served;
    served.server->describeOSCServer(*osc);
    auto client = OSCQueryClient::create("127.0.0.1", served.port(), queue);
    std::optional<std::string> sent;
    client->send(OSCMessage("/mixer/gain", {OSCValue(0.25f)}), [&](const std::string& error) { sent = error; });
    ASSERT_TRUE(queue->drainUntil([&] { return sent && !received.empty(); }, 5s));
    EXPECT_EQ(*sent, "");
    EXPECT_EQ(received.front(), OSCMessage("/mixer/gain", {OSCValue(0.25f)}));
}

TEST(OSCQueryJson, ValuesGoBothWaysByTheirTypeTags) {
    using detail::valuesFromJson;
    using detail::valuesJson;
    const struct {
        std::string tags;
        OSCValueList values;
    } cases[] = {
        {"ihfd", {OSCValue(std::int32_t{-7}), OSCValue(std::int64_t{1} << 40), OSCValue(0.5f), OSCValue(2.25)}},
        {"sSc", {OSCValue(std::string("text")), OSCValue(OSCStringAltValue{"alt"}), OSCValue(char32_t{0xE9})}},
        {"TFIN", {OSCValue(true), OSCValue(false), OSCValue(OSCImpulseValue{}), OSCValue(OSCNullValue{})}},
        {"mt", {OSCValue(OSCMIDIValue{1, 0x90, 60, 127}), OSCValue(OSCTimeTag{0, 42})}},
        {"i[f[s]]", {OSCValue(std::int32_t{1}),
                     OSCValue(OSCArrayValue{{OSCValue(1.5f), OSCValue(OSCArrayValue{{OSCValue(std::string("a"))}})}})}},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(valuesFromJson(valuesJson(test.values), test.tags), test.values) << test.tags;
    }
    const struct {
        const char* json;
        const char* tags;
    } mismatches[] = {
        {"[1.5]", "i"}, {"[3000000000]", "i"}, {"[\"ab\"]", "c"}, {"[[1,2,3]]", "m"},
        {"[1]", "s"},   {"[1, 2]", "i"},      {"[[1]]", "[i"},   {"[1]", "x"},
    };
    for (const auto& test : mismatches) {
        EXPECT_EQ(valuesFromJson(detail::Json::parse(test.json), test.tags), std::nullopt) << test.json << " " << test.tags;
    }
}

}  // namespace
}  // namespace kavrin::queryTest
