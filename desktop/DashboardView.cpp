#include "desktop/DashboardView.h"

#include <cctype>
#include <cmath>

#include <QEvent>
#include <QGuiApplication>
#include <QMetaEnum>
#include <QPalette>
#include <QQmlContext>
#include <QQuickGraphicsConfiguration>
#include <QQuickItem>
#include <QRegularExpression>
#include <QSurfaceFormat>

#include "app/AppRuntime.h"
#include "dashboard/SystemColors.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/DashboardLayout.h"
#include "desktop/DashboardViewModel.h"
#include "desktop/RuntimeTrendModel.h"
#include "trend_render/FixedViewportTrendView.h"

namespace kelvo {

DashboardView::DashboardView(AppRuntime* runtime, QObject* capture, QSettings* settings,
                             const QUrl& source)
    : viewModel_(new DashboardViewModel(runtime, this)),
      trendModel_(makeRuntimeTrendModel(runtime, settings, this)) {
    FixedViewportTrendView::registerQmlTypes();
    useCheapRendering();
    followPaletteBackground();
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
    setSource(source);
    if (status() == QQuickView::Error) loadProblem_ = describeLoadErrors(errors());
    resize(kInitialWidth, kInitialHeight);
    // The view sizes its root only when the two differ; a root that was never sized follows its
    // own implicit height, so content that grew after the window was sized to it would run past
    // the window's bottom with nothing to scroll. Sizing it once ties it to the view for good.
    if (QQuickItem* root = rootObject()) root->setSize(QSizeF(kInitialWidth, kInitialHeight));
}

// Every frame repaints the whole window, and on a machine without a GPU (a VM, a remote desktop)
// Mesa's software rasteriser pays for each pixel on the CPU Kelvo is cooling. The dashboard is
// flat and two-dimensional, so it needs no depth buffer (measured under Xvfb: 3.3 ms a frame on
// an empty 1366×740 window); its text is drawn from the platform's glyph cache rather than as
// distance fields, whose per-pixel shader cost 4.6 ms a frame at 900×700; and the window's own
// clear paints the background, so no item fills the whole window again.
void DashboardView::useCheapRendering() {
    QQuickGraphicsConfiguration config = graphicsConfiguration();
    config.setDepthBufferFor2D(false);
    setGraphicsConfiguration(config);
    // Without these OpenGL still attaches a depth and stencil buffer and clears them each frame.
    // Every clip on the dashboard is a rectangle, which the scene graph does with a scissor.
    QSurfaceFormat surface = format();
    surface.setDepthBufferSize(0);
    surface.setStencilBufferSize(0);
    setFormat(surface);
    // Applies to the text items created after it: set before the QML loads.
    QQuickWindow::setTextRenderType(QQuickWindow::NativeTextRendering);
}

// The window's clear paints the dashboard's background (an item filling the window would paint
// every pixel twice a frame), in the colour the QML's SystemPalette gives the window.
void DashboardView::followPaletteBackground() {
    const QPalette palette = QGuiApplication::palette();
    setColor(palette.color(QPalette::Active, QPalette::Window));
    rootContext()->setContextProperty(QStringLiteral("secondaryTextColor"),
                                      secondaryTextColor(palette));
    // The grey a status tint has when there is no status; text in it reads as secondary text.
    rootContext()->setContextProperty(QStringLiteral("neutralTint"), SystemColor::secondary);
}

// Qt updates the palette of the controls that exist when the desktop's palette changes, but the
// window keeps the one it resolved first, and controls made later (a surface built when it is
// first shown) take theirs from it. The window's palette is given every colour of the new one.
void DashboardView::followPaletteInControls() {
    const QVariant windowPalette = property("palette");
    auto* quickPalette = windowPalette.value<QObject*>();
    if (!quickPalette) return;
    const QPalette palette = QGuiApplication::palette();
    const QMetaEnum roles = QMetaEnum::fromType<QPalette::ColorRole>();
    const std::pair<const char*, QPalette::ColorGroup> groups[] = {
        {"active", QPalette::Active},
        {"inactive", QPalette::Inactive},
        {"disabled", QPalette::Disabled}};
    for (const auto& [groupName, group] : groups) {
        auto* colors = quickPalette->property(groupName).value<QObject*>();
        if (!colors) continue;
        for (int r = 0; r < roles.keyCount(); ++r) {
            const auto role = QPalette::ColorRole(roles.value(r));
            if (role >= QPalette::NColorRoles) continue;
            QByteArray name(roles.key(r));
            name[0] = char(std::tolower(name[0]));
            if (colors->metaObject()->indexOfProperty(name.constData()) >= 0)
                colors->setProperty(name.constData(), palette.color(group, role));
        }
    }
}

QColor DashboardView::secondaryTextColor(const QPalette& palette) {
    const QColor text = palette.color(QPalette::Active, QPalette::WindowText);
    const QColor back = palette.color(QPalette::Active, QPalette::Window);
    constexpr double kTowardBackground = 0.4;
    const auto mix = [](double a, double b) { return a + (b - a) * kTowardBackground; };
    return QColor::fromRgbF(static_cast<float>(mix(text.redF(), back.redF())),
                            static_cast<float>(mix(text.greenF(), back.greenF())),
                            static_cast<float>(mix(text.blueF(), back.blueF())));
}

double DashboardView::contrastRatio(const QColor& a, const QColor& b) {
    const auto channel = [](double c) {
        return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    const auto luminance = [&](const QColor& c) {
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) +
               0.0722 * channel(c.blueF());
    };
    const double la = luminance(a);
    const double lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

QString DashboardView::describeLoadErrors(const QList<QQmlError>& errors) {
    if (errors.isEmpty()) return QStringLiteral("The dashboard window cannot open.");
    const QString first = errors.first().description();
    QString sentence = QStringLiteral("The dashboard window cannot open: %1").arg(first);
    // Debian ships QML module A.B as qml6-module-a-b; a package that lacks one in its
    // dependencies, or a module removed by hand, is the usual cause.
    static const QRegularExpression missing(QStringLiteral(
        R"re(module "([A-Za-z0-9_.]+)" is not installed|([A-Za-z0-9_.]+) not found)re"));
    const QRegularExpressionMatch match = missing.match(first);
    if (match.hasMatch()) {
        const QString module = match.captured(1).isEmpty() ? match.captured(2) : match.captured(1);
        sentence += QStringLiteral(". Install it with: sudo apt install qml6-module-%1")
                        .arg(module.toLower().replace(QLatin1Char('.'), QLatin1Char('-')));
    }
    if (!sentence.endsWith(QLatin1Char('.'))) sentence += QLatin1Char('.');
    return sentence;
}

bool DashboardView::event(QEvent* event) {
    const bool handled = QQuickView::event(event);
    if (event->type() == QEvent::ApplicationPaletteChange) {
        followPaletteBackground();
        followPaletteInControls();
    }
    return handled;
}

void DashboardView::setAppCommands(QObject* commands) {
    rootContext()->setContextProperty(QStringLiteral("appCommands"), commands);
}

double DashboardView::fittingContentHeight() const {
    const QQuickItem* root = rootObject();
    return root ? root->implicitHeight() : 0;
}

}  // namespace kelvo
