#include "foundation/helper_protocol/HelperCounterReader.h"

namespace kelvo {

HelperCounterReader::HelperCounterReader(std::string socketPath,
                                         std::function<Clock::time_point()> now)
    : client_(std::move(socketPath)), now_(std::move(now)) {}

std::optional<std::uint64_t> HelperCounterReader::read(const std::string& counterPath) {
    std::lock_guard lock(mutex_);
    if (refusedPaths_.contains(counterPath)) return std::nullopt;
    const Clock::time_point now = now_();
    if (retryAt_ && now < *retryAt_) return std::nullopt;
    ++attempts_;
    const HelperCallResult result = client_.call(helper_protocol::Request::counter(counterPath));
    if (result.failure != HelperCallResult::Failure::none) {
        retryAt_ = now + kRetryAfterFailure;
        return std::nullopt;
    }
    retryAt_.reset();
    if (!result.reply.ok) {
        // Not allowed to use the helper at all: the answer will not change while Kelvo runs
        // under the same user, so stop asking for a while like for an unreachable helper.
        if (result.reply.code == helper_protocol::codes::notAllowed) {
            retryAt_ = now + kRetryAfterFailure;
        } else if (result.reply.code == helper_protocol::codes::badRequest) {
            refusedPaths_.insert(counterPath);
        }
        return std::nullopt;
    }
    auto value = helper_protocol::decodeCounterValue(result.reply.data);
    if (!value.ok()) return std::nullopt;
    return *value.value;
}

std::uint64_t HelperCounterReader::attempts() const {
    std::lock_guard lock(mutex_);
    return attempts_;
}

}  // namespace kelvo
