#include "dashboard/PeakPerformanceHelp.h"

#include <cstdio>

#include "dashboard/PeakPerformanceFormat.h"

namespace kelvo {

namespace {

std::string highLoadSamples(int count) {
    return std::to_string(count) + (count == 1 ? " high-load sample" : " high-load samples");
}

std::string printed(const char* pattern, double value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string probeSentence(const GPUClockWindowAnalysis& gpu) {
    if (gpu.probeConsistency == GPUProbeConsistency::incoherent)
        return "Granted and deficit GPU state probes were internally inconsistent on this "
               "machine, so they were ignored for throttle and limiter conclusions.";
    if (gpu.probeSampleCount >= 1 && gpu.averageRequestedState && gpu.averageGrantedState &&
        gpu.averageStateDeficit)
        return "Average requested versus granted GPU state was P" +
               formatPerformanceLevel(*gpu.averageRequestedState) + " to P" +
               formatPerformanceLevel(*gpu.averageGrantedState) + ", with an average deficit of " +
               printed("%.2f", *gpu.averageStateDeficit) + " state levels.";
    return "Requested and granted GPU state probes were unavailable in this window.";
}

std::string limiterSentence(GPULimiter limiter) {
    switch (limiter) {
        case GPULimiter::none: break;
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

std::string peakPerformanceWindowToken(TrendWindowMode window) {
    return window == TrendWindowMode::oneMinute ? "1m" : "5m";
}

std::vector<std::string> waitingPeakPerformanceDomains(const PeakPerformanceAnalysis& analysis) {
    std::vector<std::string> waiting;
    if (!analysis.cpu.referenceReady) waiting.push_back("CPU");
    if (!analysis.gpu.referenceReady) waiting.push_back("GPU");
    return waiting;
}

std::string gpuPeakPerformanceHelp(const GPUClockWindowAnalysis& gpu, TrendWindowMode window) {
    const std::string token = peakPerformanceWindowToken(window);
    const int n = gpu.highLoadSampleCount;
    if (n < 1) return "No high-load GPU samples are present in the current " + token + " window.";
    const int c = gpu.constrainedSampleCount;
    return "Peak Performance shows realized GPU clock as a share of the learned high-load "
           "reference across " +
           highLoadSamples(n) + " in the current " + token +
           " window. 100% means the GPU kept its learned high-load ceiling. Current result: " +
           formatRetentionPercent(gpu.clockDeficit) + ". " + probeSentence(gpu) + " " +
           std::to_string(c) + " of " + std::to_string(n) + " high-load samples (" +
           printed("%.0f", static_cast<double>(c) / n * 100) +
           "%) were meaningfully constrained. " + limiterSentence(gpu.limiter);
}

std::string combinedPeakPerformanceHelp(const PeakPerformanceAnalysis& analysis,
                                        TrendWindowMode window) {
    const std::string token = peakPerformanceWindowToken(window);
    const int nc = analysis.cpu.highLoadSampleCount;
    const int ng = analysis.gpu.highLoadSampleCount;
    if (nc < 1 || ng < 1)
        return "No qualified simultaneous high-load CPU and GPU samples are present in the "
               "current " +
               token + " window.";
    const auto combined = analysis.clockRetentionPct();
    return "Peak Performance averages CPU and GPU realized high-load retention when both domains "
           "are qualified in the current " +
           token + " window. CPU retained " + formatRetentionPercent(analysis.cpu.clockDeficit) +
           " across " + highLoadSamples(nc) + "; GPU retained " +
           formatRetentionPercent(analysis.gpu.clockDeficit) + " across " + highLoadSamples(ng) +
           ". Combined result: " +
           (combined ? formatRetentionFraction(*combined) : kPeakPerformanceNoValue) + ".";
}

std::string peakPerformanceHelp(const PeakPerformanceAnalysis& analysis, TrendWindowMode window) {
    const std::string token = peakPerformanceWindowToken(window);
    switch (analysis.domain) {
        case PeakPerformanceDomain::none: {
            const auto waiting = waitingPeakPerformanceDomains(analysis);
            if (waiting.empty())
                return "No qualified high-load CPU or GPU samples are present in the current " +
                       token + " window.";
            std::string names = waiting.front();
            for (std::size_t i = 1; i < waiting.size(); ++i) names += " and " + waiting[i];
            return "Kelvo is still learning this machine's " + names +
                   " high-load clock reference" + (waiting.size() == 2 ? "s" : "") +
                   ". Peak Performance stays blank until a learned reference is available and "
                   "qualified load appears in the current " +
                   token + " window.";
        }
        case PeakPerformanceDomain::cpu: {
            const int n = analysis.cpu.highLoadSampleCount;
            const std::string result = analysis.cpu.clockDeficit && n >= 1
                                           ? formatRetentionPercent(analysis.cpu.clockDeficit)
                                           : kPeakPerformanceNoValue;
            return "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
                   "high-load reference across " +
                   highLoadSamples(n) + " in the current " + token +
                   " window. 100% means the CPU kept its learned high-load ceiling. Current "
                   "result: " +
                   result + ".";
        }
        case PeakPerformanceDomain::gpu: return gpuPeakPerformanceHelp(analysis.gpu, window);
        case PeakPerformanceDomain::combined: return combinedPeakPerformanceHelp(analysis, window);
    }
    return {};
}

}  // namespace kelvo
