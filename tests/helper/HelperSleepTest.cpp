// Sleep and resume: a private dbus-daemon stands in for the system bus, the test owns logind's
// name and emits PrepareForSleep, and the real helper gives fans back and retakes them.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <memory>

#include "foundation/helper_protocol/HelperClient.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

namespace hp = helper_protocol;
using namespace std::chrono_literals;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;
using test_support::waitUntil;

constexpr auto kDeadline = 15000ms;

// dbus-daemon with the session policy (anyone may own any name) on a socket in `dir`.
class PrivateBus {
public:
    explicit PrivateBus(const std::filesystem::path& dir) : socket_(dir / "system-bus") {
        const std::string address = "--address=unix:path=" + socket_.string();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                     address.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
    }
    ~PrivateBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    std::string address() const { return "unix:path=" + socket_.string(); }
    // Accepting connections: the socket file appears before the daemon listens on it.
    bool waitReady() const {
        return pid_ > 0 && waitUntil(
                               [this] {
                                   sd_bus* bus = nullptr;
                                   const char* unique = nullptr;
                                   if (sd_bus_new(&bus) < 0) return false;
                                   const bool ok =
                                       sd_bus_set_address(bus, address().c_str()) >= 0 &&
                                       sd_bus_set_bus_client(bus, 1) >= 0 &&
                                       sd_bus_start(bus) >= 0 &&
                                       sd_bus_get_unique_name(bus, &unique) >= 0;
                                   sd_bus_flush_close_unref(bus);
                                   return ok;
                               },
                               kDeadline)
                               .has_value();
    }

private:
    std::filesystem::path socket_;
    pid_t pid_ = -1;
};

// A bus connection that owns org.freedesktop.login1, as logind does.
class FakeLogind {
public:
    explicit FakeLogind(const std::string& address) {
        if (sd_bus_new(&bus_) < 0) return;
        if (sd_bus_set_address(bus_, address.c_str()) < 0 || sd_bus_set_bus_client(bus_, 1) < 0 ||
            sd_bus_start(bus_) < 0) {
            return;
        }
        owned_ = sd_bus_request_name(bus_, "org.freedesktop.login1", 0) >= 0;
    }
    ~FakeLogind() { sd_bus_flush_close_unref(bus_); }
    FakeLogind(const FakeLogind&) = delete;
    FakeLogind& operator=(const FakeLogind&) = delete;

    bool ownsName() const { return owned_; }
    bool prepareForSleep(bool start) {
        return sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                  "PrepareForSleep", "b", static_cast<int>(start)) >= 0 &&
               sd_bus_flush(bus_) >= 0;
    }

private:
    sd_bus* bus_ = nullptr;
    bool owned_ = false;
};

class HelperSleepTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(sys);
        runtime = test_support::makeTempDir("kelvo-helper-sleep");
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(runtime, ec);
    }
    std::string file(const char* name) const {
        return sys.read(std::string(kChip) + name).value_or("");
    }
    // The helper's match is in place only once the bus has confirmed it.
    bool subscribed() const {
        return waitUntil(
                   [&] {
                       return daemon->log().find("following sleep and resume") != std::string::npos;
                   },
                   kDeadline)
            .has_value();
    }
    // Waits for `condition` while renewing the lease of `client`, as a live client does.
    bool waitRenewing(HelperClient& client, const std::function<bool()>& condition) {
        auto lastRenew = test_support::SteadyClock::now();
        return waitUntil(
                   [&] {
                       if (test_support::SteadyClock::now() - lastRenew > 500ms) {
                           client.call(hp::Request::of(hp::Op::renew));
                           lastRenew = test_support::SteadyClock::now();
                       }
                       return condition();
                   },
                   kDeadline)
            .has_value();
    }

    FakeSysfs sys;
    std::filesystem::path runtime;
    std::unique_ptr<HelperDaemon> daemon;
};

