// The targets' verdicts, on rows made by hand so that each line's outcome is known.
#include <gtest/gtest.h>

#include <sstream>

#include "ReportWriter.h"

using namespace kelvo::quality;

namespace {

QualityRow row(const std::string& controller, const std::string& trace, double meanDb,
               double overCpuS = 0, double overGpuS = 0) {
    QualityRow r;
    r.machine = "m";
    r.trace = trace;
    r.controller = controller;
    r.meanDb = meanDb;
    r.overCpuLimitS = overCpuS;
    r.overGpuLimitS = overGpuS;
    r.overLimitS = std::max(overCpuS, overGpuS);
    return r;
}

std::string lineWith(const std::string& text, const std::string& a, const std::string& b) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.find(a) != std::string::npos && line.find(b) != std::string::npos) return line;
    return {};
}

}  // namespace

TEST(ReportWriter, QuietModesAreJudgedAgainstTheFloor) {
    std::vector<QualityRow> rows = {row("foresight", "compile", 40.0),
                                    row("quiet", "compile", 40.9),
                                    row("quietHybrid", "compile", 41.2)};
    rows[1].audibleChangesPerHour = 2;
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(lineWith(out.str(), "quiet ", "vs foresight").find("MET"), std::string::npos)
        << out.str();
    const std::string hybrid = lineWith(out.str(), "quietHybrid", "vs foresight");
    EXPECT_NE(hybrid.find("MISSED; 1.2 dB above foresight"), std::string::npos) << hybrid;
    // quietHybrid louder than quiet on a sustained trace.
    EXPECT_NE(lineWith(out.str(), "quietHybrid", "vs quiet").find("MISSED"), std::string::npos);
}

TEST(ReportWriter, CrossingALimitTheFloorKeepsIsMissedWhateverTheNoise) {
    std::vector<QualityRow> rows = {row("foresight", "idle-spikes", 40.0),
                                    row("quiet", "idle-spikes", 35.0, 3, 0)};
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    EXPECT_NE(out.str().find("over the limits (CPU limit 3 s) where foresight keeps them"),
              std::string::npos)
        << out.str();
}

TEST(ReportWriter, APeerThatCrossedALimitIsNamedInsteadOfCompared) {
    std::vector<QualityRow> rows = {row("quietHybrid", "game", 45.0),
                                    row("firmware", "game", 44.0, 0, 12),
                                    row("thinkfan", "game", 44.0), row("fancontrol", "game", 45.0)};
    std::ostringstream out;
    EXPECT_FALSE(ReportWriter(rows).printTargets(out));
    const std::string text = out.str();
    EXPECT_NE(lineWith(text, "vs firmware", "crossed the GPU limit 12 s").find("MET"),
              std::string::npos)
        << text;
    EXPECT_NE(lineWith(text, "vs thinkfan", "dB").find("MISSED"), std::string::npos) << text;
    EXPECT_NE(lineWith(text, "vs fancontrol", "a tie").find("MET"), std::string::npos) << text;
}

TEST(ReportWriter, PerformanceMustLeadAThrottlingFirmwareByFivePoints) {
    QualityRow firmware = row("firmware", "render", 40);
    firmware.throttledS = 300;
    firmware.retention = 0.93;
    QualityRow performance = row("performance", "render", 50);
    performance.retention = 0.995;
    std::ostringstream met;
    EXPECT_TRUE(ReportWriter({firmware, performance}).printTargets(met)) << met.str();
    firmware.retention = 0.96;  // over 95 %: five points above it cannot be had
    std::ostringstream noLead;
    EXPECT_TRUE(ReportWriter({firmware, performance}).printTargets(noLead));
    EXPECT_NE(noLead.str().find("keeps over 95%"), std::string::npos) << noLead.str();
    firmware.retention = 0.80;
    performance.retention = 0.83;
    std::ostringstream missed;
    EXPECT_FALSE(ReportWriter({firmware, performance}).printTargets(missed));
    EXPECT_NE(missed.str().find("MISSED; under 99%; only 3.0 points above firmware"),
              std::string::npos)
        << missed.str();
}
