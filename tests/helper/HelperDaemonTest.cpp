// kelvo-helperd as a real process on a real socket, against a fake sysfs tree.
#include <grp.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/LocalFanController.h"
#include "foundation/helper_protocol/HelperClient.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

namespace hp = helper_protocol;
using namespace std::chrono_literals;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kAcpiFan;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;
using test_support::kFan3;
using test_support::RawConnection;
using test_support::releasedOnDisconnect;
using test_support::waitUntil;

std::string chipFile(const char* name) {
    return std::string(kChip) + name;
}

// Deadlines for what must happen: they only matter when it never does, so they leave room for
// a loaded machine.
constexpr auto kDeadline = 15000ms;

class HelperDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(sys);
        runtime = test_support::makeTempDir("kelvo-helper-run");
        daemon = std::make_unique<HelperDaemon>(sys.root().string(), runtime, extraArguments());
        ASSERT_TRUE(daemon->start()) << daemon->log();
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(runtime, ec);
    }
    virtual std::vector<std::string> extraArguments() const { return {}; }

    std::string socket() const { return daemon->socketPath(); }
    std::string file(const char* name) const { return sys.read(chipFile(name)).value_or(""); }

    FakeSysfs sys;
    std::filesystem::path runtime;
    std::unique_ptr<HelperDaemon> daemon;
};

TEST_F(HelperDaemonTest, VersionIsTheDaemonsOwn) {
    std::string printed;
    {
        FILE* pipe = ::popen((std::string(KELVO_HELPERD_BIN) + " --version").c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        char line[128] = {};
        if (std::fgets(line, sizeof(line), pipe)) printed = line;
        ::pclose(pipe);
    }
    while (!printed.empty() && printed.back() == '\n') printed.pop_back();
    ASSERT_FALSE(printed.empty());

    HelperFanController controller(socket());
    EXPECT_EQ(controller.helperVersion(), printed);

    HelperClient client(socket());
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok) << status.error;
    EXPECT_EQ(status.status.version.version, printed);
    EXPECT_EQ(status.status.version.protocol, 1);
}

TEST_F(HelperDaemonTest, ListsEveryFanWithItsStateAndTheSensors) {
    HelperClient client(socket());
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok) << status.error;
    const auto& fans = status.status.inventory.fans;
    ASSERT_EQ(fans.size(), 4u);
    EXPECT_EQ(fans[0].identity, kAcpiFan);
    EXPECT_FALSE(fans[0].controllable);
    EXPECT_EQ(fans[0].rpm, 2100);
    EXPECT_FALSE(fans[0].pwm.has_value());
    EXPECT_EQ(fans[1].identity, kFan1);
    EXPECT_TRUE(fans[1].controllable);
    EXPECT_EQ(fans[1].rpm, 1200);
    EXPECT_EQ(fans[1].maxRPM, 4000);
    EXPECT_EQ(fans[1].pwm, 90);
    EXPECT_EQ(fans[1].mode, 2);
    EXPECT_EQ(fans[2].identity, kFan2);
    EXPECT_EQ(fans[2].minRPM, 500);
    EXPECT_EQ(fans[2].mode, 5);
    EXPECT_EQ(fans[3].identity, kFan3);
    EXPECT_EQ(fans[3].pwm, 77);
    EXPECT_EQ(fans[3].mode, 1);
    for (const auto& fan : fans) {
        EXPECT_FALSE(fan.held) << fan.identity;
        EXPECT_FALSE(fan.mine) << fan.identity;
    }
    ASSERT_EQ(status.status.inventory.sensors.size(), 1u);
    const hp::SensorInfo& sensor = status.status.inventory.sensors[0];
    EXPECT_EQ(sensor.identity, "coretemp@/sys/devices/platform/coretemp.0#temp1");
    EXPECT_EQ(sensor.label, "Package id 0");
    EXPECT_EQ(sensor.milliCelsius, 52000);
}

