#include "review/manage_clusters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "review/post_processing.h"
#include "review/recorded_edit.h"
#include "review/review_guards.h"
#include "sorting/cluster_edits.h"
#include "sorting/duplicates.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

constexpr const char* dialog_title = "Manage clusters";

}  // namespace

bool open_cluster_management(session_state& session, cluster_management& management) {
  management = {};
  if (!can_review(session, dialog_title)) return false;
  prepare_history(session);
  // Saved at once and not before the first edit: "Cancel" takes back all that was done since the
  // window opened.
  management.can_undo = save_undo_state(session, undo_owner::management);
  return true;
}

// ---------------------------------------------------------------- figures

namespace {

std::int32_t count_close_pairs(const session_state& session,
                               const std::vector<std::int32_t>& list) {
  constexpr std::int32_t close = 5;  // samples
  std::vector<std::int32_t> times;
  for (const std::int32_t e : list) times.push_back(session.events.event_time[e]);
  // Alignment may have carried an event past another.
  std::sort(times.begin(), times.end());
  std::int32_t count = 0;
  for (std::size_t i = 0; i < times.size(); ++i) {
    // Pairs, so that three at one place count three times: the figure warns of a detector that saw
    // one spike several times.
    for (std::size_t j = i + 1; j < times.size() && times[j] - times[i] < close; ++j) ++count;
  }
  return count;
}

}  // namespace

registration_counts count_registrations(const session_state& session, std::int32_t cluster) {
  const template_table& templates = session.templates;
  registration_counts counts;
  if (!is_cluster(session, cluster)) return counts;
  const std::int32_t* first = templates.channels(cluster) + 1;
  const std::int32_t* last = first + templates.template_n_channels[cluster];
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  for (const std::int32_t e : list) {
    // The channel is that of the registration, which need not be the centre of the template.
    const std::int32_t* at = std::find(first, last, session.events.event_channel[e]);
    counts.template_channel += at == first && first != last;
    counts.neighbours += at != first && at != last;
    counts.other_channels += at == last;
  }
  counts.n_events = count_cluster_events(session, cluster);
  // Holds as long as the list of events and their count agree.
  if (counts.template_channel + counts.neighbours + counts.other_channels != counts.n_events) {
    log_message(session, "ERROR CHECKING EVENT ASSIGNMENTS");
  }
  counts.duplicates = count_close_pairs(session, list);
  return counts;
}

double registration_percent(const registration_counts& counts, std::int32_t count) {
  return counts.n_events == 0 ? 0.0 : 100.0 * count / counts.n_events;
}

cluster_status find_cluster_status(const session_state& session, std::int32_t cluster) {
  if (session.lists.n_kv_pairs == 0) return cluster_status::unknown;
  return cluster_is_stable(session, cluster) ? cluster_status::stable : cluster_status::unstable;
}

double template_width_um(const session_state& session, std::int32_t cluster) {
  const recording_store& r = session.recording;
  const template_table& t = session.templates;
  double weighted = 0, weights = 0;
  for (std::int32_t i = 1; i <= t.template_n_channels[cluster]; ++i) {
    const std::int32_t channel = t.channels(cluster)[i];
    const double dx = double{t.template_x[cluster]} - r.chan_x[channel];
    const double dy = double{t.template_y[cluster]} - r.chan_y[channel];
    // In bits: the scale falls out of the quotient.
    const double height = double{template_peak_to_peak(session, cluster, channel)};
    weighted += height * (dx * dx + dy * dy);
    weights += height;
  }
  // Twice the weighted rms distance from the place of the template: a diameter in µm.
  return weights > 0 ? 2 * std::sqrt(weighted / weights) : 0.0;
}

namespace {

// 0 for a template that is flat everywhere and so has no centre.
double centre_height_uv(const session_state& session, std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t channel = session.templates.centre_channel(cluster);
  if (channel < 1 || channel > r.n_channels) return 0;
  return double{template_peak_to_peak(session, cluster, channel)} * r.vscale_HP;
}

}  // namespace

managed_cluster show_managed_cluster(const session_state& session, std::int32_t cluster) {
  managed_cluster shown;
  shown.n_clusters = session.clusters.n_clusters;
  if (!is_cluster(session, cluster)) return shown;
  shown.cluster = cluster;
  shown.channel = session.templates.centre_channel(cluster);
  shown.source = session.clusters.cluster_source[cluster];
  shown.status = find_cluster_status(session, cluster);
  shown.peak_to_peak = centre_height_uv(session, cluster);
  shown.snr = template_snr(session, cluster);
  shown.x = session.templates.template_x[cluster];
  shown.y = session.templates.template_y[cluster];
  shown.width = template_width_um(session, cluster);
  shown.quality = template_quality(session, cluster);
  shown.registered = count_registrations(session, cluster);
  shown.n_events = shown.registered.n_events;
  return shown;
}

// ---------------------------------------------------------------- deleting

namespace {

// Clusters that a rule condemns, by the present numbers.
template <typename Condemns>
std::vector<std::int32_t> list_condemned(const session_state& session, Condemns&& condemns) {
  std::vector<std::int32_t> doomed;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (condemns(c)) doomed.push_back(c);
  }
  return doomed;
}

