// A whole capture on the simulated machine: the loop records samples, the machine overheats
// into serious or critical thermal pressure and a clock droop, the run is stopped, exported,
// packaged and cleared, and the bundle holds exactly the exported files.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <chrono>
#include <map>

#include "CaptureTestRig.h"
#include "tests/ZipEntries.h"

namespace kelvo::testing {
namespace {

// A machine that runs hot quickly: low limits and pressure bands, under full load.
std::shared_ptr<sim::SimulatedMachine> hotMachine() {
    sim::PlantConfig config;
    config.cpuLimitC = 60;
    config.gpuLimitC = 60;
    config.pressureFairFromC = 50;
    config.pressureSeriousFromC = 58;
    config.pressureCriticalFromC = 500;
    auto machine = std::make_shared<sim::SimulatedMachine>(config);
    machine->setLoad(1.0, 1.0);
    return machine;
}

// Virtual time twenty times faster than the wall clock, so minutes of heating take seconds.
std::function<Timestamp()> fastClock() {
    const Timestamp origin = wallClockNow();
    const auto start = std::chrono::steady_clock::now();
    return [origin, start] {
        const std::chrono::duration<double> real = std::chrono::steady_clock::now() - start;
        return origin + real.count() * 20.0;
    };
}

std::string readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return {};
    return file.readAll().toStdString();
}

TEST(CaptureEndToEndTest, AWholeCaptureOnTheSimulatedMachine) {
    RigOptions options;
    options.machine = hotMachine();
    options.loopNow = fastClock();
    options.loopConfig.tickSeconds = 0.25;
    CaptureRig rig(std::move(options));
    // The runtime's part: every snapshot goes to the coordinator on the main thread.
    QPointer<CaptureCoordinator> coordinator(rig.coordinator.get());
    rig.loop->subscribe([coordinator](const ControlSnapshot& snapshot) {
        QMetaObject::invokeMethod(
            coordinator,
            [coordinator, snapshot] {
                if (!coordinator) return;
                coordinator->evaluateProfilingThrottleSignals(snapshot);
                coordinator->updateProfilingClock(snapshot.sample.timestamp);
            },
            Qt::QueuedConnection);
    });
    rig.setBaselineModel(LearnedModel{1, "kelvo", 0, 4200, 1800, 60});
    rig.coordinator->setBetaCaptureNotes(QStringLiteral("end to end"));
    rig.loop->start();
    const auto runID = rig.startBeta();

    // However few ticks a loaded machine manages in that time, the run holds at least eight
    // samples before it is stopped.
    ASSERT_TRUE(waitFor(
        [&] {
            return !rig.events(runID, "thermal_pressure").empty() &&
                   !rig.events(runID, "freq_droop").empty() &&
                   rig.store->runSamples(runID).size() >= 8;
        },
        60000))
        << "events: " << rig.events(runID).size()
        << ", samples: " << rig.store->runSamples(runID).size();
    EXPECT_NE(rig.coordinator->profilingElapsed(), QStringLiteral("00:00"));

    auto done = rig.stopAndFinalize(true);
    ASSERT_TRUE(done);
    const QDir folder(done->exportPath);
    EXPECT_EQ(folder.entryList(QDir::Files, QDir::Name),
              (QStringList{"events.csv", "run.json", "samples.csv", "summary.svg"}));

    // run.json describes the run and agrees with the CSV files.
    const auto json =
        QJsonDocument::fromJson(QByteArray::fromStdString(readFile(folder.filePath("run.json"))))
            .object();
    EXPECT_EQ(json["run"].toObject()["id"].toInteger(), runID);
    EXPECT_EQ(json["run"].toObject()["notes"].toString(), QStringLiteral("end to end"));
    EXPECT_EQ(json["run"].toObject()["status"].toString(), QStringLiteral("completed"));
    const auto samplesCsv = readFile(folder.filePath("samples.csv"));
    const auto eventsCsv = readFile(folder.filePath("events.csv"));
    const auto sampleRows = std::count(samplesCsv.begin(), samplesCsv.end(), '\n') - 1;
    const auto eventRows = std::count(eventsCsv.begin(), eventsCsv.end(), '\n') - 1;
    const auto summary = json["summary"].toObject();
    EXPECT_EQ(summary["sampleCount"].toInteger(), sampleRows);
    EXPECT_EQ(summary["eventCount"].toInteger(), eventRows);
    EXPECT_GE(summary["eventsByKind"].toObject()["thermal_pressure"].toInteger(), 1);
    EXPECT_GE(summary["eventsByKind"].toObject()["freq_droop"].toInteger(), 1);
    EXPECT_NE(eventsCsv.find(",thermal_pressure,"), std::string::npos) << eventsCsv;
    EXPECT_NE(eventsCsv.find(",freq_droop,moderate,"), std::string::npos);

    // The plot marks every event in each of its four panels.
    const auto svg = readFile(folder.filePath("summary.svg"));
    EXPECT_EQ(svg.rfind("<svg", 0), 0u);
    std::size_t marks = 0;
    for (auto at = svg.find("class=\"event\""); at != std::string::npos;
         at = svg.find("class=\"event\"", at + 1))
        ++marks;
    EXPECT_EQ(marks, static_cast<std::size_t>(eventRows) * 4);

    // The bundle holds exactly the exported files.
    EXPECT_EQ(done->bundlePath, done->exportPath + QStringLiteral(".kelvocapture"));
    EXPECT_EQ(rig.revealed, QStringList{done->bundlePath});
    const auto bundled = kelvo::test::zipEntries(done->bundlePath.toStdString());
    const std::string prefix = folder.dirName().toStdString() + "/";
    ASSERT_EQ(bundled.size(), 4u);
    for (const char* name : {"events.csv", "run.json", "samples.csv", "summary.svg"}) {
        ASSERT_TRUE(bundled.count(prefix + name)) << name;
        EXPECT_EQ(bundled.at(prefix + name), readFile(folder.filePath(name))) << name;
    }

    // Rows cleared: every sample, every event and the run itself.
    EXPECT_EQ(rig.rowCount(runID), 0);
    EXPECT_EQ(
        rig.coordinator->profilingMessage(),
        QStringLiteral("Capture stopped. Export packaged and revealed in the file manager. Local "
                       "SQLite capture rows were cleared after export (%1 rows).")
            .arg(sampleRows + eventRows + 1));
}

}  // namespace
}  // namespace kelvo::testing
