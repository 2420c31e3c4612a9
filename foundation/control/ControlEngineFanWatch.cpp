// ControlEngine's watch over its fans: reading them, and noticing the ones that are lost, refuse
// writes, are taken back from outside, come and go, or carry the user's choices and limits.
#include <algorithm>
#include <cstdio>

#include "foundation/control/ControlEngine.h"

namespace kelvo {

namespace {
// A fan whose mode is changed from outside is taken again, up to this many times in the window;
// one more and Kelvo stops fighting whoever keeps changing it.
constexpr int kTakebacksTolerated = 3;
constexpr double kTakebackWindowS = 300;
// Fan readings kept through failed reads are shown as current for at most this many ticks.
constexpr double kStaleFanReadingTicks = 3;

// The fans whose speed came back as no number, as "a, b"; empty when every speed was read.
std::string unreadableSpeeds(const std::vector<FanState>& fans) {
    std::string names;
    for (const auto& fan : fans) {
        if (isReadableRPM(fan.currentRPM)) continue;
        if (!names.empty()) names += ", ";
        names += fan.name;
    }
    return names;
}
}  // namespace

void ControlEngine::noticeLostFans() {
    const std::vector<std::string> lost = fans_->takeFansLostBehindOurBack();
    if (lost.empty() || status_ != ControlStatus::controlling) return;
    std::string names;
    for (const auto& name : lost) names += (names.empty() ? "" : ", ") + name;
    leaseLost_ = true;
    record("Fan lease lost (" + names +
               "): the helper gave the fans back to the firmware while Kelvo was not answering",
           true);
}

void ControlEngine::noticeFanLimits() {
    std::map<std::string, std::string> now;
    for (const auto& fan : lastFans_) {
        std::string text;
        if (!fan.heldBackWhy.empty()) {
            text = "Fan left to the firmware (" + fan.name + "): " + fan.heldBackWhy;
        } else if (fan.floorPercent > 0) {
            char percent[32];
            std::snprintf(percent, sizeof percent, "%.0f", fan.floorPercent);
            text = "Fan " + fan.name + " runs at no less than " + percent +
                   " %: the helper's configuration sets that floor";
        }
        if (text.empty()) continue;
        if (const auto shown = limitsShown_.find(fan.name);
            shown == limitsShown_.end() || shown->second != text)
            record(text);  // the helper's configuration, as its owner set it: not a failure
        now[fan.name] = std::move(text);
    }
    limitsShown_ = std::move(now);
}

bool ControlEngine::refusalHolds(const std::string& fan) const {
    const auto found = refused_.find(fan);
    return found != refused_.end() &&
           lastTick_.value_or(0) - found->second.at < config_.fallbackRetrySeconds;
}

void ControlEngine::noticeRefusedFans(const std::vector<double>& targets) {
    const Timestamp now = lastTick_.value_or(0);
    std::set<std::string> refusedNow;
    for (const FanRefusal& refusal : fans_->takeFanRefusals()) {
        refusedNow.insert(refusal.fan);
        stopGate_.forget(refusal.fan);
        auto [entry, fresh] = refused_.try_emplace(refusal.fan);
        entry->second.at = now;
        // A retry refused for the same reason is not news.
        if (!fresh && entry->second.why == refusal.why) continue;
        entry->second.why = refusal.why;
        record("Fan handed back to the firmware (" + refusal.fan + "): its target was refused (" +
                   refusal.why + "); the other fans stay under Kelvo",
               true);
    }
    // A refused fan asked for again and not refused this time is Kelvo's again.
    for (std::size_t i = 0; i < lastFans_.size() && i < targets.size(); ++i) {
        const std::string& name = lastFans_[i].name;
        if (targets[i] == 0 || refusedNow.contains(name) || !refused_.contains(name)) continue;
        refused_.erase(name);
        record("Fan " + name + " accepts Kelvo's targets again: Kelvo controls it again");
    }
}

void ControlEngine::setFanChoices(FanChoices choices) {
    std::set<std::string> problems;
    for (const auto& [fan, choice] : choices) {
        if (choice.problem.empty()) continue;
        const std::string key = fan + ": " + choice.problem;
        problems.insert(key);
        if (choiceProblemsShown_.contains(key)) continue;
        if (fan == kEveryOtherFan)
            record(choice.problem, true);
        else
            record("Fan choice for " + fan + " " + choice.problem, true);
    }
    choiceProblemsShown_ = std::move(problems);
    fanChoices_ = std::move(choices);
}

void ControlEngine::noticeReclaimedFans(Timestamp now) {
    for (const std::string& name : fans_->takeFansReclaimedFromUs()) {
        if (leftToFirmware_.contains(name)) continue;
        auto& times = takebacks_[name];
        times.push_back(now);
        while (!times.empty() && now - times.front() > kTakebackWindowS) times.pop_front();
        if (static_cast<int>(times.size()) <= kTakebacksTolerated) {
            // The firmware (after a resume, a driver reload) or another program set its mode:
            // Kelvo takes it again in this same tick.
            record("Fan control taken back from Kelvo (" + name +
                       "): its mode was changed from outside; Kelvo takes it again",
                   true);
            continue;
        }
        times.clear();
        leftToFirmware_.insert(name);
        record("Stopped taking back " + name + ": its mode was changed from outside " +
                   std::to_string(kTakebacksTolerated + 1) +
                   " times in five minutes; it stays under firmware control",
               true);
    }
}

// hwmon devices come and go (driver reloads, USB fan controllers): one event per fan, and the
// targets follow the new list from this tick on.
void ControlEngine::noticeFansComingAndGoing() {
    std::set<std::string> now;
    for (const auto& fan : lastFans_) now.insert(fan.name);
    if (knownFans_) {
        for (const auto& name : now)
            if (!knownFans_->contains(name)) record("Fan added: " + name);
        for (const auto& name : *knownFans_) {
            if (now.contains(name)) continue;
            record("Fan removed: " + name + " (its device went away)", true);
            stalledTicks_.erase(name);
            takebacks_.erase(name);
            refused_.erase(name);
            stopGate_.forget(name);
        }
    }
    knownFans_ = std::move(now);
}

void ControlEngine::readFans(TelemetrySample& sample) {
    FanReadResult read = fans_->readFans();
    noticeLostFans();
    noticeReclaimedFans(sample.timestamp);
    if (read.ok) {
        fansReadAt_ = sample.timestamp;
        fanReadingsStale_ = false;
        lastFans_ = std::move(read.fans);
        noticeFansComingAndGoing();
        noticeFanLimits();
        noticeStalledFans(sample.timestamp);
        const std::string unreadable = unreadableSpeeds(lastFans_);
        if (!unreadable.empty() && !fanTelemetryDegraded_) {
            fanTelemetryDegraded_ = true;
            record("Fan telemetry degraded (no speed reading from " + unreadable +
                       "); shown as absent",
                   true);
        } else if (unreadable.empty() && fanTelemetryDegraded_) {
            fanTelemetryDegraded_ = false;
            record("Fan telemetry recovered");
        }
    } else if (!fanTelemetryDegraded_) {
        fanTelemetryDegraded_ = true;
        record("Fan telemetry degraded (" + read.error + "); keeping last known readings", true);
    }
    if (!read.ok) markOldFanReadings(sample.timestamp);
    sample.fanCurrentRPM.clear();
    sample.fanTargetRPM.clear();
    sample.fanMaxRPM.clear();
    sample.fanMinRPM.clear();
    sample.fanNames.clear();
    for (const auto& fan : lastFans_) {
        sample.fanCurrentRPM.push_back(fan.currentRPM);
        sample.fanTargetRPM.push_back(fan.targetRPM);
        sample.fanMaxRPM.push_back(fan.maxRPM);
        sample.fanMinRPM.push_back(fan.minRPM);
        sample.fanNames.push_back(fan.name);
    }
}

void ControlEngine::markOldFanReadings(Timestamp now) {
    // A missed read or two keeps the picture steady; beyond that the speeds are history, and a
    // stopped fan must not go on looking as if it turned.
    if (fanReadingsStale_ || !fansReadAt_ ||
        now - *fansReadAt_ <= kStaleFanReadingTicks * config_.tickSeconds) {
        return;
    }
    fanReadingsStale_ = true;
    for (auto& fan : lastFans_) fan.currentRPM = kUnreadableRPM;
    char text[160];
    std::snprintf(text, sizeof text,
                  "Fan readings too old (no answer from the fan back-end for %.0f s); "
                  "speeds shown as absent",
                  now - *fansReadAt_);
    record(text, true);
}

}  // namespace kelvo
