#include "app_common/FanSettings.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStringList>
#include <cstdio>

namespace kelvo::fan_settings {

const char* limitKey(UserLimitKind kind) {
    switch (kind) {
        case UserLimitKind::cpuQuiet: return cpuQuietKey;
        case UserLimitKind::gpuQuiet: return gpuQuietKey;
        case UserLimitKind::performanceTarget: return performanceTargetKey;
    }
    return cpuQuietKey;
}

bool readShare(QSettings& settings, std::string* problem) {
    const QVariant value = settings.value(shareKey);
    if (!value.isValid()) return true;
    const QString text = value.toString().trimmed();
    if (text == QLatin1String("on")) return true;
    if (text == QLatin1String("off")) return false;
    if (problem)
        *problem = std::string("The stored sharing of the work among the fans (") + shareKey +
                   " = '" + text.left(40).toStdString() +
                   "') is neither 'on' nor 'off': it stays on until it is set again with "
                   "kelvoctl fans share on|off or in the Fans pane";
    return true;
}

void writeShare(QSettings& settings, bool share) {
    settings.setValue(shareKey, share ? QStringLiteral("on") : QStringLiteral("off"));
    settings.sync();
}

namespace {
// What the user can do about an entry that cannot be read.
std::string fixHint(const std::string& identity) {
    return "kelvoctl fan " + identity + " auto|firmware|fixed N, or the Fans pane";
}

FanChoice unreadable(std::string problem) {
    FanChoice choice;
    choice.kind = FanChoiceKind::firmware;
    choice.problem = std::move(problem);
    return choice;
}
}  // namespace

FanChoices readChoices(QSettings& settings) {
    FanChoices choices;
    const QVariant value = settings.value(choicesKey);
    if (!value.isValid()) return choices;
    // An unquoted hand-written value with commas comes back from QSettings split at them.
    const QString text = value.typeId() == QMetaType::QStringList
                             ? value.toStringList().join(QLatin1Char(','))
                             : value.toString();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        const std::string why = error.error != QJsonParseError::NoError
                                    ? error.errorString().toStdString() + " at character " +
                                          std::to_string(error.offset)
                                    : std::string("it is not a JSON object");
        // Nothing in it can be trusted, so nothing is driven until the user says again.
        choices[kEveryOtherFan] = unreadable(
            std::string("The fan choices (") + choicesKey + ") cannot be read (" + why +
            "): every fan is left to the firmware until they are set again with kelvoctl fan ID "
            "auto|firmware|fixed N or in the Fans pane, which rewrites the whole setting");
        return choices;
    }
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const std::string identity = it.key().toStdString();
        if (!it.value().isString()) {
            choices[identity] = unreadable(
                "cannot be read (it is not text): the fan is left to "
                "the firmware until the choice is fixed (" +
                fixHint(identity) + ")");
            continue;
        }
        const std::string stored = it.value().toString().toStdString();
        FanChoice kindless;
        kindless.kindGiven = false;
        std::string why;
        if (auto choice = parseFanChoice(stored, kindless, &why)) {
            choices[identity] = *choice;
            continue;
        }
        choices[identity] = unreadable("cannot be read ('" + stored + "': " + why +
                                       "): the fan is left to the firmware until the choice is "
                                       "fixed (" +
                                       fixHint(identity) + ")");
    }
    return choices;
}

void writeChoices(QSettings& settings, const FanChoices& choices) {
    QJsonObject object;
    for (const auto& [identity, choice] : choices) {
        // The stand-in for an unreadable value goes: what is written now is readable.
        if (identity == kEveryOtherFan) continue;
        object.insert(QString::fromStdString(identity),
                      QString::fromStdString(formatFanChoice(choice)));
    }
    settings.setValue(choicesKey,
                      QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    settings.sync();
}

UserLimits readLimits(QSettings& settings, const DieCriticalTemperatures& critical,
                      std::vector<std::string>* problems) {
    UserLimits limits;
    for (auto kind :
         {UserLimitKind::cpuQuiet, UserLimitKind::gpuQuiet, UserLimitKind::performanceTarget}) {
        const QVariant stored = settings.value(limitKey(kind));
        if (!stored.isValid()) continue;
        bool ok = false;
        const double value = stored.toDouble(&ok);
        std::string refusal;
        if (!ok)
            refusal = "not a number";
        else
            refusal = userLimitRefusal(kind, value, critical);
        if (refusal.empty()) {
            setUserLimit(limits, kind, value);
            continue;
        }
        if (problems) {
            char fallback[32];
            std::snprintf(fallback, sizeof fallback, "%.0f", userLimit(limits, kind));
            problems->push_back(std::string("The stored ") + userLimitName(kind) + " '" +
                                stored.toString().toStdString() + "' (" + limitKey(kind) +
                                ") cannot be used (" + refusal + "): " + fallback +
                                " °C is used until it is set again (the Fans pane or kelvoctl)");
        }
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

std::optional<QString> readMeasureAgainRequest(QSettings& settings) {
    const QString id = settings.value(measureAgainRequestKey).toString().trimmed();
    if (id.isEmpty()) return std::nullopt;
    return id;
}

void writeMeasureAgainRequest(QSettings& settings, const QString& id) {
    settings.setValue(measureAgainRequestKey, id);
    settings.sync();
}

void writeCalibrationRequest(QSettings& settings, const CalibrationRequest& request) {
    settings.setValue(calibrationRequestKey,
                      request.id + QLatin1Char(' ') + QString::fromStdString(request.identity));
    settings.sync();
}

}  // namespace kelvo::fan_settings
