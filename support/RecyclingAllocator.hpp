#pragma once

#include <cstddef>
#include <new>

namespace kavrin {

// Blocks of 1 to 32 KiB that a thread frees, kept one per power-of-two size range for that
// thread's next request in the range. glibc's per-thread cache stops near 1 KiB; past it an
// allocation and its release cost several hundred instructions, which is the price of a decoded
// bundle's element list. At most about 64 KiB stay kept per thread, released when it exits.
// A block may be released on another thread than the one that took it. Under AddressSanitizer
// nothing is kept, so that a use after release is still caught.
namespace recycledBlocks {
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool keeping = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool keeping = false;
#else
inline constexpr bool keeping = true;
#endif
#else
inline constexpr bool keeping = true;
#endif

void* take(std::size_t bytes);
void release(void* block, std::size_t bytes) noexcept;
}  // namespace recycledBlocks

// A stateless allocator over recycledBlocks, for containers that are filled and
// emptied over and over, in sizes past glibc's per-thread cache.
template <class T>
struct RecyclingAllocator {
    using value_type = T;

    RecyclingAllocator() = default;
    template <class U>
    RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        if (count > std::size_t(-1) / sizeof(T)) throw std::bad_array_new_length();
        return static_cast<T*>(recycledBlocks::take(count * sizeof(T)));
    }
    void deallocate(T* block, std::size_t count) noexcept {
        recycledBlocks::release(block, count * sizeof(T));
    }

    friend bool operator==(RecyclingAllocator, RecyclingAllocator) noexcept { return true; }
};

}  // namespace kavrin
