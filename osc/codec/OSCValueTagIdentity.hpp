#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>

namespace kavrin {

// How a value kind names itself in a type-tag string: `atomic`, always one fixed tag; `variable`,
// one tag chosen by the value from a list (Bool: T or F); `variadic`, a run of tags opened by
// one character, at least minimumCount long (arrays: "[" ... "]", at least 2). A plain value.
struct OSCValueTagIdentity {
    struct Atomic {
        char tag;
        friend bool operator==(const Atomic&, const Atomic&) = default;
    };
    struct Variable {
        std::string tags;
        friend bool operator==(const Variable&, const Variable&) = default;
    };
    struct Variadic {
        char openingTag;
        std::size_t minimumCount;
        std::optional<std::size_t> maximumCount;
        friend bool operator==(const Variadic&, const Variadic&) = default;
    };

    std::variant<Atomic, Variable, Variadic> identity;

    static OSCValueTagIdentity atomic(char tag) { return {Atomic{tag}}; }
    static OSCValueTagIdentity variable(std::string tags) { return {Variable{std::move(tags)}}; }
    static OSCValueTagIdentity variadic(char openingTag, std::size_t minimumCount,
                                        std::optional<std::size_t> maximumCount = std::nullopt) {
        return {Variadic{openingTag, minimumCount, maximumCount}};
    }

    // Whether a tag string character starts a value of this kind.
    bool contains(char tag) const;
    // The characters this kind owns in a registry: its tag, its list, or its opening tag.
    std::string claimedTags() const;

    friend bool operator==(const OSCValueTagIdentity&, const OSCValueTagIdentity&) = default;
};

}  // namespace kavrin
