#include "clustering/gradient_ascent.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "clustering/gac_scouts.h"
#include "numerics/parallel.h"

namespace kestrelvane {

float stage_bandwidth(std::int32_t s) {
  // 1.1 as 32 bits hold it, raised to its power in 64.
  return static_cast<float>(std::pow(static_cast<double>(1.1f), s - 1));
}

namespace {

gac_columns scale_points(const gac_points& points, float g) {
  gac_columns columns;
  columns.resize(points.n, points.dimensions);
  for (std::int32_t c = 0; c < points.dimensions; ++c) {
    float* column = columns.column(c);
    for (std::int32_t i = 0; i < points.n; ++i) column[i] = points.row(i)[c] / g;
  }
  return columns;
}

// Every q-th point, in order: the kernel sources.
gac_columns pick_sources(const gac_columns& points, std::int32_t q) {
  gac_columns sources;
  sources.resize((points.n + q - 1) / q, points.dimensions);
  for (std::int32_t c = 0; c < points.dimensions; ++c) {
    for (std::int32_t j = 0; j < sources.n; ++j) {
      sources.column(c)[j] = points.column(c)[std::int64_t{j} * q];
    }
  }
  sources.lay_out_points();
  return sources;
}

// Labels of all points: the place, from 1, of the scout that theirs ended in.
void label_points(gac_scouts& scouts, std::vector<std::int32_t>& labels) {
  const auto n = static_cast<std::int32_t>(scouts.parent.size());
  labels.assign(n, 0);
  for (std::int32_t k = 0; k < scouts.n_scouts; ++k) labels[scouts.identity[k]] = k + 1;
  for (std::int32_t i = 0; i < n; ++i) {
    // A scout merges into one that started earlier, whose label is known by now.
    if (scouts.parent[i] >= 0) labels[i] = labels[scouts.parent[i]];
  }
}

// Exchanges labels so that sizes fall: for each place in turn the largest of the
// rest moves in if it is larger. Sizes of labels above 10000 count as 0.
void relabel_by_size(std::int32_t n_labels, std::vector<std::int32_t>& labels) {
  constexpr std::int32_t counted_labels = 10000;
  const std::int32_t m = std::min(n_labels, counted_labels);
  std::vector<std::int32_t> count(m + 1, 0);
  for (const std::int32_t label : labels) {
    if (label <= m) ++count[label];
  }
  // holder[p]: the old label that now stands at place p.
  std::vector<std::int32_t> holder(m + 1);
  for (std::int32_t p = 1; p <= m; ++p) holder[p] = p;
  for (std::int32_t p = 1; p < m; ++p) {
    const auto largest = std::max_element(count.begin() + p + 1, count.end());
    // Every label has a point, so once the rest are single nothing moves.
    if (*largest <= 1) break;
    if (*largest > count[p]) {
      std::swap(holder[p], holder[largest - count.begin()]);
      std::swap(count[p], *largest);
    }
  }
  std::vector<std::int32_t> place(m + 1);
  for (std::int32_t p = 1; p <= m; ++p) place[holder[p]] = p;
  for (std::int32_t& label : labels) {
    if (label <= m) label = place[label];
  }
}

void run_stage(const gac_parameters& parameters, const gac_points& points, std::int32_t s,
               gac_scouts& scouts, gac_tables& tables) {
  const float g = stage_bandwidth(s);
  const gac_columns scaled = scale_points(points, g);
  const float radius = parameters.merge_radius / g;
  const float h = radius * 0.5f;
  start_scouts(scaled, scouts);
  // Scouts that start close together need not climb one by one.
  merge_scouts(h, scouts);

  const std::int32_t q = parameters.subsample ? points.n / 5000 + 1 : 1;
  const gac_columns sources = pick_sources(scaled, q);
  const gac_step_settings settings{parameters.gain, parameters.stop_step / g,
                                   parameters.stall_limit, parameters.kernel};
  std::int32_t iterations = 0, going = 0;
  // At least one step, whatever the limit.
  do {
    going = step_scouts(sources, settings, scouts);
    merge_scouts(h, scouts);
    ++iterations;
  } while (going > 0 && iterations < parameters.max_iterations);

  label_points(scouts, tables.stage_labels[s]);
  relabel_by_size(scouts.n_scouts, tables.stage_labels[s]);
  tables.scouts_left[s] = scouts.n_scouts;
  tables.iterations[s] = iterations;
}

}  // namespace

void gac_stage(const gac_parameters& parameters, const gac_points& points, std::int32_t s,
               gac_tables& tables) {
  gac_scouts scouts;
  run_stage(parameters, points, s, scouts, tables);
}

void count_stage_sizes(const gac_parameters& parameters, gac_tables& tables, std::int32_t s) {
  std::int32_t* sizes = tables.as_cl_sizes[s];
  std::fill(sizes, sizes + gac_label_limit + 1, 0);
  for (std::int32_t& label : tables.stage_labels[s]) {
    // What is above 99 shares the last label, so that it is no cluster of its own.
    if (label > gac_label_limit - 1) label = gac_label_limit;
    ++sizes[label];
  }
  std::int32_t leading = 0;
  // Labels fall in size, so the first that is too small ends the count.
  while (leading < 50 && sizes[leading + 1] >= parameters.min_cluster_size) ++leading;
  tables.nc_ge_min[s] = leading;
  std::int32_t tiny = 0;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) tiny += sizes[c] >= gac_tiny_size;
  tables.n_clusters_ge_tiny_size_list[s] = tiny;
}