std::vector<std::int32_t> list_by_rule(const session_state& session, std::int32_t rule) {
  const review_settings& limits = session.review;
  switch (rule) {
    case rule_by_snr:
      return list_condemned(session, [&](std::int32_t c) {
        return template_snr(session, c) < double{limits.delete_snr_limit};
      });
    case rule_by_height:
      return list_condemned(session, [&](std::int32_t c) {
        return centre_height_uv(session, c) < limits.manage_option_1;
      });
    case rule_ambiguous:
      return list_condemned(session,
                            [&](std::int32_t c) { return !cluster_is_stable(session, c); });
    default: {
      const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
      return list_condemned(session,
                            [&](std::int32_t c) { return sizes[c] < limits.delete_size_limit; });
    }
  }
}

// What a rule needs; says what is missing.
bool can_apply_rule(session_state& session, std::int32_t rule) {
  if (rule == rule_ambiguous) return can_review_pairs(session, dialog_title);
  // Between stored spikes there is no stretch in which noise was measured.
  if (rule == rule_by_snr && !session.recording.is_continuous) {
    tell(session, "Can't sort based on S/N ratio for event based recording!", dialog_title,
         box_icon::warning);
    return false;
  }
  return true;
}

}  // namespace

void label_unit(session_state& session, std::int32_t cluster, unit_label label) {
  if (!is_cluster(session, cluster)) return;
  recorded_edit edit(session, "label");
  edit.record.clusters = {cluster};
  edit.record.value = static_cast<std::int32_t>(label);
  session.clusters.cluster_label[cluster] = label;
  // No cluster changes, which would be noted by itself.
  note_unsaved(session, unsaved_results::edits);
}

bool label_units(session_state& session, const std::vector<std::int32_t>& units,
                 const std::vector<unit_label>& labels) {
  if (units.size() != labels.size()) return false;
  bool news = false;
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (!is_cluster(session, units[i])) return false;
    news |= session.clusters.cluster_label[units[i]] != labels[i];
  }
  if (!news) return false;
  // A repeated one keeps what the dialog on show has saved.
  if (!session.history.replaying) save_undo_state(session, undo_owner::labels);
  recorded_edit edit(session, "labels");
  edit.record.clusters = units;
  for (std::size_t i = 0; i < units.size(); ++i) {
    session.clusters.cluster_label[units[i]] = labels[i];
    edit.record.places += static_cast<char>('0' + static_cast<int>(labels[i]));
  }
  note_unsaved(session, unsaved_results::edits);
  return true;
}

bool undo_unit_labels(session_state& session) {
  return restore_recorded(session, undo_owner::labels);
}

bool delete_managed_cluster(session_state& session, cluster_management& management,
                            std::int32_t cluster) {
  if (!is_cluster(session, cluster)) return false;
  recorded_edit edit(session, "delete_clusters");
  edit.record.clusters = {cluster};
  delete_cluster(session, cluster);
  management.changed = true;
  refresh_displays(session);
  return true;
}

bool delete_clusters_by_rule(session_state& session, cluster_management& management) {
  const std::int32_t rule = session.review.manage_option_4;
  if (session.clusters.n_clusters < 1 || !can_apply_rule(session, rule)) return false;
  // Judged before any of them goes: each is ambiguous by the other, and both shall go.
  const std::vector<std::int32_t> doomed = list_by_rule(session, rule);
  recorded_edit edit(session, "delete_clusters");
  edit.record.clusters = doomed;
  delete_clusters(session, doomed);
  management.changed = management.changed || !doomed.empty();
  refresh_displays(session);
  tell(session, fmt::format("{} clusters were deleted", doomed.size()), "Cluster management",
       box_icon::information);
  return !doomed.empty();
}

bool delete_all_clusters(session_state& session, cluster_management& management) {
  if (session.clusters.n_clusters < 1) return false;
  const recorded_edit edit(session, "clear_clusters");
  clear_clusters(session);
  // He may have said no.
  if (session.clusters.n_clusters > 0) return false;
  management.changed = true;
  refresh_displays(session);
  return true;
}

std::int32_t remove_cluster_duplicates(session_state& session, cluster_management& management,
                                       std::int32_t cluster) {
  if (!is_cluster(session, cluster)) return 0;
  const std::vector<std::int32_t> worse = list_duplicate_events(session, cluster);
  if (worse.empty()) return 0;
  recorded_edit edit(session, "remove_cluster_duplicates");
  edit.record.clusters = {cluster};
  event_table& events = session.events;
  for (const std::int32_t e : worse) {
    // 0 stands for an event whose time of detection is not known.
    if (events.event_detected_time[e] != 0) events.event_time[e] = events.event_detected_time[e];
  }
  // After their times are put back: an event that is looked for again shall be where it was found.
  const std::int32_t n = remove_events(session, worse);
  management.changed = true;
  log_message(session, fmt::format("{} duplicate events removed from cluster {}", n, cluster));
  refresh_displays(session);
  return n;
}

void cancel_cluster_management(session_state& session, cluster_management& management) {
  if (!management.changed || !management.can_undo) return;
  // The state may be gone when another tool has saved its own; then nothing is said of an undo that
  // was none.
  if (!restore_recorded(session, undo_owner::management)) return;
  management.changed = false;
  refresh_displays(session);
  tell(session, "All changes undone!", dialog_title, box_icon::information);
}

}  // namespace kestrelvane
