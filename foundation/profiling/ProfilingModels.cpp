#include "foundation/profiling/ProfilingModels.h"

#include <algorithm>
#include <cmath>

namespace kelvo::ProfilingModels {

bool isHighLoad(const TelemetrySample& sample) {
    const auto utilization = sample.maxUtilizationPct();
    return utilization && *utilization >= kHighLoadUtilizationPct && sample.totalPowerW &&
           *sample.totalPowerW >= kHighLoadPowerW;
}

std::optional<double> percentile(std::vector<double> values, double fraction) {
    std::erase_if(values, [](double v) { return !std::isfinite(v); });
    if (values.empty()) return std::nullopt;
    std::sort(values.begin(), values.end());
    const double rank = std::clamp(fraction, 0.0, 1.0) * static_cast<double>(values.size() - 1);
    const auto lower = static_cast<std::size_t>(std::floor(rank));
    const auto upper = std::min(lower + 1, values.size() - 1);
    const double weight = rank - static_cast<double>(lower);
    return values[lower] + (values[upper] - values[lower]) * weight;
}

std::optional<LearnedModel> deriveLearnedModel(const std::vector<TelemetrySample>& samples,
                                               const std::optional<LearnedModel>& baseline,
                                               Timestamp now) {
    if (samples.empty()) return std::nullopt;
    std::vector<double> cpuClocks, gpuClocks, temperatures;
    bool loaded = false;
    for (const auto& sample : samples) {
        if (auto hottest = sample.hottestTemperatureC()) temperatures.push_back(*hottest);
        if (!isHighLoad(sample)) continue;
        loaded = true;
        if (sample.cpuClockMHz) cpuClocks.push_back(*sample.cpuClockMHz);
        if (sample.gpuClockMHz) gpuClocks.push_back(*sample.gpuClockMHz);
    }
    // An idle run says nothing about high-load behaviour: it must not replace what is known.
    if (!loaded) {
        if (!baseline) return std::nullopt;
        LearnedModel kept = *baseline;
        kept.createdAt = now;
        return kept;
    }
    LearnedModel model;
    model.source = "kelvo";
    model.createdAt = now;
    const LearnedModel base = baseline.value_or(LearnedModel{});
    model.cpuReferenceClockMHz = percentile(cpuClocks, kClockPercentile);
    if (!model.cpuReferenceClockMHz) model.cpuReferenceClockMHz = base.cpuReferenceClockMHz;
    model.gpuReferenceClockMHz = percentile(gpuClocks, kClockPercentile);
    if (!model.gpuReferenceClockMHz) model.gpuReferenceClockMHz = base.gpuReferenceClockMHz;
    model.temperatureReferenceC = percentile(temperatures, kTemperaturePercentile);
    if (!model.temperatureReferenceC) model.temperatureReferenceC = base.temperatureReferenceC;
    return model;
}

AdaptiveModelRefreshResult fitAdaptiveLeadModel(const std::vector<TelemetrySample>& samples,
                                                const std::optional<AdaptiveLeadModel>& previous,
                                                Timestamp now) {
    const double threshold =
        previous ? previous->utilizationThresholdPct : AdaptiveLeadModel{}.utilizationThresholdPct;
    AdaptiveModelRefreshResult result;
    std::vector<double> leadsMs;
    int misses = 0;
    bool wasLoaded = true;  // a run that starts loaded has no rise to time
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto utilization = samples[i].maxUtilizationPct();
        if (!utilization) continue;
        const bool loaded = *utilization >= threshold;
        const bool rise = loaded && !wasLoaded;
        wasLoaded = loaded;
        const auto startTemperature = samples[i].hottestTemperatureC();
        if (!rise || !startTemperature) continue;
        ++result.loadRises;
        std::optional<double> lead;
        for (std::size_t j = i + 1; j < samples.size(); ++j) {
            const double elapsed = samples[j].timestamp - samples[i].timestamp;
            if (elapsed > kLeadWindowSeconds) break;
            const auto temperature = samples[j].hottestTemperatureC();
            if (temperature && *temperature >= *startTemperature + kLeadTemperatureRiseC) {
                lead = elapsed;
                break;
            }
        }
        if (lead)
            leadsMs.push_back(*lead * 1000.0);
        else
            ++misses;
    }
    if (result.loadRises == 0) return result;
    AdaptiveLeadModel model;
    if (previous) model.name = previous->name;
    model.version = previous ? previous->version + 1 : 1;
    model.createdAt = now;
    model.utilizationThresholdPct = threshold;
    double sum = 0;
    for (double lead : leadsMs) sum += lead;
    model.averageLeadMs = leadsMs.empty() ? 0 : sum / static_cast<double>(leadsMs.size());
    model.misses = misses;
    result.model = model;
    return result;
}

}  // namespace kelvo::ProfilingModels
