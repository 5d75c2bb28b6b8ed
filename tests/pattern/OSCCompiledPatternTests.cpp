#include <algorithm>
#include <random>
#include <utility>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"
#include "tests/AllocationCount.hpp"

namespace kavrin {
namespace {

using Token = OSCAddressPattern::Token;

// The parsed form's backtracking search as the rules state it, character by character, each
// "*" trying its lengths shortest first: the reference that every matcher must agree with.
bool tryFrom(const std::vector<Token>& tokens, std::size_t i, const CharacterView& component,
             std::size_t start) {
    if (i == tokens.size()) return start == component.size();
    const Token& token = tokens[i];
    const CharacterView rest = component.suffix(start);
    std::vector<std::uint32_t> storage;
    const auto prefix = [&](const std::string& text) {
        const CharacterView view = CharacterView::segment(text, storage);
        return rest.startsWith(view) ? std::optional(view.size()) : std::nullopt;
    };
    std::optional<std::size_t> taken;
    if (token.kind == Token::Kind::zeroOrMoreWildcard) {
        for (std::size_t n = 0; n <= rest.size(); ++n) {
            if (tryFrom(tokens, i + 1, component, start + n)) return true;
        }
        return false;
    }
    if (token.kind == Token::Kind::literal) taken = prefix(token.text);
    if (token.kind == Token::Kind::singleCharWildcard && !rest.empty()) taken = 1;
    if (token.kind == Token::Kind::singleChar && !rest.empty()) {
        const bool found = std::any_of(token.groups.begin(), token.groups.end(),
                                       [&](const auto& group) { return group.accepts(rest[0]); });
        if (found != token.isExclusion) taken = 1;
    }
    if (token.kind == Token::Kind::strings) {
        if (token.alternatives.empty()) taken = 0;
        for (const auto& alternative : token.alternatives) {
            if ((taken = prefix(alternative))) break;  // only the first that fits
        }
    }
    return taken && tryFrom(tokens, i + 1, component, start + *taken);
}

// matches(), the compiled pattern and matching one component, as a slice or as text, must all
// give the reference's answer.
void expectSameAnswers(const std::string& pattern, const std::string& address) {
    const OSCAddressPattern plain(pattern);
    const OSCCompiledPattern compiled(plain);
    const auto components = OSCAddressPattern::components(plain.rawAddress());
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    bool expected = !components.empty() && parts.size() == components.size();
    for (std::size_t i = 0; i < std::min(parts.size(), components.size()); ++i) {
        const bool reference = tryFrom(components[i].tokens, 0, parts[i], 0);
        expected = expected && reference;
        EXPECT_EQ(OSCAddressPattern::matchComponent(parts[i], components[i].tokens), reference)
            << "component " << i << " of " << pattern << " against " << address;
        EXPECT_EQ(OSCAddressPattern::matchComponent(parts[i].text(), components[i].tokens), reference)
            << "component " << i << " as text, of " << pattern << " against " << address;
        EXPECT_EQ(compiled.matchesComponent(i, parts[i].text()), reference)
            << "compiled component " << i << " of " << pattern << " against " << address;
    }
    EXPECT_EQ(plain.matches(address), expected) << "pattern " << pattern << " address " << address;
    EXPECT_EQ(compiled.matches(address), expected)
        << "compiled " << pattern << " address " << address;
}

TEST(OSCCompiledPattern, AllMatchersAnswerLikeTheBacktrackingSearchOverATable) {
    // clang-format off
    const std::vector<std::string> patterns = {
        "", "/", "/a", "/a/*", "/a/*/c", "//a", "/a//b", "/a/b/", "/x*y", "/*b*", "/*ab*ab",
        "/a?c", "/[a-c]x", "/[!a-c]x", "/[0-9-]", "/[z-a]", "/[a--b]", "/ch[]", "/ch[!]",
        "/{foo,bar}", "/a{}b", "/{}/a", "/{a,ab}", "/{ab,a}b", "/[a,b}", "/x[ab", "/{foo",
        "/ch/[0-9]*/{gain,mute}", "/mixer/*/fader/*", "/*a*a*a*a*a*b", "/a\r\n", "/[\r\n]",
        "/?", "/??", "/e*", "/**", "/*?", "/[xa-c-e]", "/[!-a]", "/[a-]{b}", "/{a,,b}[]",
        "/[{a,b}]", "/{[a,b]}", "/[a-c-e-g]*", "/*/x", "/q/*", "/q/x", "/a/b*", "/x/a*b/c",
        "/[\t-\r\n]", "/a\r\n*", "/*\r?", "/*//b", "/a*//*", "/[abcdefghijk-m]",
        "/[!abcdefghij]", "/abcdefgh?>>xy", "/abcdefghijklmnopq*", "/abcdefghijklmnop{q,r/s}",
        "/{mixer,ch}/{abcdefghijklmno,ab,a,b,c,d,e,f,g}*", "/abcdefghijklmnop{qrstuvwxyzabcde}"};
    const std::vector<std::string> addresses = {
        "", "/", "//", "/a", "a", "/a/", "/a/b", "/a/b/", "/a//c", "/a/b/c", "//a", "/a//b",
        "/xy", "/xaby", "/xya", "/abc", "/b", "/ac", "/abab", "/xabyab", "/bx", "/dx", "/-",
        "/5", "/m", "/chX", "/ch", "/foo", "/bar", "/baz", "/ab", "/abb", "/x[ab", "/{foo",
        "/ch/12/gain", "/ch/x/mute", "/ch/1/pan", "/mixer/ch12/fader/level", "/aaaaab",
        "/aaaa", "/a\r\n", "/\r\n", "/\r", "/\n", "/\t", "/e\xCC\x81", "/\xC3\xA9", "/a/\xCC\x81" "b",
        "/ABC", "/e", "/c", "/d", "/x", "/g", "/l", "/{a", "/[", "/]", "/}", "/,", "/!",
        "/x/ab/c", "/x/aXb/c", "/q/\xCC\x81/x", "/q/x\xCC\x81", "/a\r\nb", "/a\rb", "/\r\n\r",
        "/a\xFF\xC3", "/abcdefghQ>>xy", "/abcdefghijklmnopqr", "/abcdefghijklmnoPq",
        "/abcdefghijklmnop{q,r/s}", "/ch/abcdefghijklmnopqrs", "/mixer/ab",
        "/abcdefghijklmnopqrstuvwxyzabcde"};
    // clang-format on
    for (const auto& pattern : patterns) {
        for (const auto& address : addresses) expectSameAnswers(pattern, address);
    }
    // Components longer than a machine word of positions.
    const std::string longRun(70, 'a');
    for (const std::string pattern : {"/*a*b", "/a*", "/*[!a]", "/{aaaa,aa}*b", "/*?b", "/*a"}) {
        for (const std::string& address : {"/" + longRun, "/" + longRun + "b", "/b" + longRun}) {
            expectSameAnswers(pattern, address);
        }
    }
}

TEST(OSCCompiledPattern, AllMatchersAnswerLikeTheBacktrackingSearchOnGeneratedPaths) {
    // Small alphabets make collisions between wildcards and text likely; whole paths add what
    // single components cannot: separators next to text, stars that end a component and
    // components searched between others.
    const std::vector<std::string> patternParts = {
        "a", "b", "a", "b", "c", "*",  "*",  "?",     "[",      "]",
        "!", "-", "{", "}", ",", "\r", "\n", "[a-c]", "{ab,a}", "abcdefghi"};
    const std::vector<std::string> addressParts = {
        "a",  "b",    "a",        "b",         "ab",        "-",         ",",         "\r",
        "\n", "\r\n", "\xC3\xA9", "e\xCC\x81", "/\xCC\x81", "\xD8\x80/", "abcdefghij"};
    std::mt19937 generator(20261122);
    const auto join = [&](const std::vector<std::string>& parts, std::size_t components) {
        std::string text = generator() % 8 ? "/" : "";
        for (std::size_t i = 0; i < components; ++i) {
            if (i > 0) text += "/";
            for (std::size_t n = generator() % 6; n > 0; --n)
                text += parts[generator() % parts.size()];
        }
        if (generator() % 8 == 0) text += "/";
        return text;
    };
    for (int round = 0; round < 1500; ++round) {
        const std::size_t components = 1 + generator() % 3;
        const std::string pattern = join(patternParts, components);
        for (int i = 0; i < 12; ++i) {
            expectSameAnswers(pattern,
                              join(addressParts, i % 4 ? components : 1 + generator() % 3));
        }
    }
}

TEST(OSCAddressPatternMatching, AllocatesNothingForTypicalPatterns) {
    for (const auto& [pattern, address] : {std::pair{"/ch/[0-9]*/{gain,mute}", "/ch/12/gain"},
                                           {"/ch/[0-9]*/{gain,mute}", "/ch/12/pan"},
                                           {"/mixer/*/fader/*", "/mixer/ch12/fader/level"},
                                           {"/mixer/ch/12/fader/level", "/mixer/ch/12/fader"},
                                           {"/*a*b/x?/[!0-9]", "/xayb/xy/q"}}) {
        const OSCAddressPattern plain(pattern);
        const OSCCompiledPattern compiled(plain);
        const std::string text(address);
        const std::size_t before = test::allocationCount();
        const bool agree = plain.matches(text) == compiled.matches(text);
        EXPECT_EQ(test::allocationCount() - before, 0u) << pattern;
        EXPECT_TRUE(agree) << pattern;
    }
}

}  // namespace
}  // namespace kavrin
