// foresight: a reference for how quiet any controller that keeps both dies under the quiet limits
// (MetricLimits: 88 °C CPU, 85 °C GPU) can be on a trace. It knows the whole load trace in advance
// and the machine exactly, and plans each fan's speed every second on a copy of the simulated
// plant, stepped exactly as runController steps the real one, so what it predicts is what the run
// records, second for second.
//
// Each second's plan is two levels, one per die: how much air that die's sink gets, from what
// every fan at its minimum gives it (0) to what every fan at full speed does (1). The fans' speeds
// are the quietest mix that gives both sinks their air (QuietestMix): on a machine whose fans cool
// different dies, or differ in loudness for the air they move, the fans run apart; equal fans on
// one shared sink run together, as one duty.
//
// How the plan is found:
//  1. Full fans from the first second give every second its lowest possible temperature. Seconds
//     still over the limits then are over under any plan; they run on full fans, and the rest of
//     the search only keeps every other second under.
//  2. Greedy water-filling from all fans at minimum: play the plan forward, keeping a copy of the
//     plant after every second, to the first second over a limit. For windows reaching back
//     0, 3, 8 ... 360 s from it, find the lowest level of the die that is over that brings it
//     under when that die's level over the window is raised to at least it (regula falsi on the
//     exact plant; both dies' levels where the other sink's heat keeps it over), and keep the
//     window whose raise adds the least sound energy (the fans' spin-down after it included).
//     Sound power goes as rpm^5, so spreading a raise is cheaper than a spike, while early
//     cooling leaks away with the heatsink's time constant: the windows weigh the two. Replay from
//     the window's start and repeat. Seconds over in a row (a sustained load) are fixed up to 8 at
//     a time.
//  3. Later raises often cool what earlier ones were made for: each stretch of one level of one
//     die, loudest first, is lowered by bisection as far as every second of the run stays under.
// Sound energy is the metric's own: the sum over seconds of soundPower() of the fans' speeds.
//
// Why a controller that keeps the limits cannot do much better: any controller on this bench
// produces one sequence of fan speeds, from less information than foresight has; foresight knows
// the future load and the plant exactly and never needs a margin under the limits. What it leaves
// on the table: the greedy is not a global optimum (a fix only raises, and only as one level over
// one of a few windows ending at the second it fixes; the lowering pass only lowers whole
// stretches); levels are found to 1e-4 of their range or 5 mK under the limit; a second's mix
// gives each sink at least its level's air at the least sound power, which is the quietest way to
// hold that second but may not be when a fan's spin-up lag matters; and seconds that cannot be
// held run on full fans even where less would be as many seconds over.
// The search is bounded (at most 2000 plant seconds per second of trace; the bench's traces take
// under 600); past that, violations get full fans over the longest window without a search.
// Fans that can stop (a machine whose fans have a stop duty): the levels run from -1 (no air asked
// for: the fans that can stop stand still, the others at their minimum) through 0 (every fan at
// its minimum) to 1, and the mix tries each fan that can stop standing still, so a stop is planned
// wherever it keeps the limits; the run plays a stopped fan as pwm 0 and kicks a fan at rest with
// its start duty when the plan asks it to turn again.
#pragma once

#include <vector>

#include "LoadTrace.h"
#include "MachineProfile.h"
#include "QualityMetrics.h"
#include "QualityRun.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

struct ForesightOutcome {
    DutyPlan plan;  // as ControllerSpec::plan returns it, one duty per fan: plan[k] is set after
                    // second k
    // Each second's plant state as the run records it under the plan.
    std::vector<sim::PlantState> predicted;
    // Seconds the plan leaves over a limit: those that even full fans from the first second cannot
    // hold (and any the bounded search could not bring under).
    int unavoidableOverS = 0;
};

ForesightOutcome planForesight(const MachineProfile& machine, const LoadTrace& trace,
                               const RunSettings& settings, const MetricLimits& limits = {});

// The plan alone, for ControllerSpec::plan.
DutyPlan foresightPlan(const MachineProfile& machine, const LoadTrace& trace,
                       const RunSettings& settings);

// `plan` held unheard: each fan's rises begun early and its falls held back, so that its own level
// (the fan law: 50·log10 of its speed) moves at most `dbPerSecond` a second. Every fan runs at
// least as fast as `plan` has it every second, so no die runs warmer; a fan the plan stops stays
// stopped wherever the held level would be under its lowest speed (its start is heard either way).
DutyPlan heldUnheard(const MachineProfile& machine, const DutyPlan& plan, double dbPerSecond);

// foresight's plan held to the quiet modes' own ramp: what never being heard costs a controller
// that knows the future.
DutyPlan foresightUnheardPlan(const MachineProfile& machine, const LoadTrace& trace,
                              const RunSettings& settings);

}  // namespace kelvo::quality
