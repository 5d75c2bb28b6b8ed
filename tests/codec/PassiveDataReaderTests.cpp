#include "osc/codec/PassiveDataReader.hpp"

#include "osc/codec/DataReader.hpp"
#include "tests/codec/CodecTestSupport.hpp"

namespace kavrin {
namespace {

using test::bytes;
using test::Bytes;

// Runs `read` and expects an OSCDecodeError of `errorCase` with `text`, and nothing consumed.
template <class Read>
void expectFailure(PassiveDataReader& reader, Read read, const std::string& text,
                   OSCDecodeError::Case errorCase = OSCDecodeError::Case::malformed) {
    const auto before = reader.readOffset();
    EXPECT_EQ(test::thrown<OSCDecodeError>([&] { read(reader); }, errorCase), text);
    EXPECT_EQ(reader.readOffset(), before) << text;
}

TEST(PassiveDataReader, ReadsAndAdvancesWithExactFailureTexts) {
    const Bytes data = bytes({1, 2, 3, 4, 5, 6, 7, 8});
    PassiveDataReader reader(data);
    EXPECT_EQ(reader.readBytes(2), (Bytes{1, 2}));
    EXPECT_EQ(reader.readOffset(), 2);
    reader.advance(2);
    EXPECT_EQ(reader.readOffset(), 4);
    EXPECT_EQ(Bytes(reader.remainingData().begin(), reader.remainingData().end()),
              (Bytes{5, 6, 7, 8}));
    expectFailure(
        reader, [](auto& r) { r.readBytes(-1); }, "Negative byte count requested: -1",
        OSCDecodeError::Case::internalInconsistency);
    // The doubled "bytes" is the established text.
    expectFailure(
        reader, [](auto& r) { r.readBytes(8); },
        "Not enough bytes remain in data stream. Attempted to read 8 bytes but only 4 bytes "
        "bytes remain.");
    expectFailure(
        reader, [](auto& r) { r.advance(5); },
        "Attempted to advance byte read position past end of available bytes. 4 bytes remain "
        "but 5 were advanced.");
    EXPECT_EQ(reader.readBytes(4), (Bytes{5, 6, 7, 8}));
    EXPECT_EQ(reader.remainingByteCount(), 0);
    EXPECT_TRUE(reader.readBytes(0).empty());
}

// A string takes whole words with at least one zero; a blob is padded only when not aligned. A
// failed read consumes nothing but a blob's length word, once read.
TEST(PassiveDataReader, ChunksTakeWholeWordsAndFailWithExactTexts) {
    using Read = std::string (*)(PassiveDataReader&);
    const Read text = [](PassiveDataReader& r) { return r.readString(); };
    const Read chunk = [](PassiveDataReader& r) {
        const auto content = r.readNullTerminatedChunk();
        return std::string(content.begin(), content.end());
    };
    const Read blob = [](PassiveDataReader& r) {
        const auto content = r.readBlob();
        return std::string(content.begin(), content.end());
    };
    const std::string tooShort = "Not enough bytes in 4-byte aligned null-terminated data chunk.";
    const std::string notTerminated =
        "4-byte aligned null-terminated data chunk does not terminate in null bytes as expected.";
    const std::string blobTooShort =
        "Not enough bytes in 4-byte aligned null-terminated blob data chunk.";
    const struct {
        Read read;
        Bytes data;
        std::string result;  // what was read, or the error's text
        std::int64_t offset;
    } cases[] = {
        {text, bytes({"abcd", 0, 0, 0, 0, "x"}), "abcd", 8},
        {text, bytes({0, 0, 0, 0}), "", 4},
        {text, bytes({"abc", 0}), "abc", 4},
        {chunk, bytes({"abcd", 0, 0, 0}), tooShort, 0},    // terminator present, padding cut short
        {chunk, bytes({"ab", 0, 'A'}), notTerminated, 0},  // non-zero pad byte
        {chunk, bytes({"abcd"}), notTerminated, 0},        // no zero at all
        {chunk, bytes({"ab", 0}), tooShort, 0},            // fewer than 4 bytes: checked first
        {chunk, bytes({}), tooShort, 0},
        {text, bytes({'a', 0xC3, 0xA9, 0}),
         "Failed to form valid ASCII string from 4-byte aligned null-terminated ASCII string "
         "chunk. Non-ASCII characters may be present or the data is malformed.",
         0},
        {blob, bytes({0, 0, 0, 4, 1, 2, 3, 4, 9}), "\x01\x02\x03\x04", 8},
        {blob, bytes({0, 0, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0}), "\x01\x02\x03\x04\x05", 12},
        {blob, bytes({0, 0, 0, 0, 9, 9, 9, 9}), "", 4},
        {blob, bytes({0, 0, 1}),
         "Failed to read Int32 length chunk at start of 4-byte aligned null-terminated blob data "
         "chunk.",
         0},
        {blob, bytes({0, 0, 0, 5, 1, 2, 3, 4, 5}), blobTooShort, 4},
        {blob, bytes({0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}), blobTooShort, 4},
        {blob, bytes({0, 0, 0, 1, 1, 0, 7, 0}),
         "Expected 4-byte null terminated data but expected null bytes were not found.", 4},
    };
    for (const auto& c : cases) {
        PassiveDataReader reader(c.data);
        std::string result;
        const auto error = test::thrown<OSCDecodeError>([&] { result = c.read(reader); },
                                                        OSCDecodeError::Case::malformed);
        EXPECT_EQ(error == "no error" ? result : error, c.result);
        EXPECT_EQ(reader.readOffset(), c.offset) << c.result;
    }
}

// The reads themselves are checked against the views' on every kind (AgreesWithTheOwningDecoders).
TEST(PassiveDataReader, NumbersCheckTheirLength) {
    const Bytes data = bytes({1, 2, 3});
    PassiveDataReader reader(data);
    const std::pair<std::string, void (*)(PassiveDataReader&)> reads[] = {
        {"Int32", [](PassiveDataReader& r) { r.readInt32(); }},
        {"Float32", [](PassiveDataReader& r) { r.readFloat32(); }},
        {"Int64", [](PassiveDataReader& r) { r.readInt64(); }},
        {"UInt64", [](PassiveDataReader& r) { r.readUInt64(); }},
        {"Double", [](PassiveDataReader& r) { r.readDouble(); }},
    };
    for (const auto& [name, read] : reads) {
        expectFailure(reader, read, "Not enough bytes while reading " + name + " data chunk.");
    }
}

TEST(DataReader, OwnsItsBytesAcrossCopiesAndMoves) {
    DataReader reader(bytes({0, 0, 0, 7, 0, 0, 0, 9}));
    EXPECT_EQ(reader.readInt32(), 7);
    DataReader copy = reader;
    DataReader moved = std::move(reader);
    EXPECT_EQ(copy.readOffset(), 4);
    EXPECT_EQ(copy.readInt32(), 9);
    EXPECT_EQ(moved.readInt32(), 9);
    EXPECT_EQ(copy.base().size(), 8u);
    copy = moved;
    EXPECT_EQ(copy.readOffset(), 8);
}

}  // namespace
}  // namespace kavrin
