// Reaping a child process the tests started with fork/exec, without blocking.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <optional>
#include <thread>

namespace kelvo::test_support {

// Whether `pid` has ended (reaping it and setting `pid` to -1), or was never running.
inline bool reapIfEnded(pid_t& pid, int* status = nullptr) {
    int ended = 0;
    if (pid > 0 && ::waitpid(pid, &ended, WNOHANG) == pid) {
        if (status) *status = ended;
        pid = -1;
        return true;
    }
    return pid <= 0;
}

// Waits for `pid` to end: its wait status, or none after `limit` (still running).
inline std::optional<int> waitForChildEnd(pid_t& pid, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int status = 0;
        if (pid > 0 && reapIfEnded(pid, &status)) return status;
        if (pid <= 0 || std::chrono::steady_clock::now() >= end) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace kelvo::test_support
