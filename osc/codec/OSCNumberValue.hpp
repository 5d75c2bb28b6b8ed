#pragma once

#include <cstdint>
#include <optional>
#include <type_traits>
#include <variant>

#include "osc/codec/OSCValue.hpp"

namespace kavrin {

// A number in one of two cases, `int` (64-bit) or `float` (double), read back as any numeric
// type. Int to float converts as the language does; float to int truncates toward zero,
// saturates at the target's limits and gives 0 for NaN. A plain value.
struct OSCNumberValueBase {
    std::variant<std::int64_t, double> storage;

    static OSCNumberValueBase intCase(std::int64_t value) { return {value}; }
    static OSCNumberValueBase floatCase(double value) { return {value}; }

    bool isInt() const { return storage.index() == 0; }
    std::int64_t int64Value() const;
    std::int32_t int32Value() const;
    double doubleValue() const;
    float floatValue() const { return static_cast<float>(doubleValue()); }

    friend bool operator==(const OSCNumberValueBase&, const OSCNumberValueBase&) = default;
};

// Any numeric argument (i, h, f or d) taken as one number, for code that extracts typed values
// from a message; not a wire kind of its own.
struct OSCNumberValue {
    OSCNumberValueBase base;

    // The number held by an Int32, Int64, Float32 or Double value; nothing for other kinds.
    static std::optional<OSCNumberValue> from(const OSCValue& value);

    friend bool operator==(const OSCNumberValue&, const OSCNumberValue&) = default;
};

// A number from any source, typed by its base only.
struct AnyOSCNumberValue {
    OSCNumberValueBase base;

    AnyOSCNumberValue(OSCNumberValue number) : base(number.base) {}
    template <class T>
    requires std::is_arithmetic_v<T> AnyOSCNumberValue(T value)
        : base(std::is_floating_point_v<T>
                   ? OSCNumberValueBase::floatCase(static_cast<double>(value))
                   : OSCNumberValueBase::intCase(static_cast<std::int64_t>(value))) {}

    friend bool operator==(const AnyOSCNumberValue&, const AnyOSCNumberValue&) = default;
};

}  // namespace kavrin
