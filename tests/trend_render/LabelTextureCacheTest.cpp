#include <gtest/gtest.h>

#include <memory>

#include "trend_render/LabelTextureCache.h"

namespace kelvo {
namespace {

struct CountedTexture {
    explicit CountedTexture(int* alive) : alive(alive) { ++*alive; }
    ~CountedTexture() { --*alive; }
    int* alive;
};

LabelTextureKey key(int i) {
    return {"label " + std::to_string(i), {200, 140, 142, 150, 255}};
}

TEST(LabelTextureCache, TheSixtyFifthTextEvictsTheFirstInsertedEvenIfItWasJustUsed) {
    int alive = 0;
    LabelTextureCache<CountedTexture> cache;
    for (int i = 0; i < 64; ++i) cache.insert(key(i), std::make_unique<CountedTexture>(&alive));
    // The first one is used in the latest frame: first-insertion order does not care.
    ASSERT_NE(cache.find(key(0)), nullptr);
    CountedTexture* first = cache.find(key(0));
    cache.insert(key(64), std::make_unique<CountedTexture>(&alive));
    EXPECT_EQ(cache.size(), 64u);
    EXPECT_EQ(cache.find(key(0)), nullptr);
    EXPECT_NE(cache.find(key(1)), nullptr);
    EXPECT_NE(cache.find(key(64)), nullptr);
    EXPECT_EQ(cache.order().front(), key(1));
    // The evicted texture outlives the eviction until its taker lets it go: a label drawn in
    // this frame may still use it.
    EXPECT_EQ(alive, 65);
    auto evicted = cache.takeEvicted();
    ASSERT_EQ(evicted.size(), 1u);
    EXPECT_EQ(evicted.front().get(), first);
    EXPECT_TRUE(cache.takeEvicted().empty()) << "handed over once";
    evicted.clear();
    EXPECT_EQ(alive, 64);
}

TEST(LabelTextureCache, ClearingAlsoDropsWhatWasEvicted) {
    int alive = 0;
    LabelTextureCache<CountedTexture> cache;
    for (int i = 0; i < 66; ++i) cache.insert(key(i), std::make_unique<CountedTexture>(&alive));
    EXPECT_EQ(alive, 66);
    cache.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(cache.takeEvicted().empty());
}

TEST(LabelTextureCache, ReplacingAKeyKeepsItsPlaceInTheOrder) {
    int alive = 0;
    LabelTextureCache<CountedTexture> cache;
    cache.insert(key(1), std::make_unique<CountedTexture>(&alive));
    cache.insert(key(2), std::make_unique<CountedTexture>(&alive));
    cache.insert(key(1), std::make_unique<CountedTexture>(&alive));
    ASSERT_EQ(cache.order().size(), 2u);
    EXPECT_EQ(cache.order()[0], key(1));
    EXPECT_EQ(alive, 2);
}

TEST(LabelTextureCache, StyleIsPartOfTheKey) {
    int alive = 0;
    LabelTextureCache<CountedTexture> cache;
    LabelTextureKey dark = key(1);
    dark.style.red = 10;
    cache.insert(key(1), std::make_unique<CountedTexture>(&alive));
    EXPECT_EQ(cache.find(dark), nullptr);
    cache.clear();
    EXPECT_EQ(alive, 0);
    EXPECT_TRUE(cache.order().empty());
}

}  // namespace
}  // namespace kelvo
