#include "live/LiveThrottleOverlayStore.h"

namespace kelvo {

LiveThrottleOverlayStore::LiveThrottleOverlayStore(QObject* parent) : QObject(parent) {}

}  // namespace kelvo
