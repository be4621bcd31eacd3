#include "sorting/cluster_edits.h"
#include "clustering/membership.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "clustering/realignment.h"
#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

// ---------------------------------------------------------------- records

namespace {

// Moves the record of cluster + 1 over that of cluster; cluster_sigma stays.
void copy_record_down(session_state& session, std::int32_t cluster) {
  cluster_table& clusters = session.clusters;
  template_table& templates = session.templates;
  const std::int32_t from = cluster + 1;
  clusters.cluster_ellipse[cluster] = clusters.cluster_ellipse[from];
  const std::size_t template_bytes =
      sizeof(float) * template_point_limit * static_cast<std::size_t>(templates.allocated_channels);
  std::memcpy(templates.mean(cluster, 1) + 1, templates.mean(from, 1) + 1, template_bytes);
  std::memcpy(templates.sd(cluster, 1) + 1, templates.sd(from, 1) + 1, template_bytes);
  templates.template_n_channels[cluster] = templates.template_n_channels[from];
  std::memcpy(templates.channels(cluster) + 1, templates.channels(from) + 1,
              sizeof(std::int32_t) * static_cast<std::size_t>(templates.allocated_channels));
  templates.template_x[cluster] = templates.template_x[from];
  templates.template_y[cluster] = templates.template_y[from];
  templates.template_z[cluster] = templates.template_z[from];
  clusters.cluster_signed_off[cluster] = clusters.cluster_signed_off[from];
  clusters.cluster_tag[cluster] = clusters.cluster_tag[from];
  clusters.cluster_comment[cluster] = clusters.cluster_comment[from];
}

void close_record_gap(session_state& session, std::int32_t removed) {
  for (std::int32_t k = removed; k < session.clusters.n_clusters; ++k) {
    copy_record_down(session, k);
  }
}

// Takes a cluster out of the lists and renumbers the shift owners above it.
void remove_from_lists(session_state& session, std::int32_t cluster) {
  if (session.lists.n_kv_pairs == 0) return;
  remove_cluster_from_lists(session, cluster);
  renumber_shift_owners(session, cluster);
}

}  // namespace

// ---------------------------------------------------------------- deleting

void delete_cluster(session_state& session, std::int32_t cluster) {
  cluster_table& clusters = session.clusters;
  if (clusters.n_clusters == 0) return;
  const bool have_lists = session.lists.n_kv_pairs > 0;
  remove_from_lists(session, cluster);
  close_record_gap(session, cluster);
  std::int32_t* of = session.events.event_cluster.base();
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    if (of[e] == cluster) {
      of[e] = 0;
    } else if (of[e] > cluster) {
      --of[e];
    }
  }
  --clusters.n_clusters;
  if (have_lists) {
    const std::int32_t n = clusters.n_clusters;
    session.lists.n_kv_pairs = n * (n - 1) / 2;
  }
  clusters.current_cluster = std::min(clusters.current_cluster, clusters.n_clusters);
}

// ---------------------------------------------------------------- coincident events

std::int32_t remove_coincident_cluster_events(session_state& session, std::int32_t cluster) {
  event_table& events = session.events;
  const auto window =
      static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                session.detection.coincidence_ms / 1000.0f);
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  constexpr std::size_t look_ahead = 50;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::size_t last = std::min(list.size() - 1, i + look_ahead);
    for (std::size_t j = i + 1; j <= last; ++j) {
      if (std::abs(events.event_time[list[j]] - events.event_time[list[i]]) > window) continue;
      const float d_i = distance_from_centre_squared(session, list[i], cluster);
      const float d_j = distance_from_centre_squared(session, list[j], cluster);
      const std::int32_t loser = d_j > d_i ? list[j] : list[i];
      events.event_cluster[loser] = 0;
      if (events.event_detected_time[loser] != 0) {
        events.event_time[loser] = events.event_detected_time[loser];
      }
    }
  }
  return static_cast<std::int32_t>(list.size()) - count_cluster_events(session, cluster);
}

// ---------------------------------------------------------------- merging

namespace {

void merge_events(session_state& session, std::int32_t low, std::int32_t high) {
  event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    std::int32_t& of = events.event_cluster[e];
    if (of == low || of == high) {
      of = low;
      events.event_subcluster[e] = 0;
    } else if (of > high) {
      --of;
    }
  }
}

}  // namespace

void merge_clusters(session_state& session, std::int32_t a, std::int32_t b) {
  cluster_table& clusters = session.clusters;
  if (a == b) {
    clusters.current_cluster = a;
    return;
  }
  const std::int32_t low = std::min(a, b), high = std::max(a, b);
  remove_from_lists(session, high);
  merge_events(session, low, high);
  // The records close up here, before anything is calculated: the number above
  // n_clusters is a scratch slot from now on.
  const float sigma = (clusters.cluster_sigma[a] + clusters.cluster_sigma[b]) * 0.5f;
  close_record_gap(session, high);
  clusters.current_cluster = low;
  --clusters.n_clusters;
  recalculate_cluster(session, low);
  clusters.cluster_signed_off[low] = false;
  clusters.cluster_sigma[low] = sigma;
  const std::int32_t removed = remove_coincident_cluster_events(session, low);
  log_message(session,
              fmt::format("{} coincident events were removed from the merged cluster", removed));
  if (!clusters.cluster_comment[low].is_blank()) {
    clusters.cluster_comment[low].assign("Comment deleted because it was merged with another unit");
  }
  update_lists_for_cluster(session, low);
}

// ---------------------------------------------------------------- splitting by hand

void split_marked_to_new_cluster(session_state& session, std::int32_t k) {
  cluster_table& clusters = session.clusters;
  event_table& events = session.events;
  if (!cluster_can_grow(session)) return;
  const std::int32_t old_cluster = clusters.current_cluster;
  const std::int32_t new_cluster = clusters.n_clusters + 1;
  bool any = false;
  for (const std::int32_t e : list_cluster_events(session, old_cluster)) {
    if (events.event_subcluster[e] != k) continue;
    events.event_cluster[e] = new_cluster;
    events.event_subcluster[e] = 0;
    any = true;
  }
  if (!any) return;
  clear_cluster_record(session, new_cluster);
  ++clusters.n_clusters;
  recalculate_cluster(session, old_cluster);
  clusters.previous_cluster = old_cluster;
  clusters.current_cluster = new_cluster;
  recalculate_cluster(session, new_cluster);
  add_cluster_to_lists(session);
  clusters.current_cluster = old_cluster;
  update_lists_for_cluster(session, old_cluster);
  refresh_displays(session);
  if (session.preferences.tell_new_cluster) {
    tell(session, fmt::format("New cluster {} created", new_cluster), "Create new cluster",
         box_icon::information);
  }
}

void clear_clusters(session_state& session) {
  if (!ask(session, "This will delete all the cluster assignments to events!", "Are you sure?")) {
    return;
  }
  blank_cluster_comments(session);
  session.events.event_cluster.clear();
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
  session.clusters.cluster_sigma.clear();
  session.clusters.cluster_spare.clear();
  session.lists.n_kv_pairs = 0;
}

}  // namespace kestrelvane
