// Sleep and resume: a private dbus-daemon stands in for the system bus, the test owns logind's
// name and emits PrepareForSleep, and the real helper gives fans back and retakes them.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>

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

// Another peer on the bus, which does not own logind's name: it sends PrepareForSleep straight
// to the helper's own connection, where the bus's sender filtering does not apply.
class Forger {
public:
    explicit Forger(const std::string& address) {
        if (sd_bus_new(&bus_) < 0) return;
        started_ = sd_bus_set_address(bus_, address.c_str()) >= 0 &&
                   sd_bus_set_bus_client(bus_, 1) >= 0 && sd_bus_start(bus_) >= 0;
    }
    ~Forger() { sd_bus_flush_close_unref(bus_); }
    Forger(const Forger&) = delete;
    Forger& operator=(const Forger&) = delete;

    // The unique name of the connection that process `pid` holds, or empty.
    std::string uniqueNameOf(pid_t pid) {
        if (!started_) return {};
        sd_bus_message* reply = nullptr;
        std::string found;
        if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "ListNames", nullptr, &reply, "") < 0) {
            return {};
        }
        char** names = nullptr;
        if (sd_bus_message_read_strv(reply, &names) >= 0 && names) {
            for (char** name = names; *name; ++name) {
                std::uint32_t owner = 0;
                sd_bus_message* pidReply = nullptr;
                if ((*name)[0] == ':' &&
                    sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                       nullptr, &pidReply, "s", *name) >= 0 &&
                    sd_bus_message_read(pidReply, "u", &owner) >= 0 &&
                    owner == static_cast<std::uint32_t>(pid)) {
                    found = *name;
                }
                sd_bus_message_unref(pidReply);
            }
            for (char** name = names; *name; ++name) std::free(*name);
            std::free(names);
        }
        sd_bus_message_unref(reply);
        return found;
    }

    bool send(const std::string& destination, const char* path, const char* interface,
              const char* member, bool start) {
        sd_bus_message* message = nullptr;
        const bool ok = sd_bus_message_new_signal(bus_, &message, path, interface, member) >= 0 &&
                        sd_bus_message_set_destination(message, destination.c_str()) >= 0 &&
                        sd_bus_message_append(message, "b", static_cast<int>(start)) >= 0 &&
                        sd_bus_send(bus_, message, nullptr) >= 0;
        sd_bus_message_unref(message);
        return ok;
    }
    // NameOwnerChanged as the bus driver would send it, naming the forger logind's owner.
    bool claimLogind(const std::string& destination) {
        const char* self = nullptr;
        sd_bus_message* message = nullptr;
        const bool ok =
            sd_bus_get_unique_name(bus_, &self) >= 0 &&
            sd_bus_message_new_signal(bus_, &message, "/org/freedesktop/DBus",
                                      "org.freedesktop.DBus", "NameOwnerChanged") >= 0 &&
            sd_bus_message_set_destination(message, destination.c_str()) >= 0 &&
            sd_bus_message_append(message, "sss", "org.freedesktop.login1", "", self) >= 0 &&
            sd_bus_send(bus_, message, nullptr) >= 0;
        sd_bus_message_unref(message);
        return ok;
    }
    bool prepareForSleep(const std::string& destination, bool start) {
        return send(destination, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                    "PrepareForSleep", start);
    }
    bool flush() { return sd_bus_flush(bus_) >= 0; }

private:
    sd_bus* bus_ = nullptr;
    bool started_ = false;
};

