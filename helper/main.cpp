// kelvo-helperd: the privileged helper that owns fan writes for unprivileged Kelvo sessions.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "helper/HelperConfig.h"
#include "helper/HelperOptions.h"
#include "helper/HelperServer.h"

#ifndef KELVO_HELPER_VERSION
#define KELVO_HELPER_VERSION "0.0.0"
#endif

namespace {

void logLine(const std::string& message) {
    // One write per line so lines from a restarting helper never interleave mid-line.
    const std::string line = "kelvo-helperd: " + message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

int main(int argc, char** argv) {
    using kelvo::helperd::HelperOptions;
    const auto parsed = HelperOptions::parse(std::vector<std::string>(argv + 1, argv + argc));
    if (!parsed.ok) {
        std::fprintf(stderr, "kelvo-helperd: %s\n%s", parsed.error.c_str(),
                     HelperOptions::usage().c_str());
        return 2;
    }
    if (parsed.options.showHelp) {
        std::fputs(HelperOptions::usage().c_str(), stdout);
        return 0;
    }
    if (parsed.options.showVersion) {
        std::puts(KELVO_HELPER_VERSION);
        return 0;
    }

    // A configuration the helper cannot read in full is not enforced halfway: it does not start.
    const auto config =
        kelvo::helperd::HelperConfig::load(parsed.options.configPath, parsed.options.configGiven);
    if (!config.ok) {
        logLine(config.error);
        return 1;
    }

    // SIGTERM and SIGINT arrive through a descriptor in the poll loop, so the fans are released
    // by ordinary code rather than from a signal handler.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    if (sigprocmask(SIG_BLOCK, &stopSignals, nullptr) != 0) {
        logLine("cannot block stop signals");
        return 1;
    }
    const int stopFd = signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (stopFd < 0) {
        logLine("cannot create a signal descriptor");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);

    kelvo::helperd::HelperServer server(parsed.options, config.config, KELVO_HELPER_VERSION,
                                        logLine);
    std::string error;
    if (!server.start(&error)) {
        logLine(error);
        return 1;
    }
    server.run(stopFd);
    // run() only returns early (without a signal) when poll() itself fails.
    signalfd_siginfo info{};
    const bool signalled = read(stopFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info));
    if (signalled) {
        logLine(std::string("stopped by ") + (info.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM"));
    }
    close(stopFd);
    return signalled ? 0 : 1;
}
