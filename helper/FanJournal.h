// The helper's record of the fans it has taken and the mode each had before, kept in the runtime
// directory so that a helper killed without a chance to clean up (SIGKILL, a crash) finds them
// at its next start and gives them back. Written before a fan is taken, rewritten atomically
// (temporary file, fsync, rename) on every change, removed when nothing is held.
#pragma once

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
    explicit FanJournal(std::filesystem::path file);

    const std::filesystem::path& file() const { return file_; }

    struct Loaded {
        std::vector<JournalEntry> entries;
        std::vector<std::string> problems;  // lines that could not be read, and why
    };
    // A missing file is an empty journal. Damaged lines are skipped and reported; the rest is
    // still used, since every readable entry is a fan that may need giving back.
    Loaded load() const;

    // Replaces the journal with `entries` (an empty list removes the file).
    bool save(const std::vector<JournalEntry>& entries, std::string* error) const;

    static constexpr const char* kHeader = "# kelvo-helperd fan journal 1";

private:
    std::filesystem::path file_;
};

}  // namespace kelvo::helperd
