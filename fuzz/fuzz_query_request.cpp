// Fuzzes what an OSCQuery server does with a request's target: the percent-decoding and the
// checks of the path, then the answer from a small address space with attributes and values.
// Whatever the target, it is answered with a status and a body, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

#include "osc/query/detail/OSCQueryResponder.hpp"

namespace {

struct Served {
    Served() {
        for (const char* address : {"/mixer/gain", "/mixer/ch/1/name", "/ping", "/a/b/c/d"}) {
            space.registerMethod(address, [](const kavrin::OSCValueList&) {});
        }
        auto& gain = states["/mixer/gain"];
        gain.attributes.type = "f";
        gain.attributes.access = kavrin::OSCQueryAccess::readWrite;
        gain.attributes.range = {{kavrin::OSCValue(0.0f), kavrin::OSCValue(1.0f), {}}};
        gain.value = {kavrin::OSCValue(0.5f)};
        states["/mixer/ch/1/name"].value = {kavrin::OSCValue(std::string("\xff not UTF-8"))};
    }
    kavrin::OSCAddressSpace space;
    kavrin::detail::OSCQueryMethodStates states;
    const kavrin::detail::Json hostInfo = {{"NAME", "fuzz"}, {"OSC_PORT", 9000}};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Served served;
    const std::string_view target(reinterpret_cast<const char*>(data), size);
    const auto parsed = kavrin::detail::OSCQueryTarget::parse(target);
    if (const auto* request = std::get_if<kavrin::detail::OSCQueryTarget>(&parsed)) {
        const auto answer = kavrin::detail::OSCQueryResponder(served.space, served.states)
                                .answer(*request, served.hostInfo);
        if (answer.status == 200 && answer.body.empty()) __builtin_trap();
    }
    return 0;
}
