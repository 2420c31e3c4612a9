// The fake sysfs trees under tests/data/sysfs, and writable copies of them for tests that
// change counters or layout.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvo::test_support {

inline std::filesystem::path sysfsTree(const std::string& name) {
    return std::filesystem::path(KELVO_TEST_DATA_DIR) / "sysfs" / name;
}

// A private copy of a committed tree in a temporary directory; links stay links.
class TreeCopy {
public:
    explicit TreeCopy(const std::string& name) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kelvo-tree-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
        root_ = pattern;
        std::filesystem::copy(sysfsTree(name), root_,
                              std::filesystem::copy_options::recursive |
                                  std::filesystem::copy_options::copy_symlinks);
    }
    ~TreeCopy() {
        std::error_code ec;
        std::filesystem::remove_all(root_, ec);
    }
    TreeCopy(const TreeCopy&) = delete;
    TreeCopy& operator=(const TreeCopy&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::string rootString() const { return root_.string(); }

    void write(const std::string& relative, const std::string& content) const {
        const auto target = root_ / relative;
        std::filesystem::create_directories(target.parent_path());
        std::ofstream out(target, std::ios::trunc);
        out << content << "\n";
        if (!out) throw std::runtime_error("cannot write " + target.string());
    }
    void write(const std::string& relative, std::uint64_t value) const {
        write(relative, std::to_string(value));
    }

    void remove(const std::string& relative) const {
        if (!std::filesystem::remove(root_ / relative)) {
            throw std::runtime_error("nothing to remove at " + relative);
        }
    }

    // An attribute nobody can read as a number, whoever runs the test (root reads 0400 files).
    void replaceWithDirectory(const std::string& relative) const {
        remove(relative);
        std::filesystem::create_directory(root_ / relative);
    }

    // Gives every sys/class/hwmon/hwmonN the number `renumber[N]`, moving the hwmon directory
    // under its device and the class link together, as a reboot with another probe order does.
    void renumberHwmon(const std::map<int, int>& renumber) const {
        namespace fs = std::filesystem;
        const fs::path classDir = root_ / "sys/class/hwmon";
        struct Move {
            fs::path oldLink, newLink, oldDir, newDir, newTarget;
        };
        std::vector<Move> moves;
        for (const auto& [from, to] : renumber) {
            const fs::path oldLink = classDir / ("hwmon" + std::to_string(from));
            const fs::path target = fs::read_symlink(oldLink);
            const fs::path newTarget = target.parent_path() / ("hwmon" + std::to_string(to));
            moves.push_back({oldLink, classDir / ("hwmon" + std::to_string(to)),
                             (classDir / target).lexically_normal(),
                             (classDir / newTarget).lexically_normal(), newTarget});
        }
        for (const Move& move : moves) fs::remove(move.oldLink);
        for (const Move& move : moves) {
            fs::rename(move.oldDir, move.newDir);
            fs::create_directory_symlink(move.newTarget, move.newLink);
        }
    }

private:
    std::filesystem::path root_;
};

// /proc/stat with the aggregate line summed from per-CPU (user, system, idle) triples.
struct CpuTimes {
    std::uint64_t user = 0;
    std::uint64_t system = 0;
    std::uint64_t idle = 0;
};

inline std::string procStat(const std::vector<CpuTimes>& cpus) {
    CpuTimes all;
    std::string perCpu;
    for (std::size_t i = 0; i < cpus.size(); ++i) {
        all.user += cpus[i].user;
        all.system += cpus[i].system;
        all.idle += cpus[i].idle;
        perCpu += "cpu" + std::to_string(i) + " " + std::to_string(cpus[i].user) + " 0 " +
                  std::to_string(cpus[i].system) + " " + std::to_string(cpus[i].idle) +
                  " 0 0 0 0 0 0\n";
    }
    return "cpu  " + std::to_string(all.user) + " 0 " + std::to_string(all.system) + " " +
           std::to_string(all.idle) + " 0 0 0 0 0 0\n" + perCpu + "intr 1 0\nctxt 2";
}

}  // namespace kelvo::test_support
