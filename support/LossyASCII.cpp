#include "support/LossyASCII.hpp"

#include <cstdint>
#include <memory>
#include <mutex>

#include <unicode/translit.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include "support/ASCIIScan.hpp"

namespace kavrin {

namespace {

// A transliterator is not safe to share between threads, and creating one is slow (it parses
// its rules), so one instance is made on first use and every use is serialised.
class SharedTransliterator {
  public:
    static SharedTransliterator& instance() {
        static SharedTransliterator shared;
        return shared;
    }

    // Transliterates in place; leaves `text` unchanged when ICU has no "Latin-ASCII" transform.
    void transliterate(icu::UnicodeString& text) {
        std::lock_guard lock(mutex_);
        if (transliterator_) transliterator_->transliterate(text);
    }

  private:
    SharedTransliterator() {
        UErrorCode status = U_ZERO_ERROR;
        transliterator_.reset(
            icu::Transliterator::createInstance("Latin-ASCII", UTRANS_FORWARD, status));
        if (U_FAILURE(status)) transliterator_.reset();
    }

    std::mutex mutex_;
    std::unique_ptr<icu::Transliterator> transliterator_;
};

}  // namespace

std::string lossyASCII(std::string_view utf8) {
    if (isPrintableASCII(utf8)) return std::string(utf8);

    // Invalid sequences become U+FFFD here, which the last step drops.
    const icu::UnicodeString original = icu::UnicodeString::fromUTF8(
        icu::StringPiece(utf8.data(), static_cast<std::int32_t>(utf8.size())));
    icu::UnicodeString converted = original;
    SharedTransliterator::instance().transliterate(converted);
    const icu::UnicodeString& text = converted.isEmpty() ? original : converted;

    std::string result;
    result.reserve(static_cast<std::size_t>(text.length()));
    for (std::int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
        const UChar32 codePoint = text.char32At(i);
        if (isPrintableASCII(static_cast<char32_t>(codePoint))) {
            result.push_back(static_cast<char>(codePoint));
        }
    }
    return result;
}

}  // namespace kavrin
