// Arbitrary bytes as a SLIP-framed OSC stream; see DeframerFuzzing.hpp.
#include "fuzz/DeframerFuzzing.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kavrin::fuzzing::check(kavrin::OSCFraming::slip, data, size);
    return 0;
}
