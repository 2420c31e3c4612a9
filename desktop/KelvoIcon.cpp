#include "desktop/KelvoIcon.h"

#include <QGuiApplication>
#include <QPixmap>

namespace kelvo {

QIcon kelvoApplicationIcon() {
    QIcon icon;
    for (int size : {16, 18, 24, 32, 48, 64, 128, 256})
        icon.addFile(QStringLiteral(":/kelvo/icons/kelvo-%1.png").arg(size), QSize(size, size));
    return icon;
}

QIcon kelvoTrayIcon() {
    // Once set, the application's icon is this one already decoded; decoding the eight sizes a
    // second time cost the launch several milliseconds before the dashboard's first frame.
    const QIcon application = QGuiApplication::windowIcon();
    const QIcon& source = application.isNull() ? kelvoApplicationIcon() : application;
    return QIcon(source.pixmap(QSize(18, 18)));
}

}  // namespace kelvo
