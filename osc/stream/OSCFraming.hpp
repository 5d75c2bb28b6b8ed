#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "osc/codec/OSCPacket.hpp"

namespace kavrin {

/// How OSC packets follow each other on a byte stream such as TCP: OSC 1.0 puts each packet's
/// size before it (a big-endian Int32); OSC 1.1 frames each packet with SLIP (RFC 1055), an END
/// byte before and after it and the END and ESC bytes within it escaped.
enum class OSCFraming { lengthPrefixed, slip };

/// The largest packet a stream takes by default; a peer that announces or sends more is cut off.
inline constexpr std::size_t oscDefaultMaximumFrame = 64 * 1024;

/// A stream that breaks its framing: a size prefix that is negative or over the maximum, or a
/// SLIP frame longer than the maximum. The connection cannot be read any further and should be
/// closed. A plain value.
class OSCFramingError : public std::runtime_error {
  public:
    explicit OSCFramingError(const std::string& message) : std::runtime_error(message) {}
};

/// Appends `packet`, framed, to `out`.
void appendFrame(OSCFraming framing, std::span<const std::uint8_t> packet,
                 std::vector<std::uint8_t>& out);

/// Encodes (strings under `policy`) and frames `packet`. Throws OSCEncodeError as encoding does,
/// and OSCFramingError for a packet over `maximumFrame` bytes, which a receiver with that
/// maximum would refuse.
std::vector<std::uint8_t> framePacket(OSCFraming framing, const OSCPacket& packet,
                                      std::size_t maximumFrame = oscDefaultMaximumFrame,
                                      OSCTextPolicy policy = OSCTextPolicy::ascii);

}  // namespace kavrin
