#include "capture/CaptureWorker.h"

namespace kelvo {

CaptureWorker::CaptureWorker() {
    pool_.setMaxThreadCount(1);
    pool_.setExpiryTimeout(-1);
}

CaptureWorker::~CaptureWorker() {
    pool_.waitForDone();
}

}  // namespace kelvo
