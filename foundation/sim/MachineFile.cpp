#include "foundation/sim/MachineFile.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <utility>

#include "foundation/sim/JsonFile.h"

namespace kelvo::sim {

namespace {

using detail::invalid;
using detail::Json;
using detail::quotedKey;

template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};

// Adding a member to PlantConfig means adding its line here.
const std::array kPlantFields = std::to_array<PlantField>({
    {"ambientC", &PlantConfig::ambientC},
    {"logicalCpus", &PlantConfig::logicalCpus},
    {"cpuIdlePowerW", &PlantConfig::cpuIdlePowerW},
    {"cpuFullLoadPowerW", &PlantConfig::cpuFullLoadPowerW},
    {"cpuMaxClockMHz", &PlantConfig::cpuMaxClockMHz},
    {"cpuBaseClockMHz", &PlantConfig::cpuBaseClockMHz},
    {"cpuLimitC", &PlantConfig::cpuLimitC},
    {"cpuHeatCapacityJPerK", &PlantConfig::cpuHeatCapacityJPerK},
    {"cpuToSinkWPerK", &PlantConfig::cpuToSinkWPerK},
    {"gpuIdlePowerW", &PlantConfig::gpuIdlePowerW},
    {"gpuFullLoadPowerW", &PlantConfig::gpuFullLoadPowerW},
    {"gpuMaxClockMHz", &PlantConfig::gpuMaxClockMHz},
    {"gpuBaseClockMHz", &PlantConfig::gpuBaseClockMHz},
    {"gpuReferenceMaxClockMHz", &PlantConfig::gpuReferenceMaxClockMHz},
    {"gpuLimitC", &PlantConfig::gpuLimitC},
    {"gpuHeatCapacityJPerK", &PlantConfig::gpuHeatCapacityJPerK},
    {"gpuToSinkWPerK", &PlantConfig::gpuToSinkWPerK},
    {"sinkHeatCapacityJPerK", &PlantConfig::sinkHeatCapacityJPerK},
    {"sinkPassiveWPerK", &PlantConfig::sinkPassiveWPerK},
    {"sinkAirflowWPerK", &PlantConfig::sinkAirflowWPerK},
    {"airflowReferenceRPM", &PlantConfig::airflowReferenceRPM},
    {"airflowExponent", &PlantConfig::airflowExponent},
    {"gpuSinkHeatCapacityJPerK", &PlantConfig::gpuSinkHeatCapacityJPerK},
    {"gpuSinkPassiveWPerK", &PlantConfig::gpuSinkPassiveWPerK},
    {"gpuSinkAirflowWPerK", &PlantConfig::gpuSinkAirflowWPerK},
    {"sinkToSinkWPerK", &PlantConfig::sinkToSinkWPerK},
    {"platformPowerW", &PlantConfig::platformPowerW},
    {"fanPowerAtMaxW", &PlantConfig::fanPowerAtMaxW},
    {"fans", &PlantConfig::fans},
    {"fanTimeConstantS", &PlantConfig::fanTimeConstantS},
    {"fanSlewRPMPerS", &PlantConfig::fanSlewRPMPerS},
    {"firmwareMinUntilC", &PlantConfig::firmwareMinUntilC},
    {"firmwareMaxAtC", &PlantConfig::firmwareMaxAtC},
    {"firmwareStopBelowC", &PlantConfig::firmwareStopBelowC},
    {"firmwareStopHysteresisC", &PlantConfig::firmwareStopHysteresisC},
    {"droopGainPerKelvinSecond", &PlantConfig::droopGainPerKelvinSecond},
    {"droopRecoveryPerS", &PlantConfig::droopRecoveryPerS},
    {"droopRecoveryMarginC", &PlantConfig::droopRecoveryMarginC},
    {"minClockScale", &PlantConfig::minClockScale},
    {"utilisationNoisePct", &PlantConfig::utilisationNoisePct},
    {"temperatureStepC", &PlantConfig::temperatureStepC},
    {"maxSubstepS", &PlantConfig::maxSubstepS},
    {"pressureFairFromC", &PlantConfig::pressureFairFromC},
    {"pressureSeriousFromC", &PlantConfig::pressureSeriousFromC},
    {"pressureCriticalFromC", &PlantConfig::pressureCriticalFromC},
});

// The values an integer member may take.
std::pair<int, int> bounds(int PlantConfig::*member) {
    if (member == &PlantConfig::logicalCpus) return {1, kMaxLogicalCpus};
    return {INT_MIN, INT_MAX};
}

std::string fanKey(std::size_t index, std::string_view member) {
    return "fans[" + std::to_string(index) + "]." + std::string(member);
}

std::vector<FanConfig> readFans(const Json& value) {
    if (!value.is_array()) invalid(quotedKey("fans") + " must be a list");
    std::vector<FanConfig> fans;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const Json& entry = value[i];
        if (!entry.is_object())
            invalid(quotedKey("fans[" + std::to_string(i) + "]") + " must be an object");
        if (!entry.contains("name")) invalid(quotedKey(fanKey(i, "name")) + " is missing");
        FanConfig fan;
        for (const auto& [key, member] : entry.items()) {
            if (key == "name")
                fan.name = detail::readString(member, fanKey(i, key));
            else if (key == "minRPM")
                fan.minRPM = detail::readDouble(member, fanKey(i, key));
            else if (key == "maxRPM")
                fan.maxRPM = detail::readDouble(member, fanKey(i, key));
            else if (key == "soundRefDb")
                fan.soundRefDb = detail::readDouble(member, fanKey(i, key));
            else if (key == "soundRefRPM")
                fan.soundRefRPM = detail::readDouble(member, fanKey(i, key));
            else if (key == "stopBelowDuty")
                fan.stopBelowDuty =
                    static_cast<int>(detail::readInteger(member, fanKey(i, key), 0, 255));
            else if (key == "startDuty")
                fan.startDuty =
                    static_cast<int>(detail::readInteger(member, fanKey(i, key), 0, 255));
            else if (key == "cpuCooling")
                fan.cpuCooling = detail::readDouble(member, fanKey(i, key));
            else if (key == "gpuCooling")
                fan.gpuCooling = detail::readDouble(member, fanKey(i, key));
            else
                invalid("unknown key " + quotedKey(fanKey(i, key)));
        }
        fans.push_back(std::move(fan));
    }
    return fans;
}

