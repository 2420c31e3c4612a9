// The address `--metrics-listen` names: "PORT", ":PORT" or "HOST:PORT" ("[V6]:PORT"). Without a
// host it is loopback: metrics leave the machine only when the user says so.
#pragma once

#include <QString>
#include <optional>

namespace kelvo {

struct MetricsListenAddress {
    QString host;  // as civetweb takes it: "127.0.0.1", "0.0.0.0", "[::1]"
    int port = 0;
    QString bindSpec() const { return host + QLatin1Char(':') + QString::number(port); }
};

// None with `error` set when the text is not an address and port.
std::optional<MetricsListenAddress> parseMetricsListenAddress(const QString& text, QString* error);

}  // namespace kelvo
