// Joins: which two tracked units are one neuron.
//
// Two questions, the surer one first. Do their trains cross, with spikes of the two closer together
// than one neuron could fire? Then they are two, whatever else is alike. Have they the same
// waveform within the noise, and in one place, while both are tracked? Then they are one. What is
// left are units of which one stops as the other starts: sorting/hand_overs.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sorting/tracked_units.h"

namespace kestrelvane {

// Pairs of spikes of two trains 0.5 to 2 ms apart, and as many as independent trains of their
// rates would have, counted by segments.
struct train_crossing {
  double expected = 0;
  double observed = 0;
};
train_crossing count_crossings(const std::vector<std::int32_t>& a,
                               const std::vector<std::int32_t>& b, std::int32_t segment,
                               double sampling_frequency);
// Two units by their trains alone.
bool trains_cross(const train_crossing& crossing);

// A shape as it would be seen had the tissue moved by dy µm: each site reads what lay dy below it.
spike_shape moved_shape(const session_state& session, const spike_shape& shape, std::int32_t points,
                        double dy);

// Neighbours of one kind are one waveform in two places. Which way along the probe, µm, brings two
// shapes together best, and how many times less unlike they are then.
struct way_between {
  double um = 0;
  double closer = 1;
};
way_between find_way(const session_state& session, const tracking_rules& rules,
                     const spike_shape& a, const spike_shape& b);
// Whether that is farther than one neuron can seem to be from itself where the tissue's movement is
// taken out. closer: the least that counts.
bool stand_apart(const way_between& way, double closer);
constexpr double drifted_closer = 3;  // of means of many spikes, before and after a slow movement

// Whether two active units have one waveform, by their recent shapes; why is then one clause.
bool same_waveform(const session_state& session, const noise_covariance& noise,
                   const tracking_rules& rules, const tracked_unit& a, const tracked_unit& b,
                   std::string& why);

// Of two sizes given as energies, the smaller over the larger.
double square_root_ratio(double a, double b);

// The squared distance in noise below which two waveforms are one.
double largest_distance_of_one(std::size_t n_channels, double energy);

// b becomes part of a: its spikes and its train.
void join_units(std::vector<tracked_unit>& units, std::int32_t a, std::int32_t b);

// The unit that a unit is part of by now; itself when it was not joined.
std::int32_t joined_unit(const std::vector<tracked_unit>& units, std::int32_t unit);

}  // namespace kestrelvane
