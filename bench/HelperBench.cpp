// Round trip of one set-target request through a real kelvo-helperd on a fake sysfs tree.
// The daemon is found next to this binary's build tree (../helper/kelvo-helperd) or through
// KELVO_HELPERD=<path>.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
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

}  // namespace
