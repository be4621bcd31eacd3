// What the heights and places of a unit's spikes say of it: how many of them the threshold has
// missed, and whether the unit has moved.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// Height of each event in µV: the largest excursion on the unit's centre channel in the direction
// of the template's largest, within 0.1 ms of its place. Empty for a template without a centre.
std::vector<float> measure_heights(const session_state& session, std::int32_t unit,
                                   std::span<const std::int32_t> events);

struct height_figures {
  double median = 0;     // µV
  double variation = 0;  // coefficient of variation: s.d. over mean
  double cutoff = 0;     // cutoff_of_heights
};
height_figures judge_heights(std::vector<float> heights);

// Fraction of all spikes of the unit that lie below the threshold and are missing. Heights of one
// neuron lie evenly round their most frequent one: what lies above the mirror image of the lowest
// bin has no counterpart. Of 100 bins, smoothed by a Gaussian of 3 bins; at most 0.5; no number of
// fewer than 50 heights.
// Source: Hill, Mehta and Kleinfeld, J. Neurosci. 31, 2011; with the mirror image in place of a
// fitted Gaussian, Siegle et al., Nature 592, 2021, who give the missing ones over those found.
double cutoff_of_heights(std::span<const float> heights);

// Greatest difference of the median place along the probe between any two stretches of the
// recording, µm; a place is the mean of the sites of the unit's channels, each weighed by the
// square of its peak-to-peak voltage. Of at most 200 events a stretch; stretches of fewer than 10
// are left out; no number of fewer than two stretches. times: of the events, s.
// Source: Siegle et al., Nature 592, 2021 (maximal drift).
double measure_drift(const session_state& session, std::int32_t unit,
                     std::span<const std::int32_t> events, std::span<const double> times,
                     double duration);

}  // namespace kestrelvane
