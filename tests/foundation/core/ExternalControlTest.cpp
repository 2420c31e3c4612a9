#include "foundation/core/ExternalControl.h"

#include <gtest/gtest.h>

namespace kelvo {
namespace {

ExternalPayload modePayload(ExternalValue value) {
    return {{ExternalControl::modeKey, value}};
}
ExternalPayload cooldownPayload(ExternalValue value) {
    return {{ExternalControl::enabledKey, value}};
}

TEST(ExternalControl, NamesMatchTheBusContract) {
    EXPECT_STREQ(ExternalControl::setModeNotificationName, "SetMode");
    EXPECT_STREQ(ExternalControl::setCooldownNotificationName, "SetCooldown");
    EXPECT_STREQ(ExternalControl::interfaceName, "org.kelvo.ExternalControl");
    EXPECT_STREQ(ExternalControl::objectPath, "/org/kelvo/ExternalControl");
    EXPECT_STREQ(ExternalControl::modeKey, "mode");
    EXPECT_STREQ(ExternalControl::enabledKey, "enabled");
    EXPECT_EQ(ExternalControl::maxStringLength, 64u);
}

TEST(ExternalControl, EveryModeRawValueIsAccepted) {
    for (auto mode : kAllControlModes)
        EXPECT_EQ(ExternalControl::requestedMode(modePayload(std::string(rawValue(mode)))), mode);
}

TEST(ExternalControl, ModeWithWrongTypeIsRejected) {
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload(true)));
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload(std::int64_t{1})));
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload(1.0)));
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload(std::monostate{})));
}

TEST(ExternalControl, MissingModeKeyIsRejected) {
    EXPECT_FALSE(ExternalControl::requestedMode({}));
    EXPECT_FALSE(ExternalControl::requestedMode({{"Mode", std::string("quiet")}}));
    EXPECT_FALSE(ExternalControl::requestedMode(cooldownPayload(std::string("quiet"))));
}

TEST(ExternalControl, HugeModeStringIsRejected) {
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload(std::string(100 * 1024, 'q'))));
    // A known word padded past the limit is still refused.
    EXPECT_FALSE(ExternalControl::requestedMode(modePayload("quiet" + std::string(60, ' '))));
}

TEST(ExternalControl, UnknownOrEmptyModeWordIsRejected) {
    for (const char* word : {"", "Quiet", "QUIET", "loud", "quiet ", " quiet", "System"})
        EXPECT_FALSE(ExternalControl::requestedMode(modePayload(std::string(word)))) << word;
}

TEST(ExternalControl, CooldownAcceptsBoolIntegerAndWords) {
    EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(true)), true);
    EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(false)), false);
    EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::int64_t{1})), true);
    EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::int64_t{0})), false);
    for (const char* word : {"on", "true", "1"})
        EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::string(word))),
                  true)
            << word;
    for (const char* word : {"off", "false", "0"})
        EXPECT_EQ(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::string(word))),
                  false)
            << word;
}

TEST(ExternalControl, CooldownIntegerOtherThanZeroOrOneIsRejected) {
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::int64_t{2})));
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::int64_t{-1})));
}

TEST(ExternalControl, CooldownWithWrongTypeOrMissingKeyIsRejected) {
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(cooldownPayload(1.0)));
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::monostate{})));
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled({}));
    EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(modePayload(true)));
}

TEST(ExternalControl, CooldownHugeEmptyOrUnknownStringIsRejected) {
    EXPECT_FALSE(
        ExternalControl::requestedCooldownEnabled(cooldownPayload(std::string(100 * 1024, '1'))));
    for (const char* word : {"", "yes", "ON", "2", "enabled"})
        EXPECT_FALSE(ExternalControl::requestedCooldownEnabled(cooldownPayload(std::string(word))))
            << word;
}

}  // namespace
}  // namespace kelvo
