// Runs fan back-end calls on a worker thread so that a slow back-end never stalls a tick:
// a call that outlives its deadline is abandoned (it finishes in the background) and reported.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "foundation/core/FanController.h"

namespace kelvo {

class FanWriter {
public:
    explicit FanWriter(std::shared_ptr<FanController> controller);
    ~FanWriter();
    FanWriter(const FanWriter&) = delete;
    FanWriter& operator=(const FanWriter&) = delete;

    enum class Outcome { completed, timedOut, busy };
    struct Result {
        Outcome outcome = Outcome::completed;
        FanResult result;
    };

    // Waits at most `timeoutSeconds`. While an abandoned call is still running, new calls are
    // refused with `busy` rather than queued behind it.
    Result run(std::function<FanResult(FanController&)> call, double timeoutSeconds);
    // Waits for an abandoned call (used on shutdown, so the final release is not lost).
    void drain();

private:
    void workerLoop();

    std::shared_ptr<FanController> controller_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::function<FanResult(FanController&)> pending_;
    std::optional<FanResult> done_;
    std::uint64_t submitted_ = 0;
    std::uint64_t finished_ = 0;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace kelvo
