#include "helper/PeerAuthorizer.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace kelvo::helperd {

namespace {

// Enough for getpwuid_r/getgrnam_r entries of any sane user database.
constexpr std::size_t kLookupBuffer = 64 * 1024;

}  // namespace

PeerAuthorizer::PeerAuthorizer(std::string allowedGroup, std::vector<uid_t> allowedUids, Now now)
    : allowedGroup_(std::move(allowedGroup)),
      allowedUids_(std::move(allowedUids)),
      now_(now ? std::move(now) : Now([] { return Clock::now(); })) {}

bool PeerAuthorizer::member(uid_t uid, gid_t gid) {
    const Clock::time_point now = now_();
    const auto key = std::make_pair(uid, gid);
    if (const auto found = memberships_.find(key);
        found != memberships_.end() && now - found->second.asked < kMembershipCacheTime) {
        return found->second.member;
    }
    if (memberships_.size() >= kMaxCachedPeers) memberships_.clear();
    ++lookups_;
    const bool isMember = inGroup(uid, gid, allowedGroup_);
    memberships_[key] = {isMember, now};
    return isMember;
}

bool PeerAuthorizer::inGroup(uid_t uid, gid_t gid, const std::string& group) {
    if (group.empty()) return false;
    std::vector<char> buffer(kLookupBuffer);
    struct group groupEntry {};
    struct group* groupFound = nullptr;
    if (::getgrnam_r(group.c_str(), &groupEntry, buffer.data(), buffer.size(), &groupFound) != 0 ||
        !groupFound) {
        return false;
    }
    const gid_t wanted = groupFound->gr_gid;
    if (gid == wanted) return true;

    std::vector<char> userBuffer(kLookupBuffer);
    struct passwd userEntry {};
    struct passwd* userFound = nullptr;
    if (::getpwuid_r(uid, &userEntry, userBuffer.data(), userBuffer.size(), &userFound) != 0 ||
        !userFound) {
        return false;
    }
    // getgrouplist reports the size it needs when the first guess is too small.
    int count = 32;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(userFound->pw_name, userFound->pw_gid, groups.data(), &count) < 0) {
        groups.resize(static_cast<std::size_t>(count));
        if (::getgrouplist(userFound->pw_name, userFound->pw_gid, groups.data(), &count) < 0) {
            return false;
        }
    }
    groups.resize(static_cast<std::size_t>(count));
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

PeerDecision PeerAuthorizer::decide(uid_t uid, gid_t gid) {
    if (uid == 0) return {true, {}};
    if (std::find(allowedUids_.begin(), allowedUids_.end(), uid) != allowedUids_.end()) {
        return {true, {}};
    }
    if (member(uid, gid)) return {true, {}};
    return {false, "not allowed to use the helper (uid " + std::to_string(uid) +
                       " is not root or in group " + allowedGroup_ + ")"};
}

}  // namespace kelvo::helperd
