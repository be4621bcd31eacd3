// The scouts of one stage of gradient ascent clustering: stepping, merging, and
// who was merged into whom. Internal to clustering/.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gac_kernel.h"
#include "clustering/gradient_ascent.h"

namespace kestrelvane {

// One record serves all stages of a run, so that its storage is made once.
// Scouts in order; index 0 .. n_scouts - 1. A scout keeps the number of the point
// that started it as its identity.
struct gac_scouts {
  std::int32_t n_scouts = 0;
  gac_columns position;
  std::vector<std::int32_t> identity;
  std::vector<char> stopped;
  std::vector<std::int32_t> stall;  // tiny steps so far
  // A step that left the scout exactly where it was will do so again, since the
  // points it climbs are fixed: such a scout is not computed anew.
  std::vector<char> frozen;  // 1 frozen, 2 frozen by a tiny step
  gac_scratch scratch;
  std::vector<std::int32_t> parent;  // by identity: whom it was merged into; -1 alive
};

// Every point starts a scout.
void start_scouts(const gac_columns& points, gac_scouts& scouts);

// Moves every scout that has not stopped; returns how many still go.
struct gac_step_settings {
  float gain;
  float stop_step;  // already divided by the stage's bandwidth
  std::int32_t stall_limit;
  const float* kernel;  // 10,002 entries
};
std::int32_t step_scouts(const gac_columns& sources, const gac_step_settings& settings,
                         gac_scouts& scouts);

// Merges scouts that lie within h of an earlier one.
void merge_scouts(float h, gac_scouts& scouts);

// Up to this many scouts a merge acts at once and skips the scout that follows the one
// merged; above it merges are marked and no scout is skipped.
constexpr std::int32_t gac_immediate_merge_limit = 2000;

}  // namespace kestrelvane
