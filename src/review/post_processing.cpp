#include "review/post_processing.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <vector>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "review/alignment_score.h"
#include "review/recorded_edit.h"
#include "review/review_guards.h"
#include "session/modes.h"
#include "session/pair_index.h"
#include "session/run_log.h"
#include "sorting/cluster_edits.h"
#include "sorting/duplicates.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

bool begin_post_processing(session_state& session) {
  if (!can_review(session, post_processing_title)) return false;
  prepare_history(session);
  save_undo_state(session, undo_owner::post_processing);
  return true;
}

bool undo_post_processing(session_state& session) {
  if (!restore_recorded(session, undo_owner::post_processing)) {
    tell(session, "The sort as it was is no longer kept: another tool has saved its own.",
         post_processing_title, box_icon::warning);
    return false;
  }
  refresh_displays(session);
  tell(session, "All changes undone!", post_processing_title, box_icon::information);
  return true;
}

sort_counts count_sort(const session_state& session) {
  sort_counts counts;
  counts.n_clusters = session.clusters.n_clusters;
  counts.n_events = session.events.n_events;
  for (std::int32_t e = 1; e <= counts.n_events; ++e) {
    const bool clustered = session.events.event_cluster[e] > 0;
    counts.n_unclustered += clustered ? 0 : 1;
    counts.n_marked += clustered && session.events.event_subcluster[e] > 0 ? 1 : 0;
  }
  if (counts.n_events > 0) {
    const double clustered = counts.n_events - counts.n_unclustered;
    counts.percent_clustered = std::round(clustered * 10000.0 / counts.n_events) / 100.0;
  }
  return counts;
}

namespace {

// 0 stands for an event whose time of detection is not known; a file may bring any number.
bool has_detected_time(const session_state& session, std::int32_t e) {
  const std::int32_t time = session.events.event_detected_time[e];
  return time >= 1 && time <= session.recording.n_samples;
}

// Tools that compare an event with where it was detected.
bool detection_times_known(const session_state& session) {
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    if (has_detected_time(session, e)) return true;
  }
  tell(session, "Initial event times not present in data", post_processing_title,
       box_icon::warning);
  return false;
}

}  // namespace

// ---------------------------------------------------------------- duplicates

std::int32_t remove_duplicates_after_sort(session_state& session) {
  const recorded_edit edit(session, "remove_duplicates");
  event_table& events = session.events;
  // The removal itself only takes events out of their clusters; who left is found by comparing.
  const std::vector<std::int32_t> before(events.event_cluster.first(),
                                         events.event_cluster.first() + events.n_events);
  const std::int32_t count = remove_duplicates_by_hand(session);
  std::vector<std::int32_t> leaving;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t cluster = before[static_cast<std::size_t>(e - 1)];
    if (events.event_cluster[e] == cluster) continue;
    // They leave once more, by the road that brings templates and pairs in step.
    events.event_cluster[e] = cluster;
    leaving.push_back(e);
  }
  remove_events(session, leaving);
  refresh_displays(session);
  return count;
}

