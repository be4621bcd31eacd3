// Faulty channels, found without any reference to spikes.
//
// Background signals of neighbouring sites are correlated, and the correlation falls off in a
// lawful way with their distance. A curve is fitted to correlation against distance over all pairs;
// a channel whose pairs lie off that curve is suspect: short-circuited, dead, noisy, or placed
// wrongly in the electrode file. What a channel is measured by is how its pairs deviate compared
// with those of the others, so a recording should have many more sound channels than faulty ones.
//
// The farthest of the sound channels is far from the others as well, and a large unit makes its
// neighbours alike: some of the lines are about sound channels. So each carries besides whether the
// background bears it out, which is the correlation of samples that are cut to 2.5 times the noise,
// with a curve of its own.
//
// Correlations are slow and do not depend on masks; curve and deviations are quick and follow every
// change of a mask. Distances in µm, voltages in bits, in 32-bit floats and in a fixed order of
// times, so that the bits do not depend on the number of threads. Nothing in the session changes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int32_t channel_pair_limit = 10000;
constexpr std::int32_t check_time_limit = 10000;
constexpr std::size_t channel_problem_limit = 16;
constexpr std::int32_t fewest_checked_channels = 8;  // unmasked
constexpr float first_check_cutoff_um = 750;
constexpr const char* channels_seem_ok = "Everything seems OK";  // instead of problems

struct channel_pair {
  std::int32_t a = 0, b = 0;  // a < b
  float r = 0;                // correlation; 1 where one of the two is constant
  float background_r = 0;     // likewise, of the samples without their spikes
};

struct checked_channel {
  std::int32_t channel = 0;
  // Of its pairs from the curve, as z-scores over the channels checked.
  float rms_deviation = 0, signed_deviation = 0;
  float background_rms = 0;  // from the curve of the background, over the median of the channels
};

enum class channel_fault { shorted, mislocalised, needs_masking };

struct channel_problem {
  std::string text;          // at most 64 characters
  std::int32_t channel = 0;  // that it selects
  channel_fault fault = channel_fault::shorted;
  bool borne_out = false;  // the background alone says the same
};

struct channel_check {
  float check_cutoff_um = first_check_cutoff_um;  // pairs further apart are left out
  std::vector<std::int32_t> times;                // time indices, in the order of their use
  std::vector<channel_pair> channel_pairs;        // by a, then b
  std::vector<std::int32_t> silent;               // channels that do not change over the times
  float p[4] = {}, background_p[4] = {};          // p1 to p3 of the curves, fit_saturation
  std::vector<checked_channel> channels;          // by rms_deviation, the largest first
  std::vector<channel_problem> problem_list;      // shorted pairs, then channels as they stand
  std::int32_t n_found = 0, n_borne_out = 0;      // with those that the list has no room for
};

// A continuous recording with enough unmasked channels; says what is missing in a box.
bool can_check_channels(const session_state& session);

// Cut-off, times and pairs: for the worker, moves the meter of filtering. False when it was
// interrupted. Where channels 1 and 2 are silent the times are those of the first two that are
// not, which is logged.
bool compute_pair_correlations(const session_state& session, channel_check& check);

// Curve, deviations and problems of the channels in use: those that are not masked, or all.
void fit_correlation_curve(const session_state& session, channel_check& check, bool use_masked);
void evaluate_channels(const session_state& session, channel_check& check, bool use_masked);
// Both.
void judge_channels(const session_state& session, channel_check& check, bool use_masked);

// Correlation that the fitted curve gives a distance.
float expected_correlation(const channel_check& check, float distance_um);
// Its figures; null when it is not among those checked.
const checked_channel* find_checked_channel(const channel_check& check, std::int32_t channel);

// What is known of a problem beyond its line, and how many there are of either kind: "1 borne out
// by the background, 4 by the spikes alone".
const char* judgement_of(const channel_problem& problem);
std::string count_problems(const channel_check& check);

// Channels that had better take no part, ascending: silent ones, and those that may need masking
// and of which the background says the same, also beyond the end of the list. Of two that are
// shorted neither: which of the sites the signal is from only the user can tell.
std::vector<std::int32_t> channels_to_mask(const channel_check& check);

}  // namespace kestrelvane
