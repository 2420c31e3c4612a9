// The store's events table: Kelvo's runtime events, each id stored once.
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteRows.h"
#include "foundation/store/SQLiteStatement.h"

#include <algorithm>
#include <cstdint>

namespace kelvo {

bool SQLiteStore::appendEvent(const RuntimeEvent& event) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "INSERT OR IGNORE INTO events (uuid, timestamp, message, is_failure, "
                      "is_build_identity) VALUES (?, ?, ?, ?, ?)");
    s.bindText(1, event.id.toString());
    s.bindReal(2, event.timestamp);
    s.bindText(3, event.message);
    s.bindInt(4, event.isFailure ? 1 : 0);
    s.bindInt(5, event.isBuildIdentity ? 1 : 0);
    if (!s.run()) return failLocked("append event: " + s.error());
    return true;
}

std::vector<RuntimeEvent> SQLiteStore::recentEvents(std::size_t limit) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT uuid, timestamp, message, is_failure, is_build_identity FROM events "
                      "ORDER BY timestamp DESC, rowid DESC LIMIT ?");
    s.bindInt(1, static_cast<std::int64_t>(std::min<std::size_t>(limit, INT64_MAX)));
    std::vector<RuntimeEvent> events;
    while (s.next()) events.push_back(store::readEvent(s, 0));
    if (!s.ok()) {
        failLocked("recent events: " + s.error());
        return {};
    }
    return {events.rbegin(), events.rend()};
}

}  // namespace kelvo
