#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "osc/stream/OSCFraming.hpp"

namespace kavrin {

/// Cuts a byte stream into OSC packets, whatever pieces the stream arrives in. Memory stays
/// bounded: a packet is held only until it is whole, and a stream that announces or sends a
/// packet over the maximum throws OSCFramingError instead of growing.
///
/// Length-prefixed: an Int32 size then that many bytes; a size of 0 carries no packet and is
/// skipped. SLIP: the bytes between two END bytes, unescaped; empty frames (END END) are
/// skipped, and an ESC before any other byte stands for that byte, as RFC 1055 reads it.
/// One deframer belongs to one stream and one thread.
class OSCDeframer {
  public:
    using Frame = std::function<void(std::span<const std::uint8_t> packet)>;

    explicit OSCDeframer(OSCFraming framing, std::size_t maximumFrame = oscDefaultMaximumFrame);

    /// Takes the next bytes of the stream and calls `frame` with each packet they complete, in
    /// order; a packet's bytes are valid only during the call. Throws OSCFramingError when the
    /// stream breaks its framing; the deframer cannot be used after that.
    void feed(std::span<const std::uint8_t> bytes, const Frame& frame);

    /// Whether part of a packet is held: a stream that stops here stops mid-frame.
    bool isMidFrame() const;
    std::size_t maximumFrame() const { return maximumFrame_; }

  private:
    void feedLengthPrefixed(std::span<const std::uint8_t> bytes, const Frame& frame);
    void feedSlip(std::span<const std::uint8_t> bytes, const Frame& frame);

    const OSCFraming framing_;
    const std::size_t maximumFrame_;
    std::vector<std::uint8_t> held_;  // the packet in progress (length-prefixed: its size first)
    std::size_t expected_ = 0;        // length-prefixed: the bytes the size announced
    bool escaped_ = false;            // SLIP: the last byte was an ESC
    bool broken_ = false;
};

}  // namespace kavrin
