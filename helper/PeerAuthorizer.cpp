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

PeerAuthorizer::PeerAuthorizer(std::string allowedGroup, std::vector<uid_t> allowedUids)
    : allowedGroup_(std::move(allowedGroup)), allowedUids_(std::move(allowedUids)) {}

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

PeerDecision PeerAuthorizer::decide(uid_t uid, gid_t gid) const {
    if (uid == 0) return {true, {}};
    if (std::find(allowedUids_.begin(), allowedUids_.end(), uid) != allowedUids_.end()) {
        return {true, {}};
    }
    if (inGroup(uid, gid, allowedGroup_)) return {true, {}};
    return {false, "not allowed to use the helper (uid " + std::to_string(uid) +
                       " is not root or in group " + allowedGroup_ + ")"};
}

}  // namespace kelvo::helperd
