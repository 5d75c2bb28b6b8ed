#include <cstdint>
#include <limits>

#include "support/MemoryPreferenceStore.hpp"
#include "support/Preference.hpp"

namespace kavrin {
namespace {

// Each type falls back to the default as it says: a string only when missing, an integer when
// it reads as 0 (deliberately also a stored 0, never a wanted port), a boolean unless it reads
// as true or false.
TEST(Preference, FallsBackToTheDefaultAsEachTypeSays) {
    MemoryPreferenceStore store;
    Preference<std::string> ip(store, "ip", "localhost");
    EXPECT_EQ(ip.value(), "localhost");
    ip.set("");
    EXPECT_EQ(ip.value(), "");
    // Another preference on the same key sees the store, not a copy.
    EXPECT_EQ(Preference<std::string>(store, "ip", "x").value(), "");

    Preference<std::int64_t> port(store, "OutPort", 8000);
    EXPECT_EQ(port.value(), 8000);
    port.set(-9000);
    EXPECT_EQ(store.readString("OutPort"), "-9000");
    port.set(0);
    EXPECT_EQ(port.value(), 8000);
    for (const char* unreadable : {"", "abc", "12abc", " 12", "99999999999999999999"}) {
        store.writeString("OutPort", unreadable);
        EXPECT_EQ(port.value(), 8000) << unreadable;
    }
    store.writeString("OutPort", "-9223372036854775808");
    EXPECT_EQ(port.value(), std::numeric_limits<std::int64_t>::min());

    Preference<bool> numbered(store, "NumberPings", false);
    numbered.set(true);
    EXPECT_EQ(store.readString("NumberPings"), "true");
    EXPECT_TRUE(numbered.value());
    for (const char* unreadable : {"", "yes", "1", "True"}) {
        store.writeString("NumberPings", unreadable);
        EXPECT_EQ(Preference<bool>(store, "NumberPings", true).value(), true) << unreadable;
        EXPECT_EQ(numbered.value(), false) << unreadable;
    }
}

}  // namespace
}  // namespace kavrin
