#include "foundation/control/FanWriter.h"

#include <chrono>

namespace kelvo {

FanWriter::FanWriter(std::shared_ptr<FanController> controller)
    : controller_(std::move(controller)), worker_([this] { workerLoop(); }) {}

FanWriter::~FanWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    worker_.join();
}

void FanWriter::workerLoop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        cv_.wait(lock, [this] { return stopping_ || pending_; });
        if (!pending_) return;
        auto call = std::move(pending_);
        pending_ = nullptr;
        lock.unlock();
        FanResult result = call(*controller_);
        lock.lock();
        done_ = result;
        ++finished_;
        cv_.notify_all();
        if (stopping_) return;
    }
}

FanWriter::Result FanWriter::run(std::function<FanResult(FanController&)> call,
                                 double timeoutSeconds) {
    std::unique_lock lock(mutex_);
    if (finished_ != submitted_) return {Outcome::busy, FanResult::failure("fan back-end busy")};
    pending_ = std::move(call);
    done_.reset();
    std::uint64_t ticket = ++submitted_;
    cv_.notify_all();
    auto deadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                        std::chrono::duration<double>(timeoutSeconds));
    if (!cv_.wait_until(lock, deadline, [&] { return finished_ >= ticket; }))
        return {Outcome::timedOut, FanResult::failure("fan write timed out")};
    return {Outcome::completed, *done_};
}

void FanWriter::drain() {
    std::unique_lock lock(mutex_);
    cv_.wait(lock, [this] { return finished_ == submitted_; });
}

}  // namespace kelvo