// CPU seconds (user and system) that process `pid` has used so far, or none.
std::optional<double> cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    // After the command: state is field 3; utime and stime are fields 14 and 15.
    unsigned long long utime = 0, stime = 0;
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14) utime = std::stoull(field);
        if (index == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

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
    // The helper on `bus`, once its sleep match is in place.
    void startFollowing(const PrivateBus& bus) {
        daemon = std::make_unique<HelperDaemon>(sys.root().string(), runtime);
        daemon->setEnvironment("DBUS_SYSTEM_BUS_ADDRESS", bus.address());
        ASSERT_TRUE(daemon->start()) << daemon->log();
        ASSERT_TRUE(subscribed()) << daemon->log();
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

    ASSERT_NO_FATAL_FAILURE(startFollowing(bus));
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
    ASSERT_NO_FATAL_FAILURE(startFollowing(bus));
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

TEST_F(HelperSleepTest, ASleepSignalSentToTheHelperByAnotherPeerChangesNoFan) {
    PrivateBus bus(runtime);
    ASSERT_TRUE(bus.waitReady());
    FakeLogind logind(bus.address());
    ASSERT_TRUE(logind.ownsName());
    ASSERT_NO_FATAL_FAILURE(startFollowing(bus));
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());

    Forger forger(bus.address());
    const std::string helperName = forger.uniqueNameOf(daemon->pid());
    ASSERT_FALSE(helperName.empty());
    // The bus driver's name change, forged the same way, does not make the forger logind.
    ASSERT_TRUE(forger.claimLogind(helperName));
    ASSERT_TRUE(forger.prepareForSleep(helperName, true));
    ASSERT_TRUE(forger.flush());
    ASSERT_TRUE(waitRenewing(client, [&] {
        return file("pwm1_enable") != "1" ||
               daemon->log().find("ignoring a signal from") != std::string::npos;
    })) << daemon->log();
    EXPECT_EQ(file("pwm1_enable"), "1") << daemon->log();
    EXPECT_EQ(file("pwm1"), "200");
    EXPECT_EQ(daemon->log().find("system going to sleep"), std::string::npos) << daemon->log();

    // logind itself is still obeyed.
    ASSERT_TRUE(logind.prepareForSleep(true));
    EXPECT_TRUE(waitRenewing(client, [&] { return file("pwm1_enable") == "2"; })) << daemon->log();
}

TEST_F(HelperSleepTest, ARestartedLogindIsObeyedAndItsOldNameIsNot) {
    PrivateBus bus(runtime);
    ASSERT_TRUE(bus.waitReady());
    auto logind = std::make_unique<FakeLogind>(bus.address());
    ASSERT_TRUE(logind->ownsName());
    ASSERT_NO_FATAL_FAILURE(startFollowing(bus));
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());

    // logind goes away: nobody may put the system to sleep in its name meanwhile.
    logind.reset();
    ASSERT_TRUE(waitUntil([&] { return daemon->log().find("left the bus") != std::string::npos; },
                          kDeadline))
        << daemon->log();
    Forger forger(bus.address());
    const std::string helperName = forger.uniqueNameOf(daemon->pid());
    ASSERT_FALSE(helperName.empty());
    ASSERT_TRUE(forger.prepareForSleep(helperName, true) && forger.flush());
    ASSERT_TRUE(waitRenewing(client, [&] {
        return daemon->log().find("ignoring a signal from") != std::string::npos;
    })) << daemon->log();
    EXPECT_EQ(file("pwm1_enable"), "1");

    logind = std::make_unique<FakeLogind>(bus.address());
    ASSERT_TRUE(logind->ownsName());
    ASSERT_TRUE(waitUntil(
        [&] { return daemon->log().find("is now owned by") != std::string::npos; }, kDeadline))
        << daemon->log();
    ASSERT_TRUE(logind->prepareForSleep(true));
    EXPECT_TRUE(waitRenewing(client, [&] { return file("pwm1_enable") == "2"; })) << daemon->log();
}

// 10 000 forged signals: none releases a fan. Prints what the flood cost the helper.
TEST_F(HelperSleepTest, AFloodOfForgedSleepSignalsReleasesNothing) {
    PrivateBus bus(runtime);
    ASSERT_TRUE(bus.waitReady());
    FakeLogind logind(bus.address());
    ASSERT_TRUE(logind.ownsName());
    ASSERT_NO_FATAL_FAILURE(startFollowing(bus));
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());

    Forger forger(bus.address());
    const std::string helperName = forger.uniqueNameOf(daemon->pid());
    ASSERT_FALSE(helperName.empty());
    const auto cpuBefore = cpuSeconds(daemon->pid());
    constexpr int kForged = 10000;
    for (int i = 0; i < kForged; ++i) {
        ASSERT_TRUE(forger.prepareForSleep(helperName, i % 2 == 0));
        if (i % 100 == 99) {
            ASSERT_TRUE(forger.flush());
            client.call(hp::Request::of(hp::Op::renew));
        }
    }
    ASSERT_TRUE(forger.flush());
    // A genuine signal after the flood: the helper has read everything before it once it acts.
    ASSERT_TRUE(logind.prepareForSleep(true));
    ASSERT_TRUE(waitRenewing(client, [&] {
        return daemon->log().find("system going to sleep: gave back") != std::string::npos;
    })) << daemon->log();
    const auto cpuAfter = cpuSeconds(daemon->pid());
    const std::string log = daemon->log();
    const auto count = [&log](const std::string& text) {
        std::size_t found = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++found;
        }
        return found;
    };
    // Each fan given back for sleep is logged with that reason, after its restore.
    const std::size_t releases = count("(system going to sleep)");
    EXPECT_EQ(releases, 1u) << log;
    EXPECT_EQ(count("system going to sleep: gave back"), 1u) << log;
    EXPECT_EQ(file("pwm1_enable"), "2");
    const std::size_t ignoredLines = count("ignoring a signal from");
    EXPECT_GE(ignoredLines, 1u);
    EXPECT_LT(ignoredLines, static_cast<std::size_t>(kForged / 10))
        << "forged signals are logged per burst, not one by one";
    if (cpuBefore && cpuAfter) {
        std::printf(
            "%d forged signals and one genuine: %zu fan release(s), %zu log line(s), "
            "helper CPU %.2f s\n",
            kForged, releases, ignoredLines, *cpuAfter - *cpuBefore);
    }
}

}  // namespace
}  // namespace kelvo
