// kelvo-simhw as a real process on a temporary mount point, for the tests that mount it.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/ChildProcess.h"

namespace kelvo::test_support {

// Why mounting cannot work here, or empty when it can.
inline std::string fuseUnavailableReason() {
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0) return std::string("cannot open /dev/fuse (") + std::strerror(errno) + ")";
    ::close(fd);
    if (::access("/usr/bin/fusermount3", X_OK) != 0 && ::geteuid() != 0)
        return "fusermount3 is not installed";
    return {};
}

inline bool pollUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

inline std::string slurp(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A read of one attribute the way programs do it: open, read, close. None when it fails.
inline std::optional<std::string> readAttribute(const std::filesystem::path& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::string value;
    if (!std::getline(in, value)) return std::nullopt;
    return value;
}

// One write(2) of `text`; 0 or the errno it failed with.
inline int writeAttribute(const std::filesystem::path& path, const std::string& text,
                          int flags = O_WRONLY) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return errno;
    const ssize_t written = ::write(fd, text.data(), text.size());
    const int error = written < 0 ? errno : 0;
    ::close(fd);
    return error;
}

class SimhwProcess {
public:
    SimhwProcess(std::filesystem::path workDir, std::string machineJson)
        : workDir_(std::move(workDir)) {
        std::filesystem::create_directories(mountPoint());
        std::ofstream(machinePath()) << machineJson;
    }
    ~SimhwProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            if (!waitExit(std::chrono::milliseconds(5000))) {
                ::kill(pid_, SIGKILL);
                ::waitpid(pid_, nullptr, 0);
            }
        }
        // Whatever happened to the process, leave no mount behind.
        const std::string command =
            "fusermount3 -u -z '" + mountPoint().string() + "' >/dev/null 2>&1";
        if (std::system(command.c_str()) != 0) { /* not mounted: nothing to do */
        }
    }
    SimhwProcess(const SimhwProcess&) = delete;
    SimhwProcess& operator=(const SimhwProcess&) = delete;

    std::filesystem::path mountPoint() const { return workDir_ / "mnt"; }
    std::filesystem::path machinePath() const { return workDir_ / "machine.json"; }
    std::filesystem::path logPath() const { return workDir_ / "simhw.log"; }
    std::filesystem::path csvPath() const { return workDir_ / "simhw.csv"; }
    std::string log() const { return slurp(logPath()); }
    pid_t pid() const { return pid_; }
    std::filesystem::path at(const std::string& relative) const { return mountPoint() / relative; }

    // Starts it and waits until the tree is served; false (the log says why) otherwise.
    bool start(std::vector<std::string> extra = {}) {
        pid_ = launch(extra);
        return pollUntil([this] { return exited() || served(); }, std::chrono::seconds(10)) &&
               !exited() && served();
    }

    // Runs the whole command line given (program first) to completion, for the refusals; its
    // exit code, or -1.
    int runToExit(std::vector<std::string> arguments) {
        pid_ = launch(std::move(arguments), false);
        const auto status = waitExit(std::chrono::seconds(10));
        pid_ = -1;
        return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }

    std::optional<int> waitExit(std::chrono::milliseconds limit) {
        return waitForChildEnd(pid_, limit);
    }

    bool served() const { return std::filesystem::exists(mountPoint() / "sys/class/hwmon"); }

    int fault(const std::string& line) const { return writeAttribute(at("simhw/fault"), line); }

private:
    pid_t launch(std::vector<std::string> arguments, bool standard = true) {
        std::vector<std::string> argv;
        if (standard) {
            argv = {KELVO_SIMHW_BIN, "--machine", machinePath().string(), "--log",
                    csvPath().string()};
            argv.insert(argv.end(), arguments.begin(), arguments.end());
            argv.push_back(mountPoint().string());
        } else {
            argv.insert(argv.end(), arguments.begin(), arguments.end());
        }
        std::vector<char*> raw;
        for (auto& argument : argv) raw.push_back(argument.data());
        raw.push_back(nullptr);
        const std::string log = logPath().string();
        const pid_t pid = ::fork();
        if (pid == 0) {
            const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (fd >= 0) ::dup2(fd, STDERR_FILENO);
            ::execv(raw[0], raw.data());
            ::_exit(127);
        }
        return pid;
    }

    bool exited() { return reapIfEnded(pid_); }

    std::filesystem::path workDir_;
    pid_t pid_ = -1;
};

// A small two-fan machine that heats quickly, for tests that want to see it answer.
inline const char* kTestMachine = R"({
  "name": "test-box",
  "logicalCpus": 2,
  "cpuFullLoadPowerW": 45,
  "sinkHeatCapacityJPerK": 60,
  "fans": [{"name": "CPU fan", "minRPM": 800, "maxRPM": 4000},
           {"name": "Case fan", "minRPM": 600, "maxRPM": 2000}]
})";

}  // namespace kelvo::test_support
