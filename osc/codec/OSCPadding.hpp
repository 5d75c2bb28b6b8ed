#pragma once

#include <cstddef>

// The two paddings of the wire format, for code that reads or writes it in place.
namespace kavrin::padding {

// The bytes of a null-terminated chunk of `length` text bytes: at least one zero, then zeros up
// to a whole word, so "abcd" takes 8 and "" takes 4.
constexpr std::size_t nullTerminatedSize(std::size_t length) {
    return (length | 3) + 1;
}

// `length` rounded up to whole words: unlike a string, a blob whose length is a multiple of 4
// carries no padding.
constexpr std::size_t wordAligned(std::size_t length) {
    return (length + 3) & ~std::size_t{3};
}

}  // namespace kavrin::padding
