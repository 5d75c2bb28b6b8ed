#include "support/RecyclingAllocator.hpp"

#include <bit>
#include <new>

namespace kavrin::recycledBlocks {

namespace {

constexpr int smallestRange = 10;  // 1 KiB: below it glibc's own cache is as quick
constexpr int ranges = 5;          // up to 32 KiB

struct Kept {
    void* block = nullptr;
    std::size_t bytes = 0;
};

// Trivially destructible, so that a release during the thread's own teardown (after `closer`
// ran) still finds it, closed.
struct Shelf {
    Kept kept[ranges];
    bool closed = false;
};

constinit thread_local Shelf shelf;

struct Closer {
    ~Closer() {
        shelf.closed = true;
        for (auto& kept : shelf.kept) {
            ::operator delete(kept.block);
            kept = {};
        }
    }
};

// The range of `bytes`, or -1 when they are not kept.
int rangeOf(std::size_t bytes) {
    const int width = std::bit_width(bytes) - 1;
    const int range = width - smallestRange;
    return range >= 0 && range < ranges ? range : -1;
}

}  // namespace

void* take(std::size_t bytes) {
    if constexpr (keeping) {
        if (const int range = rangeOf(bytes); range >= 0) {
            Kept& kept = shelf.kept[range];
            if (kept.bytes >= bytes) {
                void* block = kept.block;
                kept = {};
                return block;
            }
        }
    }
    return ::operator new(bytes);
}

void release(void* block, std::size_t bytes) noexcept {
    if constexpr (keeping) {
        const int range = rangeOf(bytes);
        if (range >= 0 && !shelf.closed) {
            thread_local Closer closer;  // frees the kept blocks when the thread exits
            Kept& kept = shelf.kept[range];
            if (kept.bytes < bytes) {
                ::operator delete(kept.block);
                kept = {block, bytes};
                return;
            }
        }
    }
    ::operator delete(block);
}

}  // namespace kavrin::recycledBlocks
