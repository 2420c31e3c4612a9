#include "app_common/FanSettings.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace kelvo::fan_settings {

const char* limitKey(UserLimitKind kind) {
    switch (kind) {
        case UserLimitKind::cpuQuiet: return cpuQuietKey;
        case UserLimitKind::gpuQuiet: return gpuQuietKey;
        case UserLimitKind::performanceTarget: return performanceTargetKey;
    }
    return cpuQuietKey;
}

FanChoices readChoices(QSettings& settings) {
    FanChoices choices;
    const QJsonObject object =
        QJsonDocument::fromJson(settings.value(choicesKey).toString().toUtf8()).object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (auto choice = parseFanChoice(it.value().toString().toStdString()))
            choices[it.key().toStdString()] = *choice;
    }
    return choices;
}

void writeChoices(QSettings& settings, const FanChoices& choices) {
    QJsonObject object;
    for (const auto& [identity, choice] : choices)
        object.insert(QString::fromStdString(identity),
                      QString::fromStdString(formatFanChoice(choice)));
    settings.setValue(choicesKey,
                      QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    settings.sync();
}

UserLimits readLimits(QSettings& settings, const DieCriticalTemperatures& critical) {
    UserLimits limits;
    for (auto kind :
         {UserLimitKind::cpuQuiet, UserLimitKind::gpuQuiet, UserLimitKind::performanceTarget}) {
        bool ok = false;
        const double value = settings.value(limitKey(kind)).toDouble(&ok);
        if (ok && userLimitRefusal(kind, value, critical).empty())
            setUserLimit(limits, kind, value);
    }
    return limits;
}

void writeLimit(QSettings& settings, UserLimitKind kind, double valueC) {
    settings.setValue(limitKey(kind), valueC);
    settings.sync();
}

std::optional<CalibrationRequest> readCalibrationRequest(QSettings& settings) {
    const QString text = settings.value(calibrationRequestKey).toString().trimmed();
    const qsizetype space = text.indexOf(QLatin1Char(' '));
    if (space <= 0 || space + 1 >= text.size()) return std::nullopt;
    return CalibrationRequest{text.left(space), text.mid(space + 1).trimmed().toStdString()};
}

void writeCalibrationRequest(QSettings& settings, const CalibrationRequest& request) {
    settings.setValue(calibrationRequestKey,
                      request.id + QLatin1Char(' ') + QString::fromStdString(request.identity));
    settings.sync();
}

}  // namespace kelvo::fan_settings
