#include "foundation/sim/MachineFile.h"
#include "tests/foundation/ScratchFiles.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string>
#include <vector>

namespace kelvo::sim {
namespace {

namespace fs = std::filesystem;

class MachineFileTest : public test_support::ScratchFilesTest {};

double valueOf(const PlantConfig& plant, const PlantField& field) {
    return plant.*std::get<double PlantConfig::*>(field.member);
}

// Values that print long or are easy to lose on the way through text.
PlantConfig oddPlant() {
    PlantConfig plant;
    int i = 0;
    for (const auto& field : plantFields()) {
        if (auto* member = std::get_if<double PlantConfig::*>(&field.member)) {
            ++i;
            double sign = i % 2 ? 1.0 : -1.0;
            plant.*(*member) = sign * (i / 3.0 + 0.1 + 0.2) * std::pow(10, i - 20);
        }
    }
    plant.ambientC = std::nextafter(24.0, 25.0);
    plant.cpuLimitC = std::numeric_limits<double>::denorm_min();
    plant.temperatureStepC = std::nextafter(0.125, 1.0);  // a sensor step must be 0 to 5
    plant.logicalCpus = 256;
    plant.fans = {{"CPU \"fan\" \\ one\nsecond line", 0.1, 0.1},
                  {"Lüfter 2", 1e-300, 1e300},
                  {"", 0, std::numeric_limits<double>::max()}};
    return plant;
}

TEST_F(MachineFileTest, EveryMemberHasOneKey) {
    std::set<std::string_view> keys;
    std::size_t bytes = 0;
    for (const auto& field : plantFields()) {
        EXPECT_TRUE(keys.insert(field.key).second) << field.key;
        bytes += std::visit([]<class T>(T PlantConfig::*) { return sizeof(T); }, field.member);
    }
    EXPECT_EQ(keys.count("name"), 0u);
    // A new number or list in PlantConfig without its line in the table leaves more than padding.
    EXPECT_LT(sizeof(PlantConfig) - bytes, alignof(double));
}

TEST_F(MachineFileTest, WritesEveryMemberAndReadsItBackExactly) {
    MachineDescription machine{"odd machine ☃", oddPlant()};
    ASSERT_NE(machine.plant, PlantConfig{});
    fs::path path = dir_ / "odd.json";
    std::string error;
    ASSERT_TRUE(writeMachineFile(path, machine, &error)) << error;

    auto read = readMachineFile(path, &error);
    ASSERT_TRUE(read) << error;
    EXPECT_EQ(read->name, machine.name);
    for (const auto& field : plantFields()) {
        if (std::holds_alternative<double PlantConfig::*>(field.member)) {
            EXPECT_EQ(valueOf(read->plant, field), valueOf(machine.plant, field)) << field.key;
        }
    }
    EXPECT_EQ(read->plant.logicalCpus, 256);
    EXPECT_EQ(read->plant.fans, machine.plant.fans);
    EXPECT_EQ(*read, machine);

    std::ifstream text(path);
    std::string content((std::istreambuf_iterator<char>(text)), {});
    for (const auto& field : plantFields()) {
        std::string key = "\"";
        key.append(field.key).append("\":");
        EXPECT_NE(content.find(key), std::string::npos) << field.key;
    }
}

TEST_F(MachineFileTest, KeysLeftOutKeepTheirDefaults) {
    std::string error;
    auto bare = readMachineFile(file("bare.json", R"({"name": "bare"})"), &error);
    ASSERT_TRUE(bare) << error;
    EXPECT_EQ(bare->name, "bare");
    EXPECT_EQ(bare->plant, PlantConfig{});

    auto some = readMachineFile(
        file("some.json",
             R"({"cpuLimitC": 88, "name": "some", "fans": [{"name": "only", "maxRPM": 3000}]})"),
        &error);
    ASSERT_TRUE(some) << error;
    PlantConfig expected;
    expected.cpuLimitC = 88;
    expected.fans = {{"only", FanConfig{}.minRPM, 3000}};
    EXPECT_EQ(some->plant, expected);
}

TEST_F(MachineFileTest, FanStopReadsAndWritesBack) {
    std::string error;
    auto machine = readMachineFile(file("stop.json", R"({"name": "stop", "firmwareStopBelowC": 50,
             "fans": [{"name": "a", "stopBelowDuty": 51, "startDuty": 77}, {"name": "b"}]})"),
                                   &error);
    ASSERT_TRUE(machine) << error;
    EXPECT_EQ(machine->plant.fans[0].stopBelowDuty, 51);
    EXPECT_EQ(machine->plant.fans[0].startDuty, 77);
    EXPECT_TRUE(machine->plant.fans[0].canStop());
    EXPECT_FALSE(machine->plant.fans[1].canStop());
    EXPECT_EQ(machine->plant.firmwareStopBelowC, 50);
    EXPECT_EQ(machine->plant.firmwareStopHysteresisC, PlantConfig{}.firmwareStopHysteresisC);
    const fs::path written = dir_ / "written.json";
    ASSERT_TRUE(writeMachineFile(written, *machine, &error)) << error;
    auto back = readMachineFile(written, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(*back, *machine);
}

TEST_F(MachineFileTest, ACouplingMatrixReadsAndWritesBack) {
    std::string error;
    auto machine =
        readMachineFile(file("coupled.json", R"({"name": "coupled", "sinkToSinkWPerK": 0.5,
             "gpuSinkAirflowWPerK": 9,
             "fans": [{"name": "cooler", "cpuCooling": 0.9, "gpuCooling": 0.05},
                      {"name": "card", "cpuCooling": 0, "gpuCooling": 0.5}]})"),
                        &error);
    ASSERT_TRUE(machine) << error;
    EXPECT_TRUE(machine->plant.splitsSinks());
    EXPECT_EQ(machine->plant.fans[0].cpuCooling, 0.9);
    EXPECT_EQ(machine->plant.fans[1].cpuCooling, 0);
    EXPECT_EQ(machine->plant.fans[1].gpuCooling, 0.5);
    EXPECT_EQ(machine->plant.gpuSinkAirflowWPerK, 9);
    EXPECT_EQ(machine->plant.gpuSinkHeatCapacityJPerK, PlantConfig{}.gpuSinkHeatCapacityJPerK);
    const fs::path written = dir_ / "written.json";
    ASSERT_TRUE(writeMachineFile(written, *machine, &error)) << error;
    auto back = readMachineFile(written, &error);
    ASSERT_TRUE(back) << error;
    EXPECT_EQ(*back, *machine);

