#include <gtest/gtest.h>

#include <cmath>

#include "foundation/core/FanCoupling.h"

using namespace kelvo;

namespace {
// `n` probes around `x` (alternately `spread` above and below), each of weight 1, read at the
// third lag; the others read nothing.
DieEvidence answers(double x, int n, double spread = 0.05) {
    DieEvidence die;
    for (int i = 0; i < n; ++i) die.byLag[2].add(x * (1 + (i % 2 ? spread : -spread)), 1);
    return die;
}
}  // namespace

TEST(FanCoupling, AWeightedMeanAndItsStandardError) {
    DieResponse r;
    EXPECT_FALSE(r.mean());
    r.add(2, 1);
    EXPECT_DOUBLE_EQ(*r.mean(), 2);
    EXPECT_FALSE(r.standardError());  // one answer has no spread
    r.add(5, 2);
    EXPECT_DOUBLE_EQ(*r.mean(), 4);
    // Weighted variance 2 (mean of squares 18, less 16), over one degree of freedom.
    EXPECT_NEAR(*r.standardError(), std::sqrt(2.0), 1e-12);
    // Nothing that is not a number, and no answer without weight.
    r.add(std::nan(""), 1);
    r.add(1, 0);
    EXPECT_EQ(r.count, 2);
}

TEST(FanCoupling, SharesOfEachDieAddUpAndNameWhatTheFanCoolsMostly) {
    std::map<std::string, FanCouplingEvidence> evidence;
    evidence["cooler"].cpu = answers(9, 6);
    evidence["cooler"].gpu = answers(0.5, 6);
    evidence["card"].cpu = answers(0.5, 6);
    evidence["card"].gpu = answers(5, 6);
    evidence["case"].cpu = answers(2.5, 6);
    evidence["case"].gpu = answers(3.5, 6);
    const auto c = fanCouplings(evidence, {"cooler", "card", "case"});
    ASSERT_EQ(c.size(), 3u);
    EXPECT_NEAR(*c[0].cpuShare, 9 / 12.0, 1e-9);
    EXPECT_NEAR(*c[1].gpuShare, 5 / 9.0, 1e-9);
    EXPECT_NEAR(*c[0].cpuShare + *c[1].cpuShare + *c[2].cpuShare, 1, 1e-12);
    EXPECT_NEAR(*c[2].gpuPerRPM, 3.5 / 5, 1e-9);  // on the scale of the GPU's strongest fan
    EXPECT_EQ(coolsMostly(c[0]), "CPU");
    EXPECT_EQ(coolsMostly(c[1]), "GPU");
    EXPECT_EQ(coolsMostly(c[2]), "CPU and GPU");
    EXPECT_EQ(c[0].probes, 6);
    EXPECT_TRUE(couplingKnown(c));
}

TEST(FanCoupling, UnknownUntilEveryFanHasAnsweredAndSureOnlyWhenTheAnswersAgree) {
    std::map<std::string, FanCouplingEvidence> evidence;
    evidence["a"].cpu = answers(4, 6);
    // Fan b has not answered for the CPU: no CPU share for anyone.
    auto c = fanCouplings(evidence, {"a", "b"});
    EXPECT_FALSE(c[0].cpuShare);
    EXPECT_EQ(coolsMostly(c[0]), "");
    EXPECT_FALSE(couplingKnown(c));

    // Two answers that agree are too few; five that scatter widely are not sure either.
    evidence["b"].cpu = answers(4, 2);
    c = fanCouplings(evidence, {"a", "b"});
    ASSERT_TRUE(c[1].cpuShare);
    EXPECT_LT(c[1].confidence, 0.8);
    evidence["b"].cpu = answers(4, 6, 0.9);
    c = fanCouplings(evidence, {"a", "b"});
    EXPECT_LT(c[1].confidence, 0.2);
    EXPECT_FALSE(couplingKnown(c));
    evidence["b"].cpu = answers(4, 6, 0.05);
    c = fanCouplings(evidence, {"a", "b"});
    EXPECT_GT(c[1].confidence, 0.8);
    EXPECT_TRUE(couplingKnown(c));
    // One fan is nothing to share between.
    EXPECT_FALSE(couplingKnown(fanCouplings(evidence, {"a"})));
}