TEST_F(HelperDaemonTest, TargetsBecomeManualModeAndLinearPWM) {
    HelperFanController controller(socket());
    const FanResult set = controller.setTargets({0, 2000, 1500, 0});
    ASSERT_TRUE(set.ok) << set.error;
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_EQ(file("pwm1"), std::to_string(LocalFanController::linearPWMForRPM(2000, 0, 4000)));
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_EQ(file("pwm2"), std::to_string(LocalFanController::linearPWMForRPM(1500, 500, 2500)));
    EXPECT_EQ(file("pwm3"), "77");  // target 0: untouched
    EXPECT_TRUE(controller.holdsControl());

    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.fans.size(), 4u);
    EXPECT_EQ(read.fans[1].name, kFan1);
    EXPECT_EQ(read.fans[1].currentRPM, 1200);
    EXPECT_EQ(read.fans[1].targetRPM, 2000);
    EXPECT_EQ(read.fans[2].targetRPM, 1500);
    EXPECT_EQ(read.fans[3].targetRPM, 0);

    HelperClient observer(socket());
    const auto listed = observer.status();
    ASSERT_TRUE(listed.ok) << listed.error;
    EXPECT_TRUE(listed.status.inventory.fans[1].held);
    EXPECT_FALSE(listed.status.inventory.fans[1].mine);  // held, but not by the observer

    // A zero target gives that fan back, to its own original mode.
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    EXPECT_EQ(file("pwm2_enable"), "5");
    EXPECT_EQ(file("pwm1_enable"), "1");

    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_TRUE(test_support::boardRestored(sys)) << file("pwm1_enable");
    EXPECT_FALSE(std::filesystem::exists(daemon->journalPath()));
}

TEST_F(HelperDaemonTest, ControllerFollowsTheFanCountAndSkipsFansWithoutPWM) {
    HelperFanController controller(socket());
    const FanResult wrongCount = controller.setTargets({2000});
    EXPECT_FALSE(wrongCount.ok);
    EXPECT_EQ(wrongCount.error, "expected 4 fan targets, got 1");
    EXPECT_EQ(file("pwm1"), "90");

    ASSERT_TRUE(controller.setTargets({3000, 0, 0, 0}).ok);  // the ACPI fan has no PWM
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperDaemonTest, ManualFanGetsItsOldDutyCycleBack) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 0, 0, 4000}).ok);
    // fan3 reports no maximum: the linear map assumes 5000 RPM.
    EXPECT_EQ(file("pwm3"), std::to_string(LocalFanController::linearPWMForRPM(4000, 0, 0)));
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_EQ(file("pwm3"), "77");
    EXPECT_EQ(file("pwm3_enable"), "1");
}

TEST_F(HelperDaemonTest, PWMTargetIsWrittenAsGiven) {
    HelperClient client(socket());
    const HelperCallResult call = client.call(hp::Request::targetPWM(kFan1, 200));
    ASSERT_TRUE(call.ok()) << call.errorText();
    const auto applied = hp::decodeAppliedPWM(call.reply.data);
    ASSERT_TRUE(applied.ok()) << applied.error;
    EXPECT_EQ(*applied.value, 200);
    EXPECT_EQ(file("pwm1"), "200");
    EXPECT_EQ(file("pwm1_enable"), "1");

    const HelperCallResult renew = client.call(hp::Request::of(hp::Op::renew));
    ASSERT_TRUE(renew.ok()) << renew.errorText();
    EXPECT_EQ(hp::decodeLeaseInfo(renew.reply.data).value->heldFans, 1);

    const HelperCallResult release = client.call(hp::Request::releaseOf(kFan1));
    ASSERT_TRUE(release.ok()) << release.errorText();
    EXPECT_EQ(file("pwm1_enable"), "2");
    // Releasing what nobody holds is not an error; an unknown fan is.
    EXPECT_TRUE(client.call(hp::Request::releaseOf(kFan1)).ok());
    const HelperCallResult unknown = client.call(hp::Request::releaseOf("nope@virtual#fan9"));
    EXPECT_FALSE(unknown.ok());
    EXPECT_EQ(unknown.reply.code, hp::codes::unknownFan);
}

