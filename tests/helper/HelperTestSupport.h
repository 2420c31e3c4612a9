// Running kelvo-helperd as a real process against a fake sysfs tree, and talking to it over raw
// sockets, for the helper's tests.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "foundation/helper_protocol/HelperClient.h"
#include "foundation/helper_protocol/HelperProtocol.h"
#include "tests/ChildProcess.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo::test_support {

using SteadyClock = std::chrono::steady_clock;

inline constexpr const char* kAcpiFan = "acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1";
inline constexpr const char* kFan1 = "it87@/sys/devices/platform/it87.656#fan1";
inline constexpr const char* kFan2 = "it87@/sys/devices/platform/it87.656#fan2";
inline constexpr const char* kFan3 = "it87@/sys/devices/platform/it87.656#fan3";
inline constexpr const char* kChip = "sys/class/hwmon/hwmon0/";
inline constexpr unsigned long long kPackageEnergy = 123456789;
inline constexpr unsigned long long kDramEnergy = 4242;

// A desktop board: an it87 Super I/O with three PWM fans in three different original modes
// (firmware automatic 2, a vendor automatic mode 5, and manual 1 at duty 77), an ACPI fan
// without PWM, a CPU package sensor, and RAPL counters (plus a powercap entry that links out
// of the powercap devices, which must never be readable through the helper).
// Discovery order: acpi fan, it87 fan1, fan2, fan3.
inline void buildHelperBoard(const FakeSysfs& sys) {
    const std::string chip = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(chip + "/fan1_input", "1200\n");
    sys.write(chip + "/fan1_max", "4000\n");
    sys.write(chip + "/pwm1", "90\n");
    sys.write(chip + "/pwm1_enable", "2\n");
    sys.write(chip + "/fan2_input", "800\n");
    sys.write(chip + "/fan2_min", "500\n");
    sys.write(chip + "/fan2_max", "2500\n");
    sys.write(chip + "/pwm2", "60\n");
    sys.write(chip + "/pwm2_enable", "5\n");
    sys.write(chip + "/fan3_input", "950\n");
    sys.write(chip + "/pwm3", "77\n");
    sys.write(chip + "/pwm3_enable", "1\n");
    const std::string acpi = sys.addHwmon(1, "acpi_fan", "platform/PNP0C0B:00");
    sys.write(acpi + "/fan1_input", "2100\n");
    const std::string coretemp = sys.addHwmon(2, "coretemp", "platform/coretemp.0");
    sys.write(coretemp + "/temp1_input", "52000\n");
    sys.write(coretemp + "/temp1_label", "Package id 0\n");

    const std::string zone = "sys/devices/virtual/powercap/intel-rapl/intel-rapl:0";
    sys.write(zone + "/energy_uj", std::to_string(kPackageEnergy) + "\n");
    sys.write(zone + "/name", "package-0\n");
    sys.write(zone + "/intel-rapl:0:0/energy_uj", std::to_string(kDramEnergy) + "\n");
    sys.symlink("../../devices/virtual/powercap/intel-rapl/intel-rapl:0",
                "sys/class/powercap/intel-rapl:0");
    sys.write("etc/secret/energy_uj", "31337\n");
    sys.symlink("../../../etc/secret", "sys/class/powercap/intel-rapl:9");
}

// Every pwm attribute of the board, to show that a refused request changed nothing.
inline std::map<std::string, std::string> pwmFiles(const FakeSysfs& sys) {
    std::map<std::string, std::string> files;
    for (const char* name : {"pwm1", "pwm1_enable", "pwm2", "pwm2_enable", "pwm3", "pwm3_enable"}) {
        files[name] = sys.read(std::string(kChip) + name).value_or("<missing>");
    }
    return files;
}

// The board's original modes are back.
inline bool boardRestored(const FakeSysfs& sys) {
    const auto files = pwmFiles(sys);
    return files.at("pwm1_enable") == "2" && files.at("pwm2_enable") == "5" &&
           files.at("pwm3_enable") == "1" && files.at("pwm3") == "77";
}

// Whether the helper gave a client's fans back because its connection ended, not because its
// lease ran out.
inline bool releasedOnDisconnect(const std::string& helperLog) {
    return helperLog.find("): connection") != std::string::npos &&
           helperLog.find("lease of") == std::string::npos;
}

// Polls `condition` every 2 ms; returns the time it took, or none after `limit`.
inline std::optional<std::chrono::duration<double>> waitUntil(
    const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto start = SteadyClock::now();
    while (SteadyClock::now() - start < limit) {
        if (condition()) return SteadyClock::now() - start;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (condition()) return SteadyClock::now() - start;
    return std::nullopt;
}

inline std::filesystem::path makeTempDir(const char* prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / prefix).string() + "-XXXXXX";
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    // Other users must reach the socket inside (the refused-peer test connects as nobody).
    ::chmod(pattern.c_str(), 0755);
    return pattern;
}

inline std::string readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// kelvo-helperd as a child process; killed (SIGKILL) and reaped when destroyed.
class HelperDaemon {
public:
    HelperDaemon(std::string sysfsRoot, std::filesystem::path runtimeDir,
                 std::vector<std::string> extraArguments = {})
        : sysfsRoot_(std::move(sysfsRoot)),
          runtimeDir_(std::move(runtimeDir)),
          extraArguments_(std::move(extraArguments)) {}
    ~HelperDaemon() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    HelperDaemon(const HelperDaemon&) = delete;
    HelperDaemon& operator=(const HelperDaemon&) = delete;

