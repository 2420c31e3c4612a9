// Which fan back-end and telemetry a launch asks for: read from the launch flags alone, then
// built into the real objects.
#pragma once

#include <QStringList>
#include <memory>

#include "app_common/LaunchPaths.h"
#include "foundation/core/FanController.h"
#include "foundation/core/TelemetryProvider.h"

namespace kelvo {

struct FanBackendSelection {
    // The flags, strongest first: --harness-simulated-fans, the helper-only flag,
    // --local-only-fans; without any of them the hybrid back-end.
    enum class Backend { simulated, helperOnly, localOnly, hybrid };

    Backend backend = Backend::hybrid;
    // --hybrid-fans: the hybrid back-end may write locally when the helper cannot.
    bool allowLocalWriteFallback = false;
    // --sim-follow-host-load: a simulated machine's load follows this machine's.
    bool simulationFollowsHostLoad = false;
    LaunchPaths paths;

    static FanBackendSelection fromArguments(const QStringList& arguments);

    std::shared_ptr<FanController> makeFanController() const;
    // Telemetry that matches `fans` (which may be a test's replacement, not this selection's):
    // simulated fans get the temperatures of their own simulated machine, everything else reads
    // the machine under `paths`.
    std::shared_ptr<TelemetryProvider> makeTelemetryProvider(
        const std::shared_ptr<FanController>& fans) const;
};

}  // namespace kelvo
