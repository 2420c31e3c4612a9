// The root-owned configuration kelvo-helperd enforces on every client (helper/CONFIG.md):
// duty floors no request may go below and fans no client may take.
#pragma once

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
    // A missing file is no configuration unless `mustExist` (a path given with --config).
    static Loaded load(const std::string& path, bool mustExist);
};

struct HelperConfig::Loaded {
    bool ok = false;
    std::string error;  // one line
    HelperConfig config;
};

}  // namespace kelvo::helperd