namespace {

// What one cluster's relocation needs to know.
struct relocation {
  std::int32_t cluster = 0;
  std::int32_t duplicate_window = 1;     // samples
  std::int32_t window = 0, doubled = 0;  // samples, of the fit
  double least_sharpness = 0;            // natural logarithm
};

// The logarithm that an event must exceed at its new place. Infinite without two sharp events.
double least_log_sharpness(const session_state& session, std::int32_t cluster,
                           const std::vector<std::int32_t>& list) {
  std::vector<double> logs;
  for (const float q : rms_fit_sharpness(session, cluster, list)) {
    if (q > 0.0f) logs.push_back(std::log(double{q}));
  }
  if (logs.size() < 2) return std::numeric_limits<double>::infinity();
  // Logarithms, as sharpness spreads over decades and its mean would be that of the few sharpest.
  const auto n = static_cast<double>(logs.size());
  const double mean = std::accumulate(logs.begin(), logs.end(), 0.0) / n;
  double squares = 0;
  for (const double x : logs) squares += (x - mean) * (x - mean);
  log_message(session, fmt::format("sharpness value for cluster {} = {:.3f}", cluster, mean));
  return mean + double{session.review.relocate_sd_factor} * std::sqrt(squares / (n - 1));
}

bool relocate_event(session_state& session, const relocation& task, std::int32_t e) {
  event_table& events = session.events;
  const std::int32_t old_time = events.event_time[e];
  const float old_shift = events.event_shift[e];
  // Back to where it was found: alignment has drawn it to a neighbour, and the doubled window may
  // let it find a spike of its own.
  events.event_time[e] = events.event_detected_time[e];
  if (session.strategy.multiplicative_matching) {
    align_event_multiplicative(session, task.cluster, e, task.doubled);
  } else {
    align_event_rms(session, task.cluster, e, task.doubled);
  }
  const float q = rms_fit_sharpness(session, task.cluster, {e})[0];
  // A place within one window of the old is what alignment found before, and will find again.
  const bool moved = std::abs(events.event_time[e] - old_time) > task.window;
  if (moved && q > 0.0f && std::log(double{q}) > task.least_sharpness) return true;
  events.event_time[e] = old_time;
  events.event_shift[e] = old_shift;
  return false;
}

std::int32_t drift_from_detection(const event_table& events, std::int32_t e) {
  return std::abs(events.event_time[e] - events.event_detected_time[e]);
}

// The duplicate pairs of one cluster, in the order of the table, at the times that the events
// have when their turn comes. list: of its events.
std::int32_t relocate_in_cluster(session_state& session, const relocation& task,
                                 const std::vector<std::int32_t>& list) {
  const event_table& events = session.events;
  // As for duplicates: within the next 50 events of the table, whosever they are.
  constexpr std::int32_t look_ahead = 50;
  std::int32_t n_relocated = 0;
  for (std::size_t i = 0; i < list.size(); ++i) {
    for (std::size_t j = i + 1; j < list.size() && list[j] - list[i] <= look_ahead; ++j) {
      const std::int32_t a = list[i], b = list[j];
      if (std::abs(events.event_time[b] - events.event_time[a]) > task.duplicate_window) continue;
      if (!has_detected_time(session, a) || !has_detected_time(session, b)) continue;
      // The one that alignment has carried farther is likelier the guest at this spike; of equal
      // ones the first.
      const std::int32_t farther =
          drift_from_detection(events, b) > drift_from_detection(events, a) ? b : a;
      n_relocated += relocate_event(session, task, farther) ? 1 : 0;
    }
  }
  return n_relocated;
}

}  // namespace

relocation_counts relocate_duplicate_events(session_state& session) {
  relocation_counts counts;
  if (!detection_times_known(session)) return counts;
  const recorded_edit edit(session, "relocate_duplicates");
  relocation task;
  task.duplicate_window = duplicate_window_samples(session);
  task.window = realign_window_samples(session);
  // The widest that a fit can be.
  task.doubled = std::min(2 * task.window, 50);
  counts.n_relocated = 0;
  std::vector<std::int32_t> changed;
  const std::int32_t n = session.clusters.n_clusters;
  // With less than a sample to either side a fit has nothing to choose from.
  for (task.cluster = 1; task.cluster <= n && task.doubled > 0; ++task.cluster) {
    if (autosort_interrupted(session)) break;
    const std::vector<std::int32_t> list = list_cluster_events(session, task.cluster);
    task.least_sharpness = least_log_sharpness(session, task.cluster, list);
    const std::int32_t n_here = relocate_in_cluster(session, task, list);
    if (n_here > 0) changed.push_back(task.cluster);
    counts.n_relocated += n_here;
    set_progress(session, meter::clusters, task.cluster, n);
  }
  // Before duplicates are looked for: which of two is worse is judged by the place of the template.
  renew_clusters(session, changed, template_renewal::calculated);
  counts.n_duplicates = remove_duplicate_events(session, false);
  refresh_displays(session);
  return counts;
}

