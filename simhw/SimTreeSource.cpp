#include "simhw/SimTreeSource.h"

#include <cerrno>

namespace kelvo::simhw {

namespace {

sysfs::EntryKind kindOf(const Node& node) {
    switch (node.kind) {
        case NodeKind::directory: return sysfs::EntryKind::directory;
        case NodeKind::file: return sysfs::EntryKind::file;
        case NodeKind::symlink: return sysfs::EntryKind::symlink;
    }
    return sysfs::EntryKind::file;
}

}  // namespace

SimTreeSource::SimTreeSource(std::shared_ptr<SimHardware> hardware, std::mutex& mutex)
    : hardware_(std::move(hardware)), mutex_(mutex) {}

const Node* SimTreeSource::resolved(const std::string& path, std::string* where) {
    const SimTree& tree = hardware_->tree();
    if (tree.generation() != generation_) {
        resolved_.clear();
        listings_.clear();
        generation_ = tree.generation();
    }
    auto found = resolved_.find(path);
    if (found == resolved_.end()) {
        Resolved entry;
        if (auto target = tree.resolve(path)) {
            entry.node = tree.find(*target);
            entry.path = std::move(*target);
        }
        found = resolved_.emplace(path, std::move(entry)).first;
    }
    if (where && found->second.node) *where = found->second.path;
    return found->second.node;
}

std::optional<std::string> SimTreeSource::read(const std::string& path) {
    std::lock_guard lock(mutex_);
    const Node* node = resolved(path);
    // Opening a directory for reading fails (EISDIR), as does a file that is not there.
    if (!node || node->kind != NodeKind::file) return std::nullopt;
    return node->read ? node->read() : std::string();
}

int SimTreeSource::write(const std::string& path, std::string_view text) {
    std::lock_guard lock(mutex_);
    const Node* node = resolved(path);
    if (!node) return ENOENT;
    if (node->kind == NodeKind::directory) return EISDIR;
    if (!node->write) return EACCES;
    const int result = node->write(text);
    return result < 0 ? -result : 0;
}

std::optional<std::vector<sysfs::SourceEntry>> SimTreeSource::list(const std::string& path) {
    std::lock_guard lock(mutex_);
    std::string where;
    const Node* node = resolved(path, &where);
    if (!node || node->kind != NodeKind::directory) return std::nullopt;
    const auto listed = listings_.find(where);
    if (listed != listings_.end()) return listed->second;
    std::vector<sysfs::SourceEntry> entries;
    const SimTree& tree = hardware_->tree();
    for (const std::string& child : tree.children(where)) {
        const Node* entry = tree.find(where.empty() ? child : where + "/" + child);
        if (entry) entries.push_back({child, kindOf(*entry)});
    }
    listings_.emplace(where, entries);
    return entries;
}

std::optional<sysfs::EntryKind> SimTreeSource::kind(const std::string& path, bool follow) {
    std::lock_guard lock(mutex_);
    if (follow) {
        const Node* node = resolved(path);
        return node ? std::optional(kindOf(*node)) : std::nullopt;
    }
    // Only the directories above the last component are followed.
    const std::string parent = parentOf(path);
    const auto base =
        parent.empty() ? std::optional<std::string>("") : hardware_->tree().resolve(parent);
    if (!base) return std::nullopt;
    const std::string name = path.substr(parent.empty() ? 0 : parent.size() + 1);
    const Node* node = hardware_->tree().find(base->empty() ? name : *base + "/" + name);
    return node ? std::optional(kindOf(*node)) : std::nullopt;
}

std::optional<std::string> SimTreeSource::canonical(const std::string& path) {
    std::lock_guard lock(mutex_);
    std::string where;
    if (!resolved(path, &where)) return std::nullopt;
    return where;
}

}  // namespace kelvo::simhw
