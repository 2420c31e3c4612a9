// The one worker thread of the capture side: database and packaging work runs there in order, so
// the profiling service sees one call at a time and the main thread never waits on the disk.
#pragma once

#include <QThreadPool>
#include <QtConcurrent/QtConcurrentRun>
#include <utility>

namespace kelvo {

class CaptureWorker {
public:
    CaptureWorker();
    // Queued work still refers to the service: it finishes first.
    ~CaptureWorker();
    CaptureWorker(const CaptureWorker&) = delete;
    CaptureWorker& operator=(const CaptureWorker&) = delete;

    // Queues a job behind every job queued before it; its result arrives as a future.
    template <class F>
    auto run(F job) {
        return QtConcurrent::run(&pool_, std::move(job));
    }
    void waitForDone() { pool_.waitForDone(); }

private:
    QThreadPool pool_;  // one thread
};

}  // namespace kelvo
