// `kelvo --metrics-listen ADDR:PORT`: the control loop's live state for Prometheus, kept in a
// prometheus-cpp registry and served at /metrics by MetricsHttpServer. Every die temperature and
// clock, total power, each fan's speed, target and duty (labelled with its stable identity and a
// short label), the mode and status as state sets, the throttle warning, the benefit registers, and
// how long each tick took. Values that cannot be read are absent from the scrape, never 0.
#pragma once

#include <QObject>
#include <QString>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "app/MetricsListenAddress.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/control/RuntimeBenefitRegisters.h"

namespace prometheus {
class Registry;
class Gauge;
class Counter;
class Histogram;
template <typename T>
class Family;
}  // namespace prometheus

namespace kelvo {

class MetricsHttpServer;

class MetricsExporter {
public:
    // Listens on `address`; none with `error` set (one line's worth) when it cannot.
    static std::unique_ptr<MetricsExporter> start(const MetricsListenAddress& address,
                                                  QString* error);
    ~MetricsExporter();
    MetricsExporter(const MetricsExporter&) = delete;
    MetricsExporter& operator=(const MetricsExporter&) = delete;

    // One handled snapshot, on the main thread.
    void update(const ControlSnapshot& snapshot, const RuntimeBenefitSummary& benefits);
    // The port it listens on (the one the system picked when asked for port 0).
    int port() const;

    // "nct6798 fan1" for "nct6798@/sys/devices/platform/nct6775.656#fan1"; other names as they are.
    static std::string fanLabel(const std::string& identity);

private:
    struct FanSeries {
        prometheus::Gauge* rpm = nullptr;
        prometheus::Gauge* target = nullptr;
        prometheus::Gauge* duty = nullptr;
    };
    MetricsExporter();
    void setOrRemove(prometheus::Family<prometheus::Gauge>& family, prometheus::Gauge*& gauge,
                     const std::map<std::string, std::string>& labels,
                     const std::optional<double>& value);
    void updateFans(const ControlSnapshot& snapshot);

    std::shared_ptr<prometheus::Registry> registry_;
    std::unique_ptr<MetricsHttpServer> server_;
    prometheus::Family<prometheus::Gauge>* temperature_ = nullptr;
    prometheus::Family<prometheus::Gauge>* clock_ = nullptr;
    prometheus::Family<prometheus::Gauge>* power_ = nullptr;
    prometheus::Family<prometheus::Gauge>* fanRpm_ = nullptr;
    prometheus::Family<prometheus::Gauge>* fanTarget_ = nullptr;
    prometheus::Family<prometheus::Gauge>* fanDuty_ = nullptr;
    prometheus::Family<prometheus::Gauge>* mode_ = nullptr;
    prometheus::Family<prometheus::Gauge>* status_ = nullptr;
    prometheus::Family<prometheus::Gauge>* throttleWarning_ = nullptr;
    prometheus::Family<prometheus::Gauge>* fansShared_ = nullptr;
    prometheus::Family<prometheus::Gauge>* benefitSeconds_ = nullptr;
    prometheus::Family<prometheus::Gauge>* benefitEvents_ = nullptr;
    prometheus::Family<prometheus::Counter>* ticks_ = nullptr;
    prometheus::Family<prometheus::Counter>* authoritySeconds_ = nullptr;
    prometheus::Family<prometheus::Histogram>* tickDuration_ = nullptr;

    prometheus::Gauge* cpuTemperature_ = nullptr;
    prometheus::Gauge* gpuTemperature_ = nullptr;
    prometheus::Gauge* cpuClock_ = nullptr;
    prometheus::Gauge* gpuClock_ = nullptr;
    prometheus::Gauge* totalPower_ = nullptr;
    std::map<std::string, FanSeries> fans_;  // by identity
    std::optional<double> lastTimestamp_;
};

}  // namespace kelvo
