#include "foundation/profiling/ProfileExportBundler.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace kelvo::ProfileExportBundler {

namespace {

namespace fs = std::filesystem;

struct ArchiveCloser {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryFreer {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};

std::string archiveError(archive* a, const std::string& what) {
    const char* message = archive_error_string(a);
    return what + ": " + (message ? message : "unknown archive error");
}

bool addFile(archive* a, const fs::path& file, const std::string& entryName, std::string& error) {
    std::error_code ec;
    const auto size = fs::file_size(file, ec);
    if (ec) {
        error = "cannot read " + file.string() + ": " + ec.message();
        return false;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        error = "cannot open " + file.string() + ": " + std::strerror(errno);
        return false;
    }
    std::unique_ptr<archive_entry, EntryFreer> entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), entryName.c_str());
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
    if (archive_write_header(a, entry.get()) != ARCHIVE_OK) {
        error = archiveError(a, "cannot add " + entryName);
        return false;
    }
    std::vector<char> buffer(64 * 1024);
    std::uintmax_t written = 0;
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        const auto got = in.gcount();
        if (got <= 0) break;
        if (archive_write_data(a, buffer.data(), static_cast<size_t>(got)) != got) {
            error = archiveError(a, "cannot write " + entryName);
            return false;
        }
        written += static_cast<std::uintmax_t>(got);
    }
    if (in.bad() || written != size) {
        error = "cannot read " + file.string() + " completely";
        return false;
    }
    if (archive_write_finish_entry(a) != ARCHIVE_OK) {
        error = archiveError(a, "cannot finish " + entryName);
        return false;
    }
    return true;
}

bool writeArchive(const fs::path& target, const fs::path& folder, std::string& error) {
    std::unique_ptr<archive, ArchiveCloser> a(archive_write_new());
    if (!a) {
        error = "cannot start an archive";
        return false;
    }
    if (archive_write_set_format_zip(a.get()) != ARCHIVE_OK) {
        error = archiveError(a.get(), "zip format unavailable");
        return false;
    }
    if (archive_write_open_filename(a.get(), target.c_str()) != ARCHIVE_OK) {
        error = archiveError(a.get(), "cannot create " + target.string());
        return false;
    }
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(folder, ec))
        if (item.is_regular_file()) files.push_back(item.path());
    if (ec) {
        error = "cannot list " + folder.string() + ": " + ec.message();
        return false;
    }
    std::sort(files.begin(), files.end());
    const std::string prefix = folder.filename().string() + "/";
    for (const auto& file : files)
        if (!addFile(a.get(), file, prefix + file.filename().string(), error)) return false;
    // Closing writes the central directory: a failure here is as fatal as any other.
    if (archive_write_close(a.get()) != ARCHIVE_OK) {
        error = archiveError(a.get(), "cannot finish " + target.string());
        return false;
    }
    return true;
}

}  // namespace

ProfilingResult<std::string> createBundle(const std::string& folderPath) {
    using Result = ProfilingResult<std::string>;
    fs::path folder(folderPath);
    if (!folder.has_filename()) folder = folder.parent_path();  // a trailing slash
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) return Result::failure(folderPath + " is not a folder");
    const fs::path bundle = folder.string() + kBundleExtension;
    const fs::path partial = bundle.string() + ".partial";
    std::string error;
    if (!writeArchive(partial, folder, error)) {
        fs::remove(partial, ec);
        return Result::failure(error);
    }
    fs::rename(partial, bundle, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove(partial, ignored);
        return Result::failure("cannot move the bundle into place: " + ec.message());
    }
    return Result::success(bundle.string());
}

}  // namespace kelvo::ProfileExportBundler
