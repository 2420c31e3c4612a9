#include "helper/FanArbiter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "foundation/fans/SysfsText.h"

namespace kelvo::helperd {

namespace codes = helper_protocol::codes;
using sysfs::writeInteger;

namespace {

constexpr int kFirmwareAutomatic = 2;

std::string describe(const JournalEntry& original) {
    return "pwm_enable=" + (original.enable ? std::to_string(*original.enable) : "unknown") +
           ", pwm=" + (original.pwm ? std::to_string(*original.pwm) : "unknown");
}

const HwmonFan* findFan(const std::vector<HwmonFan>& fans, const std::string& identity) {
    const auto found = std::find_if(fans.begin(), fans.end(),
                                    [&](const HwmonFan& fan) { return fan.identity == identity; });
    return found != fans.end() ? &*found : nullptr;
}

}  // namespace

FanArbiter::FanArbiter(std::shared_ptr<HwmonFanService> service, FanJournal journal, Logger log)
    : service_(std::move(service)), journal_(std::move(journal)), log_(std::move(log)) {
    if (!log_) log_ = [](const std::string&) {};
}

bool FanArbiter::restore(const HwmonFan& fan, const JournalEntry& original, std::string* error) {
    // Unknown means the firmware had it: hwmon's usual automatic mode.
    const int enable = original.enable.value_or(kFirmwareAutomatic);
    // A channel that was already manual gets its old duty cycle back too.
    if (enable == 1 && original.pwm && !writeInteger(fan.pwmPath(), *original.pwm, error)) {
        return false;
    }
    return writeInteger(fan.pwmEnablePath(), enable, error);
}

bool FanArbiter::saveJournal(std::string* error) {
    std::vector<JournalEntry> entries = pending_;
    for (const auto& [identity, held] : held_) entries.push_back(held.original);
    return journal_.save(entries, error);
}

void FanArbiter::restoreFromJournal() {
    const FanJournal::Loaded loaded = journal_.load();
    for (const std::string& problem : loaded.problems) {
        log_("journal " + journal_.file().string() + ": " + problem);
    }
    if (loaded.entries.empty() && loaded.problems.empty()) return;
    pending_ = loaded.entries;
    log_("journal lists " + std::to_string(pending_.size()) +
         " fan(s) held by an earlier run; giving them back");
    retryPending();
    if (loaded.entries.empty()) {
        // Only damaged lines: nothing usable is left, so the file goes.
        std::string error;
        if (!saveJournal(&error)) log_(error);
    }
}

void FanArbiter::retryPending() {
    if (pending_.empty()) return;
    const std::vector<HwmonFan> fans = service_->discover();
    std::vector<JournalEntry> stillPending;
    for (const JournalEntry& entry : pending_) {
        const HwmonFan* fan = findFan(fans, entry.identity);
        if (!fan) {
            // Hardware that is gone has no mode left to restore.
            log_("journaled fan " + entry.identity + " no longer exists; dropping it");
            continue;
        }
        std::string error;
        if (restore(*fan, entry, &error)) {
            log_("restored " + entry.identity + " to " + describe(entry));
        } else {
            log_("cannot restore " + entry.identity + " yet: " + error);
            stillPending.push_back(entry);
        }
    }
    pending_ = std::move(stillPending);
    std::string error;
    if (!saveJournal(&error)) log_(error);
}

std::optional<ClientId> FanArbiter::holder(const std::string& identity) const {
    const auto found = held_.find(identity);
    if (found == held_.end()) return std::nullopt;
    return found->second.client;
}

const HwmonFan* FanArbiter::heldFan(ClientId client, const std::string& identity) const {
    const auto found = held_.find(identity);
    if (found == held_.end() || found->second.client != client) return nullptr;
    return &found->second.fan;
}

std::size_t FanArbiter::heldBy(ClientId client) const {
    return static_cast<std::size_t>(
        std::count_if(held_.begin(), held_.end(),
                      [client](const auto& entry) { return entry.second.client == client; }));
}

std::vector<std::pair<std::string, int>> FanArbiter::heldDuties(ClientId client) const {
    std::vector<std::pair<std::string, int>> duties;
    for (const auto& [identity, held] : held_) {
        if (held.client == client) duties.emplace_back(identity, held.pwm);
    }
    return duties;
}

ArbiterOutcome FanArbiter::take(ClientId client, const HwmonFan& fan, int pwm) {
    const auto found = held_.find(fan.identity);
    if (found != held_.end() && found->second.client != client) {
        return ArbiterOutcome::failure(codes::heldByAnother,
                                       fan.identity + " is held by another client");
    }
    if (!fan.controllable) {
        return ArbiterOutcome::failure(codes::notControllable,
                                       fan.identity + " has no PWM control");
    }
    const bool firstTake = found == held_.end();
    bool fromEarlierRun = false;
    if (firstTake) {
        // The journal is what the helper restores from; the service's own record of the mode
        // starts again with this take.
        service_->forget(fan);
        JournalEntry original{fan.identity, fan.pwmEnable, fan.pwm};
        // A fan an earlier run could not give back is still in that run's mode; the mode worth
        // restoring is the one the earlier run journaled.
        const auto earlier =
            std::find_if(pending_.begin(), pending_.end(),
                         [&](const JournalEntry& e) { return e.identity == fan.identity; });
        fromEarlierRun = earlier != pending_.end();
        if (fromEarlierRun) {
            original = *earlier;
            pending_.erase(earlier);
        }
        held_[fan.identity] = Held{client, original, fan};
        std::string error;
        if (!saveJournal(&error)) {
            held_.erase(fan.identity);
            if (fromEarlierRun) pending_.push_back(original);
            log_("not taking " + fan.identity + ": " + error);
            return ArbiterOutcome::failure(
                codes::io, "cannot journal " + fan.identity + " before taking it: " + error);
        }
    }
    std::string error;
    int errorNumber = 0;
    if (!service_->writePWM(fan, pwm, &error, &errorNumber)) {
        if (!firstTake && errorNumber == EBUSY) {
            // Someone else (the firmware after a resume, a driver reload, another program)
            // switched the held fan out of manual mode. It is theirs now: the hold ends without
            // a restore, which would undo their change, and the client hears why.
            const std::string identity = fan.identity;  // `fan` may be the hold's own copy
            log_("client " + std::to_string(client) + " lost " + identity + ": " + error);
            held_.erase(identity);
            std::string journalError;
            if (!saveJournal(&journalError)) log_(journalError);
            return ArbiterOutcome::failure(codes::takenBack, error);
        }
        if (firstTake) {
            // writePWM has put back the mode it found; only a fan an earlier run left in
            // manual mode still needs its journaled original.
            const JournalEntry original = held_[fan.identity].original;
            held_.erase(fan.identity);
            if (fromEarlierRun) pending_.push_back(original);
            std::string journalError;
            if (!saveJournal(&journalError)) log_(journalError);
        }
        return ArbiterOutcome::failure(codes::io, error);
    }
    if (firstTake) {
        log_("client " + std::to_string(client) + " took " + fan.identity + " (was " +
             describe(held_[fan.identity].original) + ")");
    }
    held_[fan.identity].pwm = pwm;
    return ArbiterOutcome::success();
}

void FanArbiter::giveBack(std::map<std::string, Held>::iterator held, const std::string& reason) {
    std::string error;
    if (restore(held->second.fan, held->second.original, &error)) {
        log_("released " + held->first + " to " + describe(held->second.original) + " (" + reason +
             ")");
    } else {
        log_("cannot release " + held->first + " (" + reason + "): " + error + "; will retry");
        pending_.push_back(held->second.original);
    }
    held_.erase(held);
}

ArbiterOutcome FanArbiter::release(ClientId client, const std::string& identity) {
    const auto found = held_.find(identity);
    if (found == held_.end()) return ArbiterOutcome::success();
    if (found->second.client != client) {
        return ArbiterOutcome::failure(codes::heldByAnother,
                                       identity + " is held by another client");
    }
    const std::size_t pendingBefore = pending_.size();
    giveBack(found, "released by client " + std::to_string(client));
    std::string error;
    if (!saveJournal(&error)) log_(error);
    if (pending_.size() != pendingBefore) {
        return ArbiterOutcome::failure(
            codes::io, "cannot restore " + identity + "; the helper keeps retrying");
    }
    return ArbiterOutcome::success();
}

std::size_t FanArbiter::releaseClient(ClientId client, const std::string& reason) {
    std::size_t released = 0;
    for (auto it = held_.begin(); it != held_.end();) {
        const auto next = std::next(it);
        if (it->second.client == client) {
            giveBack(it, reason);
            ++released;
        }
        it = next;
    }
    if (released > 0) {
        std::string error;
        if (!saveJournal(&error)) log_(error);
    }
    return released;
}

std::size_t FanArbiter::releaseEverything(const std::string& reason) {
    std::size_t released = 0;
    while (!held_.empty()) {
        giveBack(held_.begin(), reason);
        ++released;
    }
    retryPending();
    std::string error;
    if (!saveJournal(&error)) log_(error);
    return released;
}

}  // namespace kelvo::helperd
