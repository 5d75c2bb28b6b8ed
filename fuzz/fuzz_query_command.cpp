// Fuzzes the JSON an OSCQuery peer sends: the same bytes as a WebSocket command to the server,
// and as a tree and a HOST_INFO to the client. Each is read or refused with its error, never a
// crash, however deep or odd the JSON.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "osc/query/detail/OSCQueryCommand.hpp"
#include "osc/query/detail/OSCQueryJson.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)kavrin::detail::OSCQueryCommand::parse(text);
    const auto json = kavrin::detail::Json::parse(text, nullptr, false);
    if (json.is_discarded()) return 0;
    try {
        (void)kavrin::detail::nodeFromJson(json);
    } catch (const kavrin::detail::OSCQueryFormatError&) {
    }
    try {
        (void)kavrin::detail::hostInfoFromJson(json);
    } catch (const kavrin::detail::OSCQueryFormatError&) {
    }
    return 0;
}
