#include "osc/pattern/detail/MatchStep.hpp"

#include <algorithm>

#include "osc/pattern/CharacterView.hpp"
#include "osc/pattern/detail/ComponentSyntax.hpp"
#include "osc/pattern/detail/MatchBytes.hpp"

namespace kavrin {

using Token = OSCAddressPattern::Token;

// Rare enough to allocate.
void readBracketByCharacters(std::string_view contents, MatchStep& step) {
    std::vector<std::uint32_t> storage;
    matchStepDetail::OneOfBuilder builder(step, nullptr);
    builder.finish(componentSyntax::scanGroups(CharacterView::segment(contents, storage), builder));
}

bool bracketTakesByte(std::string_view contents, unsigned char byte) {
    MatchStep step;
    readBracket(contents, step);
    return (step.bits[byte >> 6] >> (byte & 63) & 1) != 0;
}

std::ptrdiff_t braceListTakesBytes(std::string_view contents, const char* at, std::size_t left) {
    const char* next = nullptr;
    return matchBytes::braceListTakes(contents.data(), contents.data(),
                                      contents.data() + contents.size() + 1, at, left, next);
}

const MatchStep* PatternSteps::next() {
    if (at_ == text_.size() || text_[at_] == '/') return nullptr;
    step_ = MatchStep();
    if (opensWildcard(text_[at_])) {
        using componentSyntax::Reading;
        const Reading reading = componentSyntax::read(componentSyntax::PatternBytes(text_), at_);
        const std::string_view contents =
            text_.substr(reading.contentsBegin, reading.contentsEnd - reading.contentsBegin);
        switch (reading.kind) {
            case Reading::Kind::literal:
                step_.text = text_.substr(at_, 1);
                break;
            case Reading::Kind::star:
                step_.kind = MatchStep::Kind::star;
                break;
            case Reading::Kind::any:
                makeAny(step_);
                break;
            case Reading::Kind::bracket:
                readBracket(contents, step_);
                break;
            case Reading::Kind::brace:
                step_.kind = MatchStep::Kind::braceList;
                step_.text = contents;
                break;
        }
        at_ = reading.next;
        return &step_;
    }
    // Literal text up to the next character that may open a wildcard.
    std::size_t end = at_ + 1;
    while (end < text_.size() && text_[end] != '/' && !opensWildcard(text_[end])) ++end;
    step_.text = text_.substr(at_, end - at_);
    at_ = end;
    return &step_;
}

void MatchProgram::read(std::string_view component) {
    const std::size_t from = steps.size();
    PatternSteps reader(component);
    while (const MatchStep* step = reader.next()) {
        steps.push_back(*step);
        if (step->kind != MatchStep::Kind::braceList) continue;
        // Kept to be run many times: the alternatives are listed once.
        MatchStep& strings = steps.back();
        strings.kind = MatchStep::Kind::strings;
        strings.first = static_cast<std::uint32_t>(pieces.size());
        componentSyntax::Alternatives each(componentSyntax::PatternBytes(strings.text));
        while (const auto alternative = each.next()) pieces.emplace_back(alternative->text());
        strings.count = static_cast<std::uint32_t>(pieces.size()) - strings.first;
        // In the set's order, as lowered ones are, for the matchers that stop at the first fit.
        std::sort(pieces.begin() + strings.first, pieces.end(),
                  [](const MatchPiece& x, const MatchPiece& y) { return x.text < y.text; });
    }
    setSpans(from);
}

void MatchProgram::lower(const std::vector<Token>& tokens) {
    const std::size_t from = steps.size();
    for (const Token& token : tokens) {
        MatchStep step;
        switch (token.kind) {
            case Token::Kind::literal:
                step.text = token.text;
                break;
            case Token::Kind::zeroOrMoreWildcard:
                step.kind = MatchStep::Kind::star;
                break;
            case Token::Kind::singleCharWildcard:
                makeAny(step);
                break;
            case Token::Kind::singleChar:
                addOneOf(token.isExclusion, token.groups);
                continue;
            case Token::Kind::strings:
                addStrings(token.alternatives);
                continue;
        }
        steps.push_back(step);
    }
    setSpans(from);
}

void MatchProgram::addOneOf(bool isExclusion,
                            const std::set<OSCAddressPattern::CharacterGroup>& groups) {
    MatchStep step;
    matchStepDetail::OneOfBuilder builder(step, &pieces);
    for (const auto& group : groups) {
        if (group.kind == OSCAddressPattern::CharacterGroup::Kind::single) {
            builder.single(group.start);
        } else {
            builder.range(group.start, group.end);
        }
    }
    builder.finish(isExclusion);
    steps.push_back(step);
}

void MatchProgram::addStrings(const std::set<std::string>& alternatives) {
    MatchStep step;
    step.kind = MatchStep::Kind::strings;
    step.first = static_cast<std::uint32_t>(pieces.size());
    step.count = static_cast<std::uint32_t>(alternatives.size());
    for (const auto& alternative : alternatives) pieces.emplace_back(alternative);
    steps.push_back(step);
}

void MatchProgram::setSpans(std::size_t from) {
    for (std::size_t i = from; i < steps.size(); ++i) {
        if (steps[i].kind == MatchStep::Kind::star) {
            steps[i].span = static_cast<std::uint32_t>(steps.size() - i - 1);
        }
    }
}

bool oneOfAccepts(const MatchStep& step, const MatchPiece* pieces, std::string_view character) {
    if (character.size() == 1 && static_cast<unsigned char>(character[0]) < 0x80) {
        const auto byte = static_cast<unsigned char>(character[0]);
        return (step.bits[byte >> 6] >> (byte & 63) & 1) != 0;
    }
    if (character == "\r\n") return step.acceptsCRLF;
    const MatchPiece* const listed = pieces + step.first;
    const bool isListed = std::any_of(listed, listed + step.count, [&](const MatchPiece& piece) {
        return piece.text == character;
    });
    return isListed != step.exclusion;
}

}  // namespace kavrin
