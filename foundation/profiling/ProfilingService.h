// Profiling runs and the models derived from them. It keeps its own connection to the loop's
// database file, so long reads and exports never wait on the control loop's writes. The loop
// itself stores the samples of the active run; this service owns everything else about runs.
// Every call is synchronous and safe from any one thread at a time; failures come back as
// descriptions, never as exceptions.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "foundation/core/EventRing.h"
#include "foundation/core/ProfilingTypes.h"
#include "foundation/core/Types.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo {

class ProfilingService {
public:
    struct AdaptiveRestoreResult {
        std::optional<AdaptiveLeadModel> model;
        std::optional<std::string> error;  // set only when the database could not be read
    };

    // How long an open run may have gone without samples and still be resumed at launch.
    static constexpr double kResumableGapSeconds = 300;

    ProfilingService(std::shared_ptr<EventRing> ring, std::string dbPath,
                     std::function<Timestamp()> now = wallClockNow);
    virtual ~ProfilingService() = default;
    ProfilingService(const ProfilingService&) = delete;
    ProfilingService& operator=(const ProfilingService&) = delete;

    AdaptiveRestoreResult restoreAdaptiveModel();
    std::optional<LearnedModel> activeLearnedModel();
    SQLiteStore& store() { return store_; }

    // Runs. Tests replace these to stand in for a failing or slow database.
    virtual ProfilingResult<std::int64_t> startRun(ProfilingScenario scenario, ControlMode mode,
                                                   const std::string& modelID,
                                                   const std::string& modelSource,
                                                   const std::string& notes);
    virtual ProfilingResult<bool> stopRun(std::int64_t runID);
    virtual ProfilingResult<bool> appendRunNotes(std::int64_t runID, const std::string& notes);
    virtual ProfilingResult<bool> recordRunEvent(std::int64_t runID,
                                                 const ProfilingRunEvent& event);
    // Closes the open runs that cannot be resumed: all but the newest, and the newest too when
    // it recorded nothing for kResumableGapSeconds.
    virtual ProfilingResult<std::vector<ProfilingRunRecord>> closeAbandonedRuns(Timestamp now);
    virtual ProfilingResult<std::optional<ProfilingRunRecord>> latestCompletedRun();
    // Runs over but not yet exported (see SQLiteStore::keptRunIDs).
    virtual ProfilingResult<std::vector<std::int64_t>> keptRuns(int limit);
    virtual ProfilingResult<std::optional<ProfilingRunRecord>> activeRun();

    // After a run: a model learned from it (saved as the active one), its export, and the
    // clearing of its rows once the export is safe.
    virtual ProfilingResult<LearnedModel> deriveModel(std::int64_t runID,
                                                      const std::optional<LearnedModel>& baseline);
    virtual ProfilingResult<ProfilingExportArtifacts> exportRun(
        std::int64_t runID, const std::string& folder, const std::optional<LearnedModel>& model);
    virtual ProfilingResult<int> clearCapturedRows(std::int64_t runID);
    virtual ProfilingResult<AdaptiveModelRefreshResult> refreshAdaptiveModel(
        std::int64_t runID, const std::optional<LearnedModel>& baseline);

private:
    ProfilingResult<ProfilingRunRecord> runRecord(std::int64_t runID);

    std::shared_ptr<EventRing> ring_;
    std::function<Timestamp()> now_;
    SQLiteStore store_;
    // The samples of the run exported last, for an adaptive refresh after its rows are cleared.
    std::mutex exportedMutex_;
    std::optional<std::int64_t> exportedRunID_;
    std::vector<TelemetrySample> exportedSamples_;
};

}  // namespace kelvo
