#include "osc/stream/OSCDeframer.hpp"

#include <algorithm>
#include <string>

#include "osc/codec/detail/BigEndian.hpp"
#include "osc/stream/detail/Slip.hpp"

namespace kavrin {

OSCDeframer::OSCDeframer(OSCFraming framing, std::size_t maximumFrame)
    : framing_(framing), maximumFrame_(maximumFrame) {}

bool OSCDeframer::isMidFrame() const {
    return !held_.empty() || escaped_;
}

void OSCDeframer::feed(std::span<const std::uint8_t> bytes, const Frame& frame) {
    if (broken_) throw OSCFramingError("The stream broke its framing and cannot be read further.");
    try {
        if (framing_ == OSCFraming::lengthPrefixed) {
            feedLengthPrefixed(bytes, frame);
        } else {
            feedSlip(bytes, frame);
        }
    } catch (const OSCFramingError&) {
        broken_ = true;
        held_ = {};
        throw;
    }
}

// Whole packets that arrive in one piece are handed on straight from the bytes given; only a
// packet split across pieces is gathered in held_.
void OSCDeframer::feedLengthPrefixed(std::span<const std::uint8_t> bytes, const Frame& frame) {
    while (!bytes.empty()) {
        if (expected_ == 0) {
            // The size word, perhaps in pieces.
            const std::size_t take = std::min<std::size_t>(4 - held_.size(), bytes.size());
            held_.insert(held_.end(), bytes.begin(), bytes.begin() + take);
            bytes = bytes.subspan(take);
            if (held_.size() < 4) return;
            const auto size = static_cast<std::int32_t>(bigEndian::load32(held_.data()));
            held_.clear();
            if (size < 0) {
                throw OSCFramingError("Frame size prefix is negative: " + std::to_string(size));
            }
            if (static_cast<std::size_t>(size) > maximumFrame_) {
                throw OSCFramingError("Frame size " + std::to_string(size) +
                                      " exceeds the maximum of " + std::to_string(maximumFrame_) +
                                      " bytes.");
            }
            expected_ = static_cast<std::size_t>(size);
            if (expected_ == 0) continue;  // nothing to hand on
        }
        if (held_.empty() && bytes.size() >= expected_) {
            const auto packet = bytes.first(expected_);
            bytes = bytes.subspan(expected_);
            expected_ = 0;
            frame(packet);
            continue;
        }
        const std::size_t take = std::min(expected_ - held_.size(), bytes.size());
        held_.insert(held_.end(), bytes.begin(), bytes.begin() + take);
        bytes = bytes.subspan(take);
        if (held_.size() == expected_) {
            expected_ = 0;
            frame(held_);
            held_.clear();  // keeps its capacity, never more than the maximum
        }
    }
}

void OSCDeframer::feedSlip(std::span<const std::uint8_t> bytes, const Frame& frame) {
    for (const std::uint8_t byte : bytes) {
        if (byte == slip::end) {
            escaped_ = false;
            if (held_.empty()) continue;  // END END, or the END before a packet
            frame(held_);
            held_.clear();  // keeps its capacity, never more than the maximum
            continue;
        }
        std::uint8_t data = byte;
        if (escaped_) {
            escaped_ = false;
            data = byte == slip::escapedEnd      ? slip::end
                   : byte == slip::escapedEscape ? slip::escape
                                                 : byte;
        } else if (byte == slip::escape) {
            escaped_ = true;
            continue;
        }
        if (held_.size() == maximumFrame_) {
            throw OSCFramingError("SLIP frame exceeds the maximum of " +
                                  std::to_string(maximumFrame_) + " bytes without an END byte.");
        }
        held_.push_back(data);
    }
}

}  // namespace kavrin
