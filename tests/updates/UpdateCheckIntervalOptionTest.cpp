#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include "updates/UpdateCheckIntervalOption.h"

using kelvo::UpdateCheckIntervalOption;
namespace Options = kelvo::UpdateCheckIntervalOptions;

TEST(UpdateCheckIntervalOption, CasesInOrderWithSecondsAndLabels) {
    ASSERT_EQ(kelvo::kAllUpdateCheckIntervalOptions.size(), 4u);
    const double seconds[] = {3600, 86400, 604800, 2629800};
    const char* labels[] = {"Hourly", "Daily", "Weekly", "Monthly"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(kelvo::rawValue(kelvo::kAllUpdateCheckIntervalOptions[i]), seconds[i]);
        EXPECT_EQ(kelvo::label(kelvo::kAllUpdateCheckIntervalOptions[i]),
                  QString::fromLatin1(labels[i]));
    }
}

TEST(UpdateCheckIntervalOption, OnlyTheExactIntervalsNameAnOption) {
    EXPECT_EQ(kelvo::updateCheckIntervalOptionFromRaw(604800), UpdateCheckIntervalOption::weekly);
    EXPECT_FALSE(kelvo::updateCheckIntervalOptionFromRaw(604801));
    EXPECT_FALSE(kelvo::updateCheckIntervalOptionFromRaw(0));
}

TEST(UpdateCheckIntervalOption, TwelveHoursSelectsHourly) {
    EXPECT_EQ(Options::closest(43200), UpdateCheckIntervalOption::hourly);
}

TEST(UpdateCheckIntervalOption, TwoMillionSecondsSelectsMonthly) {
    EXPECT_EQ(Options::closest(2000000), UpdateCheckIntervalOption::monthly);
}

TEST(UpdateCheckIntervalOption, HalfwayBetweenHourlyAndDailySelectsHourly) {
    EXPECT_EQ(Options::closest(45000), UpdateCheckIntervalOption::hourly);
    EXPECT_EQ(Options::closest(45001), UpdateCheckIntervalOption::daily);
}

TEST(UpdateCheckIntervalOption, ExactValuesSelectThemselves) {
    for (auto option : kelvo::kAllUpdateCheckIntervalOptions)
        EXPECT_EQ(Options::closest(kelvo::rawValue(option)), option);
}
