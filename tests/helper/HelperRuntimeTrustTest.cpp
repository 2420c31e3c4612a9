// The runtime directory and the fan journal against another user: a directory others can write
// keeps the helper from starting, and files planted in it (links, a journal the helper did not
// write) are never followed or acted on. Another user is simulated by group and other write
// bits, and, when the tests run as root, by files handed to nobody.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
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
using test_support::readWholeFile;
using test_support::waitUntil;

constexpr uid_t kNobody = 65534;

void writeFile(const std::filesystem::path& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::trunc) << text;
    ::chmod(path.c_str(), mode);
}

class HelperRuntimeTrustTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(sys);
        base = test_support::makeTempDir("kelvo-helper-trust");
        runtime = base / "run";
        std::filesystem::create_directory(runtime);
        ::chmod(runtime.c_str(), 0755);
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(base, ec);
    }
    std::string file(const char* name) const {
        return sys.read(std::string(kChip) + name).value_or("");
    }
    // Starts the helper on `dir`; true when it serves.
    bool startOn(const std::filesystem::path& dir) {
        daemon = std::make_unique<HelperDaemon>(sys.root().string(), dir);
        return daemon->start();
    }
    // The helper on `dir` refuses to start: it exits without a socket and its log says why.
    void expectRefusedOn(const std::filesystem::path& dir, const std::string& why) {
        // start() is false once the process has ended without serving.
        ASSERT_FALSE(startOn(dir)) << daemon->log();
        EXPECT_NE(daemon->log().find("is not the helper's own"), std::string::npos)
            << daemon->log();
        EXPECT_NE(daemon->log().find(why), std::string::npos) << daemon->log();
        EXPECT_FALSE(std::filesystem::exists(dir / "helper.sock"));
    }
    // A journal as an earlier helper would have left it: fan1 was manual at duty 0.
    static std::string hostileJournal() {
        return std::string("# kelvo-helperd fan journal 1\n") + kFan1 + "\t1\t0\n";
    }

    FakeSysfs sys;
    std::filesystem::path base;
    std::filesystem::path runtime;
    std::unique_ptr<HelperDaemon> daemon;
};

TEST_F(HelperRuntimeTrustTest, ARuntimeDirectoryOthersCanWriteKeepsTheHelperFromStarting) {
    ::chmod(runtime.c_str(), 0777);
    expectRefusedOn(runtime, "writable by group or others (mode 0777)");
    EXPECT_EQ(file("pwm1_enable"), "2");
}

TEST_F(HelperRuntimeTrustTest, ADirectoryAboveTheRuntimeDirectoryThatOthersCanWriteIsRefused) {
    ::chmod(base.c_str(), 0775);
    expectRefusedOn(runtime, base.string() + " is writable by group or others");
}

TEST_F(HelperRuntimeTrustTest, ARuntimeDirectoryThatIsALinkIsRefused) {
    const auto link = base / "run-link";
    std::filesystem::create_directory_symlink(runtime, link);
    expectRefusedOn(link, "is a link");
}

TEST_F(HelperRuntimeTrustTest, ARuntimeDirectoryOfAnotherUserIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "handing the directory to another user needs root";
    ASSERT_EQ(::chown(runtime.c_str(), kNobody, kNobody), 0);
    expectRefusedOn(runtime, "owned by uid 65534");
}

TEST_F(HelperRuntimeTrustTest, ARuntimeDirectoryTheHelperMakesIsItsOwnWhateverTheUmask) {
    const auto fresh = base / "fresh" / "run";
    const mode_t previous = ::umask(002);  // inherited by the helper
    const bool started = startOn(fresh);
    ::umask(previous);
    ASSERT_TRUE(started) << daemon->log();
    struct stat info {};
    ASSERT_EQ(::stat(fresh.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
}

TEST_F(HelperRuntimeTrustTest, APlantedTemporaryJournalLinkDoesNotMakeTheHelperOverwriteAFile) {
    // A file only its owner may change, and a link to it where the helper writes its journal.
    const auto precious = base / "precious";
    writeFile(precious, "keep me\n", 0644);
    std::filesystem::create_symlink(precious, runtime / "fan-journal.new");
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::targetPWM(kFan1, 120)).ok()) << daemon->log();

    EXPECT_EQ(readWholeFile(precious), "keep me\n");
    struct stat info {};
    ASSERT_EQ(::lstat(daemon->journalPath().c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
    EXPECT_NE(readWholeFile(daemon->journalPath()).find(kFan1), std::string::npos);
    EXPECT_FALSE(std::filesystem::is_symlink(runtime / "fan-journal.new"));
}

TEST_F(HelperRuntimeTrustTest, AJournalOthersCanWriteIsNeverActedOn) {
    writeFile(runtime / "fan-journal", hostileJournal(), 0666);
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    HelperClient client(daemon->socketPath());
    // Answering means the start, journal included, is over.
    ASSERT_TRUE(client.call(hp::Request::of(hp::Op::version)).ok());
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_EQ(file("pwm1"), "90");
    EXPECT_NE(daemon->log().find("writable by group or others; not trusted"), std::string::npos)
        << daemon->log();
    EXPECT_TRUE(std::filesystem::exists(runtime / "fan-journal.untrusted"));
    EXPECT_FALSE(std::filesystem::exists(runtime / "fan-journal"));
}

TEST_F(HelperRuntimeTrustTest, AJournalOfAnotherUserIsNeverActedOn) {
    if (::geteuid() != 0) GTEST_SKIP() << "handing the journal to another user needs root";
    writeFile(runtime / "fan-journal", hostileJournal(), 0600);
    ASSERT_EQ(::chown((runtime / "fan-journal").c_str(), kNobody, kNobody), 0);
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::of(hp::Op::version)).ok());
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_EQ(file("pwm1"), "90");
    EXPECT_NE(daemon->log().find("owned by uid 65534"), std::string::npos) << daemon->log();
}

TEST_F(HelperRuntimeTrustTest, AJournalThatIsALinkIsNotFollowed) {
    const auto elsewhere = base / "elsewhere";
    writeFile(elsewhere, hostileJournal(), 0600);
    std::filesystem::create_symlink(elsewhere, runtime / "fan-journal");
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    HelperClient client(daemon->socketPath());
    ASSERT_TRUE(client.call(hp::Request::of(hp::Op::version)).ok());
    EXPECT_EQ(file("pwm1_enable"), "2");
    EXPECT_EQ(file("pwm1"), "90");
    EXPECT_NE(daemon->log().find("is a link; not followed"), std::string::npos) << daemon->log();
    EXPECT_EQ(readWholeFile(elsewhere), hostileJournal());
}

TEST_F(HelperRuntimeTrustTest, TheHelpersOwnJournalIsStillUsedAfterAKill) {
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    auto client = std::make_unique<HelperClient>(daemon->socketPath());
    ASSERT_TRUE(client->call(hp::Request::targetPWM(kFan1, 33)).ok());
    ASSERT_EQ(file("pwm1_enable"), "1");
    daemon.reset();  // SIGKILL while the fan is held: the journal stays behind
    client.reset();
    ASSERT_EQ(file("pwm1_enable"), "1");
    ASSERT_TRUE(startOn(runtime)) << daemon->log();
    EXPECT_TRUE(waitUntil([&] { return file("pwm1_enable") == "2"; }, 5000ms)) << daemon->log();
}

}  // namespace
}  // namespace kelvo
