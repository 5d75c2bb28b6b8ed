#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "support/ASCIIScan.hpp"

namespace kavrin {

// A non-owning view of UTF-8 text as a run of user-perceived characters (extended grapheme
// clusters), the unit in which patterns count and compare. Text in which every byte is a
// character (ASCII with no CR LF pair) needs no boundary table, so ASCII addresses are handled
// byte by byte; other text is segmented once with ICU. Views are plain values: use them from
// any thread while the text (and the boundary storage, if any) lives.
class CharacterView {
  public:
    CharacterView() = default;

    // True when every byte of `text` is one character: all bytes ASCII and no CR LF pair.
    // Inline: addresses are almost always ASCII without a CR, which one quick scan settles.
    static bool isOneBytePerCharacter(std::string_view text) {
        return isASCIIWithoutCR(text) || isASCIIWithoutCRLF(text);
    }

    // Views `text`, which must be one byte per character, without segmenting it.
    static CharacterView bytes(std::string_view text);

    // Views any UTF-8 text. When `text` is not one byte per character its boundaries are
    // written to `storage`, which must outlive the view and not be changed while it is used.
    // Invalid UTF-8 never fails: each ill-formed sequence becomes a character of its own.
    static CharacterView segment(std::string_view text, std::vector<std::uint32_t>& storage);

    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    std::string_view text() const { return text_; }
    bool isOneBytePerCharacter() const { return bounds_ == nullptr; }

    // Character `i` as its UTF-8 bytes.
    std::string_view operator[](std::size_t i) const {
        if (!bounds_) return text_.substr(i, 1);
        return text_.substr(bounds_[i] - bounds_[0], bounds_[i + 1] - bounds_[i]);
    }

    // Characters [from, to).
    CharacterView slice(std::size_t from, std::size_t to) const;
    CharacterView suffix(std::size_t from) const { return slice(from, count_); }

    // Character-wise prefix test: "e" is not a prefix of "e" + U+0301, which is one character.
    bool startsWith(const CharacterView& prefix) const;

    // The first index >= `from` whose character is exactly `character`, if any.
    std::optional<std::size_t> find(std::string_view character, std::size_t from = 0) const;

    // The ASCII value of a character, if it is one: a single byte below 0x80, or CR LF, which
    // counts as the line feed 0x0A.
    static std::optional<std::uint8_t> asciiValue(std::string_view character) {
        if (character.size() == 1 && static_cast<unsigned char>(character[0]) < 0x80) {
            return static_cast<std::uint8_t>(character[0]);
        }
        if (character == "\r\n") return std::uint8_t{'\n'};
        return std::nullopt;
    }

  private:
    static bool isASCIIWithoutCRLF(std::string_view text);
    CharacterView(std::string_view text, const std::uint32_t* bounds, std::size_t count)
        : text_(text), bounds_(bounds), count_(count) {}

    std::string_view text_;
    // count_ + 1 byte offsets into the segmented text, or null when one byte is one character.
    const std::uint32_t* bounds_ = nullptr;
    std::size_t count_ = 0;
};

}  // namespace kavrin
