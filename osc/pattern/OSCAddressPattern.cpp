#include "osc/pattern/OSCAddressPattern.hpp"

#include <variant>

#include "osc/pattern/OSCAddressPatternToken.hpp"
#include "osc/pattern/detail/OSCByteMatcher.hpp"
#include "support/ASCIIScan.hpp"
#include "support/HashCombine.hpp"
#include "support/LossyASCII.hpp"

namespace kavrin {

namespace {

// The search state of one matchComponent call: one matcher per token and the shared position.
class ComponentSearch {
  public:
    using Matcher =
        std::variant<OSCAddressPatternToken::Literal, OSCAddressPatternToken::ZeroOrMoreWildcard,
                     OSCAddressPatternToken::SingleCharWildcard, OSCAddressPatternToken::SingleChar,
                     OSCAddressPatternToken::Strings>;

    ComponentSearch(const CharacterView& component,
                    const std::vector<OSCAddressPattern::Token>& tokens)
        : component_(component), length_(component.size()) {
        // Reused per thread so that a search allocates nothing once warm.
        thread_local std::vector<Matcher> matcherStorage;
        thread_local std::vector<OSCAddressPatternToken*> matcherList;
        thread_local std::vector<bool> failureStorage;
        matchers_ = &matcherStorage;
        list_ = &matcherList;
        failed_ = &failureStorage;

        matchers_->clear();
        list_->clear();
        matchers_->reserve(tokens.size());
        std::size_t stars = 0;
        for (const auto& token : tokens) {
            using Kind = OSCAddressPattern::Token::Kind;
            switch (token.kind) {
                case Kind::literal:
                    matchers_->emplace_back(std::in_place_type<OSCAddressPatternToken::Literal>,
                                            token.text);
                    break;
                case Kind::zeroOrMoreWildcard:
                    matchers_->emplace_back(
                        std::in_place_type<OSCAddressPatternToken::ZeroOrMoreWildcard>);
                    ++stars;
                    break;
                case Kind::singleCharWildcard:
                    matchers_->emplace_back(
                        std::in_place_type<OSCAddressPatternToken::SingleCharWildcard>);
                    break;
                case Kind::singleChar:
                    matchers_->emplace_back(std::in_place_type<OSCAddressPatternToken::SingleChar>,
                                            token.isExclusion, token.groups);
                    break;
                case Kind::strings:
                    matchers_->emplace_back(std::in_place_type<OSCAddressPatternToken::Strings>,
                                            token.alternatives);
                    break;
            }
        }
        for (auto& matcher : *matchers_) {
            list_->push_back(
                std::visit([](auto& m) -> OSCAddressPatternToken* { return &m; }, matcher));
        }
        // tryFrom(i) at a given position always gives the same answer (each level resets its
        // matcher), so remembering failures changes no outcome. Only two or more stars can
        // reach the same (token, position) twice; remembering them keeps "/*a*a*a*a*a*b"
        // polynomial instead of exploring every split of a long component.
        remembersFailures_ = stars >= 2;
        if (remembersFailures_) failed_->assign(tokens.size() * (length_ + 1), false);
    }

    bool run() {
        position_ = 0;
        return tryFrom(0);
    }

  private:
    bool tryFrom(std::size_t i) {
        OSCAddressPatternToken& matcher = *(*list_)[i];
        matcher.reset();
        const std::size_t start = position_;
        if (remembersFailures_ && (*failed_)[i * (length_ + 1) + start]) return false;
        const bool isLast = i + 1 == list_->size();
        for (;;) {
            if (const auto consumed = matcher.match(component_.suffix(start))) {
                position_ = start + *consumed;
                if (isLast) {
                    if (position_ == length_) return true;
                } else if (tryFrom(i + 1)) {
                    return true;
                }
            }
            matcher.advance(length_ - start);
            if (matcher.isExhausted()) break;
        }
        if (remembersFailures_) (*failed_)[i * (length_ + 1) + start] = true;
        return false;
    }

    CharacterView component_;
    std::size_t length_;
    std::size_t position_ = 0;
    bool remembersFailures_ = false;
    std::vector<Matcher>* matchers_;
    std::vector<OSCAddressPatternToken*>* list_;
    std::vector<bool>* failed_;
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
    if (kind == Kind::single) return character == start;
    const auto value = CharacterView::asciiValue(character);
    const auto low = CharacterView::asciiValue(start);
    const auto high = CharacterView::asciiValue(end);
    // Deliberate: a reversed range ("z-a") or one with a non-ASCII bound accepts nothing.
    if (!value || !low || !high || *low > *high) return false;
    return *low <= *value && *value <= *high;
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
    std::vector<Token> result;
    std::size_t literalStart = 0;  // the literal buffer is always the run [literalStart, i)
    std::size_t i = 0;
    const auto flush = [&] {
        if (literalStart < i) {
            result.push_back(Token::literal(std::string(component.slice(literalStart, i).text())));
        }
    };
    // The characters strictly between an opening character at `open` and its closer at `close`;
    // a two-character "[]" or "{}" has none.
    const auto contents = [&](std::size_t open, std::size_t close) {
        return close - open + 1 < 3 ? CharacterView() : component.slice(open + 1, close);
    };

