// The machines shipped in bench/machines, read as a test's plant.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "foundation/sim/MachineFile.h"

namespace kelvo::test_support {

inline sim::PlantConfig shippedMachine(const std::string& name) {
    std::string error;
    const auto machine = sim::readMachineFile(
        std::string(KELVO_TEST_DATA_DIR) + "/../../bench/machines/" + name + ".json", &error);
    EXPECT_TRUE(machine) << error;
    return machine ? machine->plant : sim::PlantConfig{};
}

}  // namespace kelvo::test_support
