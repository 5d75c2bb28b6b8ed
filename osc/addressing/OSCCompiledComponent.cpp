#include "osc/addressing/OSCCompiledComponent.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "osc/addressing/CharacterView.hpp"

namespace kavrin {

using Token = OSCAddressPattern::Token;

// Words are read with memcpy and compared or searched byte-wise; the shifts below assume the
// first byte in memory is the low byte.
static_assert(std::endian::native == std::endian::little);

// The pieces of the matcher's inner loop are always inlined: with calls, saving and restoring
// registers costs more than matching a short address.

namespace {

constexpr std::uint64_t ones = 0x0101010101010101ULL;
constexpr std::uint64_t highBits = 0x8080808080808080ULL;

[[gnu::always_inline]] inline std::uint64_t load(const char* at) {
    std::uint64_t word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// Up to eight bytes from `at` in [first, end), the first in the low byte; what lies beyond
// `end` is unspecified. Near the end of the buffer the last eight bytes are read and shifted,
// so short texts need no byte loop.
[[gnu::always_inline]] inline std::uint64_t loadAt(const char* at, const char* first,
                                                   const char* end) {
    if (end - at >= 8) return load(at);
    if (end - first >= 8) return load(end - 8) >> (8 * (8 - (end - at)));
    std::uint64_t word = 0;
    for (int i = 0; at + i != end; ++i) {
        word |= std::uint64_t{static_cast<unsigned char>(at[i])} << (8 * i);
    }
    return word;
}

// The high bit of each byte of `word` equal to `byte`, and maybe of bytes above such a byte:
// the lowest set bit is exact.
[[gnu::always_inline]] inline std::uint64_t bytesEqual(std::uint64_t word, char byte) {
    const std::uint64_t zeroed = word ^ (ones * static_cast<unsigned char>(byte));
    return (zeroed - ones) & ~zeroed & highBits;
}

// The first "/" in [at, end), or end; [first, end) is the whole buffer.
[[gnu::always_inline]] inline const char* findSlash(const char* at, const char* first,
                                                    const char* end) {
    for (; end - at >= 8; at += 8) {
        if (const std::uint64_t found = bytesEqual(load(at), '/')) {
            return at + std::countr_zero(found) / 8;
        }
    }
    if (at == end) return end;
    // The bytes shifted in beyond `end` are zero, never "/".
    const std::uint64_t found = bytesEqual(loadAt(at, first, end), '/');
    return found ? at + std::countr_zero(found) / 8 : end;
}

}  // namespace

OSCCompiledComponent::Text::Text(std::string bytes) : text(std::move(bytes)) {
    const std::size_t size = std::min<std::size_t>(text.size(), 8);
    std::memcpy(&head, text.data(), size);
    std::memset(&headMask, 0xFF, size);
}

[[gnu::always_inline]] inline bool OSCCompiledComponent::Text::startsAt(const char* at,
                                                                        const char* first,
                                                                        const char* end) const {
    const std::size_t size = text.size();
    if (static_cast<std::size_t>(end - at) < size) return false;
    if ((loadAt(at, first, end) & headMask) != head) return false;
    return size <= 8 || std::memcmp(at + 8, text.data() + 8, size - 8) == 0;
}

// The backtracking search of OSCAddressPattern::matchComponent over the bytes of a component
// that holds no "/", for components with two or more stars: each level fixes its start, a star
// tries lengths shortest first, every other step has one way of matching and so needs no level of
// its own. A level's answer depends only on (step, start), so failures are remembered:
// "*a*a*a*a*a*b" stays polynomial.
class OSCCompiledComponent::ByteSearch {
  public:
    ByteSearch(const std::vector<Step>& steps, const char* begin, const char* end,
               const char* first)
        : steps_(steps.data()),
          count_(steps.size()),
          begin_(begin),
          end_(end),
          first_(first),
          length_(static_cast<std::size_t>(end - begin)) {
        const std::size_t words = (count_ * (length_ + 1) + 63) / 64;
        if (words <= std::size(inline_)) {
            std::memset(inline_, 0, words * sizeof(std::uint64_t));
            failed_ = inline_;
        } else {
            thread_local std::vector<std::uint64_t> spill;
            spill.assign(words, 0);
            failed_ = spill.data();
        }
    }

    bool run() { return tryFrom(0, begin_); }

