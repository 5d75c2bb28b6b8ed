#pragma once

#include <cstddef>

#include "osc/codec/OSCBundleView.hpp"
#include "osc/codec/OSCMessageView.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCTimeTag.hpp"

namespace kavrin {

/// Calls `call(message, timeTag)` for each message of a packet read in place, bundles opened
/// depth first, each with the tag of its innermost bundle (immediate for a message on its own),
/// as the servers' deliveries carry them; returns how many. The views are valid only during the
/// call, as the packet's bytes are.
template <class Call>
std::size_t forEachMessageView(const OSCPacketView& packet, Call&& call) {
    if (packet.isMessage()) {
        call(packet.message(), OSCTimeTag::immediate());
        return 1;
    }
    std::size_t count = 0;
    const auto walk = [&](const auto& self, const OSCBundleView& bundle) -> void {
        const OSCTimeTag tag = bundle.timeTag();
        for (const OSCPacketView element : bundle) {
            if (element.isBundle()) {
                self(self, element.bundle());
            } else {
                call(element.message(), tag);
                ++count;
            }
        }
    };
    walk(walk, packet.bundle());
    return count;
}

}  // namespace kavrin
