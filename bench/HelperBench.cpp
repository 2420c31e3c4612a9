// Round trip of one set-target request through a real kelvo-helperd on a fake sysfs tree, and
// the answer time of a status query (what `kelvoctl helper status` sends) while other clients
// crowd the helper. The daemon is found next to this binary's build tree
// (../helper/kelvo-helperd) or through KELVO_HELPERD=<path>.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/linux/HelperClient.h"
#include "foundation/linux/HelperProtocol.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace {

namespace fs = std::filesystem;
namespace hp = kelvo::helper_protocol;

constexpr const char* kFan = "it87@/sys/devices/platform/it87.656#fan1";

std::optional<std::string> daemonPath() {
    if (const char* path = std::getenv("KELVO_HELPERD")) return std::string(path);
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return std::nullopt;
    const fs::path candidate = self.parent_path().parent_path() / "helper" / "kelvo-helperd";
    if (fs::exists(candidate, ec)) return candidate.string();
    return std::nullopt;
}

class RunningHelper {
public:
    RunningHelper(const std::string& binary, const kelvo::test_support::FakeSysfs& sys) {
        runtime_ = sys.path("run");
        fs::create_directories(runtime_);
        std::vector<std::string> arguments = {binary,
                                              "--sysfs-root",
                                              sys.root().string(),
                                              "--runtime-dir",
                                              runtime_.string(),
                                              "--allow-uid",
                                              std::to_string(::getuid())};
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            const int null = ::open("/dev/null", O_WRONLY);
            if (null >= 0) ::dup2(null, STDERR_FILENO);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        for (int i = 0; i < 500 && !ready(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~RunningHelper() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    RunningHelper(const RunningHelper&) = delete;
    RunningHelper& operator=(const RunningHelper&) = delete;

    std::string socketPath() const { return (runtime_ / "helper.sock").string(); }
    bool ready() const { return pid_ > 0 && kelvo::HelperClient::reachable(socketPath(), 50); }

private:
    fs::path runtime_;
    pid_t pid_ = -1;
};

void BM_HelperRoundTrip(benchmark::State& state) {
    const auto binary = daemonPath();
    if (!binary) {
        state.SkipWithError("kelvo-helperd not found (build it, or set KELVO_HELPERD)");
        return;
    }
    kelvo::test_support::FakeSysfs sys;
    const std::string chip = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(chip + "/fan1_input", "1200\n");
    sys.write(chip + "/fan1_max", "4000\n");
    sys.write(chip + "/pwm1", "90\n");
    sys.write(chip + "/pwm1_enable", "2\n");
    RunningHelper helper(*binary, sys);
    if (!helper.ready()) {
        state.SkipWithError("kelvo-helperd did not start");
        return;
    }
    kelvo::HelperClient client(helper.socketPath());
    int rpm = 1000;
    for (auto _ : state) {
        const kelvo::HelperCallResult call = client.call(hp::Request::targetRPM(kFan, rpm));
        if (!call.ok()) {
            state.SkipWithError(call.errorText().c_str());
            break;
        }
        rpm = rpm == 1000 ? 2000 : 1000;
    }
    client.call(hp::Request::of(hp::Op::releaseAll));
}
BENCHMARK(BM_HelperRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// `count` clients that connect and say nothing; each connection the helper closes or refuses
// is opened again at once, so the helper sees `count` clients connecting for as long as this
// lives. Runs on its own thread.
class ConnectionFlood {
public:
    ConnectionFlood(std::string path, int count)
        : path_(std::move(path)), fds_(static_cast<std::size_t>(count), -1) {
        for (int& fd : fds_) fd = open();
        thread_ = std::thread([this] { run(); });
    }
    ~ConnectionFlood() {
        stop_ = true;
        thread_.join();
        for (int fd : fds_) {
            if (fd >= 0) ::close(fd);
        }
    }
    ConnectionFlood(const ConnectionFlood&) = delete;
    ConnectionFlood& operator=(const ConnectionFlood&) = delete;

    double connectsPerSecond() const {
        const std::chrono::duration<double> lived = std::chrono::steady_clock::now() - started_;
        return static_cast<double>(connects_) / lived.count();
    }

private:
    // A non-blocking connection, or -1 while the helper's backlog is full.
    int open() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path_.data(),
                    std::min(path_.size(), sizeof(address.sun_path) - 1));
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            ::close(fd);
            return -1;
        }
        ++connects_;
        return fd;
    }

    void run() {
        std::vector<pollfd> descriptors;
        std::vector<std::size_t> owners;
        while (!stop_) {
            descriptors.clear();
            owners.clear();
            for (std::size_t i = 0; i < fds_.size(); ++i) {
                if (fds_[i] < 0) fds_[i] = open();
                if (fds_[i] < 0) continue;
                descriptors.push_back({fds_[i], POLLIN, 0});
                owners.push_back(i);
            }
            // Short, so that connections refused by a full backlog are retried soon.
            if (::poll(descriptors.data(), descriptors.size(), 5) <= 0) continue;
            for (std::size_t k = 0; k < descriptors.size(); ++k) {
                if (descriptors[k].revents == 0) continue;
                // Closed by the helper (silence, room for another client) or refused with a
                // reply: either way this client connects again.
                ::close(fds_[owners[k]]);
                fds_[owners[k]] = -1;
            }
        }
    }

    std::string path_;
    std::vector<int> fds_;
    std::atomic<bool> stop_ = false;
    std::atomic<std::uint64_t> connects_ = 0;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::thread thread_;
};

// One status query per iteration on a fresh connection, as `kelvoctl helper status` makes it,
// while state.range(0) other clients keep connecting. Reported: answer times (median, 99th
// percentile, worst) and how many queries got no answer.
void BM_HelperStatusUnderLoad(benchmark::State& state) {
    const auto binary = daemonPath();
    if (!binary) {
        state.SkipWithError("kelvo-helperd not found (build it, or set KELVO_HELPERD)");
        return;
    }
    kelvo::test_support::FakeSysfs sys;
    const std::string chip = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(chip + "/fan1_input", "1200\n");
    sys.write(chip + "/pwm1", "90\n");
    sys.write(chip + "/pwm1_enable", "2\n");
    RunningHelper helper(*binary, sys);
    if (!helper.ready()) {
        state.SkipWithError("kelvo-helperd did not start");
        return;
    }
    std::optional<ConnectionFlood> flood;
    if (state.range(0) > 0) {
        flood.emplace(helper.socketPath(), static_cast<int>(state.range(0)));
        // Let the crowd form before the first query.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    std::vector<double> answered;
    std::int64_t failed = 0;
    std::string firstError;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        kelvo::HelperClient client(helper.socketPath());
        const kelvo::HelperStatusResult result = client.status();
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - start;
        if (result.ok) {
            answered.push_back(took.count());
        } else {
            ++failed;
            if (firstError.empty()) firstError = result.error;
        }
    }
    std::sort(answered.begin(), answered.end());
    const auto at = [&](double q) {
        if (answered.empty()) return 0.0;
        return answered[std::min(
            answered.size() - 1,
            static_cast<std::size_t>(q * static_cast<double>(answered.size())))];
    };
    state.counters["median_ms"] = at(0.5);
    state.counters["p99_ms"] = at(0.99);
    state.counters["max_ms"] = answered.empty() ? 0.0 : answered.back();
    state.counters["failed"] = static_cast<double>(failed);
    if (flood) {
        state.counters["flood_connects_per_s"] = flood->connectsPerSecond();
    }
    if (!firstError.empty()) state.SetLabel("first failure: " + firstError);
}
BENCHMARK(BM_HelperStatusUnderLoad)
    ->ArgName("other_clients")
    ->Arg(0)
    ->Arg(64)
    ->Arg(500)
    ->Iterations(500)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
