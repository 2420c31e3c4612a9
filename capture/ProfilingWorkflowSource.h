// What started a capture run, with its label and the status text shown while it runs.
#pragma once

#include <QString>
#include <optional>

#include "foundation/core/ProfilingTypes.h"

namespace kelvo {

enum class ProfilingWorkflowSource { betaCapture, developerTools, scriptedMatrix };

QString rawValue(ProfilingWorkflowSource source);
// Unknown strings yield none.
std::optional<ProfilingWorkflowSource> profilingWorkflowSourceFromRaw(const QString& raw);
QString workflowLabel(ProfilingWorkflowSource source);
QString backgroundStatusText(ProfilingWorkflowSource source);
CaptureWorkflowKind workflowKind(ProfilingWorkflowSource source);

// "CPU Stress", "GPU Stress", "Mixed Stress", "Real Workflow Capture".
QString scenarioLabel(ProfilingScenario scenario);

}  // namespace kelvo
