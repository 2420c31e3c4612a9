// What the runtime asks of the capture coordinator. The runtime talks to captures only through
// this interface so it can run (and be tested) before and independently of the coordinator.
#pragma once

#include <QCoroTask>
#include <QObject>
#include <QString>
#include <functional>
#include <optional>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/Types.h"

namespace kelvo {

class CaptureSeam {
public:
    virtual ~CaptureSeam() = default;

    // The object the dashboard's capture card binds to (as "capture"), or null for none.
    virtual QObject* viewModel() = 0;

    virtual void configure(std::function<ControlMode()> currentModeProvider,
                           std::function<void(ControlMode)> applyModeSelection,
                           std::function<void()> historyDidChange) = 0;
    virtual QCoro::Task<> restorePersistentState() = 0;
    virtual QCoro::Task<> evaluateProfilingThrottleSignals(const ControlSnapshot& snapshot) = 0;
    virtual void updateProfilingClock(Timestamp now) = 0;
    virtual void updateAdaptivePredictorSummary(const std::optional<AdaptiveLeadModel>& model) = 0;
    virtual void setAdaptivePredictorLabel(const QString& label) = 0;
    virtual void setAdaptivePredictorDetail(const QString& detail) = 0;
};

}  // namespace kelvo
