#include "osc/pattern/OSCCompiledPattern.hpp"

#include <algorithm>
#include <string>
#include <vector>

#include "osc/pattern/detail/MatchBytes.hpp"
#include "osc/pattern/detail/MatchRun.hpp"
#include "osc/pattern/detail/MatchStep.hpp"

namespace kavrin {

// Never moved once made, so that the steps' views of `text` stay valid.
struct OSCCompiledPattern::Program {
    std::string text;
    MatchProgram components;  // each component's steps in turn
    // Component i's steps are [starts[i], starts[i + 1]) of components.steps.
    std::vector<std::uint32_t> starts{0};
    // The whole pattern's steps for runBytes: the components' steps joined by "/", with text
    // next to text compared as one.
    std::vector<MatchStep> path;
    bool pathIsTextsAndStars = false;  // matchBytes::textsAndStars of path

    const MatchStep* componentBegin(std::size_t i) const {
        return components.steps.data() + starts[i];
    }
    const MatchStep* componentEnd(std::size_t i) const {
        return components.steps.data() + starts[i + 1];
    }
    bool matchesComponent(std::size_t i, const CharacterView& component) const {
        return matchRun::matchesComponent(componentBegin(i), componentEnd(i),
                                          components.pieces.data(), component);
    }
    template <bool isTextsAndStars>
    bool matchesPath(std::string_view address) const {
        const MatchStep* const first = path.data();
        return matchBytes::matchesPathBytes<isTextsAndStars>(
            first, first + path.size(), components.pieces.data(), address,
            [this, address] { return matchesByCharacters(address); });
    }
    // Out of line, each, so that the byte-wise path for other patterns keeps its registers.
    [[gnu::noinline]] bool matchesTextsAndStars(std::string_view address) const {
        return matchesPath<true>(address);
    }
    [[gnu::noinline]] bool matchesByCharacters(std::string_view address) const {
        return matchRun::matchesByCharacters(address, starts.size() - 1,
                                             [&](std::size_t i, const CharacterView& component) {
                                                 return matchesComponent(i, component);
                                             });
    }
};

OSCCompiledPattern::OSCCompiledPattern(OSCAddressPattern pattern) : pattern_(std::move(pattern)) {
    auto program = std::make_shared<Program>();
    program->text = pattern_.rawAddress();
    std::string_view path = program->text;
    // One leading and then one trailing "/" go, as pathComponents drops them.
    if (path.starts_with('/')) path.remove_prefix(1);
    if (path.ends_with('/')) path.remove_suffix(1);
    std::vector<std::string_view> texts;
    for (std::size_t begin = 0; !path.empty();) {
        const std::size_t slash = std::min(path.find('/', begin), path.size());
        texts.push_back(path.substr(begin, slash - begin));
        program->components.read(texts.back());
        program->starts.push_back(static_cast<std::uint32_t>(program->components.steps.size()));
        if (slash == path.size()) break;
        begin = slash + 1;
    }

    // Text is merged only where it stays next to text in the pattern, and never into the steps
    // that follow a star within its component: those are searched up to the component's end.
    std::vector<MatchStep>& steps = program->path;
    std::size_t sealed = 0;  // steps before this one take no more text
    const auto append = [&](const MatchStep& step) {
        if (step.kind == MatchStep::Kind::text && steps.size() > sealed &&
            steps.back().kind == MatchStep::Kind::text &&
            steps.back().text.data() + steps.back().text.size() == step.text.data()) {
            steps.back().text = {steps.back().text.data(),
                                 steps.back().text.size() + step.text.size()};
            return;
        }
        steps.push_back(step);
    };
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (i > 0 && steps.size() > sealed && steps.back().kind == MatchStep::Kind::star &&
            !steps.back().thenSeparator) {
            // The star stops at the "/" it has to find anyway.
            steps.back().thenSeparator = true;
        } else if (i > 0) {
            MatchStep separator;
            separator.text = {texts[i].data() - 1, 1};
            append(separator);
        }
        for (const MatchStep* step = program->componentBegin(i); step != program->componentEnd(i);
             ++step) {
            append(*step);
            if (step->kind == MatchStep::Kind::star && step->span != 0) {
                for (++step; step != program->componentEnd(i); ++step) steps.push_back(*step);
                sealed = steps.size();
                break;
            }
        }
    }
    program->pathIsTextsAndStars =
        matchBytes::textsAndStars(steps.data(), steps.data() + steps.size());
    program_ = std::move(program);
}

bool OSCCompiledPattern::matches(std::string_view address) const {
    const Program& program = *program_;
    // Deliberate: a pattern without components matches nothing, not even "/": its path is
    // empty, and an address that the path's no steps take has no components.
    if (program.pathIsTextsAndStars) return program.matchesTextsAndStars(address);
    return program.matchesPath<false>(address);
}

std::size_t OSCCompiledPattern::componentCount() const {
    return program_->starts.size() - 1;
}

bool OSCCompiledPattern::matchesComponent(std::size_t index, std::string_view name) const {
    const Program& program = *program_;
    // Inline for the address space, which asks this of every name at a level.
    const auto answer = matchBytes::matchesComponentBytes(program.componentBegin(index),
                                                          program.componentEnd(index),
                                                          program.components.pieces.data(), name);
    if (answer) return *answer;
    std::vector<std::uint32_t> storage;
    return program.matchesComponent(index, CharacterView::segment(name, storage));
}

std::optional<std::string_view> OSCCompiledPattern::literalComponent(std::size_t index) const {
    const Program& program = *program_;
    const MatchStep* const first = program.componentBegin(index);
    const MatchStep* const last = program.componentEnd(index);
    if (first == last) return std::string_view();
    if (last - first == 1 && first->kind == MatchStep::Kind::text) return first->text;
    return std::nullopt;
}

bool OSCCompiledPattern::matchesEveryName(std::size_t index) const {
    const Program& program = *program_;
    const MatchStep* const first = program.componentBegin(index);
    return program.componentEnd(index) - first == 1 && first->kind == MatchStep::Kind::star;
}

}  // namespace kavrin
