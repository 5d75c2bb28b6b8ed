#pragma once

#include <cstdint>
#include <optional>
#include <span>
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
    // OSCPacket::decode would.
    static std::optional<OSCPacketView> decode(std::span<const std::uint8_t> bytes);

    bool isMessage() const { return view_.index() == 0; }
    bool isBundle() const { return view_.index() == 1; }
    // Throw OSCDecodeError(unexpectedType) when the packet is the other kind.
    const OSCMessageView& message() const;
    const OSCBundleView& bundle() const;

    std::span<const std::uint8_t> bytes() const;
    // The owned packet, equal to OSCPacket::decode(bytes()).
    OSCPacket packet() const;

  private:
    friend class OSCBundleView;
    explicit OSCPacketView(OSCMessageView message) : view_(message) {}
    explicit OSCPacketView(OSCBundleView bundle) : view_(bundle) {}

    std::variant<OSCMessageView, OSCBundleView> view_;
};

}  // namespace kavrin
