#include "app/FanSettingsModel.h"

#include <QVariantMap>
#include <algorithm>
#include <cmath>

#include "app_common/FanSettings.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/telemetry/DieCriticalTemperatures.h"

namespace kelvo {

namespace {
std::optional<UserLimitKind> limitKind(const QString& which) {
    if (which == QLatin1String("cpu")) return UserLimitKind::cpuQuiet;
    if (which == QLatin1String("gpu")) return UserLimitKind::gpuQuiet;
    if (which == QLatin1String("performance")) return UserLimitKind::performanceTarget;
    return std::nullopt;
}

const char* kindWord(FanChoiceKind kind) {
    switch (kind) {
        case FanChoiceKind::automatic: return "auto";
        case FanChoiceKind::firmware: return "firmware";
        case FanChoiceKind::fixed: return "fixed";
    }
    return "auto";
}
}  // namespace

FanSettingsModel::FanSettingsModel(QSettings* settings, std::string sysRoot, Apply apply,
                                   QObject* parent)
    : QObject(parent),
      settings_(settings),
      sysRoot_(std::move(sysRoot)),
      apply_(std::move(apply)),
      critical_(readDieCriticalTemperatures(sysRoot_)) {
    readLabels();
    choices_ = fan_settings::readChoices(*settings_);
    limits_ = readStoredLimits();
    readStoredShare();
    // A request left from before this start is old news: only later ones are acted on.
    handledRequest_ = fan_settings::readCalibrationRequest(*settings_);
    handledMeasureAgain_ = fan_settings::readMeasureAgainRequest(*settings_);
    rebuild();
}

QString FanSettingsModel::calibrationNote() {
    return QStringLiteral(
        "Runs the fan from full speed down to its lowest speed and to a stop where it stops, "
        "one held step at a time; it takes one to two minutes and the fan will be loud for part of "
        "it.");
}

QString FanSettingsModel::couplingText(const FanCoupling& coupling, bool shared, bool sharing) {
    const std::string mostly = coolsMostly(coupling);
    if (mostly.empty() && !sharing)
        return QStringLiteral(
            "Cooling not measured: sharing the work among the fans is off, so every fan follows "
            "one speed.");
    if (mostly.empty())
        return QStringLiteral(
            "Cooling not measured yet: in the quiet modes Kelvo measures it with small, slow speed "
            "changes while the machine is busy.");
    if (coolsMostlyKnown(coupling).empty())
        return QStringLiteral(
            "Cooling not known yet: the swells measured so far do not show which part this fan "
            "cools (confidence 0 %).");
    const auto percent = [](double share) { return std::lround(share * 100); };
    // The share says how much this fan matters beside the others for that die.
    QString shares;
    if (mostly == "CPU")
        shares = QStringLiteral("%1 % of the fans' CPU cooling, speed for speed")
                     .arg(percent(*coupling.cpuShare));
    else if (mostly == "GPU")
        shares = QStringLiteral("%1 % of the fans' GPU cooling, speed for speed")
                     .arg(percent(*coupling.gpuShare));
    else
        shares = QStringLiteral(
                     "%1 % of the fans' CPU cooling, %2 % of their GPU cooling, speed for speed")
                     .arg(percent(*coupling.cpuShare))
                     .arg(percent(*coupling.gpuShare));
    return QStringLiteral("Cools mostly: %1 (%2); confidence %3 %%4")
        .arg(QString::fromStdString(mostly), shares)
        .arg(percent(std::clamp(coupling.confidence, 0.0, 1.0)))
        .arg(shared ? QStringLiteral("; the quiet mode raises it first when the %1 needs air")
                          .arg(QString::fromStdString(mostly == "CPU and GPU" ? "CPU or the GPU"
                                                                              : mostly))
                    : QString());
}

FanState FanSettingsModel::stateOf(const std::string& identity) const {
    FanState state;
    if (auto it = states_.find(identity); it != states_.end()) state = it->second;
    state.name = identity;
    if (auto it = labels_.find(identity); it != labels_.end() && !it->second.empty())
        state.label = it->second;
    return state;
}

void FanSettingsModel::readLabels() {
    // Labels and the fans seen before the first tick come from hwmon, which anyone may read.
    for (const HwmonFan& fan : HwmonFanService(sysRoot_).discover()) {
        labels_[fan.identity] = fan.label;
        if (std::find(names_.begin(), names_.end(), fan.identity) == names_.end())
            names_.push_back(fan.identity);
    }
}

FanChoices FanSettingsModel::engineChoices() const {
    FanChoices result = choices_;
    for (const auto& [identity, label] : labels_) {
        FanState fan;
        fan.name = identity;
        fan.label = label;
        if (!isPumpChannel(label, driverOfIdentity(identity))) continue;
        // The engine may not see the label (the helper's list has none), so a pump's choice is
        // settled here: an entry that names no kind keeps its fixed 100, and it never stops.
        const auto own = choices_.find(identity);
        FanChoice choice = effectiveFanChoice(fan, choices_);
        choice.problem = own != choices_.end() ? own->second.problem : std::string();
        if (choice.problem.empty() && choice.stopWhenCool == true) {
            FanChoice kept = choice;
            kept.stopWhenCool.reset();
            choice.problem = "asks a pump to stop when cool ('" + formatFanChoice(own->second) +
                             "'), and a pump never stops: it runs as '" + formatFanChoice(kept) +
                             "' (kelvoctl fan " + identity + " stop off clears it)";
        }
        choice.stopWhenCool = false;
        result[identity] = choice;
    }
    return result;
}

void FanSettingsModel::applyToEngine() const {
    if (apply_) apply_(engineChoices(), limits_);
    if (applyShare_) applyShare_(shareWork_);
}

void FanSettingsModel::setApplyShare(ApplyShare applyShare) {
    applyShare_ = std::move(applyShare);
}

void FanSettingsModel::setShareWork(bool share) {
    fan_settings::writeShare(*settings_, share);
    const bool changed = share != shareWork_ || !shareProblem_.isEmpty();
    shareWork_ = share;
    shareProblem_.clear();
    if (changed) emit shareWorkChanged();
    rebuild();
    if (applyShare_) applyShare_(shareWork_);
}

void FanSettingsModel::readStoredShare() {
    std::string problem;
    const bool share = fan_settings::readShare(*settings_, &problem);
    const QString why = QString::fromStdString(problem);
    // Said once per value that cannot be used, not on every re-read of the same file.
    if (!why.isEmpty() && why != shareProblem_ && report_) report_(problem);
    if (share == shareWork_ && why == shareProblem_) return;
    shareWork_ = share;
    shareProblem_ = why;
    emit shareWorkChanged();
}

void FanSettingsModel::rebuild() {
    QVariantList fans;
    for (const std::string& name : names_) {
        const FanState state = stateOf(name);
        const FanChoice choice = effectiveFanChoice(state, choices_);
        const auto rpm = rpm_.find(name);
        QVariantMap entry;
        entry.insert(QStringLiteral("identity"), QString::fromStdString(name));
        entry.insert(QStringLiteral("label"), QString::fromStdString(state.label));
        entry.insert(QStringLiteral("title"),
                     QString::fromStdString(state.label.empty() ? name : state.label));
        entry.insert(QStringLiteral("rpm"),
                     rpm != rpm_.end() && std::isfinite(rpm->second) ? rpm->second : -1.0);
        entry.insert(QStringLiteral("choice"), QString::fromLatin1(kindWord(choice.kind)));
        entry.insert(QStringLiteral("fixedPercent"), choice.fixedPercent);
        entry.insert(QStringLiteral("minimumPercent"), choice.minimumPercent);
        entry.insert(QStringLiteral("text"), QString::fromStdString(formatFanChoice(choice)));
        // Why the stored choice is not followed (it cannot be read), and what the back-end sets
        // for the fan beside the user's choice (a floor, or no control at all).
        entry.insert(QStringLiteral("problem"), QString::fromStdString(choice.problem));
        entry.insert(QStringLiteral("floorPercent"), state.floorPercent);
        entry.insert(QStringLiteral("heldBack"), QString::fromStdString(state.heldBackWhy));
        const bool pump = isPumpChannel(state.label, driverOfIdentity(name));
        entry.insert(QStringLiteral("pump"), pump);
        const bool knownToStop = state.canStop || state.firmwareStops;
        const std::string blocker = fanStopBlocker(state, choice);
        QString stopNote;
        if (pump)
            stopNote = QStringLiteral("A pump never stops.");
        else if (!knownToStop)
            stopNote = QStringLiteral(
                "Kelvo has not seen this fan stand still; calibrate it to find out whether it "
                "can stop.");
        else if (!blocker.empty())
            stopNote = QStringLiteral("No stop while %1.").arg(QString::fromStdString(blocker));
        entry.insert(QStringLiteral("stopWhenCool"), fanStopWanted(state, choice));
        entry.insert(QStringLiteral("stopAvailable"), !pump && knownToStop);
        entry.insert(QStringLiteral("stopNote"), stopNote);
        entry.insert(QStringLiteral("stopped"), stopped_.contains(name));
        const auto calibration = calibrations_.find(name);
        const bool running = calibration != calibrations_.end() && calibration->second.running;
        QString calibrationText;
        if (running) {
            calibrationText = QStringLiteral("Calibrating: %1 %, about %2 s left")
                                  .arg(std::lround(calibration->second.progress * 100))
                                  .arg(std::lround(calibration->second.secondsLeft));
        } else if (calibration != calibrations_.end() && calibration->second.succeeded) {
            calibrationText =
                (*calibration->second.succeeded ? QStringLiteral("Calibrated")
                                                : QStringLiteral("Calibration failed"));
            if (!calibration->second.message.empty())
                calibrationText +=
                    QStringLiteral(": ") + QString::fromStdString(calibration->second.message);
        }
        entry.insert(QStringLiteral("calibrating"), running);
        entry.insert(QStringLiteral("calibrationProgress"),
                     running ? std::clamp(calibration->second.progress, 0.0, 1.0) : 0.0);
        entry.insert(QStringLiteral("calibrationText"), calibrationText);
        entry.insert(QStringLiteral("calibrationNote"), calibrationNote());
        FanCoupling coupling;
        if (auto it = couplings_.find(name); it != couplings_.end()) coupling = it->second;
        entry.insert(QStringLiteral("coolsMostly"),
                     QString::fromStdString(coolsMostlyKnown(coupling)));
        entry.insert(
            QStringLiteral("couplingConfidence"),
            coolsMostly(coupling).empty() ? -1.0 : std::clamp(coupling.confidence, 0.0, 1.0));
        // Only fans under auto control are measured: the others' speed is not Kelvo's to share.
        const bool measured = fanUnderAutoControl(state, choice);
        entry.insert(QStringLiteral("couplingText"),
                     measured ? couplingText(coupling, fansShared_, shareWork_) : QString());
        fans.push_back(entry);
    }
    if (fans != fans_) {
        fans_ = fans;
        emit fansChanged();
    }
}

void FanSettingsModel::setPaneOpen(bool open) {
    if (open == paneOpen_) return;
    paneOpen_ = open;
    emit paneOpenChanged();
}

void FanSettingsModel::setLimitMessage(const QString& message) {
    if (message == limitMessage_) return;
    limitMessage_ = message;
    emit limitMessageChanged();
}

bool FanSettingsModel::store(const std::string& identity, const FanChoice& choice) {
    if (std::find(names_.begin(), names_.end(), identity) == names_.end()) return false;
    choices_[identity] = choice;
    fan_settings::writeChoices(*settings_, choices_);
    // As written: entries that could not be read are now the firmware's, and a value that could
    // not be read at all is replaced.
    choices_ = fan_settings::readChoices(*settings_);
    rebuild();
    applyToEngine();
    return true;
}

bool FanSettingsModel::setStopWhenCool(const QString& identity, bool stop) {
    const std::string id = identity.toStdString();
    const FanState state = stateOf(id);
    if (isPumpChannel(state.label, driverOfIdentity(id))) return false;
    auto choice =
        parseFanChoice(stop ? "stop on" : "stop off", effectiveFanChoice(state, choices_));
    return choice && store(id, *choice);
}

bool FanSettingsModel::calibrate(const QString& identity) {
    const std::string id = identity.toStdString();
    if (!calibrate_ || std::find(names_.begin(), names_.end(), id) == names_.end()) return false;
    calibrate_(id);
    return true;
}

void FanSettingsModel::takeCalibrationRequest() {
    auto request = fan_settings::readCalibrationRequest(*settings_);
    if (!request || request == handledRequest_) return;
    handledRequest_ = request;
    // The engine says what comes of it (an unknown fan included) in its events.
    if (calibrate_) calibrate_(request->identity);
}

bool FanSettingsModel::measureAgain() {
    if (!measureAgain_) return false;
    measureAgain_();
    return true;
}

void FanSettingsModel::takeMeasureAgainRequest() {
    auto request = fan_settings::readMeasureAgainRequest(*settings_);
    if (!request || request == handledMeasureAgain_) return;
    handledMeasureAgain_ = request;
    measureAgain();
}

bool FanSettingsModel::setChoice(const QString& identity, const QString& kind, double percent) {
    const std::string id = identity.toStdString();
    const FanState state = stateOf(id);
    FanChoice base = effectiveFanChoice(state, choices_);
    QString text = kind;
    if (kind == QLatin1String("fixed")) text += QLatin1Char(' ') + QString::number(percent);
    auto choice = parseFanChoice(text.toStdString(), base);
    return choice && store(id, *choice);
}

bool FanSettingsModel::setMinimum(const QString& identity, double percent) {
    const std::string id = identity.toStdString();
    const FanState state = stateOf(id);
    auto choice = parseFanChoice("min " + QString::number(percent).toStdString(),
                                 effectiveFanChoice(state, choices_));
    return choice && store(id, *choice);
}

bool FanSettingsModel::setLimit(const QString& which, double valueC) {
    const auto kind = limitKind(which);
    if (!kind) {
        setLimitMessage(QStringLiteral("Unknown limit '%1'").arg(which));
        return false;
    }
    const std::string refusal = userLimitRefusal(*kind, valueC, critical_);
    if (!refusal.empty()) {
        setLimitMessage(QString::fromStdString(refusal));
        return false;
    }
    setLimitMessage({});
    fan_settings::writeLimit(*settings_, *kind, valueC);
    if (userLimit(limits_, *kind) != valueC) {
        setUserLimit(limits_, *kind, valueC);
        emit limitsChanged();
    }
    applyToEngine();
    return true;
}

void FanSettingsModel::reload() {
    settings_->sync();
    readLabels();
    choices_ = fan_settings::readChoices(*settings_);
    const UserLimits limits = readStoredLimits();
    if (!(limits == limits_)) {
        limits_ = limits;
        emit limitsChanged();
    }
    readStoredShare();
    rebuild();
    applyToEngine();
    takeCalibrationRequest();
    takeMeasureAgainRequest();
}

void FanSettingsModel::setReport(Report report) {
    report_ = std::move(report);
    if (!report_) return;
    for (const std::string& problem : limitProblems_) report_(problem);
    if (!shareProblem_.isEmpty()) report_(shareProblem_.toStdString());
}

UserLimits FanSettingsModel::readStoredLimits() {
    std::vector<std::string> problems;
    const UserLimits limits = fan_settings::readLimits(*settings_, critical_, &problems);
    if (problems == limitProblems_) return limits;
    // Said once per value that cannot be used, not on every re-read of the same file.
    for (const std::string& problem : problems) {
        const bool said = std::find(limitProblems_.begin(), limitProblems_.end(), problem) !=
                          limitProblems_.end();
        if (!said && report_) report_(problem);
    }
    limitProblems_ = problems;
    QString message;
    for (const std::string& problem : problems)
        message += (message.isEmpty() ? QString() : QStringLiteral("\n")) +
                   QString::fromStdString(problem);
    if (!message.isEmpty()) setLimitMessage(message);
    return limits;
}

void FanSettingsModel::updateFromSnapshot(const ControlSnapshot& snapshot) {
    for (const FanState& fan : snapshot.fans) states_[fan.name] = fan;
    stopped_ = snapshot.stoppedFans;
    calibrations_ = snapshot.calibrations;
    // The engine reports every fan's coupling each tick: one it no longer lists is unknown again.
    couplings_.clear();
    for (const FanCoupling& coupling : snapshot.couplings) couplings_[coupling.identity] = coupling;
    fansShared_ = snapshot.fansShared;
    updateSpeeds(snapshot.sample);
}

void FanSettingsModel::updateSpeeds(const TelemetrySample& sample) {
    for (std::size_t i = 0; i < sample.fanNames.size(); ++i) {
        const std::string& name = sample.fanNames[i];
        if (std::find(names_.begin(), names_.end(), name) == names_.end()) names_.push_back(name);
        rpm_[name] = i < sample.fanCurrentRPM.size() ? sample.fanCurrentRPM[i] : kUnreadableRPM;
    }
    rebuild();
}

}  // namespace kelvo
