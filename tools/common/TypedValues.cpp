#include "tools/common/TypedValues.hpp"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <type_traits>

#include "support/RadixParse.hpp"

namespace kavrin::tools {

namespace {

template <class Integer>
Integer integer(const std::string& text, char type) {
    Integer value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw TypedValuesError("value '" + text + "' for type " + type +
                               (error == std::errc::result_out_of_range
                                    ? " is out of range"
                                    : " is not a whole number"));
    }
    return value;
}

// Read straight as the type, so that it is rounded once: a value that rounds to a finite one is
// that value ("3.4028235e38" is the largest float), one that rounds to infinity is refused, and
// inf, -inf and nan written as such are themselves (strtof and strtod say ERANGE only for the
// first two, and for an underflow, which rounds to a finite value).
template <class Floating>
Floating floating(const std::string& text, char type) {
    char* end = nullptr;
    errno = 0;
    Floating value;
    if constexpr (std::is_same_v<Floating, float>) {
        value = std::strtof(text.c_str(), &end);
    } else {
        value = std::strtod(text.c_str(), &end);
    }
    if (text.empty() || end != text.c_str() + text.size()) {
        throw TypedValuesError("value '" + text + "' for type " + type + " is not a number");
    }
    if (errno == ERANGE && std::isinf(value)) {
        throw TypedValuesError("value '" + text + "' for type " + type +
                               " is out of range: beyond the largest " +
                               (sizeof(Floating) == 4 ? "32" : "64") + "-bit float");
    }
    return value;
}

template <class Bits>
Bits hex(std::string_view text, const std::string& whole, char type) {
    try {
        return parseHex<Bits>(text, '\0');
    } catch (const RadixParseError& error) {
        throw TypedValuesError("value '" + whole + "' for type " + type + ": " + error.what());
    }
}

OSCValue value(char type, const std::string& text) {
    switch (type) {
        case 'i':
            return integer<std::int32_t>(text, type);
        case 'h':
            return integer<std::int64_t>(text, type);
        case 'f':
            return floating<float>(text, type);
        case 'd':
            return floating<double>(text, type);
        case 's':
            return text;
        case 'S':
            return OSCStringAltValue{text};
        case 'c':
            if (text.size() != 1) {
                throw TypedValuesError("value '" + text + "' for type c is not one character");
            }
            return static_cast<char32_t>(static_cast<unsigned char>(text[0]));
        case 'm': {
            if (text.size() != 8) {
                throw TypedValuesError("value '" + text +
                                       "' for type m is not 8 hexadecimal digits");
            }
            const auto bits = hex<std::uint32_t>(text, text, type);
            return OSCMIDIValue{
                static_cast<std::uint8_t>(bits >> 24), static_cast<std::uint8_t>(bits >> 16),
                static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)};
        }
        case 'b': {
            if (text.size() % 2 != 0) {
                throw TypedValuesError("value '" + text +
                                       "' for type b is not whole bytes in hexadecimal");
            }
            std::vector<std::uint8_t> blob;
            for (std::size_t at = 0; at < text.size(); at += 2) {
                blob.push_back(hex<std::uint8_t>(std::string_view(text).substr(at, 2), text, type));
            }
            return OSCBlob(blob);
        }
        case 't': {
            if (text == "now") return OSCTimeTag::now();
            const auto dot = text.find('.');
            if (dot == std::string::npos) {
                throw TypedValuesError("value '" + text +
                                       "' for type t is not seconds.fraction in hexadecimal");
            }
            const std::string_view view(text);
            OSCTimeTag tag;
            tag.rawValue = std::uint64_t{hex<std::uint32_t>(view.substr(0, dot), text, type)}
                               << 32 |
                           hex<std::uint32_t>(view.substr(dot + 1), text, type);
            return tag;
        }
        default:
            throw TypedValuesError(std::string("unknown type '") + type + "'");
    }
}

}  // namespace

std::vector<OSCValue> typedValues(std::string_view types, const std::vector<std::string>& values) {
    // The innermost open array is the last; the message's own list is the first.
    std::vector<std::vector<OSCValue>> open(1);
    std::size_t next = 0;
    for (const char type : types) {
        switch (type) {
            case 'T':
            case 'F':
                open.back().emplace_back(type == 'T');
                continue;
            case 'N':
                open.back().emplace_back(OSCNullValue{});
                continue;
            case 'I':
                open.back().emplace_back(OSCImpulseValue{});
                continue;
            case '[':
                open.emplace_back();
                continue;
            case ']': {
                if (open.size() == 1) throw TypedValuesError("']' without its '['");
                OSCArrayValue array{std::move(open.back())};
                open.pop_back();
                open.back().emplace_back(std::move(array));
                continue;
            }
            default:
                break;
        }
        if (next == values.size()) {
            throw TypedValuesError(std::string("no value for type ") + type);
        }
        open.back().push_back(value(type, values[next++]));
    }
    if (open.size() != 1) throw TypedValuesError("'[' without its ']'");
    if (next != values.size()) {
        throw TypedValuesError("value '" + values[next] + "' has no type");
    }
    return std::move(open.front());
}

}  // namespace kavrin::tools
