// A simulated machine's file tree served in-process through the sysfs mount table, with the
// semantics SimFilesystem gives it through FUSE: a read produces the attribute's text, a write
// goes to the attribute's setter and its negative errno comes back as the write's errno, links
// resolve and directories list. No FUSE, no kernel, no real time: whoever steps the machine
// decides what time it is.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/core/SysfsMounts.h"
#include "simhw/SimHardware.h"

namespace kelvo::simhw {

class SimTreeSource : public sysfs::FileSource {
public:
    // `mutex` is the one held around every other use of `hardware` (stepping it, faults).
    SimTreeSource(std::shared_ptr<SimHardware> hardware, std::mutex& mutex);

    std::optional<std::string> read(const std::string& path) override;
    int write(const std::string& path, std::string_view text) override;
    std::optional<std::vector<sysfs::SourceEntry>> list(const std::string& path) override;
    std::optional<sysfs::EntryKind> kind(const std::string& path, bool follow) override;
    std::optional<std::string> canonical(const std::string& path) override;

private:
    // The node at `path` after every link, and its resolved path.
    const Node* resolved(const std::string& path, std::string* where = nullptr);

    std::shared_ptr<SimHardware> hardware_;
    std::mutex& mutex_;
    // Paths resolved since the tree last changed: the product reads the same few hundred files
    // every second, and walking the links for each costs more than the rest of the run.
    struct Resolved {
        std::string path;
        const Node* node = nullptr;  // null: nothing there
    };
    std::unordered_map<std::string, Resolved> resolved_;
    std::unordered_map<std::string, std::vector<sysfs::SourceEntry>> listings_;  // by resolved path
    std::uint64_t generation_ = 0;
};

}  // namespace kelvo::simhw
