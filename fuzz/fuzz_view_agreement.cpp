// Decodes arbitrary bytes with the owning decoders and with the views, under each text policy:
// both must refuse them with the same error, find them neither message nor bundle, or read the
// same values from them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "tests/codec/ViewAgreement.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto disagreement = kavrin::test::viewDisagreement(std::span(data, size));
    if (!disagreement.empty()) {
        std::fprintf(stderr, "%s\n", disagreement.c_str());
        std::abort();
    }
    return 0;
}
