// One Kelvo per session: the first launch owns "org.kelvo.Kelvo" on the session bus, and a later
// launch (the desktop entry clicked again) asks it to reopen instead of starting a second
// runtime on the same fans.
#pragma once

#include <QObject>
#include <QPointer>

namespace kelvo {

class AppLifecycleController;

class ReopenBridge : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kelvo.Application")
public:
    static constexpr const char* kService = "org.kelvo.Kelvo";
    static constexpr const char* kPath = "/org/kelvo/Kelvo";
    static constexpr const char* kInterface = "org.kelvo.Application";

    enum class Claim { owned, alreadyRunning, noBus };
    // Takes the session's name when free; otherwise asks the owner to reopen.
    static Claim claimOrForward();

    explicit ReopenBridge(AppLifecycleController* controller, QObject* parent = nullptr);
    // Serves Reopen on the session bus; false without a bus.
    bool publish();

public slots:
    void Reopen();

private:
    QPointer<AppLifecycleController> controller_;
};

}  // namespace kelvo
