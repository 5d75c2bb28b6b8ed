#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace kavrin {

// A vector that keeps up to N elements inside itself and moves to the heap only beyond them, so
// that a short list costs no allocation. It offers the std::vector operations lists of values
// are built and read with; growing past N allocates as std::vector does (doubling), and the
// storage never shrinks back inside. Iterators and references are invalidated as std::vector's
// are, and also by moving the vector while its elements are inside it.
// An element type may name the objects whose destructor has nothing to do, with a function
// `ownsNothing(const T&)` found by argument-dependent lookup; those are left undestroyed, which
// for a variant saves an indirect call an element.
// A plain value: distinct objects from any thread, a shared one for reading only.
template <class T, std::size_t N>
class SmallVector {
    static_assert(N > 0, "a SmallVector keeps at least one element inside");

  public:
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = T&;
    using const_reference = const T&;
    using pointer = T*;
    using const_pointer = const T*;
    using iterator = T*;
    using const_iterator = const T*;

    static constexpr std::size_t inlineCapacity = N;

    SmallVector() noexcept {}
    SmallVector(std::initializer_list<T> items) { append(items.begin(), items.end()); }
    template <std::input_iterator Iterator>
    SmallVector(Iterator first, Iterator last) {
        append(first, last);
    }
    SmallVector(const std::vector<T>& items) { append(items.begin(), items.end()); }
    SmallVector(std::vector<T>&& items) {
        append(std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
    }
    SmallVector(const SmallVector& other) { append(other.begin(), other.end()); }
    SmallVector(SmallVector&& other) noexcept(std::is_nothrow_move_constructible_v<T>) {
        take(other);
    }
    ~SmallVector() { release(); }

    SmallVector& operator=(const SmallVector& other) {
        if (this != &other) {
            clear();
            append(other.begin(), other.end());
        }
        return *this;
    }
    SmallVector& operator=(SmallVector&& other) noexcept(std::is_nothrow_move_constructible_v<T>) {
        if (this != &other) {
            release();
            data_ = inlineData();
            size_ = 0;
            capacity_ = N;
            take(other);
        }
        return *this;
    }
    SmallVector& operator=(std::initializer_list<T> items) {
        clear();
        append(items.begin(), items.end());
        return *this;
    }

    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::size_t capacity() const noexcept { return capacity_; }
    // Whether the elements are inside the vector rather than on the heap.
    bool isInline() const noexcept { return data_ == inlineData(); }

    T* data() noexcept { return data_; }
    const T* data() const noexcept { return data_; }
    iterator begin() noexcept { return data_; }
    iterator end() noexcept { return data_ + size_; }
    const_iterator begin() const noexcept { return data_; }
    const_iterator end() const noexcept { return data_ + size_; }
    const_iterator cbegin() const noexcept { return begin(); }
    const_iterator cend() const noexcept { return end(); }

    T& operator[](std::size_t index) noexcept { return data_[index]; }
    const T& operator[](std::size_t index) const noexcept { return data_[index]; }
    T& at(std::size_t index) { return data_[checked(index)]; }
    const T& at(std::size_t index) const { return data_[checked(index)]; }
    T& front() noexcept { return data_[0]; }
    const T& front() const noexcept { return data_[0]; }
    T& back() noexcept { return data_[size_ - 1]; }
    const T& back() const noexcept { return data_[size_ - 1]; }

    void reserve(std::size_t capacity) {
        if (capacity > capacity_) moveTo(allocate(capacity), capacity);
    }
    void clear() noexcept {
        destroy(begin(), end());
        size_ = 0;
    }
    void push_back(const T& item) { emplace_back(item); }
    void push_back(T&& item) { emplace_back(std::move(item)); }
    // `arguments` may refer to an element of this vector: the new element is made before the
    // old ones move.
    template <class... Arguments>
    T& emplace_back(Arguments&&... arguments) {
        if (size_ < capacity_) {
            T* made = std::construct_at(data_ + size_, std::forward<Arguments>(arguments)...);
            ++size_;
            return *made;
        }
        const std::size_t capacity = grownCapacity(size_ + 1);
        T* storage = allocate(capacity);
        try {
            std::construct_at(storage + size_, std::forward<Arguments>(arguments)...);
        } catch (...) {
            deallocate(storage, capacity);
            throw;
        }
        moveTo(storage, capacity);
        return data_[size_++];
    }
    void pop_back() noexcept {
        --size_;
        destroy(end(), end() + 1);
    }
    // Appends default-made elements, or drops elements from the end.
    void resize(std::size_t size) {
        if (size < size_) {
            destroy(begin() + size, end());
            size_ = size;
            return;
        }
        reserve(size);
        while (size_ < size) emplace_back();
    }

    friend bool operator==(const SmallVector& lhs, const SmallVector& rhs) {
        return std::equal(lhs.begin(), lhs.end(), rhs.begin(), rhs.end());
    }

  private:
    T* inlineData() noexcept { return reinterpret_cast<T*>(inline_); }
    const T* inlineData() const noexcept { return reinterpret_cast<const T*>(inline_); }

    std::size_t checked(std::size_t index) const {
        if (index >= size_) throw std::out_of_range("SmallVector index out of range");
        return index;
    }
    std::size_t grownCapacity(std::size_t needed) const {
        return std::max(needed, capacity_ * 2);
    }
    static void destroy(T* first, T* last) noexcept {
        if constexpr (requires(const T& item) {
                          { ownsNothing(item) } -> std::convertible_to<bool>;
                      }) {
            for (; first != last; ++first) {
                if (!ownsNothing(*first)) std::destroy_at(first);
            }
        } else {
            std::destroy(first, last);
        }
    }
    static T* allocate(std::size_t capacity) {
        return std::allocator<T>().allocate(capacity);
    }
    static void deallocate(T* storage, std::size_t capacity) {
        std::allocator<T>().deallocate(storage, capacity);
    }

    template <class Iterator>
    void append(Iterator first, Iterator last) {
        if constexpr (std::forward_iterator<Iterator>) {
            // Room first, then one pass with no check per element; a throw undoes the copies
            // made and leaves the size as it was.
            const auto count = static_cast<std::size_t>(std::distance(first, last));
            reserve(size_ + count);
            std::uninitialized_copy(first, last, data_ + size_);
            size_ += count;
        } else {
            for (; first != last; ++first) emplace_back(*first);
        }
    }

    // Moves the elements into `storage` (of `capacity`, on the heap) and makes it the vector's.
    void moveTo(T* storage, std::size_t capacity) {
        std::uninitialized_move(begin(), end(), storage);
        destroy(begin(), end());
        if (!isInline()) deallocate(data_, capacity_);
        data_ = storage;
        capacity_ = capacity;
    }

    // Takes `other`'s elements, this vector being empty and inside: heap storage changes hands,
    // elements inside move one by one. `other` is left empty.
    void take(SmallVector& other) {
        if (!other.isInline()) {
            data_ = other.data_;
            size_ = other.size_;
            capacity_ = other.capacity_;
            other.data_ = other.inlineData();
            other.capacity_ = N;
            other.size_ = 0;
            return;
        }
        std::uninitialized_move(other.begin(), other.end(), data_);
        size_ = other.size_;
        other.clear();
    }

    void release() noexcept {
        clear();
        if (!isInline()) deallocate(data_, capacity_);
    }

    T* data_ = inlineData();
    std::size_t size_ = 0;
    std::size_t capacity_ = N;
    alignas(T) std::byte inline_[N * sizeof(T)];
};

}  // namespace kavrin
