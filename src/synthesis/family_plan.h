// What a recording of a family contains: cells, their trains, and what disturbs them.
//
// All of it follows from the options and the seed. Samples count from 0, steps as in
// planted_units.h.
#pragma once

#include <cstdint>
#include <vector>

#include "synthesis/cell_model.h"
#include "synthesis/families.h"
#include "synthesis/planted_units.h"

namespace kestrelvane {

struct family_unit {
  cell_model cell;
  std::int32_t best_channel = 0;  // counted from 1
  double zero_ms = 0;             // of its currents
  double snr = 0;                 // height over the noise of best_channel, a size of 1
  double height_uv = 0;
  firing_pattern firing{};
};

// A small unit: one of the shapes in turn, at a place of its own.
struct hash_unit {
  cell_model cell;
  std::size_t shape = 0;
  double rate = 0;  // Hz
};

// A burst of movement.
struct shake {
  std::int64_t first;  // sample
  std::int32_t n;
  double size_uv;  // rms where it is at its height
};

enum class channel_state { good, noisy, dead };

struct family_plan {
  family_options options;
  std::int64_t seed = 1;
  std::int32_t n_samples = 0;
  std::vector<site_position> sites;
  std::vector<double> noise_uv;  // by channel from 0, rms
  std::vector<channel_state> states;
  std::vector<family_unit> units;
  std::vector<std::vector<planted_spike>> spikes;  // by unit
  std::vector<cell_currents> currents;             // by unit
  std::vector<hash_unit> hash;
  std::vector<cell_currents> hash_currents;  // by shape
  std::vector<shake> shakes;
  std::vector<float> hum;  // µV, one period of the mains; empty: none
};

family_plan plan_family(const family_options& options, std::int64_t seed, std::int32_t n_threads);

// Where the tissue stands at a step, in µm along the probe.
double tissue_shift(const family_plan& plan, std::int64_t step);

}  // namespace kestrelvane
