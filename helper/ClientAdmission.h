// Who gets a connection slot in kelvo-helperd. Every allowed user can open connections, and a
// connection takes a slot whether or not it ever says anything, so no peer may be able to crowd
// the others out:
// - one uid has at most kMaxPerUid of the kMaxClients ordinary slots;
// - a newcomer that finds its uid's share, or the whole table, taken makes room by closing a
//   quiet connection (holds no fans, has nothing half-sent, unread or unanswered): one that never
//   asked anything before one that did, the longest quiet first, of its own uid when its uid is
//   the limit, else of the uid with the most connections;
// - when no connection is quiet, kStatusSlots more slots still answer status queries (version,
//   list and config), so `kelvoctl helper status` can say what is going on;
// - the server closes a connection that sends no complete request for idleLimit() of its slot.
// Pure policy: the server describes its connections and applies the decision.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/ClientInfo.h"

namespace kelvo::helperd {

class ClientAdmission {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMaxClients = 64;
    static constexpr std::size_t kMaxPerUid = 16;
    static constexpr std::size_t kStatusSlots = 2;
    // Longer than the 2.5 s lease, so a client that holds fans loses them to the lease first.
    static constexpr int kIdleTimeoutMs = 5000;
    // A status query is two requests in a row; a status slot is not for keeping.
    static constexpr int kStatusIdleTimeoutMs = 1000;

    enum class Slot { ordinary, status };

    // One connection as the policy sees it.
    struct Connection {
        ClientId id = 0;
        uid_t uid = 0;
        Slot slot = Slot::ordinary;
        // Holds fans, or has a request half-received or unread, or a reply not yet taken:
        // closing it would cost its owner something.
        bool engaged = false;
        bool everRequested = false;
        Clock::time_point lastActivity;  // accepted, or its last complete request
    };

    struct Decision {
        bool admitted = false;
        Slot slot = Slot::ordinary;
        std::optional<ClientId> evict;  // to be closed before the newcomer is admitted
        std::string refusal;            // the busy reply's message when not admitted
    };

    static Decision decide(uid_t uid, const std::vector<Connection>& connections);

    static std::chrono::milliseconds idleLimit(Slot slot);
    // Status slots serve only the operations `kelvoctl helper status` needs.
    static bool allowedInStatusSlot(helper_protocol::Op op);
};

}  // namespace kelvo::helperd
