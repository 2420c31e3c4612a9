#include "app/MetricsListenAddress.h"

#include <QHostAddress>

namespace kelvo {

std::optional<MetricsListenAddress> parseMetricsListenAddress(const QString& text, QString* error) {
    auto fail = [&](const QString& why) -> std::optional<MetricsListenAddress> {
        if (error) *error = why;
        return std::nullopt;
    };
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    const QString portText = colon < 0 ? text : text.mid(colon + 1);
    QString host = colon < 0 ? QString() : text.left(colon);
    bool ok = false;
    const int port = portText.toInt(&ok);
    if (!ok || port < 1 || port > 65535)
        return fail(QStringLiteral("'%1' has no port between 1 and 65535").arg(text));
    if (host.isEmpty()) host = QStringLiteral("127.0.0.1");
    const bool bracketed = host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']'));
    const QString bare = bracketed ? host.mid(1, host.size() - 2) : host;
    QHostAddress address;
    if (!address.setAddress(bare))
        return fail(QStringLiteral("'%1' is not a numeric IPv4 or IPv6 address").arg(host));
    if (address.protocol() == QAbstractSocket::IPv6Protocol && !bracketed)
        host = QLatin1Char('[') + bare + QLatin1Char(']');
    return MetricsListenAddress{host, port};
}

}  // namespace kelvo
