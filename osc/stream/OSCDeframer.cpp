#include "osc/stream/OSCDeframer.hpp"

#include <algorithm>
#include <bit>
#include <string>

#include "osc/stream/detail/Slip.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"

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

namespace {

// Where the first END or ESC stands in `bytes`, or its size: eight bytes a step, since packets
// hold long runs of neither.
std::size_t findSpecial(std::span<const std::uint8_t> bytes) {
    const char* const data = reinterpret_cast<const char*>(bytes.data());
    std::size_t at = 0;
    for (; at + 8 <= bytes.size(); at += 8) {
        const std::uint64_t word = loadWord<std::uint64_t>(data + at);
        const std::uint64_t marks = bytesEqual(word, slip::end) | bytesEqual(word, slip::escape);
        if (marks != 0) {
            return at + static_cast<std::size_t>(std::endian::native == std::endian::little
                                                     ? std::countr_zero(marks)
                                                     : std::countl_zero(marks)) /
                            8;
        }
    }
    while (at < bytes.size() && bytes[at] != slip::end && bytes[at] != slip::escape) ++at;
    return at;
}

}  // namespace

// A run of ordinary bytes at a time. A frame that lies whole in `bytes` with nothing escaped is
// handed on from there; only a frame split across pieces, or with escapes, is gathered in held_.
void OSCDeframer::feedSlip(std::span<const std::uint8_t> bytes, const Frame& frame) {
    const auto tooLong = [this] {
        return OSCFramingError("SLIP frame exceeds the maximum of " +
                               std::to_string(maximumFrame_) + " bytes without an END byte.");
    };
    while (!bytes.empty()) {
        if (escaped_ && bytes[0] != slip::end) {
            // ESC before any other byte stands for that byte; an END after it still ends the frame.
            const std::uint8_t byte = bytes[0];
            bytes = bytes.subspan(1);
            escaped_ = false;
            if (held_.size() == maximumFrame_) throw tooLong();
            held_.push_back(byte == slip::escapedEnd      ? slip::end
                            : byte == slip::escapedEscape ? slip::escape
                                                          : byte);
            continue;
        }
        escaped_ = false;
        const std::size_t run = findSpecial(bytes);
        if (held_.empty() && run < bytes.size() && bytes[run] == slip::end) {
            if (run > maximumFrame_) throw tooLong();
            if (run > 0) frame(bytes.first(run));  // END END, or the END before a packet: none
            bytes = bytes.subspan(run + 1);
            continue;
        }
        if (held_.size() + run > maximumFrame_) throw tooLong();
        held_.insert(held_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(run));
        if (run == bytes.size()) return;
        const std::uint8_t special = bytes[run];
        bytes = bytes.subspan(run + 1);
        if (special == slip::escape) {
            escaped_ = true;
        } else if (!held_.empty()) {
            frame(held_);
            held_.clear();  // keeps its capacity, never more than the maximum
        }
    }
}

}  // namespace kavrin
