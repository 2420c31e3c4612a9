// Bridges the control-loop actor to Qt: a job posted to the loop thread becomes a QFuture that
// a main-thread coroutine can co_await (QCoro resumes it on the awaiting thread).
#pragma once

#include <QFuture>
#include <QPromise>
#include <memory>
#include <type_traits>

#include "foundation/control/ControlLoop.h"

namespace kelvo {

template <class F>
auto loopCall(ControlLoop& loop, F job) -> QFuture<std::invoke_result_t<F, ControlEngine&>> {
    using T = std::invoke_result_t<F, ControlEngine&>;
    auto promise = std::make_shared<QPromise<T>>();
    QFuture<T> future = promise->future();
    promise->start();
    loop.post([promise, job = std::move(job)](ControlEngine& engine) mutable {
        if constexpr (std::is_void_v<T>) {
            job(engine);
        } else {
            promise->addResult(job(engine));
        }
        promise->finish();
    });
    return future;
}

}  // namespace kelvo
