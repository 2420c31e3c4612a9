#include "foundation/sim/SimulatedMachine.h"

#include <algorithm>
#include <cmath>

namespace kelvo::sim {

SimulatedMachine::SimulatedMachine(PlantConfig config, std::uint64_t seed, HostLoadReader hostLoad)
    : plant_(std::move(config), seed), hostLoad_(std::move(hostLoad)) {}

void SimulatedMachine::advanceTo(Timestamp now) {
    if (!std::isfinite(now)) return;
    std::lock_guard lock(mutex_);
    if (followHostLoad_) {
        // The reading covers the interval since the previous advance: the one integrated next.
        if (auto busy = hostLoad_.read()) plant_.setLoad(*busy, *busy / 2);
    }
    if (!last_ || now < *last_) {
        last_ = now;
        return;
    }
    const double dt = std::min(now - *last_, kMaxAdvanceSeconds);
    last_ = now;
    plant_.step(dt);
}

std::optional<Timestamp> SimulatedMachine::lastAdvance() const {
    std::lock_guard lock(mutex_);
    return last_;
}

void SimulatedMachine::setLoad(double cpu01, double gpu01) {
    std::lock_guard lock(mutex_);
    plant_.setLoad(cpu01, gpu01);
}

void SimulatedMachine::setFollowHostLoad(bool follow) {
    std::lock_guard lock(mutex_);
    if (follow && !followHostLoad_) hostLoad_.read();  // prime, so the next reading is a delta
    followHostLoad_ = follow;
}

bool SimulatedMachine::followsHostLoad() const {
    std::lock_guard lock(mutex_);
    return followHostLoad_;
}

PlantState SimulatedMachine::state() const {
    std::lock_guard lock(mutex_);
    return plant_.state();
}

PlantConfig SimulatedMachine::config() const {
    std::lock_guard lock(mutex_);
    return plant_.config();
}

void SimulatedMachine::setFanCommand(std::vector<double> targetRPM) {
    std::lock_guard lock(mutex_);
    plant_.setFanCommand(std::move(targetRPM));
}

void SimulatedMachine::setFirmwareControl(bool released) {
    std::lock_guard lock(mutex_);
    plant_.setFirmwareControl(released);
}

bool SimulatedMachine::holdsControl() const {
    std::lock_guard lock(mutex_);
    return plant_.holdsControl();
}

void SimulatedMachine::setFanWriteFailure(std::optional<std::string> reason) {
    std::lock_guard lock(mutex_);
    writeFailure_ = std::move(reason);
}

void SimulatedMachine::setFanReadFailure(std::optional<std::string> reason) {
    std::lock_guard lock(mutex_);
    readFailure_ = std::move(reason);
}

std::optional<std::string> SimulatedMachine::fanWriteFailure() const {
    std::lock_guard lock(mutex_);
    return writeFailure_;
}

std::optional<std::string> SimulatedMachine::fanReadFailure() const {
    std::lock_guard lock(mutex_);
    return readFailure_;
}

void SimulatedMachine::setFanWriteDelay(double seconds) {
    std::lock_guard lock(mutex_);
    writeDelay_ = std::isfinite(seconds) ? std::max(0.0, seconds) : 0.0;
}

double SimulatedMachine::fanWriteDelay() const {
    std::lock_guard lock(mutex_);
    return writeDelay_;
}

}  // namespace kelvo::sim