namespace {

// Links of stage t - 1 to stage t: each label of t continues the label of t - 1
// that holds nearly all its points.
void link_stage(const gac_parameters& parameters, gac_tables& tables, std::int32_t t) {
  std::int32_t* map = tables.as_cluster_map[t - 1];
  std::fill(map, map + gac_label_limit + 1, 0);
  std::int32_t top = gac_label_limit;
  while (top > 0 && tables.as_cl_sizes[t][top] == 0) --top;
  // Label 100 in use means more clusters than labels: nothing is linked to such a stage.
  if (top == gac_label_limit || top == 0) return;
  // from[c][b]: points of label c that had label b.
  std::vector<std::int32_t> from(static_cast<std::size_t>(top + 1) * (gac_label_limit + 1), 0);
  const std::vector<std::int32_t>& now = tables.stage_labels[t];
  const std::vector<std::int32_t>& before = tables.stage_labels[t - 1];
  for (std::int32_t i = 0; i < tables.n; ++i) {
    ++from[static_cast<std::size_t>(now[i]) * (gac_label_limit + 1) + before[i]];
  }
  for (std::int32_t c = 1; c <= top; ++c) {
    const std::int32_t* counts = from.data() + static_cast<std::size_t>(c) * (gac_label_limit + 1);
    // The lowest label of several that gave as many.
    const auto best = static_cast<std::int32_t>(
        std::max_element(counts + 1, counts + gac_label_limit + 1) - counts);
    const auto size = static_cast<float>(tables.as_cl_sizes[t][c]);
    const float change = (static_cast<float>(counts[best]) - size) * 100.0f / size;
    // Of two labels that continue the same one the later stands, which is the smaller.
    if (std::fabs(change) < parameters.size_tolerance) map[best] = c;
  }
}

}  // namespace

void link_stages(const gac_parameters& parameters, gac_tables& tables, std::int32_t s) {
  // The first links run from stage 2 to stage 3.
  for (std::int32_t t = 3; t <= s; ++t) link_stage(parameters, tables, t);
}

void as_cl_scores_update(gac_tables& tables, std::int32_t s) {
  std::memset(tables.as_cl_scores, 0, sizeof tables.as_cl_scores);
  bool visited[gac_stage_limit + 1][gac_label_limit + 1] = {};
  for (std::int32_t t = 1; t <= s; ++t) {
    for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
      if (visited[t][c]) continue;
      std::int32_t length = 1;
      // A chain that goes on above stage s counts to s alone.
      for (std::int32_t at = t, label = c;
           at < s && (label = tables.as_cluster_map[at][label]) != 0; ++at) {
        ++length;
      }
      std::int32_t label = c;
      for (std::int32_t k = 0; k < length; ++k) {
        tables.as_cl_scores[t + k][label] = length;
        visited[t + k][label] = true;
        label = tables.as_cluster_map[t + k][label];
      }
    }
  }
}