// A coupling matrix is all or nothing: every fan says what it does for both dies, or none does
// (one shared sink). Each die must be cooled by some fan, or its sink would only ever warm.
void checkCoupling(const PlantConfig& plant) {
    bool anyGiven = false;
    for (std::size_t i = 0; i < plant.fans.size(); ++i) {
        const FanConfig& fan = plant.fans[i];
        for (auto [key, value] :
             {std::pair{"cpuCooling", fan.cpuCooling}, std::pair{"gpuCooling", fan.gpuCooling}}) {
            if (!std::isfinite(value) || (value < 0 && value != -1) || value > kMaxCouplingWeight)
                invalid(quotedKey(fanKey(i, key)) + " must be a number from 0 to " +
                        std::to_string(static_cast<int>(kMaxCouplingWeight)));
        }
        if ((fan.cpuCooling >= 0) != (fan.gpuCooling >= 0))
            invalid(quotedKey(fanKey(i, fan.cpuCooling >= 0 ? "gpuCooling" : "cpuCooling")) +
                    " is missing: a fan gives both couplings or neither");
        anyGiven = anyGiven || fan.givesCooling();
    }
    if (!anyGiven) return;
    double cpu = 0;
    double gpu = 0;
    for (std::size_t i = 0; i < plant.fans.size(); ++i) {
        if (!plant.fans[i].givesCooling())
            invalid(quotedKey(fanKey(i, "cpuCooling")) +
                    " is missing: with a coupling matrix every fan gives its couplings");
        cpu += plant.fans[i].cpuCooling;
        gpu += plant.fans[i].gpuCooling;
    }
    if (cpu <= 0)
        invalid("no fan cools the CPU: some " + quotedKey("cpuCooling") + " must be above 0");
    if (gpu <= 0)
        invalid("no fan cools the GPU: some " + quotedKey("gpuCooling") + " must be above 0");
    if (!(plant.gpuSinkHeatCapacityJPerK > 0))
        invalid(quotedKey("gpuSinkHeatCapacityJPerK") + " must be above 0");
    if (plant.sinkToSinkWPerK < 0) invalid(quotedKey("sinkToSinkWPerK") + " must not be negative");
}

// What both reading and writing insist on, so that whatever is written reads back.
void check(const MachineDescription& machine) {
    detail::checkName(machine.name, "name");
    const PlantConfig& plant = machine.plant;
    for (const auto& field : kPlantFields) {
        if (auto* member = std::get_if<double PlantConfig::*>(&field.member))
            detail::checkFinite(plant.*(*member), std::string(field.key));
        if (auto* member = std::get_if<int PlantConfig::*>(&field.member)) {
            auto [lo, hi] = bounds(*member);
            if (plant.*(*member) < lo || plant.*(*member) > hi)
                invalid(quotedKey(field.key) + " must be an integer from " + std::to_string(lo) +
                        " to " + std::to_string(hi));
        }
    }
    if (plant.temperatureStepC < 0 || plant.temperatureStepC > kMostTemperatureStepC)
        invalid(quotedKey("temperatureStepC") + " must be from 0 to " +
                std::to_string(kMostTemperatureStepC));
    if (plant.fans.empty()) invalid(quotedKey("fans") + " must list at least one fan");
    checkCoupling(plant);
    for (std::size_t i = 0; i < plant.fans.size(); ++i) {
        const FanConfig& fan = plant.fans[i];
        detail::checkFinite(fan.minRPM, fanKey(i, "minRPM"));
        detail::checkFinite(fan.maxRPM, fanKey(i, "maxRPM"));
        detail::checkFinite(fan.soundRefDb, fanKey(i, "soundRefDb"));
        detail::checkFinite(fan.soundRefRPM, fanKey(i, "soundRefRPM"));
        if (fan.soundRefRPM <= 0) invalid(quotedKey(fanKey(i, "soundRefRPM")) + " must be above 0");
        if (fan.minRPM < 0) invalid(quotedKey(fanKey(i, "minRPM")) + " must not be negative");
        if (fan.minRPM > fan.maxRPM)
            invalid(quotedKey(fanKey(i, "minRPM")) + " must not be above " +
                    quotedKey(fanKey(i, "maxRPM")));
        if (fan.stopBelowDuty < 0 || fan.stopBelowDuty > 254)
            invalid(quotedKey(fanKey(i, "stopBelowDuty")) + " must be an integer from 0 to 254");
        if (fan.startDuty < 0 || fan.startDuty > 255)
            invalid(quotedKey(fanKey(i, "startDuty")) + " must be an integer from 0 to 255");
        if (fan.startDuty > 0 && fan.startDuty < fan.stopBelowDuty)
            invalid(quotedKey(fanKey(i, "startDuty")) + " must not be below " +
                    quotedKey(fanKey(i, "stopBelowDuty")));
        if (fan.startDuty > 0 && fan.stopBelowDuty == 0)
            invalid(quotedKey(fanKey(i, "startDuty")) + " needs " +
                    quotedKey(fanKey(i, "stopBelowDuty")) + " (a fan that never stops)");
    }
}

