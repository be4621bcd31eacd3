#include "results/work_file_settle.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "clustering/templates.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"

namespace kestrelvane {

namespace {

// Versions before 8 keep events that lie beyond the recording's end, as far as
// a window round them still finds samples in vd.
constexpr std::int64_t longest_window_reach = 300;  // samples

std::int64_t last_usable_time(const session_state& session, std::int32_t version) {
  const recording_store& r = session.recording;
  if (version >= 8) return r.n_samples;
  return std::max<std::int64_t>(r.n_samples, r.vd.max_time() - longest_window_reach);
}

// Removes events outside 1..last; returns how many.
std::int32_t remove_outside_events(event_table& events, std::int64_t last) {
  return compact_events(events, [&](std::int32_t e) {
    return events.event_time[e] >= 1 && events.event_time[e] <= last;
  });
}

// One without events is no unit of this recording, whether the file left it so or it lost them all
// just now; edits and lists take it for granted that every number has events.
void delete_empty_clusters(session_state& session) {
  const std::int32_t removed = delete_small_clusters(session, 1);
  if (removed == 0) return;
  log_message(session, fmt::format("Removed {} clusters without events", removed));
}

// Channel and cluster of every event must exist: what refers to neither is not a
// sort. -1 is the mark of a removal pass that a timed save caught at work.
std::string check_event_numbers(session_state& session) {
  event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] == -1) events.event_cluster[e] = 0;
    if (events.event_channel[e] < 1 || events.event_channel[e] > session.recording.n_channels) {
      return fmt::format("event {} is on channel {}", e, events.event_channel[e]);
    }
    if (events.event_cluster[e] < 0 || events.event_cluster[e] > session.clusters.n_clusters) {
      return fmt::format("event {} is in cluster {}", e, events.event_cluster[e]);
    }
  }
  return {};
}

void settle_event_times(session_state& session, std::int64_t last) {
  event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    // Negated, so that what is no number goes the same way.
    if (!(std::fabs(events.event_shift[e]) <= 1.0f)) events.event_shift[e] = 0.0f;
    // 0 stands for none; anything else may become event_time again.
    if (events.event_detected_time[e] < 0 || events.event_detected_time[e] > last) {
      events.event_detected_time[e] = 0;
    }
  }
}

bool lists_valid_channels(const session_state& session, std::int32_t cluster) {
  const template_table& t = session.templates;
  const std::int32_t n = t.template_n_channels[cluster];
  // The count comes from the file, and is as long as the lists are read.
  if (n < 1 || n > session.recording.n_channels) return false;
  const std::int32_t* list = t.channels(cluster) + 1;
  return std::all_of(list, list + n, [&](std::int32_t channel) {
    return channel >= 1 && channel <= session.recording.n_channels;
  });
}

// Before version 8 a list had no count: the centre channel, then channels in
// ascending order, ended by the first entry that cannot continue it.
std::int32_t length_of_channel_list(const session_state& session, std::int32_t cluster) {
  const std::int32_t n_channels = session.recording.n_channels;
  const std::int32_t* list = session.templates.channels(cluster);
  std::int32_t n = 0;
  while (n < n_channels && list[n + 1] >= 1 && list[n + 1] <= n_channels &&
         (n == 0 || (list[n + 1] != list[1] && (n == 1 || list[n + 1] > list[n])))) {
    ++n;
  }
  return n;
}

void settle_template_channels(session_state& session, std::int32_t version) {
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (version < 8) {
      session.templates.template_n_channels[c] = length_of_channel_list(session, c);
    }
    if (!lists_valid_channels(session, c)) {
      // What stands there is not believed; the template itself tells its channels.
      session.templates.template_n_channels[c] = 0;
      std::fill_n(session.templates.channels(c) + 1, session.recording.n_channels, 0);
      get_template_channels(session, c);
    }
  }
}

// The lists are of use only if they have every pair of the file's clusters.
void settle_lists(session_state& session, std::int32_t version) {
  status_lists_table& lists = session.lists;
  const std::int64_t n = session.clusters.n_clusters;
  if (lists.n_kv_pairs != 0 && lists.n_kv_pairs != n * (n - 1) / 2) {
    log_message(session, "Status lists of the work file do not fit its clusters: make them again");
    lists.n_kv_pairs = 0;
    return;
  }
  // Follows the numbering of pairs, which is the order of these two loops.
  std::int64_t k = 0;
  for (std::int32_t a = 1; a < n && lists.n_kv_pairs > 0; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      ++k;
      // -1 was stored for templates that do not overlap.
      if (version < 8) lists.kv_templates_dont_overlap[k] = lists.kv_cluster_overlap[k] == -1.0f;
      const std::int32_t shifted = lists.kv_n_shift_template[k];
      // Before version 8 the shifts were not saved.
      if (version < 8 || (shifted != a && shifted != b)) {
        lists.kv_n_shift_template[k] = b;
        lists.rms_template_shift[k] = 0.0f;
      }
    }
  }
}

