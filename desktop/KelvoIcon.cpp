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

QIcon kelvoDecodedIcon() {
    const QIcon application = QGuiApplication::windowIcon();
    return application.isNull() ? kelvoApplicationIcon() : application;
}

QIcon kelvoTrayIcon() {
    return QIcon(kelvoDecodedIcon().pixmap(QSize(18, 18)));
}

}  // namespace kelvo
