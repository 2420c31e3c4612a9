#include "desktop/DashboardView.h"

#include <QQmlContext>
#include <QQuickItem>

#include "app/AppRuntime.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/DashboardLayout.h"
#include "desktop/DashboardViewModel.h"
#include "desktop/RuntimeTrendModel.h"
#include "trend_render/FixedViewportTrendView.h"

namespace kelvo {

DashboardView::DashboardView(AppRuntime* runtime, QObject* capture, QSettings* settings)
    : viewModel_(new DashboardViewModel(runtime, this)),
      trendModel_(makeRuntimeTrendModel(runtime, settings, this)) {
    FixedViewportTrendView::registerQmlTypes();
    setTitle(QStringLiteral("Kelvo"));
    setResizeMode(QQuickView::SizeRootObjectToView);
    QQmlContext* context = rootContext();
    context->setContextProperty(QStringLiteral("dashboard"), viewModel_);
    context->setContextProperty(QStringLiteral("trend"), trendModel_);
    context->setContextProperty(QStringLiteral("live"), runtime->live());
    context->setContextProperty(QStringLiteral("fanSettings"), runtime->fanSettings());
    context->setContextProperty(QStringLiteral("capture"), capture);
    context->setContextProperty(QStringLiteral("layout"), dashboard_layout::dashboardLayoutMap());
    context->setContextProperty(QStringLiteral("appCommands"), nullptr);
    setSource(QUrl(QStringLiteral("qrc:/kelvo/dashboard/Dashboard.qml")));
    resize(kInitialWidth, kInitialHeight);
    // The view sizes its root only when the two differ; a root that was never sized follows its
    // own implicit height, so content that grew after the window was sized to it would run past
    // the window's bottom with nothing to scroll. Sizing it once ties it to the view for good.
    if (QQuickItem* root = rootObject()) root->setSize(QSizeF(kInitialWidth, kInitialHeight));
}

void DashboardView::setAppCommands(QObject* commands) {
    rootContext()->setContextProperty(QStringLiteral("appCommands"), commands);
}

double DashboardView::fittingContentHeight() const {
    const QQuickItem* root = rootObject();
    return root ? root->implicitHeight() : 0;
}

}  // namespace kelvo
