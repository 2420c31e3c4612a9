// Reads root-only RAPL energy counters through kelvo-helperd for the telemetry samplers.
// Thread-safe: the control loop samples from its own thread. A helper that cannot be reached
// is not asked again for a while, so a machine without the helper pays one failed connect
// per back-off period rather than one per counter per tick.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "foundation/helper_protocol/HelperClient.h"

namespace kelvo {

class HelperCounterReader {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kRetryAfterFailure{10};

    explicit HelperCounterReader(std::string socketPath,
                                 std::function<Clock::time_point()> now = Clock::now);

    // The counter's value, or none when the helper is unreachable, backing off, or refuses
    // the path (a refused path is not asked for again).
    std::optional<std::uint64_t> read(const std::string& counterPath);

    // Attempts that reached the socket (for the tests: backing off must not connect).
    std::uint64_t attempts() const;

private:
    mutable std::mutex mutex_;
    HelperClient client_;
    std::function<Clock::time_point()> now_;
    std::optional<Clock::time_point> retryAt_;
    std::set<std::string> refusedPaths_;
    std::uint64_t attempts_ = 0;
};

}  // namespace kelvo