TEST_F(HelperDaemonTest, AFanHeldByOneClientIsRefusedToAnother) {
    HelperFanController first(socket());
    ASSERT_TRUE(first.setTargets({0, 2000, 0, 0}).ok);
    const std::string pwm = file("pwm1");

    // Refused for that fan alone: the round itself goes through, and the refusal is the fan's.
    HelperFanController second(socket());
    const FanResult set = second.setTargets({0, 3500, 0, 0});
    EXPECT_TRUE(set.ok) << set.error;
    EXPECT_EQ(
        second.takeFanRefusals(),
        (std::vector<FanRefusal>{{kFan1, std::string(kFan1) + " is held by another client"}}));
    EXPECT_FALSE(second.holdsControl());
    EXPECT_EQ(file("pwm1"), pwm);

    HelperClient raw(socket());
    const HelperCallResult release = raw.call(hp::Request::releaseOf(kFan1));
    EXPECT_EQ(release.reply.code, hp::codes::heldByAnother);
    EXPECT_EQ(file("pwm1_enable"), "1");
}

TEST_F(HelperDaemonTest, ClosingTheConnectionReleasesAtOnce) {
    {
        HelperFanController controller(socket());
        ASSERT_TRUE(controller.setTargets({0, 2000, 1500, 3000}).ok);
        EXPECT_EQ(file("pwm1_enable"), "1");
    }
    ASSERT_TRUE(waitUntil([&] { return test_support::boardRestored(sys); }, kDeadline));
    EXPECT_TRUE(releasedOnDisconnect(daemon->log())) << daemon->log();
}

TEST_F(HelperDaemonTest, ClientKilledWithSIGKILLGetsItsFansRestoredWhenItsConnectionDrops) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        HelperFanController controller(socket());
        const FanResult set = controller.setTargets({0, 2000, 1500, 3000});
        const char status = set.ok ? 'y' : 'n';
        [[maybe_unused]] const ssize_t written = ::write(ready[1], &status, 1);
        // Mid-control: keep ticking like the control loop until killed.
        for (int i = 0; i < 100; ++i) {
            controller.readFans();
            std::this_thread::sleep_for(200ms);
        }
        ::_exit(0);
    }
    ::close(ready[1]);
    char status = 0;
    ASSERT_EQ(::read(ready[0], &status, 1), 1);
    ::close(ready[0]);
    ASSERT_EQ(status, 'y');
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_EQ(file("pwm3"), std::to_string(LocalFanController::linearPWMForRPM(3000, 0, 0)));

    ASSERT_EQ(::kill(child, SIGKILL), 0);
    const auto restored = waitUntil([&] { return test_support::boardRestored(sys); }, kDeadline);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(restored.has_value()) << daemon->log();
    std::printf("[ measured ] client SIGKILL to fans restored: %.1f ms\n",
                restored->count() * 1000);
    // The kernel closed the dead client's socket; a helper that missed that would have waited
    // for the lease instead.
    EXPECT_TRUE(releasedOnDisconnect(daemon->log())) << daemon->log();
    // The journal is emptied right after the last fan is written back.
    EXPECT_TRUE(
        waitUntil([&] { return !std::filesystem::exists(daemon->journalPath()); }, kDeadline))
        << daemon->log();
}

TEST_F(HelperDaemonTest, SilentClientLosesItsFansWhenTheLeaseRunsOut) {
    HelperFanController controller(socket());
    // Read before the last request, so the helper's lease cannot have started earlier.
    const auto beforeLastRequest = test_support::SteadyClock::now();
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    EXPECT_EQ(file("pwm1_enable"), "1");

    const auto released = waitUntil([&] { return file("pwm1_enable") == "2"; }, kDeadline);
    ASSERT_TRUE(released.has_value()) << daemon->log();
    const double heldSeconds =
        std::chrono::duration<double>(test_support::SteadyClock::now() - beforeLastRequest).count();
    std::printf("[ measured ] last request to release: %.0f ms\n", heldSeconds * 1000);
    // Kept for the whole lease. Only a lower bound: load can make the release later, never
    // earlier.
    EXPECT_GE(heldSeconds * 1000, hp::kLeaseExpiryMs) << "released before the lease ran out";
    EXPECT_NE(daemon->log().find("lease of client"), std::string::npos) << daemon->log();

    const FanResult renew = controller.renewLease();
    EXPECT_FALSE(renew.ok);
    EXPECT_NE(renew.error.find("lease expired"), std::string::npos) << renew.error;
    EXPECT_FALSE(controller.holdsControl());
    // The next tick takes the fan again.
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    EXPECT_EQ(file("pwm1_enable"), "1");
}

