// A peer that is not allowed to use the helper and connects in a loop: each refusal must stay
// cheap, so the helper does not ask the user database (files, or an IPC call with userdb) for
// every connect, and logs a count instead of a line per refusal.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "helper/PeerAuthorizer.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using helperd::PeerAuthorizer;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::RawConnection;

constexpr uid_t kNobody = 65534;

// A field of /proc/PID/io (bytes read through read() and friends, whatever the file).
std::optional<unsigned long long> ioField(pid_t pid, const std::string& name) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/io");
    std::string key;
    unsigned long long value = 0;
    while (in >> key >> value) {
        if (key == name + ":") return value;
    }
    return std::nullopt;
}

std::optional<double> cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14) utime = std::stoull(field);
        if (index == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

TEST(HelperRefusalFlood, ANonMembersConnectFloodDoesNotReadTheUserDatabaseEachTime) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to connect as another uid";
    FakeSysfs sys;
    buildHelperBoard(sys);
    const auto runtime = test_support::makeTempDir("kelvo-helper-flood");
    auto daemon = std::make_unique<HelperDaemon>(
        sys.root().string(), runtime, std::vector<std::string>{"--allowed-group", "root"});
    ASSERT_TRUE(daemon->start()) << daemon->log();
    const auto readBefore = ioField(daemon->pid(), "rchar");
    const auto cpuBefore = cpuSeconds(daemon->pid());
    ASSERT_TRUE(readBefore && cpuBefore);

    constexpr int kConnects = 2000;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) {
            ::_exit(2);
        }
        int refused = 0;
        for (int i = 0; i < kConnects; ++i) {
            RawConnection connection(daemon->socketPath());
            if (connection.connected() && connection.reply(5000ms)) ++refused;
        }
        ::_exit(refused == kConnects ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "not every connect was refused";

    const auto readAfter = ioField(daemon->pid(), "rchar");
    const auto cpuAfter = cpuSeconds(daemon->pid());
    ASSERT_TRUE(readAfter && cpuAfter);
    std::error_code ec;
    const auto database = std::filesystem::file_size("/etc/group", ec) +
                          std::filesystem::file_size("/etc/passwd", ec);
    // One lookup reads the group and user files; every connect doing so reads them 2000 times.
    EXPECT_LT(*readAfter - *readBefore, 50 * database)
        << "the helper read " << *readAfter - *readBefore << " bytes for " << kConnects
        << " refusals";
    const std::string log = daemon->log();
    std::size_t refusalLines = 0;
    for (auto at = log.find("refused peer"); at != std::string::npos;
         at = log.find("refused peer", at + 1)) {
        ++refusalLines;
    }
    EXPECT_LT(refusalLines, static_cast<std::size_t>(kConnects / 10)) << log;
    std::printf(
        "%d refused connects: helper read %llu bytes, used %.2f s of CPU, logged %zu "
        "refusal line(s)\n",
        kConnects, *readAfter - *readBefore, *cpuAfter - *cpuBefore, refusalLines);
    daemon.reset();
    std::filesystem::remove_all(runtime, ec);
}

TEST(HelperRefusalFlood, MembershipIsAskedOnceAWhilePerPeer) {
    auto now = std::chrono::steady_clock::time_point{} + 1h;
    PeerAuthorizer authorizer("kelvo-no-such-group", {}, [&] { return now; });
    for (int i = 0; i < 100; ++i) EXPECT_FALSE(authorizer.decide(kNobody, kNobody).allowed);
    EXPECT_EQ(authorizer.lookups(), 1u);
    // Another peer is asked about on its own.
    EXPECT_FALSE(authorizer.decide(4321, 4321).allowed);
    EXPECT_EQ(authorizer.lookups(), 2u);
    // A change to the group is seen once the answer is old.
    now += PeerAuthorizer::kMembershipCacheTime;
    EXPECT_FALSE(authorizer.decide(kNobody, kNobody).allowed);
    EXPECT_EQ(authorizer.lookups(), 3u);
    // Root and listed uids need no lookup at all.
    EXPECT_TRUE(authorizer.decide(0, 0).allowed);
    EXPECT_EQ(authorizer.lookups(), 3u);
}

}  // namespace
}  // namespace kelvo
