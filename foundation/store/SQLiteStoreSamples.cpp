// The store's samples table: telemetry history, one row per kSampleSpacingSeconds.
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteRows.h"
#include "foundation/store/SQLiteStatement.h"

#include <sqlite3.h>

#include <cmath>

namespace kelvo {

using store::kSampleColumns;

std::optional<Timestamp> SQLiteStore::lastStoredSampleTimestampLocked() {
    SQLiteStatement s(db_, "SELECT MAX(timestamp) FROM samples");
    std::optional<Timestamp> latest;
    if (s.next()) latest = s.optReal(0);
    s.run();
    return s.ok() ? latest : std::nullopt;
}

bool SQLiteStore::appendSample(const TelemetrySample& sample) {
    std::lock_guard lock(mutex_);
    if (lastSampleTimestamp_ &&
        std::abs(sample.timestamp - *lastSampleTimestamp_) < kSampleSpacingSeconds)
        return true;
    static const std::string kInsert = std::string("INSERT INTO samples (") + kSampleColumns +
                                       ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    SQLiteStatement s(db_, keptLocked(kInsert));
    store::bindSample(s, 1, sample);
    if (!s.run()) return failLocked("append sample: " + s.error());
    lastSampleTimestamp_ = sample.timestamp;
    return true;
}

std::vector<TelemetrySample> SQLiteStore::samples(Timestamp from, Timestamp to) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, std::string("SELECT ") + kSampleColumns +
                               " FROM samples WHERE timestamp >= ? AND timestamp <= ? ORDER BY "
                               "timestamp");
    s.bindReal(1, from);
    s.bindReal(2, to);
    std::vector<TelemetrySample> result;
    while (s.next()) result.push_back(store::readSample(s, 0));
    if (!s.ok()) {
        failLocked("samples: " + s.error());
        return {};
    }
    return result;
}

int SQLiteStore::pruneSamplesOlderThan(Timestamp cutoff) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, "DELETE FROM samples WHERE timestamp < ?");
    s.bindReal(1, cutoff);
    if (!s.run()) {
        failLocked("prune samples: " + s.error());
        return -1;
    }
    return sqlite3_changes(db_);
}

}  // namespace kelvo
