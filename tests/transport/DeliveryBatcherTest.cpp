#include "osc/transport/detail/DeliveryBatcher.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "osc/dispatch/ManualQueue.hpp"

namespace kavrin {
namespace {

using namespace std::chrono_literals;

// What was handed over, block by block.
struct Sink {
    std::vector<std::vector<int>> blocks;
    DeliveryBatcher<int>::HandOver handOver() {
        return [this](std::vector<int> block) { blocks.push_back(std::move(block)); };
    }
    std::vector<int> all() const {
        std::vector<int> items;
        for (const auto& block : blocks) items.insert(items.end(), block.begin(), block.end());
        return items;
    }
};

TEST(DeliveryBatcher, FullBlocksGoAtOnceTheRestOnFlushInOrder) {
    Sink sink;
    int scheduled = 0;
    DeliveryBatcher<int> batcher(sink.handOver(), [&] { ++scheduled; });
    std::vector<int> expected;
    for (int i = 0; i < 150; ++i) {
        batcher.add(int{i});
        expected.push_back(i);
    }
    ASSERT_EQ(sink.blocks.size(), 2u);
    EXPECT_EQ(sink.blocks[0].size(), DeliveryBatcher<int>::blockSize);
    EXPECT_EQ(sink.blocks[1].size(), DeliveryBatcher<int>::blockSize);
    EXPECT_EQ(scheduled, 3) << "once as each block began";

    batcher.flush();
    ASSERT_EQ(sink.blocks.size(), 3u);
    EXPECT_EQ(sink.blocks[2].size(), 150u - 2 * DeliveryBatcher<int>::blockSize);
    EXPECT_EQ(sink.all(), expected);
    batcher.flush();
    EXPECT_EQ(sink.blocks.size(), 3u) << "nothing left to hand over";
}

TEST(DeliveryBatcher, ScheduledFlushRunsAfterTheTurnThatBeganTheBlock) {
    auto owner = std::make_shared<ManualQueue>();
    Sink sink;
    std::unique_ptr<DeliveryBatcher<int>> batcher;
    batcher = std::make_unique<DeliveryBatcher<int>>(
        sink.handOver(), [&] { owner->async([&] { batcher->flush(); }); });
    owner->async([&] {
        for (int i : {1, 2, 3}) batcher->add(int{i});
    });
    EXPECT_EQ(owner->drain(), 1u);
    EXPECT_TRUE(sink.blocks.empty()) << "nothing goes during the turn";
    EXPECT_TRUE(owner->drainUntil([&] { return !sink.blocks.empty(); }, 5s));
    EXPECT_EQ(sink.blocks, (std::vector<std::vector<int>>{{1, 2, 3}}));

    // Without a schedule the owner flushes where its turn ends.
    DeliveryBatcher<int> unscheduled(sink.handOver());
    unscheduled.add(4);
    EXPECT_EQ(owner->pending(), 0u);
    unscheduled.flush();
    EXPECT_EQ(sink.all(), (std::vector<int>{1, 2, 3, 4}));
}

}  // namespace
}  // namespace kavrin
