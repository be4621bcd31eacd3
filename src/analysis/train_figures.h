// What the times of a unit's spikes say of it: whether it was there all the time, and how many
// of its spikes are those of other neurons.
//
// Plain routines over times in seconds, ascending, from the beginning of the recording; none of
// them knows the session. What cannot be told is no number.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrelvane {

// Stretches of equal length into which a recording of so many seconds is cut: as many whole minutes
// as it has, and never fewer than ten.
std::int32_t count_stretches(double duration);
// The stretch of a time, from 0; times beyond either end count to the last one there.
std::int32_t stretch_of(double time, double duration, std::int32_t n_stretches);

struct time_span {
  double from, to;  // s
};

// Fraction of the stretches with a spike. A unit that is lost, or comes late, is below 1. A
// stretch counts that has data for half of its time or more; gaps, ascending and apart, have none.
// Source: Siegle et al., Nature 592, 2021.
double presence_ratio(std::span<const double> times, double duration,
                      std::span<const time_span> gaps = {});

struct refractory_period {
  double period = 0.0015;    // s in which no neuron fires twice
  double censored = 0.0005;  // s in which the sorter finds no second spike
};
struct refractory_violations_count {
  std::int32_t successive = 0;  // intervals between spikes and the next, censored < t < period
  std::int64_t pairs = 0;       // any two spikes so far apart
};
refractory_violations_count count_violations(std::span<const double> times,
                                             const refractory_period& refractory);

// Fraction f of spikes that belong to other neurons, which fire at any time:
// violations = 2 (period - censored) n^2 (1 - f) f / duration. 0.5 where there are more of them
// than the equation can explain. Source: Hill, Mehta and Kleinfeld, J. Neurosci. 31, 2011.
double contamination_by_intervals(std::int32_t violations, std::int32_t n, double duration,
                                  const refractory_period& refractory);

// The same from all pairs, 1 - sqrt(1 - pairs (duration - 2 n censored) / (n^2 (period -
// censored))), for spikes of one other neuron or many. 1 beyond what it can explain.
// Source: Llobet, Wyngaard and Barbour, bioRxiv 2022.02.08.479192.
double contamination_by_pairs(std::int64_t pairs, std::int32_t n, double duration,
                              const refractory_period& refractory);

// Spikes of a with a spike of b at most reach seconds away: in a pair of two neurons about as many
// as chance brings, 2 reach n_b / duration of them; in one neuron cut in two, next to none.
std::int32_t count_near_spikes(std::span<const double> a, std::span<const double> b, double reach);

}  // namespace kestrelvane
