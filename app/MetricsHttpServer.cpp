#include "app/MetricsHttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace kelvo {

namespace {

using Clock = std::chrono::steady_clock;

std::string answer(int status, const char* reason, const std::string& contentType,
                   const std::string& body, bool withBody, const char* extraHeader = nullptr) {
    std::string out = "HTTP/1.1 " + std::to_string(status) + " " + reason + "\r\n";
    out += "Content-Type: " + contentType + "\r\n";
    out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    if (extraHeader) out += std::string(extraHeader) + "\r\n";
    out += "Connection: close\r\n\r\n";
    if (withBody) out += body;
    return out;
}

std::string plain(int status, const char* reason, bool withBody,
                  const char* extraHeader = nullptr) {
    return answer(status, reason, "text/plain; charset=utf-8", std::string(reason) + "\n", withBody,
                  extraHeader);
}

// The end of the request's headers ("\r\n\r\n", or "\n\n" from a lenient client), or npos.
std::size_t headEnd(const std::string& buffer, std::size_t& terminatorLength) {
    const auto crlf = buffer.find("\r\n\r\n");
    const auto lf = buffer.find("\n\n");
    if (crlf != std::string::npos && (lf == std::string::npos || crlf < lf)) {
        terminatorLength = 4;
        return crlf;
    }
    terminatorLength = 2;
    return lf;
}

}  // namespace

struct MetricsHttpServer::Connection {
    int fd = -1;
    Clock::time_point accepted;
    Clock::time_point deadline;
    std::string in;
    std::string out;
    std::size_t sent = 0;
    bool answering = false;
};

std::string MetricsHttpServer::respond(std::string_view head, const Render& render) {
    const auto lineEnd = head.find_first_of("\r\n");
    const std::string_view line = head.substr(0, lineEnd);
    const auto firstSpace = line.find(' ');
    const auto lastSpace = line.rfind(' ');
    if (firstSpace == std::string_view::npos || lastSpace == firstSpace)
        return plain(400, "Bad Request", true);
    const std::string_view method = line.substr(0, firstSpace);
    const std::string_view target = line.substr(firstSpace + 1, lastSpace - firstSpace - 1);
    const std::string_view version = line.substr(lastSpace + 1);
    if (!version.starts_with("HTTP/1.") || target.empty() ||
        target.find(' ') != std::string_view::npos)
        return plain(400, "Bad Request", true);
    const bool isHead = method == "HEAD";
    if (method != "GET" && !isHead)
        return plain(405, "Method Not Allowed", true, "Allow: GET, HEAD");
    // The path as sent, byte for byte: no decoding, no case folding, no dot segments, so that
    // exactly one spelling of it is the metrics.
    const std::string_view path = target.substr(0, target.find('?'));
    // A person who opens the address in a browser is told where the metrics are.
    if (path == "/")
        return answer(200, "OK", "text/html; charset=utf-8",
                      "<!DOCTYPE html><html><head><title>Kelvo metrics</title></head><body>"
                      "<p>Kelvo's Prometheus metrics are at <a href=\"/metrics\">/metrics</a>."
                      "</p></body></html>\n",
                      !isHead);
    if (path != "/metrics") return plain(404, "Not Found", !isHead);
    return answer(200, "OK", "text/plain; version=0.0.4; charset=utf-8", render(), !isHead);
}

std::unique_ptr<MetricsHttpServer> MetricsHttpServer::listen(const std::string& host, int port,
                                                             Render render, std::string* error,
                                                             Limits limits) {
    auto fail = [&](const std::string& why) -> std::unique_ptr<MetricsHttpServer> {
        if (error) *error = why;
        return nullptr;
    };
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    const std::string bare = bracketed ? host.substr(1, host.size() - 2) : host;
    sockaddr_storage storage{};
    socklen_t length = 0;
    int family = AF_INET;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (::inet_pton(AF_INET, bare.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in);
    } else if (::inet_pton(AF_INET6, bare.c_str(), &v6->sin6_addr) == 1) {
        family = AF_INET6;
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(sockaddr_in6);
    } else {
        return fail("not a numeric address");
    }
    const int listener = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener < 0) return fail(std::strerror(errno));
    const int on = 1;
    // A restarted Kelvo gets its port back at once; two listeners on one port still fail.
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&storage), length) != 0 ||
        ::listen(listener, SOMAXCONN) != 0) {
        const std::string why = std::strerror(errno);
        ::close(listener);
        return fail(why);
    }
    sockaddr_storage bound{};
    socklen_t boundLength = sizeof bound;
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &boundLength);
    const int boundPort =
        ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&bound)->sin_port
                                : reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    const int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        const std::string why = std::strerror(errno);
        ::close(listener);
        return fail(why);
    }
    return std::unique_ptr<MetricsHttpServer>(
        new MetricsHttpServer(listener, wake, boundPort, std::move(render), limits));
}

