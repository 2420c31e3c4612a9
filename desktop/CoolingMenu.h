// The tray menu's "Cooling" submenu: the four control modes by name, the current one checked,
// each with a sentence on what it does. The window's slider offers only System and Kelvo (Quiet
// Hybrid); here every mode can be chosen, as with `kelvo --mode` and `kelvoctl mode`.
#pragma once

#include <QActionGroup>
#include <QMenu>
#include <QPointer>

#include "foundation/core/Types.h"

namespace kelvo {

class AppRuntime;

class CoolingMenu : public QMenu {
    Q_OBJECT
public:
    explicit CoolingMenu(AppRuntime* runtime, QWidget* parent = nullptr);

    // What the mode does, in one sentence (the entry's tooltip and status tip).
    static QString describe(ControlMode mode);
    QAction* action(ControlMode mode) const;

private:
    void showMode();

    QPointer<AppRuntime> runtime_;
    QActionGroup* group_;
};

}  // namespace kelvo
