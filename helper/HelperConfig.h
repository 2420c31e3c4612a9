// The root-owned configuration kelvo-helperd enforces on every client (helper/CONFIG.md):
// duty floors no request may go below and fans no client may take.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace kelvo::helperd {

struct HelperConfig {
    static constexpr const char* kDefaultPath = "/etc/kelvo/helperd.conf";
    static constexpr std::size_t kMaxFileSize = 64 * 1024;
    static constexpr std::size_t kMaxLineLength = 1024;

    std::string file;                   // where it was read from; empty when there is none
    std::map<std::string, int> floors;  // identity -> lowest duty cycle (0-255) a client may set
    std::set<std::string> forbidden;    // identities no client may take

    std::optional<int> floorOf(const std::string& identity) const;
    bool isForbidden(const std::string& identity) const { return forbidden.contains(identity); }

    struct Loaded;
    // `fileName` only names the source in error messages ("FILE:LINE: what is wrong").
    static Loaded parse(std::string_view text, const std::string& fileName);
    // A missing file is no configuration unless `mustExist` (a path given with --config). The
    // file must be a regular file owned by root or `trustedUid` (the helper's own user) that
    // only its owner may write, in directories nobody else can change (see PathTrust).
    static Loaded load(const std::string& path, bool mustExist);
    static Loaded load(const std::string& path, bool mustExist, uid_t trustedUid);
};

struct HelperConfig::Loaded {
    bool ok = false;
    std::string error;  // one line
    HelperConfig config;
};

}  // namespace kelvo::helperd
