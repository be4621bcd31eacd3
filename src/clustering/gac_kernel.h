// The scout step of gradient ascent clustering: its hot loop.
//
// A scout moves to the Gaussian-weighted mean of the points within a box of 3.0
// round it. The sums of that mean are made in the order of the points, one
// scout at a time, so the bits do not depend on the vector width chosen at run
// time or on the number of threads. What is fast here: the box test runs over
// many points at once and keeps, in order, only those inside, with the places of their
// weights; and the sums of several scouts, each a chain of additions that must not be
// reordered, run side by side, each addition of a weight and its moments as one.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrelvane {

constexpr std::int32_t gac_dimension_limit = 7;  // components of a point

// Points in columns: column c holds component c of every point, padded far out of
// every box to whole vectors.
struct gac_columns {
  std::int32_t n = 0;           // points
  std::int32_t dimensions = 0;  // 1..gac_dimension_limit
  std::int32_t stride = 0;      // floats from column to column
  std::vector<float> values;
  // Sources alone: point by point, (1, component 1, 2, ...) in four or eight floats.
  std::vector<float> points;

  void lay_out_points();  // from the columns
  void resize(std::int32_t n_points, std::int32_t n_dimensions);
  float* column(std::int32_t c) { return values.data() + std::int64_t{c} * stride; }
  const float* column(std::int32_t c) const { return values.data() + std::int64_t{c} * stride; }
};

// What one scout gathers from the points: sum of weights, and of weight times
// difference by component.
struct gac_sums {
  double weight;
  double moment[gac_dimension_limit];
};

// Scratch of one thread.
struct gac_scratch {
  std::vector<std::int32_t>
      inside;  // of up to four scouts: where the sources in their boxes are laid out
  std::vector<std::int32_t> entries;  // of the kernel, their weights
};

// Sums of up to four scouts from sources that are laid out; position(k) is scouts + k * dimensions.
// kernel has 10,002 entries, the last of them 0.
void gac_gather(const gac_columns& sources, const float* kernel, const float* scouts,
                std::int32_t n_scouts, gac_scratch& scratch, gac_sums* sums);

// First index j in first..last (0-based) of scouts that lie within the merge
// radius of a position: |difference| < h in component 1, <= h in component 2, and
// squared distance < h * h over all; last + 1 when there is none.
std::int32_t gac_find_near(const gac_columns& scouts, std::int32_t first, std::int32_t last,
                           const float* position, float h);

}  // namespace kestrelvane
