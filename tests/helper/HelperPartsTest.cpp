// The daemon's parts on their own: journal, fan ownership, peer checks, counter paths, options.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/FanJournal.h"
#include "helper/FanOwner.h"
#include "helper/HelperOptions.h"
#include "helper/HwmonFans.h"
#include "helper/PeerAuthorizer.h"
#include "helper/PowercapCounter.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo::helperd {
namespace {

using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;
using test_support::kFan3;
namespace codes = helper_protocol::codes;

std::string chipFile(const char* name) {
    return std::string(kChip) + name;
}

// ----- FanJournal -----------------------------------------------------------------------------

TEST(HelperFanJournal, SavedEntriesLoadBack) {
    FakeSysfs dir;
    FanJournal journal(dir.path("fan-journal"));
    const std::vector<JournalEntry> entries = {{kFan1, 2, 90}, {kFan3, 1, 77}, {kFan2, {}, {}}};
    std::string error;
    ASSERT_TRUE(journal.save(entries, &error)) << error;
    const FanJournal::Loaded loaded = journal.load();
    EXPECT_TRUE(loaded.problems.empty());
    EXPECT_EQ(loaded.entries, entries);
    EXPECT_FALSE(std::filesystem::exists(dir.path("fan-journal.new")));
    EXPECT_EQ(std::filesystem::status(journal.file()).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(HelperFanJournal, EmptyListRemovesTheFileAndMissingFileIsEmpty) {
    FakeSysfs dir;
    FanJournal journal(dir.path("fan-journal"));
    EXPECT_TRUE(journal.load().entries.empty());
    ASSERT_TRUE(journal.save({{kFan1, 2, 90}}, nullptr));
    ASSERT_TRUE(std::filesystem::exists(journal.file()));
    ASSERT_TRUE(journal.save({}, nullptr));
    EXPECT_FALSE(std::filesystem::exists(journal.file()));
    EXPECT_TRUE(journal.save({}, nullptr));  // already gone is fine
}

TEST(HelperFanJournal, DamagedLinesAreSkippedAndReported) {
    FakeSysfs dir;
    dir.write("fan-journal", std::string(FanJournal::kHeader) + "\n" + kFan1 +
                                 "\t2\t90\n"
                                 "garbage\n" +
                                 kFan2 + "\tfive\t60\n" + kFan2 +
                                 "\t5\t60\textra\n"
                                 "\t2\t90\n" +
                                 kFan2 + "\t5\t999\n" + kFan3 + "\t1\t77\n");
    const FanJournal::Loaded loaded = FanJournal(dir.path("fan-journal")).load();
    EXPECT_EQ(loaded.entries, (std::vector<JournalEntry>{{kFan1, 2, 90}, {kFan3, 1, 77}}));
    ASSERT_EQ(loaded.problems.size(), 5u);
    EXPECT_EQ(loaded.problems[0], "line 3 is damaged");
}

TEST(HelperFanJournal, IdentityThatWouldBreakTheFormatIsRefused) {
    FakeSysfs dir;
    FanJournal journal(dir.path("fan-journal"));
    std::string error;
    EXPECT_FALSE(journal.save({{"bad\tname", 2, 90}}, &error));
    EXPECT_NE(error.find("cannot be journaled"), std::string::npos) << error;
    EXPECT_FALSE(std::filesystem::exists(journal.file()));
}

TEST(HelperFanJournal, UnwritableDirectoryIsAnError) {
    FakeSysfs dir;
    FanJournal journal(dir.path("missing-dir/fan-journal"));
    std::string error;
    EXPECT_FALSE(journal.save({{kFan1, 2, 90}}, &error));
    EXPECT_NE(error.find("cannot create"), std::string::npos) << error;
}

// ----- Fan holds, through hwmon fans --------------------------------------------------------

class HelperFanArbiterTest : public ::testing::Test {
protected:
    void SetUp() override { buildHelperBoard(sys); }

    // A fresh owner with each, as a restarted helper has.
    std::unique_ptr<HwmonFans> makeArbiter() {
        owners.push_back(std::make_unique<FanOwner>(
            FanJournal(journalPath()), [this](const std::string& line) { log.push_back(line); }));
        return std::make_unique<HwmonFans>(std::make_shared<HwmonFanService>(sys.root().string()),
                                           *owners.back());
    }
    std::filesystem::path journalPath() const { return runtime.path("fan-journal"); }
    HwmonFan fan(const std::string& identity) const {
        for (const HwmonFan& candidate : HwmonFanService(sys.root().string()).discover()) {
            if (candidate.identity == identity) return candidate;
        }
        ADD_FAILURE() << "no fan " << identity;
        return {};
    }
    std::string file(const char* name) const { return sys.read(chipFile(name)).value_or(""); }

    FakeSysfs sys;
    FakeSysfs runtime;
    std::vector<std::string> log;
    std::vector<std::unique_ptr<FanOwner>> owners;  // outlive the fans made with them
};

TEST_F(HelperFanArbiterTest, TakingJournalsTheOriginalModeBeforeWriting) {
    auto arbiter = makeArbiter();
    ASSERT_TRUE(arbiter->take(7, fan(kFan2), 120).ok);
    EXPECT_EQ(file("pwm2"), "120");
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_EQ(FanJournal(journalPath()).load().entries,
              (std::vector<JournalEntry>{{kFan2, 5, 60}}));
    EXPECT_EQ(arbiter->holder(kFan2), 7u);
    EXPECT_EQ(arbiter->heldBy(7), 1u);

    // A second write by the same client keeps the first original.
    ASSERT_TRUE(arbiter->take(7, fan(kFan2), 200).ok);
    EXPECT_EQ(FanJournal(journalPath()).load().entries,
              (std::vector<JournalEntry>{{kFan2, 5, 60}}));

    ASSERT_TRUE(arbiter->release(7, kFan2).ok);
    EXPECT_EQ(file("pwm2_enable"), "5");
    EXPECT_FALSE(arbiter->holder(kFan2).has_value());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HelperFanArbiterTest, AHeldFanWhoseModeIsChangedFromOutsideIsNotFoughtFor) {
    auto arbiter = makeArbiter();
    ASSERT_TRUE(arbiter->take(7, fan(kFan1), 120).ok);
    sys.write(chipFile("pwm1_enable"), "2\n");  // the firmware takes it back
    const ArbiterOutcome outcome = arbiter->take(7, fan(kFan1), 200);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.code, codes::takenBack);
    EXPECT_NE(outcome.message.find("switched out of manual mode from outside"), std::string::npos)
        << outcome.message;
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_EQ(file("pwm1"), "120");
    EXPECT_FALSE(arbiter->holder(kFan1).has_value());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
    // A later take is a fresh one, with the firmware's mode as the original.
    ASSERT_TRUE(arbiter->take(7, fan(kFan1), 200).ok);
    EXPECT_EQ(file("pwm1_enable"), "1");
    ASSERT_TRUE(arbiter->release(7, kFan1).ok);
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperFanArbiterTest, NoJournalNoTake) {
    std::filesystem::create_directory(journalPath().string() + ".new");  // blocks the rewrite
    auto arbiter = makeArbiter();
    const ArbiterOutcome outcome = arbiter->take(1, fan(kFan1), 200);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.code, codes::io);
    EXPECT_NE(outcome.message.find("cannot journal"), std::string::npos) << outcome.message;
    EXPECT_EQ(file("pwm1"), "90");
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_FALSE(arbiter->holder(kFan1).has_value());
}

TEST_F(HelperFanArbiterTest, FailedWriteLeavesNothingHeldOrJournaled) {
    std::filesystem::remove(sys.path(chipFile("pwm1")));
    sys.mkdir(chipFile("pwm1"));  // exists, so the fan is controllable, but cannot be written
    auto arbiter = makeArbiter();
    const ArbiterOutcome outcome = arbiter->take(1, fan(kFan1), 200);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.code, codes::io);
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_FALSE(arbiter->holder(kFan1).has_value());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HelperFanArbiterTest, OneClientCannotTakeOrReleaseAnothersFan) {
    auto arbiter = makeArbiter();
    ASSERT_TRUE(arbiter->take(1, fan(kFan1), 100).ok);
    const ArbiterOutcome take = arbiter->take(2, fan(kFan1), 250);
    EXPECT_FALSE(take.ok);
    EXPECT_EQ(take.code, codes::heldByAnother);
    EXPECT_EQ(file("pwm1"), "100");
    const ArbiterOutcome release = arbiter->release(2, kFan1);
    EXPECT_FALSE(release.ok);
    EXPECT_EQ(release.code, codes::heldByAnother);
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_TRUE(arbiter->release(2, kFan2).ok);  // nobody holds it: nothing to do
}

