#include "osc/addressing/OSCCompiledPattern.hpp"

#include <cstdint>
#include <cstring>

#include "osc/addressing/CharacterView.hpp"

namespace kavrin {

using Token = OSCAddressPattern::Token;

// The backtracking search of OSCAddressPattern::matchComponent over bytes: each level fixes
// its start, a star tries lengths shortest first, every other step has one way of matching.
class OSCCompiledPattern::ByteSearch {
  public:
    ByteSearch(const Part& part, std::string_view component)
        : steps_(part.steps),
          component_(component),
          length_(component.size()),
          remembers_(part.remembersFailures) {
        if (!remembers_) return;
        const std::size_t bits = steps_.size() * (length_ + 1);
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

    // How many bytes step `i` takes at `start` in its only way of matching, or -1.
    std::ptrdiff_t take(const Step& step, std::size_t start) const {
        const std::string_view rest = component_.substr(start);
        switch (step.kind) {
            case Step::Kind::literal:
                return rest.starts_with(step.literal)
                           ? static_cast<std::ptrdiff_t>(step.literal.size())
                           : -1;
            case Step::Kind::singleCharWildcard:
                return rest.empty() ? -1 : 1;
            case Step::Kind::singleChar:
                return !rest.empty() && step.accepts[static_cast<unsigned char>(rest[0])] ? 1 : -1;
            case Step::Kind::strings:
                if (step.alternatives.empty()) return 0;
                for (const auto& alternative : step.alternatives) {
                    if (rest.starts_with(alternative)) {
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
        const bool isLast = i + 1 == steps_.size();
        const Step& step = steps_[i];
        bool found = false;
        if (step.kind == Step::Kind::zeroOrMoreWildcard) {
            if (isLast) return true;  // some length reaches the end
            for (std::size_t end = start; end <= length_ && !found; ++end)
                found = tryFrom(i + 1, end);
        } else {
            const std::ptrdiff_t taken = take(step, start);
            if (taken >= 0) {
                const std::size_t end = start + static_cast<std::size_t>(taken);
                found = isLast ? end == length_ : tryFrom(i + 1, end);
            }
        }
        if (!found && remembers_) failed_[bit / 64] |= std::uint64_t{1} << (bit % 64);
        return found;
    }

    const std::vector<Step>& steps_;
    std::string_view component_;
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
}

bool OSCCompiledPattern::matches(std::string_view address) const {
    // Same as the uncompiled form: no components, no match.
    if (parts_.empty()) return false;
    return CharacterView::isOneBytePerCharacter(address) ? matchesBytes(address)
                                                         : matchesCharacters(address);
}

bool OSCCompiledPattern::matchPart(const Part& part, std::string_view component) {
    switch (part.shape) {
        case Part::Shape::empty:
            return component.empty();
        case Part::Shape::literal:
            return component == part.literal;
        case Part::Shape::anything:
            return true;
        case Part::Shape::search:
            break;
    }
    return ByteSearch(part, component).run();
}

bool OSCCompiledPattern::matchesBytes(std::string_view address) const {
    // pathComponents on bytes: one leading and one trailing "/" go, then split at every "/".
    std::size_t begin = !address.empty() && address.front() == '/' ? 1 : 0;
    std::size_t end = address.size();
    if (end > begin && address[end - 1] == '/') --end;
    if (begin == end) return false;  // no components, and the pattern has some
    const std::string_view rest = address.substr(begin, end - begin);
    std::size_t from = 0;
    for (std::size_t i = 0; i < parts_.size(); ++i) {
        const std::size_t slash = rest.find('/', from);
        const bool isLast = i + 1 == parts_.size();
        // The counts must agree: the last part takes the rest only if it holds no "/".
        if (isLast != (slash == std::string_view::npos)) return false;
        const std::string_view component =
            rest.substr(from, isLast ? std::string_view::npos : slash - from);
        if (!matchPart(parts_[i], component)) return false;
        from = slash + 1;
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
