// One kind of fan (hwmon, NVIDIA through NVML) held through a shared FanOwner. A kind finds its
// fans and makes their FanDevice; who holds them, the journal and giving them back are the
// owner's, so that every kind keeps the same rules. The queries here narrow to this kind's fans.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "helper/FanDevice.h"
#include "helper/FanOwner.h"

namespace kelvo::helperd {

class FanKind {
public:
    // Registers with `owner`, which must outlive the kind.
    explicit FanKind(FanOwner& owner);
    virtual ~FanKind();
    FanKind(const FanKind&) = delete;
    FanKind& operator=(const FanKind&) = delete;

    // The fan with this identity as it is now; null when this kind has none by that identity.
    virtual std::unique_ptr<FanDevice> find(const std::string& identity) const = 0;

    std::optional<ClientId> holder(const std::string& identity) const;
    std::size_t heldBy(ClientId client) const;
    std::vector<ClientId> holders() const;
    std::vector<std::pair<std::string, int>> heldDuties(ClientId client) const;
    ArbiterOutcome release(ClientId client, const std::string& identity);
    std::size_t releaseClient(ClientId client, const std::string& reason);
    std::size_t releaseEverything(const std::string& reason);

    // The owner's journal, which every kind shares.
    void restoreFromJournal() { owner_.restoreFromJournal(); }
    void retryPending() { owner_.retryPending(); }
    bool hasPending() const { return owner_.hasPending(); }

protected:
    FanOwner& owner_;
};

}  // namespace kelvo::helperd
