// How a sample, an event and a run lie in a row: the column lists and the functions that bind
// them to a statement or read them back. Shared by the table groups that store the same shapes
// (samples and run_samples, events and run_events).
#pragma once

#include "foundation/core/Types.h"
#include "foundation/store/SQLiteStatement.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo::store {

inline constexpr const char* kSampleColumns =
    "timestamp, cpu_temp, gpu_temp, cpu_clock, gpu_clock, gpu_ref_clock, power, fan_rpm, "
    "cpu_util, gpu_util, thermal_pressure";
inline constexpr const char* kRunColumns =
    "id, scenario, mode, model_id, model_source, notes, started_at, stopped_at, status";

// Binds the sample columns in kSampleColumns order, starting at `first`.
void bindSample(SQLiteStatement& s, int first, const TelemetrySample& sample);
// Reads them back, in the same order, from column `first`. Fans come back as one mean speed.
TelemetrySample readSample(const SQLiteStatement& s, int first);
// uuid, timestamp, message, is_failure, is_build_identity, from column `first`.
RuntimeEvent readEvent(const SQLiteStatement& s, int first);
// The kRunColumns, from column 0.
SQLiteStore::ProfilingRunRecord readRun(const SQLiteStatement& s);

}  // namespace kelvo::store
