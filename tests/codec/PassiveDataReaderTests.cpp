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

TEST(PassiveDataReader, NullTerminatedChunksTakeWholeWordsWithAtLeastOneZero) {
    const struct {
        Bytes data;
        std::string text;
        std::int64_t consumed;
    } chunks[] = {
        {bytes({"abcd", 0, 0, 0, 0, "x"}), "abcd", 8},  // a whole word of zeros after a full word
        {bytes({0, 0, 0, 0}), "", 4},
        {bytes({"abc", 0}), "abc", 4},
    };
    for (const auto& chunk : chunks) {
        PassiveDataReader reader(chunk.data);
        EXPECT_EQ(reader.readString(), chunk.text);
        EXPECT_EQ(reader.readOffset(), chunk.consumed) << chunk.text;
    }
    const std::string tooShort = "Not enough bytes in 4-byte aligned null-terminated data chunk.";
    const std::string notTerminated =
        "4-byte aligned null-terminated data chunk does not terminate in null bytes as expected.";
    const struct {
        Bytes data;
        std::string text;
    } failures[] = {
        {bytes({"abcd", 0, 0, 0}), tooShort},    // terminator present, padding cut short
        {bytes({"ab", 0, 'A'}), notTerminated},  // non-zero pad byte
        {bytes({"abcd"}), notTerminated},        // no zero at all
        {bytes({"ab", 0}), tooShort},            // fewer than 4 bytes: checked first
        {bytes({}), tooShort},
    };
    for (const auto& failure : failures) {
        PassiveDataReader reader(failure.data);
        expectFailure(
            reader, [](auto& r) { r.readNullTerminatedChunk(); }, failure.text);
    }
    const Bytes nonASCII = bytes({'a', 0xC3, 0xA9, 0});
    PassiveDataReader reader(nonASCII);
    expectFailure(
        reader, [](auto& r) { r.readString(); },
        "Failed to form valid ASCII string from 4-byte aligned null-terminated ASCII string "
        "chunk. Non-ASCII characters may be present or the data is malformed.");
}

TEST(PassiveDataReader, BlobsArePaddedOnlyWhenNotAligned) {
    const struct {
        Bytes data;
        Bytes blob;
        std::int64_t consumed;
    } cases[] = {
        {bytes({0, 0, 0, 4, 1, 2, 3, 4, 9}), {1, 2, 3, 4}, 8},
        {bytes({0, 0, 0, 5, 1, 2, 3, 4, 5, 0, 0, 0}), {1, 2, 3, 4, 5}, 12},
        {bytes({0, 0, 0, 0, 9, 9, 9, 9}), {}, 4},
    };
    for (const auto& c : cases) {
        PassiveDataReader reader(c.data);
        EXPECT_EQ(reader.readBlob(), c.blob);
        EXPECT_EQ(reader.readOffset(), c.consumed);
    }
    const struct {
        Bytes data;
        std::string text;
        std::int64_t offsetAfter;  // the length word stays consumed once read
    } failures[] = {
        {bytes({0, 0, 1}),
         "Failed to read Int32 length chunk at start of 4-byte aligned null-terminated blob data "
         "chunk.",
         0},
        {bytes({0, 0, 0, 5, 1, 2, 3, 4, 5}),
         "Not enough bytes in 4-byte aligned null-terminated blob data chunk.", 4},
        {bytes({0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}),
         "Not enough bytes in 4-byte aligned null-terminated blob data chunk.", 4},
        {bytes({0, 0, 0, 1, 1, 0, 7, 0}),
         "Expected 4-byte null terminated data but expected null bytes were not found.", 4},
    };
    for (const auto& failure : failures) {
        PassiveDataReader reader(failure.data);
        EXPECT_EQ(test::thrown<OSCDecodeError>([&] { reader.readBlob(); }), failure.text);
        EXPECT_EQ(reader.readOffset(), failure.offsetAfter) << failure.text;
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
