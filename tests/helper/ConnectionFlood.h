// Many clients that keep connecting to a helper socket and say nothing, for the helper's tests
// and benchmarks.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelvo::test_support {

// `count` clients that connect and say nothing; each connection the helper closes or refuses
// is opened again at once, so the helper sees `count` clients connecting for as long as this
// lives. Runs on its own thread.
class ConnectionFlood {
public:
    ConnectionFlood(std::string path, int count)
        : path_(std::move(path)), fds_(static_cast<std::size_t>(count), -1) {
        for (int& fd : fds_) fd = open();
        thread_ = std::thread([this] { run(); });
    }
    ~ConnectionFlood() {
        stop_ = true;
        thread_.join();
        for (int fd : fds_) {
            if (fd >= 0) ::close(fd);
        }
    }
    ConnectionFlood(const ConnectionFlood&) = delete;
    ConnectionFlood& operator=(const ConnectionFlood&) = delete;

    double connectsPerSecond() const {
        const std::chrono::duration<double> lived = std::chrono::steady_clock::now() - started_;
        return static_cast<double>(connects_) / lived.count();
    }

private:
    // A non-blocking connection, or -1 while the helper's backlog is full.
    int open() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path_.data(),
                    std::min(path_.size(), sizeof(address.sun_path) - 1));
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) return -1;
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            ::close(fd);
            return -1;
        }
        ++connects_;
        return fd;
    }

    void run() {
        std::vector<pollfd> descriptors;
        std::vector<std::size_t> owners;
        while (!stop_) {
            descriptors.clear();
            owners.clear();
            for (std::size_t i = 0; i < fds_.size(); ++i) {
                if (fds_[i] < 0) fds_[i] = open();
                if (fds_[i] < 0) continue;
                descriptors.push_back({fds_[i], POLLIN, 0});
                owners.push_back(i);
            }
            // Short, so that connections refused by a full backlog are retried soon.
            if (::poll(descriptors.data(), descriptors.size(), 5) <= 0) continue;
            for (std::size_t k = 0; k < descriptors.size(); ++k) {
                if (descriptors[k].revents == 0) continue;
                // Closed by the helper (silence, room for another client) or refused with a
                // reply: either way this client connects again.
                ::close(fds_[owners[k]]);
                fds_[owners[k]] = -1;
            }
        }
    }

    std::string path_;
    std::vector<int> fds_;
    std::atomic<bool> stop_ = false;
    std::atomic<std::uint64_t> connects_ = 0;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::thread thread_;
};

}  // namespace kelvo::test_support