TEST_F(HelperFanArbiterTest, ReleasingAClientGivesBackOnlyItsFans) {
    auto arbiter = makeArbiter();
    ASSERT_TRUE(arbiter->take(1, fan(kFan1), 100).ok);
    ASSERT_TRUE(arbiter->take(1, fan(kFan3), 100).ok);
    ASSERT_TRUE(arbiter->take(2, fan(kFan2), 100).ok);
    EXPECT_EQ(arbiter->releaseClient(1, "connection closed"), 2u);
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_EQ(file("pwm3"), "77");
    EXPECT_EQ(file("pwm3_enable"), "1");
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_EQ(FanJournal(journalPath()).load().entries,
              (std::vector<JournalEntry>{{kFan2, 5, 60}}));
    EXPECT_EQ(arbiter->releaseEverything("stopping"), 1u);
    EXPECT_EQ(file("pwm2_enable"), "5");
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HelperFanArbiterTest, JournalOfAnEarlierRunIsReplayedAtStart) {
    {
        auto crashed = makeArbiter();
        ASSERT_TRUE(crashed->take(1, fan(kFan2), 10).ok);
        ASSERT_TRUE(crashed->take(1, fan(kFan3), 10).ok);
        // Destroyed without releasing: what a SIGKILL leaves behind.
    }
    EXPECT_EQ(file("pwm2_enable"), "1");
    auto restarted = makeArbiter();
    restarted->restoreFromJournal();
    EXPECT_EQ(file("pwm2_enable"), "5");
    EXPECT_EQ(file("pwm3"), "77");
    EXPECT_EQ(file("pwm3_enable"), "1");
    EXPECT_FALSE(restarted->hasPending());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HelperFanArbiterTest, JournaledFanThatIsGoneIsDropped) {
    FanJournal(journalPath())
        .save({{"nct6775@/sys/devices/platform/nct6775.656#fan4", 5, 10}}, nullptr);
    auto arbiter = makeArbiter();
    arbiter->restoreFromJournal();
    EXPECT_FALSE(arbiter->hasPending());
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
    EXPECT_NE(std::find_if(log.begin(), log.end(),
                           [](const std::string& line) {
                               return line.find("no longer exists") != std::string::npos;
                           }),
              log.end());
}

