#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace kavrin {

// Copies `size` bytes, at most `Capacity` (4 to 64), in copies of fixed sizes, which compile to
// a few moves where a copy of any size would call the library: two that overlap for 4 bytes or
// more, else the first, middle and last byte. `from` may be null when `size` is 0.
template <std::size_t Capacity>
[[gnu::always_inline]] inline void copyShortBytes(std::uint8_t* to, const std::uint8_t* from,
                                                  std::size_t size) noexcept {
    static_assert(Capacity >= 4 && Capacity <= 64);
    const auto twoOverlapping = [&](auto n) {
        std::memcpy(to, from, n);
        std::memcpy(to + size - n, from + size - n, n);
    };
    using Size = std::size_t;
    if constexpr (Capacity > 32) {
        if (size >= 32) return twoOverlapping(std::integral_constant<Size, 32>{});
    }
    if constexpr (Capacity >= 16) {
        if (size >= 16) return twoOverlapping(std::integral_constant<Size, 16>{});
    }
    if constexpr (Capacity >= 8) {
        if (size >= 8) return twoOverlapping(std::integral_constant<Size, 8>{});
    }
    if (size >= 4) return twoOverlapping(std::integral_constant<Size, 4>{});
    if (size > 0) {
        to[0] = from[0];
        to[size / 2] = from[size / 2];
        to[size - 1] = from[size - 1];
    }
}

// A copy of `bytes` in a buffer of its own, which views into it may share.
inline std::shared_ptr<const std::uint8_t[]> sharedCopy(std::span<const std::uint8_t> bytes) {
    auto buffer = std::make_shared_for_overwrite<std::uint8_t[]>(bytes.size());
    if (!bytes.empty()) std::memcpy(buffer.get(), bytes.data(), bytes.size());
    return buffer;
}

// An immutable run of bytes (or text) that allocates nothing when it is short: up to Capacity
// bytes are kept inside the object. Longer ones are a view into a shared buffer: one of their
// own, made when they were copied in, or a buffer they were found in (a received datagram),
// which they then keep alive instead of copying. Copies share that buffer.
// Where the bytes are is told by their size alone: inside exactly when they fit.
// A plain value: distinct objects from any thread, a shared one for reading only.
template <std::size_t Capacity>
class CompactBytes {
  public:
    using Buffer = std::shared_ptr<const std::uint8_t[]>;

    static constexpr std::size_t inlineCapacity = Capacity;

    CompactBytes() noexcept : inline_{} {}
    // A copy of `bytes`: inside, or in a buffer of its own.
    explicit CompactBytes(std::span<const std::uint8_t> bytes) : CompactBytes(bytes, nullptr) {}
    explicit CompactBytes(std::string_view text)
        : CompactBytes(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size())) {
    }
    // `bytes`, which lie within `buffer`: copied inside when they fit, else a view that keeps
    // `buffer` alive; with no buffer, a copy in a buffer of their own.
    CompactBytes(std::span<const std::uint8_t> bytes, const Buffer& buffer) : size_(bytes.size()) {
        if (fitsInside()) {
            copyInside(bytes.data());
        } else if (buffer) {
            new (&shared_) Shared{buffer, bytes.data()};
        } else {
            copyToOwnBuffer(bytes.data());
        }
    }

    CompactBytes(const CompactBytes& other) noexcept : size_(other.size_) {
        if (fitsInside()) {
            copyWholeInside(other);
        } else {
            new (&shared_) Shared(other.shared_);
        }
    }
    CompactBytes(CompactBytes&& other) noexcept : size_(other.size_) {
        if (fitsInside()) {
            copyWholeInside(other);
        } else {
            new (&shared_) Shared(std::move(other.shared_));
        }
    }
    CompactBytes& operator=(const CompactBytes& other) noexcept {
        if (this != &other) {
            this->~CompactBytes();
            new (this) CompactBytes(other);
        }
        return *this;
    }
    CompactBytes& operator=(CompactBytes&& other) noexcept {
        if (this != &other) {
            this->~CompactBytes();
            new (this) CompactBytes(std::move(other));
        }
        return *this;
    }
    ~CompactBytes() {
        if (!fitsInside()) shared_.~Shared();
    }
    // As the constructor of the same arguments, made where this one is. Assigning a new object
    // instead would copy its inside area with wide loads of bytes just stored in narrower,
    // overlapping ones, which the processor cannot forward and waits for. Left empty if the
    // copy's buffer cannot be allocated.
    void assign(std::span<const std::uint8_t> bytes, const Buffer& buffer) {
        this->~CompactBytes();
        try {
            new (this) CompactBytes(bytes, buffer);
        } catch (...) {
            new (this) CompactBytes();
            throw;
        }
    }

    const std::uint8_t* data() const noexcept { return fitsInside() ? inline_ : shared_.data; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::span<const std::uint8_t> bytes() const noexcept { return {data(), size_}; }
    std::string_view text() const noexcept {
        return {reinterpret_cast<const char*>(data()), size_};
    }
    // As text, the way a std::string reads.
    operator std::string_view() const noexcept { return text(); }
    // Whether the bytes are inside the object: the short ones, always.
    bool isInline() const noexcept { return fitsInside(); }

    friend bool operator==(const CompactBytes& lhs, const CompactBytes& rhs) noexcept {
        return lhs.text() == rhs.text();
    }

  private:
    struct Shared {
        Buffer buffer;
        const std::uint8_t* data;
    };

    bool fitsInside() const noexcept { return size_ <= Capacity; }
    // Out of line, so that the usual constructions inline.
    [[gnu::noinline]] void copyToOwnBuffer(const std::uint8_t* from) {
        auto own = sharedCopy({from, size_});
        const std::uint8_t* data = own.get();
        new (&shared_) Shared{std::move(own), data};
    }
    // An empty span may have no data at all.
    void copyInside(const std::uint8_t* from) noexcept {
        copyShortBytes<Capacity>(inline_, from, size_);
    }
    // The whole inside area, whatever the size: one copy of a fixed size, which is quicker
    // than one of the bytes' own.
    void copyWholeInside(const CompactBytes& other) noexcept {
        std::memcpy(inline_, other.inline_, Capacity);
    }

    union {
        std::uint8_t inline_[Capacity];
        Shared shared_;
    };
    std::size_t size_ = 0;
};

}  // namespace kavrin
