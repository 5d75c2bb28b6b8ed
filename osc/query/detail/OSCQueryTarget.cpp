#include "osc/query/detail/OSCQueryTarget.hpp"

#include <optional>

namespace kavrin::detail {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// RFC 3986, 2.1: "%" HEXDIG HEXDIG stands for one byte; a "%" without two digits is an error.
std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int first = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int second = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
        if (first < 0 || second < 0) return std::nullopt;
        decoded += static_cast<char>(first << 4 | second);
        i += 2;
    }
    return decoded;
}

}  // namespace

std::string OSCQueryTarget::problem(std::string_view path) {
    if (!path.starts_with('/')) return "the path does not start with /";
    if (path.find("..") != path.npos) return "the path holds ..";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0) return "the path holds a NUL";
        if (byte < 0x20 || byte == 0x7F) return "the path holds a control character";
        if (byte >= 0x80) return "the path holds a byte outside ASCII";
    }
    return {};
}

std::variant<OSCQueryTarget, std::string> OSCQueryTarget::parse(std::string_view target) {
    const auto question = target.find('?');
    const auto path = percentDecoded(target.substr(0, question));
    if (!path) return std::string("a broken percent-escape in the path");
    if (auto reason = problem(*path); !reason.empty()) return reason;
    OSCQueryTarget parsed{*path, {}};
    while (parsed.path.size() > 1 && parsed.path.back() == '/') parsed.path.pop_back();
    if (question != target.npos) {
        const auto attribute = percentDecoded(target.substr(question + 1));
        if (!attribute) return std::string("a broken percent-escape in the query");
        parsed.attribute = *attribute;
    }
    return parsed;
}

}  // namespace kavrin::detail
