#include "updates/UpdateInstaller.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

namespace kelvo::UpdateInstaller {

namespace {

namespace fs = std::filesystem;

QString systemError(const QString& what) {
    return QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(errno)));
}

void removeTree(const QString& path) {
    std::error_code ec;
    fs::remove_all(fs::path(path.toStdString()), ec);
}

struct ReadArchiveFree {
    void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteArchiveFree {
    void operator()(archive* a) const { archive_write_free(a); }
};

QString archiveError(archive* a) {
    const char* message = archive_error_string(a);
    return QString::fromLocal8Bit(message ? message : "unknown archive error");
}

// A path inside the archive that stays inside its folder: relative, without "..".
bool containedPath(const QString& name) {
    if (name.isEmpty() || name.startsWith(QLatin1Char('/'))) return false;
    const QStringList parts = name.split(QLatin1Char('/'));
    return !parts.contains(QStringLiteral(".."));
}

// Points the entry (and a hard link's target) into the staging folder.
QString placeEntry(archive_entry* entry, const QString& name, const QString& into) {
    if (!containedPath(name))
        return QStringLiteral(
                   "the update archive cannot be unpacked (%1): the path leaves the "
                   "install folder")
            .arg(name);
    archive_entry_set_pathname(entry, QFile::encodeName(QDir(into).filePath(name)).constData());
    if (const char* link = archive_entry_hardlink(entry)) {
        const QString linked = QString::fromUtf8(link);
        if (!containedPath(linked))
            return QStringLiteral(
                       "the update archive cannot be unpacked (%1): the link leaves "
                       "the install folder")
                .arg(name);
        archive_entry_set_hardlink(entry,
                                   QFile::encodeName(QDir(into).filePath(linked)).constData());
    }
    return {};
}

// Extracts into `into` (an existing, empty directory), refusing absolute paths, ".." and
// writes through symbolic links, so a hostile archive cannot reach outside it.
QString extractArchive(const QString& archivePath, const QString& into) {
    std::unique_ptr<archive, ReadArchiveFree> reader(archive_read_new());
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    std::unique_ptr<archive, WriteArchiveFree> writer(archive_write_disk_new());
    archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM |
                                                     ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                     ARCHIVE_EXTRACT_SECURE_SYMLINKS);
    if (archive_read_open_filename(reader.get(), QFile::encodeName(archivePath).constData(),
                                   64 * 1024) != ARCHIVE_OK)
        return QStringLiteral("the update archive cannot be opened: %1")
            .arg(archiveError(reader.get()));
    int entries = 0;
    archive_entry* entry = nullptr;
    int status = ARCHIVE_OK;
    while ((status = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
        const QString name = QString::fromUtf8(archive_entry_pathname(entry));
        const QString placeError = placeEntry(entry, name, into);
        if (!placeError.isEmpty()) return placeError;
        if (archive_write_header(writer.get(), entry) != ARCHIVE_OK)
            return QStringLiteral("the update archive cannot be unpacked (%1): %2")
                .arg(name, archiveError(writer.get()));
        const void* block = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        int data = ARCHIVE_OK;
        while ((data = archive_read_data_block(reader.get(), &block, &size, &offset)) ==
               ARCHIVE_OK) {
            if (archive_write_data_block(writer.get(), block, size, offset) != ARCHIVE_OK)
                return QStringLiteral("the update archive cannot be unpacked (%1): %2")
                    .arg(name, archiveError(writer.get()));
        }
        if (data != ARCHIVE_EOF)
            return QStringLiteral("the update archive is damaged: %1")
                .arg(archiveError(reader.get()));
        if (archive_write_finish_entry(writer.get()) != ARCHIVE_OK)
            return QStringLiteral("the update archive cannot be unpacked: %1")
                .arg(archiveError(writer.get()));
        ++entries;
    }
    if (status != ARCHIVE_EOF)
        return QStringLiteral("the update archive is damaged: %1").arg(archiveError(reader.get()));
    if (entries == 0) return QStringLiteral("the update archive is empty");
    return {};
}

// The staging path for a target: a hidden sibling, so the final rename stays on one file system.
QString stagingPath(const QString& target) {
    const QFileInfo info(target);
    return info.absoluteDir().filePath(QStringLiteral(".%1.update-XXXXXX").arg(info.fileName()));
}

QString installDirectory(const QString& payload, const QString& target) {
    QByteArray pattern = QFile::encodeName(stagingPath(target));
    if (!::mkdtemp(pattern.data())) return systemError(QStringLiteral("cannot stage the update"));
    const QString staged = QFile::decodeName(pattern);
    QString unpackError = extractArchive(payload, staged);
    // An archive that would leave the install without its program is not a Kelvo build.
    const QString program = QStringLiteral("bin/kelvo");
    if (unpackError.isEmpty() && QFileInfo::exists(QDir(target).filePath(program)) &&
        !QFileInfo(QDir(staged).filePath(program)).isFile())
        unpackError = QStringLiteral("the update archive has no %1").arg(program);
    if (!unpackError.isEmpty()) {
        removeTree(staged);
        return unpackError;
    }
    // mkdtemp makes the folder private; an install directory is readable by everyone.
    ::chmod(pattern.constData(), 0755);
    const QByteArray targetName = QFile::encodeName(target);
    // One atomic exchange: the target is the old tree or the new one at every moment.
    if (::renameat2(AT_FDCWD, pattern.constData(), AT_FDCWD, targetName.constData(),
                    RENAME_EXCHANGE) != 0) {
        const QString error = systemError(QStringLiteral("cannot swap in the new build"));
        removeTree(staged);
        return error;
    }
    // The staging name now holds the old build: keep it as the previous one.
    const QString previous = previousBuildPath(target);
    removeTree(previous);
    if (::rename(pattern.constData(), QFile::encodeName(previous).constData()) != 0)
        removeTree(staged);
    return {};
}

QString copyInto(const QString& payload, const QByteArray& stagedName, int fd) {
    QFile in(payload);
    QFile out;
    if (!out.open(fd, QIODevice::WriteOnly, QFile::AutoCloseHandle)) {
        ::close(fd);
        ::unlink(stagedName.constData());
        return QStringLiteral("cannot stage the update: %1").arg(out.errorString());
    }
    if (!in.open(QIODevice::ReadOnly)) {
        ::unlink(stagedName.constData());
        return QStringLiteral("cannot stage the update: %1").arg(in.errorString());
    }
    while (!in.atEnd()) {
        const QByteArray chunk = in.read(256 * 1024);
        if (chunk.isEmpty() || out.write(chunk) != chunk.size()) {
            ::unlink(stagedName.constData());
            return QStringLiteral("cannot stage the update: %1").arg(out.errorString());
        }
    }
    out.flush();
    ::fsync(out.handle());
    return {};
}

QString installFile(const QString& payload, const QString& target) {
    QByteArray pattern = QFile::encodeName(stagingPath(target));
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) return systemError(QStringLiteral("cannot stage the update"));
    const QString copyError = copyInto(payload, pattern, fd);
    if (!copyError.isEmpty()) return copyError;
    ::chmod(pattern.constData(), 0755);
    // The old file stays reachable as the previous build; a hard link costs no copy.
    const QByteArray previous = QFile::encodeName(previousBuildPath(target));
    ::unlink(previous.constData());
    const QByteArray targetName = QFile::encodeName(target);
    if (::link(targetName.constData(), previous.constData()) != 0 &&
        !QFile::copy(target, QFile::decodeName(previous))) {
        ::unlink(pattern.constData());
        return systemError(QStringLiteral("cannot keep the previous build"));
    }
    if (::rename(pattern.constData(), targetName.constData()) != 0) {
        const QString error = systemError(QStringLiteral("cannot swap in the new build"));
        ::unlink(pattern.constData());
        return error;
    }
    return {};
}

}  // namespace

QString previousBuildPath(const QString& target) {
    QString path = QFileInfo(target).absoluteFilePath();
    while (path.size() > 1 && path.endsWith(QLatin1Char('/'))) path.chop(1);
    return path + QStringLiteral(".previous");
}

QString install(const QString& payload, const QString& target) {
    const QFileInfo info(target);
    if (!info.exists()) return QStringLiteral("the installed build at %1 is missing").arg(target);
    if (!QFileInfo(info.absolutePath()).isWritable())
        return QStringLiteral("the folder %1 is not writable").arg(info.absolutePath());
    return info.isDir() ? installDirectory(payload, info.absoluteFilePath())
                        : installFile(payload, info.absoluteFilePath());
}

void removePreviousBuild(const QString& target) {
    removeTree(previousBuildPath(target));
}

QString runningInstallTarget(const QString& executablePath) {
    const QString appImage = qEnvironmentVariable("APPIMAGE");
    if (!appImage.isEmpty() && QFileInfo(appImage).isFile()) return appImage;
    const QString folder = QFileInfo(executablePath).absolutePath();
    if (QFileInfo(folder).fileName() == QLatin1String("bin"))
        return QFileInfo(folder).absolutePath();
    return folder;
}

}  // namespace kelvo::UpdateInstaller
