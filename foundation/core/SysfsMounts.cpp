#include "foundation/core/SysfsMounts.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <shared_mutex>
#include <system_error>

namespace kelvo::sysfs {

namespace fs = std::filesystem;

namespace {

struct Mount {
    std::string root;  // generic form, no trailing slash
    std::shared_ptr<FileSource> source;
};

struct MountTable {
    std::shared_mutex mutex;
    std::vector<Mount> mounts;
    // Read without the lock: the product on a real machine never mounts anything, and its
    // sampling must not pay for a lock per file.
    std::atomic<std::size_t> count{0};
};

MountTable& table() {
    static MountTable mounts;
    return mounts;
}

std::string rootKey(const fs::path& root) {
    std::string key = root.lexically_normal().generic_string();
    while (key.size() > 1 && key.back() == '/') key.pop_back();
    return key;
}

// text[from...] without leading and trailing slashes.
std::string trimmedSlashes(const std::string& text, std::size_t from) {
    const auto first = text.find_first_not_of('/', from);
    if (first == std::string::npos) return {};
    const auto last = text.find_last_not_of('/');
    return text.substr(first, last - first + 1);
}

}  // namespace

void mount(const fs::path& root, std::shared_ptr<FileSource> source) {
    MountTable& mounts = table();
    std::unique_lock lock(mounts.mutex);
    const std::string key = rootKey(root);
    std::erase_if(mounts.mounts, [&](const Mount& m) { return m.root == key; });
    mounts.mounts.push_back({key, std::move(source)});
    mounts.count.store(mounts.mounts.size(), std::memory_order_release);
}

void unmount(const fs::path& root) {
    MountTable& mounts = table();
    std::unique_lock lock(mounts.mutex);
    const std::string key = rootKey(root);
    std::erase_if(mounts.mounts, [&](const Mount& m) { return m.root == key; });
    mounts.count.store(mounts.mounts.size(), std::memory_order_release);
}

ScopedMount::ScopedMount(fs::path root, std::shared_ptr<FileSource> source)
    : root_(std::move(root)) {
    mount(root_, std::move(source));
}

ScopedMount::~ScopedMount() {
    unmount(root_);
}

std::optional<MountedPath> findMount(const fs::path& path) {
    MountTable& mounts = table();
    if (mounts.count.load(std::memory_order_acquire) == 0) return std::nullopt;
    // The native form as it is (POSIX: the generic one, maybe with doubled slashes, which the
    // source's own path walk skips), to spare a copy per file read.
    const std::string& text = path.native();
    std::shared_lock lock(mounts.mutex);
    const Mount* best = nullptr;
    for (const Mount& m : mounts.mounts) {
        const bool covers =
            text.starts_with(m.root) &&
            (text.size() == m.root.size() || text[m.root.size()] == '/' || m.root == "/");
        if (covers && (!best || m.root.size() > best->root.size())) best = &m;
    }
    if (!best) return std::nullopt;
    return MountedPath{best->source, trimmedSlashes(text, best->root.size()), best->root.size()};
}

std::optional<std::string> readFileText(const fs::path& path, std::size_t limit) {
    if (auto mounted = findMount(path)) {
        auto text = mounted->source->read(mounted->relative);
        if (text && text->size() > limit) text->resize(limit);
        return text;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[4096];
    bool failed = false;
    while (text.size() < limit) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) failed = true;
        if (count <= 0) break;
        text.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(fd);
    if (failed) return std::nullopt;
    return text;
}

int writeFileText(const fs::path& path, std::string_view text) {
    if (auto mounted = findMount(path)) return mounted->source->write(mounted->relative, text);
    const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return errno;
    int failure = 0;
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0) {
        failure = errno;
    } else if (static_cast<std::size_t>(written) != text.size()) {
        failure = EIO;
    }
    if (::close(fd) != 0 && failure == 0) failure = errno;
    return failure;
}

std::vector<fs::path> directoryEntries(const fs::path& dir) {
    std::vector<fs::path> entries;
    if (auto mounted = findMount(dir)) {
        if (auto listed = mounted->source->list(mounted->relative)) {
            for (const SourceEntry& entry : *listed) entries.push_back(dir / entry.name);
        }
        return entries;
    }
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        entries.push_back(it->path());
    }
    return entries;
}

bool pathExists(const fs::path& path) {
    if (auto mounted = findMount(path))
        return mounted->source->kind(mounted->relative, true).has_value();
    std::error_code ec;
    return fs::exists(path, ec);
}

bool isDirectory(const fs::path& path) {
    if (auto mounted = findMount(path))
        return mounted->source->kind(mounted->relative, true) == EntryKind::directory;
    std::error_code ec;
    return fs::is_directory(path, ec);
}

std::optional<fs::path> canonicalPath(const fs::path& path) {
    if (auto mounted = findMount(path)) {
        auto resolved = mounted->source->canonical(mounted->relative);
        if (!resolved) return std::nullopt;
        const fs::path root(path.native().substr(0, mounted->rootLength));
        return resolved->empty() ? root : root / *resolved;
    }
    std::error_code ec;
    fs::path resolved = fs::canonical(path, ec);
    if (ec) return std::nullopt;
    return resolved;
}

}  // namespace kelvo::sysfs
