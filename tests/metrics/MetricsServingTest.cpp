// How the exporter serves: /metrics and nothing else, GET and HEAD alike, and a scrape answered
// while other clients hold connections open without finishing a request.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vector>

#include "app/MetricsExporter.h"
#include "tests/metrics/HttpGet.h"

namespace kelvo {
namespace {

using test_support::freeLoopbackPort;
using test_support::httpExchange;
using test_support::httpGet;
using test_support::openIdleConnection;

std::unique_ptr<MetricsExporter> startOnFreePort(int& port) {
    port = freeLoopbackPort();
    QString error;
    auto exporter = MetricsExporter::start({QStringLiteral("127.0.0.1"), port}, &error);
    EXPECT_TRUE(exporter) << error.toStdString();
    return exporter;
}

std::string request(const std::string& method, const std::string& target) {
    return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
}

ControlSnapshot oneTick() {
    ControlSnapshot snapshot;
    snapshot.sample.timestamp = 1000;
    snapshot.sample.cpuTemperatureC = 55;
    snapshot.mode = ControlMode::quiet;
    snapshot.status = ControlStatus::controlling;
    return snapshot;
}

TEST(MetricsServing, OnlyTheExactPathAnswersGetAndHead) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    exporter->update(oneTick(), {});
    for (const char* target : {"/metrics", "/metrics?name[]=kelvo_fan_rpm"}) {
        const auto get = httpExchange(port, request("GET", target));
        EXPECT_EQ(get.status, 200) << target;
        EXPECT_NE(get.body.find("kelvo_temperature_celsius{die=\"cpu\"} 55"), std::string::npos)
            << target << get.body;
        const auto head = httpExchange(port, request("HEAD", target));
        EXPECT_EQ(head.status, 200) << target;
        EXPECT_NE(head.headers.find("Content-Type: text/plain"), std::string::npos) << head.headers;
        EXPECT_TRUE(head.body.empty()) << head.body;
    }
    for (const char* target :
         {"/METRICS", "//metrics", "/x/../metrics", "/%6detrics", "/metrics%00", "/metrics/",
          "/metrics/.", "/./metrics", "/Metrics", "/metrics%2f", "metrics", "/index.html"}) {
        EXPECT_EQ(httpExchange(port, request("GET", target)).status, 404) << target;
        const auto head = httpExchange(port, request("HEAD", target));
        EXPECT_EQ(head.status, 404) << target;
        EXPECT_TRUE(head.body.empty()) << target << head.body;
    }
}

TEST(MetricsServing, AScrapeIsAnsweredBesideConnectionsThatNeverFinishARequest) {
    int port = 0;
    auto exporter = startOnFreePort(port);
    ASSERT_TRUE(exporter);
    exporter->update(oneTick(), {});
    std::vector<int> idle;
    for (int i = 0; i < 50; ++i) {
        const int fd = openIdleConnection(port);
        ASSERT_GE(fd, 0);
        // Half of them start a request and stop in the middle of it.
        if (i % 2) {
            ASSERT_GT(::write(fd, "GET /metr", 9), 0);
        }
        idle.push_back(fd);
    }
    const auto scrape = httpGet(port, "/metrics", 20);
    EXPECT_EQ(scrape.status, 200);
    for (int fd : idle) ::close(fd);
}

}  // namespace
}  // namespace kelvo