TEST_F(HelperFanArbiterTest, RestoreThatFailsIsKeptAndRetried) {
    FanJournal(journalPath()).save({{kFan1, 2, 90}}, nullptr);
    std::filesystem::remove(sys.path(chipFile("pwm1_enable")));
    sys.mkdir(chipFile("pwm1_enable"));  // not writable for now
    auto arbiter = makeArbiter();
    arbiter->restoreFromJournal();
    EXPECT_TRUE(arbiter->hasPending());
    EXPECT_EQ(FanJournal(journalPath()).load().entries,
              (std::vector<JournalEntry>{{kFan1, 2, 90}}));

    std::filesystem::remove(sys.path(chipFile("pwm1_enable")));
    sys.write(chipFile("pwm1_enable"), "1\n");
    // Taking it meanwhile keeps the earlier run's original, not today's manual mode.
    ASSERT_TRUE(arbiter->take(3, fan(kFan1), 10).ok);
    EXPECT_FALSE(arbiter->hasPending());
    EXPECT_EQ(FanJournal(journalPath()).load().entries,
              (std::vector<JournalEntry>{{kFan1, 2, 90}}));
    ASSERT_TRUE(arbiter->release(3, kFan1).ok);
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperFanArbiterTest, PendingRestoreSucceedsOnRetry) {
    FanJournal(journalPath()).save({{kFan2, 5, 60}}, nullptr);
    std::filesystem::remove(sys.path(chipFile("pwm2_enable")));
    sys.mkdir(chipFile("pwm2_enable"));
    auto arbiter = makeArbiter();
    arbiter->restoreFromJournal();
    ASSERT_TRUE(arbiter->hasPending());
    std::filesystem::remove(sys.path(chipFile("pwm2_enable")));
    sys.write(chipFile("pwm2_enable"), "1\n");
    arbiter->retryPending();
    EXPECT_FALSE(arbiter->hasPending());
    EXPECT_EQ(file("pwm2_enable"), "5");
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

TEST_F(HelperFanArbiterTest, FanWithoutPWMIsNotTaken) {
    auto arbiter = makeArbiter();
    const ArbiterOutcome outcome = arbiter->take(1, fan(test_support::kAcpiFan), 10);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.code, codes::notControllable);
    EXPECT_FALSE(std::filesystem::exists(journalPath()));
}

