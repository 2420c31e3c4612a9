#include "helper/FanJournal.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

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

FanJournal::FanJournal(fs::path file) : file_(std::move(file)) {}

FanJournal::Loaded FanJournal::load() const {
    Loaded loaded;
    std::ifstream in(file_);
    if (!in) return loaded;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
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
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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
