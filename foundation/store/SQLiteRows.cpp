// Samples, events and runs to and from statement columns.
#include "foundation/store/SQLiteRows.h"

#include "foundation/store/SQLiteCodecs.h"

namespace kelvo::store {

void bindSample(SQLiteStatement& s, int first, const TelemetrySample& sample) {
    s.bindReal(first, sample.timestamp);
    s.bindReal(first + 1, sample.cpuTemperatureC);
    s.bindReal(first + 2, sample.gpuTemperatureC);
    s.bindReal(first + 3, sample.cpuClockMHz);
    s.bindReal(first + 4, sample.gpuClockMHz);
    s.bindReal(first + 5, sample.gpuReferenceMaxClockMHz);
    s.bindReal(first + 6, sample.totalPowerW);
    s.bindReal(first + 7, sample.meanFanCurrentRPM());
    s.bindReal(first + 8, sample.cpuUtilizationPct);
    s.bindReal(first + 9, sample.gpuUtilizationPct);
    if (sample.thermalPressure)
        s.bindText(first + 10, rawValue(*sample.thermalPressure));
    else
        s.bindNull(first + 10);
}

TelemetrySample readSample(const SQLiteStatement& s, int first) {
    TelemetrySample sample;
    sample.timestamp = s.real(first);
    sample.cpuTemperatureC = s.optReal(first + 1);
    sample.gpuTemperatureC = s.optReal(first + 2);
    sample.cpuClockMHz = s.optReal(first + 3);
    sample.gpuClockMHz = s.optReal(first + 4);
    sample.gpuReferenceMaxClockMHz = s.optReal(first + 5);
    sample.totalPowerW = s.optReal(first + 6);
    if (auto fan = s.optReal(first + 7)) sample.fanCurrentRPM = {*fan};
    sample.cpuUtilizationPct = s.optReal(first + 8);
    sample.gpuUtilizationPct = s.optReal(first + 9);
    if (!s.isNull(first + 10)) sample.thermalPressure = pressureFromRaw(s.text(first + 10));
    return sample;
}

RuntimeEvent readEvent(const SQLiteStatement& s, int first) {
    RuntimeEvent event;
    event.id = Uuid::parse(s.text(first)).value_or(Uuid{});
    event.timestamp = s.real(first + 1);
    event.message = s.text(first + 2);
    event.isFailure = s.integer(first + 3) != 0;
    event.isBuildIdentity = s.integer(first + 4) != 0;
    return event;
}

SQLiteStore::ProfilingRunRecord readRun(const SQLiteStatement& s) {
    SQLiteStore::ProfilingRunRecord run;
    run.id = s.integer(0);
    run.scenario = s.text(1);
    run.mode = s.text(2);
    run.modelID = s.text(3);
    run.modelSource = s.text(4);
    run.notes = s.text(5);
    run.startedAt = s.real(6);
    run.stoppedAt = s.optReal(7);
    run.status = s.text(8);
    return run;
}

}  // namespace kelvo::store
