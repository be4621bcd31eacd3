// Hand-overs: units of which one stops as the other starts.
//
// One neuron may be the other, seen from another place after a movement of the tissue, or it may
// have fallen silent as another awoke. Waveforms alone do not tell: neighbours are as much alike as
// a unit and itself 20 µm further. What tells is whether the change goes with the movement. Where
// channels follow the tissue they read it through other sites after a jump, and beyond the end of
// the probe not at all; two pieces are then compared on the channels that read both of them, and
// are one when the tissue leapt as they changed, when place tells them apart and time does not, or
// when it drifts and one goes over into the other by and by, with the same waveform in one place.
// What ends and what begins in a leap, with no better partner, needs to be less alike.
// Where channels stay, the units that were followed tell how the tissue went, or all pairs together
// that it jumped.
#pragma once

#include <cstdint>
#include <vector>

#include "sorting/tracked_units.h"
#include "sorting/unit_joins.h"

namespace kestrelvane {

// The motion of the tissue along the probe, µm by segment, from all units that stand out well: the
// median over units of their way from where each of them is at home.
std::vector<float> find_motion(const std::vector<tracked_unit>& units, std::int32_t n_segments);
float motion_range(const std::vector<float>& motion);
// Where a unit lies when the motion is taken out, µm; not a number when it was not measured.
float home_depth(const tracked_unit& unit, const std::vector<float>& motion);

// How far two units fire in the same segments, or while the tissue is in the same places: 0 never,
// 1 always, and always where no movement was measured.
double overlap_in_time(const tracked_unit& a, const tracked_unit& b, std::int32_t n_segments);
double overlap_in_place(const tissue_motion& motion, double sampling_frequency,
                        const tracked_unit& a, const tracked_unit& b);
// Whether that is so little, in time or in place, that they may be one that is here and there.
bool fire_in_turn(const recording_store& recording, const tracked_unit& a, const tracked_unit& b,
                  std::int32_t n_segments);

// What the change from one train of spike times, samples, to the other goes with: the tissue leapt
// as one gave way to the other; it swings, and its place tells them apart while time does not; it
// drifts, and they mix for a while. None where no movement was measured. turn_s: when one gives way
// to the other, seconds; 0 where it does so often.
enum class passage { none, leap, swing, drift };
passage find_passage(const recording_store& recording, const std::vector<std::int32_t>& earlier,
                     const std::vector<std::int32_t>& later, double& turn_s);
// How much alike two shapes are on the channels that read their tissue at either of its two places,
// µm: cosine at the best lag; 0 when those channels hold little of one, or both are of two sizes.
double likeness_where_seen(const recording_store& recording, const tracking_rules& rules,
                           const spike_shape& a, double place_a, const spike_shape& b,
                           double place_b);
// How far apart they stand by those channels.
way_between find_way_where_seen(const session_state& session, const tracking_rules& rules,
                                const spike_shape& a, double place_a, const spike_shape& b,
                                double place_b);
// Where the tissue was in the mean at some times, samples; µm, 0 where no movement was measured.
double mean_place(const recording_store& recording, const std::vector<std::int32_t>& times);
// Two pieces of one unit that a movement has made are at least so much alike. Measured after jumps
// and fast movement: 0.84 to 0.99, but for 0.76 of one at the end of the probe, so that a little
// less is enough after a leap; two units that might be one: at most 0.78 there, 0.94 where it did
// not leap.
constexpr double followed_like = 0.85;

// A pair that looks like one unit in two pieces.
struct hand_over {
  std::int32_t earlier = 0, later = 0;  // units from 0
  double similarity = 0, overlap = 0;   // of their shapes; of their times, or places if less
  bool moved = false;                   // the movement of the tissue explains it
};
// All of them, the most alike first. shift_um: what brought them together, 0 without a jump.
std::vector<hand_over> find_hand_overs(const session_state& session, const noise_covariance& noise,
                                       const tracking_rules& rules,
                                       const std::vector<tracked_unit>& units,
                                       std::int32_t n_segments, float& shift_um);

}  // namespace kestrelvane
