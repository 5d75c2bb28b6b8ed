#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <variant>

#include "osc/codec/OSCBundleView.hpp"
#include "osc/codec/OSCMessageView.hpp"
#include "osc/codec/OSCPacket.hpp"

namespace kavrin {

// A datagram or a bundle element read in place: a checked OSCMessageView or OSCBundleView.
// The bytes must outlive it. A plain value, like the views it holds.
class OSCPacketView {
  public:
    // Nothing when the bytes are neither a message nor a bundle; throws OSCDecodeError as
    // OSCPacket::decode would for the same bytes and policy.
    static std::optional<OSCPacketView> decode(std::span<const std::uint8_t> bytes,
                                               OSCTextPolicy policy = OSCTextPolicy::ascii);

    bool isMessage() const { return view_.index() == 0; }
    bool isBundle() const { return view_.index() == 1; }
    // Throw OSCDecodeError(unexpectedType) when the packet is the other kind.
    const OSCMessageView& message() const {
        if (const auto* message = std::get_if<OSCMessageView>(&view_)) [[likely]]
            return *message;
        wrongKind("The OSC packet is a bundle.");
    }
    const OSCBundleView& bundle() const {
        if (const auto* bundle = std::get_if<OSCBundleView>(&view_)) [[likely]]
            return *bundle;
        wrongKind("The OSC packet is a message.");
    }

    std::span<const std::uint8_t> bytes() const;
    // The owned packet, equal to OSCPacket::decode(bytes()) under the view's policy.
    OSCPacket packet() const;

    // For std::optional::emplace, which makes the view in place, without a copy; only this
    // class and OSCBundleView can make the key.
    class Key {
        friend class OSCPacketView;
        friend class OSCBundleView;
        explicit Key() = default;
    };
    template <class View, class... Arguments>
    OSCPacketView(Key, std::in_place_type_t<View> type, Arguments&&... arguments)
        : view_(type, std::forward<Arguments>(arguments)...) {}

  private:
    [[noreturn]] static void wrongKind(const char* text);

    std::variant<OSCMessageView, OSCBundleView> view_;
};

}  // namespace kavrin