    // Without the matrix a file is written as before: no coupling keys at all.
    MachineDescription shared{"shared", PlantConfig{}};
    ASSERT_FALSE(shared.plant.splitsSinks());
    ASSERT_TRUE(writeMachineFile(written, shared, &error)) << error;
    std::ifstream in(written);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text.find("Cooling"), std::string::npos);
}

struct Malformed {
    const char* what;
    const char* text;
    const char* problem;
};

TEST_F(MachineFileTest, MalformedFilesSayWhichFileAndWhatIsWrong) {
    const Malformed cases[] = {
        {"unknown key", R"({"name": "m", "cpuLimitCC": 95})", R"(unknown key "cpuLimitCC")"},
        {"text for a number", R"({"name": "m", "cpuLimitC": "95"})",
         R"("cpuLimitC" must be a number)"},
        {"boolean for a number", R"({"name": "m", "ambientC": true})",
         R"("ambientC" must be a number)"},
        {"number too large for a double", R"({"name": "m", "ambientC": 1e999})",
         "number overflow parsing '1e999'"},
        {"missing name", R"({"cpuLimitC": 95})", R"("name" is missing)"},
        {"number for a name", R"({"name": 7})", R"("name" must be a string)"},
        {"empty name", R"({"name": ""})", R"("name" must not be empty)"},
        {"path for a name", R"({"name": "../m"})", R"("name" must be usable as a file name)"},
        {"no fans", R"({"name": "m", "fans": []})", R"("fans" must list at least one fan)"},
        {"a sensor step under nothing", R"({"name": "m", "temperatureStepC": -1})",
         R"("temperatureStepC" must be from 0 to 5)"},
        {"a sensor step no sensor has", R"({"name": "m", "temperatureStepC": 10})",
         R"("temperatureStepC" must be from 0 to 5)"},
        {"fans not a list", R"({"name": "m", "fans": {"name": "f"}})", R"("fans" must be a list)"},
        {"fan without a name", R"({"name": "m", "fans": [{"minRPM": 100}]})",
         R"("fans[0].name" is missing)"},
        {"fan with an unknown key", R"({"name": "m", "fans": [{"name": "f", "rpm": 100}]})",
         R"(unknown key "fans[0].rpm")"},
        {"fan minimum above its maximum",
         R"({"name": "m", "fans": [{"name": "a"}, {"name": "b", "minRPM": 3000, "maxRPM": 2000}]})",
         R"("fans[1].minRPM" must not be above "fans[1].maxRPM")"},
        {"negative fan minimum", R"({"name": "m", "fans": [{"name": "f", "minRPM": -1}]})",
         R"("fans[0].minRPM" must not be negative)"},
        {"fan stop duty out of range",
         R"({"name": "m", "fans": [{"name": "f", "stopBelowDuty": 300}]})",
         R"("fans[0].stopBelowDuty" must be)"},
        {"fan start duty below its stop duty",
         R"({"name": "m", "fans": [{"name": "f", "stopBelowDuty": 60, "startDuty": 40}]})",
         R"("fans[0].startDuty" must not be below "fans[0].stopBelowDuty")"},
        {"fan start duty for a fan that never stops",
         R"({"name": "m", "fans": [{"name": "f", "startDuty": 40}]})",
         R"("fans[0].startDuty" needs "fans[0].stopBelowDuty")"},
        {"fan stop duty not a whole number",
         R"({"name": "m", "fans": [{"name": "f", "stopBelowDuty": 20.5}]})",
         R"("fans[0].stopBelowDuty" must be)"},
        {"fan sound reference at 0 rpm",
         R"({"name": "m", "fans": [{"name": "f", "soundRefRPM": 0}]})",
         R"("fans[0].soundRefRPM" must be above 0)"},
        {"fan sound level not a number",
         R"({"name": "m", "fans": [{"name": "f", "soundRefDb": "loud"}]})",
         R"("fans[0].soundRefDb" must be a number)"},
        {"one coupling of a fan without the other",
         R"({"name": "m", "fans": [{"name": "f", "cpuCooling": 0.5}]})",
         R"("fans[0].gpuCooling" is missing)"},
        {"a coupling matrix without one fan's row",
         R"({"name": "m", "fans": [{"name": "a"}, {"name": "b", "cpuCooling": 1, "gpuCooling": 1}]})",
         R"("fans[0].cpuCooling" is missing)"},
        {"negative coupling",
         R"({"name": "m", "fans": [{"name": "f", "cpuCooling": -0.5, "gpuCooling": 1}]})",
         R"("fans[0].cpuCooling" must be a number from 0 to 10)"},
        {"coupling beyond any fan",
         R"({"name": "m", "fans": [{"name": "f", "cpuCooling": 1, "gpuCooling": 11}]})",
         R"("fans[0].gpuCooling" must be a number from 0 to 10)"},
        {"no fan cools the GPU",
         R"({"name": "m", "fans": [{"name": "f", "cpuCooling": 1, "gpuCooling": 0}]})",
         "no fan cools the GPU"},
        {"a GPU sink without heat capacity",
         R"({"name": "m", "gpuSinkHeatCapacityJPerK": 0,
             "fans": [{"name": "f", "cpuCooling": 1, "gpuCooling": 1}]})",
         R"("gpuSinkHeatCapacityJPerK" must be above 0)"},
        {"no CPUs", R"({"name": "m", "logicalCpus": 0})",
         R"("logicalCpus" must be an integer from 1 to 256)"},
        {"too many CPUs", R"({"name": "m", "logicalCpus": 257})",
         R"("logicalCpus" must be an integer from 1 to 256)"},
        {"fractional CPUs", R"({"name": "m", "logicalCpus": 4.5})",
         R"("logicalCpus" must be an integer)"},
        {"CPUs beyond any integer", R"({"name": "m", "logicalCpus": 18446744073709551615})",
         R"("logicalCpus" must be an integer from 1 to 256)"},
        {"a list, not an object", R"([{"name": "m"}])", "must hold a JSON object"},
        {"syntax error", "{\"name\": \"m\",\n  \"cpuLimitC\": }", "line 2"},
        {"unclosed object", R"({"name": "m")", "parse error"},
        {"text after the object", R"({"name": "m"} {})", "parse error"},
        {"empty file", "", "parse error"},
        {"line break in an unknown key", "{\"name\": \"m\", \"a\\nb\": 1}",
         R"(unknown key "a\nb")"},
    };
    int index = 0;
    for (const auto& malformed : cases) {
        fs::path path = file("case" + std::to_string(index++) + ".json", malformed.text);
        std::string error;
        EXPECT_FALSE(readMachineFile(path, &error)) << malformed.what;
        EXPECT_EQ(error.rfind(path.string() + ": ", 0), 0u) << malformed.what << ": " << error;
        EXPECT_NE(error.find(malformed.problem), std::string::npos)
            << malformed.what << ": " << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << malformed.what << ": " << error;
    }
}

