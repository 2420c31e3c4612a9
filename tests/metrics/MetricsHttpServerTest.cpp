// The server under its limits: a connection that never finishes its request is closed once its
// time is up, and past the connection cap the oldest connection makes way for a scrape.
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <vector>

#include "app/MetricsHttpServer.h"
#include "tests/metrics/HttpGet.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;
using test_support::httpExchange;
using test_support::httpGet;
using test_support::openIdleConnection;

std::unique_ptr<MetricsHttpServer> serve(MetricsHttpServer::Limits limits) {
    std::string error;
    auto server = MetricsHttpServer::listen(
        "127.0.0.1", 0, [] { return std::string("kelvo_up 1\n"); }, &error, limits);
    EXPECT_TRUE(server) << error;
    return server;
}

// Whether the server closed `fd` (end of stream) within `timeoutMs`, reading what it sent.
bool closedWithin(int fd, int timeoutMs) {
    pollfd polled{fd, POLLIN, 0};
    char buffer[512];
    while (::poll(&polled, 1, timeoutMs) > 0) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) return true;
    }
    return false;
}

TEST(MetricsHttpServer, AConnectionThatNeverFinishesItsRequestIsClosed) {
    MetricsHttpServer::Limits limits;
    limits.requestTimeout = 200ms;
    auto server = serve(limits);
    ASSERT_TRUE(server);
    const int silent = openIdleConnection(server->port());
    const int partial = openIdleConnection(server->port());
    ASSERT_GE(silent, 0);
    ASSERT_GE(partial, 0);
    ASSERT_GT(::write(partial, "GET /metrics HTTP/1.1\r\nHost: x\r\n", 32), 0);
    EXPECT_TRUE(closedWithin(silent, 20000));
    EXPECT_TRUE(closedWithin(partial, 20000));
    ::close(silent);
    ::close(partial);
}

TEST(MetricsHttpServer, PastTheCapTheOldestConnectionMakesWay) {
    MetricsHttpServer::Limits limits;
    limits.maxConnections = 4;
    limits.requestTimeout = 60s;  // only the cap can make room here
    auto server = serve(limits);
    ASSERT_TRUE(server);
    std::vector<int> idle;
    for (int i = 0; i < 20; ++i) idle.push_back(openIdleConnection(server->port()));
    const auto scrape = httpGet(server->port(), "/metrics", 20);
    EXPECT_EQ(scrape.status, 200);
    EXPECT_EQ(scrape.body, "kelvo_up 1\n");
    // The first connections were the ones closed to make room.
    EXPECT_TRUE(closedWithin(idle.front(), 20000));
    for (int fd : idle) ::close(fd);
}

TEST(MetricsHttpServer, AnOversizedRequestOrAnotherMethodIsRefused) {
    auto server = serve({});
    ASSERT_TRUE(server);
    const std::string huge = "GET /metrics HTTP/1.1\r\nX: " + std::string(20000, 'a') + "\r\n\r\n";
    EXPECT_EQ(httpExchange(server->port(), huge).status, 431);
    EXPECT_EQ(httpExchange(server->port(), "POST /metrics HTTP/1.1\r\n\r\n").status, 405);
    EXPECT_EQ(httpExchange(server->port(), "nonsense\r\n\r\n").status, 400);
}

TEST(MetricsHttpServer, HeadAnswersTheSameHeadersWithoutABody) {
    const MetricsHttpServer::Render render = [] { return std::string("kelvo_up 1\n"); };
    const std::string get = MetricsHttpServer::respond("GET /metrics HTTP/1.1", render);
    const std::string head = MetricsHttpServer::respond("HEAD /metrics HTTP/1.1", render);
    ASSERT_TRUE(get.ends_with("\r\n\r\nkelvo_up 1\n")) << get;
    EXPECT_EQ(head, get.substr(0, get.size() - std::string("kelvo_up 1\n").size()));
    EXPECT_NE(head.find("Content-Length: 11\r\n"), std::string::npos) << head;
}

}  // namespace
}  // namespace kelvo
