#include "live/HistoryTrim.h"

#include <gtest/gtest.h>
#include <vector>

namespace kelvo {
namespace {

struct Entry {
    Timestamp at;
    int value;
    bool operator==(const Entry&) const = default;
};

Timestamp timeOf(const Entry& entry) {
    return entry.at;
}

std::vector<Entry> entriesAt(std::initializer_list<Timestamp> times) {
    std::vector<Entry> entries;
    int i = 0;
    for (Timestamp t : times) entries.push_back({t, i++});
    return entries;
}

TEST(TrimOrderedHistoryTest, EmptyHistoryStaysEmpty) {
    std::vector<Entry> history;
    trimOrderedHistory(history, 100.0, timeOf);
    EXPECT_TRUE(history.empty());
}

TEST(TrimOrderedHistoryTest, DropsOnlyEntriesOlderThanTheCutoff) {
    auto history = entriesAt({1, 2, 3, 4, 5});
    trimOrderedHistory(history, 3.0, timeOf);
    EXPECT_EQ(history, (std::vector<Entry>{{3, 2}, {4, 3}, {5, 4}}));
}

TEST(TrimOrderedHistoryTest, NothingToDropWhenTheFirstEntryIsRecentEnough) {
    auto history = entriesAt({10, 11});
    const auto before = history;
    trimOrderedHistory(history, 10.0, timeOf);
    EXPECT_EQ(history, before);
}

TEST(TrimOrderedHistoryTest, AllTooOldEmptiesKeepingStorage) {
    auto history = entriesAt({1, 2, 3});
    history.reserve(64);
    const auto capacity = history.capacity();
    trimOrderedHistory(history, 3.5, timeOf);
    EXPECT_TRUE(history.empty());
    EXPECT_EQ(history.capacity(), capacity);
}

TEST(TrimOrderedHistoryTest, TakesAnyTimestampReader) {
    std::vector<double> times = {5, 6, 7};
    trimOrderedHistory(times, 6.5, [](double t) { return t; });
    EXPECT_EQ(times, (std::vector<double>{7}));
}

TEST(TrimToTailCountTest, KeepsTheNewestEntries) {
    auto history = entriesAt({1, 2, 3, 4, 5});
    trimToTailCount(history, 2);
    EXPECT_EQ(history, (std::vector<Entry>{{4, 3}, {5, 4}}));
}

TEST(TrimToTailCountTest, ShortEnoughHistoryIsUntouched) {
    auto history = entriesAt({1, 2, 3});
    const auto before = history;
    trimToTailCount(history, 3);
    EXPECT_EQ(history, before);
    trimToTailCount(history, 10);
    EXPECT_EQ(history, before);
}

TEST(TrimToTailCountTest, CapBelowOneLeavesAFreshEmptyList) {
    auto history = entriesAt({1, 2, 3});
    history.reserve(64);
    trimToTailCount(history, 0);
    EXPECT_TRUE(history.empty());
    EXPECT_EQ(history.capacity(), 0u);

    history = entriesAt({1});
    trimToTailCount(history, -5);
    EXPECT_TRUE(history.empty());
}

}  // namespace
}  // namespace kelvo
