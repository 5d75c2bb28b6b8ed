#include "osc/codec/OSCValue.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <functional>

#include "support/HashCombine.hpp"
#include "support/UTF8.hpp"

namespace kavrin {

namespace {

template <class Floating>
std::string floatingText(Floating value) {
    std::array<char, 64> buffer;
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    std::string text(buffer.data(), result.ptr);
    // Integral values read as floating point: "1.0", not "1". Exponent forms, nan and inf stay.
    if (text.find_first_not_of("-0123456789") == std::string::npos) text += ".0";
    return text;
}

void appendUTF8(std::string& text, char32_t scalar) {
    const auto c = static_cast<std::uint32_t>(scalar);
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        text += "\xEF\xBF\xBD";  // U+FFFD for a value that is no scalar
    } else if (c < 0x80) {
        text += static_cast<char>(c);
    } else if (c < 0x800) {
        text += static_cast<char>(0xC0 | c >> 6);
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        text += static_cast<char>(0xE0 | c >> 12);
        text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        text += static_cast<char>(0xF0 | c >> 18);
        text += static_cast<char>(0x80 | (c >> 12 & 0x3F));
        text += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        text += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void appendEscape(std::string& text, const char* format, std::uint32_t value) {
    char buffer[12];
    std::snprintf(buffer, sizeof buffer, format, value);
    text += buffer;
}

// Appends the escape of a scalar that would break a line or hide itself in a description (C0
// controls, DEL, C1 controls, the Unicode line and paragraph separators, the backslash that
// starts every escape); false, and nothing appended, for any other.
bool appendEscapeFor(std::string& text, char32_t scalar) {
    switch (scalar) {
        case U'\\':
            text += "\\\\";
            return true;
        case U'\n':
            text += "\\n";
            return true;
        case U'\t':
            text += "\\t";
            return true;
        case U'\r':
            text += "\\r";
            return true;
        default:
            break;
    }
    if (scalar < 0x20 || scalar == 0x7F) {
        appendEscape(text, "\\x%02X", scalar);
        return true;
    }
    if ((scalar >= 0x80 && scalar <= 0x9F) || scalar == 0x2028 || scalar == 0x2029) {
        appendEscape(text, "\\u%04X", scalar);
        return true;
    }
    return false;
}

// Text as a description shows it: printable characters as they are, controls, separators and
// bytes that are no UTF-8 escaped, and the backslash doubled so that the escapes stay readable
// as such. One value stays on one line.
std::string escaped(std::string_view text) {
    const bool plain = std::all_of(text.begin(), text.end(),
                                   [](char c) { return c >= 0x20 && c < 0x7F && c != '\\'; });
    if (plain) return std::string(text);
    std::string result;
    result.reserve(text.size() + 8);
    while (!text.empty()) {
        char32_t scalar = 0;
        const std::size_t length = leadingUTF8Scalar(text, scalar);
        if (length == 0) {
            appendEscape(result, "\\x%02X", static_cast<unsigned char>(text[0]));
            text.remove_prefix(1);
            continue;
        }
        if (!appendEscapeFor(result, scalar)) result.append(text.substr(0, length));
        text.remove_prefix(length);
    }
    return result;
}

struct Printer {
    std::string operator()(const OSCBlob& blob) const {
        return std::to_string(blob.size()) + " bytes";
    }
    std::string operator()(float value) const { return floatingText(value); }
    std::string operator()(double value) const { return floatingText(value); }
    std::string operator()(std::int32_t value) const { return std::to_string(value); }
    std::string operator()(std::int64_t value) const { return std::to_string(value); }
    std::string operator()(const OSCString& value) const { return escaped(value); }
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(char32_t value) const {
        std::string text;
        if (!appendEscapeFor(text, value)) appendUTF8(text, value);
        return text;
    }
    std::string operator()(const OSCArrayValue& array) const {
        std::string text = "[";
        for (std::size_t i = 0; i < array.elements.size(); ++i) {
            if (i > 0) text += ", ";
            text += describe(array.elements[i]);
        }
        return text + "]";
    }
    std::string operator()(OSCImpulseValue) const { return "impulse"; }
    std::string operator()(OSCNullValue) const { return "null"; }
    std::string operator()(const OSCMIDIValue& midi) const {
        char buffer[80];
        std::snprintf(buffer, sizeof buffer, "portID %u, status 0x%02X, data1 %u, data2 %u",
                      unsigned{midi.portID}, unsigned{midi.status}, unsigned{midi.data1},
                      unsigned{midi.data2});
        return buffer;
    }
    std::string operator()(const OSCStringAltValue& value) const { return escaped(value.string); }
    std::string operator()(const OSCTimeTag& tag) const { return tag.description(); }
};

}  // namespace

bool operator==(const OSCArrayValue& lhs, const OSCArrayValue& rhs) {
    return lhs.elements == rhs.elements;
}

std::string_view kindName(OSCValueKind kind) {
    static constexpr std::array<std::string_view, oscValueKindCount> names = {"Blob",
                                                                              "Float32",
                                                                              "Int32",
                                                                              "String",
                                                                              "Bool",
                                                                              "Character",
                                                                              "Double",
                                                                              "Int64",
                                                                              "OSCArrayValue",
                                                                              "OSCImpulseValue",
                                                                              "OSCMIDIValue",
                                                                              "OSCNullValue",
                                                                              "OSCStringAltValue",
                                                                              "OSCTimeTag"};
    return names[static_cast<std::size_t>(kind)];
}

std::string printedForm(const OSCValue& value) {
    return std::visit(Printer{}, value.base());
}

std::string describe(const OSCValue& value) {
    std::string text(kindName(kindOf(value)));
    text += ": ";
    text += printedForm(value);
    return text;
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCValue>::operator()(const kavrin::OSCValue& value) const noexcept {
    std::size_t seed = value.index();
    const std::size_t payload = std::visit(
        [](const auto& alternative) {
            return std::hash<std::decay_t<decltype(alternative)>>{}(alternative);
        },
        value.base());
    kavrin::hashCombine(seed, payload);
    return seed;
}

std::size_t std::hash<kavrin::OSCArrayValue>::operator()(
    const kavrin::OSCArrayValue& array) const noexcept {
    std::size_t seed = array.elements.size();
    for (const auto& element : array.elements) {
        kavrin::hashCombine(seed, std::hash<kavrin::OSCValue>{}(element));
    }
    return seed;
}