TEST_F(HelperSleepTest, SleepGivesFansBackAndResumeRetakesThemAtTheClientsDuty) {
    PrivateBus bus(runtime);
    ASSERT_TRUE(bus.waitReady());
    FakeLogind logind(bus.address());
    ASSERT_TRUE(logind.ownsName());

    daemon = std::make_unique<HelperDaemon>(sys.root().string(), runtime);
    daemon->setEnvironment("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
    ASSERT_TRUE(daemon->start()) << daemon->log();
    ASSERT_TRUE(subscribed()) << daemon->log();
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan2, 150)).ok());
    ASSERT_EQ(file("pwm1_enable"), "1");
    ASSERT_EQ(file("pwm2_enable"), "1");
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok && status.status.config);
    EXPECT_TRUE(status.status.config->sleepHandling);

    ASSERT_TRUE(logind.prepareForSleep(true));
    EXPECT_TRUE(waitRenewing(client, [&] {
        return file("pwm1_enable") == "2" && file("pwm2_enable") == "5";
    })) << daemon->log();
    // The client keeps its connection but holds nothing while the system sleeps.
    const HelperCallResult renew = client.call(hp::Request::of(hp::Op::renew));
    ASSERT_TRUE(renew.ok());
    EXPECT_EQ(hp::decodeLeaseInfo(renew.reply.data).value->heldFans, 0);

    ASSERT_TRUE(logind.prepareForSleep(false));
    EXPECT_TRUE(waitRenewing(client, [&] {
        return file("pwm1_enable") == "1" && file("pwm1") == "200" && file("pwm2_enable") == "1" &&
               file("pwm2") == "150";
    })) << daemon->log();
    const HelperCallResult after = client.call(hp::Request::of(hp::Op::renew));
    ASSERT_TRUE(after.ok());
    EXPECT_EQ(hp::decodeLeaseInfo(after.reply.data).value->heldFans, 2);
    EXPECT_NE(daemon->log().find("system going to sleep: gave back 2 fan(s)"), std::string::npos);

    // Still the ordinary rules afterwards: a disconnect gives the retaken fans back.
    client.disconnect();
    EXPECT_TRUE(waitUntil([&] { return test_support::boardRestored(sys); }, kDeadline));
}

TEST_F(HelperSleepTest, AClientGoneDuringSleepIsNotRetaken) {
    PrivateBus bus(runtime);
    ASSERT_TRUE(bus.waitReady());
    FakeLogind logind(bus.address());
    ASSERT_TRUE(logind.ownsName());
    daemon = std::make_unique<HelperDaemon>(sys.root().string(), runtime);
    daemon->setEnvironment("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
    ASSERT_TRUE(daemon->start()) << daemon->log();
    ASSERT_TRUE(subscribed()) << daemon->log();
    {
        HelperClient client(daemon->socketPath());
        ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());
        ASSERT_TRUE(logind.prepareForSleep(true));
        ASSERT_TRUE(waitRenewing(client, [&] { return file("pwm1_enable") == "2"; }));
    }
    ASSERT_TRUE(waitUntil(
        [&] { return daemon->log().find("gone during sleep") != std::string::npos; }, kDeadline))
        << daemon->log();
    ASSERT_TRUE(logind.prepareForSleep(false));
    ASSERT_TRUE(waitUntil([&] { return daemon->log().find("system resumed") != std::string::npos; },
                          kDeadline))
        << daemon->log();
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_NE(daemon->log().find("system resumed: retook 0 fan(s)"), std::string::npos)
        << daemon->log();
}

TEST_F(HelperSleepTest, WithoutASystemBusTheHelperRunsAndSaysSoOnce) {
    daemon = std::make_unique<HelperDaemon>(sys.root().string(), runtime);
    daemon->setEnvironment("DBUS_SYSTEM_BUS_ADDRESS",
                           "unix:path=" + (runtime / "no-bus-here").string());
    ASSERT_TRUE(daemon->start()) << daemon->log();
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 99)).ok());
    ASSERT_TRUE(client.call(hp::Request::of(hp::Op::releaseAll)).ok());
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok && status.status.config);
    EXPECT_FALSE(status.status.config->sleepHandling);
    const std::string log = daemon->log();
    const auto first = log.find("no system bus");
    ASSERT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("no system bus", first + 1), std::string::npos) << log;
}

}  // namespace
}  // namespace kelvo
