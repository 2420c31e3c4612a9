// Kelvo's own icon set (drawn for Kelvo, shipped as SVG and PNG sizes).
#pragma once

#include <QIcon>

namespace kelvo {

QIcon kelvoApplicationIcon();
// The application's icon once it is set (this same icon, already decoded), else the icon decoded
// now: decoding the eight sizes again costs the launch milliseconds before the first frame.
QIcon kelvoDecodedIcon();
// The tray item's image: the application icon at 18×18, in colour.
QIcon kelvoTrayIcon();

}  // namespace kelvo
