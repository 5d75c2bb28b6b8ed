#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCNumberValue.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueList.hpp"

// Value masks: typed extraction of a message's values against a list of expected kinds, as in
// message.masked<std::int32_t, std::string, std::optional<float>>(). A kind is any alternative
// of OSCValue, OSCValue itself (anything), or OSCNumberValue; std::string and std::string_view
// take a String as OSCString does, std::vector<std::uint8_t> a Blob as OSCBlob (the view is
// valid while the message lives). The numeric types int32_t,
// int64_t, float and double, like OSCNumberValue, accept any of Int32, Int64, Float32 and Double
// and convert (see OSCNumberValueBase). std::optional<Kind> may end the list: a missing value
// gives std::nullopt. Misfits throw OSCValueMaskError.
namespace kavrin {

namespace valueMask {

template <class T>
struct Optional : std::false_type {
    using Kind = T;
};
template <class T>
struct Optional<std::optional<T>> : std::true_type {
    using Kind = T;
};

template <class T>
inline constexpr bool isNumber =
    std::is_same_v<T, std::int32_t> || std::is_same_v<T, std::int64_t> ||
    std::is_same_v<T, float> || std::is_same_v<T, double> || std::is_same_v<T, OSCNumberValue>;

[[noreturn]] void throwCountMismatch(std::size_t minimum, std::size_t maximum, std::size_t found);
[[noreturn]] void throwTypeMismatch(std::size_t index, std::string_view expected,
                                    const OSCValue& found);
// "Int32 (or any number)" and the like.
std::string numberKindName(std::string_view name);

template <class T>
T extract(const OSCValue& value, std::size_t index) {
    if constexpr (std::is_same_v<T, OSCValue>) {
        return value;
    } else if constexpr (isNumber<T>) {
        const auto number = OSCNumberValue::from(value);
        if constexpr (std::is_same_v<T, OSCNumberValue>) {
            if (!number)
                throwTypeMismatch(index, "a number (Int32, Int64, Float32 or Double)", value);
            return *number;
        } else {
            constexpr auto name = std::is_same_v<T, std::int32_t>   ? "Int32"
                                  : std::is_same_v<T, std::int64_t> ? "Int64"
                                  : std::is_same_v<T, float>        ? "Float32"
                                                                    : "Double";
            if (!number) throwTypeMismatch(index, numberKindName(name), value);
            if constexpr (std::is_same_v<T, std::int32_t>) return number->base.int32Value();
            if constexpr (std::is_same_v<T, std::int64_t>) return number->base.int64Value();
            if constexpr (std::is_same_v<T, float>) return number->base.floatValue();
            if constexpr (std::is_same_v<T, double>) return number->base.doubleValue();
        }
    } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, std::string_view>) {
        const auto* text = std::get_if<OSCString>(&value.base());
        if (!text) throwTypeMismatch(index, kindName(OSCValueKind::string), value);
        return T(text->view());
    } else if constexpr (std::is_same_v<T, std::vector<std::uint8_t>>) {
        const auto* blob = std::get_if<OSCBlob>(&value.base());
        if (!blob) throwTypeMismatch(index, kindName(OSCValueKind::blob), value);
        return T(blob->begin(), blob->end());
    } else {
        if (const auto* found = std::get_if<T>(&value.base())) return *found;
        const OSCValue sample{T{}};
        throwTypeMismatch(index, kindName(kindOf(sample)), value);
    }
}

template <class... Kinds, std::size_t... I>
std::tuple<Kinds...> extractAll(const OSCValueList& values, std::index_sequence<I...>) {
    const auto one = [&values]<class K>(std::size_t index, std::type_identity<K>) -> K {
        if constexpr (Optional<K>::value) {
            if (index >= values.size()) return std::nullopt;
            return extract<typename Optional<K>::Kind>(values[index], index);
        } else {
            return extract<K>(values[index], index);
        }
    };
    return std::tuple<Kinds...>{one(I, std::type_identity<Kinds>{})...};
}

}  // namespace valueMask

template <class... Kinds>
std::tuple<Kinds...> maskValues(const OSCValueList& values) {
    constexpr std::array<bool, sizeof...(Kinds)> optional = {valueMask::Optional<Kinds>::value...};
    constexpr std::size_t required = [&] {
        std::size_t count = 0;
        while (count < optional.size() && !optional[count]) ++count;
        return count;
    }();
    static_assert(
        [&] {
            for (std::size_t i = required; i < optional.size(); ++i) {
                if (!optional[i]) return false;
            }
            return true;
        }(),
        "std::optional kinds may only end a value mask");
    if (values.size() < required || values.size() > sizeof...(Kinds)) {
        valueMask::throwCountMismatch(required, sizeof...(Kinds), values.size());
    }
    return valueMask::extractAll<Kinds...>(values, std::index_sequence_for<Kinds...>{});
}

}  // namespace kavrin
