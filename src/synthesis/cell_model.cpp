#include "synthesis/cell_model.h"

#include <algorithm>
#include <cmath>

#include "numerics/portable_math.h"
#include "numerics/simd.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

constexpr double shape_before_ms = 1.0;  // window round time 0
constexpr double shape_after_ms = 2.8;
constexpr double attenuation_um = 60;
constexpr double softening_um = 15;  // a soma is no point: nothing comes nearer

// About a sixth of a sample at usual rates.
constexpr double trace_step_ms = 0.005;
constexpr double trace_from_ms = -0.5;
constexpr std::int32_t trace_steps = 401;

// Places on the axis, the soma second, in µm.
constexpr double places[n_compartments] = {-35, 0, 45, 110, 220};
constexpr double unit_length_um = 40;  // with the conductance 1 between two places
// Branches grow thin on the way, so that most of the current returns near the soma.
constexpr double conductance[n_compartments - 1] = {1, 1, 0.4, 0.15};

double flank(double t_ms, double width) {
  const double squares = 0.5 * t_ms * t_ms / width / width;
  // Below what 32 bits hold beside 1.
  return squares > 40 ? 0 : portable_exp(-squares);
}

// Potential in the cell at a place of the chain, of height 1 in the soma.
double membrane_potential(const cell_model& cell, std::int32_t compartment, double t_ms) {
  const double distance = std::fabs(places[compartment]) * cell.scale;
  const double lengths = distance / attenuation_um;
  const double t = t_ms - distance / cell.speed;
  // The dendrite is a low pass: flanks grow wider on the way.
  const double rise = cell.rise_ms * (1 + 0.15 * lengths);
  const double fall = cell.fall_ms * (1 + 0.2 * lengths);
  const double height = portable_exp(lengths * portable_log(cell.attenuation));
  if (t < 0) return height * flank(t, rise);
  // A tenth of it lingers, as an after-depolarisation.
  return height * (0.9 * flank(t, fall) + 0.1 * flank(t, 3 * fall));
}

current_set currents_at(const cell_model& cell, double t_ms) {
  double inside[n_compartments];
  for (std::int32_t k = 0; k < n_compartments; ++k) inside[k] = membrane_potential(cell, k, t_ms);
  current_set currents{};
  for (std::int32_t k = 0; k + 1 < n_compartments; ++k) {
    const double length = (places[k + 1] - places[k]) * cell.scale;
    const double along = (inside[k] - inside[k + 1]) * conductance[k] * unit_length_um / length;
    // What flows on inside has come in through the membrane, and leaves farther on.
    currents.of[k] -= along;
    currents.of[k + 1] += along;
  }
  return currents;
}

double square(double v) { return v * v; }

}  // namespace

cell_model random_cell(random_stream& random) {
  cell_model cell{};
  const bool fast = random.chance(0.25);
  cell.rise_ms = fast ? random.uniform(0.065, 0.085) : random.uniform(0.08, 0.12);
  cell.fall_ms = fast ? random.uniform(0.12, 0.18) : random.uniform(0.2, 0.4);
  cell.attenuation = random.uniform(0.72, 0.92);
  cell.speed = random.uniform(400, 800);
  cell.scale = fast ? random.uniform(0.5, 0.8) : random.uniform(0.65, 1.0);
  // Dendrites of pyramidal cells run along the probe, give or take; those of others anywhere.
  const double lean = fast ? 3 : 0.5;
  // None through the probe, which would have torn it: it leaves on the side of the cell.
  double direction[3] = {lean * random.normal(), random.chance(0.5) ? 1.0 : -1.0,
                         std::fabs(lean * random.normal())};
  double length = 0;
  for (const double d : direction) length += square(d);
  for (int i = 0; i < 3; ++i) cell.axis[i] = direction[i] / std::sqrt(length);
  cell.strength = 1;
  return cell;
}

cell_currents make_currents(const cell_model& cell, double zero_ms,
                            std::int32_t sampling_frequency) {
  cell_currents currents{};
  const double per_ms = 0.001 * sampling_frequency;
  currents.before = static_cast<std::int32_t>(shape_before_ms * per_ms);
  currents.n =
      whole_lanes(currents.before + static_cast<std::int32_t>(shape_after_ms * per_ms) + 1);
  currents.heights.resize(std::size_t{sub_sample_steps} * n_compartments * currents.n);
  for (std::int32_t phase = 0; phase < sub_sample_steps; ++phase) {
    float* row = currents.heights.data() + std::int64_t{phase} * n_compartments * currents.n;
    for (std::int32_t i = 0; i < currents.n; ++i) {
      const double samples = i - currents.before - static_cast<double>(phase) / sub_sample_steps;
      const current_set set = currents_at(cell, zero_ms + samples / per_ms);
      for (std::int32_t k = 0; k < n_compartments; ++k) {
        row[k * currents.n + i] = static_cast<float>(set.of[k]);
      }
    }
  }
  return currents;
}

compartment_gains gains_at(const cell_model& cell, const site_position& site, double shift_um) {
  compartment_gains gains{};
  for (std::int32_t k = 0; k < n_compartments; ++k) {
    const double along = places[k] * cell.scale;
    const double squares = square(cell.x + along * cell.axis[0] - site.x) +
                           square(cell.y + along * cell.axis[1] + shift_um - site.y) +
                           square(cell.z + along * cell.axis[2]) + square(softening_um);
    gains.of[k] = static_cast<float>(cell.strength / std::sqrt(squares));
  }
  return gains;
}

std::vector<current_set> trace_currents(const cell_model& cell) {
  std::vector<current_set> trace;
  for (std::int32_t i = 0; i < trace_steps; ++i) {
    trace.push_back(currents_at(cell, trace_from_ms + trace_step_ms * i));
  }
  return trace;
}

spike_peak find_peak(const cell_model& cell, const std::vector<current_set>& trace,
                     const site_position& site) {
  const compartment_gains gains = gains_at(cell, site, 0);
  spike_peak peak{};
  for (std::size_t i = 0; i < trace.size(); ++i) {
    double potential = 0;
    for (std::int32_t k = 0; k < n_compartments; ++k) {
      potential += trace[i].of[k] * double{gains.of[k]};
    }
    if (std::fabs(potential) <= peak.height) continue;
    peak = {trace_from_ms + trace_step_ms * static_cast<double>(i), std::fabs(potential)};
  }
  return peak;
}

double spike_energy(const cell_currents& currents, const compartment_gains& gains) {
  // Of one phase, since the others hardly differ.
  std::vector<float> spike(currents.n, 0.0f);
  draw_potential(currents, gains, 1, 0, spike.data());
  double energy = 0;
  for (const float v : spike) energy += square(double{v});
  return energy;
}

KESTRELVANE_CLONES void draw_potential(const cell_currents& currents,
                                       const compartment_gains& gains, float size,
                                       std::int64_t phase, float* out) {
  const float* row = currents.row(phase);
  for (std::int32_t i = 0; i < currents.n; i += n_lanes) {
    float_lanes sum = {};
    for (std::int32_t k = 0; k < n_compartments; ++k) {
      sum += gains.of[k] * *reinterpret_cast<const float_lanes*>(row + k * currents.n + i);
    }
    *reinterpret_cast<float_lanes*>(out + i) += size * sum;
  }
}

}  // namespace kestrelvane
