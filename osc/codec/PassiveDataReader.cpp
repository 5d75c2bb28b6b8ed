#include "osc/codec/PassiveDataReader.hpp"

#include <cstring>

#include "osc/codec/OSCPadding.hpp"

namespace kavrin {

void PassiveDataReader::fail(const char* text) {
    throw OSCDecodeError::malformed(text);
}

std::vector<std::uint8_t> PassiveDataReader::readBytes(std::int64_t count) {
    const auto bytes = readByteView(count);
    return {bytes.begin(), bytes.end()};
}

std::span<const std::uint8_t> PassiveDataReader::readByteView(std::int64_t count) {
    if (count < 0) {
        throw OSCDecodeError(OSCDecodeError::Case::internalInconsistency,
                             "Negative byte count requested: " + std::to_string(count));
    }
    const auto remaining = remainingByteCount();
    if (remaining < count) {
        // The remaining slice describes itself as "N bytes", hence the doubled word at the end;
        // deliberate, the text is kept as it has always been.
        throw OSCDecodeError::malformed(
            "Not enough bytes remain in data stream. Attempted to read " + std::to_string(count) +
            " bytes but only " + std::to_string(remaining) + " bytes bytes remain.");
    }
    const auto* begin = data_.data() + offset_;
    offset_ += count;
    return {begin, static_cast<std::size_t>(count)};
}

void PassiveDataReader::failAdvance(std::int64_t count) const {
    throw OSCDecodeError::malformed(
        "Attempted to advance byte read position past end of available bytes. " +
        std::to_string(remainingByteCount()) + " bytes remain but " + std::to_string(count) +
        " were advanced.");
}

std::span<const std::uint8_t> PassiveDataReader::readBlobView() {
    std::int64_t length = 0;
    try {
        length = readInt32();
    } catch (const OSCDecodeError&) {
        throw OSCDecodeError::malformed(
            "Failed to read Int32 length chunk at start of 4-byte aligned null-terminated blob "
            "data chunk.");
    }
    // Unlike a string, a blob whose length is a multiple of 4 carries no padding.
    const auto end = length < 0 ? -1
                                : static_cast<std::int64_t>(
                                      padding::wordAligned(static_cast<std::size_t>(length)));
    if (end < 0 || end > remainingByteCount()) {
        throw OSCDecodeError::malformed(
            "Not enough bytes in 4-byte aligned null-terminated blob data chunk.");
    }
    const auto* begin = data_.data() + offset_;
    for (std::int64_t i = length; i < end; ++i) {
        if (begin[i] != 0) {
            throw OSCDecodeError::malformed(
                "Expected 4-byte null terminated data but expected null bytes were not found.");
        }
    }
    offset_ += end;
    return {begin, static_cast<std::size_t>(length)};
}

}  // namespace kavrin
