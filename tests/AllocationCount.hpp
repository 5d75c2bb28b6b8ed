#pragma once

// Counts every allocation of the test program, so that a test can see that something made
// none. It replaces the global operator new: include it in one source file of a program only.

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace kavrin {
inline std::atomic<std::size_t> allocationCount{0};
}

void* operator new(std::size_t size) {
    ++kavrin::allocationCount;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
