#include "foundation/profiling/ProfilingService.h"

#include <algorithm>

#include "foundation/profiling/ProfileExportWriter.h"
#include "foundation/profiling/ProfilingModels.h"

namespace kelvo {

ProfilingService::ProfilingService(std::shared_ptr<EventRing> ring, std::string dbPath,
                                   std::function<Timestamp()> now)
    : ring_(std::move(ring)),
      now_(now ? std::move(now) : std::function<Timestamp()>(wallClockNow)),
      store_(std::move(dbPath), now_) {
    if (!ring_) return;
    // The loop's store opened the same file first and already reported what went wrong with it;
    // only a problem that this connection alone met is worth a second event.
    const auto reported = ring_->recent(ring_->capacity());
    for (auto& event : store_.takeStartupEvents()) {
        const bool duplicate = std::any_of(reported.begin(), reported.end(), [&](const auto& e) {
            return e.message == event.message;
        });
        if (!duplicate) ring_->append(std::move(event));
    }
}

ProfilingService::AdaptiveRestoreResult ProfilingService::restoreAdaptiveModel() {
    AdaptiveRestoreResult result;
    std::string error;
    result.model = store_.activeAdaptiveLeadModel(&error);
    if (!error.empty()) result.error = error;
    return result;
}

std::optional<LearnedModel> ProfilingService::activeLearnedModel() {
    return store_.activeLearnedModel();
}

ProfilingResult<std::int64_t> ProfilingService::startRun(ProfilingScenario scenario,
                                                         ControlMode mode,
                                                         const std::string& modelID,
                                                         const std::string& modelSource,
                                                         const std::string& notes) {
    auto id =
        store_.startRun(std::string(rawValue(scenario)), mode, modelID, modelSource, notes, now_());
    if (!id) return ProfilingResult<std::int64_t>::failure(store_.lastError());
    return ProfilingResult<std::int64_t>::success(*id);
}

ProfilingResult<bool> ProfilingService::stopRun(std::int64_t runID) {
    if (!store_.stopRun(runID, now_())) return ProfilingResult<bool>::failure(store_.lastError());
    return ProfilingResult<bool>::success(true);
}

ProfilingResult<bool> ProfilingService::appendRunNotes(std::int64_t runID,
                                                       const std::string& notes) {
    if (!store_.appendRunNotes(runID, notes))
        return ProfilingResult<bool>::failure(store_.lastError());
    return ProfilingResult<bool>::success(true);
}

ProfilingResult<bool> ProfilingService::recordRunEvent(std::int64_t runID,
                                                       const ProfilingRunEvent& event) {
    if (!store_.appendRunEvent(runID, event))
        return ProfilingResult<bool>::failure(store_.lastError());
    return ProfilingResult<bool>::success(true);
}

ProfilingResult<std::vector<ProfilingRunRecord>> ProfilingService::closeAbandonedRuns(
    Timestamp now) {
    std::string error;
    // The newest open run resumes when it was recording until recently (the app was restarted
    // or killed and relaunched); anything else open can no longer be continued.
    std::optional<std::int64_t> keep;
    auto newest = store_.activeRun(&error);
    if (!error.empty()) return ProfilingResult<std::vector<ProfilingRunRecord>>::failure(error);
    if (newest) {
        auto lastSample = store_.lastRunSampleTimestamp(newest->id, &error);
        if (!error.empty()) return ProfilingResult<std::vector<ProfilingRunRecord>>::failure(error);
        const Timestamp lastSign = std::max(newest->startedAt, lastSample.value_or(0));
        if (now - lastSign <= kResumableGapSeconds) keep = newest->id;
    }
    auto runs = store_.closeAbandonedRuns(now, &error, keep);
    if (!error.empty()) return ProfilingResult<std::vector<ProfilingRunRecord>>::failure(error);
    return ProfilingResult<std::vector<ProfilingRunRecord>>::success(std::move(runs));
}

ProfilingResult<std::optional<ProfilingRunRecord>> ProfilingService::latestCompletedRun() {
    std::string error;
    auto run = store_.latestCompletedRun(&error);
    if (!error.empty()) return ProfilingResult<std::optional<ProfilingRunRecord>>::failure(error);
    return ProfilingResult<std::optional<ProfilingRunRecord>>::success(std::move(run));
}

ProfilingResult<std::vector<std::int64_t>> ProfilingService::keptRuns(int limit) {
    std::string error;
    auto ids = store_.keptRunIDs(limit, &error);
    if (!error.empty()) return ProfilingResult<std::vector<std::int64_t>>::failure(error);
    return ProfilingResult<std::vector<std::int64_t>>::success(std::move(ids));
}

ProfilingResult<std::optional<ProfilingRunRecord>> ProfilingService::activeRun() {
    std::string error;
    auto run = store_.activeRun(&error);
    if (!error.empty()) return ProfilingResult<std::optional<ProfilingRunRecord>>::failure(error);
    return ProfilingResult<std::optional<ProfilingRunRecord>>::success(std::move(run));
}

ProfilingResult<ProfilingRunRecord> ProfilingService::runRecord(std::int64_t runID) {
    std::string error;
    auto record = store_.run(runID, &error);
    if (!error.empty()) return ProfilingResult<ProfilingRunRecord>::failure(error);
    if (!record)
        return ProfilingResult<ProfilingRunRecord>::failure("no run with id " +
                                                            std::to_string(runID));
    return ProfilingResult<ProfilingRunRecord>::success(*record);
}

ProfilingResult<LearnedModel> ProfilingService::deriveModel(
    std::int64_t runID, const std::optional<LearnedModel>& baseline) {
    using Result = ProfilingResult<LearnedModel>;
    std::string error;
    const auto samples = store_.runSamples(runID, &error);
    if (!error.empty()) return Result::failure(error);
    auto model = ProfilingModels::deriveLearnedModel(samples, baseline, now_());
    if (!model)
        return Result::failure(
            "run " + std::to_string(runID) +
            (samples.empty() ? " recorded no samples" : " had no high-load samples to learn from"));
    auto id = store_.saveLearnedModel(*model, true);
    if (!id) return Result::failure(store_.lastError());
    model->id = *id;
    return Result::success(*model);
}

ProfilingResult<ProfilingExportArtifacts> ProfilingService::exportRun(
    std::int64_t runID, const std::string& folder, const std::optional<LearnedModel>& model) {
    using Result = ProfilingResult<ProfilingExportArtifacts>;
    auto record = runRecord(runID);
    if (!record.ok()) return Result::failure(record.error);
    ProfileExportInput input;
    input.run = *record.value;
    input.model = model;
    input.exportedAt = now_();
    std::string error;
    input.samples = store_.runSamples(runID, &error);
    if (!error.empty()) return Result::failure(error);
    input.events = store_.runEventRecords(runID, &error);
    if (!error.empty()) return Result::failure(error);
    auto written = ProfileExportWriter::write(folder, input);
    if (written.ok()) {
        std::lock_guard lock(exportedMutex_);
        exportedRunID_ = runID;
        exportedSamples_ = std::move(input.samples);
    }
    return written;
}

ProfilingResult<int> ProfilingService::clearCapturedRows(std::int64_t runID) {
    auto removed = store_.clearRunRows(runID);
    if (!removed) return ProfilingResult<int>::failure(store_.lastError());
    return ProfilingResult<int>::success(*removed);
}

ProfilingResult<AdaptiveModelRefreshResult> ProfilingService::refreshAdaptiveModel(
    std::int64_t runID, const std::optional<LearnedModel>&) {
    using Result = ProfilingResult<AdaptiveModelRefreshResult>;
    std::string error;
    auto samples = store_.runSamples(runID, &error);
    if (!error.empty()) return Result::failure(error);
    if (samples.empty()) {
        // Finalization clears a run's rows before the refresh; its export kept the samples.
        std::lock_guard lock(exportedMutex_);
        if (exportedRunID_ == runID) samples = exportedSamples_;
    }
    const auto previous = store_.activeAdaptiveLeadModel(&error);
    if (!error.empty()) return Result::failure(error);
    auto result = ProfilingModels::fitAdaptiveLeadModel(samples, previous, now_());
    if (result.model) {
        auto id = store_.saveAdaptiveLeadModel(*result.model, true);
        if (!id) return Result::failure(store_.lastError());
        result.model->id = *id;
    }
    return Result::success(std::move(result));
}

}  // namespace kelvo
