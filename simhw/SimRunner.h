// Runs a SimHardware in real time on its own thread: the offered load from a trace (held at its
// last level once it ends) or from the host's own CPUs, and one log row a second.
#pragma once

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/sim/HostLoadReader.h"
#include "simhw/SimHardware.h"

namespace kelvo::simhw {

struct LoadPoint {
    double cpu = 0;
    double gpu = 0;
};

class SimRunner {
public:
    // `levels`: one offered load per second; empty with `followHost` false means idle.
    SimRunner(std::shared_ptr<SimHardware> hardware, std::vector<LoadPoint> levels,
              bool followHost);
    ~SimRunner();
    SimRunner(const SimRunner&) = delete;
    SimRunner& operator=(const SimRunner&) = delete;

    // Opens the CSV log (header written at once); false with `error` set when it cannot.
    bool openLog(const std::string& path, std::string* error);
    void start();
    void stop();

    std::mutex& mutex() { return mutex_; }

private:
    void run();
    LoadPoint loadAt(double seconds);
    void writeRow();

    std::shared_ptr<SimHardware> hardware_;
    std::vector<LoadPoint> levels_;
    bool followHost_ = false;
    std::optional<sim::HostLoadReader> host_;
    double hostLoad_ = 0;
    double lastHostReadS_ = -1;
    std::ofstream log_;
    double nextLogS_ = 1;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace kelvo::simhw
