#include "dashboard/PeakPerformance.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kelvo {

namespace {

// Over-delivery (a negative deficit) still reads as 100 %: the figure is a share of the ceiling.
double retention(double deficit) {
    return std::clamp(1 - deficit, 0.0, 1.0);
}

std::string format(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string percent(const std::optional<double>& deficit) {
    return deficit ? format("%.1f%%", retention(*deficit) * 100) : "\u2014";
}

std::string samples(int count) {
    return std::to_string(count) + (count == 1 ? " high-load sample" : " high-load samples");
}

std::string limiterSentence(GPULimiter limiter) {
    switch (limiter) {
        case GPULimiter::none: return "No dominant limiter was detected in this window.";
        case GPULimiter::osThermalPressure:
            return "Likely limiter: public OS graphics or thermal constraint.";
        case GPULimiter::driverThermal:
            return "Likely limiter: CLTM-style internal thermal budgeting.";
        case GPULimiter::driverPowerCap: return "Likely limiter: GPU power-target reduction.";
        case GPULimiter::unexplainedDeficit:
            return "Likely limiter: hidden internal package-budget or soak limit.";
    }
    return "No dominant limiter was detected in this window.";
}

}  // namespace

std::optional<double> PeakPerformanceAnalysis::clockRetentionPct() const {
    switch (domain) {
        case PeakPerformanceDomain::none: return std::nullopt;
        case PeakPerformanceDomain::cpu:
            if (!cpu.clockDeficit) return std::nullopt;
            return retention(*cpu.clockDeficit);
        case PeakPerformanceDomain::gpu:
            if (!gpu.clockDeficit) return std::nullopt;
            return retention(*gpu.clockDeficit);
        case PeakPerformanceDomain::combined:
            if (!cpu.clockDeficit || !gpu.clockDeficit) return std::nullopt;
            return (retention(*gpu.clockDeficit) + retention(*cpu.clockDeficit)) / 2;
    }
    return std::nullopt;
}

std::string peakPerformanceWindowToken(const std::string& trendWindowRawValue) {
    return trendWindowRawValue == "oneMinute" ? "1m" : "5m";
}

PeakPerformanceTint peakPerformanceTint(const PeakPerformanceAnalysis& analysis) {
    const auto value = analysis.clockRetentionPct();
    if (!value) return PeakPerformanceTint::secondary;
    if (*value >= 0.98) return PeakPerformanceTint::green;
    if (*value >= 0.93) return PeakPerformanceTint::yellow;
    return PeakPerformanceTint::red;  // NaN lands here too
}

std::string peakPerformanceValueText(const PeakPerformanceAnalysis& analysis) {
    const auto value = analysis.clockRetentionPct();
    if (analysis.domain == PeakPerformanceDomain::none || !value) return "\u2014";
    return format("%.1f%%", std::max(0.0, *value) * 100);
}

std::vector<std::string> waitingPeakPerformanceDomains(const PeakPerformanceAnalysis& analysis) {
    std::vector<std::string> waiting;
    if (!analysis.cpu.referenceReady) waiting.push_back("CPU");
    if (!analysis.gpu.referenceReady) waiting.push_back("GPU");
    return waiting;
}

std::string formatPerformanceLevel(double level) {
    const double rounded = std::round(level);
    if (std::fabs(rounded - level) < 0.05) return format("%.0f", rounded);
    return format("%.1f", level);
}

std::string gpuPeakPerformanceHelp(const GPUClockWindowAnalysis& gpu,
                                   const std::string& windowToken) {
    const int n = gpu.highLoadSampleCount;
    if (n < 1)
        return "No high-load GPU samples are present in the current " + windowToken + " window.";
    std::string text =
        "Peak Performance shows realized GPU clock as a share of the learned high-load reference "
        "across " +
        samples(n) + " in the current " + windowToken +
        " window. 100% means the GPU kept its learned high-load ceiling. Current result: " +
        percent(gpu.clockDeficit) + ".";
    if (gpu.probeConsistency == GPUProbeConsistency::incoherent) {
        text +=
            " Granted and deficit GPU state probes were internally inconsistent on this machine, "
            "so they were ignored for throttle and limiter conclusions.";
    } else if (gpu.probeSampleCount >= 1 && gpu.averageRequestedState && gpu.averageGrantedState &&
               gpu.averageStateDeficit) {
        text += " Average requested versus granted GPU state was P" +
                formatPerformanceLevel(*gpu.averageRequestedState) + " to P" +
                formatPerformanceLevel(*gpu.averageGrantedState) + ", with an average deficit of " +
                format("%.2f", *gpu.averageStateDeficit) + " state levels.";
    } else {
        text += " Requested and granted GPU state probes were unavailable in this window.";
    }
    const int c = gpu.constrainedSampleCount;
    text += " " + std::to_string(c) + " of " + std::to_string(n) + " high-load samples (" +
            format("%.0f", static_cast<double>(c) / n * 100) + "%) were meaningfully constrained.";
    text += " " + limiterSentence(gpu.limiter);
    return text;
}

std::string combinedPeakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                        const std::string& windowToken) {
    const int nc = analysis.cpu.highLoadSampleCount;
    const int ng = analysis.gpu.highLoadSampleCount;
    if (nc < 1 || ng < 1)
        return "No qualified simultaneous high-load CPU and GPU samples are present in the "
               "current " +
               windowToken + " window.";
    const auto combined = analysis.clockRetentionPct();
    return "Peak Performance averages CPU and GPU realized high-load retention when both domains "
           "are qualified in the current " +
           windowToken + " window. CPU retained " + percent(analysis.cpu.clockDeficit) +
           " across " + samples(nc) + "; GPU retained " + percent(analysis.gpu.clockDeficit) +
           " across " + samples(ng) +
           ". Combined result: " + (combined ? format("%.1f%%", *combined * 100) : "\u2014") + ".";
}

std::string peakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                const std::string& windowToken) {
    switch (analysis.domain) {
        case PeakPerformanceDomain::none: {
            const auto waiting = waitingPeakPerformanceDomains(analysis);
            if (waiting.empty())
                return "No qualified high-load CPU or GPU samples are present in the current " +
                       windowToken + " window.";
            std::string names = waiting[0];
            for (std::size_t i = 1; i < waiting.size(); ++i) names += " and " + waiting[i];
            return "Kelvo is still learning this machine's " + names +
                   " high-load clock reference" + (waiting.size() == 2 ? "s" : "") +
                   ". Peak Performance stays blank until a learned reference is available and "
                   "qualified load appears in the current " +
                   windowToken + " window.";
        }
        case PeakPerformanceDomain::cpu: {
            const int n = analysis.cpu.highLoadSampleCount;
            const std::string result =
                analysis.cpu.clockDeficit && n >= 1 ? percent(analysis.cpu.clockDeficit) : "\u2014";
            return "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
                   "high-load reference across " +
                   samples(n) + " in the current " + windowToken +
                   " window. 100% means the CPU kept its learned high-load ceiling. Current "
                   "result: " +
                   result + ".";
        }
        case PeakPerformanceDomain::gpu: return gpuPeakPerformanceHelp(analysis.gpu, windowToken);
        case PeakPerformanceDomain::combined:
            return combinedPeakPerformanceHelp(analysis, windowToken);
    }
    return {};
}

}  // namespace kelvo
