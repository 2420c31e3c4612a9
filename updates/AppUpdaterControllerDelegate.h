// The update dialogs' delegate: supplies the version displayer they format versions with.
#pragma once

#include "updates/BuildAwareVersionDisplayer.h"

namespace kelvo {

class AppUpdaterControllerDelegate {
public:
    const BuildAwareVersionDisplayer& standardUserDriverRequestsVersionDisplayer() const {
        return versionDisplayer;
    }

    const BuildAwareVersionDisplayer versionDisplayer{};
};

}  // namespace kelvo
