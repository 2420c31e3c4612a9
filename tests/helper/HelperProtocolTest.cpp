#include "foundation/helper_protocol/HelperProtocol.h"

#include <gtest/gtest.h>

#include <string>

namespace kelvo::helper_protocol {
namespace {

std::string header(char version, std::uint32_t length) {
    std::string bytes = "KLV";
    bytes.push_back(version);
    for (int i = 0; i < 4; ++i) {
        bytes.push_back(static_cast<char>(length & 0xff));
        length >>= 8;
    }
    return bytes;
}

std::string frameOf(std::string_view payload) {
    const auto frame = encodeFrame(payload);
    EXPECT_TRUE(frame.has_value());
    return frame.value_or("");
}

// ----- frames ---------------------------------------------------------------------------------

TEST(HelperProtocolFrame, HeaderIsMagicVersionAndLittleEndianLength) {
    const std::string frame = frameOf("op=list\n");
    ASSERT_EQ(frame.size(), kHeaderSize + 8);
    EXPECT_EQ(frame.substr(0, 3), "KLV");
    EXPECT_EQ(static_cast<unsigned char>(frame[3]), kVersion);
    EXPECT_EQ(frame.substr(4, 4), std::string("\x08\x00\x00\x00", 4));
    EXPECT_EQ(frame.substr(kHeaderSize), "op=list\n");

    const auto decoded = decodeFrame(frame);
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    EXPECT_EQ(*decoded.value, "op=list\n");
}

TEST(HelperProtocolFrame, LargestPayloadFitsAndOneMoreByteDoesNot) {
    const std::string largest(kMaxPayloadSize, 'x');
    const auto frame = encodeFrame(largest);
    ASSERT_TRUE(frame.has_value());
    EXPECT_EQ(frame->size(), kMaxFrameSize);
    const auto decoded = decodeFrame(*frame);
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    EXPECT_EQ(decoded.value->size(), kMaxPayloadSize);
    EXPECT_FALSE(encodeFrame(largest + "x").has_value());
}

TEST(HelperProtocolFrame, EmptyPayloadIsAFrame) {
    const auto decoded = decodeFrame(frameOf(""));
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    EXPECT_EQ(*decoded.value, "");
}

TEST(HelperProtocolFrame, EveryTruncationIsAnError) {
    const std::string frame = frameOf("op=version\n");
    for (std::size_t size = 0; size < frame.size(); ++size) {
        const auto decoded = decodeFrame(frame.substr(0, size));
        EXPECT_FALSE(decoded.ok()) << size;
        EXPECT_NE(decoded.error.find("truncated"), std::string::npos) << decoded.error;
    }
}

TEST(HelperProtocolFrame, TrailingBytesAreAnError) {
    const auto decoded = decodeFrame(frameOf("op=version\n") + "K");
    EXPECT_FALSE(decoded.ok());
    EXPECT_NE(decoded.error.find("after the end"), std::string::npos) << decoded.error;
}

TEST(HelperProtocolFrame, WrongMagicInAnyByteIsAnError) {
    for (std::size_t i = 0; i < 3; ++i) {
        std::string frame = frameOf("op=version\n");
        frame[i] = 'x';
        const auto decoded = decodeFrame(frame);
        EXPECT_FALSE(decoded.ok()) << i;
        EXPECT_NE(decoded.error.find("bad magic"), std::string::npos) << decoded.error;
    }
    EXPECT_FALSE(decodeFrame("GET / HTTP/1.1\r\n\r\n").ok());
}

TEST(HelperProtocolFrame, OtherVersionsAreRefusedWithTheirNumber) {
    for (int version : {0, 2, 255}) {
        const std::string frame = header(static_cast<char>(version), 0);
        const auto decoded = decodeFrame(frame);
        EXPECT_FALSE(decoded.ok());
        EXPECT_EQ(decoded.error, "unsupported protocol version " + std::to_string(version) +
                                     " (this side speaks 1)");
    }
}

TEST(HelperProtocolFrame, OversizedLengthIsRefusedFromTheHeaderAlone) {
    for (std::uint32_t length : {static_cast<std::uint32_t>(kMaxPayloadSize + 1), 0xffffffffu}) {
        const auto decoded = decodeFrame(header(1, length));
        EXPECT_FALSE(decoded.ok());
        EXPECT_NE(decoded.error.find("frame too large"), std::string::npos) << decoded.error;
    }
}

TEST(HelperProtocolFrameReader, AssemblesFramesFedOneByteAtATime) {
    const std::string stream = frameOf("op=list\n") + frameOf("") + frameOf("op=renew\n");
    FrameReader reader;
    std::vector<std::string> payloads;
    for (char byte : stream) {
        reader.append(std::string_view(&byte, 1));
        for (auto next = reader.next(); next.status == FrameReader::Status::frame;
             next = reader.next()) {
            payloads.push_back(next.payload);
        }
        ASSERT_FALSE(reader.failed());
    }
    EXPECT_EQ(payloads, (std::vector<std::string>{"op=list\n", "", "op=renew\n"}));
    EXPECT_FALSE(reader.midFrame());
}

TEST(HelperProtocolFrameReader, ReportsAPartialFrame) {
    FrameReader reader;
    const std::string frame = frameOf("op=list\n");
    reader.append(frame.substr(0, 10));
    EXPECT_EQ(reader.next().status, FrameReader::Status::needMore);
    EXPECT_TRUE(reader.midFrame());
    reader.append(frame.substr(10));
    EXPECT_EQ(reader.next().status, FrameReader::Status::frame);
    EXPECT_FALSE(reader.midFrame());
}

TEST(HelperProtocolFrameReader, BadFirstByteFailsAtOnceAndStaysFailed) {
    FrameReader reader;
    reader.append("G");
    const auto result = reader.next();
    EXPECT_EQ(result.status, FrameReader::Status::error);
    EXPECT_EQ(result.code, codes::badFrame);
    EXPECT_TRUE(reader.failed());
    reader.append(frameOf("op=list\n"));
    EXPECT_EQ(reader.next().status, FrameReader::Status::error);
}

TEST(HelperProtocolFrameReader, WrongVersionHasItsOwnCode) {
    FrameReader reader;
    reader.append(std::string("KLV\x02", 4));
    const auto result = reader.next();
    EXPECT_EQ(result.status, FrameReader::Status::error);
    EXPECT_EQ(result.code, codes::unsupportedVersion);
}

TEST(HelperProtocolFrameReader, OversizedLengthFailsBeforeAnyPayload) {
    FrameReader reader;
    reader.append(header(1, static_cast<std::uint32_t>(kMaxPayloadSize + 1)));
    const auto result = reader.next();
    EXPECT_EQ(result.status, FrameReader::Status::error);
    EXPECT_NE(result.error.find("frame too large"), std::string::npos) << result.error;
}

// ----- fields ---------------------------------------------------------------------------------

TEST(HelperProtocolFields, RoundTripKeepsOrderAndValues) {
    Fields fields;
    fields.set("op", "set_target");
    fields.set("fan", "nct6775@/sys/devices/platform/nct6775.656#fan2");
    fields.set("note", "a=b with spaces and \xc3\xa9");
    fields.set("empty", "");
    const auto parsed = parseFields(encodeFields(fields));
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    EXPECT_EQ(*parsed.value, fields);
    EXPECT_EQ(*parsed.value->find("note"), "a=b with spaces and \xc3\xa9");
}

TEST(HelperProtocolFields, SetReplacesExistingKeysAndControlCharacters) {
    Fields fields;
    fields.set("label", "first");
    fields.set("label", "line\nbreak\ttab");
    ASSERT_EQ(fields.entries().size(), 1u);
    EXPECT_EQ(*fields.find("label"), "line?break?tab");
    EXPECT_TRUE(parseFields(encodeFields(fields)).ok());
}

TEST(HelperProtocolFields, MalformedPayloadsAreErrors) {
    const std::pair<std::string, std::string> cases[] = {
        {"op=list", "does not end a line"},
        {"op\n", "no '='"},
        {"\n", "no '='"},
        {"=list\n", "invalid key"},
        {"Op=list\n", "invalid key"},
        {"o p=list\n", "invalid key"},
        {std::string(kMaxKeyLength + 1, 'k') + "=v\n", "invalid key"},
        {"op=li\rst\n", "control character"},
        {std::string("op=li\0st\n", 9), "control character"},
        {"op=list\nop=list\n", "duplicate field 'op'"},
    };
    for (const auto& [payload, expected] : cases) {
        const auto parsed = parseFields(payload);
        EXPECT_FALSE(parsed.ok()) << payload;
        EXPECT_NE(parsed.error.find(expected), std::string::npos)
            << "payload " << payload << ": " << parsed.error;
    }
    EXPECT_TRUE(parseFields("").ok());
    EXPECT_TRUE(parseFields(std::string(kMaxKeyLength, 'k') + "=v\n").ok());
}

// ----- requests -------------------------------------------------------------------------------

TEST(HelperProtocolRequest, EveryOperationRoundTrips) {
    const Request requests[] = {
        Request::of(Op::version),
        Request::of(Op::list),
        Request::targetRPM("it87@/sys/devices/platform/it87.656#fan1", 1800),
        Request::targetRPM("it87@/sys/devices/platform/it87.656#fan1", kMaxRPM),
        Request::targetPWM("it87@/sys/devices/platform/it87.656#fan2", 0),
        Request::targetPWM("it87@/sys/devices/platform/it87.656#fan2", 255),
        Request::releaseOf("it87@/sys/devices/platform/it87.656#fan1"),
        Request::of(Op::releaseAll),
        Request::counter("/sys/class/powercap/intel-rapl:0/energy_uj"),
        Request::of(Op::renew),
    };
    for (const Request& request : requests) {
        const std::string payload = encodeRequest(request);
        const auto decoded = decodeRequest(payload);
        ASSERT_TRUE(decoded.ok()) << payload << ": " << decoded.error;
        EXPECT_EQ(*decoded.value, request) << payload;
    }
    EXPECT_EQ(encodeRequest(Request::targetRPM("f", 1200)), "op=set_target\nfan=f\nrpm=1200\n");
}

TEST(HelperProtocolRequest, OpNamesMapBothWays) {
    for (Op op : {Op::version, Op::list, Op::setTarget, Op::release, Op::releaseAll,
                  Op::readCounter, Op::renew}) {
        EXPECT_EQ(opFromName(opName(op)), op);
    }
    EXPECT_FALSE(opFromName("reboot").has_value());
}

TEST(HelperProtocolRequest, BadRequestsAreErrorsNamingTheProblem) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "missing field 'op'"},
        {"fan=x\n", "missing field 'op'"},
        {"op=reboot\n", "unknown op 'reboot'"},
        {"op=VERSION\n", "unknown op"},
        {"op=version\nfan=x\n", "unexpected field 'fan'"},
        {"op=list\nverbose=1\n", "unexpected field 'verbose'"},
        {"op=set_target\nrpm=1200\n", "missing field 'fan'"},
        {"op=set_target\nfan=\nrpm=1200\n", "field 'fan' must be 1-512 characters"},
        {"op=set_target\nfan=" + std::string(kMaxIdentityLength + 1, 'f') + "\nrpm=1\n",
         "field 'fan' must be 1-512 characters"},
        {"op=set_target\nfan=f\n", "set_target needs rpm or pwm"},
        {"op=set_target\nfan=f\nrpm=1200\npwm=100\n", "rpm or pwm, not both"},
        {"op=set_target\nfan=f\nrpm=0\n", "field 'rpm' out of range 1-65535: 0"},
        {"op=set_target\nfan=f\nrpm=65536\n", "field 'rpm' out of range 1-65535: 65536"},
        {"op=set_target\nfan=f\nrpm=-5\n", "out of range"},
        {"op=set_target\nfan=f\npwm=256\n", "field 'pwm' out of range 0-255: 256"},
        {"op=set_target\nfan=f\npwm=-1\n", "field 'pwm' out of range 0-255: -1"},
        {"op=set_target\nfan=f\nrpm=abc\n", "field 'rpm' is not a whole number: 'abc'"},
        {"op=set_target\nfan=f\nrpm=+5\n", "not a whole number"},
        {"op=set_target\nfan=f\nrpm= 5\n", "not a whole number"},
        {"op=set_target\nfan=f\nrpm=12.5\n", "not a whole number"},
        {"op=set_target\nfan=f\nrpm=\n", "not a whole number"},
        {"op=set_target\nfan=f\nrpm=99999999999999999999999\n", "not a whole number"},
        {"op=set_target\nfan=f\nrpm=1200\ntarget=3\n", "unexpected field 'target'"},
        {"op=release\n", "missing field 'fan'"},
        {"op=release\nfan=f\nrpm=5\n", "unexpected field 'rpm'"},
        {"op=read_counter\n", "missing field 'path'"},
        {"op=read_counter\npath=\n", "field 'path' must be 1-4096 characters"},
    };
    for (const auto& [payload, expected] : cases) {
        const auto decoded = decodeRequest(payload);
        EXPECT_FALSE(decoded.ok()) << payload;
        EXPECT_NE(decoded.error.find(expected), std::string::npos)
            << "payload " << payload << ": " << decoded.error;
    }
}

