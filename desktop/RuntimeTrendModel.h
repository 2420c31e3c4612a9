// The trend section bound to the runtime: it reads the runtime's mode and recomputes when the
// mode changes. The dashboard models know only a mode provider; the binding lives here.
#pragma once

#include <QSettings>

#include "dashboard/TrendSectionModel.h"

namespace kelvo {

class AppRuntime;

// `parent` owns the model (or the caller does, when it is null).
TrendSectionModel* makeRuntimeTrendModel(AppRuntime* runtime, QSettings* settings, QObject* parent);

}  // namespace kelvo
