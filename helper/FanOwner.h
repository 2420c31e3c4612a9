// Which client holds which fan, of every kind, and the one way fans are given back. A fan is
// journaled with its original mode before the first write, and every way it stops being held
// (release, disconnect, lease expiry, sleep, shutdown, the next start after a crash) restores that
// mode through its FanDevice. A restore that fails stays in the journal and is retried.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "helper/ClientInfo.h"
#include "helper/FanDevice.h"
#include "helper/FanJournal.h"

namespace kelvo::helperd {

class FanKind;

struct ArbiterOutcome {
    bool ok = true;
    std::string code;  // helper_protocol::codes, on failure
    std::string message;

    static ArbiterOutcome success() { return {}; }
    static ArbiterOutcome failure(std::string code, std::string message) {
        return {false, std::move(code), std::move(message)};
    }
};

class FanOwner {
public:
    using Logger = std::function<void(const std::string&)>;

    // What a kind hands over for a fan nobody holds yet: the fan, or why it cannot be taken.
    struct Opened {
        std::unique_ptr<FanDevice> device;
        ArbiterOutcome refusal;  // when there is no device
    };
    using Opener = std::function<Opened()>;

    FanOwner(FanJournal journal, Logger log);
    FanOwner(const FanOwner&) = delete;
    FanOwner& operator=(const FanOwner&) = delete;

    // A kind registers itself so that journaled fans of its kind can be found again; it must
    // not outlive the owner.
    void addKind(FanKind& kind);
    void removeKind(const FanKind& kind);

    // Run once at start, before any client: gives back every fan the journal says an earlier
    // run of the helper still held.
    void restoreFromJournal();
    // Retries fans whose restore failed earlier (a transient error must not leave a fan in the
    // helper's mode for good).
    void retryPending();
    bool hasPending() const { return !pending_.empty(); }
    // The fans `client` let go of whose restore has not worked yet, with why: they are not back
    // with their owner, whatever the client was told before.
    std::vector<std::pair<std::string, std::string>> unrestored(ClientId client) const;

    std::optional<ClientId> holder(const std::string& identity) const;
    // The device `client` holds by that identity; null when it holds none.
    const FanDevice* heldDevice(ClientId client, const std::string& identity) const;
    // Queries and releases narrow to one kind's fans when `kind` is given.
    std::size_t heldBy(ClientId client, const FanKind* kind = nullptr) const;
    // The clients holding fans, in order.
    std::vector<ClientId> holders(const FanKind* kind = nullptr) const;
    // The fans `client` holds and the duty cycle last written to each.
    std::vector<std::pair<std::string, int>> heldDuties(ClientId client,
                                                        const FanKind* kind = nullptr) const;

    // Writes `pwm` to the fan `identity` for `client`. A fan nobody holds is opened with `open`
    // (a fan of `kind`) and journaled before its first write.
    ArbiterOutcome take(const FanKind& kind, ClientId client, const std::string& identity, int pwm,
                        const Opener& open);
    // Gives one fan back. A fan nobody holds is already released: success.
    ArbiterOutcome release(ClientId client, const std::string& identity);
    // Gives back every fan `client` holds; returns how many. `reason` goes to the log.
    std::size_t releaseClient(ClientId client, const std::string& reason,
                              const FanKind* kind = nullptr);
    // Gives back every held fan; without a `kind`, retries the pending restores as well.
    std::size_t releaseEverything(const std::string& reason, const FanKind* kind = nullptr);

private:
    struct Held {
        ClientId client = 0;
        const FanKind* kind = nullptr;  // only compared: a kind may go before its holds do
        JournalEntry original;
        std::unique_ptr<FanDevice> device;
        int pwm = 0;  // the last duty cycle written
    };
    using HeldFans = std::map<std::string, Held>;  // by identity

    static bool matches(const Held& held, ClientId client, const FanKind* kind);
    ArbiterOutcome takeFirst(const FanKind& kind, ClientId client,
                             std::unique_ptr<FanDevice> device, int pwm);
    ArbiterOutcome writeHeld(HeldFans::iterator held, int pwm);
    // Moves an earlier run's journal entry for `identity` into `original`; false when none.
    bool adoptPending(const std::string& identity, JournalEntry* original);
    std::unique_ptr<FanDevice> find(const std::string& identity) const;
    bool saveJournal(std::string* error);
    void saveJournalOrLog();
    // Restores one held fan and forgets it; on failure it moves to pending_.
    void giveBack(HeldFans::iterator held, const std::string& reason);

    FanJournal journal_;
    Logger log_;
    std::vector<FanKind*> kinds_;
    HeldFans held_;
    // Journaled fans whose original mode could not be written back yet.
    std::vector<JournalEntry> pending_;
    // Of those, the ones a client let go of in this run: which client, and the last error.
    struct Unrestored {
        ClientId client = 0;
        std::string error;
    };
    std::map<std::string, Unrestored> unrestored_;    // by identity
    std::map<std::string, std::string> retryErrors_;  // the last retry failure logged, by identity
    bool isPending(const std::string& identity) const;
};

}  // namespace kelvo::helperd
