// The store's learned models (learned_models, adaptive_models): each save is a new row, and at
// most one row per table is active.
#include "foundation/store/SQLiteStore.h"

#include "foundation/store/SQLiteStatement.h"
#include "foundation/store/SQLiteTransaction.h"

#include <sqlite3.h>

namespace kelvo {

std::optional<std::int64_t> SQLiteStore::insertModelLocked(
    const char* table, const std::string& insertSql,
    const std::function<void(SQLiteStatement&)>& bind, bool makeActive, const std::string& what) {
    SQLiteTransaction transaction(db_);
    if (!transaction.ok()) {
        failLocked(transaction.error());
        return std::nullopt;
    }
    if (makeActive) {
        SQLiteStatement deactivate(
            db_, std::string("UPDATE ") + table + " SET active = 0 WHERE active != 0");
        if (!deactivate.run()) {
            failLocked(deactivate.error());
            return std::nullopt;
        }
    }
    std::int64_t id = 0;
    {
        SQLiteStatement s(db_, insertSql);
        bind(s);
        if (!s.run()) {
            failLocked(what + ": " + s.error());
            return std::nullopt;
        }
        id = sqlite3_last_insert_rowid(db_);
    }
    if (!transaction.commit()) {
        failLocked(transaction.error());
        return std::nullopt;
    }
    return id;
}

std::optional<std::int64_t> SQLiteStore::saveLearnedModel(const LearnedModel& model,
                                                          bool makeActive) {
    std::lock_guard lock(mutex_);
    return insertModelLocked(
        "learned_models",
        "INSERT INTO learned_models (source, created_at, cpu_ref, gpu_ref, temp_ref, active) "
        "VALUES (?, ?, ?, ?, ?, ?)",
        [&](SQLiteStatement& s) {
            s.bindText(1, model.source);
            s.bindReal(2, model.createdAt);
            s.bindReal(3, model.cpuReferenceClockMHz);
            s.bindReal(4, model.gpuReferenceClockMHz);
            s.bindReal(5, model.temperatureReferenceC);
            s.bindInt(6, makeActive ? 1 : 0);
        },
        makeActive, "save learned model");
}

std::optional<LearnedModel> SQLiteStore::activeLearnedModel(std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT id, source, created_at, cpu_ref, gpu_ref, temp_ref FROM "
                      "learned_models WHERE active != 0 ORDER BY id DESC LIMIT 1");
    std::optional<LearnedModel> model;
    if (s.next()) {
        model.emplace();
        model->id = s.integer(0);
        model->source = s.text(1);
        model->createdAt = s.real(2);
        model->cpuReferenceClockMHz = s.optReal(3);
        model->gpuReferenceClockMHz = s.optReal(4);
        model->temperatureReferenceC = s.optReal(5);
    }
    if (!s.run()) {
        failLocked("active learned model: " + s.error(), error);
        return std::nullopt;
    }
    return model;
}

std::optional<std::int64_t> SQLiteStore::saveAdaptiveLeadModel(const AdaptiveLeadModel& model,
                                                               bool makeActive) {
    std::lock_guard lock(mutex_);
    return insertModelLocked(
        "adaptive_models",
        "INSERT INTO adaptive_models (name, version, created_at, threshold, lead_ms, misses, "
        "active) VALUES (?, ?, ?, ?, ?, ?, ?)",
        [&](SQLiteStatement& s) {
            s.bindText(1, model.name);
            s.bindInt(2, model.version);
            s.bindReal(3, model.createdAt);
            s.bindReal(4, model.utilizationThresholdPct);
            s.bindReal(5, model.averageLeadMs);
            s.bindInt(6, model.misses);
            s.bindInt(7, makeActive ? 1 : 0);
        },
        makeActive, "save adaptive model");
}

std::optional<AdaptiveLeadModel> SQLiteStore::activeAdaptiveLeadModel(std::string* error) {
    std::lock_guard lock(mutex_);
    SQLiteStatement s(db_,
                      "SELECT id, name, version, created_at, threshold, lead_ms, misses "
                      "FROM adaptive_models WHERE active != 0 ORDER BY id DESC LIMIT 1");
    std::optional<AdaptiveLeadModel> model;
    if (s.next()) {
        model.emplace();
        model->id = s.integer(0);
        model->name = s.text(1);
        model->version = static_cast<int>(s.integer(2));
        model->createdAt = s.real(3);
        model->utilizationThresholdPct = s.real(4);
        model->averageLeadMs = s.real(5);
        model->misses = static_cast<int>(s.integer(6));
    }
    if (!s.run()) {
        failLocked("active adaptive model: " + s.error(), error);
        return std::nullopt;
    }
    return model;
}

}  // namespace kelvo
