// Keeps the last trend section and recomputes it only when its key changes.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "dashboard/TrendSectionComputation.h"

namespace kelvo {

class TrendSectionMemoizer {
public:
    // The cached value when `key` equals the cached key; otherwise `compute()`'s result, which
    // replaces the cache.
    template <class Compute>
    const TrendSectionComputationValue& value(const TrendSectionComputationKey& key,
                                              Compute&& compute) {
        if (!cachedKey_ || !(*cachedKey_ == key)) store(key, std::forward<Compute>(compute)());
        return *cachedValue_;
    }

    const std::optional<TrendSectionComputationKey>& cachedKey() const { return cachedKey_; }
    const std::optional<TrendSectionComputationValue>& cachedValue() const { return cachedValue_; }
    // How many times a value was computed; lets callers check that nothing is recomputed twice.
    std::uint64_t computationCount() const { return computationCount_; }

private:
    void store(const TrendSectionComputationKey& key, TrendSectionComputationValue&& value);

    std::optional<TrendSectionComputationKey> cachedKey_;
    std::optional<TrendSectionComputationValue> cachedValue_;
    std::uint64_t computationCount_ = 0;
};

}  // namespace kelvo
