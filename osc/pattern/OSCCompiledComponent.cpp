#include "osc/pattern/detail/OSCCompiledComponent.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/detail/PositionSearch.hpp"
#include "support/ASCIIScan.hpp"

namespace kavrin {

using Token = OSCAddressPattern::Token;

// Words are read with memcpy and compared or searched byte-wise; the shifts below assume the
// first byte in memory is the low byte.
static_assert(std::endian::native == std::endian::little);

// The pieces of the matcher's inner loop are always inlined: with calls, saving and restoring
// registers costs more than matching a short address.

namespace {


[[gnu::always_inline]] inline std::uint64_t load(const char* at) {
    return loadWord<std::uint64_t>(at);
}

// The bytes [at, end), fewer than eight, in a word: two overlapping smaller words combined.
[[gnu::always_inline]] inline std::uint64_t loadShort(const char* at, const char* end) {
    const std::ptrdiff_t left = end - at;
    if (left >= 4) {
        return loadWord<std::uint32_t>(at) | std::uint64_t{loadWord<std::uint32_t>(end - 4)}
                                                 << (8 * (left - 4));
    }
    if (left >= 2) {
        return loadWord<std::uint16_t>(at) | std::uint64_t{loadWord<std::uint16_t>(end - 2)}
                                                 << (8 * (left - 2));
    }
    return static_cast<unsigned char>(*at);
}

// Up to eight bytes from `at` (before `end`) in [first, end), the first in the low byte; what
// lies beyond `end` is unspecified. Near the end of the buffer the last eight bytes are read and
// shifted, so short texts need no byte loop.
[[gnu::always_inline]] inline std::uint64_t loadAt(const char* at, const char* first,
                                                   const char* end) {
    const std::ptrdiff_t left = end - at;
    if (left >= 8) return load(at);
    if (end - first >= 8) return load(end - 8) >> (8 * (8 - left));
    return loadShort(at, end);
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

// Whether the bytes at `at` equal `text` from its ninth byte on; `text` is longer than eight
// bytes and [at, at + its size) readable. Word by word, the last word overlapping, so that no
// library call makes the matcher save its registers.
[[gnu::always_inline]] inline bool tailEquals(const char* at, const std::string& text) {
    const char* const bytes = text.data();
    const std::size_t size = text.size();
    for (std::size_t i = 8; i + 8 < size; i += 8) {
        if (load(at + i) != load(bytes + i)) return false;
    }
    return load(at + size - 8) == load(bytes + size - 8);
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
    return size <= 8 || tailEquals(at, text);
}

[[gnu::always_inline]] inline bool OSCCompiledComponent::Step::acceptsAt(const char* at,
                                                                         const char* end) const {
    if (at == end) return false;
    const auto byte = static_cast<unsigned char>(*at);
    return byte < 128 && (acceptBits[byte >> 6] >> (byte & 63) & 1);
}

[[gnu::always_inline]] inline std::ptrdiff_t OSCCompiledComponent::Step::takeString(
    const char* at, const char* first, const char* end) const {
    // "{}" takes nothing and matches, deliberately.
    if (alternatives.empty()) return 0;
    if (at == end) return -1;  // alternatives are never empty
    // The bytes at `at` are read once for all alternatives.
    const auto left = static_cast<std::size_t>(end - at);
    const std::uint64_t word = loadAt(at, first, end);
    // Deliberate: the first alternative that is a prefix is the only one ever tried.
    for (const Text& alternative : alternatives) {
        const std::size_t size = alternative.text.size();
        if (size <= left && (word & alternative.headMask) == alternative.head &&
            (size <= 8 || tailEquals(at, alternative.text))) {
            return static_cast<std::ptrdiff_t>(size);
        }
    }
    return -1;
}

std::ptrdiff_t OSCCompiledComponent::Step::take(const char* at, const char* first,
                                                const char* end) const {
    switch (kind) {
        case Kind::text:
            return text.startsAt(at, first, end) ? static_cast<std::ptrdiff_t>(text.text.size())
                                                 : -1;
        case Kind::oneOf:
            return acceptsAt(at, end) ? 1 : -1;
        case Kind::strings:
            return takeString(at, first, end);
        case Kind::star:
        case Kind::starThenSeparator:
        case Kind::separator:
        case Kind::component:
            break;
    }
    return -1;
}

// A component's steps as the position search reads them, over the bytes [begin, end), which
// hold no "/"; [first, end) is the whole buffer.
class OSCCompiledComponent::SearchSteps {
  public:
    SearchSteps(const std::vector<Step>& steps, const char* begin, const char* first,
                const char* end)
        : step_(steps.data()),
          last_(steps.data() + steps.size()),
          begin_(begin),
          first_(first),
          end_(end) {}
    bool done() const { return step_ == last_; }
    void advance() { ++step_; }
    bool isStar() const { return step_->kind == Step::Kind::star; }
    std::ptrdiff_t take(std::size_t p) const { return step_->take(begin_ + p, first_, end_); }

  private:
    const Step* step_;
    const Step* last_;
    const char* begin_;
    const char* first_;
    const char* end_;
};

OSCCompiledComponent::OSCCompiledComponent(std::vector<Token> tokens) : tokens_(std::move(tokens)) {
    std::vector<std::size_t> stars;
    for (const auto& token : tokens_) {
        Step step;
        switch (token.kind) {
            case Token::Kind::literal:
                step.kind = Step::Kind::text;
                step.text = Text(token.text);
                break;
            case Token::Kind::zeroOrMoreWildcard:
                step.kind = Step::Kind::star;
                stars.push_back(steps_.size());
                break;
            case Token::Kind::singleCharWildcard:
                step.kind = Step::Kind::oneOf;
                step.acceptBits[0] = step.acceptBits[1] = ~std::uint64_t{0};
                break;
            case Token::Kind::singleChar:
                step.kind = Step::Kind::oneOf;
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
                step.kind = Step::Kind::strings;
                for (const auto& alternative : token.alternatives) {
                    step.alternatives.emplace_back(alternative);
                }
                break;
        }
        // "/" is never part of a component of an address, and ends the one being matched.
        step.acceptBits['/' >> 6] &= ~(std::uint64_t{1} << ('/' & 63));
        steps_.push_back(std::move(step));
    }

    if (tokens_.empty()) {
        shape_ = Shape::plainText;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::literal) {
        shape_ = Shape::plainText;
        text_ = tokens_[0].text;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::zeroOrMoreWildcard) {
        shape_ = Shape::anything;
    } else if (stars.empty() || (stars.size() == 1 && stars[0] + 1 == steps_.size())) {
        shape_ = Shape::linear;
    } else if (stars.size() == 1) {
        shape_ = Shape::oneStar;
        star_ = stars[0];
        // Steps that always take the same number of bytes can succeed from one start only.
        suffixLength_ = 0;
        for (std::size_t i = star_ + 1; i < steps_.size() && suffixLength_ >= 0; ++i) {
            const Step& step = steps_[i];
            switch (step.kind) {
                case Step::Kind::text:
                    suffixLength_ += static_cast<std::ptrdiff_t>(step.text.text.size());
                    break;
                case Step::Kind::oneOf:
                    suffixLength_ += 1;
                    break;
                case Step::Kind::strings: {
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
                case Step::Kind::star:
                case Step::Kind::starThenSeparator:
                case Step::Kind::separator:
                case Step::Kind::component:
                    break;
            }
        }
    } else {
        shape_ = Shape::search;
    }
}

[[gnu::always_inline]] inline const char* OSCCompiledComponent::follow(
    const Step* step, const Step* last, const char* at, const char* first, const char* end,
    const OSCCompiledComponent* components) {
    for (; step != last; ++step) {
        switch (step->kind) {
            case Step::Kind::text:
                if (!step->text.startsAt(at, first, end)) return nullptr;
                at += step->text.text.size();
                break;
            case Step::Kind::oneOf:
                if (!step->acceptsAt(at, end)) return nullptr;
                ++at;
                break;
            case Step::Kind::strings: {
                const std::ptrdiff_t taken = step->takeString(at, first, end);
                if (taken < 0) return nullptr;
                at += taken;
                break;
            }
            case Step::Kind::star:
                at = findSlash(at, first, end);
                break;
            case Step::Kind::starThenSeparator:
                at = findSlash(at, first, end);
                if (at == end) return nullptr;
                ++at;
                break;
            case Step::Kind::separator:
                if (at == end || *at != '/') return nullptr;
                ++at;
                break;
            case Step::Kind::component:
                at = components[step->component].searchAt(at, first, end);
                if (!at) return nullptr;
                break;
            default:
                __builtin_unreachable();  // every kind is handled: no range check per step
        }
    }
    return at;
}

const char* OSCCompiledComponent::searchAt(const char* begin, const char* first,
                                           const char* end) const {
    const char* const stop = findSlash(begin, first, end);
    const Step* const steps = steps_.data();
    if (shape_ == Shape::oneStar) {
        const char* const star = follow(steps, steps + star_, begin, first, stop, nullptr);
        if (!star) return nullptr;
        const Step* const suffix = steps + star_ + 1;
        const Step* const last = steps + steps_.size();
        if (suffixLength_ >= 0) {
            // The star's only useful length leaves exactly suffixLength_ bytes.
            return stop - star >= suffixLength_ &&
                           follow(suffix, last, stop - suffixLength_, first, stop, nullptr) == stop
                       ? stop
                       : nullptr;
        }
        // Shortest first, as the star tries them; only whether one fits matters.
        for (const char* from = star; from <= stop; ++from) {
            if (follow(suffix, last, from, first, stop, nullptr) == stop) return stop;
        }
        return nullptr;
    }
    return positionSearch::reachesEnd(SearchSteps(steps_, begin, first, stop), 0,
                                      static_cast<std::size_t>(stop - begin))
               ? stop
               : nullptr;
}

bool OSCCompiledComponent::matches(std::string_view component) const {
    // matchComponent's own short cuts: these need no characters.
    if (shape_ == Shape::anything) return true;
    if (shape_ == Shape::plainText) return component == text_;
    if (CharacterView::isOneBytePerCharacter(component)) return matchesBytes(component);
    return OSCAddressPattern::matchComponent(component, tokens_);
}

bool OSCCompiledComponent::matchesBytes(std::string_view component) const {
    const char* const begin = component.data();
    const char* const end = begin + component.size();
    const char* const stop =
        shape_ == Shape::oneStar || shape_ == Shape::search
            ? searchAt(begin, begin, end)
            : follow(steps_.data(), steps_.data() + steps_.size(), begin, begin, end, nullptr);
    // Reaching the end means the component held no "/" and matched.
    if (stop == end) return true;
    if (findSlash(begin, begin, end) == end) return false;
    return OSCAddressPattern::matchComponent(component, tokens_);
}

std::vector<OSCCompiledComponent::Step> OSCCompiledComponent::pathSteps(
    const std::vector<OSCCompiledComponent>& components) {
    std::vector<Step> steps;
    const auto appendText = [&steps](const std::string& text) {
        // Separators and text next to each other are compared as one text.
        if (!steps.empty() &&
            (steps.back().kind == Step::Kind::text || steps.back().kind == Step::Kind::separator)) {
            steps.back().kind = Step::Kind::text;
            steps.back().text = Text(steps.back().text.text + text);
        } else {
            Step step;
            step.text = Text(text);
            steps.push_back(std::move(step));
        }
    };
    for (std::size_t i = 0; i < components.size(); ++i) {
        const OSCCompiledComponent& component = components[i];
        if (i > 0 && !steps.empty() && steps.back().kind == Step::Kind::star) {
            // The star stops at the "/" it has to find anyway.
            steps.back().kind = Step::Kind::starThenSeparator;
        } else if (i > 0) {
            appendText("/");
            if (steps.back().text.text == "/") steps.back().kind = Step::Kind::separator;
        }
        if (component.shape_ == Shape::oneStar || component.shape_ == Shape::search) {
            Step step;
            step.kind = Step::Kind::component;
            step.component = i;
            steps.push_back(std::move(step));
            continue;
        }
        for (const Step& step : component.steps_) {
            if (step.kind == Step::Kind::text) {
                appendText(step.text.text);
            } else {
                steps.push_back(step);
            }
        }
    }
    return steps;
}

bool OSCCompiledComponent::matchesAddress(const std::vector<Step>& steps,
                                          const std::vector<OSCCompiledComponent>& components,
                                          std::string_view address) {
    if (!CharacterView::isOneBytePerCharacter(address)) {
        return matchesCharacters(components, address);
    }
    // One leading and then one trailing "/" go, as pathComponents drops them.
    const char* first = address.data();
    const char* end = first + address.size();
    if (first != end && *first == '/') ++first;
    if (first != end && end[-1] == '/') --end;
    // An empty path has no components, and the pattern has some.
    if (first == end) return false;
    // No step but a separator takes a "/", so ending at the end means the component counts
    // agree and each component matched.
    return follow(steps.data(), steps.data() + steps.size(), first, first, end,
                  components.data()) == end;
}

bool OSCCompiledComponent::matchesCharacters(const std::vector<OSCCompiledComponent>& components,
                                             std::string_view address) {
    // Deliberate, as uncompiled: no components, no match, not even for "/". (The byte-wise
    // answer is false then too: no steps cannot reach the end of a non-empty path.)
    if (components.empty()) return false;
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    if (parts.size() != components.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!OSCAddressPattern::matchComponent(parts[i], components[i].tokens_)) return false;
    }
    return true;
}

}  // namespace kavrin
