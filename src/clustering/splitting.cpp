#include "clustering/splitting.h"

#include <fmt/format.h>

#include <memory>

#include "clustering/clustering_runs.h"
#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/stage_judge.h"

namespace kestrelvane {

// ---------------------------------------------------------------- choosing

namespace {

struct lineage {
  std::int32_t n_elements = 0;
  std::int64_t size_sum = 0;
  std::int32_t stage[gac_stage_limit + 1];
  std::int32_t label[gac_stage_limit + 1];
};

using entry_marks = bool[gac_stage_limit + 1][gac_label_limit + 1];

// Marks the long-lived clusters of every stage that is not mere noise.
void mark_candidates(const session_state& session, const gac_tables& tables, entry_marks& marked) {
  constexpr std::int32_t noise_clusters = 10;
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    // As many clusters as this are fragments, whatever they last.
    if (tables.nc_ge_min[s] >= noise_clusters) continue;
    for (std::int32_t c = 1; c <= tables.nc_ge_min[s]; ++c) {
      marked[s][c] = tables.as_cl_scores[s][c] >= session.strategy.gac_threshold;
    }
  }
}

// Follows the chain of a marked entry for as long as its score tells, clearing
// marks on the way so that no later lineage starts inside it.
lineage follow_lineage(const gac_tables& tables, std::int32_t stage, std::int32_t label,
                       entry_marks& marked) {
  lineage found;
  const std::int32_t end = stage + tables.as_cl_scores[stage][label];
  for (std::int32_t s = stage, c = label;;) {
    marked[s][c] = false;
    found.stage[found.n_elements] = s;
    found.label[found.n_elements] = c;
    ++found.n_elements;
    found.size_sum += tables.as_cl_sizes[s][c];
    c = tables.as_cluster_map[s][c];
    ++s;
    if (s >= end || s > tables.final_stage || c == 0) return found;
  }
}

// The stage where a lineage is largest, the later on ties.
subcluster_choice choose_stage(const gac_tables& tables, const lineage& chosen) {
  subcluster_choice choice;
  std::int32_t best = -1;
  for (std::int32_t k = 0; k < chosen.n_elements; ++k) {
    const std::int32_t size = tables.as_cl_sizes[chosen.stage[k]][chosen.label[k]];
    if (size < best) continue;
    best = size;
    choice.stage = chosen.stage[k];
    choice.label = chosen.label[k];
  }
  // Alone at its stage, it leaves nothing to cut off.
  choice.found = tables.nc_ge_min[choice.stage] != 1;
  return choice;
}

}  // namespace

subcluster_choice choose_subcluster(const session_state& session, const gac_tables& tables) {
  if (tables.final_stage < 1) return {};
  entry_marks marked = {};
  mark_candidates(session, tables, marked);
  bool any = false;
  lineage smallest;
  std::int64_t smallest_mean = 0;
  for (std::int32_t s = 1; s <= tables.final_stage; ++s) {
    for (std::int32_t c = 1; c <= tables.nc_ge_min[s]; ++c) {
      if (!marked[s][c]) continue;
      const lineage candidate = follow_lineage(tables, s, c, marked);
      const std::int64_t mean = candidate.size_sum / candidate.n_elements;
      // The first of equal means.
      if (any && mean >= smallest_mean) continue;
      any = true;
      smallest = candidate;
      smallest_mean = mean;
    }
  }
  return any ? choose_stage(tables, smallest) : subcluster_choice{};
}

// ---------------------------------------------------------------- cutting

split_result apply_split(session_state& session, std::int32_t cluster,
                         const std::vector<std::int32_t>& list,
                         const std::vector<std::int32_t>& labels, std::int32_t chosen_label) {
  cluster_table& clusters = session.clusters;
  std::int32_t* of = session.events.event_cluster.base();
  std::int32_t rest = 0;
  for (const std::int32_t label : labels) {
    // Outliers, label 100, belong to neither side.
    rest += label != chosen_label && label != gac_label_limit;
  }
  if (rest < least_cluster_size(session)) {
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (labels[i] != chosen_label) of[list[i]] = 0;
    }
    log_message(session, "Not enough events in remaining cluster; will delete them");
    // Up to five events leave the template as it was.
    if (rest > 5) recalculate_cluster(session, cluster);
    return {};
  }
  // Asked only now: removing the rest needs no room.
  if (clusters.n_clusters >= session.max_clusters) {
    log_message(session, "Cannot create new cluster, maximum number reached");
    return {false, true};
  }
  const std::int32_t created = clusters.n_clusters + 1;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (labels[i] == chosen_label) {
      of[list[i]] = created;
    } else if (labels[i] == gac_label_limit) {
      of[list[i]] = 0;
    }
  }
  // The record is cleared before anything is calculated into its slot.
  clear_cluster_record(session, created);
  clusters.n_clusters = created;
  set_status(session, status_field::clusters_found, std::to_string(created));
  recalculate_cluster(session, cluster);
  recalculate_cluster(session, created);
  return {true, false};
}

// ---------------------------------------------------------------- the loop

namespace {

// Labels the events of a cluster for the displays: 1 chosen, 100 outlier, 0 rest.
void mark_choice(session_state& session, const std::vector<std::int32_t>& list,
                 const std::vector<std::int32_t>& labels, std::int32_t chosen_label) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::int32_t label = labels[i];
    session.events.event_subcluster[list[i]] =
        static_cast<std::int16_t>(label == chosen_label      ? 1
                                  : label == gac_label_limit ? 100
                                                             : 0);
  }
}

