// The libfuse3 side of kelvo-simhw: serves a SimHardware's tree with sysfs semantics (every
// read produces the value now, every write takes effect at once or fails with the errno the
// attribute gives, truncation is ignored), plus `simhw/fault` for injecting faults.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "simhw/SimHardware.h"

namespace kelvo::simhw {

class SimFilesystem {
public:
    SimFilesystem(std::shared_ptr<SimHardware> hardware, std::mutex& mutex);

    // Mounts on `mountPoint` and serves until unmounted or signalled (SIGTERM, SIGINT, SIGHUP).
    // `ready` runs once the mount is in place. Returns 0, or 1 with `error` set when the mount
    // failed (nothing is left mounted).
    int serve(const std::string& mountPoint, const std::function<void()>& ready,
              std::string* error);

    // Called by the file-system callbacks.
    std::shared_ptr<SimHardware> hardware() const { return hardware_; }
    std::mutex& mutex() { return mutex_; }
    // A write to the fault file: each line is one fault; -EINVAL (nothing after the bad line is
    // applied) when one is not understood.
    int writeFaults(std::string_view text);

private:
    std::shared_ptr<SimHardware> hardware_;
    std::mutex& mutex_;
};

// The fault file, relative to the mount point.
inline constexpr const char* kFaultFile = "simhw/fault";
// How often each fan's pwm and pwm_enable were written, relative to the mount point.
inline constexpr const char* kWritesFile = "simhw/writes";

}  // namespace kelvo::simhw
