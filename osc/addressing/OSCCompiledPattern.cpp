#include "osc/addressing/OSCCompiledPattern.hpp"

#include <cstdint>
#include <cstring>

#include "osc/addressing/CharacterView.hpp"

namespace kavrin {

using Token = OSCAddressPattern::Token;

namespace {

// Short texts compare faster in a loop than through a library call.
bool hasPrefix(const char* text, std::size_t length, const std::string& prefix) {
    if (prefix.size() > length) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (text[i] != prefix[i]) return false;
    }
    return true;
}

bool equals(std::string_view text, const std::string& other) {
    return text.size() == other.size() && hasPrefix(text.data(), text.size(), other);
}

}  // namespace

// The backtracking search of OSCAddressPattern::matchComponent over bytes: each level fixes
// its start, a star tries lengths shortest first, every other step has one way of matching
// and so needs no level of its own.
class OSCCompiledPattern::ByteSearch {
  public:
    ByteSearch(const Part& part, std::string_view component)
        : steps_(part.steps.data()),
          count_(part.steps.size()),
          text_(component.data()),
          length_(component.size()),
          remembers_(part.remembersFailures) {
        if (!remembers_) return;
        const std::size_t bits = count_ * (length_ + 1);
        if (bits <= inlineBits) {
            std::memset(inline_, 0, sizeof inline_);
            failed_ = inline_;
        } else {
            thread_local std::vector<std::uint64_t> spill;
            spill.assign((bits + 63) / 64, 0);
            failed_ = spill.data();
        }
    }

    bool run() { return tryFrom(0, 0); }

  private:
    static constexpr std::size_t inlineBits = 1024;

    // How many bytes a single-way step takes at `start`, or -1.
    std::ptrdiff_t take(const Step& step, std::size_t start) const {
        const char* rest = text_ + start;
        const std::size_t left = length_ - start;
        switch (step.kind) {
            case Step::Kind::literal:
                return hasPrefix(rest, left, step.literal)
                           ? static_cast<std::ptrdiff_t>(step.literal.size())
                           : -1;
            case Step::Kind::singleCharWildcard:
                return left == 0 ? -1 : 1;
            case Step::Kind::singleChar:
                return left != 0 && step.accepts[static_cast<unsigned char>(rest[0])] ? 1 : -1;
            case Step::Kind::strings:
                if (step.alternatives.empty()) return 0;
                for (const auto& alternative : step.alternatives) {
                    if (hasPrefix(rest, left, alternative)) {
                        return static_cast<std::ptrdiff_t>(alternative.size());
                    }
                }
                return -1;
            case Step::Kind::zeroOrMoreWildcard:
                break;
        }
        return -1;
    }

    bool tryFrom(std::size_t i, std::size_t start) {
        const std::size_t bit = i * (length_ + 1) + start;
        if (remembers_ && (failed_[bit / 64] >> (bit % 64) & 1)) return false;
        bool found = false;
        for (std::size_t at = start;; ++i) {
            const Step& step = steps_[i];
            const bool isLast = i + 1 == count_;
            if (step.kind == Step::Kind::zeroOrMoreWildcard) {
                if (isLast) return true;  // some length reaches the end
                for (std::size_t end = at; end <= length_ && !found; ++end) {
                    found = tryFrom(i + 1, end);
                }
                break;
            }
            const std::ptrdiff_t taken = take(step, at);
            if (taken < 0) break;
            at += static_cast<std::size_t>(taken);
            if (isLast) {
                found = at == length_;
                break;
            }
        }
        if (!found && remembers_) failed_[bit / 64] |= std::uint64_t{1} << (bit % 64);
        return found;
    }

    const Step* steps_;
    std::size_t count_;
    const char* text_;
    std::size_t length_;
    bool remembers_;
    std::uint64_t* failed_ = nullptr;
    std::uint64_t inline_[inlineBits / 64];
};

