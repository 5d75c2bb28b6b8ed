#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"

// Every allocation of this test program is counted, so that a test can see it made none.
namespace {
std::atomic<std::size_t> allocations{0};
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace kavrin {
namespace {

using Token = OSCAddressPattern::Token;

// The parsed form's backtracking search as the rules state it, character by character and
// token by token, each "*" trying its lengths shortest first: the reference that every matcher
// must agree with.
bool tryFrom(const std::vector<Token>& tokens, std::size_t i, const CharacterView& component,
             std::size_t start) {
    if (i == tokens.size()) return start == component.size();
    const Token& token = tokens[i];
    const CharacterView rest = component.suffix(start);
    std::vector<std::uint32_t> storage;
    const auto startsWith = [&](const std::string& text) {
        const CharacterView view = CharacterView::segment(text, storage);
        return rest.startsWith(view) ? std::optional(view.size()) : std::nullopt;
    };
    std::optional<std::size_t> taken;
    switch (token.kind) {
        case Token::Kind::literal:
            taken = startsWith(token.text);
            break;
        case Token::Kind::zeroOrMoreWildcard:
            for (std::size_t n = 0; n <= rest.size(); ++n) {
                if (tryFrom(tokens, i + 1, component, start + n)) return true;
            }
            return false;
        case Token::Kind::singleCharWildcard:
            if (!rest.empty()) taken = 1;
            break;
        case Token::Kind::singleChar: {
            if (rest.empty()) break;
            bool found = false;
            for (const auto& group : token.groups) found = found || group.accepts(rest[0]);
            if (found != token.isExclusion) taken = 1;
            break;
        }
        case Token::Kind::strings:
            if (token.alternatives.empty()) taken = 0;
            for (const auto& alternative : token.alternatives) {
                if ((taken = startsWith(alternative))) break;
            }
            break;
    }
    return taken && tryFrom(tokens, i + 1, component, start + *taken);
}

bool referenceMatches(const std::string& pattern, const std::string& address) {
    const auto components = OSCAddressPattern::components(OSCAddressPattern(pattern).rawAddress());
    if (components.empty()) return false;
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    if (parts.size() != components.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!tryFrom(components[i].tokens, 0, parts[i], 0)) return false;
    }
    return true;
}

// matches(), the compiled pattern and both forms of matching one component must all give the
// reference's answer.
void expectSameAnswers(const std::string& pattern, const std::string& address) {
    const OSCAddressPattern plain(pattern);
    const OSCCompiledPattern compiled(plain);
    const bool expected = referenceMatches(pattern, address);
    EXPECT_EQ(plain.matches(address), expected) << "pattern " << pattern << " address " << address;
    EXPECT_EQ(compiled.matches(address), expected)
        << "compiled pattern " << pattern << " address " << address;
    const auto components = OSCAddressPattern::components(plain.rawAddress());
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    for (std::size_t i = 0; i < std::min(parts.size(), components.size()); ++i) {
        const bool reference = tryFrom(components[i].tokens, 0, parts[i], 0);
        EXPECT_EQ(OSCAddressPattern::matchComponent(parts[i], components[i].tokens), reference)
            << "component " << i << " of " << pattern << " against " << address;
        EXPECT_EQ(compiled.matchesComponent(i, parts[i].text()), reference)
            << "compiled component " << i << " of " << pattern << " against " << address;
    }
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
        "/[\t-\r\n]", "/a\r\n*", "/*\r?", "/*//b", "/a*//*"};
    const std::vector<std::string> addresses = {
        "", "/", "//", "/a", "a", "/a/", "/a/b", "/a/b/", "/a//c", "/a/b/c", "//a", "/a//b",
        "/xy", "/xaby", "/xya", "/abc", "/b", "/ac", "/abab", "/xabyab", "/bx", "/dx", "/-",
        "/5", "/m", "/chX", "/ch", "/foo", "/bar", "/baz", "/ab", "/abb", "/x[ab", "/{foo",
        "/ch/12/gain", "/ch/x/mute", "/ch/1/pan", "/mixer/ch12/fader/level", "/aaaaab",
        "/aaaa", "/a\r\n", "/\r\n", "/\r", "/\n", "/\t", "/e\xCC\x81", "/\xC3\xA9", "/a/\xCC\x81" "b",
        "/ABC", "/e", "/c", "/d", "/x", "/g", "/{a", "/[", "/]", "/}", "/,", "/!", "/x/ab/c",
        "/x/aXb/c", "/q/\xCC\x81/x", "/q/x\xCC\x81", "/a\r\nb", "/a\rb", "/\r\n\r", "/a\xFF\xC3"};
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
    const std::vector<std::string> patternParts = {"a", "b", "a", "b", "c", "*", "*", "?",
                                                   "[",  "]", "!", "-", "{", "}", ",", "\r",
                                                   "\n", "[a-c]", "{ab,a}", "abcdefghi"};
    const std::vector<std::string> addressParts = {
        "a", "b", "a", "b", "ab", "-", ",", "\r", "\n", "\r\n", "\xC3\xA9", "e\xCC\x81",
        "/\xCC\x81", "abcdefghij"};
    std::mt19937 generator(20261122);
    const auto join = [&](const std::vector<std::string>& parts, std::size_t components) {
        std::string text = generator() % 8 ? "/" : "";
        for (std::size_t i = 0; i < components; ++i) {
            if (i > 0) text += "/";
            for (std::size_t n = generator() % 6; n > 0; --n) text += parts[generator() % parts.size()];
        }
        if (generator() % 8 == 0) text += "/";
        return text;
    };
    for (int round = 0; round < 1500; ++round) {
        const std::size_t components = 1 + generator() % 3;
        const std::string pattern = join(patternParts, components);
        for (int i = 0; i < 12; ++i) {
            expectSameAnswers(pattern, join(addressParts, i % 4 ? components : 1 + generator() % 3));
        }
    }
}

TEST(OSCCompiledPattern, AnswersLikeMatchComponentOnTextHoldingASlash) {
    // Never a component of an address, but the answer must still be matchComponent's.
    for (const std::string component : {"???", "a*", "*", "[!a]", "{a,c}b", "a"}) {
        const OSCCompiledPattern compiled(OSCAddressPattern("/" + component));
        const auto tokens = OSCAddressPattern::tokens(component);
        for (const std::string text : {"a/b", "/", "//", "a/", "/b", "ab/c"}) {
            EXPECT_EQ(compiled.matchesComponent(0, text),
                      OSCAddressPattern::matchComponent(text, tokens))
                << "component " << component << " text " << text;
        }
    }
}

TEST(OSCCompiledPattern, TellsLiteralAndLoneStarComponentsApart) {
    const OSCCompiledPattern compiled(OSCAddressPattern("/mixer//*/[0-9]*/x{a,b}"));
    ASSERT_EQ(compiled.componentCount(), 5u);
    EXPECT_EQ(compiled.literalComponent(0), "mixer");
    EXPECT_EQ(compiled.literalComponent(1), "");
    EXPECT_FALSE(compiled.literalComponent(2));
    EXPECT_TRUE(compiled.matchesEveryName(2));
    EXPECT_FALSE(compiled.matchesEveryName(3));
    EXPECT_FALSE(compiled.literalComponent(4));
    EXPECT_EQ(OSCCompiledPattern(OSCAddressPattern("/")).componentCount(), 0u);
}

TEST(OSCCompiledPattern, StaysFastOnManyStars) {
    const OSCCompiledPattern pattern(OSCAddressPattern("/*a*a*a*a*a*b"));
    EXPECT_FALSE(pattern.matches("/" + std::string(2000, 'a')));
    EXPECT_TRUE(pattern.matches("/" + std::string(2000, 'a') + "b"));
}

TEST(OSCAddressPatternMatching, AllocatesNothingForTypicalPatterns) {
    struct Case {
        const char* pattern;
        const char* address;
        bool matches;
    };
    const Case cases[] = {
        {"/ch/[0-9]*/{gain,mute}", "/ch/12/gain", true},
        {"/ch/[0-9]*/{gain,mute}", "/ch/12/pan", false},
        {"/mixer/*/fader/*", "/mixer/ch12/fader/level", true},
        {"/mixer/ch/12/fader/level", "/mixer/ch/12/fader/level", true},
        {"/*a*b/x?/[!0-9]", "/xayb/xy/q", true},
    };
    for (const auto& c : cases) {
        const OSCAddressPattern pattern(c.pattern);
        const OSCCompiledPattern compiled(pattern);
        const std::string address(c.address);
        const std::size_t before = allocations;
        const bool answers[] = {pattern.matches(address), compiled.matches(address)};
        EXPECT_EQ(allocations - before, 0u) << c.pattern;
        EXPECT_EQ(answers[0], c.matches) << c.pattern;
        EXPECT_EQ(answers[1], c.matches) << c.pattern;
    }
}

}  // namespace
}  // namespace kavrin