TEST_F(HelperDaemonTest, RenewingClientKeepsItsFans) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    // Held past two leases, renewing every 200 ms: a loaded machine would have to stall a
    // renewal for more than 2 s to lose the fans.
    const auto start = test_support::SteadyClock::now();
    while (test_support::SteadyClock::now() - start <
           2 * std::chrono::milliseconds(hp::kLeaseExpiryMs)) {
        std::this_thread::sleep_for(200ms);
        const FanResult renew = controller.renewLease();
        ASSERT_TRUE(renew.ok) << renew.error;
    }
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_TRUE(controller.holdsControl());
}

TEST_F(HelperDaemonTest, HelperKilledAndRestartedRestoresFansFromItsJournal) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 2000, 1500, 3000}).ok);
    const std::string journal = test_support::readWholeFile(daemon->journalPath());
    EXPECT_NE(journal.find(std::string(kFan1) + "\t2\t90"), std::string::npos) << journal;
    EXPECT_NE(journal.find(std::string(kFan2) + "\t5\t60"), std::string::npos) << journal;
    EXPECT_NE(journal.find(std::string(kFan3) + "\t1\t77"), std::string::npos) << journal;

    daemon->signal(SIGKILL);
    ASSERT_TRUE(daemon->waitExit(kDeadline).has_value());
    // Nobody gave the fans back: that is what the journal is for.
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_EQ(file("pwm2_enable"), "1");

    ASSERT_TRUE(daemon->start()) << daemon->log();
    EXPECT_TRUE(test_support::boardRestored(sys)) << daemon->log();
    EXPECT_FALSE(std::filesystem::exists(daemon->journalPath()));
    EXPECT_NE(daemon->log().find("restored " + std::string(kFan2) + " to pwm_enable=5"),
              std::string::npos)
        << daemon->log();

    // The controller's connection died with the old helper: it no longer holds anything and
    // its next call works on a new connection.
    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    EXPECT_FALSE(controller.holdsControl());
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    EXPECT_EQ(file("pwm1_enable"), "1");
}

TEST_F(HelperDaemonTest, SecondHelperOnTheSameRuntimeDirectoryDoesNotStart) {
    HelperDaemon second(sys.root().string(), runtime);
    second.start();  // the first helper's socket answers, so only the exit tells
    // Generous: only a helper that never exits takes this long.
    const auto status = second.waitExit(20000ms);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 1);
    EXPECT_NE(second.log().find("another kelvo-helperd is running"), std::string::npos)
        << second.log();
    HelperClient client(socket());
    EXPECT_TRUE(client.status().ok);
}

TEST_F(HelperDaemonTest, SIGTERMReleasesEverythingAndExitsCleanly) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 2000, 1500, 3000}).ok);
    daemon->signal(SIGTERM);
    const auto status = daemon->waitExit(kDeadline);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_TRUE(test_support::boardRestored(sys));
    EXPECT_FALSE(std::filesystem::exists(daemon->journalPath()));
    EXPECT_FALSE(std::filesystem::exists(socket()));
    EXPECT_NE(daemon->log().find("stopped by SIGTERM"), std::string::npos) << daemon->log();

    EXPECT_FALSE(controller.setTargets({0, 2000, 0, 0}).ok);
    EXPECT_EQ(controller.readFans().error, "helper unavailable");
    EXPECT_FALSE(controller.holdsControl());
}

