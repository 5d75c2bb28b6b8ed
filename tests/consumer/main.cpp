// Uses the installed library the way an application would, including what crosses the library's
// boundary in unusual ways: an exception type caught here, and std::hash specialisations that
// the library defines out of line.
#include <cstdio>
#include <cstdint>
#include <functional>
#include <vector>

#include "osc/osc.hpp"
#ifdef KAVRIN_CONSUMER_QUERY
#include "osc/query/OSCQueryNode.hpp"
#endif
#ifdef KAVRIN_CONSUMER_DISCOVERY
#include "osc/discovery/OSCServiceBrowser.hpp"
#endif

int main() {
    using namespace kavrin;
    const OSCMessage sent("/mixer/ch/12/fader", {OSCValue(0.75f)});
    const std::vector<std::uint8_t> bytes = sent.rawData();
    const OSCMessage received = OSCMessage::decode(bytes);
    const auto [level] = received.masked<float>();
    const bool matched = OSCAddressPattern("/mixer/ch/*/fader").matches("/mixer/ch/12/fader");
    const bool sameHash = std::hash<OSCMessage>{}(sent) == std::hash<OSCMessage>{}(received);

    bool layers = true;
#ifdef KAVRIN_CONSUMER_QUERY
    OSCQueryNode root{"/", {}, {}, {OSCQueryNode{"/mixer", {}, {}, {}, false}}, true};
    layers = layers && root.find("/mixer") == &root.contents.front();
#endif
#ifdef KAVRIN_CONSUMER_DISCOVERY
    layers = layers && OSCServiceBrowser::oscServiceTypes().size() == 3;
#endif

    bool refused = false;
    try {
        OSCMessage::decode(std::vector<std::uint8_t>{'/', 'x'});
    } catch (const OSCDecodeError&) {
        refused = true;
    }

    std::printf("%s: %zu bytes, level %.2f, %s, hashes %s, bad packet %s\n",
                received.addressPattern.description().c_str(), bytes.size(), level,
                matched ? "matched" : "not matched", sameHash ? "equal" : "differ",
                refused ? "refused" : "accepted");
    return received == sent && matched && sameHash && refused && layers ? 0 : 1;
}
