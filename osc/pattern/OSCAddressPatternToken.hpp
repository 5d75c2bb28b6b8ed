#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// A stateful matcher for one token of a pattern component, driven by the backtracking search
// of OSCAddressPattern::matchComponent. A matcher offers one or more ways of matching at a
// start position: match() tries the current way, advance() moves to the next, reset() goes
// back to the first. Matchers refer to the token they were made from, which must outlive them.
// One matcher belongs to one search on one thread.
class OSCAddressPatternToken {
  public:
    virtual ~OSCAddressPatternToken() = default;

    // How many characters at the start of `rest` this way of matching consumes, if any.
    virtual std::optional<std::size_t> match(const CharacterView& rest) = 0;
    // True when no further way of matching is left at the current start position.
    virtual bool isExhausted() const = 0;
    // Moves to the next way; `remaining` counts the characters from the start to the end.
    virtual void advance(std::size_t remaining) { (void)remaining; }
    virtual void reset() {}

    class Literal;
    class ZeroOrMoreWildcard;
    class SingleCharWildcard;
    class SingleChar;
    class Strings;
};

// A run of characters that must stand as written (case-sensitive).
class OSCAddressPatternToken::Literal final : public OSCAddressPatternToken {
  public:
    explicit Literal(const std::string& literal);
    Literal(const Literal&) = delete;  // the view refers to this object's own boundaries
    Literal(Literal&&) noexcept = default;
    std::optional<std::size_t> match(const CharacterView& rest) override;
    bool isExhausted() const override { return true; }

  private:
    const std::string& literal_;
    std::vector<std::uint32_t> bounds_;  // only for literals with CR LF or non-ASCII text
    CharacterView view_;
};

// "*": tries 0, 1, ... characters, shortest first; deliberately lazy, as the first full match
// ends the search.
class OSCAddressPatternToken::ZeroOrMoreWildcard final : public OSCAddressPatternToken {
  public:
    std::optional<std::size_t> match(const CharacterView& rest) override;
    bool isExhausted() const override { return isExhausted_; }
    void advance(std::size_t remaining) override;
    void reset() override;

  private:
    std::ptrdiff_t currentLength_ = 0;
    bool isExhausted_ = false;
};

// "?": any one character.
class OSCAddressPatternToken::SingleCharWildcard final : public OSCAddressPatternToken {
  public:
    std::optional<std::size_t> match(const CharacterView& rest) override;
    bool isExhausted() const override { return true; }
};

// "[...]" and "[!...]": one character that is (or is not) taken by one of the groups.
class OSCAddressPatternToken::SingleChar final : public OSCAddressPatternToken {
  public:
    SingleChar(bool isExclusion, const std::set<OSCAddressPattern::CharacterGroup>& groups);
    std::optional<std::size_t> match(const CharacterView& rest) override;
    bool isExhausted() const override { return true; }

  private:
    bool isExclusion_;
    const std::set<OSCAddressPattern::CharacterGroup>& groups_;
};

// "{...}": the first alternative, in the set's order, that starts the rest.
class OSCAddressPatternToken::Strings final : public OSCAddressPatternToken {
  public:
    explicit Strings(const std::set<std::string>& strings);
    std::optional<std::size_t> match(const CharacterView& rest) override;
    // Deliberately one way only: a later failure never retries another alternative.
    bool isExhausted() const override { return true; }

  private:
    const std::set<std::string>& strings_;
};

}  // namespace kavrin