// ----- PeerAuthorizer -------------------------------------------------------------------------

TEST(HelperPeerAuthorizer, RootAndListedUidsAreAllowed) {
    PeerAuthorizer authorizer("kelvo-no-such-group", {1234});
    EXPECT_TRUE(authorizer.decide(0, 0).allowed);
    EXPECT_TRUE(authorizer.decide(1234, 1234).allowed);
    const PeerDecision refused = authorizer.decide(4321, 4321);
    EXPECT_FALSE(refused.allowed);
    EXPECT_EQ(refused.refusal,
              "not allowed to use the helper (uid 4321 is not root or in group "
              "kelvo-no-such-group)");
}

TEST(HelperPeerAuthorizer, PrimaryGroupCountsAsMembership) {
    const group* root = ::getgrgid(0);
    ASSERT_NE(root, nullptr);
    PeerAuthorizer authorizer(root->gr_name, {});
    // Any uid whose primary gid is the allowed group's gid is a member.
    EXPECT_TRUE(authorizer.decide(4321, 0).allowed);
    EXPECT_FALSE(authorizer.decide(4321, 4321).allowed);
}

TEST(HelperPeerAuthorizer, SupplementaryGroupsComeFromTheUserDatabase) {
    const passwd* user = ::getpwuid(0);
    const group* rootGroup = ::getgrgid(0);
    ASSERT_NE(user, nullptr);
    ASSERT_NE(rootGroup, nullptr);
    // root is in its own primary group; getgrouplist reports that group even when the caller
    // passes another primary gid.
    EXPECT_TRUE(PeerAuthorizer::inGroup(0, 4321, rootGroup->gr_name));
    EXPECT_FALSE(PeerAuthorizer::inGroup(0, 4321, "kelvo-no-such-group"));
    const passwd* nobody = ::getpwnam("nobody");
    if (nobody) {
        EXPECT_FALSE(PeerAuthorizer::inGroup(nobody->pw_uid, nobody->pw_gid, rootGroup->gr_name));
    }
    EXPECT_FALSE(PeerAuthorizer::inGroup(4321, 4321, ""));
}

// ----- PowercapCounter ------------------------------------------------------------------------

