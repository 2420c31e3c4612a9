// In-process sysfs mounts: a directory prefix ("/kelvo-sim/3") served by a file source instead of
// the kernel, so that the product's own readers and writers can run on a simulated machine in
// virtual time, without FUSE. Every file access of the telemetry samplers and the hwmon fan
// back-end goes through the functions below; with nothing mounted they are the plain system
// calls they always were.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::sysfs {

enum class EntryKind { directory, file, symlink };

struct SourceEntry {
    std::string name;
    EntryKind kind = EntryKind::file;
};

// What a mount serves. Paths are relative to the mount root, without a leading slash ("" is the
// root), and may run through symbolic links, which the source resolves as the kernel would.
// Called from whichever thread reads or writes; a source guards its own state.
class FileSource {
public:
    virtual ~FileSource() = default;
    // The whole content of a file; none when it cannot be opened or read.
    virtual std::optional<std::string> read(const std::string& path) = 0;
    // Writes like `echo text > path`: 0 when taken, otherwise the errno the write fails with.
    virtual int write(const std::string& path, std::string_view text) = 0;
    // The entries of a directory (links listed as links); none when it is not a directory.
    virtual std::optional<std::vector<SourceEntry>> list(const std::string& path) = 0;
    // What is at `path`, following a final link when `follow`; none when nothing is there.
    virtual std::optional<EntryKind> kind(const std::string& path, bool follow) = 0;
    // The path with every link resolved; none when a component is missing.
    virtual std::optional<std::string> canonical(const std::string& path) = 0;
};

// Serves everything below `root` (an absolute directory that need not exist) from `source`
// until unmounted. Mounting a root again replaces its source.
void mount(const std::filesystem::path& root, std::shared_ptr<FileSource> source);
void unmount(const std::filesystem::path& root);

// Mounts for as long as it lives.
class ScopedMount {
public:
    ScopedMount(std::filesystem::path root, std::shared_ptr<FileSource> source);
    ~ScopedMount();
    ScopedMount(const ScopedMount&) = delete;
    ScopedMount& operator=(const ScopedMount&) = delete;
    const std::filesystem::path& root() const { return root_; }

private:
    std::filesystem::path root_;
};

// The source serving `path` and the path below its root; none when no mount covers it (the
// real file system then answers). Costs one atomic load while nothing is mounted.
struct MountedPath {
    std::shared_ptr<FileSource> source;
    std::string relative;
    std::size_t rootLength = 0;  // the mount root is the path's first rootLength characters
};
std::optional<MountedPath> findMount(const std::filesystem::path& path);

// File access that sees the mounts first and the real file system otherwise.

// The file's content, at most `limit` bytes, with one open and read (no stream); none when it
// cannot be read.
std::optional<std::string> readFileText(const std::filesystem::path& path, std::size_t limit);
// Opens with O_WRONLY|O_TRUNC and writes `text` once: 0, or the errno that failed (EIO for a
// short write).
int writeFileText(const std::filesystem::path& path, std::string_view text);
// Every entry of `dir` as dir/name, in the order the directory gives them; empty when it cannot
// be listed.
std::vector<std::filesystem::path> directoryEntries(const std::filesystem::path& dir);
bool pathExists(const std::filesystem::path& path);
// Follows links.
bool isDirectory(const std::filesystem::path& path);
// Every link resolved; none when the path does not resolve.
std::optional<std::filesystem::path> canonicalPath(const std::filesystem::path& path);

}  // namespace kelvo::sysfs
