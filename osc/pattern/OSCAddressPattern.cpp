#include "osc/pattern/OSCAddressPattern.hpp"

#include "osc/pattern/detail/ComponentSyntax.hpp"
#include "osc/pattern/detail/MatchRun.hpp"
#include "osc/pattern/detail/MatchStep.hpp"
#include "support/ASCIIScan.hpp"
#include "support/HashCombine.hpp"
#include "support/LossyASCII.hpp"

namespace kavrin {

namespace {

// The parsed form of what componentSyntax::scan reads.
class TokenMaker {
  public:
    void literal(const CharacterView& text) {
        tokens.push_back(OSCAddressPattern::Token::literal(std::string(text.text())));
    }
    void star() { tokens.push_back(OSCAddressPattern::Token::zeroOrMoreWildcard()); }
    void any() { tokens.push_back(OSCAddressPattern::Token::singleCharWildcard()); }
    void bracket(const CharacterView& contents) {
        GroupSet groups;
        const bool isExclusion = componentSyntax::scanGroups(contents, groups);
        tokens.push_back(OSCAddressPattern::Token::singleChar(isExclusion, std::move(groups.set)));
    }
    void brace(const CharacterView& contents) {
        std::set<std::string> alternatives;
        componentSyntax::Alternatives<CharacterView> each(contents);
        while (const auto alternative = each.next()) alternatives.emplace(alternative->text());
        tokens.push_back(OSCAddressPattern::Token::strings(std::move(alternatives)));
    }

    // The groups of a bracket expression as componentSyntax::scanGroups reads them.
    struct GroupSet {
        std::set<OSCAddressPattern::CharacterGroup> set;
        void single(std::string_view character) {
            set.insert(OSCAddressPattern::CharacterGroup::single(std::string(character)));
        }
        void range(std::string_view start, std::string_view end) {
            set.insert(OSCAddressPattern::CharacterGroup::asciiRange(std::string(start),
                                                                     std::string(end)));
        }
    };

    std::vector<OSCAddressPattern::Token> tokens;
};

}  // namespace

// MARK: CharacterGroup and Token

OSCAddressPattern::CharacterGroup OSCAddressPattern::CharacterGroup::single(Character character) {
    return {Kind::single, std::move(character), {}};
}

OSCAddressPattern::CharacterGroup OSCAddressPattern::CharacterGroup::asciiRange(Character start,
                                                                                Character end) {
    return {Kind::asciiRange, std::move(start), std::move(end)};
}

bool OSCAddressPattern::CharacterGroup::accepts(std::string_view character) const {
    MatchProgram program;
    program.addOneOf(false, {*this});
    return oneOfAccepts(program.steps.front(), program.pieces.data(), character);
}

OSCAddressPattern::Token OSCAddressPattern::Token::literal(std::string text) {
    Token token;
    token.kind = Kind::literal;
    token.text = std::move(text);
    return token;
}

OSCAddressPattern::Token OSCAddressPattern::Token::zeroOrMoreWildcard() {
    Token token;
    token.kind = Kind::zeroOrMoreWildcard;
    return token;
}

OSCAddressPattern::Token OSCAddressPattern::Token::singleCharWildcard() {
    Token token;
    token.kind = Kind::singleCharWildcard;
    return token;
}

OSCAddressPattern::Token OSCAddressPattern::Token::singleChar(bool isExclusion,
                                                              std::set<CharacterGroup> groups) {
    Token token;
    token.kind = Kind::singleChar;
    token.isExclusion = isExclusion;
    token.groups = std::move(groups);
    return token;
}

OSCAddressPattern::Token OSCAddressPattern::Token::strings(std::set<std::string> alternatives) {
    Token token;
    token.kind = Kind::strings;
    token.alternatives = std::move(alternatives);
    return token;
}

// MARK: Construction

OSCAddressPattern::OSCAddressPattern() = default;

// All bytes below 0x80 is exactly "every character is one scalar <= 127, or CR LF": no ASCII
// scalar extends a grapheme cluster except LF after CR.
OSCAddressPattern::OSCAddressPattern(std::string_view text)
    : rawAddress_(isASCII(text) ? decltype(rawAddress_)(text)
                                : decltype(rawAddress_)(std::string_view(lossyASCII(text)))) {}

OSCAddressPattern::OSCAddressPattern(const char* text)
    : OSCAddressPattern(std::string_view(text ? text : "")) {}

OSCAddressPattern::OSCAddressPattern(const std::string& text)
    : OSCAddressPattern(std::string_view(text)) {}

// MARK: Parsing

std::vector<CharacterView> OSCAddressPattern::pathComponents(const CharacterView& text) {
    std::vector<CharacterView> result;
    CharacterView rest = text;
    if (rest.empty()) return result;
    if (rest[0] == "/") rest = rest.suffix(1);
    if (!rest.empty() && rest[rest.size() - 1] == "/") rest = rest.slice(0, rest.size() - 1);
    if (rest.empty()) return result;
    // Deliberate: only one leading and one trailing "/" go, so "//a" keeps an empty component.
    std::size_t begin = 0;
    while (const auto slash = rest.find("/", begin)) {
        result.push_back(rest.slice(begin, *slash));
        begin = *slash + 1;
    }
    result.push_back(rest.slice(begin, rest.size()));
    return result;
}

std::vector<std::string_view> OSCAddressPattern::pathComponents(std::string_view text) {
    std::vector<std::uint32_t> storage;
    std::vector<std::string_view> result;
    for (const auto& component : pathComponents(CharacterView::segment(text, storage))) {
        result.push_back(component.text());
    }
    return result;
}

std::vector<OSCAddressPattern::Component> OSCAddressPattern::components(std::string_view pattern) {
    std::vector<std::uint32_t> storage;
    const auto parts = pathComponents(CharacterView::segment(pattern, storage));
    std::vector<Component> result;
    result.reserve(parts.size());
    for (const auto& component : parts) result.push_back(Component{tokens(component)});
    return result;
}

std::vector<OSCAddressPattern::Token> OSCAddressPattern::tokens(std::string_view component) {
    std::vector<std::uint32_t> storage;
    return tokens(CharacterView::segment(component, storage));
}

std::vector<OSCAddressPattern::Token> OSCAddressPattern::tokens(const CharacterView& component) {
    TokenMaker maker;
    componentSyntax::scan(component, maker);
    return std::move(maker.tokens);
}

std::pair<bool, std::set<OSCAddressPattern::CharacterGroup>> OSCAddressPattern::characterGroups(
    std::string_view contents) {
    std::vector<std::uint32_t> storage;
    TokenMaker::GroupSet groups;
    const bool isExclusion =
        componentSyntax::scanGroups(CharacterView::segment(contents, storage), groups);
    return {isExclusion, std::move(groups.set)};
}

// MARK: Matching

bool OSCAddressPattern::matches(std::string_view address) const {
    return matchRun::matchesPattern(rawAddress_, address);
}

bool OSCAddressPattern::matchComponent(std::string_view component,
                                       const std::vector<Token>& tokens) {
    std::vector<std::uint32_t> storage;
    return matchComponent(CharacterView::segment(component, storage), tokens);
}

bool OSCAddressPattern::matchComponent(const CharacterView& component,
                                       const std::vector<Token>& tokens) {
    MatchProgram program;
    program.lower(tokens);
    const MatchStep* const first = program.steps.data();
    return matchRun::matchesComponent(first, first + program.steps.size(), program.pieces.data(),
                                      component);
}

}  // namespace kavrin

