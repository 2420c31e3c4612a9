#include "app/FanBackendSelection.h"

#include "app_common/Legacy.h"
#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/HybridFanController.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/helper_protocol/HelperCounterReader.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "foundation/telemetry/SystemTelemetryProvider.h"

namespace kelvo {

namespace {
std::shared_ptr<LocalFanController> makeLocalController(const LaunchPaths& paths) {
    return std::make_shared<LocalFanController>(std::make_shared<HwmonFanService>(paths.sysfsRoot));
}
}  // namespace

FanBackendSelection FanBackendSelection::fromArguments(const QStringList& arguments) {
    FanBackendSelection selection;
    selection.paths = LaunchPaths::fromArguments(arguments);
    if (arguments.contains(QStringLiteral("--harness-simulated-fans")))
        selection.backend = Backend::simulated;
    else if (arguments.contains(QString::fromLatin1(legacy::kHelperOnlyFansFlag)))
        selection.backend = Backend::helperOnly;
    else if (arguments.contains(QStringLiteral("--local-only-fans")))
        selection.backend = Backend::localOnly;
    selection.allowLocalWriteFallback = arguments.contains(QStringLiteral("--hybrid-fans"));
    selection.simulationFollowsHostLoad =
        arguments.contains(QStringLiteral("--sim-follow-host-load"));
    return selection;
}

std::shared_ptr<FanController> FanBackendSelection::makeFanController() const {
    switch (backend) {
        case Backend::simulated: return std::make_shared<SimulatedFanController>();
        case Backend::helperOnly: return std::make_shared<HelperFanController>(paths.helperSocket);
        case Backend::localOnly: return makeLocalController(paths);
        case Backend::hybrid: break;
    }
    return std::make_shared<HybridFanController>(
        std::make_shared<HelperFanController>(paths.helperSocket), makeLocalController(paths),
        allowLocalWriteFallback);
}

std::shared_ptr<TelemetryProvider> FanBackendSelection::makeTelemetryProvider(
    const std::shared_ptr<FanController>& fans) const {
    // Simulated fans only make sense on a simulated machine: temperatures must answer to them.
    if (auto simulated = std::dynamic_pointer_cast<SimulatedFanController>(fans)) {
        simulated->machine()->setFollowHostLoad(simulationFollowsHostLoad);
        return std::make_shared<SimulatedTelemetryProvider>(simulated->machine());
    }
    // Current kernels make the RAPL energy counters root-only; the helper reads them for us.
    auto counters = std::make_shared<HelperCounterReader>(paths.helperSocket);
    SystemTelemetryOptions telemetry;
    telemetry.sysRoot = paths.sysfsRoot;
    telemetry.privilegedRead = [counters](const std::string& path) { return counters->read(path); };
    return std::make_shared<SystemTelemetryProvider>(std::move(telemetry));
}

}  // namespace kelvo
