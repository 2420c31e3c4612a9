// The Prometheus exporter on a real socket: what a scrape holds for a snapshot, what it leaves
// out, paths other than /metrics, an address that cannot be had, and promtool's verdict.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "app/MetricsExporter.h"
#include "tests/metrics/HttpGet.h"

namespace kelvo {
namespace {

using test_support::freeLoopbackPort;
using test_support::httpGet;

ControlSnapshot twoFanSnapshot() {
    ControlSnapshot snapshot;
    snapshot.sample.timestamp = 1000;
    snapshot.sample.cpuTemperatureC = 71.5;
    snapshot.sample.cpuClockMHz = 4200;
    snapshot.sample.gpuClockMHz = 1800;
    snapshot.sample.totalPowerW = 88.25;
    snapshot.sample.fanNames = {"nct6798@/sys/devices/platform/nct6775.656#fan1", "Case fan"};
    snapshot.sample.fanCurrentRPM = {2400, kUnreadableRPM};
    snapshot.sample.fanTargetRPM = {2500, 0};
    snapshot.sample.fanMinRPM = {1000, 600};
    snapshot.sample.fanMaxRPM = {4000, 2000};
    snapshot.mode = ControlMode::quiet;
    snapshot.status = ControlStatus::controlling;
    snapshot.authority = ControlAuthorityState::kelvo;
    snapshot.throttleWarning = true;
    snapshot.tickDurationSeconds = 0.003;
    return snapshot;
}

std::unique_ptr<MetricsExporter> startOnFreePort(int& port) {
    port = freeLoopbackPort();
    QString error;
    auto exporter = MetricsExporter::start({QStringLiteral("127.0.0.1"), port}, &error);
    EXPECT_TRUE(exporter) << error.toStdString();
    return exporter;
}

bool has(const std::string& body, const std::string& line) {
    return body.find("\n" + line + "\n") != std::string::npos || body.rfind(line + "\n", 0) == 0;
}

TEST(MetricsExporter, AScrapeHoldsTheSnapshotInBaseUnitsWithFanIdentities) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    RuntimeBenefitSummary benefits;
    benefits.kelvoAuthoritySeconds = 120;
    benefits.interventionCount = 3;
    exporter->update(twoFanSnapshot(), benefits);
    auto next = twoFanSnapshot();
    next.sample.timestamp = 1001;
    next.fansShared = true;
    exporter->update(next, benefits);

    const auto response = httpGet(port, "/metrics");
    ASSERT_EQ(response.status, 200);
    const std::string& body = response.body;
    EXPECT_TRUE(has(body, R"(kelvo_temperature_celsius{die="cpu"} 71.5)")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_clock_hertz{die="cpu"} 4200000000)")) << body;
    EXPECT_TRUE(has(body, "kelvo_power_watts 88.25")) << body;
    const std::string fan1 =
        R"({fan="nct6798@/sys/devices/platform/nct6775.656#fan1",label="nct6798 fan1"})";
    EXPECT_TRUE(has(body, "kelvo_fan_rpm" + fan1 + " 2400")) << body;
    EXPECT_TRUE(has(body, "kelvo_fan_target_rpm" + fan1 + " 2500")) << body;
    EXPECT_TRUE(has(body, "kelvo_fan_duty_ratio" + fan1 + " 0.5")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_control_mode{kelvo_control_mode="quiet"} 1)")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_control_mode{kelvo_control_mode="systemAuto"} 0)")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_control_status{kelvo_control_status="controlling"} 1)"));
    EXPECT_TRUE(has(body, "kelvo_throttle_warning 1")) << body;
    EXPECT_TRUE(has(body, "kelvo_fans_shared 1")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_benefit_events_last_24h{register="interventions"} 3)")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_benefit_seconds_last_24h{register="kelvo_authority"} 120)"))
        << body;
    // Seconds and counts are two families: a sum over one of them means something.
    EXPECT_EQ(body.find("kelvo_benefit_last_24h"), std::string::npos) << body;
    EXPECT_TRUE(has(body, R"(kelvo_build_info{build=")" KELVO_BUILD_NUMBER_STRING
                          R"(",version=")" KELVO_VERSION_STRING R"("} 1)"))
        << body;
    EXPECT_TRUE(has(body, "kelvo_control_ticks_total 2")) << body;
    EXPECT_TRUE(has(body, "kelvo_fan_authority_seconds_total 1")) << body;
    EXPECT_TRUE(has(body, "kelvo_control_tick_duration_seconds_count 2")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_control_tick_duration_seconds_bucket{le="0.0025"} 0)"));
    // A healthy tick takes tens of microseconds: the lowest buckets tell them apart.
    EXPECT_TRUE(has(body, R"(kelvo_control_tick_duration_seconds_bucket{le="1e-05"} 0)")) << body;
    EXPECT_TRUE(has(body, R"(kelvo_control_tick_duration_seconds_bucket{le="0.005"} 2)"));
}

