#include "helper/FanJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "helper/PathTrust.h"

namespace kelvo::helperd {

namespace fs = std::filesystem;

namespace {

constexpr const char* kNone = "-";

std::string optionalText(const std::optional<int>& value) {
    return value ? std::to_string(*value) : std::string(kNone);
}

// "-" is none; otherwise a whole number 0-255, the range of both hwmon attributes.
bool parseOptional(std::string_view text, std::optional<int>* value) {
    if (text == kNone) {
        value->reset();
        return true;
    }
    int parsed = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (ec != std::errc() || ptr != text.data() + text.size() || parsed < 0 || parsed > 255) {
        return false;
    }
    *value = parsed;
    return true;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += static_cast<std::size_t>(n);
    }
    return true;
}

std::string failure(const std::string& what, const fs::path& path) {
    return what + " " + path.string() + ": " + std::strerror(errno);
}

// Makes a rename or unlink in `dir` durable.
void syncDirectory(const fs::path& dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

FanJournal::FanJournal(fs::path file) : FanJournal(std::move(file), ::geteuid()) {}

FanJournal::FanJournal(fs::path file, uid_t owner) : file_(std::move(file)), owner_(owner) {}

std::optional<std::string> FanJournal::directoryProblem() const {
    return PathTrust(owner_).privateDirectoryProblem(file_.parent_path());
}

void FanJournal::moveAside() const {
    // rename() acts on the entry itself: a link is moved, never followed.
    ::rename(file_.c_str(), untrustedFile().c_str());
}

FanJournal::Loaded FanJournal::load() const {
    Loaded loaded;
    if (const auto problem = directoryProblem()) {
        loaded.problems.push_back("not read, the directory is not the helper's own: " + *problem);
        return loaded;
    }
    // Non-blocking: a FIFO planted here must not hang the start.
    const int fd = ::open(file_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        if (errno == ENOENT) return loaded;
        loaded.problems.push_back(errno == ELOOP
                                      ? std::string("is a link; not followed, moved aside to ") +
                                            untrustedFile().string()
                                      : std::string("cannot be opened: ") + std::strerror(errno));
        if (errno == ELOOP) moveAside();
        return loaded;
    }
    struct stat info {};
    std::string distrust;
    if (::fstat(fd, &info) != 0) {
        distrust = std::string("cannot be examined: ") + std::strerror(errno);
    } else if (!S_ISREG(info.st_mode)) {
        distrust = "is not a regular file";
    } else if (info.st_uid != owner_) {
        distrust = "is owned by uid " + std::to_string(info.st_uid) + ", not the helper's uid " +
                   std::to_string(owner_);
    } else if (info.st_mode & (S_IWGRP | S_IWOTH)) {
        distrust = "is writable by group or others";
    } else if (info.st_nlink != 1) {
        distrust = "has other names (hard links)";
    } else if (static_cast<std::size_t>(info.st_size) > kMaxFileSize) {
        distrust = "is larger than any journal the helper writes";
    }
    std::string text;
    if (distrust.empty()) {
        text.resize(kMaxFileSize + 1);
        std::size_t size = 0;
        while (size < text.size()) {
            const ssize_t n = ::read(fd, text.data() + size, text.size() - size);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            size += static_cast<std::size_t>(n);
        }
        text.resize(size);
        if (size > kMaxFileSize) distrust = "is larger than any journal the helper writes";
    }
    ::close(fd);
    if (!distrust.empty()) {
        // Never acted on: a fan set from it could be left at any duty.
        moveAside();
        loaded.problems.push_back(distrust + "; not trusted, moved aside to " +
                                  untrustedFile().string());
        return loaded;
    }
    std::size_t offset = 0;
    int number = 0;
    while (offset < text.size()) {
        std::size_t end = text.find('\n', offset);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(offset, end - offset);
        offset = end + 1;
        ++number;
        if (line.empty() || line.starts_with('#')) continue;
        // identity TAB enable TAB pwm; identities never contain tabs (see save()).
        const std::size_t first = line.find('\t');
        const std::size_t second =
            first == std::string::npos ? std::string::npos : line.find('\t', first + 1);
        JournalEntry entry;
        if (first == 0 || second == std::string::npos ||
            line.find('\t', second + 1) != std::string::npos ||
            !parseOptional(std::string_view(line).substr(first + 1, second - first - 1),
                           &entry.enable) ||
            !parseOptional(std::string_view(line).substr(second + 1), &entry.pwm)) {
            loaded.problems.push_back("line " + std::to_string(number) + " is damaged");
            continue;
        }
        entry.identity = line.substr(0, first);
        loaded.entries.push_back(std::move(entry));
    }
    return loaded;
}

bool FanJournal::save(const std::vector<JournalEntry>& entries, std::string* error) const {
    if (const auto problem = directoryProblem()) {
        if (error) {
            *error = "cannot create " + file_.string() +
                     ": the directory is not the helper's own (" + *problem + ")";
        }
        return false;
    }
    if (entries.empty()) {
        if (::unlink(file_.c_str()) != 0 && errno != ENOENT) {
            if (error) *error = failure("cannot remove", file_);
            return false;
        }
        syncDirectory(file_.parent_path());
        return true;
    }
    std::string text = std::string(kHeader) + "\n";
    for (const JournalEntry& entry : entries) {
        if (entry.identity.empty() || entry.identity.find_first_of("\t\n") != std::string::npos) {
            if (error) *error = "fan identity cannot be journaled: " + entry.identity;
            return false;
        }
        text += entry.identity + "\t" + optionalText(entry.enable) + "\t" +
                optionalText(entry.pwm) + "\n";
    }
    const fs::path temporary = file_.string() + ".new";
    // Whatever is there (a file a killed helper left, or a link) is removed, not followed, and
    // the file is made afresh: O_EXCL fails rather than open something that appeared meanwhile.
    if (::unlinkat(AT_FDCWD, temporary.c_str(), 0) != 0 && errno != ENOENT) {
        if (error) *error = failure("cannot remove the stale", temporary);
        return false;
    }
    const int fd = ::open(temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, 0600);
    if (fd < 0) {
        if (error) *error = failure("cannot create", temporary);
        return false;
    }
    const bool written = writeAll(fd, text) && ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    if (!written) {
        errno = savedErrno;
        if (error) *error = failure("cannot write", temporary);
        ::unlink(temporary.c_str());
        return false;
    }
    if (::rename(temporary.c_str(), file_.c_str()) != 0) {
        if (error) *error = failure("cannot replace", file_);
        ::unlink(temporary.c_str());
        return false;
    }
    syncDirectory(file_.parent_path());
    return true;
}

}  // namespace kelvo::helperd