TEST(HelperProtocolRequest, RangeEndsAreAccepted) {
    EXPECT_TRUE(decodeRequest("op=set_target\nfan=f\nrpm=1\n").ok());
    EXPECT_TRUE(decodeRequest("op=set_target\nfan=f\nrpm=65535\n").ok());
    EXPECT_TRUE(decodeRequest("op=set_target\nfan=f\npwm=0\n").ok());
    EXPECT_TRUE(decodeRequest("op=set_target\nfan=f\npwm=255\n").ok());
    EXPECT_TRUE(decodeRequest("op=set_target\nfan=f\npwm=007\n").ok());
}

// ----- replies --------------------------------------------------------------------------------

TEST(HelperProtocolReply, OkAndErrorRepliesRoundTrip) {
    Fields data;
    data.set("pwm", "128");
    const Reply replies[] = {
        Reply::success(),
        Reply::success(data),
        Reply::failure(codes::unknownFan, "unknown fan x"),
        Reply::failure(codes::notAllowed,
                       "not allowed to use the helper (uid 1000 is not root or in group kelvo)"),
    };
    for (const Reply& reply : replies) {
        const auto decoded = decodeReply(encodeReply(reply));
        ASSERT_TRUE(decoded.ok()) << decoded.error;
        EXPECT_EQ(*decoded.value, reply);
    }
    EXPECT_EQ(encodeReply(Reply::failure("busy", "too many clients")),
              "status=error\ncode=busy\nmessage=too many clients\n");
}