// MARK: Hashing

std::size_t std::hash<kavrin::OSCAddressPattern>::operator()(
    const kavrin::OSCAddressPattern& pattern) const noexcept {
    return std::hash<std::string_view>{}(pattern.rawAddress());
}

std::size_t std::hash<kavrin::OSCAddressPattern::CharacterGroup>::operator()(
    const kavrin::OSCAddressPattern::CharacterGroup& group) const noexcept {
    std::size_t seed = static_cast<std::size_t>(group.kind);
    kavrin::hashCombine(seed, std::hash<std::string>{}(group.start));
    if (group.kind == kavrin::OSCAddressPattern::CharacterGroup::Kind::asciiRange) {
        kavrin::hashCombine(seed, std::hash<std::string>{}(group.end));
    }
    return seed;
}

std::size_t std::hash<kavrin::OSCAddressPattern::Token>::operator()(
    const kavrin::OSCAddressPattern::Token& token) const noexcept {
    using Kind = kavrin::OSCAddressPattern::Token::Kind;
    std::size_t seed = static_cast<std::size_t>(token.kind);
    switch (token.kind) {
        case Kind::literal:
            kavrin::hashCombine(seed, std::hash<std::string>{}(token.text));
            break;
        case Kind::singleChar:
            kavrin::hashCombine(seed, token.isExclusion ? 1 : 0);
            for (const auto& group : token.groups) {
                kavrin::hashCombine(seed,
                                    std::hash<kavrin::OSCAddressPattern::CharacterGroup>{}(group));
            }
            break;
        case Kind::strings:
            for (const auto& alternative : token.alternatives) {
                kavrin::hashCombine(seed, std::hash<std::string>{}(alternative));
            }
            break;
        case Kind::zeroOrMoreWildcard:
        case Kind::singleCharWildcard:
            break;
    }
    return seed;
}

std::size_t std::hash<kavrin::OSCAddressPattern::Component>::operator()(
    const kavrin::OSCAddressPattern::Component& component) const noexcept {
    std::size_t seed = component.tokens.size();
    for (const auto& token : component.tokens) {
        kavrin::hashCombine(seed, std::hash<kavrin::OSCAddressPattern::Token>{}(token));
    }
    return seed;
}
