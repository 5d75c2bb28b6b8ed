#include "osc/addressing/OSCCompiledComponent.hpp"

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
class OSCCompiledComponent::ByteSearch {
  public:
    ByteSearch(const std::vector<Step>& steps, bool remembersFailures, std::string_view component)
        : steps_(steps.data()),
          count_(steps.size()),
          text_(component.data()),
          length_(component.size()),
          remembers_(remembersFailures) {
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
            case Token::Kind::literal:
                return hasPrefix(rest, left, step.literal)
                           ? static_cast<std::ptrdiff_t>(step.literal.size())
                           : -1;
            case Token::Kind::singleCharWildcard:
                return left == 0 ? -1 : 1;
            case Token::Kind::singleChar:
                return left != 0 && step.accepts[static_cast<unsigned char>(rest[0])] ? 1 : -1;
            case Token::Kind::strings:
                if (step.alternatives.empty()) return 0;
                for (const auto& alternative : step.alternatives) {
                    if (hasPrefix(rest, left, alternative)) {
                        return static_cast<std::ptrdiff_t>(alternative.size());
                    }
                }
                return -1;
            case Token::Kind::zeroOrMoreWildcard:
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
            if (step.kind == Token::Kind::zeroOrMoreWildcard) {
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

OSCCompiledComponent::OSCCompiledComponent(std::vector<Token> tokens) : tokens_(std::move(tokens)) {
    if (tokens_.empty()) {
        shape_ = Shape::plainText;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::literal) {
        shape_ = Shape::plainText;
        text_ = tokens_[0].text;
    } else if (tokens_.size() == 1 && tokens_[0].kind == Token::Kind::zeroOrMoreWildcard) {
        shape_ = Shape::anything;
    }
    std::size_t stars = 0;
    for (const auto& token : tokens_) {
        Step step{token.kind, {}, {}, {}};
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
        steps_.push_back(std::move(step));
    }
    remembersFailures_ = stars >= 2;
}

bool OSCCompiledComponent::matches(std::string_view component) const {
    if (CharacterView::isOneBytePerCharacter(component)) return matchesBytes(component);
    return OSCAddressPattern::matchComponent(component, tokens_);
}

bool OSCCompiledComponent::matchesBytes(std::string_view component) const {
    switch (shape_) {
        case Shape::plainText:
            return equals(component, text_);
        case Shape::anything:
            return true;
        case Shape::search:
            break;
    }
    return ByteSearch(steps_, remembersFailures_, component).run();
}

}  // namespace kavrin
