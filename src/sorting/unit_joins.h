// Joins: which two tracked units are one neuron.
//
// Three questions, from the surest to the weakest. Do their trains cross, with spikes of the two
// closer together than one neuron could fire? Then they are two, whatever else is alike. Have
// they the same waveform within the noise while both are tracked? Then they are one. Does one
// stop as the other starts, in a recording whose other units are seen to move? Then one has
// become the other by movement.
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

// Whether two active units have one waveform, by their recent shapes; why is then one clause.
bool same_waveform(const session_state& session, const noise_covariance& noise,
                   const tracking_rules& rules, const tracked_unit& a, const tracked_unit& b,
                   std::string& why);

// The squared distance in noise below which two waveforms are one.
double largest_distance_of_one(std::size_t n_channels, double energy);

// b becomes part of a: its spikes and its train.
void join_units(std::vector<tracked_unit>& units, std::int32_t a, std::int32_t b);

// The motion of the tissue along the probe, µm by segment, from all units that stand out well: the
// median over units of their way from where each of them is at home.
std::vector<float> find_motion(const std::vector<tracked_unit>& units, std::int32_t n_segments);
float motion_range(const std::vector<float>& motion);
// Where a unit lies when the motion is taken out, µm; not a number when it was not measured.
float home_depth(const tracked_unit& unit, const std::vector<float>& motion);

// A pair that looks like one unit in two pieces.
struct hand_over {
  std::int32_t earlier = 0, later = 0;  // units from 0
  double similarity = 0, overlap = 0;   // of their shapes where they meet; of their times
  bool moved = false;                   // the way of all units explains that of this one
};
// All of them, the most alike first. shift_um: what brought them together, 0 without a jump.
std::vector<hand_over> find_hand_overs(const session_state& session, const noise_covariance& noise,
                                       const tracking_rules& rules,
                                       const std::vector<tracked_unit>& units,
                                       std::int32_t n_segments, float& shift_um);

}  // namespace kestrelvane
