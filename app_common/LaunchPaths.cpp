#include "app_common/LaunchPaths.h"

#include <optional>

namespace kelvo {

LaunchPaths LaunchPaths::fromArguments(const QStringList& arguments) {
    LaunchPaths paths;
    auto value = [&arguments](const QString& name) -> std::optional<QString> {
        for (qsizetype i = 0; i < arguments.size(); ++i) {
            if (arguments[i] == name && i + 1 < arguments.size()) return arguments[i + 1];
            if (arguments[i].startsWith(name + QLatin1Char('=')))
                return arguments[i].mid(name.size() + 1);
        }
        return std::nullopt;
    };
    if (auto root = value(QStringLiteral("--sysfs-root")); root && !root->isEmpty())
        paths.sysfsRoot = root->toStdString();
    if (auto socket = value(QStringLiteral("--helper-socket")); socket && !socket->isEmpty())
        paths.helperSocket = socket->toStdString();
    return paths;
}

}  // namespace kelvo
