// Desktop notifications through org.freedesktop.Notifications. Capabilities are asked once per
// process, lazily, right before the first notification (the desktop's equivalent of asking for
// permission); a desktop without a notification service is ignored.
#pragma once

#include <QObject>
#include <QString>
#include <functional>

namespace kelvo {

class NotificationCoordinator : public QObject {
    Q_OBJECT
public:
    using Sink = std::function<void(const QString& title, const QString& body)>;

    explicit NotificationCoordinator(QObject* parent = nullptr);

    bool authorizationRequested() const { return authorizationRequested_; }
    void post(const QString& title, const QString& body);

    // Tests observe what would be shown; the D-Bus delivery still happens.
    void setObserver(Sink observer) { observer_ = std::move(observer); }

signals:
    void posted(const QString& title, const QString& body);

private:
    void requestAuthorization();

    bool authorizationRequested_ = false;
    Sink observer_;
};

}  // namespace kelvo
