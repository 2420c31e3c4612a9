// kelvo-helperd's connection limits over its real socket: silent connections are closed, one
// user cannot crowd out the others, and a status query is answered however full the helper is.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "foundation/fans/HelperFanController.h"
#include "foundation/helper_protocol/HelperClient.h"
#include "helper/ClientAdmission.h"
#include "tests/helper/ConnectionFlood.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

namespace hp = helper_protocol;
using helperd::ClientAdmission;
using namespace std::chrono_literals;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kChip;
using test_support::RawConnection;

constexpr uid_t kOtherUser = 40001;

class HelperConnectionLimitsTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildBoard();
        runtime = test_support::makeTempDir("kelvo-helper-limits");
        daemon = std::make_unique<HelperDaemon>(
            sys.root().string(), runtime,
            std::vector<std::string>{"--allow-uid", std::to_string(kOtherUser)});
        ASSERT_TRUE(daemon->start()) << daemon->log();
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(runtime, ec);
    }
    virtual void buildBoard() { test_support::buildHelperBoard(sys); }

    std::string socket() const { return daemon->socketPath(); }
    std::string file(const std::string& name) const {
        return sys.read(std::string(kChip) + name).value_or("");
    }

    FakeSysfs sys;
    std::filesystem::path runtime;
    std::unique_ptr<HelperDaemon> daemon;
};

std::vector<std::unique_ptr<RawConnection>> openIdle(const std::string& socket, int count) {
    std::vector<std::unique_ptr<RawConnection>> connections;
    for (int i = 0; i < count; ++i) connections.push_back(std::make_unique<RawConnection>(socket));
    return connections;
}

// Whether the helper still answers on `connection`.
bool answers(RawConnection& connection) {
    if (!connection.sendRequest(hp::Request::of(hp::Op::version))) return false;
    const auto reply = connection.reply(5000ms);
    return reply && reply->ok;
}

TEST_F(HelperConnectionLimitsTest, SixtyFourIdleConnectionsNeverStopALegitimateClient) {
    const auto idle = openIdle(socket(), 64);
    for (const auto& connection : idle) ASSERT_TRUE(connection->connected());

    HelperClient status(socket());
    const HelperStatusResult result = status.status();
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.status.inventory.fans.size(), 4u);

    HelperFanController controller(socket());
    const FanResult set = controller.setTargets({0, 2000, 0, 0});
    ASSERT_TRUE(set.ok) << set.error;
    EXPECT_EQ(file("pwm1_enable"), "1");
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperConnectionLimitsTest, SilentConnectionsAreClosedAndAskingOnesAreKept) {
    RawConnection silent(socket());
    HelperClient quietClient(socket());
    ASSERT_TRUE(quietClient.call(hp::Request::of(hp::Op::version)).ok());
    RawConnection askedOnce(socket());
    RawConnection asking(socket());
    ASSERT_TRUE(answers(askedOnce));

    // Generous: the helper closes them after a few seconds of silence.
    const auto deadline = test_support::SteadyClock::now() + 30s;
    bool silentClosed = false;
    bool askedOnceClosed = false;
    while (!(silentClosed && askedOnceClosed) && test_support::SteadyClock::now() < deadline) {
        ASSERT_TRUE(answers(asking)) << daemon->log();
        silentClosed = silentClosed || silent.closedByPeer(0ms);
        askedOnceClosed = askedOnceClosed || askedOnce.closedByPeer(0ms);
        std::this_thread::sleep_for(250ms);
    }
    EXPECT_TRUE(silentClosed);
    EXPECT_TRUE(askedOnceClosed);
    EXPECT_TRUE(answers(asking));
    // A client that went quiet just connects again when it has something to ask.
    const HelperCallResult again = quietClient.call(hp::Request::of(hp::Op::version));
    EXPECT_TRUE(again.ok()) << again.errorText();
    EXPECT_EQ(quietClient.connectionNumber(), 2u);
}