TEST_F(HelperDaemonTest, SIGINTAlsoReleasesEverything) {
    HelperFanController controller(socket());
    ASSERT_TRUE(controller.setTargets({0, 2000, 0, 0}).ok);
    daemon->signal(SIGINT);
    const auto status = daemon->waitExit(kDeadline);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperDaemonTest, ReadsRaplCountersAndNothingElse) {
    HelperClient client(socket());
    const auto package = client.readCounter("/sys/class/powercap/intel-rapl:0/energy_uj");
    ASSERT_TRUE(package.ok) << package.error;
    EXPECT_EQ(package.value, test_support::kPackageEnergy);
    const auto dram =
        client.readCounter("/sys/class/powercap/intel-rapl:0/intel-rapl:0:0/energy_uj");
    ASSERT_TRUE(dram.ok) << dram.error;
    EXPECT_EQ(dram.value, test_support::kDramEnergy);

    for (const char* path :
         {"/sys/class/powercap/intel-rapl:0/name", "/etc/shadow",
          "/sys/class/powercap/intel-rapl:0/../../../../etc/shadow",
          "sys/class/powercap/intel-rapl:0/energy_uj", "/sys/class/powercap/energy_uj"}) {
        const auto refused = client.readCounter(path);
        EXPECT_FALSE(refused.ok) << path;
        EXPECT_NE(refused.error.find("counter path not allowed"), std::string::npos)
            << path << ": " << refused.error;
    }
    // Well-formed, but the link leads outside the powercap devices.
    const auto escaped = client.readCounter("/sys/class/powercap/intel-rapl:9/energy_uj");
    EXPECT_FALSE(escaped.ok);
    EXPECT_NE(escaped.error.find("leads outside the powercap devices"), std::string::npos)
        << escaped.error;
    const auto missing = client.readCounter("/sys/class/powercap/intel-rapl:1/energy_uj");
    EXPECT_FALSE(missing.ok);
}

// Sends raw bytes on a fresh connection; the reply must be an error with `code`.
struct MalformedCase {
    MalformedCase(std::string name, std::string bytes, std::string code, std::string messagePart,
                  bool closeWriteSide = false)
        : name(std::move(name)),
          bytes(std::move(bytes)),
          code(std::move(code)),
          messagePart(std::move(messagePart)),
          closeWriteSide(closeWriteSide) {}
    std::string name;
    std::string bytes;
    std::string code;
    std::string messagePart;
    bool closeWriteSide;
};

