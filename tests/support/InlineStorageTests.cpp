#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "support/CompactBytes.hpp"
#include "support/RecyclingAllocator.hpp"
#include "support/SmallVector.hpp"

namespace kavrin {
namespace {

using Strings = SmallVector<std::string, 2>;

std::vector<std::string> items(const Strings& list) {
    return {list.begin(), list.end()};
}

TEST(SmallVector, KeepsItsElementsInsideUntilTheyOutgrowItThenOnTheHeap) {
    // Long enough that a copy of a moved-from string would show as empty.
    const std::string a(40, 'a'), b(40, 'b'), c(40, 'c');
    Strings list = {a, b};
    EXPECT_TRUE(list.isInline());
    // Growing past the inside with an element of its own: made before the others move.
    list.emplace_back(list[0]);
    EXPECT_FALSE(list.isInline());
    EXPECT_EQ(items(list), (std::vector<std::string>{a, b, a}));

    // Copies and moves, from inside and from the heap; the source is left empty.
    for (Strings source : {Strings{a}, Strings{a, b, c}}) {
        const auto expected = items(source);
        Strings copy = source;
        Strings moved = std::move(source);
        EXPECT_TRUE(source.empty());
        EXPECT_EQ(items(copy), expected);
        EXPECT_EQ(items(moved), expected);
        EXPECT_EQ(copy, moved);
        copy = Strings{c};
        moved = std::move(copy);
        EXPECT_EQ(items(moved), std::vector<std::string>{c});
    }

    const Strings fromVector = std::vector<std::string>{a, b, c};
    EXPECT_EQ(items(fromVector), (std::vector<std::string>{a, b, c}));
    EXPECT_NE(fromVector, (Strings{a, b}));
    EXPECT_EQ(fromVector.at(2), c);
    EXPECT_THROW(fromVector.at(3), std::out_of_range);

    Strings resized = {a};
    resized.resize(3);
    EXPECT_EQ(items(resized), (std::vector<std::string>{a, "", ""}));
    resized.resize(1);
    resized.pop_back();
    EXPECT_TRUE(resized.empty());
}

using Bytes = CompactBytes<4>;

TEST(CompactBytes, KeepsShortBytesInsideAndSharesTheBufferOfLongOnes) {
    const auto buffer = std::make_shared_for_overwrite<std::uint8_t[]>(8);
    std::copy_n("abcdefgh", 8, buffer.get());
    const std::shared_ptr<const std::uint8_t[]> shared = buffer;

    // Short: copied inside, whatever buffer they were found in.
    const Bytes shortOne(std::span(buffer.get(), 3), shared);
    EXPECT_TRUE(shortOne.isInline());
    EXPECT_EQ(shortOne.text(), "abc");
    EXPECT_EQ(shared.use_count(), 2);

    // Long, found in the buffer: a view that keeps it, as its copies do.
    std::optional<Bytes> found(std::in_place, std::span(buffer.get() + 1, 6), shared);
    EXPECT_EQ(found->data(), buffer.get() + 1);
    EXPECT_EQ(shared.use_count(), 3);
    Bytes copy = *found;
    EXPECT_EQ(shared.use_count(), 4);
    found.reset();
    EXPECT_EQ(copy.text(), "bcdefg");
    EXPECT_EQ(shared.use_count(), 3);

    // Long, copied in: a buffer of its own, shared by copies; equal to the same bytes found.
    const std::string_view text = "bcdefg";
    Bytes own(text);
    EXPECT_NE(own.data(), reinterpret_cast<const std::uint8_t*>(text.data()));
    const Bytes ownCopy = own;
    EXPECT_EQ(ownCopy.data(), own.data());
    EXPECT_EQ(own, copy);
    EXPECT_NE(own, shortOne);

    // Assignments across the two forms.
    own = shortOne;
    EXPECT_EQ(own.text(), "abc");
    own = std::move(copy);
    EXPECT_EQ(own.text(), "bcdefg");
    EXPECT_EQ(Bytes().text(), "");
}

TEST(RecycledBlocks, AKeptBlockServesOnlyRequestsItCanHold) {
    if (!recycledBlocks::keeping) GTEST_SKIP() << "nothing is kept under AddressSanitizer";
    // 1500 and 1800 bytes share a size range: the smaller block must not serve the larger.
    void* small = recycledBlocks::take(1500);
    recycledBlocks::release(small, 1500);
    void* large = recycledBlocks::take(1800);
    EXPECT_NE(large, small);
    std::fill_n(static_cast<char*>(large), 1800, 'x');
    recycledBlocks::release(large, 1800);  // the larger block replaces the kept one
    EXPECT_EQ(recycledBlocks::take(1500), large);
    recycledBlocks::release(large, 1500);

    // Released on a thread that then exits: kept there, freed with it.
    void* moved = recycledBlocks::take(4000);
    std::thread([moved] { recycledBlocks::release(moved, 4000); }).join();
    // Past the kept sizes nothing is kept.
    void* huge = recycledBlocks::take(1 << 20);
    recycledBlocks::release(huge, 1 << 20);
}
}  // namespace
}  // namespace kavrin
