#include "simhw/SimTree.h"

#include <algorithm>

namespace kelvo::simhw {

namespace {
constexpr int kMaxLinkHops = 16;

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> parts;
    std::string current;
    for (char c : path) {
        if (c == '/') {
            if (!current.empty()) parts.push_back(std::move(current));
            current.clear();
        } else {
            current += c;
        }
    }
    if (!current.empty()) parts.push_back(std::move(current));
    return parts;
}

std::string joined(const std::vector<std::string>& parts) {
    std::string path;
    for (const auto& part : parts) path += (path.empty() ? "" : "/") + part;
    return path;
}
}  // namespace

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::optional<std::string> joinRelative(const std::string& base, std::string_view relative) {
    std::vector<std::string> parts =
        relative.starts_with('/') ? std::vector<std::string>{} : components(base);
    for (auto& part : components(relative)) {
        if (part == ".") continue;
        if (part == "..") {
            if (parts.empty()) return std::nullopt;
            parts.pop_back();
            continue;
        }
        parts.push_back(std::move(part));
    }
    return joined(parts);
}

void SimTree::ensureParents(const std::string& path) {
    ++generation_;
    std::string parent = parentOf(path);
    while (true) {
        if (!nodes_.contains(parent)) nodes_[parent] = Node{};
        if (parent.empty()) break;
        parent = parentOf(parent);
    }
}

void SimTree::addDirectory(const std::string& path) {
    ensureParents(path);
    nodes_.try_emplace(path, Node{});
}

void SimTree::addFile(const std::string& path, AttributeRead read, AttributeWrite write,
                      mode_t mode) {
    ensureParents(path);
    Node node;
    node.kind = NodeKind::file;
    node.mode = mode != 0 ? mode : (write ? 0644 : 0444);
    node.read = std::move(read);
    node.write = std::move(write);
    nodes_[path] = std::move(node);
}

void SimTree::addSymlink(const std::string& path, std::string target) {
    ensureParents(path);
    Node node;
    node.kind = NodeKind::symlink;
    node.mode = 0777;
    node.target = std::move(target);
    nodes_[path] = std::move(node);
}

void SimTree::remove(const std::string& path) {
    ++generation_;
    nodes_.erase(path);
    const std::string prefix = path + "/";
    for (auto it = nodes_.lower_bound(prefix); it != nodes_.end() && it->first.starts_with(prefix);)
        it = nodes_.erase(it);
}

const Node* SimTree::find(const std::string& path) const {
    const auto it = nodes_.find(path);
    return it == nodes_.end() ? nullptr : &it->second;
}

std::vector<std::string> SimTree::children(const std::string& path) const {
    std::vector<std::string> names;
    const std::string prefix = path.empty() ? std::string() : path + "/";
    for (auto it = nodes_.lower_bound(prefix); it != nodes_.end(); ++it) {
        if (!it->first.starts_with(prefix)) break;
        if (it->first.size() == prefix.size()) continue;  // the root itself
        const std::string rest = it->first.substr(prefix.size());
        if (rest.find('/') == std::string::npos) names.push_back(rest);
    }
    return names;
}

std::optional<std::string> SimTree::resolve(std::string_view path) const {
    std::vector<std::string> pending = components(path);
    std::reverse(pending.begin(), pending.end());
    std::string current;
    int hops = 0;
    while (!pending.empty()) {
        std::string part = std::move(pending.back());
        pending.pop_back();
        const std::string next = current.empty() ? part : current + "/" + part;
        const Node* node = find(next);
        if (!node) return std::nullopt;
        if (node->kind != NodeKind::symlink) {
            current = next;
            continue;
        }
        if (++hops > kMaxLinkHops) return std::nullopt;
        auto target = joinRelative(current, node->target);
        if (!target) return std::nullopt;
        std::vector<std::string> expanded = components(*target);
        std::reverse(expanded.begin(), expanded.end());
        pending.insert(pending.end(), expanded.begin(), expanded.end());
        current.clear();
    }
    return current;
}

}  // namespace kelvo::simhw
