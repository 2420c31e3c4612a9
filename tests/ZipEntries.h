// Reads a zip archive back with libarchive, as a user's unpacker would: every entry's path and
// content. A file that does not open, or an entry that does not read to its end, fails the test.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

namespace kelvo::test {

inline std::map<std::string, std::string> zipEntries(const std::string& path) {
    std::map<std::string, std::string> entries;
    archive* a = archive_read_new();
    archive_read_support_format_zip(a);
    if (archive_read_open_filename(a, path.c_str(), 16384) != ARCHIVE_OK) {
        ADD_FAILURE() << "cannot open " << path << ": " << archive_error_string(a);
        archive_read_free(a);
        return entries;
    }
    archive_entry* entry = nullptr;
    while (archive_read_next_header(a, &entry) == ARCHIVE_OK) {
        std::string content;
        char buffer[8192];
        la_ssize_t got = 0;
        while ((got = archive_read_data(a, buffer, sizeof buffer)) > 0)
            content.append(buffer, static_cast<std::size_t>(got));
        EXPECT_EQ(got, 0) << archive_error_string(a);
        entries[archive_entry_pathname(entry)] = content;
    }
    archive_read_free(a);
    return entries;
}

}  // namespace kelvo::test
