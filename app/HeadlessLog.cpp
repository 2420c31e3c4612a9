#include "app/HeadlessLog.h"

#include <QDateTime>
#include <QStringList>

namespace kelvo {

namespace {
QString number(const std::optional<double>& value, int decimals, const char* unit) {
    if (!value) return QStringLiteral("n/a");
    return QString::number(*value, 'f', decimals) + QLatin1String(unit);
}

QString fanList(const std::vector<double>& rpm) {
    if (rpm.empty()) return QStringLiteral("n/a");
    QStringList parts;
    bool anyReadable = false;
    for (double value : rpm) {
        anyReadable = anyReadable || isReadableRPM(value);
        parts << (isReadableRPM(value) ? QString::number(value, 'f', 0) : QStringLiteral("n/a"));
    }
    // "1200,n/a rpm" for a fan whose speed cannot be read; "n/a" alone when none can.
    if (!anyReadable) return QStringLiteral("n/a");
    return parts.join(QLatin1Char(',')) + (isReadableRPM(rpm.back()) ? "rpm" : " rpm");
}
}  // namespace

QString headlessLine(const TelemetrySample& sample, ControlMode mode, ControlStatus status,
                     bool throttleWarning) {
    const auto time = QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(sample.timestamp * 1000));
    return QStringLiteral(
               "%1 mode=%2 status=%3 cpu=%4 gpu=%5 cpuClock=%6 gpuClock=%7 power=%8 "
               "fans=%9 warning=%10")
        .arg(time.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss")),
             QString::fromUtf8(rawValue(mode).data()), QString::fromUtf8(rawValue(status).data()),
             number(sample.cpuTemperatureC, 1, "C"), number(sample.gpuTemperatureC, 1, "C"),
             number(sample.cpuClockMHz, 0, "MHz"), number(sample.gpuClockMHz, 0, "MHz"),
             number(sample.totalPowerW, 1, "W"), fanList(sample.fanCurrentRPM))
        .arg(throttleWarning ? QStringLiteral("yes") : QStringLiteral("no"));
}

}  // namespace kelvo
