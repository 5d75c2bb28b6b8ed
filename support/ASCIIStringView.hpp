#pragma once

#include <compare>
#include <cstddef>
#include <string_view>

#include "support/ASCIICharacter.hpp"

namespace kavrin {

// A non-owning view of text known to be ASCII, checked once when it is made. Valid while the
// viewed bytes live and do not change; a plain value, any thread.
class ASCIIStringView {
  public:
    constexpr ASCIIStringView() = default;

    // Throws ASCIIError naming the first character outside U+0000..U+007F.
    explicit ASCIIStringView(std::string_view text) : text_(text) { check(text, false); }

    // Throws ASCIIError naming the first character outside U+0020..U+007E.
    static ASCIIStringView printable(std::string_view text) {
        check(text, true);
        return ASCIIStringView(text, Unchecked{});
    }

    std::string_view text() const { return text_; }
    operator std::string_view() const { return text_; }

    std::size_t size() const { return text_.size(); }
    bool empty() const { return text_.empty(); }
    ASCIICharacter operator[](std::size_t i) const { return ASCIICharacter(text_[i]); }
    const char* begin() const { return text_.data(); }
    const char* end() const { return text_.data() + text_.size(); }

    bool isPrintable() const { return isPrintableASCII(text_); }

    friend bool operator==(ASCIIStringView, ASCIIStringView) = default;
    friend auto operator<=>(ASCIIStringView, ASCIIStringView) = default;

  private:
    friend class ASCIIString;
    struct Unchecked {};

    ASCIIStringView(std::string_view text, Unchecked) : text_(text) {}

    // The fast word scan first; only text that fails it is walked for the offender's position.
    static void check(std::string_view text, bool printableOnly) {
        if (printableOnly ? !isPrintableASCII(text) : !isASCII(text)) {
            throwFirstOffender(text, printableOnly);
        }
    }
    [[noreturn]] static void throwFirstOffender(std::string_view text, bool printableOnly);

    std::string_view text_;
};

}  // namespace kavrin