namespace {

// Some cluster of stage s is so long-lived that waiting for more stages is idle.
bool has_obvious_cluster(const gac_parameters& parameters, const gac_tables& tables,
                         std::int32_t s) {
  if (!parameters.split_obvious || tables.n_clusters_ge_tiny_size_list[s] < 2) return false;
  const float limit = 1.5f * static_cast<float>(parameters.threshold);
  for (std::int32_t c = 1; c <= tables.nc_ge_min[s]; ++c) {
    if (limit <= static_cast<float>(tables.as_cl_scores[s][c])) return true;
  }
  return false;
}

// Almost all points are in long-lived clusters, or in the largest one.
bool is_settled(const gac_parameters& parameters, const gac_tables& tables, std::int32_t s) {
  std::int32_t unstable = 0;
  for (std::int32_t c = 1; c <= gac_label_limit; ++c) {
    if (tables.as_cl_scores[s][c] < parameters.threshold) {
      unstable += tables.as_cl_sizes[s][c];
    }
  }
  // Fewer than three points are outside the largest cluster: nothing is left to merge.
  return unstable < parameters.min_cluster_size || tables.n - tables.as_cl_sizes[s][1] < 3;
}

void count_long_lived(const gac_parameters& parameters, gac_tables& tables) {
  for (std::int32_t s = 1; s <= tables.n_stages; ++s) {
    tables.nc_ge_threshold[s] = 0;
    for (std::int32_t c = 1; c <= tables.nc_ge_min[s]; ++c) {
      tables.nc_ge_threshold[s] += tables.as_cl_scores[s][c] >= parameters.threshold;
    }
  }
}

// Stages run ahead of the one that is judged: those beyond the stop are idle work.
constexpr std::int32_t stages_ahead = 4;

// Runs stages first..last, side by side when that pays: they depend on nothing but
// the points.
void run_stages(const gac_parameters& parameters, const gac_points& points, std::int32_t first,
                std::int32_t last, std::vector<gac_scouts>& scouts, gac_tables& tables) {
  const std::int32_t n_threads = parameters.threads;
  if (static_cast<std::int32_t>(scouts.size()) < n_threads) scouts.resize(n_threads);
  parallel_for_dealt(n_threads, first, last, [&](std::int64_t s, std::int32_t rank) {
    run_stage(parameters, points, static_cast<std::int32_t>(s), scouts[rank], tables);
  });
}

// Takes a stage into the tables; sets final_stage when it meets a stop rule.
void judge_stop(const gac_parameters& parameters, std::int32_t s, gac_tables& tables) {
  count_stage_sizes(parameters, tables, s);
  tables.n_stages = s;
  if (s >= 3) link_stage(parameters, tables, s);
  if (s < gac_first_judged_stage) return;
  as_cl_scores_update(tables, s);
  if (has_obvious_cluster(parameters, tables, s)) {
    tables.obvious = true;
    tables.final_stage = s;
  } else if (is_settled(parameters, tables, s)) {
    tables.final_stage = s;
  }
}

}  // namespace

std::int32_t gac_run(const gac_parameters& parameters, const gac_points& points,
                     gac_tables& tables) {
  tables.n = points.n;
  tables.final_stage = 0;
  std::vector<gac_scouts> scouts(1);
  const std::int32_t ahead = std::min(parameters.threads, stages_ahead);
  for (std::int32_t first = 1; first <= gac_stage_limit && tables.final_stage == 0;) {
    // No rule is asked before the sixth stage.
    const std::int32_t last =
        first == 1 ? gac_first_judged_stage : std::min(first + ahead - 1, gac_stage_limit);
    run_stages(parameters, points, first, last, scouts, tables);
    for (std::int32_t s = first; s <= last && tables.final_stage == 0; ++s) {
      judge_stop(parameters, s, tables);
    }
    first = last + 1;
  }
  count_long_lived(parameters, tables);
  return tables.final_stage;
}

}  // namespace kestrelvane
