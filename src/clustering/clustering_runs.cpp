#include "clustering/clustering_runs.h"

#include <fmt/format.h>

#include <chrono>

#include "clustering/membership.h"
#include "clustering/principal_components.h"

namespace kestrelvane {

gac_parameters gac_parameters_of(const session_state& session) {
  const sorting_strategy_settings& strategy = session.strategy;
  gac_parameters parameters;
  parameters.start_sigma = strategy.gac_start_sigma;
  parameters.gain = strategy.gac_gain;
  parameters.merge_radius = strategy.gac_merge_radius;
  parameters.max_iterations = strategy.gac_max_iterations;
  parameters.stall_limit = strategy.gac_stall_limit;
  parameters.stop_step = strategy.gac_stop_step;
  parameters.subsample = strategy.gac_subsample;
  parameters.size_tolerance = strategy.gac_size_tolerance;
  parameters.threshold = strategy.gac_threshold;
  parameters.min_cluster_size = least_cluster_size(session);
  parameters.split_obvious = strategy.split_obvious;
  parameters.threads = threads_now(session);
  parameters.kernel = session.tables.gac_table;
  return parameters;
}

gac_parameters automatic_gac_parameters(session_state& session) {
  session.autosort.split_obvious = true;
  gac_parameters parameters = gac_parameters_of(session);
  parameters.split_obvious = true;
  return parameters;
}

namespace {

std::int32_t run_and_report(const session_state& session, const gac_parameters& parameters,
                            const gac_points& points, gac_tables& tables) {
  const auto begin = std::chrono::steady_clock::now();
  gac_run(parameters, points, tables);
  if (!log_timing(session)) return tables.final_stage;
  if (tables.obvious) log_message(session, "Splitting obvious cluster");
  const auto msecs = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::steady_clock::now() - begin)
                         .count();
  log_message(session, fmt::format("{} clustering time = {} msecs",
                                   parameters.threads > 1 ? "Threaded" : "Unthreaded", msecs));
  return tables.final_stage;
}

}  // namespace

std::int32_t gac_run_cluster(session_state& session, const gac_parameters& parameters,
                             std::int32_t cluster, gac_points& points, gac_tables& tables) {
  cluster_pc_values(session, cluster, points);
  return run_and_report(session, parameters, points, tables);
}

std::int32_t gac_run_pair(session_state& session, const gac_parameters& parameters, std::int32_t a,
                          std::int32_t b, gac_points& points, gac_tables& tables) {
  pair_pc_values(session, a, b, 0, points);
  return run_and_report(session, parameters, points, tables);
}

float stage_sigma_uv(const session_state& session, std::int32_t s) {
  return stage_bandwidth(s) * session.strategy.gac_start_sigma;
}

}  // namespace kestrelvane
