#include "simhw/SimhwOptions.h"

#include <charconv>
#include <string_view>

namespace kelvo::simhw {

std::optional<SimhwOptions> parseSimhwOptions(int argc, char** argv, std::string* error) {
    SimhwOptions options;
    auto fail = [error](std::string why) {
        if (error) *error = std::move(why);
        return std::nullopt;
    };
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool takesValue =
            arg == "--machine" || arg == "--trace" || arg == "--log" || arg == "--seed";
        if (takesValue && i + 1 >= argc) return fail(std::string(arg) + " needs a value");
        if (arg == "--machine") {
            options.machineFile = argv[++i];
        } else if (arg == "--trace") {
            options.traceFile = argv[++i];
        } else if (arg == "--log") {
            options.logFile = argv[++i];
        } else if (arg == "--seed") {
            const std::string_view value = argv[++i];
            auto [end, ec] =
                std::from_chars(value.data(), value.data() + value.size(), options.seed);
            if (ec != std::errc() || end != value.data() + value.size())
                return fail("--seed needs a whole number, not '" + std::string(value) + "'");
        } else if (arg == "--follow-host-load") {
            options.followHostLoad = true;
        } else if (arg.starts_with("-")) {
            return fail("unknown option " + std::string(arg));
        } else if (options.mountPoint.empty()) {
            options.mountPoint = arg;
        } else {
            return fail("one mount point only ('" + std::string(arg) + "' is a second)");
        }
    }
    if (options.machineFile.empty()) return fail("--machine FILE is required");
    if (options.mountPoint.empty()) return fail("no mount point given");
    if (!options.traceFile.empty() && options.followHostLoad)
        return fail("--trace and --follow-host-load exclude each other");
    return options;
}

std::string resolveShippedFile(const std::string& value, const std::filesystem::path& shippedDir) {
    namespace fs = std::filesystem;
    std::error_code ec;
    if (value.find('/') != std::string::npos || fs::exists(value, ec)) return value;
    for (const fs::path& candidate : {shippedDir / value, shippedDir / (value + ".json")})
        if (fs::is_regular_file(candidate, ec)) return candidate.string();
    return value;
}

}  // namespace kelvo::simhw
