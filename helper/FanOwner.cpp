#include "helper/FanOwner.h"

#include <algorithm>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/FanKind.h"

namespace kelvo::helperd {

namespace codes = helper_protocol::codes;

namespace {

ArbiterOutcome heldByAnother(const std::string& identity) {
    return ArbiterOutcome::failure(codes::heldByAnother, identity + " is held by another client");
}

}  // namespace

FanOwner::FanOwner(FanJournal journal, Logger log)
    : journal_(std::move(journal)),
      log_(log ? std::move(log) : Logger([](const std::string&) {})) {}

void FanOwner::addKind(FanKind& kind) {
    kinds_.push_back(&kind);
}

void FanOwner::removeKind(const FanKind& kind) {
    std::erase(kinds_, &kind);
}

bool FanOwner::matches(const Held& held, ClientId client, const FanKind* kind) {
    return held.client == client && (!kind || held.kind == kind);
}

std::unique_ptr<FanDevice> FanOwner::find(const std::string& identity) const {
    for (const FanKind* kind : kinds_) {
        if (auto device = kind->find(identity)) return device;
    }
    return nullptr;
}

bool FanOwner::saveJournal(std::string* error) {
    std::vector<JournalEntry> entries = pending_;
    for (const auto& [identity, held] : held_) entries.push_back(held.original);
    return journal_.save(entries, error);
}

void FanOwner::saveJournalOrLog() {
    std::string error;
    if (!saveJournal(&error)) log_(error);
}

void FanOwner::restoreFromJournal() {
    const FanJournal::Loaded loaded = journal_.load();
    for (const std::string& problem : loaded.problems) {
        log_("journal " + journal_.file().string() + ": " + problem);
    }
    if (loaded.entries.empty() && loaded.problems.empty()) return;
    pending_ = loaded.entries;
    log_("journal lists " + std::to_string(pending_.size()) +
         " fan(s) held by an earlier run; giving them back");
    retryPending();
    // Only damaged lines: nothing usable is left, so the file goes.
    if (loaded.entries.empty()) saveJournalOrLog();
}

void FanOwner::retryPending() {
    if (pending_.empty()) return;
    std::vector<JournalEntry> stillPending;
    for (const JournalEntry& entry : pending_) {
        const std::unique_ptr<FanDevice> fan = find(entry.identity);
        if (!fan) {
            // Hardware that is gone has no mode left to restore.
            log_("journaled fan " + entry.identity + " no longer exists; dropping it");
            continue;
        }
        std::string error;
        if (fan->restore(entry, &error)) {
            log_("restored " + entry.identity + " to " + fan->describe(entry));
        } else {
            // Retried every second: the same failure is logged once, not every time.
            if (std::string& last = retryErrors_[entry.identity]; last != error) {
                log_("cannot restore " + entry.identity + " yet: " + error);
                last = error;
            }
            stillPending.push_back(entry);
            if (const auto stuck = unrestored_.find(entry.identity); stuck != unrestored_.end())
                stuck->second.error = error;
        }
    }
    pending_ = std::move(stillPending);
    // What is said about fans that are back (or gone) is over.
    std::erase_if(unrestored_, [&](const auto& entry) { return !isPending(entry.first); });
    std::erase_if(retryErrors_, [&](const auto& entry) { return !isPending(entry.first); });
    saveJournalOrLog();
}

bool FanOwner::isPending(const std::string& identity) const {
    return std::any_of(pending_.begin(), pending_.end(),
                       [&](const JournalEntry& e) { return e.identity == identity; });
}

std::vector<std::pair<std::string, std::string>> FanOwner::unrestored(ClientId client) const {
    std::vector<std::pair<std::string, std::string>> fans;
    for (const auto& [identity, stuck] : unrestored_) {
        if (stuck.client == client) fans.emplace_back(identity, stuck.error);
    }
    return fans;
}

std::optional<ClientId> FanOwner::holder(const std::string& identity) const {
    const auto found = held_.find(identity);
    if (found == held_.end()) return std::nullopt;
    return found->second.client;
}

const FanDevice* FanOwner::heldDevice(ClientId client, const std::string& identity) const {
    const auto found = held_.find(identity);
    if (found == held_.end() || found->second.client != client) return nullptr;
    return found->second.device.get();
}

std::size_t FanOwner::heldBy(ClientId client, const FanKind* kind) const {
    return static_cast<std::size_t>(
        std::count_if(held_.begin(), held_.end(),
                      [&](const auto& entry) { return matches(entry.second, client, kind); }));
}

std::vector<ClientId> FanOwner::holders(const FanKind* kind) const {
    std::vector<ClientId> clients;
    for (const auto& [identity, held] : held_) {
        if (!kind || held.kind == kind) clients.push_back(held.client);
    }
    std::sort(clients.begin(), clients.end());
    clients.erase(std::unique(clients.begin(), clients.end()), clients.end());
    return clients;
}

std::vector<std::pair<std::string, int>> FanOwner::heldDuties(ClientId client,
                                                              const FanKind* kind) const {
    std::vector<std::pair<std::string, int>> duties;
    for (const auto& [identity, held] : held_) {
        if (matches(held, client, kind)) duties.emplace_back(identity, held.pwm);
    }
    return duties;
}

ArbiterOutcome FanOwner::take(const FanKind& kind, ClientId client, const std::string& identity,
                              int pwm, const Opener& open) {
    const auto found = held_.find(identity);
    if (found != held_.end()) {
        if (found->second.client != client) return heldByAnother(identity);
        return writeHeld(found, pwm);
    }
    Opened opened = open();
    if (!opened.device) return opened.refusal;
    return takeFirst(kind, client, std::move(opened.device), pwm);
}

bool FanOwner::adoptPending(const std::string& identity, JournalEntry* original) {
    const auto earlier = std::find_if(pending_.begin(), pending_.end(), [&](const JournalEntry& e) {
        return e.identity == identity;
    });
    if (earlier == pending_.end()) return false;
    *original = *earlier;
    pending_.erase(earlier);
    unrestored_.erase(identity);
    retryErrors_.erase(identity);
    return true;
}

ArbiterOutcome FanOwner::takeFirst(const FanKind& kind, ClientId client,
                                   std::unique_ptr<FanDevice> device, int pwm) {
    const std::string identity = device->identity();
    JournalEntry original = device->originalMode();
    // A fan an earlier run could not give back is still in that run's mode; the mode worth
    // restoring is the one the earlier run journaled.
    const bool fromEarlierRun = adoptPending(identity, &original);
    FanDevice& fan = *device;
    held_[identity] = Held{client, &kind, original, std::move(device), 0};
    const auto forget = [&] {
        held_.erase(identity);
        if (fromEarlierRun) pending_.push_back(original);
    };

    std::string error;
    if (!saveJournal(&error)) {
        forget();
        log_("not taking " + identity + ": " + error);
        return ArbiterOutcome::failure(
            codes::io, "cannot journal " + identity + " before taking it: " + error);
    }
    const FanDevice::Write written = fan.write(pwm);
    if (!written.ok) {
        // The device has put back what it found; only a fan an earlier run left taken still
        // needs its journaled original.
        forget();
        saveJournalOrLog();
        return ArbiterOutcome::failure(codes::io, written.error);
    }
    log_("client " + std::to_string(client) + " took " + identity + " (was " +
         fan.describe(original) + ")");
    held_[identity].pwm = pwm;
    return ArbiterOutcome::success();
}

ArbiterOutcome FanOwner::writeHeld(HeldFans::iterator held, int pwm) {
    const FanDevice::Write written = held->second.device->write(pwm);
    if (!written.note.empty()) log_(written.note);
    if (written.ok) {
        held->second.pwm = pwm;
        return ArbiterOutcome::success();
    }
    if (written.gone) {
        // Nothing to write to and nothing to give back: the hold ends now, not after the client
        // has retried into a fallback.
        log_("client " + std::to_string(held->second.client) + " lost " + held->first + ": " +
             written.error);
        held_.erase(held);
        saveJournalOrLog();
        return ArbiterOutcome::failure(codes::unknownFan, written.error);
    }
    if (!written.changedFromOutside) return ArbiterOutcome::failure(codes::io, written.error);
    // Someone else (the firmware after a resume, a driver reload, another program) switched the
    // held fan out of the helper's mode. It is theirs now: the hold ends without a restore, which
    // would undo their change, and the client hears why.
    log_("client " + std::to_string(held->second.client) + " lost " + held->first + ": " +
         written.error);
    held_.erase(held);
    saveJournalOrLog();
    return ArbiterOutcome::failure(codes::takenBack, written.error);
}

void FanOwner::giveBack(HeldFans::iterator held, const std::string& reason) {
    std::string error;
    if (held->second.device->restore(held->second.original, &error)) {
        log_("released " + held->first + " to " +
             held->second.device->describe(held->second.original) + " (" + reason + ")");
    } else {
        log_("cannot release " + held->first + " (" + reason + "): " + error + "; will retry");
        pending_.push_back(held->second.original);
        unrestored_[held->first] = Unrestored{held->second.client, error};
        retryErrors_[held->first] = error;
    }
    held_.erase(held);
}

ArbiterOutcome FanOwner::release(ClientId client, const std::string& identity) {
    const auto found = held_.find(identity);
    if (found == held_.end()) {
        // Let go of already, but not back yet: saying "released" would be untrue.
        const auto stuck = unrestored_.find(identity);
        if (stuck == unrestored_.end() || stuck->second.client != client) {
            return ArbiterOutcome::success();
        }
        return ArbiterOutcome::failure(codes::io, "cannot restore " + identity + " yet (" +
                                                      stuck->second.error +
                                                      "); the helper keeps retrying");
    }
    if (found->second.client != client) return heldByAnother(identity);
    const std::size_t pendingBefore = pending_.size();
    giveBack(found, "released by client " + std::to_string(client));
    saveJournalOrLog();
    if (pending_.size() != pendingBefore) {
        return ArbiterOutcome::failure(
            codes::io, "cannot restore " + identity + "; the helper keeps retrying");
    }
    return ArbiterOutcome::success();
}

std::size_t FanOwner::releaseClient(ClientId client, const std::string& reason,
                                    const FanKind* kind) {
    std::size_t released = 0;
    for (auto it = held_.begin(); it != held_.end();) {
        const auto next = std::next(it);
        if (matches(it->second, client, kind)) {
            giveBack(it, reason);
            ++released;
        }
        it = next;
    }
    if (released > 0) saveJournalOrLog();
    return released;
}

std::size_t FanOwner::releaseEverything(const std::string& reason, const FanKind* kind) {
    std::size_t released = 0;
    for (auto it = held_.begin(); it != held_.end();) {
        const auto next = std::next(it);
        if (!kind || it->second.kind == kind) {
            giveBack(it, reason);
            ++released;
        }
        it = next;
    }
    if (!kind) retryPending();
    saveJournalOrLog();
    return released;
}

}  // namespace kelvo::helperd