// ---------------------------------------------------------------- events

namespace {

std::int32_t remove_recorded(session_state& session, const std::vector<std::int32_t>& events) {
  recorded_edit edit(session, "remove");
  edit.record.events = events;
  return remove_events(session, events);
}

// Events of all clusters with too low a score. False when interrupted.
bool find_misaligned(const session_state& session, std::vector<std::int32_t>& bad) {
  const std::int32_t n = session.clusters.n_clusters;
  for (std::int32_t cluster = 1; cluster <= n; ++cluster) {
    const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
    std::vector<float> scores;
    if (!measure_alignment(session, cluster, list, scores, block_meter::rests)) return false;
    double sum = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
      sum += scores[i];
      if (scores[i] < session.review.clean_threshold) bad.push_back(list[i]);
    }
    const double mean = list.empty() ? 0 : sum / static_cast<double>(list.size());
    log_message(session, fmt::format("sharpness value for cluster {} = {:.3f}", cluster, mean));
    set_progress(session, meter::clusters, cluster, n);
  }
  // Found cluster by cluster; removal takes them in the order of the table.
  std::sort(bad.begin(), bad.end());
  return true;
}

}  // namespace

std::int32_t alignment_clean(session_state& session, bool mark_only) {
  std::vector<std::int32_t> bad;
  if (!find_misaligned(session, bad)) return -1;
  const auto n = static_cast<std::int32_t>(bad.size());
  if (mark_only) {
    // Marks of an earlier tool would be removed with these.
    session.events.event_subcluster.clear();
    for (const std::int32_t e : bad) session.events.event_subcluster[e] = 1;
    say(session, fmt::format("Alignment marking marked {}", n));
  } else {
    remove_recorded(session, bad);
    say(session,
        fmt::format("Post-processing: alignment cleaning removed {} events from clusters", n));
    log_message(session, fmt::format("Alignment cleaning removed {} events", n));
  }
  refresh_displays(session);
  return n;
}

std::int32_t delete_shifted_events(session_state& session) {
  if (!detection_times_known(session)) return -1;
  if (!ask(session,
           "This will delete events that have shifted in time since they were detected. These are "
           "usually small and noisy.",
           "Are you sure?")) {
    return -1;
  }
  const event_table& events = session.events;
  const auto farthest =
      static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                session.strategy.realign_window_ms / 1000.0f);
  std::vector<std::int32_t> shifted;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] < 1 || !has_detected_time(session, e)) continue;
    if (drift_from_detection(events, e) > farthest) shifted.push_back(e);
  }
  const std::int32_t n = remove_recorded(session, shifted);
  say(session, fmt::format("Post-processing: {} shifted events removed from clusters", n));
  refresh_displays(session);
  return n;
}

void clear_subcluster_labels(session_state& session) {
  session.events.event_subcluster.clear();
  refresh_displays(session);
  tell(session, "All sub-cluster labelling removed; events remain in clusters",
       post_processing_title, box_icon::information);
}

std::int32_t remove_labelled_events(session_state& session) {
  const event_table& events = session.events;
  std::vector<std::int32_t> marked;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] > 0 && events.event_subcluster[e] > 0) marked.push_back(e);
  }
  const std::size_t n = marked.size();
  if (n == 0) {
    tell(session, "There are no marked events!", post_processing_title, box_icon::information);
    return -1;
  }
  if (!ask(session, fmt::format("This will delete {} marked events from clusters!", n),
           "Are you sure?")) {
    return -1;
  }
  remove_recorded(session, marked);
  log_message(session, fmt::format("Post-processing:{} marked events removed from clusters", n));
  refresh_displays(session);
  return static_cast<std::int32_t>(n);
}

// ---------------------------------------------------------------- clusters

namespace {

// S/N needs noise that was measured between spikes.
bool can_order_by_snr(const session_state& session) {
  if (session.recording.is_continuous) return true;
  tell(session, "Can't sort based on S/N ratio for event based recording!", post_processing_title,
       box_icon::warning);
  return false;
}

}  // namespace

