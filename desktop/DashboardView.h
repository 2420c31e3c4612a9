// The dashboard window's content: the QML dashboard with the runtime's stores, the capture
// view model and the trend section in its context. Titled "Kelvo", 900×700 when created.
#pragma once

#include <QQuickView>
#include <QSettings>

namespace kelvo {

class AppRuntime;
class DashboardViewModel;
class TrendSectionModel;

class DashboardView : public QQuickView {
    Q_OBJECT
public:
    static constexpr int kInitialWidth = 900;
    static constexpr int kInitialHeight = 700;

    // `capture` is the object the capture card binds to; it may be null (a runtime built without
    // a capture coordinator): the capture card then stays empty.
    DashboardView(AppRuntime* runtime, QObject* capture, QSettings* settings);

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

    DashboardViewModel* viewModel_;
    TrendSectionModel* trendModel_;
};

}  // namespace kelvo
