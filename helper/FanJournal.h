// The helper's record of the fans it has taken and the mode each had before, kept in the runtime
// directory so that a helper killed without a chance to clean up (SIGKILL, a crash) finds them
// at its next start and gives them back. Written before a fan is taken, rewritten atomically
// (temporary file, fsync, rename) on every change, removed when nothing is held.
//
// Root acts on what the journal says, so it is only read from, and written into, a directory
// only the helper's user can change, and only a file that user made is believed: links are
// never followed, the temporary file is always created afresh, and a journal owned by someone
// else or writable by group or others is moved aside unread.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kelvo::helperd {

// An NVIDIA fan's entry has neither value: it goes back to the driver's automatic control.
struct JournalEntry {
    std::string identity;       // the fan's identity, hwmon or NVIDIA
    std::optional<int> enable;  // pwmN_enable before the helper took the fan
    std::optional<int> pwm;     // pwmN before the helper took the fan

    bool operator==(const JournalEntry&) const = default;
};

class FanJournal {
public:
    // `owner`: the helper's user, the only one whose journal is believed (the effective uid).
    explicit FanJournal(std::filesystem::path file);
    FanJournal(std::filesystem::path file, uid_t owner);

    const std::filesystem::path& file() const { return file_; }

    struct Loaded {
        std::vector<JournalEntry> entries;
        std::vector<std::string> problems;  // lines that could not be read, and why
    };
    // A missing file is an empty journal. Damaged lines are skipped and reported; the rest is
    // still used, since every readable entry is a fan that may need giving back. A journal that
    // is not trusted yields no entries and a problem (it is renamed to untrustedFile()).
    Loaded load() const;

    // Replaces the journal with `entries` (an empty list removes the file). Refused in a
    // directory that is not the helper's own.
    bool save(const std::vector<JournalEntry>& entries, std::string* error) const;

    std::filesystem::path untrustedFile() const { return file_.string() + ".untrusted"; }

    static constexpr const char* kHeader = "# kelvo-helperd fan journal 1";
    // Far more than any machine's fans take; a larger file is not one the helper wrote.
    static constexpr std::size_t kMaxFileSize = 256 * 1024;

private:
    std::optional<std::string> directoryProblem() const;
    void moveAside() const;

    std::filesystem::path file_;
    uid_t owner_;
};

}  // namespace kelvo::helperd
