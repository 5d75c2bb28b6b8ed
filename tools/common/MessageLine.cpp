#include "tools/common/MessageLine.hpp"

#include <cinttypes>
#include <cstdio>

namespace kavrin::tools {

namespace {

// Sized by a first pass: %f of a large double runs to hundreds of digits.
std::string printed(const char* format, auto... values) {
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, values...)), '\0');
    std::snprintf(text.data(), text.size() + 1, format, values...);
    return text;
}

// Appends the value's tag characters to `tags` and its text to `text`.
struct Line {
    std::string& tags;
    std::string& text;

    void add(char tag, const std::string& value) {
        tags += tag;
        text += ' ';
        text += value;
    }

    void operator()(const OSCBlob& blob) {
        // As oscdump has them: a zero byte as 00 (%#x gives no 0x for 0), and an empty blob as
        // [0b ].
        std::string value = "[" + std::to_string(blob.size()) + "b ";
        for (std::size_t at = 0; at < blob.size(); ++at) {
            value += (at == 0 ? "" : " ") + printed("%#02x", unsigned{blob[at]});
        }
        add('b', value + "]");
    }
    void operator()(float value) { add('f', printed("%f", double{value})); }
    void operator()(double value) { add('d', printed("%f", value)); }
    void operator()(std::int32_t value) { add('i', std::to_string(value)); }
    void operator()(std::int64_t value) { add('h', std::to_string(value)); }
    void operator()(const OSCString& value) { add('s', "\"" + printedForm(value) + "\""); }
    void operator()(const OSCStringAltValue& value) { add('S', "'" + printedForm(value)); }
    void operator()(bool value) { add(value ? 'T' : 'F', value ? "#T" : "#F"); }
    void operator()(char32_t value) { add('c', "'" + printedForm(value) + "'"); }
    void operator()(OSCImpulseValue) { add('I', "Infinitum"); }
    void operator()(OSCNullValue) { add('N', "Nil"); }
    void operator()(const OSCMIDIValue& midi) {
        add('m', printed("MIDI [0x%02x 0x%02x 0x%02x 0x%02x]", unsigned{midi.portID},
                         unsigned{midi.status}, unsigned{midi.data1}, unsigned{midi.data2}));
    }
    void operator()(const OSCTimeTag& tag) {
        const std::uint64_t raw = tag.rawValue;
        add('t', printed("%08" PRIx32 ".%08" PRIx32, static_cast<std::uint32_t>(raw >> 32),
                         static_cast<std::uint32_t>(raw)));
    }
    void operator()(const OSCArrayValue& array) {
        tags += '[';
        text += " [";
        std::string inner;
        Line nested{tags, inner};
        for (const auto& element : array.elements) std::visit(nested, element.base());
        text += inner.empty() ? inner : inner.substr(1);  // no space after the bracket
        tags += ']';
        text += ']';
    }
};

}  // namespace

std::string messageLine(const OSCMessage& message) {
    std::string tags;
    std::string text;
    Line line{tags, text};
    for (const auto& value : message.values) std::visit(line, value.base());
    return std::string(message.addressPattern.rawAddress()) + " " + tags + text;
}

}  // namespace kavrin::tools
