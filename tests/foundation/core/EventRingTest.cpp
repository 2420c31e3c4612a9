#include "foundation/core/EventRing.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace kelvo {
namespace {

RuntimeEvent eventAt(Timestamp timestamp, std::string message) {
    RuntimeEvent event = RuntimeEvent::make(std::move(message));
    event.timestamp = timestamp;
    return event;
}

std::vector<std::string> messages(const std::vector<RuntimeEvent>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) out.push_back(e.message);
    return out;
}

TEST(EventRing, TheObserverSeesEveryEventAppendedAfterItWasSetAndMayReadTheRing) {
    EventRing ring(4, 1e9);
    ring.append(RuntimeEvent::make("before"));
    std::vector<std::string> seen;
    std::size_t sizeSeen = 0;
    ring.setAppendObserver([&](const RuntimeEvent& event) {
        seen.push_back(event.message + (event.isFailure ? " (failure)" : ""));
        sizeSeen = ring.recent(10).size();  // no lock held: this must not deadlock
    });
    ring.append(RuntimeEvent::make("one"));
    ring.append(RuntimeEvent::make("two", true));
    EXPECT_EQ(seen, (std::vector<std::string>{"one", "two (failure)"}));
    EXPECT_EQ(sizeSeen, 3u);
    EXPECT_EQ(messages(ring.recent(10)), (std::vector<std::string>{"before", "one", "two"}));
    ring.setAppendObserver(nullptr);
    ring.append(RuntimeEvent::make("three"));
    EXPECT_EQ(seen.size(), 2u);
}

TEST(EventRing, AppendBeyondCapacityDropsOldest) {
    EventRing ring(3, 600, [] { return 1000.0; });
    for (int i = 0; i < 5; ++i) ring.append(eventAt(1000, "e" + std::to_string(i)));
    EXPECT_EQ(messages(ring.recent(10)), (std::vector<std::string>{"e2", "e3", "e4"}));
    EXPECT_EQ(ring.capacity(), 3u);
}

TEST(EventRing, EventsOlderThanRetentionArePrunedOnRead) {
    auto now = std::make_shared<double>(1000);
    EventRing ring(10, 60, [now] { return *now; });
    ring.append(eventAt(1000, "early"));
    ring.append(eventAt(1030, "later"));
    EXPECT_EQ(ring.recent(10).size(), 2u);

    *now = 1061;  // "early" is now 61 s old, "later" 31 s
    EXPECT_EQ(messages(ring.recent(10)), (std::vector<std::string>{"later"}));
    ASSERT_TRUE(ring.latest());
    EXPECT_EQ(ring.latest()->message, "later");

    *now = 1091;
    EXPECT_FALSE(ring.latest());
    EXPECT_TRUE(ring.recent(10).empty());
}

TEST(EventRing, AppendPrunesExpiredEventsEvenWhenOutOfOrder) {
    auto now = std::make_shared<double>(1000);
    EventRing ring(10, 60, [now] { return *now; });
    ring.append(eventAt(1000, "fresh"));
    ring.append(eventAt(900, "stale replay"));  // already past retention when it arrives
    EXPECT_EQ(messages(ring.recent(10)), (std::vector<std::string>{"fresh"}));
}

TEST(EventRing, RecentReturnsNewestLimitOldestFirst) {
    EventRing ring(10, 600, [] { return 1000.0; });
    for (int i = 0; i < 5; ++i) ring.append(eventAt(1000 - 5 + i, "e" + std::to_string(i)));
    EXPECT_EQ(messages(ring.recent(2)), (std::vector<std::string>{"e3", "e4"}));
    EXPECT_EQ(messages(ring.recent(5)), (std::vector<std::string>{"e0", "e1", "e2", "e3", "e4"}));
    EXPECT_TRUE(ring.recent(0).empty());
}

TEST(EventRing, LatestOnEmptyRingIsNullopt) {
    EventRing ring(4, 600, [] { return 1000.0; });
    EXPECT_FALSE(ring.latest());
    EXPECT_TRUE(ring.recent(4).empty());
    auto event = eventAt(999, "only");
    ring.append(event);
    ASSERT_TRUE(ring.latest());
    EXPECT_EQ(*ring.latest(), event);
}

TEST(EventRing, ConcurrentAppendsNeverExceedCapacity) {
    EventRing ring(50, 600);
    std::vector<std::thread> writers;
    std::atomic<int> appended{0};
    for (int t = 0; t < 4; ++t)
        writers.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                ring.append(RuntimeEvent::make("x"));
                ++appended;
                (void)ring.recent(10);
            }
        });
    for (auto& w : writers) w.join();
    EXPECT_EQ(appended.load(), 2000);
    EXPECT_EQ(ring.recent(1000).size(), 50u);
}

}  // namespace
}  // namespace kelvo
