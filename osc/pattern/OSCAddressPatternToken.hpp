#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// The matcher of one token of a pattern component, for a backtracking search of one's own:
// match() tries the current way of matching at a start position, advance() moves to the next
// way, reset() goes back to the first. matchComponent() and OSCCompiledPattern answer the same
// without them. A matcher keeps copies of its token's fields and runs the same match step as
// they do. A plain value with no callbacks: one search on one thread at a time.
class OSCAddressPatternToken {
  public:
    using Token = OSCAddressPattern::Token;

    virtual ~OSCAddressPatternToken() = default;

    // The matcher of `token`, in its initial state.
    static std::unique_ptr<OSCAddressPatternToken> make(const Token& token);

    // How many characters at the start of `rest` the current way takes, if it matches there.
    virtual std::optional<std::size_t> match(const CharacterView& rest) const = 0;
    // True when no further way of matching is left at the current start position.
    bool isExhausted() const { return isExhausted_; }
    // Moves to the next way; `remaining` counts the characters from the start position to the
    // end of the component.
    virtual void advance(std::size_t remaining) { (void)remaining; }
    // Back to the first way.
    virtual void reset() {}

    class Literal;
    class ZeroOrMoreWildcard;
    class SingleCharWildcard;
    class SingleChar;
    class Strings;

  protected:
    explicit OSCAddressPatternToken(bool isExhausted) : isExhausted_(isExhausted) {}
    OSCAddressPatternToken(const OSCAddressPatternToken&) = default;
    OSCAddressPatternToken& operator=(const OSCAddressPatternToken&) = default;

    // Deliberately true from the start for every matcher but a star: each of them has one way
    // of matching only.
    bool isExhausted_;
};

// A run of characters that must stand as written (case-sensitive).
class OSCAddressPatternToken::Literal final : public OSCAddressPatternToken {
  public:
    explicit Literal(std::string literal)
        : OSCAddressPatternToken(true), literal_(std::move(literal)) {}
    std::optional<std::size_t> match(const CharacterView& rest) const override;
    const std::string& literal() const { return literal_; }

  private:
    std::string literal_;
};

// "*": takes 0, 1, ... characters as it advances, shortest first; deliberately lazy, as the
// first full match ends a search. Exhausted once its length passes what remains.
class OSCAddressPatternToken::ZeroOrMoreWildcard final : public OSCAddressPatternToken {
  public:
    ZeroOrMoreWildcard() : OSCAddressPatternToken(false) {}
    std::optional<std::size_t> match(const CharacterView& rest) const override;
    void advance(std::size_t remaining) override;
    void reset() override;
    std::ptrdiff_t currentLength() const { return currentLength_; }

  private:
    std::ptrdiff_t currentLength_ = 0;
};

// "?": any one character.
class OSCAddressPatternToken::SingleCharWildcard final : public OSCAddressPatternToken {
  public:
    SingleCharWildcard() : OSCAddressPatternToken(true) {}
    std::optional<std::size_t> match(const CharacterView& rest) const override;
};

// "[...]" and "[!...]": one character that one of the groups takes (or, for an exclusion, that
// none does; "[!]" takes any one).
class OSCAddressPatternToken::SingleChar final : public OSCAddressPatternToken {
  public:
    SingleChar(bool isExclusion, std::set<OSCAddressPattern::CharacterGroup> groups)
        : OSCAddressPatternToken(true), isExclusion_(isExclusion), groups_(std::move(groups)) {}
    std::optional<std::size_t> match(const CharacterView& rest) const override;
    bool isExclusion() const { return isExclusion_; }
    const std::set<OSCAddressPattern::CharacterGroup>& groups() const { return groups_; }

  private:
    bool isExclusion_;
    std::set<OSCAddressPattern::CharacterGroup> groups_;
};

// "{...}": the first alternative, in the set's lexicographic order, that starts the rest. The
// empty list takes nothing and matches, deliberately. Deliberately one way only: a later
// failure never makes it try another alternative.
class OSCAddressPatternToken::Strings final : public OSCAddressPatternToken {
  public:
    explicit Strings(std::set<std::string> strings)
        : OSCAddressPatternToken(true), strings_(std::move(strings)) {}
    std::optional<std::size_t> match(const CharacterView& rest) const override;
    const std::set<std::string>& strings() const { return strings_; }

  private:
    std::set<std::string> strings_;
};

}  // namespace kavrin
