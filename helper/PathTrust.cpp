#include "helper/PathTrust.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelvo::helperd {

namespace fs = std::filesystem;

namespace {

std::string modeText(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

bool othersMayWrite(mode_t mode) {
    return (mode & (S_IWGRP | S_IWOTH)) != 0;
}

// `path` as the helper will use it, without a trailing separator.
fs::path absoluteOf(const fs::path& path) {
    fs::path absolute = fs::absolute(path);
    if (!absolute.has_filename() && absolute.has_parent_path() &&
        absolute != absolute.root_path()) {
        absolute = absolute.parent_path();
    }
    return absolute;
}

}  // namespace

PathTrust::PathTrust(uid_t trustedUid) : trustedUid_(trustedUid) {}

std::optional<std::string> PathTrust::directoryProblem(const std::string& path,
                                                       bool followLinks) const {
    struct stat info {};
    const int r = followLinks ? ::stat(path.c_str(), &info) : ::lstat(path.c_str(), &info);
    if (r != 0) return path + " cannot be examined: " + std::strerror(errno);
    if (S_ISLNK(info.st_mode)) {
        // Only its owner (or the owner of the directory holding it) can point it elsewhere;
        // where it points is checked on the resolved path.
        if (!trustedOwner(info.st_uid)) {
            return path + " is a link owned by uid " + std::to_string(info.st_uid);
        }
        return std::nullopt;
    }
    if (!S_ISDIR(info.st_mode)) return path + " is not a directory";
    if (!trustedOwner(info.st_uid)) {
        return path + " is owned by uid " + std::to_string(info.st_uid) + ", not root or uid " +
               std::to_string(trustedUid_);
    }
    if (othersMayWrite(info.st_mode) && !(info.st_mode & S_ISVTX)) {
        return path + " is writable by group or others (mode " + modeText(info.st_mode) + ")";
    }
    return std::nullopt;
}

std::optional<std::string> PathTrust::ancestorsProblem(const fs::path& path) const {
    const fs::path absolute = absoluteOf(path);
    // As written: a link on the way is as good as the directory that holds it.
    for (fs::path dir = absolute.parent_path();; dir = dir.parent_path()) {
        if (auto problem = directoryProblem(dir.string(), false)) return problem;
        if (dir == dir.parent_path()) break;
    }
    // As resolved: where the links lead.
    std::error_code ec;
    const fs::path resolved = fs::canonical(absolute.parent_path(), ec);
    if (ec) return absolute.parent_path().string() + " cannot be resolved: " + ec.message();
    for (fs::path dir = resolved;; dir = dir.parent_path()) {
        if (auto problem = directoryProblem(dir.string(), true)) return problem;
        if (dir == dir.parent_path()) break;
    }
    return std::nullopt;
}

std::optional<std::string> PathTrust::privateDirectoryProblem(const fs::path& dir) const {
    const fs::path absolute = absoluteOf(dir);
    struct stat info {};
    if (::lstat(absolute.c_str(), &info) != 0) {
        return absolute.string() + " cannot be examined: " + std::strerror(errno);
    }
    if (S_ISLNK(info.st_mode)) return absolute.string() + " is a link";
    if (!S_ISDIR(info.st_mode)) return absolute.string() + " is not a directory";
    if (info.st_uid != trustedUid_) {
        return absolute.string() + " is owned by uid " + std::to_string(info.st_uid) +
               ", not the helper's uid " + std::to_string(trustedUid_);
    }
    if (othersMayWrite(info.st_mode)) {
        return absolute.string() + " is writable by group or others (mode " +
               modeText(info.st_mode) + ")";
    }
    return ancestorsProblem(absolute);
}

}  // namespace kelvo::helperd
