#include "helper/ClientAdmission.h"

#include <map>
#include <tuple>

namespace kelvo::helperd {

namespace {

using Connection = ClientAdmission::Connection;
using Slot = ClientAdmission::Slot;

// The quiet connection that `eligible` accepts and that loses least when closed: from the uid
// with the most connections (when `perUid` is given), then one that never asked anything, then
// the longest quiet.
template <class Eligible>
const Connection* quietest(const std::vector<Connection>& connections, Eligible eligible,
                           const std::map<uid_t, std::size_t>* perUid) {
    const auto share = [perUid](const Connection& c) { return perUid ? perUid->at(c.uid) : 0; };
    const auto losesLess = [&](const Connection& a, const Connection& b) {
        if (share(a) != share(b)) return share(a) > share(b);
        if (a.everRequested != b.everRequested) return !a.everRequested;
        return std::tie(a.lastActivity, a.id) < std::tie(b.lastActivity, b.id);
    };
    const Connection* best = nullptr;
    for (const Connection& c : connections) {
        if (c.engaged || !eligible(c)) continue;
        if (!best || losesLess(c, *best)) best = &c;
    }
    return best;
}

}  // namespace

ClientAdmission::Decision ClientAdmission::decide(uid_t uid,
                                                  const std::vector<Connection>& connections) {
    std::map<uid_t, std::size_t> ordinaryPerUid;
    std::size_t ordinary = 0;
    std::size_t status = 0;
    for (const Connection& c : connections) {
        if (c.slot == Slot::status) {
            ++status;
        } else {
            ++ordinary;
            ++ordinaryPerUid[c.uid];
        }
    }
    const std::size_t mine = ordinaryPerUid.contains(uid) ? ordinaryPerUid.at(uid) : 0;
    const bool uidFull = mine >= kMaxPerUid;
    const bool tableFull = ordinary >= kMaxClients;

    Decision decision;
    decision.admitted = true;
    if (!uidFull && !tableFull) return decision;

    // Room among the ordinary slots, by closing a quiet one.
    const Connection* victim =
        uidFull
            ? quietest(
                  connections,
                  [uid](const Connection& c) { return c.slot == Slot::ordinary && c.uid == uid; },
                  nullptr)
            : quietest(
                  connections, [](const Connection& c) { return c.slot == Slot::ordinary; },
                  &ordinaryPerUid);
    if (victim) {
        decision.evict = victim->id;
        return decision;
    }

    // Everyone is busy: status queries still get an answer.
    decision.slot = Slot::status;
    if (status < kStatusSlots) return decision;
    victim = quietest(
        connections, [](const Connection& c) { return c.slot == Slot::status; }, nullptr);
    if (victim) {
        decision.evict = victim->id;
        return decision;
    }

    decision.admitted = false;
    decision.slot = Slot::ordinary;
    decision.refusal = uidFull ? "too many clients: uid " + std::to_string(uid) + " has " +
                                     std::to_string(kMaxPerUid) + " connections already"
                               : "too many clients";
    return decision;
}

std::chrono::milliseconds ClientAdmission::idleLimit(Slot slot) {
    return std::chrono::milliseconds(slot == Slot::status ? kStatusIdleTimeoutMs : kIdleTimeoutMs);
}

bool ClientAdmission::allowedInStatusSlot(helper_protocol::Op op) {
    return op == helper_protocol::Op::version || op == helper_protocol::Op::list ||
           op == helper_protocol::Op::config;
}

}  // namespace kelvo::helperd
