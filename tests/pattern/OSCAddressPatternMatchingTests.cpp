#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"

namespace kavrin {
namespace {

using Pattern = OSCAddressPattern;
using Group = OSCAddressPattern::CharacterGroup;

struct MatchCase {
    std::string pattern;
    std::vector<std::string> matching;
    std::vector<std::string> notMatching;
};

void expectMatches(const std::vector<MatchCase>& cases) {
    for (const auto& c : cases) {
        const Pattern pattern(c.pattern);
        const OSCCompiledPattern compiled(pattern);
        for (const bool expected : {true, false}) {
            for (const auto& address : expected ? c.matching : c.notMatching) {
                EXPECT_EQ(pattern.matches(address), expected)
                    << c.pattern << " against " << address;
                EXPECT_EQ(compiled.matches(address), expected)
                    << "compiled " << c.pattern << " against " << address;
            }
        }
    }
}

TEST(OSCAddressPatternMatching, FollowsTheRuleOfEachWildcard) {
    expectMatches({
        // Component counts must agree.
        {"/a/*", {"/a/b", "a/b", "/a/b/"}, {"/a/", "/a", "/a/b/c", "/b/a"}},
        {"/a/*/c", {"/a//c", "/a/b/c"}, {"/a/c", "/a/b/b/c"}},
        {"/a//b", {"/a//b"}, {"/a/b", "/a/x/b"}},
        {"//a", {"//a"}, {"/a", "a"}},
        {"/a/b/", {"/a/b", "/a/b/"}, {"/a/b//"}},
        // Deliberate: no components means no match, not even for "/" or "".
        {"", {}, {"", "/", "/a"}},
        {"/", {}, {"", "/", "//"}},
        // "*" is lazy and backtracks.
        {"/x*y", {"/xy", "/xay", "/xaby", "/xyyy"}, {"/xya", "/x", "/y"}},
        {"/*b*", {"/abc", "/b", "/bbb"}, {"/ac", "/"}},
        {"/*a", {"/a", "/aaa", "/bca"}, {"/ab", "/b"}},
        {"/*ab*ab", {"/abab", "/xabyab", "/ababab"}, {"/aba", "/abxa"}},
        {"/a*b*c", {"/abc", "/abcbc", "/aXbYc", "/abcc"}, {"/ab", "/acb"}},
        {"/*.*", {"/file.txt", "/.", "/a.b.c"}, {"/file"}},
        {"/**", {"/anything", "/a/"}, {"/", "/a/b"}},
        {"/*?", {"/a", "/abc", "/a/"}, {"/", "/a/b"}},
        {"/?*?", {"/ab", "/abc"}, {"/a"}},
        // "?" takes exactly one character.
        {"/a?c", {"/abc", "/a?c", "/a-c"}, {"/ac", "/abbc"}},
        {"/??", {"/ab"}, {"/a", "/abc"}},
        // Brackets take one character from their groups.
        {"/[a-c]x", {"/ax", "/bx", "/cx"}, {"/dx", "/Bx", "/x", "/abx"}},
        {"/[!a-c]x", {"/dx", "/Ax", "/-x"}, {"/bx", "/x"}},
        {"/[abc]", {"/a", "/c"}, {"/d", "/ab"}},
        {"/[0-9-]", {"/0", "/5", "/-"}, {"/a", "/"}},
        {"/[a-c-e]", {"/b", "/-", "/e"}, {"/d", "/f"}},
        // "a--b" is the reversed range a..- and the single b.
        {"/[a--b]", {"/b"}, {"/a", "/-", "/c"}},
        // Deliberate: a reversed range accepts nothing.
        {"/[z-a]", {}, {"/a", "/m", "/z"}},
        {"/[!z-a]", {"/a", "/m"}, {}},
        {"/ch[]", {}, {"/ch", "/chX", "/ch["}},
        {"/ch[!]", {"/chX", "/ch!", "/ch]"}, {"/ch", "/chXY"}},
        {"/ch/[0-9][0-9]", {"/ch/01", "/ch/99"}, {"/ch/1", "/ch/1a"}},
        // Brace lists use only the first alternative that is a prefix.
        {"/{foo,bar}", {"/foo", "/bar"}, {"/baz", "/foobar", "/fo"}},
        {"/{foo,bar}/x", {"/bar/x"}, {"/bar/y"}},
        {"/a{}b", {"/ab"}, {"/axb"}},
        {"/{}/a", {"//a"}, {"/x/a"}},
        // The set runs in byte order and only its first prefix is tried: "a" before "ab".
        {"/{a,ab}", {"/a"}, {"/ab"}},
        {"/{ab,a}b", {"/ab"}, {"/abb"}},
        {"/{b,ab}", {"/ab", "/b"}, {}},
        {"/{a,ab}*", {"/ab", "/a"}, {}},
        // An unclosed "[" opens a brace list; a lone "[" stays literal.
        {"/[a,b}", {"/a", "/b"}, {"/[a"}},
        {"/x[ab", {"/x[ab"}, {"/xa"}},
        {"/{foo", {"/{foo"}, {"/foo"}},
        // All of it is case-sensitive.
        {"/abc", {"/abc"}, {"/ABC", "/Abc"}},
        {"/a*", {"/abc"}, {"/ABC"}},
        {"/[a-z]", {"/q"}, {"/Q"}},
        {"/{on,off}", {"/on"}, {"/ON"}},
    });
    EXPECT_FALSE(Group::asciiRange("a", "\xC3\xA9").accepts("b"));
    EXPECT_FALSE(Group::asciiRange("a", "z").accepts("\xC3\xA9"));
    EXPECT_TRUE(Group::asciiRange("\r\n", "z").accepts("a"));
    EXPECT_TRUE(Group::asciiRange("\t", "\r\n").accepts("\n"));
}

TEST(OSCAddressPatternMatching, CountsUserPerceivedCharacters) {
    const std::string acute = "\xCC\x81";  // combining acute accent
    const std::string eAcute = "e" + acute;
    const std::string thumbs = "\xF0\x9F\x91\x8D\xF0\x9F\x8F\xBD";  // thumbs up, skin tone
    const std::string flag = "\xF0\x9F\x87\xAB\xF0\x9F\x87\xB7";    // two regional indicators
    expectMatches({
        {"/?", {"/" + eAcute, "/" + thumbs, "/" + flag, "/\xC3\xA9"}, {"/ab", "/" + eAcute + "x"}},
        {"/??", {"/x" + thumbs}, {"/" + thumbs, "/" + flag}},
        // "e" is not a prefix of the one character e + acute.
        {"/e*", {"/e", "/ex"}, {"/" + eAcute, "/" + eAcute + "x"}},
        {"/[!e]", {"/" + eAcute}, {"/e"}},
        {"/a*z", {"/a" + thumbs + flag + "z"}, {"/a" + thumbs}},
        // A slash with a combining mark is not a separator.
        {"/*", {"/a/" + acute + "b"}, {"/a/b"}},
        // Ill-formed UTF-8 is matched, never rejected: each bad sequence is one character.
        {"/a??", {"/a\xFF\xC3"}, {"/a\xFF"}},
        // CR LF is one character on both sides.
        {"/?", {"/\r\n", "/\r", "/\n"}, {"/\n\r"}},
        {"/??", {"/\n\r", "/a\r\n"}, {"/\r\n"}},
        {"/a\r\n", {"/a\r\n"}, {"/a\r", "/a\n"}},
        {"/a\r\n*", {"/a\r\nb"}, {"/a\rb"}},
        {"/[\r\n]", {"/\r\n"}, {"/\r", "/\n"}},
        {"/[\t-\r\n]", {"/\n", "/\r\n", "/\t"}, {"/\r"}},
    });
}

// A search that backtracked over every star would run for ages here; the short cases are in the
// tables.
TEST(OSCAddressPatternMatching, ManyStarsStayPolynomial) {
    const Pattern pattern("/*a*a*a*a*a*b");
    EXPECT_FALSE(pattern.matches("/" + std::string(64, 'a')));
    EXPECT_TRUE(pattern.matches("/" + std::string(64, 'a') + "b"));
    EXPECT_FALSE(Pattern("/*?*?*?*?*?*?*?*?*?*?*x").matches("/" + std::string(200, 'y')));
    const OSCCompiledPattern compiled(pattern);
    EXPECT_FALSE(compiled.matches("/" + std::string(2000, 'a')));
    EXPECT_TRUE(compiled.matches("/" + std::string(2000, 'a') + "b"));
}

TEST(OSCAddressPatternMatching, IsSafeFromSeveralThreadsAtOnce) {
    const Pattern pattern("/*a*[!x]?/{b,c}");
    const std::string address = "/\xC3\xA9" + std::string("a\xF0\x9F\x91\x8Dz/c");  // "/éa👍z/c"
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 500; ++i) {
                if (!pattern.matches(address)) ++failures[t];
                if (Pattern("/caf\xC3\xA9").rawAddress() != "/cafe") ++failures[t];
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace kavrin
