// Where the real back-ends look, from the launch arguments; kelvo and kelvoctl read them alike.
#pragma once

#include <QStringList>
#include <string>

namespace kelvo {

// "--sysfs-root PATH" (a root holding sys/ and proc/, so a fake tree can stand in for the
// machine) and "--helper-socket PATH".
struct LaunchPaths {
    std::string sysfsRoot = "/";
    std::string helperSocket = "/run/kelvo/helper.sock";
    static LaunchPaths fromArguments(const QStringList& arguments);
};

}  // namespace kelvo