TEST(HelperProtocolReply, MalformedRepliesAreErrors) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "missing field 'status'"},
        {"pwm=5\n", "missing field 'status'"},
        {"status=maybe\n", "unknown status 'maybe'"},
        {"status=error\ncode=busy\n", "missing field 'message'"},
        {"status=error\nmessage=x\n", "missing field 'code'"},
        {"status=error\ncode=busy\nmessage=x\nextra=1\n", "unexpected field 'extra'"},
        {"status=error\ncode=Not Allowed\nmessage=x\n", "not a valid code"},
        {"status=ok\nstatus=ok\n", "duplicate field"},
    };
    for (const auto& [payload, expected] : cases) {
        const auto decoded = decodeReply(payload);
        EXPECT_FALSE(decoded.ok()) << payload;
        EXPECT_NE(decoded.error.find(expected), std::string::npos)
            << "payload " << payload << ": " << decoded.error;
    }
}

Inventory sampleInventory() {
    Inventory inventory;
    FanInfo cpu;
    cpu.identity = "it87@/sys/devices/platform/it87.656#fan1";
    cpu.controllable = true;
    cpu.rpm = 1200;
    cpu.maxRPM = 4000;
    cpu.pwm = 90;
    cpu.mode = 2;
    FanInfo held = cpu;
    held.identity = "it87@/sys/devices/platform/it87.656#fan2";
    held.minRPM = 500;
    held.mode = 1;
    held.held = true;
    held.mine = true;
    FanInfo acpi;
    acpi.identity = "acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1";
    inventory.fans = {acpi, cpu, held};
    inventory.sensors = {
        SensorInfo{"coretemp@/sys/devices/platform/coretemp.0#temp1", "Package id 0", 52000},
        SensorInfo{"acpitz@virtual#temp1", "", -5000},
        SensorInfo{"nvme@/sys/devices/pci0000:00#temp1", "Composite", {}}};
    return inventory;
}

