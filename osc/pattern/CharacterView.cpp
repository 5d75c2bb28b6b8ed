#include "osc/pattern/CharacterView.hpp"

#include <cstring>
#include <memory>

#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include "support/ASCIIScan.hpp"

namespace kavrin {

namespace {

// ASCII text: every byte is a character except that CR LF is one.
void asciiBoundaries(std::string_view text, std::vector<std::uint32_t>& bounds) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i > 0 && text[i - 1] == '\r' && text[i] == '\n') continue;
        bounds.push_back(static_cast<std::uint32_t>(i));
    }
    bounds.push_back(static_cast<std::uint32_t>(text.size()));
}

// Used only if ICU cannot give a character break iterator: one code point per character.
void codePointBoundaries(std::string_view text, std::vector<std::uint32_t>& bounds) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    for (std::int32_t i = 0; i < length;) {
        bounds.push_back(static_cast<std::uint32_t>(i));
        UChar32 ignored;
        U8_NEXT(bytes, i, length, ignored);
        (void)ignored;
    }
    bounds.push_back(static_cast<std::uint32_t>(text.size()));
}

// A break iterator is costly to create and not thread-safe, so each thread keeps its own.
icu::BreakIterator* threadBreakIterator() {
    thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> made(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        if (U_FAILURE(status)) made.reset();
        return made;
    }();
    return iterator.get();
}

void graphemeBoundaries(std::string_view text, std::vector<std::uint32_t>& bounds) {
    icu::BreakIterator* iterator = threadBreakIterator();
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = iterator ? utext_openUTF8(nullptr, text.data(),
                                             static_cast<std::int64_t>(text.size()), &status)
                            : nullptr;
    if (!utext || U_FAILURE(status)) {
        if (utext) utext_close(utext);
        codePointBoundaries(text, bounds);
        return;
    }
    iterator->setText(utext, status);
    if (U_FAILURE(status)) {
        utext_close(utext);
        codePointBoundaries(text, bounds);
        return;
    }
    // UTF-8 UText reports native (byte) indexes, which are what the view needs.
    for (std::int32_t at = iterator->first(); at != icu::BreakIterator::DONE;
         at = iterator->next()) {
        bounds.push_back(static_cast<std::uint32_t>(at));
    }
    // Detach the iterator from the text before the UText goes away.
    static const icu::UnicodeString nothing;
    iterator->setText(nothing);
    utext_close(utext);
    if (bounds.empty() || bounds.back() != text.size()) {
        bounds.clear();
        codePointBoundaries(text, bounds);
    }
}

}  // namespace

// Only ASCII text without a CR LF pair, which is one character, has a byte per character.
bool CharacterView::isASCIIWithoutCRLF(std::string_view text) {
    return isASCII(text) && text.find("\r\n") == std::string_view::npos;
}

CharacterView CharacterView::bytes(std::string_view text) {
    return CharacterView(text, nullptr, text.size());
}

CharacterView CharacterView::segment(std::string_view text, std::vector<std::uint32_t>& storage) {
    if (isOneBytePerCharacter(text)) return bytes(text);
    storage.clear();
    if (isASCII(text)) {
        asciiBoundaries(text, storage);
    } else {
        graphemeBoundaries(text, storage);
    }
    return CharacterView(text, storage.data(), storage.size() - 1);
}

CharacterView CharacterView::slice(std::size_t from, std::size_t to) const {
    if (!bounds_) return CharacterView(text_.substr(from, to - from), nullptr, to - from);
    const std::size_t begin = bounds_[from] - bounds_[0];
    return CharacterView(text_.substr(begin, bounds_[to] - bounds_[from]), bounds_ + from,
                         to - from);
}

bool CharacterView::startsWith(const CharacterView& prefix) const {
    if (prefix.count_ > count_) return false;
    if (!bounds_ && !prefix.bounds_) return text_.starts_with(prefix.text_);
    for (std::size_t i = 0; i < prefix.count_; ++i) {
        if ((*this)[i] != prefix[i]) return false;
    }
    return true;
}

std::optional<std::size_t> CharacterView::find(std::string_view character, std::size_t from) const {
    if (!bounds_) {
        if (character.size() != 1) return std::nullopt;
        const std::size_t at = text_.find(character[0], from);
        if (at == std::string_view::npos) return std::nullopt;
        return at;
    }
    for (std::size_t i = from; i < count_; ++i) {
        if ((*this)[i] == character) return i;
    }
    return std::nullopt;
}

}  // namespace kavrin
