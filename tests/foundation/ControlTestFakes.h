// Small scriptable back-ends for control-loop tests that need exact inputs.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "foundation/FanController.h"
#include "foundation/TelemetryProvider.h"

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
            r.fans.push_back({"fan" + std::to_string(i), current,
                              lastTargets.size() > i ? lastTargets[i] : 0, 1000, 5000});
        return r;
    }
    FanResult setTargets(const std::vector<double>& targets) override {
        if (writeDelaySeconds > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(writeDelaySeconds));
        std::lock_guard lock(mutex);
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

    mutable std::mutex mutex;
    bool failReads = false;
    bool failWrites = false;
    double writeDelaySeconds = 0;
    double current = 2000;
    std::vector<double> lastTargets;
    bool held = false;
    int writes = 0;
    int releases = 0;
};

}  // namespace kelvo::fakes
