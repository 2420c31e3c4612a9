// Who may talk to the helper: root, uids named on the command line (tests), and members of the
// allowed group (primary or supplementary, as the user database lists them). The peer's
// credentials come from SO_PEERCRED, which the kernel fills in at connect time.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelvo::helperd {

struct PeerDecision {
    bool allowed = false;
    std::string refusal;  // the message the refused peer gets
};

class PeerAuthorizer {
public:
    PeerAuthorizer(std::string allowedGroup, std::vector<uid_t> allowedUids);

    const std::string& allowedGroup() const { return allowedGroup_; }

    PeerDecision decide(uid_t uid, gid_t gid) const;

    // Whether `uid` (primary group `gid`) belongs to group `group`. A group that does not exist
    // has no members.
    static bool inGroup(uid_t uid, gid_t gid, const std::string& group);

private:
    std::string allowedGroup_;
    std::vector<uid_t> allowedUids_;
};

}  // namespace kelvo::helperd