TEST(HelperPowercapCounter, OnlyEnergyCountersUnderIntelRaplZonesAreAllowed) {
    for (const char* path : {"/sys/class/powercap/intel-rapl:0/energy_uj",
                             "/sys/class/powercap/intel-rapl:0/intel-rapl:0:1/energy_uj",
                             "/sys/class/powercap/intel-rapl-mmio:0/energy_uj"}) {
        EXPECT_TRUE(PowercapCounter::allowedPath(path)) << path;
    }
    for (const char* path :
         {"", "/", "/sys/class/powercap/energy_uj", "/sys/class/powercap/intel-rapl:0/name",
          "/sys/class/powercap/intel-rapl:0/max_energy_range_uj",
          "/sys/class/powercap/intel-rapl:0//energy_uj",
          "/sys/class/powercap/intel-rapl:0/../intel-rapl:1/energy_uj",
          "/sys/class/powercap/intel-rapl:0/./energy_uj",
          "/sys/class/powercap/amd-rapl:0/energy_uj", "/sys/class/powercap/intel-rapl:0/energy_uj/",
          "/sys/class/powercap/intel rapl/energy_uj", "sys/class/powercap/intel-rapl:0/energy_uj",
          "/sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/energy_uj", "/etc/shadow"}) {
        EXPECT_FALSE(PowercapCounter::allowedPath(path)) << path;
    }
}

TEST(HelperPowercapCounter, ReadsThroughTheClassLinkAndRefusesEscapes) {
    FakeSysfs sys;
    buildHelperBoard(sys);
    PowercapCounter counters(sys.root().string());
    const auto value = counters.read("/sys/class/powercap/intel-rapl:0/energy_uj");
    ASSERT_TRUE(value.ok()) << value.error;
    EXPECT_EQ(*value.value, test_support::kPackageEnergy);
    const auto escaped = counters.read("/sys/class/powercap/intel-rapl:9/energy_uj");
    EXPECT_FALSE(escaped.ok());
    EXPECT_NE(escaped.error.find("leads outside"), std::string::npos) << escaped.error;

    sys.write("sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/energy_uj", "lots\n");
    EXPECT_FALSE(counters.read("/sys/class/powercap/intel-rapl:0/energy_uj").ok());
}

// ----- HelperOptions --------------------------------------------------------------------------

TEST(HelperOptionsParsing, DefaultsAndEveryOption) {
    const auto defaults = HelperOptions::parse({});
    ASSERT_TRUE(defaults.ok);
    EXPECT_EQ(defaults.options.sysfsRoot, "/");
    EXPECT_EQ(defaults.options.runtimeDir, "/run/kelvo");
    EXPECT_EQ(defaults.options.socketPath(), "/run/kelvo/helper.sock");
    EXPECT_EQ(defaults.options.allowedGroup, "kelvo");
    EXPECT_TRUE(defaults.options.allowedUids.empty());

    const auto parsed = HelperOptions::parse({"--sysfs-root", "/tmp/fake", "--runtime-dir=/tmp/run",
                                              "--allowed-group", "fans", "--allow-uid", "1000",
                                              "--allow-uid=1001"});
    ASSERT_TRUE(parsed.ok) << parsed.error;
    EXPECT_EQ(parsed.options.sysfsRoot, "/tmp/fake");
    EXPECT_EQ(parsed.options.runtimeDir, "/tmp/run");
    EXPECT_EQ(parsed.options.journalPath(), "/tmp/run/fan-journal");
    EXPECT_EQ(parsed.options.allowedGroup, "fans");
    EXPECT_EQ(parsed.options.allowedUids, (std::vector<uid_t>{1000, 1001}));
}

TEST(HelperOptionsParsing, BadCommandLinesAreErrors) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--frobnicate"}, "unknown option --frobnicate"},
        {{"--sysfs-root"}, "--sysfs-root needs a value"},
        {{"--runtime-dir="}, "--runtime-dir needs a non-empty value"},
        {{"--allow-uid", "alice"}, "needs a numeric uid"},
        {{"--allow-uid", "-1"}, "needs a numeric uid"},
        {{"--allow-uid", "4294967295"}, "needs a numeric uid"},
    };
    for (const auto& [arguments, expected] : cases) {
        const auto parsed = HelperOptions::parse(arguments);
        EXPECT_FALSE(parsed.ok) << arguments[0];
        EXPECT_NE(parsed.error.find(expected), std::string::npos) << parsed.error;
    }
    EXPECT_TRUE(HelperOptions::parse({"--help"}).options.showHelp);
    EXPECT_TRUE(HelperOptions::parse({"--version"}).options.showVersion);
}

}  // namespace
}  // namespace kelvo::helperd
