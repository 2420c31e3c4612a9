// The HTTP side of `--metrics-listen`: one thread that multiplexes every connection with poll(),
// so a client that connects and then sends slowly, or nothing, costs a file descriptor and never
// a worker another scrape waits for. Each connection gets a bounded time to send its request
// and to take the answer; past the connection cap the oldest connection makes way. Only the
// exact path /metrics (with or without a query) is served, to GET and HEAD; anything else is
// 404, another method 405.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace kelvo {

class MetricsHttpServer {
public:
    struct Limits {
        // From accepting a connection to the end of its request's headers.
        std::chrono::milliseconds requestTimeout{3000};
        // From the end of the request to the last byte of the answer taken by the client.
        std::chrono::milliseconds responseTimeout{10000};
        std::size_t maxConnections = 512;
        std::size_t maxRequestBytes = 8192;
    };
    // The scrape body; called on the server's thread.
    using Render = std::function<std::string()>;

    // Listens on `host` ("127.0.0.1", "0.0.0.0", "[::1]") and `port` (0: the system picks);
    // none with `error` set to the reason when it cannot.
    static std::unique_ptr<MetricsHttpServer> listen(const std::string& host, int port,
                                                     Render render, std::string* error,
                                                     Limits limits);
    ~MetricsHttpServer();
    MetricsHttpServer(const MetricsHttpServer&) = delete;
    MetricsHttpServer& operator=(const MetricsHttpServer&) = delete;

    int port() const { return port_; }

    // The whole answer to one request head (request line and headers, without the blank line).
    static std::string respond(std::string_view head, const Render& render);

private:
    struct Connection;
    MetricsHttpServer(int listener, int wake, int port, Render render, Limits limits);
    void run();

    int listener_;
    int wake_;
    int port_;
    Render render_;
    Limits limits_;
    std::thread thread_;
};

}  // namespace kelvo