TEST(HelperProtocolReply, InventoryRoundTrips) {
    const Inventory inventory = sampleInventory();
    const auto decoded = decodeInventory(encodeInventory(inventory));
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    EXPECT_EQ(*decoded.value, inventory);

    const auto empty = decodeInventory(encodeInventory(Inventory{}));
    ASSERT_TRUE(empty.ok()) << empty.error;
    EXPECT_TRUE(empty.value->fans.empty());
}

TEST(HelperProtocolReply, InventoryEncoderLeavesOutWhatCannotBeDecoded) {
    Inventory inventory = sampleInventory();
    inventory.fans[1].pwm = 300;
    inventory.fans[1].rpm = -1;
    inventory.fans[1].mode = 999;
    inventory.sensors[0].milliCelsius = 5'000'000;
    FanInfo nameless;
    inventory.fans.push_back(nameless);
    const auto decoded = decodeInventory(encodeInventory(inventory));
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    ASSERT_EQ(decoded.value->fans.size(), 3u);
    EXPECT_FALSE(decoded.value->fans[1].pwm.has_value());
    EXPECT_FALSE(decoded.value->fans[1].rpm.has_value());
    EXPECT_FALSE(decoded.value->fans[1].mode.has_value());
    EXPECT_FALSE(decoded.value->sensors[0].milliCelsius.has_value());
}

