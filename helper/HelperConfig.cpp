#include "helper/HelperConfig.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/PathTrust.h"

namespace kelvo::helperd {

namespace {

std::vector<std::string_view> words(std::string_view line) {
    std::vector<std::string_view> result;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        const std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        if (i > start) result.push_back(line.substr(start, i - start));
    }
    return result;
}

// "0"-"255", or "0%"-"100%" (rounded to the nearest duty cycle).
std::optional<int> parseDuty(std::string_view text) {
    const bool percent = text.ends_with('%');
    if (percent) text.remove_suffix(1);
    if (text.empty() || text.size() > 3) return std::nullopt;
    int value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    if (percent) {
        if (value < 0 || value > 100) return std::nullopt;
        return (value * helper_protocol::kMaxPWM + 50) / 100;
    }
    if (value < 0 || value > helper_protocol::kMaxPWM) return std::nullopt;
    return value;
}

bool hasControlCharacter(std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7f) return true;
    }
    return false;
}

}  // namespace

std::optional<int> HelperConfig::floorOf(const std::string& identity) const {
    const auto found = floors.find(identity);
    if (found == floors.end()) return std::nullopt;
    return found->second;
}

HelperConfig::Loaded HelperConfig::parse(std::string_view text, const std::string& fileName) {
    Loaded loaded;
    HelperConfig& config = loaded.config;
    config.file = fileName;
    if (text.size() > kMaxFileSize) {
        loaded.error = fileName + ": larger than " + std::to_string(kMaxFileSize / 1024) + " KiB";
        return loaded;
    }
    std::size_t lineNumber = 0;
    std::size_t offset = 0;
    while (offset < text.size()) {
        ++lineNumber;
        std::size_t end = text.find('\n', offset);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(offset, end - offset);
        offset = end + 1;
        const auto fail = [&](const std::string& why) {
            loaded.error = fileName + ":" + std::to_string(lineNumber) + ": " + why;
            return loaded;
        };
        if (line.size() > kMaxLineLength) {
            return fail("line longer than " + std::to_string(kMaxLineLength) + " characters");
        }
        if (hasControlCharacter(line)) return fail("control character in line");
        if (const auto hash = line.find('#'); hash != std::string_view::npos) {
            // '#' also ends a fan identity ("...#fan1"), so only a '#' that starts a word starts
            // a comment.
            std::size_t cut = std::string_view::npos;
            for (std::size_t i = hash; i != std::string_view::npos; i = line.find('#', i + 1)) {
                if (i == 0 || line[i - 1] == ' ' || line[i - 1] == '\t') {
                    cut = i;
                    break;
                }
            }
            if (cut != std::string_view::npos) line = line.substr(0, cut);
        }
        const std::vector<std::string_view> parts = words(line);
        if (parts.empty()) continue;
        const std::string_view keyword = parts[0];
        if (keyword == "floor") {
            if (parts.size() < 2) return fail("floor needs a fan identity and a duty cycle");
            if (parts.size() < 3)
                return fail("floor " + std::string(parts[1]) + " needs a duty cycle");
            if (parts.size() > 3) return fail("floor takes a fan identity and one duty cycle");
            if (parts[1].size() > helper_protocol::kMaxIdentityLength) {
                return fail("fan identity longer than " +
                            std::to_string(helper_protocol::kMaxIdentityLength) + " characters");
            }
            const auto duty = parseDuty(parts[2]);
            if (!duty) {
                return fail("bad duty cycle '" + std::string(parts[2]) + "' (0-255, or 0%-100%)");
            }
            const std::string identity(parts[1]);
            if (config.floors.contains(identity)) {
                return fail("duplicate floor for " + identity);
            }
            config.floors[identity] = *duty;
        } else if (keyword == "forbid") {
            if (parts.size() < 2) return fail("forbid needs a fan identity");
            if (parts.size() > 2) return fail("forbid takes one fan identity");
            if (parts[1].size() > helper_protocol::kMaxIdentityLength) {
                return fail("fan identity longer than " +
                            std::to_string(helper_protocol::kMaxIdentityLength) + " characters");
            }
            const std::string identity(parts[1]);
            if (!config.forbidden.insert(identity).second) {
                return fail("duplicate forbid for " + identity);
            }
        } else {
            return fail("unknown keyword '" + std::string(keyword) + "' (floor or forbid)");
        }
        if (config.floors.size() + config.forbidden.size() > helper_protocol::kMaxListEntries) {
            return fail("more than " + std::to_string(helper_protocol::kMaxListEntries) +
                        " entries");
        }
    }
    loaded.ok = true;
    return loaded;
}

HelperConfig::Loaded HelperConfig::load(const std::string& path, bool mustExist) {
    return load(path, mustExist, ::geteuid());
}

HelperConfig::Loaded HelperConfig::load(const std::string& path, bool mustExist, uid_t trustedUid) {
    Loaded loaded;
    // Non-blocking: opening a FIFO would otherwise wait for a writer that never comes.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT && !mustExist) {
            loaded.ok = true;
            return loaded;
        }
        loaded.error = path + ": cannot open: " + std::strerror(errno);
        return loaded;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        loaded.error = path + ": not a regular file";
        return loaded;
    }
    // Whoever can write the file decides for every user: only root (or the helper's own user).
    if ((info.st_uid != 0 && info.st_uid != trustedUid) || (info.st_mode & (S_IWGRP | S_IWOTH))) {
        ::close(fd);
        loaded.error = path + ": must be owned by root and writable by its owner only";
        return loaded;
    }
    // So does whoever can replace it: every directory on the way must be root's as well.
    if (const auto problem = PathTrust(trustedUid).ancestorsProblem(path)) {
        ::close(fd);
        loaded.error = path + ": not trusted, " + *problem;
        return loaded;
    }
    // One byte over the limit is enough to know the file is too large.
    std::string text(kMaxFileSize + 1, '\0');
    std::size_t size = 0;
    while (size < text.size()) {
        const ssize_t n = ::read(fd, text.data() + size, text.size() - size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            loaded.error = path + ": cannot read: " + std::strerror(errno);
            ::close(fd);
            return loaded;
        }
        if (n == 0) break;
        size += static_cast<std::size_t>(n);
    }
    ::close(fd);
    text.resize(size);
    return parse(text, path);
}

}  // namespace kelvo::helperd
