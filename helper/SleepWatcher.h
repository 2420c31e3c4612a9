// Follows logind's PrepareForSleep signal on the system bus (sd-bus), driven from the helper's
// own poll loop: the owner polls fd() for events() with timeoutMs() and calls process().
//
// The bus applies a match's sender only to broadcasts: any peer may send the same signal
// unicast to the helper's own name. So the watcher tracks which connection owns
// org.freedesktop.login1 (GetNameOwner at start, NameOwnerChanged from the bus itself after)
// and acts only on a signal whose sender is that connection.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace kelvo::helperd {

class SleepWatcher {
public:
    using Logger = std::function<void(const std::string&)>;
    // true: the system is about to sleep; false: it has resumed.
    using Handler = std::function<void(bool goingToSleep)>;

    SleepWatcher(Logger log, Handler handler);
    ~SleepWatcher();
    SleepWatcher(const SleepWatcher&) = delete;
    SleepWatcher& operator=(const SleepWatcher&) = delete;

    // Connects to the system bus (DBUS_SYSTEM_BUS_ADDRESS, or the standard socket) and asks for
    // the signal. False, logged once, when there is no bus: the helper runs without it.
    bool start();
    bool active() const { return bus_ != nullptr; }

    int fd() const;
    short events() const;
    // Until sd-bus needs process() without I/O (-1: no deadline).
    int timeoutMs() const;
    // Handles whatever the bus has; on a broken connection, logs and stops following sleep.
    void process();

private:
    using Clock = std::chrono::steady_clock;

    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onMatchInstalled(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onOwnerChanged(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onOwnerMatchInstalled(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onOwnerReply(sd_bus_message* message, void* self, sd_bus_error* error);
    // `rule`: who alone may send what was ignored.
    void ignoreForged(const char* sender, const std::string& rule);
    void drop(const std::string& why);

    Logger log_;
    Handler handler_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* slot_ = nullptr;
    sd_bus_slot* ownerSlot_ = nullptr;
    // The unique name of logind's connection; empty while nobody owns the name.
    std::string logindOwner_;
    // Forged signals are peer-driven: the first of a burst is logged, the rest are counted.
    std::size_t unloggedIgnored_ = 0;
    std::optional<Clock::time_point> lastIgnoredLog_;
};

}  // namespace kelvo::helperd