TEST_F(HelperConnectionLimitsTest, OneUserHoldsAtMostItsShareAndNeverCrowdsOutAnother) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to connect as another uid";
    // This user's connection keeps asking while the other user connects.
    RawConnection mine(socket());
    ASSERT_TRUE(answers(mine));
    std::atomic<bool> stop = false;
    std::atomic<bool> mineFailed = false;
    std::thread keeper([&] {
        while (!stop) {
            if (!answers(mine)) mineFailed = true;
            std::this_thread::sleep_for(200ms);
        }
    });

    // Another user opens 64 connections and keeps them: how many does the helper leave open?
    int ready[2];
    int done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        ::close(done[1]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(kOtherUser) != 0 ||
            ::setuid(kOtherUser) != 0) {
            ::_exit(1);
        }
        const auto connections = openIdle(socket(), 64);
        // Its newest connection is served, so the helper has taken every one before it.
        unsigned char open = answers(*connections.back()) ? 0 : 255;
        if (open == 0) {
            for (const auto& connection : connections) {
                if (connection->connected() && !connection->closedByPeer(0ms)) ++open;
            }
        }
        [[maybe_unused]] const ssize_t written = ::write(ready[1], &open, 1);
        char go = 0;
        [[maybe_unused]] const ssize_t got = ::read(done[0], &go, 1);
        ::_exit(0);
    }
    ::close(ready[1]);
    ::close(done[0]);
    unsigned char open = 255;
    const bool reported = ::read(ready[0], &open, 1) == 1;

    // While they are connected, this user is served on new connections too.
    HelperClient status(socket());
    const HelperStatusResult result = status.status();
    EXPECT_TRUE(result.ok) << result.error;
    HelperFanController controller(socket());
    EXPECT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);

    [[maybe_unused]] const ssize_t written = ::write(done[1], "x", 1);
    ::close(done[1]);
    ::close(ready[0]);
    int childStatus = 0;
    ::waitpid(child, &childStatus, 0);
    stop = true;
    keeper.join();
    EXPECT_FALSE(mineFailed) << daemon->log();
    ASSERT_TRUE(WIFEXITED(childStatus) && WEXITSTATUS(childStatus) == 0);
    ASSERT_TRUE(reported);
    ASSERT_NE(open, 255) << "the other user's newest connection was not served\n" << daemon->log();
    EXPECT_GE(open, 1);
    EXPECT_LE(open, ClientAdmission::kMaxPerUid);
}

TEST_F(HelperConnectionLimitsTest, ALeaseStillRunsOutWhileClientsKeepConnecting) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    // Connections arrive as fast as the helper can take them; its timers must still run.
    std::vector<std::unique_ptr<test_support::ConnectionFlood>> floods;
    for (int i = 0; i < 4; ++i) {
        floods.push_back(std::make_unique<test_support::ConnectionFlood>(socket(), 125));
    }
    EXPECT_TRUE(
        test_support::waitUntil([&] { return file("pwm1_enable") == "2"; }, 20000ms).has_value())
        << daemon->log();
    HelperClient status(socket());
    const HelperStatusResult result = status.status();
    EXPECT_TRUE(result.ok) << result.error;
}

// A board with as many PWM fans as one user may have connections.
class HelperStatusSlotTest : public HelperConnectionLimitsTest {
protected:
    void buildBoard() override {
        const std::string chip = sys.addHwmon(0, "nct6775", "platform/nct6775.656");
        for (std::size_t i = 1; i <= ClientAdmission::kMaxPerUid; ++i) {
            const std::string n = std::to_string(i);
            sys.write(chip + "/fan" + n + "_input", "1000\n");
            sys.write(chip + "/pwm" + n, "100\n");
            sys.write(chip + "/pwm" + n + "_enable", "2\n");
        }
    }
    static std::string fan(std::size_t i) {
        return "nct6775@/sys/devices/platform/nct6775.656#fan" + std::to_string(i);
    }
};

TEST_F(HelperStatusSlotTest, StatusIsAnsweredWhenEveryConnectionOfAUserIsBusy) {
    // Every connection this user may have holds a fan and keeps its lease.
    std::vector<std::unique_ptr<RawConnection>> holders;
    for (std::size_t i = 1; i <= ClientAdmission::kMaxPerUid; ++i) {
        holders.push_back(std::make_unique<RawConnection>(socket()));
        ASSERT_TRUE(holders.back()->sendRequest(hp::Request::targetPWM(fan(i), 150)));
        const auto reply = holders.back()->reply(5000ms);
        ASSERT_TRUE(reply && reply->ok) << (reply ? reply->message : "no reply");
    }
    std::atomic<bool> stop = false;
    std::atomic<bool> renewFailed = false;
    std::thread renewer([&] {
        while (!stop) {
            for (const auto& holder : holders) {
                if (!holder->sendRequest(hp::Request::of(hp::Op::renew))) renewFailed = true;
                const auto reply = holder->reply(5000ms);
                if (!reply || !reply->ok) renewFailed = true;
            }
            std::this_thread::sleep_for(200ms);
        }
    });

    HelperClient status(socket());
    const HelperStatusResult result = status.status();
    EXPECT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.status.inventory.fans.size(), ClientAdmission::kMaxPerUid);
    // The same connection may not take or renew anything: it only has a status slot.
    const HelperCallResult renew = status.call(hp::Request::of(hp::Op::renew));
    EXPECT_FALSE(renew.ok());
    EXPECT_EQ(renew.reply.code, hp::codes::busy) << renew.errorText();

    stop = true;
    renewer.join();
    EXPECT_FALSE(renewFailed);
}

}  // namespace
}  // namespace kelvo
