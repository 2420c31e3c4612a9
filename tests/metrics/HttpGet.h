// A plain HTTP/1.0 GET over a loopback socket, for the metrics tests: no client library
// between the test and what the server really sends.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

namespace kelvo::test_support {

struct HttpResponse {
    int status = 0;  // 0: no answer
    std::string headers;
    std::string body;
};

// Sends `request` as it is (any method, any target) and reads the answer until the server
// closes the connection.
inline HttpResponse httpExchange(int port, const std::string& request, int timeoutSeconds = 10) {
    HttpResponse response;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return response;
    timeval timeout{timeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return response;
    }
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size())) {
        ::close(fd);
        return response;
    }
    std::string raw;
    char buffer[8192];
    for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) raw.append(buffer, n);
    ::close(fd);
    const auto end = raw.find("\r\n\r\n");
    if (!raw.starts_with("HTTP/") || end == std::string::npos) return response;
    response.status = std::stoi(raw.substr(raw.find(' ') + 1, 3));
    response.headers = raw.substr(0, end);
    response.body = raw.substr(end + 4);
    return response;
}

inline HttpResponse httpGet(int port, const std::string& path, int timeoutSeconds = 10) {
    return httpExchange(port, "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n",
                        timeoutSeconds);
}

// A loopback connection to `port` that has sent nothing; -1 when none could be opened.
inline int openIdleConnection(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A port nothing listens on now (the system's pick for a socket bound to port 0).
inline int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

}  // namespace kelvo::test_support