// Marks small but stable groups (their labels become 100 too) and everything but
// the largest cluster of the last stage; nothing when no stage met the stop rule.
void mark_outliers(session_state& session, const std::vector<std::int32_t>& list,
                   gac_tables& tables) {
  const std::int32_t s = tables.final_stage;
  if (s < 1) return;
  const sorting_strategy_settings& strategy = session.strategy;
  event_table& events = session.events;
  std::vector<std::int32_t>& labels = tables.stage_labels[s];
  std::int32_t small = 0, others = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    std::int32_t& label = labels[i];
    if (strategy.remove_small_final_subclusters &&
        // Long-lived, but too small to stand alone.
        tables.as_cl_scores[s][label] >= strategy.gac_threshold &&
        tables.as_cl_sizes[s][label] < least_cluster_size(session)) {
      label = gac_label_limit;
      events.event_subcluster[list[i]] = 100;
      ++small;
    }
    // Labels fall in size: the largest is 1.
    if (strategy.keep_largest_final_subcluster && label > 1) {
      label = gac_label_limit;
      events.event_subcluster[list[i]] = 100;
      ++others;
    }
  }
  if (strategy.remove_small_final_subclusters && log_timing(session)) {
    log_message(session, fmt::format("{} events in small subclusters", small));
  }
  if (strategy.keep_largest_final_subcluster) {
    log_message(session, fmt::format("{} events outside the largest subcluster", others));
  }
}

std::int32_t remove_marked_outliers(session_state& session, const std::vector<std::int32_t>& list) {
  std::int32_t removed = 0;
  for (const std::int32_t e : list) {
    if (session.events.event_subcluster[e] != 100) continue;
    session.events.event_cluster[e] = 0;
    ++removed;
  }
  log_message(session, removed == 1
                           ? std::string("Have deleted 1 event from final cluster")
                           : fmt::format("Have deleted {} events from final cluster", removed));
  return removed;
}

enum class sign_off_result { too_small, again, signed_off };

// Nothing can be cut: cleans the cluster and declares it final, unless the
// cleaning took so much that another run may find something.
sign_off_result sign_off(session_state& session, std::int32_t cluster,
                         const std::vector<std::int32_t>& list, gac_tables& tables) {
  log_message(session, " Unable to find subclusters");
  for (const std::int32_t e : list) session.events.event_subcluster[e] = 0;
  mark_outliers(session, list, tables);
  const std::int32_t removed = remove_marked_outliers(session, list);
  const std::int32_t left = static_cast<std::int32_t>(list.size()) - removed;
  // No template for it any more: the caller deletes the cluster.
  if (left < least_cluster_size(session)) return sign_off_result::too_small;
  if (removed > session.strategy.recluster_limit) {
    session.clusters.cluster_signed_off[cluster] = false;
    log_message(session, fmt::format("reclustering {}: {} events deleted", cluster, removed));
    return sign_off_result::again;
  }
  // From here on no later pass cuts it again.
  session.clusters.cluster_signed_off[cluster] = true;
  session.clusters.cluster_sigma[cluster] = stage_sigma_uv(session, tables.final_stage);
  recalculate_cluster(session, cluster);
  return sign_off_result::signed_off;
}

}  // namespace

split_outcome split_cluster(session_state& session, std::int32_t cluster) {
  for (;;) {
    const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
    if (list.empty()) {
      log_message(session, fmt::format("Invalid cluster #{}", cluster));
      // Numbers that are empty are passed over; the caller goes on with the one that was done.
      if (++cluster > session.clusters.n_clusters) return {cluster, false, false};
      continue;
    }
    log_message(session, "");
    log_message(session, fmt::format("Cluster {}, {} events, channel {}", cluster, list.size(),
                                     session.templates.centre_channel(cluster)));
    gac_points points;
    const auto tables = std::make_unique<gac_tables>();
    gac_run_cluster(session, automatic_gac_parameters(session), cluster, points, *tables);
    const subcluster_choice choice = choose_subcluster(session, *tables);
    if (choice.found) {
      const std::vector<std::int32_t>& labels = tables->stage_labels[choice.stage];
      mark_choice(session, list, labels, choice.label);
      log_message(session, fmt::format("subcluster {} of stage {}", choice.label, choice.stage));
      const split_result result = apply_split(session, cluster, list, labels, choice.label);
      if (result.limit_reached || autosort_interrupted(session)) {
        return {cluster, false, result.limit_reached};
      }
      pause_point(session);
      continue;
    }
    const sign_off_result result = sign_off(session, cluster, list, *tables);
    pause_point(session);
    if (result == sign_off_result::too_small) return {cluster, true, false};
    if (result == sign_off_result::signed_off || autosort_interrupted(session)) {
      return {cluster, false, false};
    }
  }
}

// ---------------------------------------------------------------- by hand

void autosplit_current_cluster(session_state& session) {
  const std::int32_t cluster = session.clusters.current_cluster;
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  if (list.empty()) return;
  gac_points points;
  const auto tables = std::make_unique<gac_tables>();
  gac_run_cluster(session, gac_parameters_of(session), cluster, points, *tables);
  stage_verdict verdict = judge_stages(session, points, *tables);
  if (!verdict.found) {
    log_message(session, "Cannot find subclusters");
    for (const std::int32_t e : list) session.events.event_subcluster[e] = 0;
    return;
  }
  log_message(session, "Can split this cluster");
  std::vector<std::int32_t>& labels = tables->stage_labels[verdict.best_stage];
  // Folding has emptied labels; for the displays they close up.
  compact_subcluster_labels(labels.data(), tables->n, tables->as_cl_sizes[verdict.best_stage]);
  for (std::size_t i = 0; i < list.size(); ++i) {
    session.events.event_subcluster[list[i]] = static_cast<std::int16_t>(labels[i]);
  }
  const float sigma = stage_sigma_uv(session, verdict.best_stage);
  set_status(session, status_field::message, fmt::format("sigma = {}", sigma));
}

}  // namespace kestrelvane
