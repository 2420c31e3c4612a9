// Kelvo's own icon set (drawn for Kelvo, shipped as SVG and PNG sizes).
#pragma once

#include <QIcon>

namespace kelvo {

QIcon kelvoApplicationIcon();
// The tray item's image: the application icon at 18×18, in colour.
QIcon kelvoTrayIcon();

}  // namespace kelvo
