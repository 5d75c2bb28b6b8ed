#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCPadding.hpp"
#include "osc/codec/OSCTextPolicy.hpp"
#include "support/ASCIIScan.hpp"
#include "support/BigEndian.hpp"
#include "support/UTF8.hpp"

namespace kavrin {

// A forward-only read cursor over bytes it does not own; the bytes must outlive the reader.
// Every failed read throws OSCDecodeError and leaves readOffset() where it was (except the blob
// read, which keeps its length word consumed). One decoding pass on one thread; no locking.
class PassiveDataReader {
  public:
    explicit PassiveDataReader(std::span<const std::uint8_t> data) : data_(data) {}

    // Bytes consumed so far, counted from the first byte of the span.
    std::int64_t readOffset() const { return offset_; }
    std::int64_t remainingByteCount() const {
        return static_cast<std::int64_t>(data_.size()) - offset_;
    }
    // The bytes not yet consumed (a view, nothing is consumed).
    std::span<const std::uint8_t> remainingData() const { return data_.subspan(offset_); }

    // A copy of the next `count` bytes.
    std::vector<std::uint8_t> readBytes(std::int64_t count);
    // The same read, the bytes a view into the reader's bytes.
    std::span<const std::uint8_t> readByteView(std::int64_t count);
    void advance(std::int64_t count) {
        if (remainingByteCount() < count) failAdvance(count);
        offset_ += count;
    }

    // The content of a null-terminated chunk padded with zeros to a multiple of 4 bytes (always
    // at least one zero). The view points into the reader's bytes.
    std::span<const std::uint8_t> readNullTerminatedChunk() { return readChunk().content; }
    // The same read for content that must be text: ASCII, or under the utf8 policy well-formed
    // UTF-8 (OSCTextPolicy). Nothing, and nothing consumed, when it is not; the chunk's own
    // faults throw as above.
    std::optional<std::string_view> readTextChunk(OSCTextPolicy policy) {
        const auto chunk = readChunk();
        const std::string_view text(reinterpret_cast<const char*>(chunk.content.data()),
                                    chunk.content.size());
        if (chunk.isASCII || (policy == OSCTextPolicy::utf8 && isValidUTF8(text))) return text;
        offset_ -= chunk.size;
        return std::nullopt;
    }
    // A string argument: a text chunk as above.
    std::string readString(OSCTextPolicy policy = OSCTextPolicy::ascii) {
        return std::string(readStringView(policy));
    }
    // The same read, the text a view into the reader's bytes.
    std::string_view readStringView(OSCTextPolicy policy = OSCTextPolicy::ascii) {
        if (const auto text = readTextChunk(policy)) return *text;
        fail(
            "Failed to form valid ASCII string from 4-byte aligned null-terminated ASCII string "
            "chunk. Non-ASCII characters may be present or the data is malformed.");
    }
    // An Int32 length, the bytes, zero padding to a multiple of 4 (none when already aligned).
    std::vector<std::uint8_t> readBlob() {
        const auto blob = readBlobView();
        return std::vector<std::uint8_t>(blob.begin(), blob.end());
    }
    // The same read, the bytes a view into the reader's bytes.
    std::span<const std::uint8_t> readBlobView();

    std::int32_t readInt32() {
        return static_cast<std::int32_t>(
            load32("Not enough bytes while reading Int32 data chunk."));
    }
    float readFloat32() {
        return std::bit_cast<float>(load32("Not enough bytes while reading Float32 data chunk."));
    }
    std::int64_t readInt64() {
        return static_cast<std::int64_t>(
            load64("Not enough bytes while reading Int64 data chunk."));
    }
    std::uint64_t readUInt64() {
        return load64("Not enough bytes while reading UInt64 data chunk.");
    }
    double readDouble() {
        return std::bit_cast<double>(load64("Not enough bytes while reading Double data chunk."));
    }

  protected:
    PassiveDataReader(std::span<const std::uint8_t> data, std::int64_t offset)
        : data_(data), offset_(offset) {}
    void rebind(std::span<const std::uint8_t> data, std::int64_t offset) {
        data_ = data;
        offset_ = offset;
    }

  private:
    static constexpr const char* chunkTooShort =
        "Not enough bytes in 4-byte aligned null-terminated data chunk.";
    static constexpr const char* chunkNotTerminated =
        "4-byte aligned null-terminated data chunk does not terminate in null bytes as expected.";

    // Throws OSCDecodeError::malformed(text); kept out of line, off the paths that succeed.
    [[noreturn]] static void fail(const char* text);
    [[noreturn]] void failAdvance(std::int64_t count) const;

    struct Chunk {
        std::span<const std::uint8_t> content;
        std::int64_t size;  // content, terminator and padding
        bool isASCII;
    };
    // Finds the terminator and looks at every content byte in one pass.
    Chunk readChunk() {
        const auto remaining = remainingByteCount();
        if (remaining < 4) fail(chunkTooShort);
        const auto* begin = data_.data() + offset_;
        const auto found = scanZeroByte(begin, remaining);
        const auto contentLength = found.zero;
        if (contentLength < 0) fail(chunkNotTerminated);
        // Always at least one terminating zero: content of 4 bytes takes 8.
        const std::int64_t chunkLength = static_cast<std::int64_t>(
            padding::nullTerminatedSize(static_cast<std::size_t>(contentLength)));
        if (chunkLength > remaining) fail(chunkTooShort);
        // The padding after the terminator is the low bytes of the chunk's last word.
        const auto terminator = contentLength - (chunkLength - 4);
        const auto padding = (std::uint64_t{1} << (24 - 8 * terminator)) - 1;
        if ((bigEndian::load32(begin + chunkLength - 4) & padding) != 0) fail(chunkNotTerminated);
        offset_ += chunkLength;
        return {{begin, static_cast<std::size_t>(contentLength)},
                chunkLength,
                !found.highBitBeforeZero};
    }

    std::uint32_t load32(const char* shortMessage) {
        if (remainingByteCount() < 4) fail(shortMessage);
        const auto value = bigEndian::load32(data_.data() + offset_);
        offset_ += 4;
        return value;
    }
    std::uint64_t load64(const char* shortMessage) {
        if (remainingByteCount() < 8) fail(shortMessage);
        const auto value = bigEndian::load64(data_.data() + offset_);
        offset_ += 8;
        return value;
    }

    std::span<const std::uint8_t> data_;
    std::int64_t offset_ = 0;
};

}  // namespace kavrin
