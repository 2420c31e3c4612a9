// kelvo-simhw: one simulated machine, run in real time, served as a sysfs and procfs tree on
// MOUNTPOINT for `kelvo --sysfs-root`, kelvo-helperd and other fan-control programs.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/sim/MachineFile.h"
#include "foundation/sim/TraceFile.h"
#include "simhw/SimFilesystem.h"
#include "simhw/SimRunner.h"
#include "simhw/SimhwOptions.h"

namespace fs = std::filesystem;
using namespace kelvo;

namespace {

int fail(const std::string& why) {
    std::fprintf(stderr, "kelvo-simhw: %s\n", why.c_str());
    return 1;
}

// Whether `dir` is itself a mount point, from the kernel's own table.
bool isMountPoint(const fs::path& dir) {
    std::ifstream table("/proc/self/mountinfo");
    std::string line;
    const std::string wanted = dir.string();
    while (std::getline(table, line)) {
        // id parent major:minor root MOUNTPOINT ...; spaces in paths are written as \040.
        std::size_t field = 0;
        std::size_t start = 0;
        for (; field < 4 && start != std::string::npos; ++field) start = line.find(' ', start + 1);
        if (start == std::string::npos) continue;
        const std::size_t end = line.find(' ', start + 1);
        if (line.substr(start + 1, end - start - 1) == wanted) return true;
    }
    return false;
}

std::string checkMountPoint(const fs::path& dir) {
    std::error_code ec;
    if (!fs::exists(dir, ec)) return dir.string() + ": no such directory";
    if (!fs::is_directory(dir, ec)) return dir.string() + ": not a directory";
    if (isMountPoint(fs::canonical(dir, ec)))
        return dir.string() + ": already a mount point (is another kelvo-simhw serving it?)";
    if (fs::directory_iterator(dir, ec) != fs::directory_iterator())
        return dir.string() + ": not empty";
    if (ec) return dir.string() + ": " + ec.message();
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
        std::printf("%s\n%s", simhw::kSimhwUsage, simhw::kSimhwHelp);
        return 0;
    }
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::printf("kelvo-simhw %s\n", KELVO_VERSION_STRING);
        return 0;
    }
    std::string error;
    const auto options = simhw::parseSimhwOptions(argc, argv, &error);
    if (!options) {
        std::fprintf(stderr, "kelvo-simhw: %s\n%s\n", error.c_str(), simhw::kSimhwUsage);
        return 2;
    }
    const fs::path shipped = KELVO_SIMHW_SHIPPED_DIR;
    const auto machine = sim::readMachineFile(
        simhw::resolveShippedFile(options->machineFile, shipped / "machines"), &error);
    if (!machine) return fail(error);
    std::vector<simhw::LoadPoint> levels;
    if (!options->traceFile.empty()) {
        const auto trace = sim::readTraceFile(
            simhw::resolveShippedFile(options->traceFile, shipped / "traces"), &error);
        if (!trace) return fail(error);
        for (const auto& segment : trace->segments)
            for (int i = 0; i < segment.seconds; ++i) levels.push_back({segment.cpu, segment.gpu});
    }

    const fs::path mountPoint = options->mountPoint;
    if (std::string why = checkMountPoint(mountPoint); !why.empty()) return fail(why);
    // Two instances starting on one directory at once: the second finds it locked.
    const int lockFd = ::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (lockFd < 0 || ::flock(lockFd, LOCK_EX | LOCK_NB) != 0)
        return fail(mountPoint.string() + ": another kelvo-simhw is mounting it");
    const int fuseFd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuseFd < 0) return fail(std::string("cannot open /dev/fuse: ") + std::strerror(errno));
    ::close(fuseFd);

    auto hardware =
        std::make_shared<simhw::SimHardware>(machine->name, machine->plant, options->seed);
    simhw::SimRunner runner(hardware, std::move(levels), options->followHostLoad);
    if (!options->logFile.empty() && !runner.openLog(options->logFile, &error)) return fail(error);

    simhw::SimFilesystem filesystem(hardware, runner.mutex());
    const int result = filesystem.serve(
        mountPoint.string(),
        [&] {
            runner.start();
            std::fprintf(stderr, "kelvo-simhw: serving %s on %s (fan chip %s)\n",
                         machine->name.c_str(), mountPoint.c_str(),
                         hardware->fanChipPath().c_str());
        },
        &error);
    runner.stop();
    ::close(lockFd);
    if (result != 0) return fail(error);
    std::fprintf(stderr, "kelvo-simhw: unmounted %s\n", mountPoint.c_str());
    return 0;
}