TEST(MetricsExporter, WhatCannotBeReadIsAbsentNotZero) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    exporter->update(twoFanSnapshot(), {});
    const std::string body = httpGet(port, "/metrics").body;
    EXPECT_EQ(body.find(R"(kelvo_temperature_celsius{die="gpu"})"), std::string::npos) << body;
    // The case fan's speed cannot be read and the firmware drives it: no speed, no target.
    EXPECT_EQ(body.find(R"(kelvo_fan_rpm{fan="Case fan")"), std::string::npos) << body;
    EXPECT_EQ(body.find(R"(kelvo_fan_target_rpm{fan="Case fan")"), std::string::npos) << body;
    // Every fan at one duty is a state, not a missing reading.
    EXPECT_TRUE(has(body, "kelvo_fans_shared 0")) << body;

    // A reading that goes away takes its series with it, and a vanished fan all of its own.
    auto later = twoFanSnapshot();
    later.sample.cpuTemperatureC.reset();
    later.sample.fanNames = {"Case fan"};
    later.sample.fanCurrentRPM = {900};
    later.sample.fanTargetRPM = {0};
    later.sample.fanMinRPM = {600};
    later.sample.fanMaxRPM = {2000};
    exporter->update(later, {});
    const std::string after = httpGet(port, "/metrics").body;
    EXPECT_EQ(after.find(R"(kelvo_temperature_celsius{die="cpu"})"), std::string::npos) << after;
    EXPECT_EQ(after.find("nct6798 fan1"), std::string::npos) << after;
    EXPECT_TRUE(has(after, R"(kelvo_fan_rpm{fan="Case fan",label="Case fan"} 900)")) << after;
}

TEST(MetricsExporter, AStoppedFanHasATargetOfZeroAtNoDuty) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    auto snapshot = twoFanSnapshot();
    snapshot.sample.fanCurrentRPM = {0, kUnreadableRPM};
    snapshot.sample.fanTargetRPM = {kFanStopRPM, 0};
    exporter->update(snapshot, {});
    const std::string body = httpGet(port, "/metrics").body;
    const std::string fan1 =
        R"({fan="nct6798@/sys/devices/platform/nct6775.656#fan1",label="nct6798 fan1"})";
    EXPECT_TRUE(has(body, "kelvo_fan_rpm" + fan1 + " 0")) << body;
    EXPECT_TRUE(has(body, "kelvo_fan_target_rpm" + fan1 + " 0")) << body;
    EXPECT_TRUE(has(body, "kelvo_fan_duty_ratio" + fan1 + " 0")) << body;
    EXPECT_EQ(body.find("-1"), std::string::npos) << body;
}

TEST(MetricsExporter, AnyOtherPathIsNotFound) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    for (const char* path : {"/metrics/x", "/metricsx", "/index.html", "/../etc/passwd"})
        EXPECT_EQ(httpGet(port, path).status, 404) << path;
}

TEST(MetricsExporter, TheRootPointsAPersonToTheMetrics) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    const auto root = httpGet(port, "/");
    EXPECT_EQ(root.status, 200);
    EXPECT_NE(root.headers.find("Content-Type: text/html"), std::string::npos) << root.headers;
    EXPECT_NE(root.body.find(R"(<a href="/metrics">)"), std::string::npos) << root.body;
}

