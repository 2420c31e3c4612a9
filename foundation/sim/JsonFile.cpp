#include "foundation/sim/JsonFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace kelvo::sim::detail {

namespace {

std::string systemError(int code) {
    return std::strerror(code);
}

// nlohmann prefixes its messages with the exception's id, which means nothing to the user.
std::string parserMessage(const nlohmann::json::exception& e) {
    std::string message = e.what();
    if (auto end = message.find("] ");
        message.rfind("[json.exception.", 0) == 0 && end != std::string::npos)
        message.erase(0, end + 2);
    if (auto* parse = dynamic_cast<const nlohmann::json::parse_error*>(&e))
        message += " (byte " + std::to_string(parse->byte) + ")";
    return message;
}

// An error must stay one line even when the parser quotes a line break from the file.
std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

}  // namespace

void invalid(const std::string& message) {
    throw Invalid(message);
}

std::string quotedKey(std::string_view key) {
    return Json(std::string(key)).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string readString(const Json& value, const std::string& key) {
    if (!value.is_string()) invalid(quotedKey(key) + " must be a string");
    return value.get<std::string>();
}

double readDouble(const Json& value, const std::string& key) {
    if (!value.is_number()) invalid(quotedKey(key) + " must be a number");
    double number = value.get<double>();
    checkFinite(number, key);
    return number;
}

std::int64_t readInteger(const Json& value, const std::string& key, std::int64_t lo,
                         std::int64_t hi) {
    std::string range =
        " must be an integer from " + std::to_string(lo) + " to " + std::to_string(hi);
    if (!value.is_number_integer()) invalid(quotedKey(key) + " must be an integer");
    // Positive JSON integers are held unsigned; above int64's range they are out of ours too.
    if (value.is_number_unsigned() &&
        value.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX))
        invalid(quotedKey(key) + range);
    auto number = value.get<std::int64_t>();
    if (number < lo || number > hi) invalid(quotedKey(key) + range);
    return number;
}

void checkFinite(double value, const std::string& key) {
    if (!std::isfinite(value)) invalid(quotedKey(key) + " must be a finite number");
}

void checkName(const std::string& name, const std::string& key) {
    if (name.empty()) invalid(quotedKey(key) + " must not be empty");
    if (name == "." || name == ".." || name.find('/') != std::string::npos)
        invalid(quotedKey(key) + " must be usable as a file name");
}

void setError(std::string* error, const std::filesystem::path& path, const std::string& problem) {
    if (error) *error = oneLine(path.string() + ": " + problem);
}

std::optional<Json> readJsonFile(const std::filesystem::path& path, std::size_t maxBytes,
                                 std::string* error) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        setError(error, path, "cannot be opened: " + systemError(errno));
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        setError(error, path, "is not a regular file");
        return std::nullopt;
    }
    // Read one byte past the cap so that a file that grew after fstat is caught as well.
    std::string text;
    char buffer[65536];
    for (;;) {
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            int code = errno;
            ::close(fd);
            setError(error, path, "cannot be read: " + systemError(code));
            return std::nullopt;
        }
        if (got == 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
        if (text.size() > maxBytes) {
            ::close(fd);
            setError(error, path,
                     "is larger than the " + std::to_string(maxBytes) + " bytes allowed");
            return std::nullopt;
        }
    }
    ::close(fd);
    try {
        return Json::parse(text);
    } catch (const nlohmann::json::exception& e) {  // syntax, or a number beyond a double
        setError(error, path, parserMessage(e));
    }
    return std::nullopt;
}

bool writeTextFile(const std::filesystem::path& path, const std::string& text, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        setError(error, path, "cannot be written: " + systemError(errno));
        return false;
    }
    bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    int code = errno;
    if (std::fclose(file) != 0 && written) {
        written = false;
        code = errno;
    }
    if (!written) setError(error, path, "cannot be written: " + systemError(code));
    return written;
}

}  // namespace kelvo::sim::detail