std::int32_t delete_weak_clusters(session_state& session) {
  const bool by_snr = session.review.delete_measure == delete_by_snr;
  if (by_snr && !can_order_by_snr(session)) return -1;
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  std::vector<std::int32_t> weak;
  for (const std::int32_t c : all_clusters(session)) {
    const bool below = by_snr
                           ? template_snr(session, c) < double{session.review.delete_snr_limit}
                           : sizes[static_cast<std::size_t>(c)] < session.review.delete_size_limit;
    if (below) weak.push_back(c);
  }
  const auto n = static_cast<std::int32_t>(weak.size());
  // Mostly a limit that was mistyped.
  if (n > 0 && n == session.clusters.n_clusters &&
      !ask(session, "This will delete all the clusters!", "Are you sure?")) {
    return -1;
  }
  recorded_edit edit(session, "delete_clusters");
  edit.record.clusters = weak;
  delete_clusters(session, weak);
  say(session, fmt::format("Post-processing:{} clusters were deleted", n));
  refresh_displays(session);
  return n;
}

namespace {

// Extremes of a template on its centre channel; false for a flat one, which has none.
struct centre_extremes {
  std::int32_t highest = 1, lowest = 1, largest = 1;  // points, the first of equal ones
  const float* mean = nullptr;
  const float* sd = nullptr;
};

bool find_extremes(const session_state& session, std::int32_t cluster, centre_extremes& found) {
  const template_table& templates = session.templates;
  if (templates.template_n_channels[cluster] < 1) return false;
  found.mean = templates.mean(cluster, templates.centre_channel(cluster));
  found.sd = templates.sd(cluster, templates.centre_channel(cluster));
  for (std::int32_t t = 2; t <= templates.template_points; ++t) {
    if (found.mean[t] > found.mean[found.highest]) found.highest = t;
    if (found.mean[t] < found.mean[found.lowest]) found.lowest = t;
    if (std::fabs(found.mean[t]) > std::fabs(found.mean[found.largest])) found.largest = t;
  }
  return true;
}

double key_of_y(const session_state& session, std::int32_t c) {
  return session.templates.template_y[c];
}
double key_of_x(const session_state& session, std::int32_t c) {
  return session.templates.template_x[c];
}
double key_of_channel(const session_state& session, std::int32_t c) {
  return session.templates.centre_channel(c);
}
double key_of_amplitude(const session_state& session, std::int32_t c) {
  // A flat template has no height and sorts with the smallest.
  if (session.templates.template_n_channels[c] < 1) return 0;
  return template_peak_to_peak(session, c, session.templates.centre_channel(c));
}
double key_of_peak_time(const session_state& session, std::int32_t c) {
  centre_extremes found;
  return find_extremes(session, c, found) ? found.largest : 0;
}

// Keys that are counted in one pass for all clusters; element c for cluster c.
std::vector<double> sizes_of_clusters(const session_state& session) {
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  return {sizes.begin(), sizes.end()};
}

std::vector<double> marks_of_clusters(const session_state& session) {
  std::vector<double> marks(static_cast<std::size_t>(session.clusters.n_clusters) + 1, 0.0);
  const event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] > 0 && events.event_subcluster[e] > 0) {
      ++marks[static_cast<std::size_t>(events.event_cluster[e])];
    }
  }
  return marks;
}

// The highest overlap with any other cluster.
std::vector<double> ambiguities_of_clusters(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<double> highest(static_cast<std::size_t>(n) + 1,
                              -std::numeric_limits<double>::infinity());
  for (std::int32_t a = 1; a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      const double overlap = session.lists.kv_cluster_overlap[pair_index(n, a, b)];
      // An overlap that could not be measured is not a number, and compares as none.
      if (overlap > highest[static_cast<std::size_t>(a)])
        highest[static_cast<std::size_t>(a)] = overlap;
      if (overlap > highest[static_cast<std::size_t>(b)])
        highest[static_cast<std::size_t>(b)] = overlap;
    }
  }
  return highest;
}

