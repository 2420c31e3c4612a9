// HelperClient against stand-in servers on a real socket: a helper whose backlog is full, and one
// that closes a new connection before answering.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "foundation/helper_protocol/HelperClient.h"
#include "foundation/helper_protocol/HelperProtocol.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

namespace hp = helper_protocol;
using namespace std::chrono_literals;

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof(address.sun_path) - 1));
    return address;
}

// A listening socket that the test accepts on by hand.
class StandInServer {
public:
    explicit StandInServer(int backlog) {
        dir_ = test_support::makeTempDir("kelvo-helper-standin");
        path_ = (dir_ / "helper.sock").string();
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(path_);
        ok_ = fd_ >= 0 &&
              ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
              ::listen(fd_, backlog) == 0;
    }
    ~StandInServer() {
        if (fd_ >= 0) ::close(fd_);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    StandInServer(const StandInServer&) = delete;
    StandInServer& operator=(const StandInServer&) = delete;

    bool ok() const { return ok_; }
    const std::string& path() const { return path_; }
    int accept(std::chrono::milliseconds limit) const {
        pollfd descriptor{fd_, POLLIN, 0};
        if (::poll(&descriptor, 1, static_cast<int>(limit.count())) <= 0) return -1;
        return ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    }

private:
    std::filesystem::path dir_;
    std::string path_;
    int fd_ = -1;
    bool ok_ = false;
};

TEST(HelperClientConnect, AFullBacklogIsABusyHelperNotAMissingOne) {
    StandInServer server(0);
    ASSERT_TRUE(server.ok());
    // Nobody accepts: connect until the backlog refuses more.
    std::vector<int> queued;
    for (int i = 0; i < 64; ++i) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(server.path());
        const bool connected =
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        if (!connected) {
            ASSERT_EQ(errno, EAGAIN) << std::strerror(errno);
            ::close(fd);
            break;
        }
        queued.push_back(fd);
    }
    ASSERT_LT(queued.size(), 64u) << "the backlog never filled";

    HelperClient client(server.path(), 100);
    const HelperCallResult call = client.call(hp::Request::of(hp::Op::version));
    EXPECT_EQ(call.failure, HelperCallResult::Failure::timedOut);
    EXPECT_NE(call.error.find("too many clients are connecting"), std::string::npos) << call.error;
    EXPECT_TRUE(HelperClient::reachable(server.path(), 100));
    for (int fd : queued) ::close(fd);
}

TEST(HelperClientConnect, ANewConnectionClosedBeforeItsAnswerIsTriedOnceMore) {
    StandInServer server(4);
    ASSERT_TRUE(server.ok());
    std::atomic<int> accepted = 0;
    std::thread helper([&] {
        // The first connection is closed unanswered, as a helper making room would close it.
        const int first = server.accept(10s);
        if (first < 0) return;
        ++accepted;
        ::close(first);
        const int second = server.accept(10s);
        if (second < 0) return;
        ++accepted;
        hp::FrameReader reader;
        char buffer[1024];
        for (;;) {
            if (reader.next().status == hp::FrameReader::Status::frame) break;
            const ssize_t n = ::recv(second, buffer, sizeof(buffer), 0);
            if (n <= 0) break;
            reader.append(std::string_view(buffer, static_cast<std::size_t>(n)));
        }
        const auto reply =
            hp::encodeFrame(hp::encodeReply(hp::Reply::success(hp::encodeVersionInfo({"9.9"}))));
        [[maybe_unused]] const ssize_t sent =
            ::send(second, reply->data(), reply->size(), MSG_NOSIGNAL);
        ::close(second);
    });

    HelperClient client(server.path(), 1000, 5000);
    const HelperCallResult call = client.call(hp::Request::of(hp::Op::version));
    helper.join();
    ASSERT_TRUE(call.ok()) << call.errorText();
    EXPECT_EQ(hp::decodeVersionInfo(call.reply.data).value->version, "9.9");
    EXPECT_EQ(accepted, 2);
    EXPECT_EQ(client.connectionNumber(), 2u);
}

}  // namespace
}  // namespace kelvo