  private:
    bool tryFrom(std::size_t i, const char* start) {
        const std::size_t bit = i * (length_ + 1) + static_cast<std::size_t>(start - begin_);
        if (failed_[bit / 64] >> (bit % 64) & 1) return false;
        bool found = false;
        for (const char* at = start;; ++i) {
            const Step& step = steps_[i];
            const bool isLast = i + 1 == count_;
            if (step.kind == Token::Kind::zeroOrMoreWildcard) {
                if (isLast) return true;  // some length reaches the end
                for (const char* next = at; next <= end_ && !found; ++next) {
                    found = tryFrom(i + 1, next);
                }
                break;
            }
            const std::ptrdiff_t taken = step.take(at, first_, end_);
            if (taken < 0) break;
            at += taken;
            if (isLast) {
                found = at == end_;
                break;
            }
        }
        if (!found) failed_[bit / 64] |= std::uint64_t{1} << (bit % 64);
        return found;
    }

    const Step* steps_;
    std::size_t count_;
    const char* begin_;
    const char* end_;
    const char* first_;
    std::size_t length_;
    std::uint64_t* failed_ = nullptr;
    std::uint64_t inline_[16];
};

OSCCompiledComponent::OSCCompiledComponent(std::vector<Token> tokens) : tokens_(std::move(tokens)) {
    std::vector<std::size_t> stars;
    for (const auto& token : tokens_) {
        Step step;
        step.kind = token.kind;
        switch (token.kind) {
            case Token::Kind::literal:
                step.literal = Text(token.text);
                break;
            case Token::Kind::zeroOrMoreWildcard:
                stars.push_back(steps_.size());
                break;
            case Token::Kind::singleCharWildcard:
                step.acceptBits[0] = step.acceptBits[1] = ~std::uint64_t{0};
                break;
            case Token::Kind::singleChar:
                // The verdict per byte comes from the character-wise rule itself.
                for (int byte = 0; byte < 128; ++byte) {
                    const std::string character(1, static_cast<char>(byte));
                    bool found = false;
                    for (const auto& group : token.groups)
                        found = found || group.accepts(character);
                    if (found != token.isExclusion) {
                        step.acceptBits[byte >> 6] |= std::uint64_t{1} << (byte & 63);
                    }
                }
                break;
            case Token::Kind::strings:
                for (const auto& alternative : token.alternatives) {
                    step.alternatives.emplace_back(alternative);
                }
                break;
        }
        step.acceptBits['/' >> 6] &= ~(std::uint64_t{1} << ('/' & 63));
        steps_.push_back(std::move(step));
    }

    if (tokens_.empty()) {
        shape_ = Shape::plainText;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::literal) {
        shape_ = Shape::plainText;
        text_ = steps_[0].literal;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::zeroOrMoreWildcard) {
        shape_ = Shape::anything;
    } else if (stars.empty()) {
        shape_ = Shape::fixed;
    } else if (stars.size() == 1) {
        shape_ = Shape::oneStar;
        star_ = stars[0];
        // Steps that always take the same number of bytes can succeed from one start only.
        suffixLength_ = 0;
        for (std::size_t i = star_ + 1; i < steps_.size() && suffixLength_ >= 0; ++i) {
            const Step& step = steps_[i];
            switch (step.kind) {
                case Token::Kind::literal:
                    suffixLength_ += static_cast<std::ptrdiff_t>(step.literal.text.size());
                    break;
                case Token::Kind::singleCharWildcard:
                case Token::Kind::singleChar:
                    suffixLength_ += 1;
                    break;
                case Token::Kind::strings: {
                    const auto& alternatives = step.alternatives;
                    for (const auto& alternative : alternatives) {
                        if (alternative.text.size() != alternatives.front().text.size()) {
                            suffixLength_ = -1;
                        }
                    }
                    if (suffixLength_ >= 0 && !alternatives.empty()) {
                        suffixLength_ +=
                            static_cast<std::ptrdiff_t>(alternatives.front().text.size());
                    }
                    break;
                }
                case Token::Kind::zeroOrMoreWildcard:
                    break;
            }
        }
    } else {
        shape_ = Shape::search;
    }
}

[[gnu::always_inline]] inline std::ptrdiff_t OSCCompiledComponent::Step::take(
    const char* at, const char* first, const char* end) const {
    switch (kind) {
        case Kind::literal:
            return literal.startsAt(at, first, end)
                       ? static_cast<std::ptrdiff_t>(literal.text.size())
                       : -1;
        case Kind::singleCharWildcard:
        case Kind::singleChar: {
            if (at == end) return -1;
            const auto byte = static_cast<unsigned char>(*at);
            return byte < 128 && (acceptBits[byte >> 6] >> (byte & 63) & 1) ? 1 : -1;
        }
        case Kind::strings:
            // "{}" takes nothing and matches, deliberately.
            if (alternatives.empty()) return 0;
            // Deliberate: the first alternative that is a prefix is the only one ever tried.
            for (const auto& alternative : alternatives) {
                if (alternative.startsAt(at, first, end)) {
                    return static_cast<std::ptrdiff_t>(alternative.text.size());
                }
            }
            return -1;
        case Kind::zeroOrMoreWildcard:
            break;
    }
    return -1;
}

[[gnu::always_inline]] inline const char* OSCCompiledComponent::follow(
    const Step* step, const Step* last, const char* at, const char* first, const char* end) {
    for (; step != last; ++step) {
        const std::ptrdiff_t taken = step->take(at, first, end);
        if (taken < 0) return nullptr;
        at += taken;
    }
    return at;
}

[[gnu::always_inline]] inline const char* OSCCompiledComponent::matchAt(const char* begin,
                                                                        const char* first,
                                                                        const char* end) const {
    const Step* const steps = steps_.data();
    const Step* const last = steps + steps_.size();
    // No step takes a "/", so a component without a star can be followed in place and then
    // needs only its end checked.
    switch (shape_) {
        case Shape::plainText: {
            if (!text_.startsAt(begin, first, end)) return nullptr;
            const char* const after = begin + text_.text.size();
            return after == end || *after == '/' ? after : nullptr;
        }
        case Shape::anything:
            return findSlash(begin, first, end);
        case Shape::fixed: {
            const char* const after = follow(steps, last, begin, first, end);
            return after && (after == end || *after == '/') ? after : nullptr;
        }
        case Shape::oneStar: {
            const char* const star = follow(steps, steps + star_, begin, first, end);
            if (!star) return nullptr;
            const char* const stop = findSlash(star, first, end);
            const Step* const suffix = steps + star_ + 1;
            if (suffix == last) return stop;  // the star takes the rest
            if (suffixLength_ >= 0) {
                // The star's only useful length leaves exactly suffixLength_ bytes.
                return stop - star >= suffixLength_ &&
                               follow(suffix, last, stop - suffixLength_, first, stop) == stop
                           ? stop
                           : nullptr;
            }
            // Shortest first, as the star tries them; only whether one fits matters.
            for (const char* from = star; from <= stop; ++from) {
                if (follow(suffix, last, from, first, stop) == stop) return stop;
            }
            return nullptr;
        }
        case Shape::search:
            return searchAt(begin, first, end);
    }
    return nullptr;
}

const char* OSCCompiledComponent::searchAt(const char* begin, const char* first,
                                           const char* end) const {
    const char* const stop = findSlash(begin, first, end);
    return ByteSearch(steps_, begin, stop, first).run() ? stop : nullptr;
}

bool OSCCompiledComponent::matches(std::string_view component) const {
    if (isOneBytePerCharacter(component)) return matchesBytes(component);
    return OSCAddressPattern::matchComponent(component, tokens_);
}

bool OSCCompiledComponent::matchesBytes(std::string_view component) const {
    const char* const begin = component.data();
    const char* const end = begin + component.size();
    // Reaching the end means the component held no "/" and matched.
    if (matchAt(begin, begin, end) == end) return true;
    if (findSlash(begin, begin, end) == end) return false;
    return OSCAddressPattern::matchComponent(component, tokens_);
}

bool OSCCompiledComponent::matchesPath(const std::vector<OSCCompiledComponent>& components,
                                       std::string_view path) {
    if (path.empty() || components.empty()) return false;  // the counts differ, or no pattern
    const char* const first = path.data();
    const char* const end = first + path.size();
    const char* begin = first;
    const OSCCompiledComponent* const lastComponent = &components.back();
    for (const OSCCompiledComponent& component : components) {
        const char* const stop = component.matchAt(begin, first, end);
        if (!stop) return false;
        // The counts must agree: only the last component reaches the end.
        if (&component == lastComponent) return stop == end;
        if (stop == end) return false;
        begin = stop + 1;
    }
    return true;
}

bool OSCCompiledComponent::isOneBytePerCharacter(std::string_view text) {
    const char* const begin = text.data();
    const std::size_t size = text.size();
    std::uint64_t flags = 0;
    if (size >= 8) {
        for (std::size_t i = 0; i + 8 < size; i += 8) {
            const std::uint64_t word = load(begin + i);
            flags |= word | bytesEqual(word, '\r');
        }
        const std::uint64_t word = load(begin + size - 8);  // may overlap the previous one
        flags |= word | bytesEqual(word, '\r');
    } else {
        for (std::size_t i = 0; i < size; ++i) {
            const auto byte = static_cast<unsigned char>(begin[i]);
            flags |= byte | (byte == '\r' ? 0x80u : 0u);
        }
    }
    // Only a byte with its top bit set or a CR needs the exact check.
    return (flags & highBits) == 0 || CharacterView::isOneBytePerCharacter(text);
}

}  // namespace kavrin
