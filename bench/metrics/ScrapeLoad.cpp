// What many Prometheus scrapes at once cost a running kelvo: 100 clients scraping /metrics as
// fast as they can for 10 s, twice, against `kelvo --headless --harness-simulated-fans
// --metrics-listen`. Prints scrapes served, kelvo's CPU per scrape, the control loop's cadence
// (ticks counted by kelvo itself, and the longest gap between its once-a-tick log lines as they
// arrived here) and resident memory before, between and after the rounds.
// What it cannot show: a remote scraper's network, or Prometheus' own cost; loopback only.
//
// `kelvo_scrape_load --slow-clients 0,2,200` measures instead how long one scrape takes beside
// N slow clients: half of them connect and send nothing, half send a request's first bytes and
// then one more byte a second, never finishing it. Three scrapes per N, each given 30 s.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/metrics/HttpGet.h"

namespace {

using Clock = std::chrono::steady_clock;
using kelvo::test_support::httpGet;

constexpr int kClients = 100;
constexpr auto kRound = std::chrono::seconds(10);

struct Kelvo {
    pid_t pid = -1;
    int out = -1;
};

Kelvo launch(int port, const std::string& home) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) std::exit(1);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        ::setenv("XDG_CONFIG_HOME", (home + "/config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (home + "/data").c_str(), 1);
        const std::string listen = "127.0.0.1:" + std::to_string(port);
        ::execl(KELVO_BIN, KELVO_BIN, "--headless", "--harness-simulated-fans", "--metrics-listen",
                listen.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    return {pid, pipeFds[0]};
}

double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) {
            stime = std::stoull(field);
            break;
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

long rssKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

double ticks(int port) {
    const auto body = httpGet(port, "/metrics").body;
    const auto at = body.find("\nkelvo_control_ticks_total ");
    return at == std::string::npos ? -1 : std::stod(body.substr(at + 27));
}

// The longest gap between two log lines (one per tick) seen while `watching` is set.
struct LineWatch {
    std::mutex mutex;
    Clock::time_point last{};
    double longestGapS = 0;
    bool watching = false;
};

// N connections that never finish a request, the trickling half fed by a thread of its own.
class SlowClients {
public:
    SlowClients(int port, int count) {
        for (int i = 0; i < count; ++i) {
            const int fd = kelvo::test_support::openIdleConnection(port);
            if (fd < 0) continue;
            (i % 2 ? trickling_ : idle_).push_back(fd);
        }
        for (int fd : trickling_)
            if (::send(fd, "GET /metrics HTTP/1.1\r\n", 23, MSG_NOSIGNAL) < 0) continue;
        feeder_ = std::thread([this] {
            while (!stop_) {
                for (int fd : trickling_)
                    if (::send(fd, "X", 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) continue;
                for (int i = 0; i < 10 && !stop_; ++i)
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
        });
    }
    ~SlowClients() {
        stop_ = true;
        feeder_.join();
        for (int fd : idle_) ::close(fd);
        for (int fd : trickling_) ::close(fd);
    }
    std::size_t opened() const { return idle_.size() + trickling_.size(); }

private:
    std::vector<int> idle_;
    std::vector<int> trickling_;
    std::atomic<bool> stop_ = false;
    std::thread feeder_;
};

int slowClientScrapes(int port, const std::string& counts) {
    std::istringstream list(counts);
    for (std::string item; std::getline(list, item, ',');) {
        const int count = std::stoi(item);
        SlowClients slow(port, count);
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::printf("%d slow clients (%zu connected):", count, slow.opened());
        for (int i = 0; i < 3; ++i) {
            const auto start = Clock::now();
            const int status = httpGet(port, "/metrics", 30).status;
            const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
            if (status == 200)
                std::printf(" %.3f s", seconds);
            else
                std::printf(" no answer after %.1f s", seconds);
            std::fflush(stdout);
        }
        std::printf("\n");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string slowCounts;
    for (int i = 1; i + 1 < argc; ++i)
        if (std::string(argv[i]) == "--slow-clients") slowCounts = argv[i + 1];
    char homeTemplate[] = "/tmp/kelvo-scrape-XXXXXX";
    const std::string home = ::mkdtemp(homeTemplate);
    const int port = kelvo::test_support::freeLoopbackPort();
    Kelvo kelvo = launch(port, home);

    LineWatch watch;
    std::thread reader([&] {
        char buffer[4096];
        for (ssize_t n; (n = ::read(kelvo.out, buffer, sizeof buffer)) > 0;) {
            const auto now = Clock::now();
            std::lock_guard lock(watch.mutex);
            for (ssize_t i = 0; i < n; ++i) {
                if (buffer[i] != '\n') continue;
                if (watch.watching && watch.last != Clock::time_point{})
                    watch.longestGapS = std::max(
                        watch.longestGapS, std::chrono::duration<double>(now - watch.last).count());
                watch.last = now;
            }
        }
    });

    const auto started = Clock::now();
    while (httpGet(port, "/metrics", 1).status != 200) {
        if (Clock::now() - started > std::chrono::seconds(30)) {
            std::fprintf(stderr, "kelvo never served /metrics\n");
            ::kill(kelvo.pid, SIGKILL);
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::this_thread::sleep_for(std::chrono::seconds(5));  // past start-up
    if (!slowCounts.empty()) {
        slowClientScrapes(port, slowCounts);
        ::kill(kelvo.pid, SIGTERM);
        ::waitpid(kelvo.pid, nullptr, 0);
        reader.join();
        std::string cleanup = "rm -rf '" + home + "'";
        if (std::system(cleanup.c_str()) != 0)
            std::fprintf(stderr, "cannot remove %s\n", home.c_str());
        return 0;
    }

    // Idle first: what kelvo costs with one scrape a second, as Prometheus would.
    const double idleCpu0 = cpuSeconds(kelvo.pid);
    const auto idleStart = Clock::now();
    while (Clock::now() - idleStart < kRound) {
        httpGet(port, "/metrics");
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    const double idleCpuPerS = (cpuSeconds(kelvo.pid) - idleCpu0) /
                               std::chrono::duration<double>(Clock::now() - idleStart).count();
    std::printf("kelvo with one scrape a second: %.4f CPU s per s, RSS %ld KiB\n", idleCpuPerS,
                rssKiB(kelvo.pid));

    for (int round = 1; round <= 2; ++round) {
        const double ticks0 = ticks(port);
        const double cpu0 = cpuSeconds(kelvo.pid);
        {
            std::lock_guard lock(watch.mutex);
            watch.watching = true;
            watch.longestGapS = 0;
        }
        std::atomic<long> served = 0;
        std::atomic<long> failed = 0;
        const auto end = Clock::now() + kRound;
        const auto roundStart = Clock::now();
        std::vector<std::thread> clients;
        for (int i = 0; i < kClients; ++i)
            clients.emplace_back([&] {
                while (Clock::now() < end) {
                    if (httpGet(port, "/metrics").status == 200)
                        ++served;
                    else
                        ++failed;
                }
            });
        for (auto& client : clients) client.join();
        const double seconds = std::chrono::duration<double>(Clock::now() - roundStart).count();
        const double cpu = cpuSeconds(kelvo.pid) - cpu0;
        const double ticked = ticks(port) - ticks0;
        double longestGap = 0;
        {
            std::lock_guard lock(watch.mutex);
            watch.watching = false;
            longestGap = watch.longestGapS;
        }
        const double scrapeCpu = cpu - idleCpuPerS * seconds;
        std::printf(
            "round %d: %d clients for %.1f s: %ld scrapes served (%.0f/s), %ld failed; kelvo CPU "
            "%.2f s (%.3f ms per scrape above idle); control loop %.0f ticks in %.1f s, longest "
            "gap between tick lines %.2f s; RSS %ld KiB\n",
            round, kClients, seconds, served.load(), static_cast<double>(served) / seconds,
            failed.load(), cpu, served > 0 ? scrapeCpu * 1000 / static_cast<double>(served) : 0,
            ticked, seconds, longestGap, rssKiB(kelvo.pid));
    }

    ::kill(kelvo.pid, SIGTERM);
    int status = 0;
    ::waitpid(kelvo.pid, &status, 0);
    reader.join();
    std::string cleanup = "rm -rf '" + home + "'";
    if (std::system(cleanup.c_str()) != 0) std::fprintf(stderr, "cannot remove %s\n", home.c_str());
    return 0;
}
