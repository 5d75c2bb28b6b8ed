#include <optional>
#include <unordered_set>

#include "support/ASCIIString.hpp"
#include "support/LossyASCII.hpp"
#include "support/UTF8.hpp"

namespace kavrin {
namespace {

using namespace ::testing;

TEST(ASCIICharacter, SplitsIntoPrintableAndControlAndRefusesTheRest) {
    struct Case {
        char32_t scalar;
        bool printable;
    };
    const std::vector<Case> cases = {{U'\0', false}, {U'\t', false}, {U'\x1F', false}, {U' ', true},
                                     {U'A', true},   {U'~', true},   {U'\x7F', false}};
    for (const auto& c : cases) {
        const ASCIICharacter character(c.scalar);
        EXPECT_EQ(character.isPrintable(), c.printable) << static_cast<int>(c.scalar);
        EXPECT_NE(character.isControl(), c.printable);
        EXPECT_EQ(static_cast<char32_t>(character.value()), c.scalar);
    }
    const auto nonASCII = [] { ASCIICharacter(U'\u00E9'); };
    EXPECT_THAT(nonASCII, ThrowsMessage<ASCIIError>(StrEq("Non-ASCII character U+00E9")));
    EXPECT_THAT(nonASCII, Throws<ASCIIError>(Property(&ASCIIError::position, Eq(std::nullopt))));
    // A char is a byte, never a negative scalar.
    EXPECT_THROW(ASCIICharacter('\xE9'), ASCIIError);
    EXPECT_THROW(ASCIICharacter(char32_t{0x110000}), ASCIIError);
    static_assert(ASCIICharacter('a') < ASCIICharacter('b'));
}

TEST(ASCIIText, ChecksNameTheFirstOffenderAndItsBytePosition) {
    struct Case {
        std::string text;
        bool printableOnly;
        ASCIIError::Reason reason;
        char32_t value;
        std::size_t position;
        const char* message;
    };
    using R = ASCIIError::Reason;
    const std::vector<Case> cases = {
        {"caf\xC3\xA9", false, R::nonASCII, 0xE9, 3, "Non-ASCII character U+00E9 at position 3"},
        // Positions count bytes: the second character of "éé" starts at byte 2.
        {"\xC3\xA9\xC3\xA9", false, R::nonASCII, 0xE9, 0,
         "Non-ASCII character U+00E9 at position 0"},
        {"ab\xF0\x9F\x91\x8D", false, R::nonASCII, 0x1F44D, 2,
         "Non-ASCII character U+1F44D at position 2"},
        {"a\xFF", false, R::invalidUTF8, 0xFF, 1, "Invalid UTF-8 byte 0xFF at position 1"},
        {"ab\x80", false, R::invalidUTF8, 0x80, 2, "Invalid UTF-8 byte 0x80 at position 2"},
        {"abcdefgh\xC3", false, R::invalidUTF8, 0xC3, 8, "Invalid UTF-8 byte 0xC3 at position 8"},
        {"tab\there", true, R::nonPrintable, 0x09, 3,
         "Non-printable character U+0009 at position 3"},
        {std::string("a\0b", 3), true, R::nonPrintable, 0, 1,
         "Non-printable character U+0000 at position 1"},
        {"del\x7F", true, R::nonPrintable, 0x7F, 3, "Non-printable character U+007F at position 3"},
        {"ok\xC3\xA9\t", true, R::nonASCII, 0xE9, 2, "Non-ASCII character U+00E9 at position 2"},
    };
    for (const auto& c : cases) {
        const auto check = [&] {
            c.printableOnly ? ASCIIString::printable(c.text) : ASCIIString(c.text);
        };
        EXPECT_THAT(check, ThrowsMessage<ASCIIError>(StrEq(c.message)));
        EXPECT_THAT(check, Throws<ASCIIError>(AllOf(Property(&ASCIIError::reason, c.reason),
                                                    Property(&ASCIIError::value, c.value),
                                                    Property(&ASCIIError::position, c.position))))
            << c.message;
        // The view checks alike.
        EXPECT_THROW(c.printableOnly ? ASCIIStringView::printable(c.text) : ASCIIStringView(c.text),
                     ASCIIError);
    }
}

TEST(ASCIIText, KeepsWhatPassesAndConcatenates) {
    const std::string raw("line\r\n\0end", 10);
    const ASCIIStringView view(raw);
    EXPECT_EQ(view.text(), raw);
    EXPECT_FALSE(view.isPrintable());
    EXPECT_EQ(view[4], ASCIICharacter('\r'));

    ASCIIString text = ASCIIString::printable("abc");
    text += ASCIIStringView("-");
    text += ASCIICharacter('\n');
    EXPECT_EQ(text.str(), "abc-\n");
    EXPECT_FALSE(text.isPrintable());
    const std::unordered_set<ASCIIString> set = {ASCIIString("x"), ASCIIString("x"),
                                                 ASCIIString("y")};
    EXPECT_EQ(set.size(), 2u);
}

TEST(LossyASCII, TransliteratesThenDropsEverythingOutsidePrintableASCII) {
    struct Case {
        std::string text;
        std::string ascii;
    };
    const std::vector<Case> cases = {
        {"", ""},
        {"plain text ~", "plain text ~"},
        {"Caf\xC3\xA9 \xC3\x85ngstr\xC3\xB6m", "Cafe Angstrom"},
        {"\xC3\x9F", "ss"},
        {"e\xCC\x81", "e"},  // e + combining acute
        {"\xE2\x80\x9Cquoted\xE2\x80\x9D", "\"quoted\""},
        // Controls, tabs, line ends and DEL go, as does what Latin-ASCII leaves alone.
        {"tab\there\r\n\x7F", "tabhere"},
        {"\xE6\x97\xA5\xE6\x9C\xAC/x", "/x"},
        {"\xF0\x9F\x91\x8D", ""},
        // Invalid UTF-8 never throws; its bytes go.
        {"a\xFF\xC3", "a"},
        {"\x80\x80", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lossyASCII(c.text), c.ascii) << c.text;
        EXPECT_EQ(ASCIIString::lossy(c.text).str(), c.ascii) << c.text;
    }
}

// Well-formed UTF-8 is RFC 3629's: overlong forms, surrogates, scalars above U+10FFFF and
// broken sequences are refused wherever they stand.
TEST(UTF8, AcceptsWellFormedTextOnly) {
    for (const char* valid : {"w\xC3\xB6rld", "\xE2\x82\xAC!", "\xF4\x8F\xBF\xBF" /* U+10FFFF */,
                              "\xED\x9F\xBF" /* U+D7FF */, ""}) {
        EXPECT_TRUE(isValidUTF8(valid)) << valid;
    }
    for (const char* invalid :
         {"\xC0\xAF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF" /* overlong "/" */,
          "\xED\xA0\x80" /* U+D800 */, "\xF4\x90\x80\x80" /* U+110000 */, "\xF5\x80\x80\x80",
          "\x80", "\xC3", "ok\xE2\x82(", "\xFF", "abcdefghijklmnop\xED\xA0\x80"}) {
        EXPECT_FALSE(isValidUTF8(invalid)) << invalid;
    }
    char32_t scalar = 0;
    EXPECT_EQ(leadingUTF8Scalar("\xF0\x9F\x91\x8D!", scalar), 4u);
    EXPECT_EQ(scalar, U'\U0001F44D');
    EXPECT_EQ(leadingUTF8Scalar("\xED\xA0\x80", scalar), 0u);
}

TEST(LossyASCII, SharesItsTransliteratorSafelyBetweenThreads) {
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (std::size_t t = 0; t < wrong.size(); ++t) {
        threads.emplace_back([&wrong, t] {
            for (int i = 0; i < 200; ++i) wrong[t] += lossyASCII("\xC3\xA9t\xC3\xA9") != "ete";
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace kavrin