TEST_F(MachineFileTest, FilesThatCannotBeReadSaySo) {
    std::string error;
    fs::path missing = dir_ / "missing.json";
    EXPECT_FALSE(readMachineFile(missing, &error));
    EXPECT_EQ(error, missing.string() + ": cannot be opened: No such file or directory");

    EXPECT_FALSE(readMachineFile(dir_, &error));
    EXPECT_EQ(error, dir_.string() + ": is not a regular file");

    fs::path large =
        file("large.json", R"({"name": "m"})" + std::string(kMaxMachineFileBytes, ' '));
    EXPECT_FALSE(readMachineFile(large, &error));
    EXPECT_EQ(error.rfind(large.string() + ": is larger than", 0), 0u) << error;
}

TEST_F(MachineFileTest, RefusesToWriteWhatWouldNotReadBack) {
    std::string error;
    MachineDescription machine{"m", {}};
    machine.plant.sinkAirflowWPerK = std::numeric_limits<double>::quiet_NaN();
    fs::path path = dir_ / "nan.json";
    EXPECT_FALSE(writeMachineFile(path, machine, &error));
    EXPECT_EQ(error, path.string() + R"(: "sinkAirflowWPerK" must be a finite number)");
    EXPECT_FALSE(fs::exists(path));

    machine.plant = {};
    machine.plant.fans.clear();
    EXPECT_FALSE(writeMachineFile(path, machine, &error));
    EXPECT_EQ(error, path.string() + R"(: "fans" must list at least one fan)");

    fs::path nowhere = dir_ / "no-such-dir" / "m.json";
    EXPECT_FALSE(writeMachineFile(nowhere, {"m", {}}, &error));
    EXPECT_EQ(error, nowhere.string() + ": cannot be written: No such file or directory");
}

}  // namespace
}  // namespace kelvo::sim
