#include "dashboard/TrendSectionMemoizer.h"

namespace kelvo {

void TrendSectionMemoizer::store(const TrendSectionComputationKey& key,
                                 TrendSectionComputationValue&& value) {
    cachedValue_ = std::move(value);
    cachedKey_ = key;
    ++computationCount_;
}

}  // namespace kelvo