MetricsHttpServer::MetricsHttpServer(int listener, int wake, int port, Render render, Limits limits)
    : listener_(listener), wake_(wake), port_(port), render_(std::move(render)), limits_(limits) {
    thread_ = std::thread([this] { run(); });
}

MetricsHttpServer::~MetricsHttpServer() {
    const std::uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) < 0) {
        // The counter cannot overflow with one write; nothing else can fail here.
    }
    thread_.join();
    ::close(wake_);
    ::close(listener_);
}

void MetricsHttpServer::run() {
    std::vector<Connection> connections;
    std::vector<pollfd> polled;
    auto close = [&](std::size_t index) {
        ::close(connections[index].fd);
        connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(index));
    };
    auto closeOldest = [&] {
        const auto oldest = std::min_element(
            connections.begin(), connections.end(),
            [](const Connection& a, const Connection& b) { return a.accepted < b.accepted; });
        close(static_cast<std::size_t>(oldest - connections.begin()));
    };
    struct CloseAll {
        std::vector<Connection>& connections;
        ~CloseAll() {
            for (const auto& c : connections) ::close(c.fd);
        }
    } closeAll{connections};
    for (;;) {
        const auto now = Clock::now();
        // Whoever ran out of time goes: a slow sender, or a reader that does not take its answer.
        for (std::size_t i = connections.size(); i-- > 0;)
            if (connections[i].deadline <= now) close(i);
        int timeoutMs = -1;
        for (const auto& c : connections) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(c.deadline - now).count();
            timeoutMs = timeoutMs < 0 ? static_cast<int>(left)
                                      : std::min(timeoutMs, static_cast<int>(left));
        }
        polled.clear();
        polled.push_back({wake_, POLLIN, 0});
        polled.push_back({listener_, POLLIN, 0});
        for (const auto& c : connections)
            polled.push_back({c.fd, static_cast<short>(c.answering ? POLLOUT : POLLIN), 0});
        const int ready = ::poll(polled.data(), polled.size(), timeoutMs);
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0) continue;
        if (polled[0].revents) return;

        // Connections first (their indices match `polled` until one closes), newest last.
        for (std::size_t p = polled.size(); p-- > 2;) {
            if (!polled[p].revents) continue;
            const std::size_t i = p - 2;
            Connection& c = connections[i];
            if (!c.answering) {
                char buffer[2048];
                const ssize_t n = ::recv(c.fd, buffer, sizeof buffer, 0);
                if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
                if (n <= 0) {
                    close(i);
                    continue;
                }
                c.in.append(buffer, static_cast<std::size_t>(n));
                std::size_t terminator = 0;
                const auto end = headEnd(c.in, terminator);
                if (end == std::string::npos && c.in.size() < limits_.maxRequestBytes) continue;
                c.out = end == std::string::npos
                            ? plain(431, "Request Header Fields Too Large", true)
                            : respond(std::string_view(c.in).substr(0, end), render_);
                c.in.clear();
                c.answering = true;
                c.deadline = Clock::now() + limits_.responseTimeout;
            }
            if (polled[p].revents & (POLLERR | POLLHUP | POLLNVAL) &&
                !(polled[p].revents & POLLOUT)) {
                close(i);
                continue;
            }
            const ssize_t n =
                ::send(c.fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n < 0) {
                close(i);
                continue;
            }
            c.sent += static_cast<std::size_t>(n);
            if (c.sent == c.out.size()) {
                ::shutdown(c.fd, SHUT_WR);
                close(i);
            }
        }

        if (polled[1].revents & POLLIN) {
            for (;;) {
                const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (fd < 0) {
                    // Out of descriptors: make room rather than spin on a listener that stays
                    // readable.
                    if ((errno == EMFILE || errno == ENFILE) && !connections.empty()) {
                        closeOldest();
                        continue;
                    }
                    break;
                }
                // At the cap the connection that has had the longest makes way: a client that
                // holds connections open cannot keep a new scrape out.
                if (connections.size() >= limits_.maxConnections) closeOldest();
                Connection c;
                c.fd = fd;
                c.accepted = Clock::now();
                c.deadline = c.accepted + limits_.requestTimeout;
                connections.push_back(std::move(c));
            }
        }
    }
}

}  // namespace kelvo
