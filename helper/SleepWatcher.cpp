#include "helper/SleepWatcher.h"

#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>

namespace kelvo::helperd {

namespace {

constexpr const char* kLogind = "org.freedesktop.login1";
constexpr const char* kManagerPath = "/org/freedesktop/login1";
constexpr const char* kManagerInterface = "org.freedesktop.login1.Manager";
// Caps how many queued messages one process() call handles, so the clients are not starved.
constexpr int kMaxMessagesPerRound = 64;

std::string errorText(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

}  // namespace

SleepWatcher::SleepWatcher(Logger log, Handler handler)
    : log_(log ? std::move(log) : Logger([](const std::string&) {})),
      handler_(std::move(handler)) {}

SleepWatcher::~SleepWatcher() {
    sd_bus_slot_unref(slot_);
    sd_bus_flush_close_unref(bus_);
}

bool SleepWatcher::start() {
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        log_("no system bus (" + errorText(r) +
             "): sleep and resume are not followed; fans stay as they are across a suspend");
        return false;
    }
    bus_ = bus;
    // Only logind's own signal counts: the bus daemon matches the sender against the name's
    // owner, so another peer cannot make the helper give fans back.
    r = sd_bus_match_signal_async(bus_, &slot_, kLogind, kManagerPath, kManagerInterface,
                                  "PrepareForSleep", &SleepWatcher::onSignal,
                                  &SleepWatcher::onMatchInstalled, this);
    if (r < 0) {
        drop("cannot subscribe to PrepareForSleep: " + errorText(r));
        return false;
    }
    return true;
}

void SleepWatcher::drop(const std::string& why) {
    log_(why + "; sleep and resume are no longer followed");
    sd_bus_slot_unref(slot_);
    slot_ = nullptr;
    sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
}

int SleepWatcher::fd() const {
    return bus_ ? sd_bus_get_fd(bus_) : -1;
}

short SleepWatcher::events() const {
    if (!bus_) return 0;
    const int r = sd_bus_get_events(bus_);
    return r < 0 ? short(POLLIN) : static_cast<short>(r);
}

int SleepWatcher::timeoutMs() const {
    if (!bus_) return -1;
    std::uint64_t deadline = 0;
    if (sd_bus_get_timeout(bus_, &deadline) < 0 ||
        deadline == std::numeric_limits<std::uint64_t>::max()) {
        return -1;
    }
    // sd-bus deadlines are CLOCK_MONOTONIC microseconds.
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t nowUs = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                                static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
    if (deadline <= nowUs) return 0;
    return static_cast<int>(std::min<std::uint64_t>((deadline - nowUs + 999) / 1000, 60000));
}

void SleepWatcher::process() {
    for (int round = 0; bus_ && round < kMaxMessagesPerRound; ++round) {
        const int r = sd_bus_process(bus_, nullptr);
        if (r < 0) {
            drop("system bus connection failed (" + errorText(r) + ")");
            return;
        }
        if (r == 0) return;
    }
}

int SleepWatcher::onMatchInstalled(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
        watcher->log_(std::string("the system bus refused the PrepareForSleep match: ") +
                      (error->message ? error->message : "unknown error"));
    } else {
        // Only now can a signal arrive.
        watcher->log_("following sleep and resume through logind on the system bus");
    }
    return 0;
}

int SleepWatcher::onSignal(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    int goingToSleep = 0;
    const int r = sd_bus_message_read(message, "b", &goingToSleep);
    if (r < 0) {
        watcher->log_("ignoring a PrepareForSleep signal without a boolean: " + errorText(r));
        return 0;
    }
    if (watcher->handler_) watcher->handler_(goingToSleep != 0);
    return 0;
}

}  // namespace kelvo::helperd