TEST(HelperProtocolReply, DamagedInventoriesAreErrors) {
    const Fields good = encodeInventory(sampleInventory());
    const auto damaged = [&good](std::string_view key, std::optional<std::string> value) {
        Fields fields;
        for (const auto& [k, v] : good.entries()) {
            if (k != key) {
                fields.set(k, v);
            } else if (value) {
                fields.set(k, *value);
            }
        }
        if (!good.find(key) && value) fields.set(key, *value);
        return decodeInventory(fields);
    };
    const struct {
        std::string key;
        std::optional<std::string> value;
        std::string expected;
    } cases[] = {
        {"fans", std::nullopt, "missing field 'fans'"},
        {"fans", "4", "missing field 'fan.3.id'"},
        {"fans", "2", "unexpected field 'fan.2."},
        {"fans", "257", "out of range"},
        {"fan.1.id", std::nullopt, "missing field 'fan.1.id'"},
        {"fan.1.controllable", "yes", "must be 0 or 1"},
        {"fan.1.pwm", "256", "field 'fan.1.pwm' out of range"},
        {"fan.1.min", std::nullopt, "missing field 'fan.1.min'"},
        {"fan.1.mine", "1", "is set on a fan nobody holds"},
        {"sensors", "9", "missing field 'sensor.3.id'"},
        {"sensor.0.millicelsius", "hot", "not a whole number"},
        {"fan.7.id", "ghost", "unexpected field 'fan.7.id'"},
    };
    for (const auto& c : cases) {
        const auto decoded = damaged(c.key, c.value);
        EXPECT_FALSE(decoded.ok()) << c.key;
        EXPECT_NE(decoded.error.find(c.expected), std::string::npos)
            << c.key << ": " << decoded.error;
    }
}

TEST(HelperProtocolReply, SmallRepliesRoundTripAndRejectDamage) {
    const auto version = decodeVersionInfo(encodeVersionInfo({"0.1.0", 1}));
    ASSERT_TRUE(version.ok()) << version.error;
    EXPECT_EQ(version.value->version, "0.1.0");
    EXPECT_FALSE(decodeVersionInfo(encodeVersionInfo({"", 1})).ok());
    EXPECT_FALSE(decodeVersionInfo(encodeVersionInfo({"1", 0})).ok());

    const auto lease = decodeLeaseInfo(encodeLeaseInfo({2, kLeaseExpiryMs}));
    ASSERT_TRUE(lease.ok()) << lease.error;
    EXPECT_EQ(*lease.value, (LeaseInfo{2, kLeaseExpiryMs}));
    EXPECT_FALSE(decodeLeaseInfo(encodeLeaseInfo({-1, kLeaseExpiryMs})).ok());
    EXPECT_FALSE(decodeLeaseInfo(encodeLeaseInfo({1, 0})).ok());

    const auto pwm = decodeAppliedPWM(encodeAppliedPWM(128));
    ASSERT_TRUE(pwm.ok()) << pwm.error;
    EXPECT_EQ(*pwm.value, 128);
    EXPECT_FALSE(decodeAppliedPWM(encodeAppliedPWM(256)).ok());
    EXPECT_FALSE(decodeAppliedPWM(Fields{}).ok());

    const auto counter = decodeCounterValue(encodeCounterValue(18446744073709551615ull));
    ASSERT_TRUE(counter.ok()) << counter.error;
    EXPECT_EQ(*counter.value, 18446744073709551615ull);
    Fields overflow;
    overflow.set("value", "18446744073709551616");
    EXPECT_FALSE(decodeCounterValue(overflow).ok());
    Fields negative;
    negative.set("value", "-1");
    EXPECT_FALSE(decodeCounterValue(negative).ok());
}

}  // namespace
}  // namespace kelvo::helper_protocol
