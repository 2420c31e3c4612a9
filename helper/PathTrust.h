// Whether a path can be changed only by root and the helper's own user. The helper runs as root
// and acts on what it reads (a journal that names fans, a configuration that floors them) and
// writes where it is told: a directory another user can write lets that user plant files and
// links there, so nothing in one is trusted.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace kelvo::helperd {

class PathTrust {
public:
    // `trustedUid` is the helper's own user (root when installed); root is always trusted.
    explicit PathTrust(uid_t trustedUid);

    uid_t trustedUid() const { return trustedUid_; }

    // Why a directory above `path` (not `path` itself) could be changed by another user, or
    // none. Each one, on the path as written and after following its links, must be owned by
    // root or the trusted user and not writable by group or others, unless it is sticky (as
    // /tmp is: others can add entries but not replace the helper's). A link on the way must be
    // owned by root or the trusted user.
    std::optional<std::string> ancestorsProblem(const std::filesystem::path& path) const;

    // Why `dir` is not a directory of the helper's own: it must not be a link, must be owned by
    // the trusted user, not writable by group or others, and have trusted ancestors.
    std::optional<std::string> privateDirectoryProblem(const std::filesystem::path& dir) const;

private:
    std::optional<std::string> directoryProblem(const std::string& path, bool followLinks) const;
    bool trustedOwner(uid_t uid) const { return uid == 0 || uid == trustedUid_; }

    uid_t trustedUid_;
};

}  // namespace kelvo::helperd
