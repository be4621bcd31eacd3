// A cell as a chain of point currents: what its spike looks like from where.
//
// A short basal process, the soma and an apical dendrite lie on one axis. An action
// potential starts in the soma and runs along the chain, later, weaker and broader from
// point to point; the current that leaves each point is what flows in from its neighbours
// (core conductor, Rall 1962), and the potential at a site the sum of currents over distances
// (point sources in an even medium, as Gold, Henze, Koch and Buzsaki 2006 use). So all
// currents add up to nothing, a spike falls off faster far away than close by, and its
// shape differs from site to site.
#pragma once

#include <cstdint>
#include <vector>

#include "synthesis/planted_units.h"

namespace kestrelvane {

struct random_stream;

constexpr std::int32_t n_compartments = 5;

struct cell_model {
  double x, y, z;      // µm, of the soma; z is the distance from the plane of the sites
  double axis[3];      // of length 1, from the soma towards the apical end
  double scale;        // of the chain, times its common lengths
  double rise_ms;      // width of the flank of the action potential, s.d. of a Gaussian
  double fall_ms;      // of its other flank
  double attenuation;  // what is left of its height 60 µm on
  double speed;        // µm/ms, along the chain
  double strength;     // µV times µm
};

// Weights of the currents at a place.
struct compartment_gains {
  float of[n_compartments];
};

// The currents of a cell at every sub-sample phase: row(k)[c * n + i] is that of compartment
// c at i - before - k / sub_sample_steps samples after time 0.
struct cell_currents {
  std::int32_t before, n;  // n in whole lanes
  std::vector<float> heights;

  const float* row(std::int64_t phase) const { return heights.data() + phase * n * n_compartments; }
};

// A cell of random form at no place in particular, a quarter of them fast spiking.
cell_model random_cell(random_stream& random);

// The potential of the cell, of time 0 at zero_ms after the top of the action potential in the
// soma.
cell_currents make_currents(const cell_model& cell, double zero_ms,
                            std::int32_t sampling_frequency);

// Seen from a site when the cell has moved by shift_um along the probe.
compartment_gains gains_at(const cell_model& cell, const site_position& site, double shift_um);

// The currents of a form of cell over the time in which its spike has its height.
struct current_set {
  double of[n_compartments];
};
std::vector<current_set> trace_currents(const cell_model& cell);

// Where a spike is largest in either direction; trace is that of the cell.
struct spike_peak {
  double ms;      // after the top of the action potential
  double height;  // µV, > 0
};
spike_peak find_peak(const cell_model& cell, const std::vector<current_set>& trace,
                     const site_position& site);

// Sum of squares of a spike at a site, in µV².
double spike_energy(const cell_currents& currents, const compartment_gains& gains);

// Adds size times the potential to currents.n samples.
void draw_potential(const cell_currents& currents, const compartment_gains& gains, float size,
                    std::int64_t phase, float* out);

}  // namespace kestrelvane
