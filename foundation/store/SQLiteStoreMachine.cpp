// The store's per-machine knowledge: learned fan curves (fan_curves) and what a machine has shown
// it can report (machine_capabilities).
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteCodecs.h"
#include "foundation/store/SQLiteStatement.h"

#include <cmath>

namespace kelvo {

bool SQLiteStore::saveFanCurve(const std::string& identity, const FanCurve& curve) {
    std::lock_guard lock(mutex_);
    if (curve.empty()) return failLocked("save fan curve: the curve has no points");
    for (const auto& [pwm, rpm] : curve)
        if (!std::isfinite(pwm) || !std::isfinite(rpm))
            return failLocked("save fan curve: the curve has a non-finite point");
    SQLiteStatement s(db_,
                      "INSERT OR REPLACE INTO fan_curves (fan_identity, points, learned_at) "
                      "VALUES (?, ?, ?)");
    s.bindText(1, identity);
    s.bindText(2, store::encodeCurve(curve));
    s.bindReal(3, now_());
    if (!s.run()) return failLocked("save fan curve: " + s.error());
    return true;
}

std::optional<SQLiteStore::FanCurve> SQLiteStore::fanCurve(const std::string& identity) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, "SELECT points FROM fan_curves WHERE fan_identity = ?");
    s.bindText(1, identity);
    std::optional<std::string> points;
    if (s.next()) points = s.text(0);
    if (!s.run()) {
        failLocked("fan curve: " + s.error());
        return std::nullopt;
    }
    if (!points) return std::nullopt;
    auto curve = store::decodeCurve(*points);
    if (!curve || curve->empty()) {
        failLocked("fan curve: stored points for " + identity + " are malformed");
        return std::nullopt;
    }
    return curve;
}

bool SQLiteStore::saveFanCoupling(const std::string& identity,
                                  const FanCouplingEvidence& evidence) {
    std::lock_guard lock(mutex_);
    const std::string encoded = encodeCouplingEvidence(evidence);
    // Only what reads back is stored: a value that is not a number would lose the whole row.
    if (!decodeCouplingEvidence(encoded))
        return failLocked("save fan coupling: the evidence for " + identity + " is not finite");
    SQLiteStatement s(db_,
                      "INSERT OR REPLACE INTO fan_coupling (fan_identity, evidence, updated_at) "
                      "VALUES (?, ?, ?)");
    s.bindText(1, identity);
    s.bindText(2, encoded);
    s.bindReal(3, now_());
    if (!s.run()) return failLocked("save fan coupling: " + s.error());
    return true;
}

std::optional<std::map<std::string, FanCouplingEvidence>> SQLiteStore::fanCouplings(
    std::string* skipped) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_, "SELECT fan_identity, evidence FROM fan_coupling");
    std::map<std::string, FanCouplingEvidence> out;
    std::string bad;
    while (s.next()) {
        if (auto evidence = decodeCouplingEvidence(s.text(1)))
            out[s.text(0)] = *evidence;
        else if (bad.empty())
            bad = s.text(0);
    }
    if (!s.run()) {
        failLocked("fan coupling: " + s.error());
        return std::nullopt;
    }
    if (skipped) *skipped = bad.empty() ? "" : "the stored coupling of " + bad + " is malformed";
    return out;
}

bool SQLiteStore::saveMachineCapabilities(const std::string& machineIdentity,
                                          const std::string& encoded) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "INSERT OR REPLACE INTO machine_capabilities (machine_identity, "
                      "capabilities, updated_at) VALUES (?, ?, ?)");
    s.bindText(1, machineIdentity);
    s.bindText(2, encoded);
    s.bindReal(3, now_());
    if (!s.run()) return failLocked("save machine capabilities: " + s.error());
    return true;
}

std::optional<std::string> SQLiteStore::machineCapabilities(const std::string& machineIdentity) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT capabilities FROM machine_capabilities WHERE machine_identity = ?");
    s.bindText(1, machineIdentity);
    std::optional<std::string> encoded;
    if (s.next()) encoded = s.text(0);
    if (!s.run()) {
        failLocked("machine capabilities: " + s.error());
        return std::nullopt;
    }
    return encoded;
}

}  // namespace kelvo
