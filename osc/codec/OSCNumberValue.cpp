#include "osc/codec/OSCNumberValue.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace kavrin {

namespace {

template <class Int>
Int saturate(double value) {
    if (std::isnan(value)) return 0;
    // The limits as doubles: the upper one rounds up to 2^63 (or 2^31), hence ">=".
    if (value >= static_cast<double>(std::numeric_limits<Int>::max())) {
        return std::numeric_limits<Int>::max();
    }
    if (value <= static_cast<double>(std::numeric_limits<Int>::min())) {
        return std::numeric_limits<Int>::min();
    }
    return static_cast<Int>(value);
}

}  // namespace

std::int64_t OSCNumberValueBase::int64Value() const {
    if (const auto* integer = std::get_if<std::int64_t>(&storage)) return *integer;
    return saturate<std::int64_t>(std::get<double>(storage));
}

std::int32_t OSCNumberValueBase::int32Value() const {
    if (const auto* integer = std::get_if<std::int64_t>(&storage)) {
        return static_cast<std::int32_t>(
            std::clamp<std::int64_t>(*integer, std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max()));
    }
    return saturate<std::int32_t>(std::get<double>(storage));
}

double OSCNumberValueBase::doubleValue() const {
    if (const auto* integer = std::get_if<std::int64_t>(&storage)) {
        return static_cast<double>(*integer);
    }
    return std::get<double>(storage);
}

std::optional<OSCNumberValue> OSCNumberValue::from(const OSCValue& value) {
    switch (kindOf(value)) {
        case OSCValueKind::int32:
            return OSCNumberValue{OSCNumberValueBase::intCase(std::get<std::int32_t>(value))};
        case OSCValueKind::int64:
            return OSCNumberValue{OSCNumberValueBase::intCase(std::get<std::int64_t>(value))};
        case OSCValueKind::float32:
            return OSCNumberValue{OSCNumberValueBase::floatCase(std::get<float>(value))};
        case OSCValueKind::float64:
            return OSCNumberValue{OSCNumberValueBase::floatCase(std::get<double>(value))};
        default:
            return std::nullopt;
    }
}

}  // namespace kavrin
