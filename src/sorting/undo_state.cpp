#include "sorting/undo_state.h"

#include <algorithm>

#include "clustering/templates.h"

namespace kestrelvane {

namespace {

// Calls visit(table of the session, table of the slot, number of elements) for all that
// lies in the same order in both. Save and restore walk the same lines.
template <typename Visit>
void for_each_table(session_state& session, Visit&& visit) {
  undo_slot& slot = *session.undo;
  event_table& events = session.events;
  visit(events.event_time, slot.event_time, slot.n_events);
  visit(events.event_detected_time, slot.event_detected_time, slot.n_events);
  visit(events.event_channel, slot.event_channel, slot.n_events);
  visit(events.event_cluster, slot.event_cluster, slot.n_events);
  visit(events.event_shift, slot.event_shift, slot.n_events);
  visit(events.event_subcluster, slot.event_subcluster, slot.n_events);
  cluster_table& clusters = session.clusters;
  visit(clusters.cluster_spare, slot.cluster_spare, slot.n_clusters);
  visit(clusters.cluster_tag, slot.cluster_tag, slot.n_clusters);
  visit(clusters.cluster_sigma, slot.cluster_sigma, slot.n_clusters);
  visit(clusters.cluster_reserved, slot.cluster_reserved, slot.n_clusters);
  visit(clusters.cluster_comment, slot.cluster_comment, slot.n_clusters);
  visit(clusters.cluster_ellipse, slot.cluster_ellipse, slot.n_clusters);
  visit(clusters.cluster_signed_off, slot.cluster_signed_off, slot.n_clusters);
  template_table& templates = session.templates;
  visit(templates.template_n_channels, slot.template_n_channels, slot.n_clusters);
  visit(templates.template_x, slot.template_x, slot.n_clusters);
  visit(templates.template_y, slot.template_y, slot.n_clusters);
  visit(templates.template_z, slot.template_z, slot.n_clusters);
  status_lists_table& lists = session.lists;
  visit(lists.kv_templates_dont_overlap, slot.kv_templates_dont_overlap, slot.n_kv_pairs);
  visit(lists.kv_template_correlation, slot.kv_template_correlation, slot.n_kv_pairs);
  visit(lists.kv_cluster_overlap, slot.kv_cluster_overlap, slot.n_kv_pairs);
  visit(lists.rms_template_shift, slot.rms_template_shift, slot.n_kv_pairs);
  visit(lists.kv_n_shift_template, slot.kv_n_shift_template, slot.n_kv_pairs);
  visit(lists.kv_user_distinct, slot.kv_user_distinct, slot.n_kv_pairs);
  visit(lists.kv_user_ambiguous, slot.kv_user_ambiguous, slot.n_kv_pairs);
  visit(lists.kv_split_tries, slot.kv_split_tries, slot.n_kv_pairs);
  visit(lists.match_a, slot.match_a, slot.n_match);
  visit(lists.match_b, slot.match_b, slot.n_match);
  visit(lists.match_values, slot.match_values, slot.n_match);
}

// Calls visit(elements of the session, elements of the slot, number) for each run of a
// template: its channels, and its points on every channel.
template <typename Visit>
void for_each_template_run(session_state& session, Visit&& visit) {
  undo_slot& slot = *session.undo;
  template_table& templates = session.templates;
  for (std::int64_t c = 1; c <= slot.n_clusters; ++c) {
    const auto cluster = static_cast<std::int32_t>(c);
    visit(templates.channels(cluster) + 1,
          slot.template_channels.first() + (c - 1) * slot.n_channels, slot.n_channels);
    for (std::int32_t channel = 1; channel <= slot.n_channels; ++channel) {
      const std::int64_t run = ((c - 1) * slot.n_channels + channel - 1) * slot.template_points;
      visit(templates.mean(cluster, channel) + 1, slot.template_mean.first() + run,
            slot.template_points);
      visit(templates.sd(cluster, channel) + 1, slot.template_sd.first() + run,
            slot.template_points);
    }
  }
}

void note_sizes(session_state& session) {
  undo_slot& slot = *session.undo;
  slot.n_channels = session.recording.n_channels;
  slot.template_points = session.templates.template_points;
  slot.n_events = session.events.n_events;
  slot.n_clusters = session.clusters.n_clusters;
  slot.current_cluster = session.clusters.current_cluster;
  slot.previous_cluster = session.clusters.previous_cluster;
  slot.n_kv_pairs = session.lists.n_kv_pairs;
  slot.n_match = session.lists.n_match;
}

std::int64_t template_values(const undo_slot& slot) {
  return std::int64_t{slot.n_clusters} * slot.n_channels * slot.template_points;
}

bool reserve_slot(session_state& session) {
  undo_slot& slot = *session.undo;
  const std::int64_t n_listed = std::int64_t{slot.n_clusters} * slot.n_channels;
  const std::int64_t n_values = template_values(slot);
  std::int64_t bytes = 4 * n_listed + 8 * n_values;
  for_each_table(session, [&](const auto& of, const auto&, std::int64_t n) {
    bytes += n * static_cast<std::int64_t>(sizeof(of[1]));
  });
  if (!memory_can_hold(bytes)) return false;
  bool reserved = slot.template_channels.reserve(n_listed) &&
                  slot.template_mean.reserve(n_values) && slot.template_sd.reserve(n_values);
  for_each_table(session, [&](const auto&, auto& copy, std::int64_t n) {
    reserved = reserved && copy.reserve(n);
  });
  return reserved;
}

}  // namespace

bool save_undo_state(session_state& session) {
  // The old copy goes first: there may not be room for two.
  session.undo.reset();
  session.undo = std::make_unique<undo_slot>();
  note_sizes(session);
  if (!reserve_slot(session)) {
    session.undo.reset();
    log_message(session, "Not enough memory to undo");
    return false;
  }
  for_each_table(session, [](const auto& of, auto& copy, std::int64_t n) {
    std::copy_n(of.first(), n, copy.first());
  });
  for_each_template_run(
      session, [](const auto* of, auto* copy, std::int64_t n) { std::copy_n(of, n, copy); });
  return true;
}

bool restore_undo_state(session_state& session) {
  if (!session.undo || session.undo->n_channels != session.recording.n_channels) return false;
  const undo_slot& slot = *session.undo;
  session.events.n_events = slot.n_events;
  session.clusters.n_clusters = slot.n_clusters;
  session.clusters.current_cluster = slot.current_cluster;
  session.clusters.previous_cluster = slot.previous_cluster;
  session.lists.n_kv_pairs = slot.n_kv_pairs;
  session.lists.n_match = slot.n_match;
  for_each_table(session, [](auto& of, const auto& copy, std::int64_t n) {
    std::copy_n(copy.first(), n, of.first());
  });
  const bool same_window = slot.template_points == session.templates.template_points;
  if (same_window) {
    for_each_template_run(
        session, [](auto* of, const auto* copy, std::int64_t n) { std::copy_n(copy, n, of); });
  } else {
    calculate_all_templates(session);
  }
  return true;
}

}  // namespace kestrelvane