    while (i < component.size()) {
        const std::string_view character = component[i];
        if (character == "*") {
            flush();
            if (result.empty() || result.back().kind != Token::Kind::zeroOrMoreWildcard) {
                result.push_back(Token::zeroOrMoreWildcard());
            }
            literalStart = ++i;
            continue;
        }
        if (character == "?") {
            flush();
            result.push_back(Token::singleCharWildcard());
            literalStart = ++i;
            continue;
        }
        if (character == "[") {
            if (const auto close = component.find("]", i)) {
                auto [isExclusion, groups] = characterGroups(contents(i, *close).text());
                flush();
                result.push_back(Token::singleChar(isExclusion, std::move(groups)));
                literalStart = i = *close + 1;
                continue;
            }
            // Deliberate: an unclosed "[" falls through to the brace rule, so "[a,b}" is a list.
        }
        if (character == "{" || character == "[") {
            if (const auto close = component.find("}", i)) {
                std::set<std::string> alternatives;
                const CharacterView list = contents(i, *close);
                for (std::size_t begin = 0; begin <= list.size();) {
                    const std::size_t comma = list.find(",", begin).value_or(list.size());
                    if (comma > begin) alternatives.emplace(list.slice(begin, comma).text());
                    begin = comma + 1;
                }
                flush();
                result.push_back(Token::strings(std::move(alternatives)));
                literalStart = i = *close + 1;
                continue;
            }
        }
        ++i;  // anything else, unmatched "]" and "}" included, joins the literal run
    }
    flush();
    return result;
}

std::pair<bool, std::set<OSCAddressPattern::CharacterGroup>> OSCAddressPattern::characterGroups(
    std::string_view contents) {
    std::set<CharacterGroup> groups;
    if (contents.empty()) return {false, groups};

    std::vector<std::uint32_t> storage;
    const CharacterView view = CharacterView::segment(contents, storage);
    std::vector<std::string_view> rest;
    rest.reserve(view.size());
    for (std::size_t i = 0; i < view.size(); ++i) rest.push_back(view[i]);

    bool isExclusion = false;
    if (rest.front() == "!") {
        isExclusion = true;
        if (rest.size() == 1) return {true, groups};
        rest.erase(rest.begin());
    }

    bool sawDash = false;
    while (!rest.empty()) {
        std::size_t dash = 0;
        while (dash < rest.size() && rest[dash] != "-") ++dash;
        if (dash == rest.size()) {
            for (const auto character : rest)
                groups.insert(CharacterGroup::single(std::string(character)));
            break;
        }
        if (dash == 0 || dash == rest.size() - 1) {
            rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(dash));
            sawDash = true;
            continue;
        }
        // Characters before the range stay and are taken as singles on a later round.
        groups.insert(
            CharacterGroup::asciiRange(std::string(rest[dash - 1]), std::string(rest[dash + 1])));
        rest.erase(rest.begin() + static_cast<std::ptrdiff_t>(dash - 1),
                   rest.begin() + static_cast<std::ptrdiff_t>(dash + 2));
    }
    if (sawDash) groups.insert(CharacterGroup::single("-"));
    return {isExclusion, groups};
}

// MARK: Matching

bool OSCAddressPattern::matches(std::string_view address) const {
    // Nearly always the texts are walked side by side, with no parsed form built and nothing
    // allocated; only wildcards that meet multi-byte characters need the parsed form.
    if (const auto answer = byteMatcher::matches(rawAddress_, address)) return *answer;
    const std::vector<Component> pattern = components(rawAddress_);
    // Deliberate: the empty pattern and "/" have no components and match nothing, not even "/".
    if (pattern.empty()) return false;
    std::vector<std::uint32_t> storage;
    const std::vector<CharacterView> parts =
        pathComponents(CharacterView::segment(address, storage));
    // A wildcard never spans a "/": the component counts must agree.
    if (parts.size() != pattern.size()) return false;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!matchComponent(parts[i], pattern[i].tokens)) return false;
    }
    return true;
}

bool OSCAddressPattern::matchComponent(std::string_view component,
                                       const std::vector<Token>& tokens) {
    std::vector<std::uint32_t> storage;
    return matchComponent(CharacterView::segment(component, storage), tokens);
}

bool OSCAddressPattern::matchComponent(const CharacterView& component,
                                       const std::vector<Token>& tokens) {
    if (tokens.empty()) return component.empty();
    if (tokens.size() == 1 && tokens[0].kind == Token::Kind::literal) {
        return component.text() == tokens[0].text;
    }
    if (tokens.size() == 1 && tokens[0].kind == Token::Kind::zeroOrMoreWildcard) return true;
    return ComponentSearch(component, tokens).run();
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
