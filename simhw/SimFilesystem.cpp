#define FUSE_USE_VERSION 31
#include "simhw/SimFilesystem.h"

#include <fuse3/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>

namespace kelvo::simhw {

namespace {

// Open files: the text a read at offset 0 produced, served for the reads that follow it.
struct OpenFiles {
    std::map<std::uint64_t, std::string> contents;
    std::uint64_t next = 1;
};

OpenFiles& openFiles() {
    static OpenFiles files;
    return files;
}

const std::time_t kStartTime = std::time(nullptr);

SimFilesystem& self() {
    return *static_cast<SimFilesystem*>(fuse_get_context()->private_data);
}

// "/sys/class" -> "sys/class"
std::string relative(const char* path) {
    while (*path == '/') ++path;
    return path;
}

void* onInit(fuse_conn_info*, fuse_config* config) {
    // Nothing may be cached: every lookup and read must see the machine as it is now, and a
    // vanished file must be gone at once.
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    config->direct_io = 1;
    config->kernel_cache = 0;
    return fuse_get_context()->private_data;
}

int onGetattr(const char* path, struct stat* st, fuse_file_info*) {
    std::memset(st, 0, sizeof *st);
    st->st_atime = st->st_mtime = st->st_ctime = kStartTime;
    const std::string name = relative(path);
    if (name == kFaultFile) {
        st->st_mode = S_IFREG | 0200;
        st->st_nlink = 1;
        st->st_size = 4096;
        return 0;
    }
    if (name == "simhw") {
        st->st_mode = S_IFDIR | 0755;
        st->st_nlink = 2;
        return 0;
    }
    if (name == kWritesFile) {
        st->st_mode = S_IFREG | 0444;
        st->st_nlink = 1;
        st->st_size = 4096;
        return 0;
    }
    std::lock_guard lock(self().mutex());
    const Node* node = self().hardware()->tree().find(name);
    if (!node) return -ENOENT;
    switch (node->kind) {
        case NodeKind::directory:
            st->st_mode = S_IFDIR | node->mode;
            st->st_nlink = 2;
            break;
        case NodeKind::file:
            st->st_mode = S_IFREG | node->mode;
            st->st_nlink = 1;
            st->st_size = 4096;  // as sysfs reports for every attribute
            break;
        case NodeKind::symlink:
            st->st_mode = S_IFLNK | 0777;
            st->st_nlink = 1;
            st->st_size = static_cast<off_t>(node->target.size());
            break;
    }
    return 0;
}

int onReadlink(const char* path, char* buffer, size_t size) {
    std::lock_guard lock(self().mutex());
    const Node* node = self().hardware()->tree().find(relative(path));
    if (!node) return -ENOENT;
    if (node->kind != NodeKind::symlink) return -EINVAL;
    if (size == 0) return -EINVAL;
    const std::size_t n = std::min(size - 1, node->target.size());
    std::memcpy(buffer, node->target.data(), n);
    buffer[n] = '\0';
    return 0;
}

int onReaddir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
              fuse_readdir_flags) {
    const std::string name = relative(path);
    fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    if (name == "simhw") {
        fill(buffer, "fault", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        fill(buffer, "writes", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
        return 0;
    }
    std::lock_guard lock(self().mutex());
    const SimTree& tree = self().hardware()->tree();
    const Node* node = tree.find(name);
    if (!node) return -ENOENT;
    if (node->kind != NodeKind::directory) return -ENOTDIR;
    for (const auto& child : tree.children(name))
        fill(buffer, child.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    if (name.empty()) fill(buffer, "simhw", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int onOpen(const char* path, fuse_file_info* info) {
    const std::string name = relative(path);
    const bool writing = (info->flags & O_ACCMODE) != O_RDONLY;
    if (name == kFaultFile) {
        if (!writing) return -EACCES;
    } else if (name == kWritesFile) {
        if (writing) return -EACCES;
    } else {
        std::lock_guard lock(self().mutex());
        const Node* node = self().hardware()->tree().find(name);
        if (!node) return -ENOENT;
        if (node->kind == NodeKind::directory) return -EISDIR;
        if (writing && !node->write) return -EACCES;
    }
    info->direct_io = 1;
    info->nonseekable = 0;
    OpenFiles& files = openFiles();
    info->fh = files.next++;
    files.contents[info->fh] = {};
    return 0;
}

int onRead(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
    std::string& content = openFiles().contents[info->fh];
    if (offset == 0 && relative(path) == kWritesFile) {
        std::lock_guard lock(self().mutex());
        content = self().hardware()->writeCounts();
    } else if (offset == 0) {
        std::lock_guard lock(self().mutex());
        const Node* node = self().hardware()->tree().find(relative(path));
        // The file can vanish while open: sysfs answers such reads with ENODEV.
        if (!node || node->kind != NodeKind::file) return -ENODEV;
        content = node->read ? node->read() : std::string();
    }
    if (offset < 0 || static_cast<std::size_t>(offset) >= content.size()) return 0;
    const std::size_t n = std::min(size, content.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, content.data() + offset, n);
    return static_cast<int>(n);
}

int onWrite(const char* path, const char* buffer, size_t size, off_t, fuse_file_info*) {
    const std::string name = relative(path);
    const std::string_view text(buffer, size);
    if (name == kFaultFile) {
        const int result = self().writeFaults(text);
        return result < 0 ? result : static_cast<int>(size);
    }
    std::lock_guard lock(self().mutex());
    const Node* node = self().hardware()->tree().find(name);
    if (!node) return -ENODEV;
    if (!node->write) return -EACCES;
    const int result = node->write(text);
    return result < 0 ? result : static_cast<int>(size);
}

// Opening with O_TRUNC arrives as a truncation first; sysfs ignores it.
int onTruncate(const char* path, off_t, fuse_file_info*) {
    const std::string name = relative(path);
    if (name == kFaultFile) return 0;
    std::lock_guard lock(self().mutex());
    const Node* node = self().hardware()->tree().find(name);
    if (!node) return -ENOENT;
    if (node->kind != NodeKind::file) return -EISDIR;
    return node->write ? 0 : -EACCES;
}

int onRelease(const char*, fuse_file_info* info) {
    openFiles().contents.erase(info->fh);
    return 0;
}

fuse_operations operations() {
    fuse_operations ops{};
    ops.init = onInit;
    ops.getattr = onGetattr;
    ops.readlink = onReadlink;
    ops.readdir = onReaddir;
    ops.open = onOpen;
    ops.read = onRead;
    ops.write = onWrite;
    ops.truncate = onTruncate;
    ops.release = onRelease;
    return ops;
}

}  // namespace

SimFilesystem::SimFilesystem(std::shared_ptr<SimHardware> hardware, std::mutex& mutex)
    : hardware_(std::move(hardware)), mutex_(mutex) {}

int SimFilesystem::writeFaults(std::string_view text) {
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
        std::string why;
        {
            std::lock_guard lock(mutex_);
            why = hardware_->applyFault(line);
        }
        if (!why.empty()) {
            std::fprintf(stderr, "kelvo-simhw: fault refused: %s\n", why.c_str());
            return -EINVAL;
        }
        std::fprintf(stderr, "kelvo-simhw: fault: %.*s\n", static_cast<int>(line.size()),
                     line.data());
    }
    return 0;
}

int SimFilesystem::serve(const std::string& mountPoint, const std::function<void()>& ready,
                         std::string* error) {
    std::string options = "fsname=kelvo-simhw,subtype=kelvo-simhw,default_permissions";
    // Kelvo, the helper and the peers may run as other users than the one serving.
    if (::geteuid() == 0) options += ",allow_other";
    const char* argv[] = {"kelvo-simhw", "-o", options.c_str()};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
    const fuse_operations ops = operations();
    fuse* fs = fuse_new(&args, &ops, sizeof ops, this);
    fuse_opt_free_args(&args);
    if (!fs) {
        if (error) *error = "cannot set up the file system";
        return 1;
    }
    if (fuse_mount(fs, mountPoint.c_str()) != 0) {
        fuse_destroy(fs);
        if (error) *error = "cannot mount on " + mountPoint;
        return 1;
    }
    fuse_session* session = fuse_get_session(fs);
    fuse_set_signal_handlers(session);
    if (ready) ready();
    const int result = fuse_loop(fs);
    fuse_remove_signal_handlers(session);
    fuse_unmount(fs);
    fuse_destroy(fs);
    if (result < 0 && error) *error = std::string("serving ended: ") + std::strerror(-result);
    return result < 0 ? 1 : 0;
}

}  // namespace kelvo::simhw
