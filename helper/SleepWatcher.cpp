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
constexpr const char* kBusDriver = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
// The bus driver's own word on who owns logind's name; no peer can send as the driver.
constexpr const char* kOwnerChangedRule =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='org.freedesktop.login1'";
// A flood of forged signals is logged once per this interval, with a count.
constexpr auto kIgnoredLogInterval = std::chrono::seconds(10);
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
    sd_bus_slot_unref(ownerSlot_);
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
    // In this order, so that logind's owner is known before the first PrepareForSleep can
    // arrive and no change of owner falls between the query and the subscription: the bus
    // answers one connection's messages in the order they were sent.
    r = sd_bus_add_match_async(bus_, &ownerSlot_, kOwnerChangedRule, &SleepWatcher::onOwnerChanged,
                               &SleepWatcher::onOwnerMatchInstalled, this);
    if (r < 0) {
        drop("cannot follow the owner of " + std::string(kLogind) + ": " + errorText(r));
        return false;
    }
    // A floating call: the reply cannot outlive the bus, which this object closes.
    r = sd_bus_call_method_async(bus_, nullptr, kBusDriver, kBusPath, kBusDriver, "GetNameOwner",
                                 &SleepWatcher::onOwnerReply, this, "s", kLogind);
    if (r < 0) {
        drop("cannot ask for the owner of " + std::string(kLogind) + ": " + errorText(r));
        return false;
    }
    // The bus filters broadcasts by sender, but a signal sent to the helper's own name skips
    // that filter: onSignal() compares the sender with logind's owner itself.
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
    sd_bus_slot_unref(ownerSlot_);
    ownerSlot_ = nullptr;
    sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
    logindOwner_.clear();
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
        // Only now can a signal arrive; the owner's answer came before this one.
        watcher->log_("following sleep and resume through logind on the system bus (" +
                      (watcher->logindOwner_.empty() ? std::string("logind not on the bus yet")
                                                     : "logind is " + watcher->logindOwner_) +
                      ")");
    }
    return 0;
}

int SleepWatcher::onOwnerMatchInstalled(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
        watcher->log_(std::string("the system bus refused the NameOwnerChanged match: ") +
                      (error->message ? error->message : "unknown error") +
                      "; a restarted logind is not recognised");
    }
    return 0;
}

int SleepWatcher::onOwnerReply(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
        watcher->logindOwner_.clear();
        watcher->log_(std::string(kLogind) + " has no owner (" +
                      (error->message ? error->message : "unknown error") +
                      "): PrepareForSleep is ignored until logind is on the bus");
        return 0;
    }
    const char* owner = nullptr;
    if (sd_bus_message_read(message, "s", &owner) < 0 || !owner) {
        watcher->log_("unreadable GetNameOwner reply for " + std::string(kLogind));
        return 0;
    }
    watcher->logindOwner_ = owner;
    return 0;
}

int SleepWatcher::onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    // Unicast signals skip the match's sender too: only the bus driver speaks for names.
    const char* sender = sd_bus_message_get_sender(message);
    if (!sender || std::strcmp(sender, kBusDriver) != 0) {
        watcher->ignoreForged(sender, "only the bus itself may send NameOwnerChanged");
        return 0;
    }
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0 || !name ||
        !newOwner || std::strcmp(name, kLogind) != 0) {
        return 0;
    }
    watcher->logindOwner_ = newOwner;
    watcher->log_(watcher->logindOwner_.empty()
                      ? std::string(kLogind) +
                            " left the bus: PrepareForSleep is ignored until "
                            "logind is back"
                      : std::string(kLogind) + " is now owned by " + watcher->logindOwner_);
    return 0;
}

void SleepWatcher::ignoreForged(const char* sender, const std::string& rule) {
    const Clock::time_point now = Clock::now();
    if (lastIgnoredLog_ && now - *lastIgnoredLog_ < kIgnoredLogInterval) {
        ++unloggedIgnored_;
        return;
    }
    std::string line =
        std::string("ignoring a signal from ") + (sender ? sender : "no sender") + ": " + rule;
    if (unloggedIgnored_ > 0) {
        line += "; " + std::to_string(unloggedIgnored_) + " more ignored since the last such line";
    }
    log_(line);
    unloggedIgnored_ = 0;
    lastIgnoredLog_ = now;
}

int SleepWatcher::onSignal(sd_bus_message* message, void* self, sd_bus_error*) {
    auto* watcher = static_cast<SleepWatcher*>(self);
    // Only logind's connection may make the helper give fans back.
    const char* sender = sd_bus_message_get_sender(message);
    if (!sender || watcher->logindOwner_.empty() || watcher->logindOwner_ != sender) {
        watcher->ignoreForged(sender, "only logind's connection (" +
                                          (watcher->logindOwner_.empty() ? std::string("none now")
                                                                         : watcher->logindOwner_) +
                                          ") may send PrepareForSleep");
        return 0;
    }
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