TEST(MetricsExporter, AnIpv6LoopbackAddressIsServed) {
    const int port = freeLoopbackPort();
    QString error;
    auto exporter = MetricsExporter::start(
        *parseMetricsListenAddress(QStringLiteral("[::1]:%1").arg(port), &error), &error);
    if (!exporter && error.contains(QStringLiteral("Cannot assign requested address")))
        GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.toStdString();
    ASSERT_TRUE(exporter) << error.toStdString();
    exporter->update(twoFanSnapshot(), {});
    const int fd = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(static_cast<uint16_t>(port));
    address.sin6_addr = in6addr_loopback;
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string request = "GET /metrics HTTP/1.1\r\nHost: [::1]\r\n\r\n";
    ASSERT_EQ(::send(fd, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    std::string raw;
    char buffer[8192];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) raw.append(buffer, n);
    ::close(fd);
    EXPECT_TRUE(raw.starts_with("HTTP/1.1 200")) << raw.substr(0, 200);
    EXPECT_NE(raw.find(R"(kelvo_temperature_celsius{die="cpu"} 71.5)"), std::string::npos);
}

TEST(MetricsExporter, AnAddressThatCannotBeHadIsOneLineOfError) {
    int port = 0;
    auto first = startOnFreePort(port);
    ASSERT_TRUE(first);
    QString error;
    EXPECT_FALSE(MetricsExporter::start({QStringLiteral("127.0.0.1"), port}, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("cannot listen on 127.0.0.1:%1").arg(port)))
        << error.toStdString();
    EXPECT_FALSE(error.contains(QLatin1Char('\n')));
    // The first one still serves.
    EXPECT_EQ(httpGet(port, "/metrics").status, 200);
}

TEST(MetricsExporter, PromtoolAcceptsTheScrape) {
    if (std::system("promtool --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "promtool (Debian package prometheus) is not installed";
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    exporter->update(twoFanSnapshot(), {});
    const std::string body = httpGet(port, "/metrics").body;
    char path[] = "/tmp/kelvo-metrics-XXXXXX";
    const int fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(path) << body;
    const std::string command = std::string("promtool check metrics < ") + path + " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string said;
    char buffer[512];
    while (pipe && std::fgets(buffer, sizeof buffer, pipe)) said += buffer;
    const int status = pipe ? ::pclose(pipe) : -1;
    std::remove(path);
    EXPECT_EQ(status, 0) << said << body;
}

TEST(MetricsListenAddress, LoopbackUnlessAnotherAddressIsNamed) {
    QString error;
    EXPECT_EQ(parseMetricsListenAddress(QStringLiteral("9464"), &error)->bindSpec(),
              QStringLiteral("127.0.0.1:9464"));
    EXPECT_EQ(parseMetricsListenAddress(QStringLiteral(":9464"), &error)->bindSpec(),
              QStringLiteral("127.0.0.1:9464"));
    EXPECT_EQ(parseMetricsListenAddress(QStringLiteral("0.0.0.0:9100"), &error)->bindSpec(),
              QStringLiteral("0.0.0.0:9100"));
    EXPECT_EQ(parseMetricsListenAddress(QStringLiteral("[::1]:9100"), &error)->bindSpec(),
              QStringLiteral("[::1]:9100"));
    EXPECT_EQ(parseMetricsListenAddress(QStringLiteral("::1:9100"), &error)->bindSpec(),
              QStringLiteral("[::1]:9100"));
    for (const char* bad :
         {"", "abc", "127.0.0.1:0", "127.0.0.1:70000", "localhost:9100", "127.0.0.1:"}) {
        error.clear();
        EXPECT_FALSE(parseMetricsListenAddress(QString::fromLatin1(bad), &error)) << bad;
        EXPECT_FALSE(error.isEmpty()) << bad;
    }
}

}  // namespace
}  // namespace kelvo
