#pragma once

#include <cstddef>

namespace kavrin::test {

// Every allocation of the codec test program through operator new, counted from its start
// (CountingAllocator.cpp replaces the global operator new), so that a test can see that a
// piece of code made none.
std::size_t allocationCount();

}  // namespace kavrin::test
