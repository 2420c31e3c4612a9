#include "desktop/RuntimeTrendModel.h"

#include <QPointer>

#include "app/AppRuntime.h"

namespace kelvo {

TrendSectionModel* makeRuntimeTrendModel(AppRuntime* runtime, QSettings* settings,
                                         QObject* parent) {
    auto* model = new TrendSectionModel(
        runtime->live(),
        [runtime = QPointer<AppRuntime>(runtime)] {
            return runtime ? runtime->mode() : ControlMode::systemAuto;
        },
        settings, parent);
    QObject::connect(runtime, &AppRuntime::modeChanged, model, &TrendSectionModel::refresh);
    return model;
}

}  // namespace kelvo
