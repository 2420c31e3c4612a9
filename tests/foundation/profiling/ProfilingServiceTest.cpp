#include "foundation/profiling/ProfilingService.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

namespace kelvo {
namespace {

namespace fs = std::filesystem;

class ProfilingServiceTest : public ::testing::Test {
protected:
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string dbPath() const { return (dir_ / "kelvo.sqlite").string(); }

    fs::path dir_ = fs::temp_directory_path() / ("kelvo-profiling-" + Uuid::generate().toString());
    std::shared_ptr<EventRing> ring_ = std::make_shared<EventRing>(32, 300);
};

TEST_F(ProfilingServiceTest, NoAdaptiveModelRestoresNothingWithoutError) {
    ProfilingService service(ring_, dbPath());
    auto restored = service.restoreAdaptiveModel();
    EXPECT_FALSE(restored.model);
    EXPECT_FALSE(restored.error);
    EXPECT_FALSE(service.activeLearnedModel());
}

TEST_F(ProfilingServiceTest, ActiveAdaptiveModelSavedByTheLoopIsRestored) {
    SQLiteStore loopStore(dbPath());
    ProfilingService service(ring_, dbPath());

    AdaptiveLeadModel model;
    model.createdAt = 1234;
    model.utilizationThresholdPct = 62;
    model.averageLeadMs = 2100;
    model.misses = 1;
    auto id = loopStore.saveAdaptiveLeadModel(model, true);
    ASSERT_TRUE(id);
    model.id = *id;

    auto restored = service.restoreAdaptiveModel();
    EXPECT_FALSE(restored.error);
    EXPECT_EQ(restored.model, model);
}

TEST_F(ProfilingServiceTest, ActiveLearnedModelIsReadFromTheSharedFile) {
    SQLiteStore loopStore(dbPath());
    ProfilingService service(ring_, dbPath());
    LearnedModel model{0, "kelvo", 50, 4400, 1950, 90};
    auto id = loopStore.saveLearnedModel(model, true);
    ASSERT_TRUE(id);
    model.id = *id;
    EXPECT_EQ(service.activeLearnedModel(), model);
}

TEST_F(ProfilingServiceTest, UnreadableModelTableIsReportedAsError) {
    ProfilingService service(ring_, dbPath());
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "DROP TABLE adaptive_models", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);

    auto restored = service.restoreAdaptiveModel();
    EXPECT_FALSE(restored.model);
    ASSERT_TRUE(restored.error);
    EXPECT_NE(restored.error->find("adaptive_models"), std::string::npos);
}

TEST_F(ProfilingServiceTest, StoreProblemIsReportedOnceInTheRing) {
    fs::create_directories(dir_);
    const auto blocker = dir_ / "blocker";
    std::ofstream(blocker) << "not a folder";
    const auto path = (blocker / "kelvo.sqlite").string();

    ProfilingService first(ring_, path);
    EXPECT_FALSE(first.store().isPersistent());
    auto events = ring_->recent(32);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].isFailure);
    EXPECT_NE(events[0].message.find("could not be opened"), std::string::npos);

    // A second connection meeting the same problem does not repeat the alert.
    ProfilingService second(ring_, path);
    EXPECT_EQ(ring_->recent(32).size(), 1u);
    // A store without a persistent file is not a read error.
    EXPECT_FALSE(second.restoreAdaptiveModel().error);
}

}  // namespace
}  // namespace kelvo
