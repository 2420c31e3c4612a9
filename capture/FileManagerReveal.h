// Shows an exported file or folder to the user: the desktop's file manager selects it
// (org.freedesktop.FileManager1.ShowItems on the session bus); without one, the folder that
// holds it is opened with the desktop's default handler.
#pragma once

#include <QString>

namespace kelvo {

void revealInFileManager(const QString& path);

}  // namespace kelvo
