#include <cstddef>
#include <optional>

#include "osc/pattern/OSCAddressPatternToken.hpp"

namespace kavrin {
namespace {

using Token = OSCAddressPattern::Token;
using Group = OSCAddressPattern::CharacterGroup;
using Ways = std::vector<std::optional<std::size_t>>;

// What match() answers at each way of matching, as a backtracking search asks: match, then
// advance, until the matcher is exhausted.
Ways waysOf(OSCAddressPatternToken& matcher, const CharacterView& rest) {
    Ways ways;
    for (int bound = 0; bound < 16; ++bound) {
        ways.push_back(matcher.match(rest));
        matcher.advance(rest.size());
        if (matcher.isExhausted()) break;
    }
    return ways;
}

TEST(OSCAddressPatternToken, OnlyAStarHasMoreThanOneWayAndResetStartsOver) {
    const std::string eAcute = "e\xCC\x81";  // e + combining acute: one character
    const auto none = std::nullopt;
    const struct {
        Token token;
        std::string rest;
        Ways ways;
    } cases[] = {
        {Token::literal("ab"), "abc", {2}},
        {Token::literal("ab"), "aBc", {none}},
        {Token::literal("e"), eAcute, {none}},
        {Token::literal(eAcute), eAcute + "x", {1}},
        // Lazy: shortest first, then one more each advance, exhausted past the rest.
        {Token::zeroOrMoreWildcard(), "ab", {0, 1, 2}},
        {Token::zeroOrMoreWildcard(), "", {0}},
        {Token::zeroOrMoreWildcard(), eAcute + "\r\n", {0, 1, 2}},
        {Token::singleCharWildcard(), "", {none}},
        {Token::singleCharWildcard(), eAcute + "x", {1}},
        {Token::singleCharWildcard(), "\r\nx", {1}},
        {Token::singleChar(false, {Group::single(eAcute)}), eAcute, {1}},
        {Token::singleChar(false, {Group::single("e")}), eAcute, {none}},
        {Token::singleChar(true, {Group::single("e")}), eAcute, {1}},
        {Token::singleChar(false, {Group::single("\r\n")}), "\r\nx", {1}},
        {Token::singleChar(false, {Group::asciiRange("a", "c")}), "bx", {1}},
        {Token::singleChar(false, {Group::asciiRange("c", "a")}), "bx", {none}},
        {Token::singleChar(false, {}), "x", {none}},
        {Token::singleChar(true, {}), "x", {1}},
        // Only the first alternative in set order that is a prefix, never a later one.
        {Token::strings({"ab", "a"}), "ab", {1}},
        {Token::strings({"b", "ab"}), "abc", {2}},
        {Token::strings({"x", "y"}), "z", {none}},
        {Token::strings({"e"}), eAcute, {none}},
        // Deliberate: the empty list takes nothing and matches.
        {Token::strings({}), "x", {0}},
    };
    for (const auto& c : cases) {
        const auto matcher = OSCAddressPatternToken::make(c.token);
        std::vector<std::uint32_t> storage;
        const CharacterView rest = CharacterView::segment(c.rest, storage);
        SCOPED_TRACE("token kind " + std::to_string(int(c.token.kind)) + " on " + c.rest);
        const bool isStar = c.token.kind == Token::Kind::zeroOrMoreWildcard;
        for (int round = 0; round < 2; ++round, matcher->reset()) {
            EXPECT_EQ(matcher->isExhausted(), !isStar);
            EXPECT_EQ(waysOf(*matcher, rest), c.ways);
        }
    }
}

}  // namespace
}  // namespace kavrin
