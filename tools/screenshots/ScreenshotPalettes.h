// The dark palette the screenshots and the screenshot test show the dashboard in: a desktop's
// dark theme as Qt applications receive it.
#pragma once

#include <QColor>
#include <QPalette>

namespace kelvo {

inline QPalette darkDesktopPalette() {
    QPalette p;
    p.setColor(QPalette::Window, QColor(30, 31, 34));
    p.setColor(QPalette::WindowText, QColor(230, 230, 232));
    p.setColor(QPalette::Base, QColor(22, 23, 25));
    p.setColor(QPalette::AlternateBase, QColor(40, 41, 45));
    p.setColor(QPalette::Text, QColor(230, 230, 232));
    p.setColor(QPalette::Button, QColor(48, 49, 54));
    p.setColor(QPalette::ButtonText, QColor(230, 230, 232));
    p.setColor(QPalette::Mid, QColor(120, 122, 130));
    p.setColor(QPalette::Highlight, QColor(36, 132, 240));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::PlaceholderText, QColor(140, 141, 148));
    for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, QColor(110, 111, 116));
    return p;
}

}  // namespace kelvo
