// Arbitrary bytes as a length-prefixed OSC stream; see DeframerFuzzing.hpp.
#include "fuzz/DeframerFuzzing.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kavrin::fuzzing::check(kavrin::OSCFraming::lengthPrefixed, data, size);
    return 0;
}