TEST_F(HelperDaemonTest, EveryMalformedFrameGetsAnErrorReplyAndChangesNothing) {
    // A fan held by a well-behaved client must stay exactly as it is, too.
    HelperFanController holder(socket());
    ASSERT_TRUE(holder.setTargets({0, 2000, 0, 0}).ok);
    const auto before = test_support::pwmFiles(sys);

    const auto frame = [](std::string_view payload) { return *hp::encodeFrame(payload); };
    std::string header = frame("");
    const auto withLength = [&](std::uint32_t length) {
        std::string bytes = header;
        for (int i = 0; i < 4; ++i) {
            bytes[4 + static_cast<std::size_t>(i)] = static_cast<char>(length & 0xff);
            length >>= 8;
        }
        return bytes;
    };
    std::string wrongVersion = frame("op=version\n");
    wrongVersion[3] = 2;

    const std::vector<MalformedCase> cases = {
        {"bad magic", "GET / HTTP/1.0\r\n\r\n", hp::codes::badFrame, "bad magic"},
        {"wrong version", wrongVersion, hp::codes::unsupportedVersion,
         "unsupported protocol version 2"},
        {"oversized", withLength(0xffffffffu), hp::codes::badFrame, "frame too large"},
        {"oversized by one", withLength(hp::kMaxPayloadSize + 1), hp::codes::badFrame,
         "frame too large"},
        {"truncated then closed", withLength(100) + "op=set_tar", hp::codes::badFrame,
         "truncated frame", true},
        {"truncated header then closed", std::string("KLV\x01\x10", 5), hp::codes::badFrame,
         "truncated frame", true},
        {"truncated and stalled", withLength(100) + "op=set", hp::codes::badFrame,
         "truncated frame"},
        {"unknown op", frame("op=format_disk\n"), hp::codes::badRequest, "unknown op"},
        {"missing fan", frame("op=set_target\nrpm=1000\n"), hp::codes::badRequest,
         "missing field 'fan'"},
        {"missing target", frame("op=set_target\nfan=" + std::string(kFan2) + "\n"),
         hp::codes::badRequest, "needs rpm or pwm"},
        {"malformed rpm", frame("op=set_target\nfan=" + std::string(kFan2) + "\nrpm=fast\n"),
         hp::codes::badRequest, "not a whole number"},
        {"rpm out of range", frame("op=set_target\nfan=" + std::string(kFan2) + "\nrpm=70000\n"),
         hp::codes::badRequest, "out of range"},
        {"pwm out of range", frame("op=set_target\nfan=" + std::string(kFan2) + "\npwm=256\n"),
         hp::codes::badRequest, "out of range"},
        {"negative pwm", frame("op=set_target\nfan=" + std::string(kFan2) + "\npwm=-1\n"),
         hp::codes::badRequest, "out of range"},
        {"both targets", frame("op=set_target\nfan=" + std::string(kFan2) + "\npwm=10\nrpm=1000\n"),
         hp::codes::badRequest, "not both"},
        {"unexpected field",
         frame("op=set_target\nfan=" + std::string(kFan2) + "\npwm=10\nforce=1\n"),
         hp::codes::badRequest, "unexpected field 'force'"},
        {"line without =", frame("op=list\nhello\n"), hp::codes::badRequest, "no '='"},
        {"duplicate key", frame("op=list\nop=list\n"), hp::codes::badRequest, "duplicate"},
        {"no final newline", frame("op=list"), hp::codes::badRequest, "does not end a line"},
        {"binary payload", frame(std::string("op=li\0st\n", 9)), hp::codes::badRequest,
         "control character"},
        {"unknown fan", frame("op=set_target\nfan=nct6775@/sys/devices/x#fan9\npwm=10\n"),
         hp::codes::unknownFan, "unknown fan"},
        {"fan without pwm", frame("op=set_target\nfan=" + std::string(kAcpiFan) + "\npwm=10\n"),
         hp::codes::notControllable, "no PWM control"},
        {"fan held by another", frame("op=set_target\nfan=" + std::string(kFan1) + "\npwm=10\n"),
         hp::codes::heldByAnother, "held by another client"},
        {"release of another's fan", frame("op=release\nfan=" + std::string(kFan1) + "\n"),
         hp::codes::heldByAnother, "held by another client"},
        {"counter outside powercap", frame("op=read_counter\npath=/etc/shadow\n"),
         hp::codes::badRequest, "counter path not allowed"},
    };
    for (const MalformedCase& c : cases) {
        SCOPED_TRACE(c.name);
        RawConnection connection(socket());
        ASSERT_TRUE(connection.connected());
        ASSERT_TRUE(connection.send(c.bytes));
        if (c.closeWriteSide) connection.shutdownWrite();
        const auto reply = connection.reply(kDeadline);
        ASSERT_TRUE(reply.has_value()) << "no reply";
        EXPECT_FALSE(reply->ok);
        EXPECT_EQ(reply->code, c.code) << reply->message;
        EXPECT_NE(reply->message.find(c.messagePart), std::string::npos) << reply->message;
        EXPECT_EQ(test_support::pwmFiles(sys), before);
    }
    EXPECT_TRUE(holder.renewLease().ok);
}

TEST_F(HelperDaemonTest, FrameErrorsCloseTheConnectionRequestErrorsDoNot) {
    RawConnection badFrame(socket());
    ASSERT_TRUE(badFrame.send("GET / HTTP/1.0\r\n\r\n"));
    ASSERT_TRUE(badFrame.reply(kDeadline).has_value());
    EXPECT_TRUE(badFrame.closedByPeer(kDeadline));

    RawConnection badRequest(socket());
    ASSERT_TRUE(badRequest.sendRequest(hp::Request::targetPWM("nope@virtual#fan1", 10)));
    const auto refused = badRequest.reply(kDeadline);
    ASSERT_TRUE(refused.has_value());
    EXPECT_EQ(refused->code, hp::codes::unknownFan);
    ASSERT_TRUE(badRequest.sendRequest(hp::Request::of(hp::Op::version)));
    const auto version = badRequest.reply(kDeadline);
    ASSERT_TRUE(version.has_value());
    EXPECT_TRUE(version->ok);
}

