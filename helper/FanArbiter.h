// Which client holds which fan, and giving fans back. Every fan the helper takes is journaled
// with its original mode before the first write, and every way a fan stops being held (release,
// disconnect, lease expiry, shutdown, the next start after a crash) restores that mode.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/fans/HwmonFanService.h"
#include "helper/FanJournal.h"

namespace kelvo::helperd {

using ClientId = std::uint64_t;

struct ArbiterOutcome {
    bool ok = true;
    std::string code;  // helper_protocol::codes, on failure
    std::string message;

    static ArbiterOutcome success() { return {}; }
    static ArbiterOutcome failure(std::string code, std::string message) {
        return {false, std::move(code), std::move(message)};
    }
};

class FanArbiter {
public:
    using Logger = std::function<void(const std::string&)>;

    FanArbiter(std::shared_ptr<HwmonFanService> service, FanJournal journal, Logger log);

    // Run once at start, before any client: gives back every fan the journal says an earlier
    // run of the helper still held.
    void restoreFromJournal();
    // Retries fans whose restore failed earlier (a transient sysfs error must not leave a fan in
    // manual mode for good).
    void retryPending();
    bool hasPending() const { return !pending_.empty(); }

    std::vector<HwmonFan> discover() const { return service_->discover(); }
    std::optional<ClientId> holder(const std::string& identity) const;
    std::size_t heldBy(ClientId client) const;
    std::size_t heldCount() const { return held_.size(); }
    // The fan as it was discovered when `client` took it; null when the client does not hold it.
    const HwmonFan* heldFan(ClientId client, const std::string& identity) const;

    // The fans `client` holds and the duty cycle last written to each.
    std::vector<std::pair<std::string, int>> heldDuties(ClientId client) const;

    // Puts `fan` (fresh from discover()) in manual mode at duty cycle `pwm` for `client`.
    ArbiterOutcome take(ClientId client, const HwmonFan& fan, int pwm);
    // Gives one fan back. A fan nobody holds is already released: success.
    ArbiterOutcome release(ClientId client, const std::string& identity);
    // Gives back every fan `client` holds; returns how many. `reason` goes to the log.
    std::size_t releaseClient(ClientId client, const std::string& reason);
    std::size_t releaseEverything(const std::string& reason);

private:
    struct Held {
        ClientId client = 0;
        JournalEntry original;
        HwmonFan fan;
        int pwm = 0;  // the last duty cycle written
    };

    bool restore(const HwmonFan& fan, const JournalEntry& original, std::string* error);
    bool saveJournal(std::string* error);
    // Restores one held fan and forgets it; on failure it moves to pending_.
    void giveBack(std::map<std::string, Held>::iterator held, const std::string& reason);

    std::shared_ptr<HwmonFanService> service_;
    FanJournal journal_;
    Logger log_;
    std::map<std::string, Held> held_;  // by identity
    // Journaled fans whose original mode could not be written back yet.
    std::vector<JournalEntry> pending_;
};

}  // namespace kelvo::helperd
