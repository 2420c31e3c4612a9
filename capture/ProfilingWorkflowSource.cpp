#include "capture/ProfilingWorkflowSource.h"

namespace kelvo {

namespace {
constexpr ProfilingWorkflowSource kAllSources[] = {ProfilingWorkflowSource::betaCapture,
                                                   ProfilingWorkflowSource::developerTools,
                                                   ProfilingWorkflowSource::scriptedMatrix};
}

QString rawValue(ProfilingWorkflowSource source) {
    switch (source) {
        case ProfilingWorkflowSource::betaCapture: return QStringLiteral("background-capture");
        case ProfilingWorkflowSource::developerTools: return QStringLiteral("developer-capture");
        case ProfilingWorkflowSource::scriptedMatrix: return QStringLiteral("scripted-workload");
    }
    return QStringLiteral("background-capture");
}

std::optional<ProfilingWorkflowSource> profilingWorkflowSourceFromRaw(const QString& raw) {
    for (auto source : kAllSources)
        if (rawValue(source) == raw) return source;
    return std::nullopt;
}

QString workflowLabel(ProfilingWorkflowSource source) {
    switch (source) {
        case ProfilingWorkflowSource::betaCapture: return QStringLiteral("Beta Capture");
        case ProfilingWorkflowSource::developerTools: return QStringLiteral("Developer Tools");
        case ProfilingWorkflowSource::scriptedMatrix: return QStringLiteral("Scripted Matrix");
    }
    return QStringLiteral("Beta Capture");
}

QString backgroundStatusText(ProfilingWorkflowSource source) {
    switch (source) {
        case ProfilingWorkflowSource::betaCapture:
            return QStringLiteral("Beta capture is running in the background");
        case ProfilingWorkflowSource::developerTools:
            return QStringLiteral("Developer capture is running in the background");
        case ProfilingWorkflowSource::scriptedMatrix:
            return QStringLiteral("Capturing live workload data");
    }
    return QStringLiteral("Beta capture is running in the background");
}

CaptureWorkflowKind workflowKind(ProfilingWorkflowSource source) {
    switch (source) {
        case ProfilingWorkflowSource::betaCapture: return CaptureWorkflowKind::backgroundCapture;
        case ProfilingWorkflowSource::developerTools: return CaptureWorkflowKind::developerCapture;
        case ProfilingWorkflowSource::scriptedMatrix: return CaptureWorkflowKind::scriptedWorkload;
    }
    return CaptureWorkflowKind::backgroundCapture;
}

QString scenarioLabel(ProfilingScenario scenario) {
    switch (scenario) {
        case ProfilingScenario::cpuStress: return QStringLiteral("CPU Stress");
        case ProfilingScenario::gpuStress: return QStringLiteral("GPU Stress");
        case ProfilingScenario::mixedStress: return QStringLiteral("Mixed Stress");
        case ProfilingScenario::realWorkflow: return QStringLiteral("Real Workflow Capture");
    }
    return QStringLiteral("CPU Stress");
}

}  // namespace kelvo