struct order_row {
  renumber_order_row order;
  double (*key)(const session_state& session, std::int32_t cluster);
  std::vector<double> (*keys)(const session_state& session);  // in place of key
  const char* message;
};

constexpr order_row orders[] = {
    {order_by_y, key_of_y, nullptr, "Clusters renumbered by vertical position."},
    {order_by_x, key_of_x, nullptr, "Clusters renumbered by horizontal position."},
    {order_by_channel, key_of_channel, nullptr, "Clusters renumbered by channel number."},
    {order_by_amplitude, key_of_amplitude, nullptr, "Clusters renumbered by P-P amplitude."},
    {order_by_snr, template_snr, nullptr, "Clusters renumbered by spike S/N ratio."},
    {order_by_size, nullptr, sizes_of_clusters, "Clusters renumbered by size."},
    {order_by_ambiguity, nullptr, ambiguities_of_clusters, "Clusters renumbered by ambiguity."},
    {order_by_quality, template_quality, nullptr, "Clusters renumbered by template quality."},
    {order_by_marks, nullptr, marks_of_clusters, "Clusters renumbered by number of marked events."},
    {order_by_peak_time, key_of_peak_time, nullptr, "Clusters renumbered by time to peak."},
};

// What an order asks for before it can be used.
bool can_order(session_state& session, std::int32_t order) {
  if (order == order_by_snr) return can_order_by_snr(session);
  if (order == order_by_ambiguity) return can_review_pairs(session, post_processing_title);
  if (order != order_by_marks || count_sort(session).n_marked > 0) return true;
  tell(session, "There are no marked events!", post_processing_title, box_icon::information);
  return false;
}

std::vector<double> keys_of(const session_state& session, const order_row& row) {
  if (row.keys != nullptr) return row.keys(session);
  // Element 0 is nobody's: clusters count from 1.
  std::vector<double> keys{0.0};
  for (const std::int32_t c : all_clusters(session)) keys.push_back(row.key(session, c));
  return keys;
}

}  // namespace

double template_quality(const session_state& session, std::int32_t cluster) {
  centre_extremes found;
  if (!find_extremes(session, cluster, found)) return 0;
  const double s1 = found.sd[found.highest], s2 = found.sd[found.lowest];
  const double height = double{found.mean[found.highest]} - double{found.mean[found.lowest]};
  // Half of d' between peak and trough: their distance in units of the spread at both.
  const double spread = std::sqrt(2.0 * (s1 * s1 + s2 * s2));
  return spread > 0 ? height / spread : 0;
}

bool renumber_clusters(session_state& session) {
  const auto* row = std::find_if(std::begin(orders), std::end(orders), [&](const order_row& known) {
    return known.order == session.review.renumber_order;
  });
  if (row == std::end(orders)) {
    // The setting has room for rows that this list does not have.
    log_message(session, "No such order of clusters");
    return false;
  }
  if (!can_order(session, row->order)) return false;
  const std::vector<double> keys = keys_of(session, *row);
  const bool increasing = session.review.renumber_increasing;
  std::vector<std::int32_t> order = all_clusters(session);
  // Stable: equal clusters keep their order, also when the order is a falling one.
  std::stable_sort(order.begin(), order.end(), [&](std::int32_t a, std::int32_t b) {
    const double x = keys[static_cast<std::size_t>(a)], y = keys[static_cast<std::size_t>(b)];
    // What is not a number stands last either way; compared plainly it would leave the sort without
    // an order.
    if (std::isnan(x) || std::isnan(y)) return !std::isnan(x) && std::isnan(y);
    return increasing ? x < y : x > y;
  });
  recorded_edit edit(session, "renumber");
  edit.record.clusters = order;
  if (!std::is_sorted(order.begin(), order.end())) {
    log_message(session, "Updating cluster number");
  }
  if (!permute_clusters(session, order)) return false;
  // The user wants to see what the order begins with.
  session.clusters.current_cluster = 1;
  log_message(session, row->message);
  refresh_displays(session);
  return true;
}

}  // namespace kestrelvane