TEST_F(HelperDaemonTest, SeveralRequestsInOneWriteGetTheirRepliesInOrder) {
    RawConnection connection(socket());
    std::string batch;
    for (const hp::Request& request :
         {hp::Request::of(hp::Op::version), hp::Request::targetPWM(kFan2, 33),
          hp::Request::of(hp::Op::renew), hp::Request::of(hp::Op::releaseAll)}) {
        batch += *hp::encodeFrame(hp::encodeRequest(request));
    }
    ASSERT_TRUE(connection.send(batch));
    const auto version = connection.reply(kDeadline);
    const auto target = connection.reply(kDeadline);
    const auto renew = connection.reply(kDeadline);
    const auto releaseAll = connection.reply(kDeadline);
    ASSERT_TRUE(version && target && renew && releaseAll);
    EXPECT_TRUE(hp::decodeVersionInfo(version->data).ok());
    EXPECT_EQ(hp::decodeAppliedPWM(target->data).value, 33);
    EXPECT_EQ(hp::decodeLeaseInfo(renew->data).value->heldFans, 1);
    EXPECT_EQ(hp::decodeLeaseInfo(releaseAll->data).value->heldFans, 0);
    EXPECT_EQ(file("pwm2_enable"), "5");
}

// The daemon trusts root, the uids it is told about and one group; this peer is none of them.
class HelperDaemonAuthorizationTest : public HelperDaemonTest {
protected:
    std::vector<std::string> extraArguments() const override { return {"--allowed-group", "root"}; }
};

TEST_F(HelperDaemonAuthorizationTest, PeerOfARefusedUidIsToldWhyAndLogged) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to connect as another uid";
    constexpr uid_t kNobody = 65534;
    ASSERT_NE(::getuid(), kNobody);
    int result[2];
    ASSERT_EQ(::pipe(result), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(result[0]);
        std::string message = "setuid failed";
        if (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0) {
            HelperClient client(socket());
            const HelperStatusResult status = client.status();
            message = status.ok ? "allowed" : status.error;
            HelperFanController controller(socket());
            const FanResult set = controller.setTargets({0, 2000, 0, 0});
            message += "|" + (set.ok ? std::string("set") : set.error);
        }
        [[maybe_unused]] const ssize_t written = ::write(result[1], message.data(), message.size());
        ::_exit(0);
    }
    ::close(result[1]);
    std::string message;
    char buffer[512];
    for (ssize_t n; (n = ::read(result[0], buffer, sizeof(buffer))) > 0;) {
        message.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(result[0]);
    ::waitpid(child, nullptr, 0);

    const std::string refusal =
        "not allowed to use the helper (uid 65534 is not root or in group root)";
    EXPECT_EQ(message, refusal + "|" + refusal);
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_NE(daemon->log().find("refused peer pid"), std::string::npos) << daemon->log();
    EXPECT_NE(daemon->log().find("uid 65534"), std::string::npos) << daemon->log();

    // The uid the daemon was told about is still served.
    HelperClient allowed(socket());
    EXPECT_TRUE(allowed.status().ok);
}

TEST(HelperClientWithoutDaemon, SaysTheHelperIsNotRunning) {
    const auto dir = test_support::makeTempDir("kelvo-helper-none");
    const std::string path = (dir / "helper.sock").string();
    HelperClient client(path);
    const HelperStatusResult status = client.status();
    EXPECT_FALSE(status.ok);
    EXPECT_EQ(status.error, "helper not installed or not running at " + path);
    const HelperCallResult call = client.call(hp::Request::of(hp::Op::version));
    EXPECT_EQ(call.failure, HelperCallResult::Failure::unreachable);

    HelperFanController controller(path);
    EXPECT_EQ(controller.readFans().error, "helper unavailable");
    EXPECT_EQ(controller.setTargets({1000}).error, "helper unavailable");
    EXPECT_TRUE(controller.renewLease().ok);  // holds nothing, so there is nothing to keep
    EXPECT_TRUE(controller.releaseToAutomatic().ok);
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace kelvo
