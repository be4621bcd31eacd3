// Auto- and cross-correlograms of sorted units, and the intervals between their spikes: the
// main check that a unit is one neuron, and that two clusters are two.
//
// A correlogram has 101 bins, -50 to 50, bin 0 centred on no difference; the sign is that of the
// second unit relative to the first. Spike times are gathered once for each unit that is asked
// for, and counted without a look at any other event: a few ms for a unit out of 5 million
// events. Plain numbers, which displays draw and make_correlogram_graph puts into a graph.
// Reading only; counts are the same at any number of threads.
//
// On continuous recordings, and event-based ones laid out in real time, times are samples. On
// other event-based ones they are the stamps of the stored records, in µs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "analysis/graph_data.h"
#include "session/session_state.h"

namespace kestrelvane {

// The spikes of a unit, in the order of the events.
struct spike_train {
  std::int32_t unit = 0;
  std::vector<std::int32_t> events;  // event numbers, ascending
  std::vector<std::int64_t> times;   // ticks
};
// Empty for a number that is no cluster.
spike_train get_spike_train(const session_state& session, std::int32_t unit);
// Of several units, in their order, by one pass over the events.
std::vector<spike_train> get_spike_trains(const session_state& session,
                                          const std::vector<std::int32_t>& units);

// Ticks are whole numbers; a time in ms is tick * 1000 / rate, in 32-bit floats.
struct tick_clock {
  float rate = 1;            // ticks per second
  bool from_stamps = false;  // of stored records
};
tick_clock clock_of_trains(const session_state& session);

constexpr std::int32_t correlogram_reach = 50;  // bins on each side

struct correlogram {
  std::int32_t a = 0, b = 0;  // units; equal for an autocorrelogram
  float bin_ms = 0;
  std::int32_t n_a = 0, n_b = 0;  // spikes
  // Every stride-th spike of both was a reference; counts are not corrected for it.
  std::int32_t stride = 1;
  double duration_ms = 0;  // of the recording
  std::array<std::int32_t, 2 * correlogram_reach + 1> counts{};
  std::int32_t& count(std::int32_t bin) { return counts[bin + correlogram_reach]; }
  std::int32_t count(std::int32_t bin) const { return counts[bin + correlogram_reach]; }
};

// The bin of a difference in ms; may lie beyond the reach.
std::int32_t correlogram_bin(float dt_ms, float bin_ms);

// Counts over the two trains; the same unit twice gives its autocorrelogram, in which each pair
// of spikes counts on both sides. In bin 0 it then counts twice, but for two spikes with the
// same stamp, which do not count. Of units of many spikes every stride-th is a reference,
// stride = n / 20000 + 1 for n of both together, each of which looks at those that follow it in
// the table of events.
correlogram correlogram_counts(const session_state& session, const spike_train& a,
                               const spike_train& b, float bin_ms);
// Of many pairs, in their order, each on a thread of its own; a and b count from 0 in the trains.
struct train_pair {
  std::size_t a = 0, b = 0;
};
std::vector<correlogram> correlograms_of_pairs(const session_state& session,
                                               const std::vector<spike_train>& trains,
                                               const std::vector<train_pair>& pairs, float bin_ms);
// The same with the trains gathered here, and the width in review_settings.
correlogram correlogram_counts(const session_state& session, std::int32_t a, std::int32_t b);

// Counts to be expected in each bin if the two units fired independently, each at its mean rate
// over the whole recording; 0 without a duration.
double expected_count(const correlogram& result);
// A count as spikes per second of b round a spike of a (of a round itself).
double count_as_rate(const correlogram& result, double count);

// "Unit 3 autocorrelation", "Units 3 and 7 cross-correlation"; of small panels "AC: Unit 3",
// "CC: Units 3 and 7" and the caption "0.500 ms bins".
std::string correlogram_title(const correlogram& result);
std::string correlogram_panel_title(const correlogram& result);
std::string bin_width_text(float bin_ms);
// Bars of counts or rates, the expected ones as a dashed line, lines at 1 and 2 ms on both
// sides where the bins reach so far.
graph_data make_correlogram_graph(const correlogram& result, bool as_rate = false);

// The counts into the log, in lines of at most 100 characters.
void print_correlogram(const session_state& session, const correlogram& result);

// --- bin widths

// Position of the slider, 1 to slider_limit: below one ms by samples, from there on by ms.
std::int32_t bin_slider_limit(const session_state& session);
float bin_width_of_slider(const session_state& session, std::int32_t position);
std::int32_t slider_of_bin_width(const session_state& session, float bin_ms);  // the nearest
// The preset that follows a width in the preferences, the first after the last or after none.
float next_preset_width(const session_state& session, float bin_ms);

// --- the dialog "Cross-correlate spike trains"

struct train_correlation {
  std::int32_t n_first = 0, n_second = 0;  // "Spikes"
  correlogram first, second, cross;        // drawn in turn
};
// Both units' autocorrelograms and their cross-correlogram at the width in review_settings.
// False, after a box, without a recording or clusters; numbers that are no clusters give empty
// ones.
bool correlate_trains(const session_state& session, std::int32_t a, std::int32_t b,
                      train_correlation& result);
void print_train_correlation(const session_state& session, const train_correlation& result);

// --- intervals

// Intervals between successive spikes of a unit.
struct interval_histogram {
  std::int32_t unit = 0;
  float bin_ms = 1;
  std::int32_t n_intervals = 0;
  std::vector<std::int32_t> counts;  // element i: from i to i + 1 widths; longer ones are left out
  std::int32_t below_1_ms = 0, below_2_ms = 0;  // violations of the refractory period
};
interval_histogram count_intervals(const session_state& session, const spike_train& train,
                                   float bin_ms, std::int32_t n_bins);
// As they are plotted: up to 100 ms in bins of the width in review_settings, 100 to 2000 of them.
interval_histogram count_intervals(const session_state& session, std::int32_t unit);
// Bars, and lines at 1 and 2 ms where they reach so far.
graph_data make_interval_graph(const interval_histogram& histogram);

// Violations of the refractory period of every cluster, element 0 being spare: intervals below
// 2 ms, in percent of all its intervals; 0 with fewer than two spikes. One pass over the events
// and a sort for each cluster: work for the worker.
std::vector<double> refractory_violations(const session_state& session);

}  // namespace kestrelvane
