// Who may talk to the helper: root, uids named on the command line (tests), and members of the
// allowed group (primary or supplementary, as the user database lists them). The peer's
// credentials come from SO_PEERCRED, which the kernel fills in at connect time.
//
// Group membership comes from the user database (files, and on systemd machines userdb, which
// may be an IPC call per lookup): a peer that connects in a loop must not make every connect
// cost lookups, so answers are kept for kMembershipCacheTime. A user added to the group waits
// that long at most (they need a new login session for it anyway).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kelvo::helperd {

struct PeerDecision {
    bool allowed = false;
    std::string refusal;  // the message the refused peer gets
};

class PeerAuthorizer {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    static constexpr auto kMembershipCacheTime = std::chrono::seconds(5);
    // Peers are few; past this many the cache starts afresh rather than grow.
    static constexpr std::size_t kMaxCachedPeers = 256;

    PeerAuthorizer(std::string allowedGroup, std::vector<uid_t> allowedUids, Now now = {});

    const std::string& allowedGroup() const { return allowedGroup_; }

    PeerDecision decide(uid_t uid, gid_t gid);
    // How many times the user database has been asked so far.
    std::size_t lookups() const { return lookups_; }

    // Whether `uid` (primary group `gid`) belongs to group `group`. A group that does not exist
    // has no members.
    static bool inGroup(uid_t uid, gid_t gid, const std::string& group);

private:
    struct Membership {
        bool member = false;
        Clock::time_point asked;
    };

    bool member(uid_t uid, gid_t gid);

    std::string allowedGroup_;
    std::vector<uid_t> allowedUids_;
    Now now_;
    std::map<std::pair<uid_t, gid_t>, Membership> memberships_;
    std::size_t lookups_ = 0;
};

}  // namespace kelvo::helperd
