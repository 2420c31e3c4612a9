// Round trip of one set-target request through a real kelvo-helperd on a fake sysfs tree, and
// the answer time of a status query (what `kelvoctl helper status` sends) while other clients
// crowd the helper. The daemon is found next to this binary's build tree
// (../helper/kelvo-helperd) or through KELVO_HELPERD=<path>.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/helper_protocol/HelperClient.h"
#include "foundation/helper_protocol/HelperProtocol.h"
#include "tests/foundation/LinuxFakeSysfs.h"
#include "tests/helper/ConnectionFlood.h"

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

// kelvo-helperd serving a board with one controllable fan; none (the benchmark skipped, with
// the reason) when it cannot run.
std::unique_ptr<RunningHelper> startHelperOnOneFan(benchmark::State& state,
                                                   const kelvo::test_support::FakeSysfs& sys) {
    const auto binary = daemonPath();
    if (!binary) {
        state.SkipWithError("kelvo-helperd not found (build it, or set KELVO_HELPERD)");
        return nullptr;
    }
    const std::string chip = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(chip + "/fan1_input", "1200\n");
    sys.write(chip + "/fan1_max", "4000\n");
    sys.write(chip + "/pwm1", "90\n");
    sys.write(chip + "/pwm1_enable", "2\n");
    auto helper = std::make_unique<RunningHelper>(*binary, sys);
    if (!helper->ready()) {
        state.SkipWithError("kelvo-helperd did not start");
        return nullptr;
    }
    return helper;
}

void BM_HelperRoundTrip(benchmark::State& state) {
    kelvo::test_support::FakeSysfs sys;
    const auto helper = startHelperOnOneFan(state, sys);
    if (!helper) return;
    kelvo::HelperClient client(helper->socketPath());
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

// One status query per iteration on a fresh connection, as `kelvoctl helper status` makes it,
// while state.range(0) other clients keep connecting. Reported: answer times (median, 99th
// percentile, worst) and how many queries got no answer.
void BM_HelperStatusUnderLoad(benchmark::State& state) {
    kelvo::test_support::FakeSysfs sys;
    const auto helper = startHelperOnOneFan(state, sys);
    if (!helper) return;
    std::optional<kelvo::test_support::ConnectionFlood> flood;
    if (state.range(0) > 0) {
        flood.emplace(helper->socketPath(), static_cast<int>(state.range(0)));
        // Let the crowd form before the first query.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    std::vector<double> answered;
    std::int64_t failed = 0;
    std::string firstError;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        kelvo::HelperClient client(helper->socketPath());
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
