#include "foundation/store/FanCurveStoreLink.h"

#include "foundation/store/SQLiteStore.h"

namespace kelvo {

void attachFanCurveStore(FanController& fans, const std::shared_ptr<SQLiteStore>& store) {
    FanCurveLearning* learning = fans.curveLearning();
    if (!learning) return;
    std::weak_ptr<SQLiteStore> weak = store;
    learning->attachCurveStore({[weak](const std::string& identity) -> std::optional<FanCurve> {
                                    auto strong = weak.lock();
                                    return strong ? strong->fanCurve(identity) : std::nullopt;
                                },
                                [weak](const std::string& identity, const FanCurve& curve) {
                                    auto strong = weak.lock();
                                    return strong && strong->saveFanCurve(identity, curve);
                                }});
}

}  // namespace kelvo