    std::string socketPath() const { return (runtimeDir_ / "helper.sock").string(); }
    std::filesystem::path journalPath() const { return runtimeDir_ / "fan-journal"; }
    std::filesystem::path logPath() const { return runtimeDir_ / "helperd.log"; }
    std::string log() const { return readWholeFile(logPath()); }
    pid_t pid() const { return pid_; }

    // Starts the daemon and waits (up to 5 s) until it accepts connections.
    bool start() {
        std::vector<std::string> arguments = {
            KELVO_HELPERD_BIN,         "--sysfs-root",       sysfsRoot_,
            "--runtime-dir",           runtimeDir_.string(), "--allow-uid",
            std::to_string(::getuid())};
        arguments.insert(arguments.end(), extraArguments_.begin(), extraArguments_.end());
        // The machine's own NVIDIA driver, if it has one, stays out of the tests' fan lists.
        if (std::find(extraArguments_.begin(), extraArguments_.end(), "--nvml-library") ==
            extraArguments_.end())
            arguments.insert(arguments.end(), {"--nvml-library", "none"});
        arguments.insert(arguments.begin(), launcher_.begin(), launcher_.end());
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        // Built before fork(): the child only execs.
        std::vector<std::string> environment;
        for (char** entry = environ; *entry; ++entry) {
            const std::string_view text(*entry);
            if (!environment_.contains(std::string(text.substr(0, text.find('='))))) {
                environment.emplace_back(text);
            }
        }
        for (const auto& [name, value] : environment_) environment.push_back(name + "=" + value);
        std::vector<char*> envp;
        for (std::string& entry : environment) envp.push_back(entry.data());
        envp.push_back(nullptr);
        const std::string log = logPath().string();
        pid_ = ::fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            const int logFd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            if (logFd >= 0) ::dup2(logFd, STDERR_FILENO);
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        return waitUntil([this] { return HelperClient::reachable(socketPath(), 50) || exited(); },
                         std::chrono::milliseconds(5000))
                   .has_value() &&
               !exited();
    }

    // A program that runs the daemon (e.g. setpriv dropping privileges), given by absolute path.
    void setLauncher(std::vector<std::string> launcher) { launcher_ = std::move(launcher); }

    // Set (or replaced) in the daemon's environment.
    void setEnvironment(const std::string& name, const std::string& value) {
        environment_[name] = value;
    }

    void signal(int number) const { ::kill(pid_, number); }

    // Waits for the process to end; its wait status, or none after `limit` (still running).
    std::optional<int> waitExit(std::chrono::milliseconds limit) {
        return waitForChildEnd(pid_, limit);
    }

private:
    bool exited() { return reapIfEnded(pid_); }

    std::string sysfsRoot_;
    std::filesystem::path runtimeDir_;
    std::vector<std::string> extraArguments_;
    std::vector<std::string> launcher_;
    std::map<std::string, std::string> environment_;
    pid_t pid_ = -1;
};

// A plain stream connection, for sending exactly the bytes a test wants.
class RawConnection {
public:
    explicit RawConnection(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(),
                    std::min(path.size(), sizeof(address.sun_path) - 1));
        if (fd_ < 0 ||
            ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            if (fd_ >= 0) ::close(fd_);
            fd_ = -1;
        }
    }
    ~RawConnection() {
        if (fd_ >= 0) ::close(fd_);
    }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool connected() const { return fd_ >= 0; }

    bool send(std::string_view bytes) const {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool sendRequest(const helper_protocol::Request& request) const {
        return send(*helper_protocol::encodeFrame(helper_protocol::encodeRequest(request)));
    }
    void shutdownWrite() const { ::shutdown(fd_, SHUT_WR); }

    // The next reply, or none when the connection ends or nothing whole arrives in time.
    std::optional<helper_protocol::Reply> reply(std::chrono::milliseconds limit) {
        const auto deadline = SteadyClock::now() + limit;
        for (;;) {
            const auto next = reader_.next();
            if (next.status == helper_protocol::FrameReader::Status::frame) {
                auto decoded = helper_protocol::decodeReply(next.payload);
                if (!decoded.ok()) return std::nullopt;
                return *decoded.value;
            }
            if (next.status == helper_protocol::FrameReader::Status::error) return std::nullopt;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - SteadyClock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd descriptor{fd_, POLLIN, 0};
            if (::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char buffer[4096];
            const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
            if (n <= 0) return std::nullopt;
            reader_.append(std::string_view(buffer, static_cast<std::size_t>(n)));
        }
    }

    // Whether the helper has closed this connection (end of stream within `limit`).
    bool closedByPeer(std::chrono::milliseconds limit) const {
        pollfd descriptor{fd_, POLLIN, 0};
        if (::poll(&descriptor, 1, static_cast<int>(limit.count())) <= 0) return false;
        char byte = 0;
        return ::recv(fd_, &byte, 1, MSG_DONTWAIT) <= 0;
    }

private:
    int fd_ = -1;
    helper_protocol::FrameReader reader_;
};

}  // namespace kelvo::test_support
