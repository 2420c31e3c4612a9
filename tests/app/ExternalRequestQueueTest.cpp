#include <gtest/gtest.h>

#include <vector>

#include "app/ExternalRequestQueue.h"
#include "tests/EventLoopWait.h"

using namespace kelvo;

namespace {

using Batch = ExternalRequestQueue::Batch;
using kelvo::testing::waitFor;

class ExternalRequestQueueTest : public ::testing::Test {
protected:
    ExternalRequestQueue queue{10, [this](const Batch& batch) { applied.push_back(batch); }};
    std::vector<Batch> applied;
};

TEST_F(ExternalRequestQueueTest, NewestOfEachKindWins) {
    queue.queueMode(ControlMode::quiet);
    queue.queueCooldown(true);
    queue.queueMode(ControlMode::performance);
    queue.queueCooldown(false);
    EXPECT_EQ(queue.pending(), (Batch{ControlMode::performance, false}));
    EXPECT_TRUE(queue.flushScheduled());
    EXPECT_TRUE(applied.empty());
}

TEST_F(ExternalRequestQueueTest, ABurstIsHandedOnOnceAfterItsFirstRequest) {
    for (int i = 0; i < 100; ++i)
        queue.queueMode(i % 2 == 0 ? ControlMode::quiet : ControlMode::quietHybrid);
    queue.queueCooldown(true);
    ASSERT_TRUE(waitFor([&] { return !applied.empty(); }));
    ASSERT_EQ(applied.size(), 1u);
    EXPECT_EQ(applied[0], (Batch{ControlMode::quietHybrid, true}));
    EXPECT_EQ(queue.pending(), Batch{});
    EXPECT_FALSE(queue.flushScheduled());
}

TEST_F(ExternalRequestQueueTest, OnlyWhatWasRequestedIsHandedOn) {
    queue.queueCooldown(false);
    ASSERT_TRUE(waitFor([&] { return !applied.empty(); }));
    EXPECT_FALSE(applied[0].mode.has_value());
    EXPECT_EQ(applied[0].cooldown, std::optional<bool>(false));
}

TEST_F(ExternalRequestQueueTest, ARequestAfterTheFlushStartsANewBatch) {
    queue.queueMode(ControlMode::quiet);
    queue.flush();
    ASSERT_EQ(applied.size(), 1u);
    EXPECT_FALSE(queue.flushScheduled());
    queue.queueMode(ControlMode::performance);
    EXPECT_TRUE(queue.flushScheduled());
    ASSERT_TRUE(waitFor([&] { return applied.size() >= 2; }));
    EXPECT_EQ(applied[1], (Batch{ControlMode::performance, std::nullopt}));
}

}  // namespace
