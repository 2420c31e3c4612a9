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
    cache.insert(key(64), std::make_unique<CountedTexture>(&alive));
    EXPECT_EQ(cache.size(), 64u);
    EXPECT_EQ(alive, 64);
    EXPECT_EQ(cache.find(key(0)), nullptr);
    EXPECT_NE(cache.find(key(1)), nullptr);
    EXPECT_NE(cache.find(key(64)), nullptr);
    EXPECT_EQ(cache.order().front(), key(1));
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
