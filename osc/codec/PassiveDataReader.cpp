#include "osc/codec/PassiveDataReader.hpp"

#include <cstring>

#include "osc/addressing/LossyASCII.hpp"

namespace kavrin {

namespace {

constexpr const char* chunkTooShort =
    "Not enough bytes in 4-byte aligned null-terminated data chunk.";
constexpr const char* chunkNotTerminated =
    "4-byte aligned null-terminated data chunk does not terminate in null bytes as expected.";

}  // namespace

std::vector<std::uint8_t> PassiveDataReader::readBytes(std::int64_t count) {
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
    std::vector<std::uint8_t> bytes(begin, begin + count);
    advance(count);
    return bytes;
}

void PassiveDataReader::advance(std::int64_t count) {
    const auto remaining = remainingByteCount();
    if (remaining < count) {
        throw OSCDecodeError::malformed(
            "Attempted to advance byte read position past end of available bytes. " +
            std::to_string(remaining) + " bytes remain but " + std::to_string(count) +
            " were advanced.");
    }
    offset_ += count;
}

std::span<const std::uint8_t> PassiveDataReader::readNullTerminatedChunk() {
    const auto remaining = remainingByteCount();
    if (remaining < 4) throw OSCDecodeError::malformed(chunkTooShort);
    const auto* begin = data_.data() + offset_;
    if (remaining % 4 == 0) {
        // Whole words up to the end, as always inside a message: the chunk ends with the word
        // that holds the first zero, so only that word's later bytes need to be zero padding.
        for (std::int64_t at = 0; at < remaining; at += 4) {
            std::uint32_t word;
            std::memcpy(&word, begin + at, 4);
            if (((word - 0x01010101u) & ~word & 0x80808080u) == 0) continue;
            const auto* last = begin + at;
            std::int64_t zero = 0;
            while (last[zero] != 0) ++zero;
            for (auto pad = zero + 1; pad < 4; ++pad) {
                if (last[pad] != 0) throw OSCDecodeError::malformed(chunkNotTerminated);
            }
            offset_ += at + 4;
            return {begin, static_cast<std::size_t>(at + zero)};
        }
        throw OSCDecodeError::malformed(chunkNotTerminated);
    }
    const auto* zero = static_cast<const std::uint8_t*>(std::memchr(begin, 0, remaining));
    if (zero == nullptr) throw OSCDecodeError::malformed(chunkNotTerminated);
    const std::int64_t contentLength = zero - begin;
    // Always at least one terminating zero: content of 4 bytes takes 8.
    const std::int64_t chunkLength = contentLength + (4 - contentLength % 4);
    if (chunkLength > remaining) throw OSCDecodeError::malformed(chunkTooShort);
    for (const auto* pad = zero + 1; pad < begin + chunkLength; ++pad) {
        if (*pad != 0) throw OSCDecodeError::malformed(chunkNotTerminated);
    }
    offset_ += chunkLength;
    return {begin, static_cast<std::size_t>(contentLength)};
}

std::string_view PassiveDataReader::readStringView() {
    const auto start = offset_;
    const auto chunk = readNullTerminatedChunk();
    const std::string_view text(reinterpret_cast<const char*>(chunk.data()), chunk.size());
    if (!isASCII(text)) {
        offset_ = start;
        throw OSCDecodeError::malformed(
            "Failed to form valid ASCII string from 4-byte aligned null-terminated ASCII "
            "string chunk. Non-ASCII characters may be present or the data is malformed.");
    }
    return text;
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
    const std::int64_t padding = length % 4 == 0 ? 0 : 4 - length % 4;
    if (length < 0 || length + padding > remainingByteCount()) {
        throw OSCDecodeError::malformed(
            "Not enough bytes in 4-byte aligned null-terminated blob data chunk.");
    }
    const auto* begin = data_.data() + offset_;
    for (std::int64_t i = length; i < length + padding; ++i) {
        if (begin[i] != 0) {
            throw OSCDecodeError::malformed(
                "Expected 4-byte null terminated data but expected null bytes were not found.");
        }
    }
    offset_ += length + padding;
    return {begin, static_cast<std::size_t>(length)};
}

}  // namespace kavrin