TEST(FanCoupling, ASharesConfidenceSaysHowWellTheShareIsKnown) {
    // Three fans that each cool the CPU alike, six answers each scattering by 30 %: each share
    // is a third, known to within about 0.05, though each fan's own answer is known only to
    // within 13 % of itself.
    std::map<std::string, FanCouplingEvidence> evidence;
    for (const char* fan : {"a", "b", "c"}) evidence[fan].cpu = answers(3, 6, 0.3);
    auto c = fanCouplings(evidence, {"a", "b", "c"});
    ASSERT_EQ(c.size(), 3u);
    for (const FanCoupling& fan : c) {
        EXPECT_NEAR(*fan.cpuShare, 1 / 3.0, 1e-9);
        EXPECT_GT(fan.confidence, 0.75) << fan.identity;
        EXPECT_LT(fan.confidence, 0.85) << fan.identity;
    }
    const double third = c[0].confidence;
    // As sure of a share known as well: two fans, one of which does nearly all the work, the
    // other's answers scattering by as many degrees per rpm as the thirds' did.
    evidence.clear();
    evidence["strong"].cpu = answers(8.5, 6, 0.05);
    evidence["weak"].cpu = answers(0.5, 6, 0.3 * 3 / 0.5);
    c = fanCouplings(evidence, {"strong", "weak"});
    EXPECT_NEAR(*c[1].cpuShare, 0.5 / 9, 1e-9);
    EXPECT_NEAR(c[1].confidence, third, 1e-9);
    // Answers whose mean is unsure by 40 % of all the fans' cooling are no use at all.
    evidence["weak"].cpu = answers(0.5, 6, 0.9 * 9 / 0.5);
    EXPECT_DOUBLE_EQ(fanCouplings(evidence, {"strong", "weak"})[1].confidence, 0);
}

TEST(FanCoupling, WhatAFanCoolsIsNamedToTheUserOnlyOnceItIsAtAllSure) {
    FanCoupling c;
    c.cpuShare = 0.8;
    c.gpuShare = 0.1;
    c.confidence = 0;
    EXPECT_EQ(coolsMostly(c), "CPU");  // what the learner weighs its rechecks by
    EXPECT_EQ(coolsMostlyKnown(c), "");
    c.confidence = 0.01;
    EXPECT_EQ(coolsMostlyKnown(c), "CPU");
    c.cpuShare.reset();
    c.gpuShare.reset();
    EXPECT_EQ(coolsMostlyKnown(c), "");
}

TEST(FanCoupling, AFanThatSeemsToWarmADieGetsNoShareOfIt) {
    std::map<std::string, FanCouplingEvidence> evidence;
    evidence["a"].cpu = answers(3, 4);
    evidence["b"].cpu = answers(-0.2, 4);
    const auto c = fanCouplings(evidence, {"a", "b"});
    EXPECT_DOUBLE_EQ(*c[0].cpuShare, 1);
    EXPECT_DOUBLE_EQ(*c[1].cpuShare, 0);
}

TEST(FanCoupling, EachDieIsReadAtTheLagThatExplainedItsProbesBest) {
    std::map<std::string, FanCouplingEvidence> evidence;
    // At lag 1 the fans look alike; at lag 4 the first cools the CPU three times as much. Lag 4
    // left less of the probes unexplained, summed over both fans.
    for (const char* fan : {"a", "b"}) {
        for (int i = 0; i < 4; ++i) evidence[fan].cpu.byLag[1].add(2, 1);
        evidence[fan].cpu.misfit[1] = 0.5;
        evidence[fan].cpu.misfit[4] = 0.2;
    }
    for (int i = 0; i < 4; ++i) {
        evidence["a"].cpu.byLag[4].add(3, 1);
        evidence["b"].cpu.byLag[4].add(1, 1);
    }
    auto c = fanCouplings(evidence, {"a", "b"});
    EXPECT_DOUBLE_EQ(*c[0].cpuShare, 0.75);
    // Lag 4 even better, but one fan has no answer there: the best lag both have answered at.
    evidence["a"].cpu.misfit[5] = 0;
    evidence["a"].cpu.byLag[5].add(9, 1);
    c = fanCouplings(evidence, {"a", "b"});
    EXPECT_DOUBLE_EQ(*c[0].cpuShare, 0.75);
}

TEST(FanCoupling, EvidenceReadsBackExactlyAndNothingElseReads) {
    FanCouplingEvidence e;
    e.cpu.byLag[0].add(1.0 / 3, 0.1);
    e.cpu.byLag[0].add(-2e-7, 12.5);
    e.cpu.misfit[0] = 0.3;
    e.gpu.byLag[5].add(4e-5, 1e9);
    const std::string text = encodeCouplingEvidence(e);
    EXPECT_EQ(decodeCouplingEvidence(text), e);
    EXPECT_FALSE(decodeCouplingEvidence(""));
    EXPECT_FALSE(decodeCouplingEvidence(text + " 1"));                      // one too many
    EXPECT_FALSE(decodeCouplingEvidence(text.substr(0, text.rfind(' '))));  // one too few
    EXPECT_FALSE(decodeCouplingEvidence(text + " "));
    EXPECT_FALSE(decodeCouplingEvidence(" " + text));
    std::string negativeWeight = text;
    negativeWeight.replace(negativeWeight.find(' ') + 1, 0, "-");  // the first weight
    EXPECT_FALSE(decodeCouplingEvidence(negativeWeight));
    std::string notANumber = text;
    notANumber.replace(0, notANumber.find(' '), "nan");
    EXPECT_FALSE(decodeCouplingEvidence(notANumber));
    std::string halfCount = text;
    // The fourth number is the first count (2): a fraction of a probe is no count.
    std::size_t at = 0;
    for (int i = 0; i < 3; ++i) at = halfCount.find(' ', at) + 1;
    halfCount.replace(at, halfCount.find(' ', at) - at, "2.5");
    EXPECT_FALSE(decodeCouplingEvidence(halfCount));
}