MachineDescription machineFromJson(const Json& json) {
    if (!json.is_object()) invalid("must hold a JSON object");
    if (!json.contains("name")) invalid(quotedKey("name") + " is missing");
    MachineDescription machine;
    for (const auto& [key, value] : json.items()) {
        if (key == "name") {
            machine.name = detail::readString(value, key);
            continue;
        }
        auto field = std::find_if(kPlantFields.begin(), kPlantFields.end(),
                                  [&](const PlantField& f) { return f.key == key; });
        if (field == kPlantFields.end()) invalid("unknown key " + quotedKey(key));
        std::visit(Overloaded{
                       [&](double PlantConfig::*member) {
                           machine.plant.*member = detail::readDouble(value, key);
                       },
                       [&](int PlantConfig::*member) {
                           auto [lo, hi] = bounds(member);
                           machine.plant.*member =
                               static_cast<int>(detail::readInteger(value, key, lo, hi));
                       },
                       [&](std::vector<FanConfig> PlantConfig::*member) {
                           machine.plant.*member = readFans(value);
                       },
                   },
                   field->member);
    }
    check(machine);
    return machine;
}

// One member per line, each value compact: a diff of two machines shows which members differ.
std::string machineText(const MachineDescription& machine) {
    const PlantConfig& plant = machine.plant;
    std::string text = "{\n  \"name\": " + Json(machine.name).dump();
    for (const auto& field : kPlantFields) {
        Json value =
            std::visit(Overloaded{
                           [&](double PlantConfig::*member) { return Json(plant.*member); },
                           [&](int PlantConfig::*member) { return Json(plant.*member); },
                           [&](std::vector<FanConfig> PlantConfig::*member) {
                               Json fans = Json::array();
                               for (const FanConfig& fan : plant.*member) {
                                   Json entry = {{"name", fan.name},
                                                 {"minRPM", fan.minRPM},
                                                 {"maxRPM", fan.maxRPM},
                                                 {"soundRefDb", fan.soundRefDb},
                                                 {"soundRefRPM", fan.soundRefRPM},
                                                 {"stopBelowDuty", fan.stopBelowDuty},
                                                 {"startDuty", fan.startDuty}};
                                   if (fan.givesCooling()) {
                                       entry["cpuCooling"] = fan.cpuCooling;
                                       entry["gpuCooling"] = fan.gpuCooling;
                                   }
                                   fans.push_back(std::move(entry));
                               }
                               return fans;
                           },
                       },
                       field.member);
        text += ",\n  " + quotedKey(field.key) + ": " + value.dump();
    }
    return text + "\n}\n";
}

}  // namespace

std::span<const PlantField> plantFields() {
    return kPlantFields;
}

std::optional<MachineDescription> readMachineFile(const std::filesystem::path& path,
                                                  std::string* error) {
    auto json = detail::readJsonFile(path, kMaxMachineFileBytes, error);
    if (!json) return std::nullopt;
    try {
        return machineFromJson(*json);
    } catch (const detail::Invalid& e) {
        detail::setError(error, path, e.what());
    }
    return std::nullopt;
}

bool writeMachineFile(const std::filesystem::path& path, const MachineDescription& machine,
                      std::string* error) {
    try {
        check(machine);
    } catch (const detail::Invalid& e) {
        detail::setError(error, path, e.what());
        return false;
    }
    std::string text;
    try {
        text = machineText(machine);
    } catch (const nlohmann::json::type_error&) {
        detail::setError(error, path, "names must be valid UTF-8");
        return false;
    }
    return detail::writeTextFile(path, text, error);
}

}  // namespace kelvo::sim
