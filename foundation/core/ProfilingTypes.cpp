#include "foundation/core/ProfilingTypes.h"

namespace kelvo {

std::string_view rawValue(ProfilingScenario scenario) {
    switch (scenario) {
        case ProfilingScenario::cpuStress: return "cpuStress";
        case ProfilingScenario::gpuStress: return "gpuStress";
        case ProfilingScenario::mixedStress: return "mixedStress";
        case ProfilingScenario::realWorkflow: return "realWorkflow";
    }
    return "cpuStress";
}

ProfilingScenario profilingScenarioFromRaw(std::string_view raw) {
    for (auto scenario : kAllProfilingScenarios)
        if (rawValue(scenario) == raw) return scenario;
    return ProfilingScenario::cpuStress;
}

}  // namespace kelvo
