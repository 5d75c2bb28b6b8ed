#include "osc/pattern/OSCAddressPatternToken.hpp"

#include <cstdint>
#include <vector>

#include "osc/pattern/detail/MatchRun.hpp"
#include "osc/pattern/detail/MatchStep.hpp"

namespace kavrin {

namespace {

// What `step`, whose pieces start at `pieces`, takes at the start of `rest`.
std::optional<std::size_t> take(const MatchStep& step, const MatchPiece* pieces,
                                const CharacterView& rest) {
    std::vector<std::uint32_t> storage;
    const std::ptrdiff_t taken = matchRun::takeCharacters(step, pieces, rest, storage);
    if (taken < 0) return std::nullopt;
    return static_cast<std::size_t>(taken);
}

std::optional<std::size_t> take(const MatchProgram& program, const CharacterView& rest) {
    return take(program.steps.front(), program.pieces.data(), rest);
}

}  // namespace

std::unique_ptr<OSCAddressPatternToken> OSCAddressPatternToken::make(const Token& token) {
    switch (token.kind) {
        case Token::Kind::literal:
            return std::make_unique<Literal>(token.text);
        case Token::Kind::zeroOrMoreWildcard:
            return std::make_unique<ZeroOrMoreWildcard>();
        case Token::Kind::singleCharWildcard:
            return std::make_unique<SingleCharWildcard>();
        case Token::Kind::singleChar:
            return std::make_unique<SingleChar>(token.isExclusion, token.groups);
        case Token::Kind::strings:
            return std::make_unique<Strings>(token.alternatives);
    }
    return nullptr;  // not reached: every kind is above
}

std::optional<std::size_t> OSCAddressPatternToken::Literal::match(const CharacterView& rest) const {
    MatchStep step;
    step.text = literal_;
    return take(step, nullptr, rest);
}

std::optional<std::size_t> OSCAddressPatternToken::ZeroOrMoreWildcard::match(
    const CharacterView& rest) const {
    const auto length = static_cast<std::size_t>(currentLength_);
    if (rest.size() < length) return std::nullopt;
    return length;
}

void OSCAddressPatternToken::ZeroOrMoreWildcard::advance(std::size_t remaining) {
    ++currentLength_;
    isExhausted_ = currentLength_ > static_cast<std::ptrdiff_t>(remaining);
}

void OSCAddressPatternToken::ZeroOrMoreWildcard::reset() {
    currentLength_ = 0;
    isExhausted_ = false;
}

std::optional<std::size_t> OSCAddressPatternToken::SingleCharWildcard::match(
    const CharacterView& rest) const {
    MatchStep step;
    makeAny(step);
    return take(step, nullptr, rest);
}

std::optional<std::size_t> OSCAddressPatternToken::SingleChar::match(
    const CharacterView& rest) const {
    MatchProgram program;
    program.addOneOf(isExclusion_, groups_);
    return take(program, rest);
}

std::optional<std::size_t> OSCAddressPatternToken::Strings::match(const CharacterView& rest) const {
    MatchProgram program;
    program.addStrings(strings_);
    return take(program, rest);
}

}  // namespace kavrin
