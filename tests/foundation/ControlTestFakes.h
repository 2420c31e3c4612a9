// Small scriptable back-ends for control-loop tests that need exact inputs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/FanController.h"
#include "foundation/core/TelemetryProvider.h"

namespace kelvo::fakes {

class ScriptedTelemetry : public TelemetryProvider {
public:
    TelemetrySample next;
    TelemetrySample sample(Timestamp now) override {
        std::lock_guard lock(mutex);
        TelemetrySample s = next;
        s.timestamp = now;
        return s;
    }
    std::mutex mutex;
};

class RecordingFans : public FanController {
public:
    std::string typeName() const override { return "RecordingFans"; }
    FanReadResult readFans() override {
        std::lock_guard lock(mutex);
        if (failReads) return {false, "sensor gone", {}};
        FanReadResult r;
        for (std::size_t i = 0; i < 2; ++i)
            r.fans.push_back({"fan" + std::to_string(i),
                              current,
                              lastTargets.size() > i ? lastTargets[i] : 0,
                              1000,
                              5000,
                              {}});
        return r;
    }
    FanResult setTargets(const std::vector<double>& targets) override {
        std::unique_lock lock(mutex);
        // The limit only keeps a broken test from hanging; a passing one releases the writes.
        writesReleased.wait_for(lock, std::chrono::seconds(30), [this] { return !writesHeld; });
        ++writes;
        if (failWrites) return FanResult::failure("helper unavailable");
        lastTargets = targets;
        held = true;
        return FanResult::success();
    }
    FanResult releaseToAutomatic() override {
        std::lock_guard lock(mutex);
        ++releases;
        held = false;
        return FanResult::success();
    }
    bool holdsControl() const override {
        std::lock_guard lock(mutex);
        return held;
    }
    std::vector<std::string> takeFansLostBehindOurBack() override {
        std::lock_guard lock(mutex);
        if (!lost.empty()) held = false;
        return std::exchange(lost, {});
    }
    // A back-end slower than any deadline: writes wait until released, however long the caller
    // waits for them.
    void holdWrites() {
        std::lock_guard lock(mutex);
        writesHeld = true;
    }
    void releaseWrites() {
        {
            std::lock_guard lock(mutex);
            writesHeld = false;
        }
        writesReleased.notify_all();
    }
    int writesDone() const {
        std::lock_guard lock(mutex);
        return writes;
    }

    mutable std::mutex mutex;
    std::condition_variable writesReleased;
    bool writesHeld = false;
    bool failReads = false;
    bool failWrites = false;
    double current = 2000;
    std::vector<double> lastTargets;
    bool held = false;
    std::vector<std::string> lost;  // reported once by the next takeFansLostBehindOurBack()
    int writes = 0;
    int releases = 0;
};

}  // namespace kelvo::fakes
