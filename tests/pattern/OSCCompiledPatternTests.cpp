#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"
#include "osc/pattern/detail/OSCCompiledComponent.hpp"

namespace kavrin {
namespace {

// The parsed form and its backtracking search, component by component, as written down: the
// reference that the byte-wise walk of matches() and the compiled pattern must agree with.
bool referenceMatches(const OSCAddressPattern& pattern, const std::string& address) {
    const auto components = OSCAddressPattern::components(pattern.rawAddress());
    if (components.empty()) return false;
    std::vector<std::uint32_t> storage;
    const auto parts = OSCAddressPattern::pathComponents(CharacterView::segment(address, storage));
    if (parts.size() != components.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!OSCAddressPattern::matchComponent(parts[i], components[i].tokens)) return false;
    }
    return true;
}

void expectSameAnswers(const std::string& pattern, const std::string& address) {
    const OSCAddressPattern plain(pattern);
    const OSCCompiledPattern compiled(plain);
    const bool expected = referenceMatches(plain, address);
    EXPECT_EQ(plain.matches(address), expected) << "pattern " << pattern << " address " << address;
    EXPECT_EQ(compiled.matches(address), expected)
        << "compiled pattern " << pattern << " address " << address;
}

TEST(OSCCompiledPattern, AnswersLikeTheUncompiledPatternOverATable) {
    // clang-format off
    const std::vector<std::string> patterns = {
        "", "/", "/a", "/a/*", "/a/*/c", "//a", "/a//b", "/a/b/", "/x*y", "/*b*", "/*ab*ab",
        "/a?c", "/[a-c]x", "/[!a-c]x", "/[0-9-]", "/[z-a]", "/[a--b]", "/ch[]", "/ch[!]",
        "/{foo,bar}", "/a{}b", "/{}/a", "/{a,ab}", "/{ab,a}b", "/[a,b}", "/x[ab", "/{foo",
        "/ch/[0-9]*/{gain,mute}", "/mixer/*/fader/*", "/*a*a*a*a*a*b", "/a\r\n", "/[\r\n]",
        "/?", "/??", "/e*", "/**", "/*?", "/[xa-c-e]", "/[!-a]", "/[a-]{b}", "/{a,,b}[]",
        "/[{a,b}]", "/{[a,b]}", "/[a-c-e-g]*", "/*/x", "/q/*", "/q/x", "/a/b*"};
    const std::vector<std::string> addresses = {
        "", "/", "//", "/a", "a", "/a/", "/a/b", "/a/b/", "/a//c", "/a/b/c", "//a", "/a//b",
        "/xy", "/xaby", "/xya", "/abc", "/b", "/ac", "/abab", "/xabyab", "/bx", "/dx", "/-",
        "/5", "/m", "/chX", "/ch", "/foo", "/bar", "/baz", "/ab", "/abb", "/x[ab", "/{foo",
        "/ch/12/gain", "/ch/x/mute", "/ch/1/pan", "/mixer/ch12/fader/level", "/aaaaab",
        "/aaaa", "/a\r\n", "/\r\n", "/\r", "/e\xCC\x81", "/\xC3\xA9", "/a/\xCC\x81" "b", "/ABC",
        "/e", "/c", "/d", "/x", "/g", "/{a", "/[", "/]", "/}", "/,", "/!",
        "/q/\xCC\x81/x", "/q/x\xCC\x81"};
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

TEST(OSCCompiledPattern, AnswersLikeTheUncompiledPatternOnRandomInput) {
    // Small alphabets and short texts make collisions between wildcards and text likely;
    // component counts are covered by the table above.
    const std::string patternAlphabet = "aabbc**?[]!-{},\r\n";
    const std::vector<std::string> addressAlphabet = {
        "a", "b", "a", "b", "a", "b", "-", ",", "\r", "\n", "\r\n", "\xC3\xA9", "e\xCC\x81"};
    std::mt19937 generator(20240229);
    const auto randomText = [&](std::size_t maxLength, auto pick) {
        std::string text;
        const std::size_t length = generator() % (maxLength + 1);
        for (std::size_t i = 0; i < length; ++i) text += pick();
        return text;
    };
    const auto patternCharacter = [&] {
        return std::string(1, patternAlphabet[generator() % patternAlphabet.size()]);
    };
    const auto addressCharacter = [&] {
        return addressAlphabet[generator() % addressAlphabet.size()];
    };
    for (int round = 0; round < 3000; ++round) {
        const std::string component = randomText(6, patternCharacter);
        const OSCCompiledComponent compiled(OSCAddressPattern::tokens(component));
        for (int i = 0; i < 8; ++i) {
            const std::string text = randomText(5, addressCharacter);
            expectSameAnswers("/" + component, "/" + text);
            EXPECT_EQ(compiled.matches(text),
                      OSCAddressPattern::matchComponent(text, compiled.tokens()))
                << "component " << component << " text " << text;
        }
    }
}

TEST(OSCCompiledPattern, AnswersLikeTheUncompiledPatternOnGeneratedPaths) {
    // Whole paths exercise what single components cannot: separators merged with text, stars
    // that end a component, components searched in place between others, and texts and
    // addresses shorter and longer than the eight and sixteen bytes compared at once, near
    // either end, and a CR just before a wildcard.
    const std::vector<std::string> patternParts = {
        "",    "a",      "ab",    "abcdefghij", "*",      "a*",      "*a",
        "*ab", "[a-c]*", "?",     "??*",        "{ab,a}", "{ab,a}*", "{abcdefghi,ab}",
        "{}",  "*b*",    "a*b*c", "[!a]",       "x?",     "*{a,bc}", "abcdefghijklmnopq",
        "\r?"};
    const std::vector<std::string> addressParts = {"",
                                                   "a",
                                                   "b",
                                                   "ab",
                                                   "abc",
                                                   "aab",
                                                   "c",
                                                   "bc",
                                                   "abcdefghij",
                                                   "abcdefghijk",
                                                   "abcdefghia",
                                                   "xab",
                                                   "abcdefghijklmnopq",
                                                   "abcdefghijklmnopqr",
                                                   "abcdefghijklmnopX",
                                                   "x/",
                                                   "\r\n",
                                                   "\t",
                                                   "\xC3\xA9",
                                                   "a\xCC\x81"};
    std::mt19937 generator(20261122);
    const auto join = [&](const std::vector<std::string>& parts, std::size_t maxCount,
                          std::size_t rareIndex) {
        std::string text = generator() % 8 ? "/" : "";
        const std::size_t count = 1 + generator() % maxCount;
        for (std::size_t i = 0; i < count; ++i) {
            if (i > 0) text += "/";
            // Parts from rareIndex on are unusual bytes: keep them to one address in four.
            const std::size_t limit = generator() % 4 ? rareIndex : parts.size();
            text += parts[generator() % limit];
        }
        if (generator() % 8 == 0) text += "/";
        return text;
    };
    for (int round = 0; round < 600; ++round) {
        const std::string pattern = join(patternParts, 4, patternParts.size());
        for (int i = 0; i < 40; ++i) {
            expectSameAnswers(pattern, join(addressParts, 5, addressParts.size() - 5));
        }
    }
}

TEST(OSCCompiledComponent, AnswersLikeMatchComponentOnTextHoldingASlash) {
    // Never a component of an address, but the answer must still be matchComponent's.
    for (const std::string component : {"???", "a*", "*", "[!a]/b", "{a/b,c}", "a/b"}) {
        const OSCCompiledComponent compiled(OSCAddressPattern::tokens(component));
        for (const std::string text : {"a/b", "/", "//", "a/", "/b", "ab/c"}) {
            EXPECT_EQ(compiled.matches(text),
                      OSCAddressPattern::matchComponent(text, compiled.tokens()))
                << "component " << component << " text " << text;
        }
    }
}

TEST(OSCCompiledPattern, StaysFastOnManyStars) {
    const OSCCompiledPattern pattern(OSCAddressPattern("/*a*a*a*a*a*b"));
    EXPECT_FALSE(pattern.matches("/" + std::string(2000, 'a')));
    EXPECT_TRUE(pattern.matches("/" + std::string(2000, 'a') + "b"));
}

}  // namespace
}  // namespace kavrin