void settle_selection(session_state& session) {
  cluster_table& c = session.clusters;
  // A recording just read has 1 selected even without clusters.
  if (c.current_cluster < 0 || c.current_cluster > std::max(c.n_clusters, 1)) {
    c.current_cluster = std::min(c.n_clusters, 1);
  }
  c.previous_cluster = 0;
  if (session.current_channel < 1 || session.current_channel > session.recording.n_channels) {
    session.current_channel = 1;
  }
}

void settle_window(session_state& session, float start_before, float end_before) {
  if (window_first_sample(session) <= window_last_sample(session) &&
      spike_window_is_readable(session)) {
    return;
  }
  sorting_strategy_settings& s = session.strategy;
  log_message(session, fmt::format("Template window of {} to {} ms in the work file is unusable, "
                                   "{} to {} ms is kept",
                                   s.template_window_start_ms, s.template_window_end_ms,
                                   start_before, end_before));
  s.template_window_start_ms = start_before;
  s.template_window_end_ms = end_before;
}

}  // namespace

kept_settings keep_settings(const session_state& session) {
  kept_settings kept;
  for (const setting_row& row : settings_table()) {
    for (std::int32_t i = 0; i < row.count; ++i) {
      kept.values.push_back(row.address == nullptr ? 0.0 : setting_value(session, row, i));
    }
  }
  kept.window_start_ms = session.strategy.template_window_start_ms;
  kept.window_end_ms = session.strategy.template_window_end_ms;
  kept.filter_history = session.filter_history;
  kept.recording_filtered = session.recording.recording_filtered;
  return kept;
}

void settle_settings(session_state& session, const kept_settings& before) {
  auto earlier = before.values.begin();
  for (const setting_row& row : settings_table()) {
    for (std::int32_t i = 0; i < row.count; ++i, ++earlier) {
      if (row.address == nullptr) continue;
      const double value = setting_value(session, row, i);
      // What was out of range before the file came is not its doing.
      if (setting_in_range(row, value) || value == *earlier) continue;
      log_message(session, fmt::format("{} = {} in the work file is out of range, {} is kept",
                                       row.name, value, *earlier));
      store_setting(session, row, i, *earlier);
    }
  }
  // The templates of the file have the points that the file tells.
  const std::int32_t points = session.templates.template_points;
  // What a window may reach depends on the taps of the interpolation.
  apply_settings(session);
  session.templates.template_points = points;
  settle_window(session, before.window_start_ms, before.window_end_ms);
}

void prepare_for_work_file(session_state& session) {
  session.detector.repeated_with_lockout = false;
  session.autosort.split_obvious = false;
  session.autosort.stage_note.clear();
  clear_events(session.events);
  cluster_table& c = session.clusters;
  c.n_clusters = 0;
  c.current_cluster = 0;
  c.previous_cluster = 0;
  c.cluster_comment.clear();
  c.cluster_ellipse.clear();
  c.cluster_signed_off.clear();
  c.cluster_tag.clear();
  c.cluster_label.clear();
  c.cluster_proposal.clear();
  c.proposal_reasons.clear();
  session.lists.n_kv_pairs = 0;
  session.lists.n_match = 0;
  // Not in the file; tries of the sort before would count against pairs of this one.
  session.lists.kv_split_tries.clear();
  session.templates.template_n_channels.clear();
  session.templates.template_channels.clear();
}

std::string settle_sort(session_state& session, std::int32_t version) {
  const std::string problem = check_event_numbers(session);
  if (!problem.empty()) return problem;
  const std::int64_t last = last_usable_time(session, version);
  settle_event_times(session, last);
  settle_template_channels(session, version);
  // Before clusters are deleted, which keeps lists in step that fit.
  settle_lists(session, version);
  const std::int32_t removed = remove_outside_events(session.events, last);
  if (removed > 0) {
    log_message(session, fmt::format("Removed {} events with invalid time indices", removed));
  }
  delete_empty_clusters(session);
  settle_selection(session);
  // A file without templates has no points either.
  if (session.templates.template_points < 3) compute_template_points(session);
  templates_are_current(session);
  return {};
}

void forget_sort(session_state& session, const kept_settings& before) {
  prepare_for_work_file(session);
  session.filter_history = before.filter_history;
  session.recording.recording_filtered = before.recording_filtered;
  compute_template_points(session);
  settle_selection(session);
}

}  // namespace kestrelvane
