// The file tree kelvo-simhw serves: directories, symbolic links and attribute files whose content
// is produced when read and whose writes are handed to a setter, as sysfs does. Paths are relative
// to the mount point, without a leading slash ("" is the root).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::simhw {

enum class NodeKind { directory, file, symlink };

// Returns 0 when the value was taken, or a negative errno (-EINVAL, -EIO, ...).
using AttributeWrite = std::function<int(std::string_view)>;
using AttributeRead = std::function<std::string()>;

struct Node {
    NodeKind kind = NodeKind::directory;
    mode_t mode = 0755;
    std::string target;  // symlinks
    AttributeRead read;
    AttributeWrite write;  // empty: read-only
};

class SimTree {
public:
    void addDirectory(const std::string& path);
    void addFile(const std::string& path, AttributeRead read, AttributeWrite write = {},
                 mode_t mode = 0);
    void addSymlink(const std::string& path, std::string target);
    // Removes `path` and everything under it.
    void remove(const std::string& path);
    void clear() {
        nodes_.clear();
        ++generation_;
    }

    const Node* find(const std::string& path) const;
    std::vector<std::string> children(const std::string& path) const;
    // Follows symbolic links in every component, as the kernel would; none when a component is
    // missing or the links loop.
    std::optional<std::string> resolve(std::string_view path) const;
    std::size_t size() const { return nodes_.size(); }
    // Changes whenever a node is added, replaced or removed: what was resolved before may not
    // hold any more.
    std::uint64_t generation() const { return generation_; }

private:
    void ensureParents(const std::string& path);

    std::map<std::string, Node> nodes_;
    std::uint64_t generation_ = 0;
};

// "a/b/c" -> "a/b"; "a" -> "".
std::string parentOf(const std::string& path);
// Joins and normalises "." and ".."; none when ".." climbs above the root.
std::optional<std::string> joinRelative(const std::string& base, std::string_view relative);

}  // namespace kelvo::simhw
