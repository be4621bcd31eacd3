// Gradient ascent clustering: the modes of the density of a cloud of points.
//
// Every point starts a scout that climbs a Gaussian estimate of the density;
// scouts that meet merge, and in the end a point belongs to the scout that its
// own was merged into. The run is repeated over a ladder of bandwidths, the stages,
// each 1.1 times the one before; what survives many stages with nearly the same size
// is taken as real.
//
// The step is that of mean shift (Fukunaga & Hostetler, IEEE Trans. Inform. Theory 21,
// 1975; Comaniciu & Meer, IEEE Trans. Pattern Anal. Mach. Intell. 24, 2002) with a
// Gaussian kernel, times a gain. Merging on the way, and the ladder, are our own.
//
// Points come divided by sqrt(2) times the starting sigma (principal_components.h),
// so that the kernel is exp(-d^2). Nothing here needs a session; clustering_runs.h
// runs the ladder on its clusters. Stages count from 1 to 50, labels from 1 to
// 100; label 1 is the largest cluster of a stage and label 100 collects everything
// above 99. Stages depend on nothing but the points and run side by side on the
// threads; the tables do not depend on how many there are.
#pragma once

#include <cstdint>
#include <vector>

namespace kestrelvane {

constexpr std::int32_t gac_stage_limit = 50;
constexpr std::int32_t gac_label_limit = 100;
constexpr std::int32_t gac_tiny_size = 5;
constexpr std::int32_t gac_first_judged_stage = 6;

// How to climb and when to stop. The defaults are those of the settings; read from them by
// gac_parameters_of (clustering_runs.h).
struct gac_parameters {
  float start_sigma = 5.0f;            // µV, bandwidth of stage 1; the points are scaled by it
  float gain = 1.0f;                   // times the mean shift step
  float merge_radius = 1.0f;           // units of the points at stage 1; it grows with the stage
  std::int32_t max_iterations = 500;   // of one stage
  std::int32_t stall_limit = 25;       // tiny steps after which a scout stops
  float stop_step = 0.0005f;           // units of the points; a shorter step is tiny
  bool subsample = true;               // at most about 5000 points make the density
  float size_tolerance = 5.0f;         // per cent by which a cluster may change from stage to stage
  std::int32_t threshold = 8;          // stages that make a cluster long-lived
  std::int32_t min_cluster_size = 50;  // points
  bool split_obvious = true;           // stop at a cluster of 1.5 times the threshold
  std::int32_t threads = 1;            // stages side by side
  // 10,002 entries: exp(-k / 500), then a 0 (fill_gac_table in interpolation_tables.h).
  const float* kernel = nullptr;
};

// Bandwidth of stage s relative to the first: 1.1^(s - 1).
float stage_bandwidth(std::int32_t s);

// n points of some dimensions, row by row: value(i, d) for i = 0..n-1.
struct gac_points {
  std::int32_t n = 0;
  std::int32_t dimensions = 0;
  std::vector<float> values;
  const float* row(std::int64_t i) const { return values.data() + i * dimensions; }
};

// What the stages of one run leave. Stage s and label c count from 1.
struct gac_tables {
  std::int32_t n = 0;            // points
  std::int32_t n_stages = 0;     // stages that were run and evaluated
  std::int32_t final_stage = 0;  // stage that met the stop rule; 0 when none did
  bool obvious = false;          // it was the rule for obvious clusters
  // stage_labels[s][i]: label of point i (0-based) at stage s.
  std::vector<std::int32_t> stage_labels[gac_stage_limit + 1];
  std::int32_t as_cl_sizes[gac_stage_limit + 1][gac_label_limit + 1] = {};
  std::int32_t as_cl_scores[gac_stage_limit + 1][gac_label_limit + 1] = {};
  std::int32_t as_cluster_map[gac_stage_limit + 1][gac_label_limit + 1] = {};
  std::int32_t nc_ge_min[gac_stage_limit + 1] = {};        // leading labels of min_cluster_size
  std::int32_t nc_ge_threshold[gac_stage_limit + 1] = {};  // of those, with score >= threshold
  std::int32_t n_clusters_ge_tiny_size_list[gac_stage_limit + 1] = {};
  std::int32_t scouts_left[gac_stage_limit + 1] = {};
  std::int32_t iterations[gac_stage_limit + 1] = {};
};

// Runs the ladder on the points; fills the tables and returns final_stage.
std::int32_t gac_run(const gac_parameters& parameters, const gac_points& points,
                     gac_tables& tables);

// One stage: labels, scouts_left and iterations of stage s.
void gac_stage(const gac_parameters& parameters, const gac_points& points, std::int32_t s,
               gac_tables& tables);

// Sizes and counts of stage s from its labels.
void count_stage_sizes(const gac_parameters& parameters, gac_tables& tables, std::int32_t s);

// Links of stages 2..s - 1 to the stages above them, and the scores that follow.
void link_stages(const gac_parameters& parameters, gac_tables& tables, std::int32_t s);
void as_cl_scores_update(gac_tables& tables, std::int32_t s);

}  // namespace kestrelvane
