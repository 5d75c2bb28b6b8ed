#include <string_view>
#include <unordered_set>
#include <utility>

#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/ManualQueue.hpp"

namespace kavrin {
namespace {

using MethodID = OSCAddressSpace::MethodID;
using NodeType = OSCAddressSpace::NodeType;

// Records which blocks ran, in order, with the values they got.
struct CallLog {
    std::vector<std::string> calls;
    std::vector<OSCValueList> values;

    OSCAddressSpace::Block block(std::string name) {
        return [this, name](const OSCValueList& given) {
            calls.push_back(name);
            values.push_back(given);
        };
    }
};

std::vector<MethodID> dispatch(OSCAddressSpace& space, const char* address) {
    return space.dispatch(OSCMessage(address));
}

// The node at a registered address such as "/a/b", taken literally; nullptr if there is none.
const OSCAddressSpace::Node* find(const OSCAddressSpace& space, std::string_view address) {
    const OSCAddressSpace::Node* node = &space.root();
    for (const auto name : OSCAddressPattern::pathComponents(address)) {
        const OSCAddressSpace::Node* next = nullptr;
        for (const auto& child : node->children()) {
            if (child->name() == name) next = child.get();
        }
        if (!next) return nullptr;
        node = next;
    }
    return node;
}

TEST(OSCAddressSpace, RegisteringAnExistingNodeKeepsItsIdAndChildrenAndReplacesTheBlock) {
    OSCAddressSpace space;
    CallLog log;
    const MethodID b = space.registerMethod("/a/b", log.block("first"));
    const MethodID containerID = find(space, "/a")->id();
    // The intermediate node stays a container and is never called.
    EXPECT_EQ(find(space, "/a")->nodeType(), NodeType::container);
    EXPECT_TRUE(dispatch(space, "/a").empty());
    EXPECT_EQ(space.registerMethod("/a/b", log.block("b")), b);
    const MethodID a = space.registerMethod("/a", log.block("a"));
    EXPECT_EQ(a, containerID);
    EXPECT_EQ(find(space, "/a")->nodeType(), NodeType::method);
    EXPECT_EQ(find(space, "/a")->children().size(), 1u);
    EXPECT_EQ(dispatch(space, "/*"), std::vector<MethodID>{a});
    EXPECT_EQ(dispatch(space, "/*/*"), std::vector<MethodID>{b});
    EXPECT_EQ(log.calls, (std::vector<std::string>{"a", "b"}));

    // Registration converts text to ASCII and is case-sensitive.
    const MethodID cafe = space.registerMethod("/caf\xC3\xA9", log.block("cafe"));
    EXPECT_EQ(dispatch(space, "/cafe"), std::vector<MethodID>{cafe});
    EXPECT_TRUE(dispatch(space, "/CAFE").empty());

    // The root is no method: registering there stores nothing.
    const MethodID empty = space.registerMethod("", log.block("empty"));
    EXPECT_NE(empty, space.registerMethod("/", log.block("slash")));
    EXPECT_EQ(space.root().children().size(), 2u);
    EXPECT_FALSE(space.unregister(""));
    EXPECT_FALSE(space.unregister(empty));
    EXPECT_TRUE(dispatch(space, "/").empty());
    EXPECT_EQ(log.calls.size(), 3u);
}

TEST(OSCAddressSpace, UnregisterByAddressOrIdRemovesLeavesAndDemotesMethodsWithChildren) {
    // By address, or by the id of whatever node stands at that address.
    using Unregister = bool (*)(OSCAddressSpace&, const char*);
    const std::pair<const char*, Unregister> ways[] = {
        {"address",
         [](OSCAddressSpace& space, const char* address) { return space.unregister(address); }},
        {"id",
         [](OSCAddressSpace& space, const char* address) {
             const auto* node = find(space, address);
             return space.unregister(node ? node->id() : MethodID::random());
         }},
    };
    for (const auto& [way, unregister] : ways) {
        SCOPED_TRACE(way);
        OSCAddressSpace space;
        CallLog log;
        space.registerMethod("/a/b", log.block("b"));
        EXPECT_FALSE(unregister(space, "/a"));  // a container, never a method
        space.registerMethod("/a", log.block("a"));
        const MethodID z = space.registerMethod("/z", log.block("z"));
        EXPECT_FALSE(unregister(space, "/"));
        EXPECT_FALSE(unregister(space, "/missing"));
        EXPECT_FALSE(unregister(space, "/a/b/c"));

        EXPECT_TRUE(unregister(space, "/a"));
        ASSERT_NE(find(space, "/a"), nullptr);
        EXPECT_EQ(find(space, "/a")->nodeType(), NodeType::container);
        EXPECT_FALSE(find(space, "/a")->hasBlock());
        EXPECT_TRUE(dispatch(space, "/a").empty());
        EXPECT_FALSE(unregister(space, "/a"));

        EXPECT_TRUE(unregister(space, "/a/b"));
        EXPECT_EQ(find(space, "/a/b"), nullptr);
        EXPECT_FALSE(unregister(space, "/a/b"));
        // The emptied container stays.
        ASSERT_NE(find(space, "/a"), nullptr);
        EXPECT_TRUE(find(space, "/a")->children().empty());

        EXPECT_EQ(dispatch(space, "/z"), std::vector<MethodID>{z});
        EXPECT_EQ(log.calls, std::vector<std::string>{"z"});
    }
}

TEST(OSCAddressSpace, DispatchFollowsLevelsParentsAndCreationOrderAndRegisteredWildcardsAreNames) {
    OSCAddressSpace space;
    CallLog log;
    const MethodID ax = space.registerMethod("/a/x", log.block("a/x"));
    const MethodID ay = space.registerMethod("/a/y", log.block("a/y"));
    const MethodID star = space.registerMethod("/a/*", log.block("a/*"));
    const MethodID q1 = space.registerMethod("/q/1/v", log.block("q/1/v"));
    const MethodID p1 = space.registerMethod("/p/1/v", log.block("p/1/v"));
    const MethodID p2 = space.registerMethod("/p/2/v", log.block("p/2/v"));

    EXPECT_EQ(dispatch(space, "/a/*"), (std::vector<MethodID>{ax, ay, star}));
    EXPECT_EQ(log.calls, (std::vector<std::string>{"a/x", "a/y", "a/*"}));
    // q was created before p, so all of q's matches come first.
    EXPECT_EQ(space.methodIDs(OSCAddressPattern("/[pq]/*/v")), (std::vector<MethodID>{q1, p1, p2}));
    EXPECT_EQ(space.methodIDs(OSCAddressPattern("/*/[!1]/v")), std::vector<MethodID>{p2});
    EXPECT_EQ(space.methodIDs(OSCAddressPattern("/{p,q}/1/v")), (std::vector<MethodID>{q1, p1}));
    EXPECT_EQ(space.methodIDs(OSCAddressPattern("/a/[*]")), std::vector<MethodID>{star});
    // methodIDs calls nothing.
    EXPECT_EQ(log.calls.size(), 3u);
    // Containers on the way are not results; the patterns with no components find nothing.
    EXPECT_TRUE(space.methodIDs(OSCAddressPattern("/*")).empty());
    EXPECT_TRUE(space.methodIDs(OSCAddressPattern("")).empty());
    EXPECT_TRUE(space.methodIDs(OSCAddressPattern("/a/x/y")).empty());
    EXPECT_TRUE(space.unregister("/a/*"));
    EXPECT_EQ(space.methodIDs(OSCAddressPattern("/a/*")), (std::vector<MethodID>{ax, ay}));
}

TEST(OSCAddressSpace, DispatchRunsTheBlocksInlineOrAsOneQueuedItemThatOwnsWhatItNeeds) {
    CallLog log;
    auto queue = std::make_shared<ManualQueue>();
    const OSCValueList values = {std::int32_t{7}, std::string("x"), 2.5f};
    std::vector<std::thread::id> threads;
    {
        OSCAddressSpace space;
        const MethodID x = space.registerMethod("/a/x", [&](const OSCValueList& given) {
            threads.push_back(std::this_thread::get_id());
            log.block("x")(given);
        });
        const MethodID y = space.registerMethod("/a/y", log.block("y"));
        EXPECT_EQ(space.dispatch(OSCMessage("/a/x", values)), std::vector<MethodID>{x});
        EXPECT_EQ(threads, std::vector<std::thread::id>{std::this_thread::get_id()});
        EXPECT_EQ(log.values, std::vector<OSCValueList>{values});

        // Nothing runs before the queue does, and unregistering now does not stop it.
        EXPECT_EQ(space.dispatch(OSCMessage("/a/*", values), queue), (std::vector<MethodID>{x, y}));
        EXPECT_EQ(queue->pending(), 1u);
        EXPECT_EQ(log.calls.size(), 1u);
        EXPECT_TRUE(space.unregister("/a/x"));

        // A method without a block is found but nothing is called.
        const MethodID silent = space.registerMethod("/silent", nullptr);
        EXPECT_EQ(dispatch(space, "/silent"), std::vector<MethodID>{silent});
        // A block may change the space while it is being dispatched.
        const MethodID once = space.registerMethod("/once", [&](const auto&) {
            space.unregister("/once");
            space.registerMethod("/later", nullptr);
        });
        EXPECT_EQ(dispatch(space, "/once"), std::vector<MethodID>{once});
        EXPECT_TRUE(dispatch(space, "/once").empty());
    }
    EXPECT_EQ(queue->drain(), 1u);
    EXPECT_EQ(log.calls, (std::vector<std::string>{"x", "x", "y"}));
    EXPECT_EQ(log.values, std::vector<OSCValueList>(3, values));
    EXPECT_EQ(queue->drain(), 0u);
}

TEST(OSCAddressSpace, MethodIDsAreRandomVersion4UUIDs) {
    // Upper-case hexadecimal, version 4, variant 10xx.
    const auto version4 = ::testing::MatchesRegex(
        "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::unordered_set<MethodID> seen;
    for (int i = 0; i < 1000; ++i) {
        const MethodID id = MethodID::random();
        EXPECT_THAT(id.description(), version4);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace kavrin
