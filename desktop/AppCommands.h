// Commands of the application that its windows offer (the dashboard's top bar), kept apart from
// the updater that carries them out so the dashboard does not depend on it.
#pragma once

#include <QObject>
#include <functional>

namespace kelvo {

class AppCommands : public QObject {
    Q_OBJECT
public:
    explicit AppCommands(std::function<void()> openSettings, QObject* parent = nullptr)
        : QObject(parent), openSettings_(std::move(openSettings)) {}

    Q_INVOKABLE void openSettings() {
        if (openSettings_) openSettings_();
    }

private:
    std::function<void()> openSettings_;
};

}  // namespace kelvo
