#pragma once

#include <cstddef>

namespace kavrin::test {

// Every allocation of a test program through operator new, counted from its start, so that a
// test can see that a piece of code made none. AllocationCount.cpp, built into each program
// that includes this, replaces the global operator new.
std::size_t allocationCount();

}  // namespace kavrin::test
