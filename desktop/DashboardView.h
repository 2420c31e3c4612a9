// The dashboard window's content: the QML dashboard with the runtime's stores, the capture
// view model and the trend section in its context. Titled "Kelvo", 900×700 when created.
#pragma once

#include <QColor>
#include <QList>
#include <QPalette>
#include <QQmlError>
#include <QQuickView>
#include <QSettings>
#include <QUrl>

namespace kelvo {

class AppRuntime;
class DashboardViewModel;
class TrendSectionModel;

class DashboardView : public QQuickView {
    Q_OBJECT
public:
    static constexpr int kInitialWidth = 900;
    static constexpr int kInitialHeight = 700;

    static QUrl defaultSource() {
        return QUrl(QStringLiteral("qrc:/kelvo/dashboard/Dashboard.qml"));
    }

    // `capture` is the object the capture card binds to; it may be null (a runtime built without
    // a capture coordinator): the capture card then stays empty.
    DashboardView(AppRuntime* runtime, QObject* capture, QSettings* settings,
                  const QUrl& source = defaultSource());

    // Why the dashboard's QML could not be loaded, in a sentence a user can act on; empty when
    // it loaded.
    const QString& loadProblem() const { return loadProblem_; }
    // That sentence for the engine's errors: the first one, and for a QML module that is not
    // installed, the Debian package that brings it.
    static QString describeLoadErrors(const QList<QQmlError>& errors);
    // Small secondary labels (metric names, the build, a toggle that is off): the window's text
    // blended 40 % toward its background, above 4.5:1 on light and dark palettes alike.
    static QColor secondaryTextColor(const QPalette& palette);
    // WCAG's contrast ratio of two opaque colours, from 1 to 21.
    static double contrastRatio(const QColor& a, const QColor& b);

    // Application commands the top bar offers (an object with an invokable openSettings()), or
    // null when there are none.
    void setAppCommands(QObject* commands);

    DashboardViewModel* viewModel() const { return viewModel_; }
    TrendSectionModel* trendModel() const { return trendModel_; }
    // The laid-out content's natural height (0 before the QML loaded).
    double fittingContentHeight() const;

protected:
    bool event(QEvent* event) override;

private:
    void useCheapRendering();
    void followPaletteBackground();
    void followPaletteInControls();

    DashboardViewModel* viewModel_;
    TrendSectionModel* trendModel_;
    QString loadProblem_;
};

}  // namespace kelvo
