#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "osc/codec/OSCMessage.hpp"

namespace kavrin::test {

using Bytes = std::vector<std::uint8_t>;

// Concatenates text (as its bytes) and single byte values: bytes("/a", 0, 0, "ab").
struct Part {
    Part(std::string_view text) : data(text.begin(), text.end()) {}
    Part(const char* text) : Part(std::string_view(text)) {}
    Part(int byte) : data{static_cast<std::uint8_t>(byte)} {}
    Bytes data;
};

inline Bytes bytes(std::initializer_list<Part> parts) {
    Bytes result;
    for (const auto& part : parts) result.insert(result.end(), part.data.begin(), part.data.end());
    return result;
}

// The text of the `Error` that `run` throws, which must be of `errorCase` when one is given;
// "no error" when it throws none.
template <class Error, class Run>
std::string thrown(Run run, std::optional<typename Error::Case> errorCase = std::nullopt) {
    try {
        run();
    } catch (const Error& error) {
        if (errorCase) {
            EXPECT_EQ(error.errorCase(), *errorCase) << error.what();
        }
        return error.what();
    }
    return "no error";
}

// A message with a value of every kind, arrays nested and empty among them.
inline OSCMessage everyKind() {
    return OSCMessage(
        "/every/kind", {OSCBlob{1, 2, 3, 4, 5}, 1.5f, std::int32_t{-7}, std::string("text"), true,
                        false, char32_t{0x1F600}, 2.25, std::int64_t{-1234567890123},
                        OSCArrayValue{{1, OSCArrayValue{{std::string("")}}, OSCArrayValue{}}},
                        OSCImpulseValue{}, OSCMIDIValue{1, 0x90, 60, 127}, OSCNullValue{},
                        OSCStringAltValue{"alt"}, OSCTimeTag{0, 0x0102030405060708}});
}

}  // namespace kavrin::test
