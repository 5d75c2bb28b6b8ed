#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "support/ASCIIStringView.hpp"

namespace kavrin {

// Owned text known to be ASCII. Made by a check that throws ASCIIError (like ASCIIStringView),
// or lossily from any UTF-8 with lossyASCII, which never fails. Distinct objects: safe from any
// thread. Shared objects: reads only.
class ASCIIString {
  public:
    ASCIIString() = default;

    // Throws ASCIIError naming the first character outside U+0000..U+007F.
    explicit ASCIIString(std::string text) : text_(std::move(text)) {
        ASCIIStringView::check(text_, false);
    }
    explicit ASCIIString(ASCIIStringView text) : text_(text.text()) {}

    // Throws ASCIIError naming the first character outside U+0020..U+007E.
    static ASCIIString printable(std::string text);
    // Printable ASCII made from any UTF-8 by lossyASCII ("Café\n" -> "Cafe").
    static ASCIIString lossy(std::string_view utf8);

    const std::string& str() const& { return text_; }
    std::string str() && { return std::move(text_); }
    ASCIIStringView view() const { return {text_, ASCIIStringView::Unchecked{}}; }
    operator ASCIIStringView() const { return view(); }
    operator std::string_view() const { return text_; }

    std::size_t size() const { return text_.size(); }
    bool empty() const { return text_.empty(); }
    ASCIICharacter operator[](std::size_t i) const { return ASCIICharacter(text_[i]); }
    const char* begin() const { return text_.data(); }
    const char* end() const { return text_.data() + text_.size(); }

    bool isPrintable() const { return isPrintableASCII(text_); }

    ASCIIString& operator+=(ASCIIStringView text) {
        text_ += text.text();
        return *this;
    }
    ASCIIString& operator+=(ASCIICharacter character) {
        text_ += character.value();
        return *this;
    }

    friend bool operator==(const ASCIIString&, const ASCIIString&) = default;
    friend auto operator<=>(const ASCIIString&, const ASCIIString&) = default;

  private:
    std::string text_;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::ASCIIString> {
    std::size_t operator()(const kavrin::ASCIIString& text) const noexcept {
        return std::hash<std::string_view>{}(text);
    }
};
