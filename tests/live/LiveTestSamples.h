// Samples, decisions and events for the live store's tests, and for the tests that wire the store
// to the rest of the application.
#pragma once

#include <string>
#include <vector>

#include "live/LiveDashboardStore.h"

namespace kelvo::live_test {

inline constexpr Timestamp t0 = 1'700'000'000.0;

inline TelemetrySample sampleAt(Timestamp t, double cpuTemperature = 60) {
    TelemetrySample sample;
    sample.timestamp = t;
    sample.cpuTemperatureC = cpuTemperature;
    sample.gpuTemperatureC = 55;
    sample.cpuClockMHz = 3200;
    sample.totalPowerW = 42;
    sample.fanCurrentRPM = {2000, 2100};
    sample.fanTargetRPM = {0, 0};
    sample.fanMaxRPM = {6000, 6000};
    sample.fanMinRPM = {1200, 1200};
    sample.fanNames = {"Left", "Right"};
    return sample;
}

inline ControlDecision decisionWithTargets(std::vector<double> targets, Timestamp t = t0) {
    ControlDecision decision;
    decision.timestamp = t;
    decision.mode = ControlMode::quiet;
    decision.targetRPM = std::move(targets);
    decision.reason = "test";
    return decision;
}

inline ThrottleAssessment assessment(bool warning) {
    ThrottleAssessment result;
    result.isWarning = warning;
    result.highLoad = warning;
    if (warning) result.reason = "cpu clock deficit";
    return result;
}

inline LiveSnapshot snapshotAt(Timestamp t, double cpuTemperature = 60) {
    LiveSnapshot snapshot;
    snapshot.sample = sampleAt(t, cpuTemperature);
    snapshot.decision = decisionWithTargets({2500, 2500}, t);
    snapshot.status = ControlStatus::controlling;
    snapshot.authority = ControlAuthorityState::kelvo;
    return snapshot;
}

inline RuntimeEvent eventAt(Timestamp t, const std::string& message) {
    RuntimeEvent event = RuntimeEvent::make(message);
    event.timestamp = t;
    return event;
}

inline std::vector<RuntimeEvent> eventsFrom(Timestamp start, int count) {
    std::vector<RuntimeEvent> events;
    for (int i = 0; i < count; ++i)
        events.push_back(eventAt(start + i, "event " + std::to_string(i)));
    return events;
}

}  // namespace kelvo::live_test
