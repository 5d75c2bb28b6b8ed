#include <unordered_set>

#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

// Readable failure messages for token lists: kind, then payload.
void PrintTo(const OSCAddressPattern::Token& token, std::ostream* out) {
    *out << "kind " << static_cast<int>(token.kind) << " " << ::testing::PrintToString(token.text)
         << (token.isExclusion ? " !" : " ") << ::testing::PrintToString(token.alternatives);
    for (const auto& group : token.groups) *out << " " << group.start << "-" << group.end;
}

namespace {

using Pattern = OSCAddressPattern;
using Token = OSCAddressPattern::Token;
using Group = OSCAddressPattern::CharacterGroup;

std::vector<std::string> strings(const std::vector<std::string_view>& views) {
    return {views.begin(), views.end()};
}

TEST(OSCAddressPatternConstruction, KeepsASCIIAndConvertsTheRestLossily) {
    struct Case {
        std::string text;
        std::string rawAddress;
    };
    const std::vector<Case> cases = {
        {"/eos/ping", "/eos/ping"},
        {"", ""},
        // Pure ASCII is kept as it is, controls and CR LF included.
        {"/a\tb\r\n", "/a\tb\r\n"},
        {std::string("/a\0b", 4), std::string("/a\0b", 4)},
        // Anything else goes through the lossy conversion whole: the tab goes too.
        {"/caf\xC3\xA9/\xC3\x85ngstr\xC3\xB6m\t", "/cafe/Angstrom"},
        {"/\xE6\x97\xA5\xE6\x9C\xAC/a\xFF\xC3", "//a"},
    };
    for (const auto& c : cases) {
        const Pattern pattern(c.text);
        EXPECT_EQ(pattern.rawAddress(), c.rawAddress) << c.text;
        EXPECT_EQ(pattern.description(), c.rawAddress);
        EXPECT_EQ(std::string(pattern.rawData().begin(), pattern.rawData().end()), c.rawAddress);
    }
    EXPECT_EQ(Pattern().rawAddress(), "");
    EXPECT_EQ(Pattern(static_cast<const char*>(nullptr)).rawAddress(), "");
}

TEST(OSCAddressPatternParsing, PathComponentsStripOneSlashAtEachEnd) {
    struct Case {
        std::string text;
        std::vector<std::string> components;
    };
    const std::vector<Case> cases = {
        {"", {}},
        {"/", {}},
        {"//", {}},
        {"/a/", {"a"}},
        {"a", {"a"}},
        {"/a//b", {"a", "", "b"}},
        {"//a", {"", "a"}},
        {"/a/b//", {"a", "b", ""}},
        {"///", {"", ""}},
        {"/*/[a-z]/{x,y}", {"*", "[a-z]", "{x,y}"}},
        // A slash with a combining mark is one character, not a separator.
        {"/a/\xCC\x81z", {"a/\xCC\x81z"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(strings(Pattern::pathComponents(c.text)), c.components) << c.text;
    }
}

TEST(OSCAddressPatternParsing, TokensSplitLiteralsAndWildcards) {
    const auto literal = Token::literal;
    const auto star = Token::zeroOrMoreWildcard();
    const auto question = Token::singleCharWildcard();
    struct Case {
        std::string component;
        std::vector<Token> tokens;
    };
    const std::vector<Case> cases = {
        {"", {}},
        {"abc", {literal("abc")}},
        {"**x", {star, literal("x")}},
        {"a***", {literal("a"), star}},
        {"*?*", {star, question, star}},
        {"ab[cd]ef",
         {literal("ab"), Token::singleChar(false, {Group::single("c"), Group::single("d")}),
          literal("ef")}},
        {"[]", {Token::singleChar(false, {})}},
        {"[!]", {Token::singleChar(true, {})}},
        {"[]]", {Token::singleChar(false, {}), literal("]")}},
        {"x[ab", {literal("x[ab")}},
        {"{foo,bar}", {Token::strings({"foo", "bar"})}},
        {"{foo", {literal("{foo")}},
        {"{foo,bar,foo}", {Token::strings({"bar", "foo"})}},
        {"{a,,b}", {Token::strings({"a", "b"})}},
        {"{}", {Token::strings({})}},
        {"{a}}", {Token::strings({"a"}), literal("}")}},
        {"{a,[b]}", {Token::strings({"a", "[b]"})}},
        // An unclosed "[" is read as the opening of a brace list.
        {"[a,b}", {Token::strings({"a", "b"})}},
        {"x[a-z}y", {literal("x"), Token::strings({"a-z"}), literal("y")}},
        {"[}", {Token::strings({})}},
        // Unmatched closers and the other specials are literal.
        {"a]b}c!-,", {literal("a]b}c!-,")}},
        {"a*b?c", {literal("a"), star, literal("b"), question, literal("c")}},
        // A comma with a combining mark is one character, not a separator.
        {"{a,\xCC\x81z}", {Token::strings({"a,\xCC\x81z"})}},
        // CR LF is one character inside a bracket.
        {"[\r\n]", {Token::singleChar(false, {Group::single("\r\n")})}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Pattern::tokens(c.component), c.tokens) << c.component;
    }
    EXPECT_EQ(Pattern::components("/a//*"),
              (std::vector<Pattern::Component>{{{literal("a")}}, {}, {{star}}}));
}

TEST(OSCAddressPatternParsing, CharacterGroupsReadRangesDashesAndExclusion) {
    const auto single = Group::single;
    const auto range = Group::asciiRange;
    struct Case {
        std::string contents;
        bool isExclusion;
        std::set<Group> groups;
    };
    const std::vector<Case> cases = {
        {"", false, {}},
        {"!", true, {}},
        {"abc", false, {single("a"), single("b"), single("c")}},
        {"aab", false, {single("a"), single("b")}},
        {"!abc", true, {single("a"), single("b"), single("c")}},
        {"a-z", false, {range("a", "z")}},
        {"-a", false, {single("-"), single("a")}},
        {"a-", false, {single("-"), single("a")}},
        {"-", false, {single("-")}},
        {"!-", true, {single("-")}},
        {"a-c-e", false, {range("a", "c"), single("-"), single("e")}},
        {"a--b", false, {range("a", "-"), single("b")}},
        {"0-9-", false, {range("0", "9"), single("-")}},
        {"xa-c", false, {single("x"), range("a", "c")}},
        {"z-a", false, {range("z", "a")}},
        {"!!", true, {single("!")}},
        {"\r\n-z", false, {range("\r\n", "z")}},
        {"\xC3\xA9-z", false, {range("\xC3\xA9", "z")}},
    };
    for (const auto& c : cases) {
        const auto [isExclusion, groups] = Pattern::characterGroups(c.contents);
        EXPECT_EQ(isExclusion, c.isExclusion) << c.contents;
        EXPECT_EQ(groups, c.groups) << c.contents;
    }
}

// Hashes agree with equality; that unequal values hash apart is the hash's quality, not a rule.
TEST(OSCAddressPatternParsing, PatternsCompareByTheirASCIITextAndHashAsTheyCompare) {
    EXPECT_EQ(Pattern("/caf\xC3\xA9"), Pattern("/cafe"));
    EXPECT_EQ(std::hash<Pattern>()(Pattern("/caf\xC3\xA9")), std::hash<Pattern>()(Pattern("/cafe")));
    EXPECT_NE(Pattern("/a"), Pattern("/A"));
    EXPECT_NE(Pattern("/a"), Pattern("/a/"));
    EXPECT_EQ((std::unordered_set<Pattern>{"/a", "/b", "/a"}.size()), 2u);
    EXPECT_EQ(std::hash<Token>()(Token::literal("ab")), std::hash<Token>()(Pattern::tokens("ab")[0]));
    EXPECT_EQ((std::unordered_set<Token>{Token::strings({"b", "a"}), Token::strings({"a", "b"}),
                                         Token::zeroOrMoreWildcard(), Token::singleCharWildcard()}
                   .size()),
              3u);
}

}  // namespace
}  // namespace kavrin
