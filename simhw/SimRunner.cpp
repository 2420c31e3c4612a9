#include "simhw/SimRunner.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace kelvo::simhw {

namespace {
using Clock = std::chrono::steady_clock;
// Fine enough for the fans' 1-2 s time constants and the dies' few-second ones; the plant
// substeps internally anyway.
constexpr auto kStep = std::chrono::milliseconds(100);
// A stall of the host (a suspended process, a loaded CI machine) is not simulated as one huge
// step: at most this much simulated time is caught up at once.
constexpr double kMaxCatchUpS = 1.0;
}  // namespace

SimRunner::SimRunner(std::shared_ptr<SimHardware> hardware, std::vector<LoadPoint> levels,
                     bool followHost)
    : hardware_(std::move(hardware)), levels_(std::move(levels)), followHost_(followHost) {
    if (followHost_) host_.emplace("/proc");
}

SimRunner::~SimRunner() {
    stop();
}

bool SimRunner::openLog(const std::string& path, std::string* error) {
    log_.open(path, std::ios::trunc);
    if (!log_) {
        if (error) *error = "cannot write the log " + path;
        return false;
    }
    log_ << "time_s,cpu_load,gpu_load,cpu_c,gpu_c,sink_c,cpu_mhz,gpu_mhz,cpu_throttling,"
            "gpu_throttling,total_w";
    for (std::size_t i = 1; i <= hardware_->fans().size(); ++i)
        log_ << ",fan" << i << "_pwm,fan" << i << "_enable,fan" << i << "_rpm";
    log_ << '\n';
    log_.flush();
    return true;
}

void SimRunner::start() {
    thread_ = std::thread([this] { run(); });
}

void SimRunner::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

LoadPoint SimRunner::loadAt(double seconds) {
    if (followHost_) {
        // Once a second: shorter windows of /proc/stat are mostly rounding noise.
        if (seconds - lastHostReadS_ >= 1.0) {
            lastHostReadS_ = seconds;
            if (auto busy = host_->read()) hostLoad_ = *busy;
        }
        return {hostLoad_, 0.0};
    }
    if (levels_.empty()) return {0.03, 0.02};
    const auto index = static_cast<std::size_t>(std::max(0.0, std::floor(seconds)));
    return levels_[std::min(index, levels_.size() - 1)];
}

void SimRunner::writeRow() {
    if (!log_.is_open()) return;
    const SimHardware& hw = *hardware_;
    const sim::PlantState& s = hw.state();
    char text[256];
    std::snprintf(text, sizeof text, "%.0f,%.4f,%.4f,%.3f,%.3f,%.3f,%.1f,%.1f,%d,%d,%.2f",
                  std::round(hw.elapsedS()), hw.cpuLoad(), hw.gpuLoad(), s.cpuTemperatureC,
                  s.gpuTemperatureC, s.sinkTemperatureC, s.cpuClockMHz, s.gpuClockMHz,
                  s.cpuThrottling ? 1 : 0, s.gpuThrottling ? 1 : 0, s.totalPowerW);
    log_ << text;
    for (std::size_t i = 0; i < hw.fans().size(); ++i)
        log_ << ',' << hw.effectiveDuty(i) << ',' << hw.fans()[i].enable << ','
             << std::lround(s.fanCurrentRPM[i]);
    log_ << '\n';
    log_.flush();
}

void SimRunner::run() {
    auto last = Clock::now();
    auto next = last + kStep;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        wake_.wait_until(lock, next, [this] { return stopping_; });
        if (stopping_) break;
        const auto now = Clock::now();
        const double dt = std::min(kMaxCatchUpS, std::chrono::duration<double>(now - last).count());
        last = now;
        next += kStep;
        if (next < now) next = now + kStep;
        const LoadPoint load = loadAt(hardware_->elapsedS());
        hardware_->step(dt, load.cpu, load.gpu);
        while (hardware_->elapsedS() + 1e-9 >= nextLogS_) {
            writeRow();
            nextLogS_ += 1;
        }
    }
}

}  // namespace kelvo::simhw
