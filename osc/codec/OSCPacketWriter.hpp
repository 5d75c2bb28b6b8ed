#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/codec/OSCValue.hpp"

namespace kavrin {

// Writes a packet straight into a buffer the caller owns, value by value, without allocating: a
// sender's fast path when it need not keep the packet. The bytes are those OSCMessage and
// OSCBundle encode for the same values and text policy (text the policy does not keep is made
// printable ASCII as they make it, which then allocates).
//
//     std::array<std::uint8_t, 256> buffer;
//     OSCPacketWriter writer(buffer);
//     writer.beginMessage("/mixer/ch/12/fader").int32(12).float32(0.75f).endMessage();
//     socket->sendData({writer.bytes().begin(), writer.bytes().end()}, host, port, 1.0, 0);
//
// Messages and bundles nest as OSCBundle allows (128 bundles, 128 arrays). A buffer too small
// for the packet throws OSCEncodeError(general) and leaves the writer unusable; so do calls
// out of order (a value outside a message, an end without its beginning).
// One writer belongs to one thread; the buffer must outlive it.
class OSCPacketWriter {
  public:
    explicit OSCPacketWriter(std::span<std::uint8_t> buffer,
                             OSCTextPolicy policy = OSCTextPolicy::ascii);

    OSCPacketWriter& beginBundle(OSCTimeTag timeTag);
    OSCPacketWriter& endBundle();
    OSCPacketWriter& beginMessage(std::string_view address);
    OSCPacketWriter& endMessage();

    OSCPacketWriter& int32(std::int32_t value);
    OSCPacketWriter& float32(float value);
    OSCPacketWriter& string(std::string_view text);
    OSCPacketWriter& blob(std::span<const std::uint8_t> bytes);
    OSCPacketWriter& boolean(bool value);
    OSCPacketWriter& character(char32_t value);
    OSCPacketWriter& float64(double value);
    OSCPacketWriter& int64(std::int64_t value);
    OSCPacketWriter& impulse();
    OSCPacketWriter& midi(OSCMIDIValue value);
    OSCPacketWriter& null();
    OSCPacketWriter& stringAlt(std::string_view text);
    OSCPacketWriter& timeTag(OSCTimeTag value);
    OSCPacketWriter& beginArray();
    OSCPacketWriter& endArray();

    // Whether the outermost message or bundle has ended.
    bool isComplete() const { return depth_ == 0 && size_ > 0; }
    // The packet: its bytes once complete, what has been written so far before.
    std::span<const std::uint8_t> bytes() const { return {buffer_.data(), size_}; }

  private:
    void tag(char tag);
    std::uint8_t* argumentSpace(std::size_t count);
    void text(std::string_view text);
    OSCPacketWriter& textValue(char tag, std::string_view value);
    void beginElement();
    void endElement();
    [[noreturn]] void fail(const char* text);

    std::span<std::uint8_t> buffer_;
    const OSCTextPolicy policy_;
    std::size_t size_ = 0;  // bytes written, the open message's arguments included
    // The open message: where its tag string starts, and its tags, kept at the buffer's far
    // end, last first, until the message ends and they go in front of the arguments.
    bool inMessage_ = false;
    std::size_t tagsStart_ = 0;
    std::size_t tagCount_ = 0;
    int arrayDepth_ = 0;
    // The size words of the open elements, outermost first; element 0 is the packet itself.
    int depth_ = 0;
    std::array<std::size_t, 130> elementStarts_;  // written before read: not cleared up front
    bool failed_ = false;
};

}  // namespace kavrin