OSCCompiledPattern::OSCCompiledPattern(OSCAddressPattern pattern)
    : pattern_(std::move(pattern)),
      components_(OSCAddressPattern::components(pattern_.rawAddress())) {
    parts_.reserve(components_.size());
    for (const auto& component : components_) {
        const auto& tokens = component.tokens;
        Part part{Part::Shape::search, {}, {}, false};
        if (tokens.empty()) {
            part.shape = Part::Shape::empty;
        } else if (tokens.size() == 1 && tokens[0].kind == Token::Kind::literal) {
            part.shape = Part::Shape::literal;
            part.literal = tokens[0].text;
        } else if (tokens.size() == 1 && tokens[0].kind == Token::Kind::zeroOrMoreWildcard) {
            part.shape = Part::Shape::anything;
        }
        std::size_t stars = 0;
        for (const auto& token : tokens) {
            Step step{static_cast<Step::Kind>(token.kind), {}, {}, {}};
            switch (token.kind) {
                case Token::Kind::literal:
                    step.literal = token.text;
                    break;
                case Token::Kind::zeroOrMoreWildcard:
                    ++stars;
                    break;
                case Token::Kind::singleCharWildcard:
                    break;
                case Token::Kind::singleChar:
                    // The verdict per byte comes from the character-wise rule itself.
                    for (int byte = 0; byte < 128; ++byte) {
                        const std::string character(1, static_cast<char>(byte));
                        bool found = false;
                        for (const auto& group : token.groups)
                            found = found || group.accepts(character);
                        step.accepts[static_cast<std::size_t>(byte)] = found != token.isExclusion;
                    }
                    break;
                case Token::Kind::strings:
                    step.alternatives.assign(token.alternatives.begin(), token.alternatives.end());
                    break;
            }
            part.steps.push_back(std::move(step));
        }
        part.remembersFailures = stars >= 2;
        parts_.push_back(std::move(part));
    }
    if (!parts_.empty()) {
        std::string joined;
        for (const auto& part : parts_) {
            if (part.shape != Part::Shape::literal && part.shape != Part::Shape::empty) return;
            if (&part != &parts_.front()) joined.push_back('/');
            joined += part.literal;
        }
        literalPath_ = std::move(joined);
    }
}

namespace {

// The address without one leading and then one trailing "/", as pathComponents strips it.
std::string_view strippedPath(std::string_view address) {
    if (!address.empty() && address.front() == '/') address.remove_prefix(1);
    if (!address.empty() && address.back() == '/') address.remove_suffix(1);
    return address;
}

}  // namespace

bool OSCCompiledPattern::matches(std::string_view address) const {
    // Same as the uncompiled form: no components, no match.
    if (parts_.empty()) return false;
    if (literalPath_) return strippedPath(address) == *literalPath_;
    return CharacterView::isOneBytePerCharacter(address) ? matchesBytes(address)
                                                         : matchesCharacters(address);
}

bool OSCCompiledPattern::matchPart(const Part& part, std::string_view component) {
    switch (part.shape) {
        case Part::Shape::empty:
            return component.empty();
        case Part::Shape::literal:
            return equals(component, part.literal);
        case Part::Shape::anything:
            return true;
        case Part::Shape::search:
            break;
    }
    return ByteSearch(part, component).run();
}

bool OSCCompiledPattern::matchesBytes(std::string_view address) const {
    const std::string_view path = strippedPath(address);
    if (path.empty()) return false;  // no components, and the pattern has some
    const char* const end = path.data() + path.size();
    const char* begin = path.data();
    for (std::size_t i = 0; i < parts_.size(); ++i) {
        const Part& part = parts_[i];
        const char* slash;
        if (part.shape == Part::Shape::literal || part.shape == Part::Shape::empty) {
            // Plain text is compared in place: it must be followed by "/" or the end.
            const auto left = static_cast<std::size_t>(end - begin);
            if (!hasPrefix(begin, left, part.literal)) return false;
            slash = begin + part.literal.size();
            if (slash != end && *slash != '/') return false;
        } else {
            slash = begin;
            while (slash != end && *slash != '/') ++slash;
            if (part.shape == Part::Shape::search &&
                !matchPart(part,
                           std::string_view(begin, static_cast<std::size_t>(slash - begin)))) {
                return false;
            }
        }
        // The counts must agree: the last part takes the rest only if no "/" is left.
        if ((i + 1 == parts_.size()) != (slash == end)) return false;
        begin = slash + 1;
    }
    return true;
}

bool OSCCompiledPattern::matchesCharacters(std::string_view address) const {
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    if (parts.size() != components_.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!OSCAddressPattern::matchComponent(parts[i], components_[i].tokens)) return false;
    }
    return true;
}

}  // namespace kavrin
