#include "TraceLibrary.h"

#include <random>

namespace kelvo::quality {

namespace {

constexpr LoadLevel kIdle{0.03, 0.02};

class Dice {
public:
    Dice(std::uint64_t seed, std::uint64_t stream) : rng_(seed * 1000003u + stream) {}
    int seconds(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    double level(double lo, double hi) {
        return std::uniform_real_distribution<double>(lo, hi)(rng_);
    }

private:
    std::mt19937_64 rng_;
};

// Mostly idle; now and then a short burst (opening an application, a page, a search).
void appendIdleSpikes(LoadTrace& trace, Dice& dice, int seconds) {
    int left = seconds;
    while (left > 0) {
        int quiet = std::min(left, dice.seconds(40, 90));
        trace.hold(quiet, kIdle);
        left -= quiet;
        if (left <= 0) break;
        int spike = std::min(left, dice.seconds(2, 6));
        trace.hold(spike, {dice.level(0.85, 1.0), dice.level(0.05, 0.3)});
        left -= spike;
    }
}

// A parallel build: long stretches at full CPU, dipping while single-threaded steps (configure,
// linking) run.
void appendCompile(LoadTrace& trace, Dice& dice, int seconds) {
    int left = seconds;
    while (left > 0) {
        int burst = std::min(left, dice.seconds(15, 45));
        trace.hold(burst, {dice.level(0.9, 1.0), 0.04});
        left -= burst;
        if (left <= 0) break;
        int link = std::min(left, dice.seconds(2, 8));
        trace.hold(link, {dice.level(0.15, 0.35), 0.03});
        left -= link;
    }
}

// Play with GPU near full and moderate CPU; loading screens load the CPU and pause the GPU.
void appendGame(LoadTrace& trace, Dice& dice, int seconds) {
    int left = seconds;
    while (left > 0) {
        int loading = std::min(left, dice.seconds(8, 25));
        trace.hold(loading, {dice.level(0.7, 0.95), dice.level(0.05, 0.15)});
        left -= loading;
        if (left <= 0) break;
        int play = std::min(left, dice.seconds(90, 200));
        trace.hold(play, {dice.level(0.45, 0.65), dice.level(0.85, 0.98)});
        left -= play;
    }
}

// A video call: encoding and decoding hold a steady quarter of the CPU and a little of the GPU;
// once a minute something (a screen share, a background blur that re-initialises, a slide deck
// opening) bursts the CPU for five seconds.
void appendVideoCall(LoadTrace& trace, Dice& dice, int seconds) {
    int left = seconds;
    while (left > 0) {
        const LoadLevel steady{dice.level(0.22, 0.28), dice.level(0.06, 0.1)};
        int call = std::min(left, 55);
        trace.hold(call, steady);
        left -= call;
        if (left <= 0) break;
        int burst = std::min(left, 5);
        trace.hold(burst, {dice.level(0.75, 0.85), steady.gpu});
        left -= burst;
    }
}

// Light desktop work (writing, reading, a terminal) with spikes of one to three seconds at
// irregular intervals: a page rendering, a search, a thumbnail cache, a language server.
void appendBurstyDesktop(LoadTrace& trace, Dice& dice, int seconds) {
    int left = seconds;
    while (left > 0) {
        int light = std::min(left, dice.seconds(6, 90));
        trace.hold(light, {dice.level(0.04, 0.15), dice.level(0.02, 0.08)});
        left -= light;
        if (left <= 0) break;
        int spike = std::min(left, dice.seconds(1, 3));
        trace.hold(spike, {dice.level(0.8, 1.0), dice.level(0.05, 0.25)});
        left -= spike;
    }
}

}  // namespace

std::vector<LoadTrace> TraceLibrary::all() const {
    return {idleWithSpikes(), compileJob(), gameWithLoadingScreens(), sustainedRender(),
            mixedDay(),       videoCall(),  burstyDesktop()};
}

LoadTrace TraceLibrary::idleWithSpikes(int seconds) const {
    Dice dice(seed_, 1);
    LoadTrace trace("idle-spikes");
    appendIdleSpikes(trace, dice, seconds);
    return trace;
}

LoadTrace TraceLibrary::compileJob() const {
    Dice dice(seed_, 2);
    LoadTrace trace("compile");
    trace.hold(60, kIdle);
    appendCompile(trace, dice, 480);
    trace.hold(120, kIdle);
    return trace;
}

LoadTrace TraceLibrary::gameWithLoadingScreens(int seconds) const {
    Dice dice(seed_, 3);
    LoadTrace trace("game");
    trace.hold(30, kIdle);
    appendGame(trace, dice, seconds - 60);
    trace.hold(30, kIdle);
    return trace;
}

LoadTrace TraceLibrary::sustainedRender() const {
    LoadTrace trace("render");
    trace.hold(30, kIdle);
    trace.hold(600, {1.0, 0.75});
    trace.hold(120, kIdle);
    return trace;
}

// Thirty minutes of an ordinary day: reading and writing, a build, a video call, a short game.
LoadTrace TraceLibrary::mixedDay() const {
    Dice dice(seed_, 5);
    LoadTrace trace("mixed-day");
    appendIdleSpikes(trace, dice, 300);
    appendCompile(trace, dice, 300);
    appendIdleSpikes(trace, dice, 240);
    trace.hold(360, {0.35, 0.3});  // video call
    appendGame(trace, dice, 360);
    appendIdleSpikes(trace, dice, 240);
    return trace;
}

LoadTrace TraceLibrary::videoCall() const {
    Dice dice(seed_, 6);
    LoadTrace trace("video-call");
    appendVideoCall(trace, dice, 1200);
    return trace;
}

LoadTrace TraceLibrary::burstyDesktop() const {
    Dice dice(seed_, 7);
    LoadTrace trace("bursty-desktop");
    appendBurstyDesktop(trace, dice, 1800);
    return trace;
}

}  // namespace kelvo::quality
