// Bounds for the live trend histories: an age limit and a hard entry cap. Both work in place so
// that the histories keep their storage between updates.
#pragma once

#include <cstddef>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

// Drops the entries older than `cutoff` from an oldest-first history. `timestamp` reads an
// element's time. A history that is entirely too old is emptied without freeing its storage.
template <typename T, typename TimestampOf>
void trimOrderedHistory(std::vector<T>& history, Timestamp cutoff, TimestampOf timestamp) {
    if (history.empty()) return;
    std::size_t first = 0;
    while (first < history.size() && timestamp(history[first]) < cutoff) ++first;
    if (first == history.size()) {
        history.clear();
        return;
    }
    if (first > 0)
        history.erase(history.begin(), history.begin() + static_cast<std::ptrdiff_t>(first));
}

// Keeps only the newest `maxCount` entries. A cap below one leaves a fresh empty list.
template <typename T>
void trimToTailCount(std::vector<T>& history, long long maxCount) {
    if (maxCount < 1) {
        history = std::vector<T>();
        return;
    }
    const auto cap = static_cast<std::size_t>(maxCount);
    if (history.size() > cap)
        history.erase(history.begin(), history.end() - static_cast<std::ptrdiff_t>(cap));
}

}  // namespace kelvo
