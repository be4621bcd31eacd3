#include "review/reclaim.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <set>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/realignment.h"
#include "review/cluster_marks.h"
#include "review/recorded_edit.h"
#include "session/long_operation.h"
#include "session/run_log.h"
#include "sorting/cluster_edits.h"
#include "sorting/duplicates.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

// How much of the image's maximum a place must exceed.
float part_of_maximum(reclaim_selectivity selectivity) {
  switch (selectivity) {
    case reclaim_selectivity::low:
      return 0.05f;
    case reclaim_selectivity::medium:
      return 0.15f;
    case reclaim_selectivity::high:
      break;
  }
  return 0.3f;
}

// One axis of the image: 50 cells over the mean +- 3 s.d.
constexpr std::int32_t n_cells = 50;
struct image_axis {
  float first = 0, width = 0;  // clustering units
  std::int32_t cell(float value) const {
    const float place = (value - first) / width;
    // Outside on either side, or without any width: in no cell.
    return place >= 0.0f && place < static_cast<float>(n_cells) ? static_cast<std::int32_t>(place)
                                                                : -1;
  }
};

image_axis make_axis(const gac_points& points, std::int32_t dimension) {
  double sum = 0, squares = 0;
  for (std::int32_t i = 0; i < points.n; ++i) {
    const double x = points.row(i)[dimension];
    sum += x;
    squares += x * x;
  }
  const double mean = sum / points.n;
  // The difference of two large sums may fall a little below 0 where all values are alike.
  const double sd = std::sqrt(std::max(squares / points.n - mean * mean, 0.0));
  return {static_cast<float>(mean - 3 * sd), static_cast<float>(6 * sd / n_cells)};
}

// Where a cluster's own events are dense.
struct density_image {
  image_axis x, y;
  std::array<std::array<float, n_cells + 2>, n_cells + 2> cells{};  // with a rim of zeros
  float maximum = 0, threshold = 0;

  bool holds(const float* point) const {
    const std::int32_t i = x.cell(point[0]), j = y.cell(point[1]);
    return i >= 0 && j >= 0 && cells[j + 1][i + 1] > threshold;
  }
};

density_image make_image(const gac_points& points, float part) {
  density_image image;
  image.x = make_axis(points, 0);
  image.y = make_axis(points, 1);
  auto counts = image.cells;
  for (std::int32_t e = 0; e < points.n; ++e) {
    const std::int32_t i = image.x.cell(points.row(e)[0]), j = image.y.cell(points.row(e)[1]);
    if (i >= 0 && j >= 0) counts[j + 1][i + 1] += 1.0f;
  }
  for (std::int32_t j = 1; j <= n_cells; ++j) {
    for (std::int32_t i = 1; i <= n_cells; ++i) {
      float sum = 0.0f;
      // Smoothed over 3 x 3 cells: with few events single cells are empty by chance, in the middle
      // of a cluster.
      for (std::int32_t k = 0; k < 9; ++k) sum += counts[j - 1 + k / 3][i - 1 + k % 3];
      image.cells[j][i] = sum / 9.0f;
      image.maximum = std::max(image.maximum, image.cells[j][i]);
    }
  }
  // Of the maximum and not of the sum, so that it means the same for small clusters and large.
  image.threshold = part * image.maximum;
  return image;
}

// ---------------------------------------------------------------- candidates

// Unclustered events by the channel of their registration, ascending.
using lost_events = std::vector<std::vector<std::int32_t>>;

lost_events list_lost_events(const session_state& session) {
  lost_events lost(static_cast<std::size_t>(session.recording.n_channels) + 1);
  const event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] == 0) lost[events.event_channel[e]].push_back(e);
  }
  return lost;
}

// Candidates of a cluster, ascending, and where they lay.
struct candidate_list {
  std::vector<std::int32_t> events;
  std::vector<std::int32_t> time;
  std::vector<float> shift;
};

candidate_list list_candidates(const session_state& session, const lost_events& lost,
                               std::int32_t cluster) {
  candidate_list candidates;
  const std::int32_t n_channels = session.templates.template_n_channels[cluster];
  for (std::int32_t k = 1; k <= n_channels; ++k) {
    for (const std::int32_t e : lost[session.templates.channels(cluster)[k]]) {
      // Another cluster may have had it in the meantime.
      if (session.events.event_cluster[e] == 0) candidates.events.push_back(e);
    }
  }
  // In the order of the table, as the clusters have theirs: of two candidates for one place the
  // first gets it, whatever channel it is on.
  std::sort(candidates.events.begin(), candidates.events.end());
  for (const std::int32_t e : candidates.events) {
    candidates.time.push_back(session.events.event_time[e]);
    candidates.shift.push_back(session.events.event_shift[e]);
  }
  return candidates;
}

void put_back(session_state& session, const candidate_list& candidates, std::size_t i) {
  // Alignment to a cluster that does not take the event must leave no trace: the next cluster
  // begins from where it was detected or left.
  session.events.event_time[candidates.events[i]] = candidates.time[i];
  session.events.event_shift[candidates.events[i]] = candidates.shift[i];
}

// Times at which a cluster has a spike.
struct occupied_times {
  std::vector<std::int32_t> members;  // ascending
  std::set<std::int32_t> restored;
  std::int32_t window = 1;  // samples

  // False where there is a spike already; takes the place otherwise.
  bool take(std::int32_t time) {
    const auto member = std::lower_bound(members.begin(), members.end(), time - window);
    // A cell does not fire twice within the window: the spike is one that the cluster has already.
    if (member != members.end() && *member <= time + window) return false;
    const auto other = restored.lower_bound(time - window);
    if (other != restored.end() && *other <= time + window) return false;
    restored.insert(time);
    return true;
  }
};

occupied_times times_of(const session_state& session, const std::vector<std::int32_t>& list) {
  occupied_times occupied;
  occupied.window = duplicate_window_samples(session);
  occupied.members.reserve(list.size());
  for (const std::int32_t e : list) occupied.members.push_back(session.events.event_time[e]);
  std::sort(occupied.members.begin(), occupied.members.end());
  return occupied;
}

// ---------------------------------------------------------------- one cluster

// A cluster without two events, or without spread, has no dense part.
constexpr std::int32_t least_members = 2;

// How far an event's waveform lies from the template, in its s.d.
constexpr mark_parameters by_distance{clean_by_rms, clean_on_template, 0.0f};

// The distance within which eight in ten of the cluster's own events lie. Two components see
// little of a waveform: without this test the spikes of another unit, whose cluster has been
// deleted, may look at home.
float distance_limit(const session_state& session, std::int32_t cluster,
                     const std::vector<std::int32_t>& list) {
  std::vector<float> own;
  // No distance is below it, so that an interrupted search finds nobody.
  if (!measure_events(session, by_distance, cluster, list, own, block_meter::rests)) return -1.0f;
  const auto place = own.begin() + static_cast<std::ptrdiff_t>(8 * (own.size() - 1) / 10);
  std::nth_element(own.begin(), place, own.end());
  return *place;
}

// A candidate that belongs to the cluster, and where the fit has put it.
struct found_event {
  std::size_t candidate = 0;  // place in the list of candidates
  std::int32_t time = 0;
  float shift = 0;
};

// Looks for the candidates that belong to a cluster. All are where they were afterwards.
std::vector<found_event> find_matches(session_state& session, std::int32_t cluster, float part,
                                      const candidate_list& candidates, reclaim_counts& counts) {
  pc_space space;
  gac_points members, points;
  make_pc_space(session, cluster, space, members);
  const density_image image = make_image(members, part);
  log_message(session, fmt::format("imax={} thr={}", image.maximum, image.threshold));
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  const float farthest = distance_limit(session, cluster, list);
  occupied_times occupied = times_of(session, list);
  // Compared where they fit best: a spike that overlapped another was detected off its own peak.
  align_listed_events(session, cluster, candidates.events,
                      session.strategy.multiplicative_matching);
  project_events(session, space, candidates.events, points);
  std::vector<float> away;
  const bool measured =
      measure_events(session, by_distance, cluster, candidates.events, away, block_meter::rests);
  std::vector<found_event> found;
  for (std::size_t i = 0; i < candidates.events.size(); ++i) {
    const std::int32_t e = candidates.events[i];
    const std::int32_t time = session.events.event_time[e];
    const bool dense = image.holds(points.row(static_cast<std::int64_t>(i)));
    counts.n_first_match += dense ? 1 : 0;
    // Interrupted, the distances are not known, and nobody is near enough.
    if (dense && measured && away[i] <= farthest && occupied.take(time)) {
      found.push_back({i, time, session.events.event_shift[e]});
    }
    put_back(session, candidates, i);
  }
  return found;
}

void let_in(session_state& session, std::int32_t cluster, const candidate_list& candidates,
            const std::vector<found_event>& found) {
  event_table& events = session.events;
  for (const found_event& match : found) {
    const std::int32_t e = candidates.events[match.candidate];
    events.event_time[e] = match.time;
    events.event_shift[e] = match.shift;
    events.event_cluster[e] = cluster;
    // The mark shows the user who came in, and lets him take them out again.
    events.event_subcluster[e] = 1;
    if (session.preferences.verbose_log) {
      write_run_log_window(session, fmt::format("restoring event {}", e));
    }
  }
  recalculate_cluster(session, cluster);
}

// The cluster with its new events has other components and another density; what does not lie
// in that leaves again.
void check_restored(session_state& session, std::int32_t cluster, float part,
                    const candidate_list& candidates, const std::vector<found_event>& found,
                    reclaim_counts& counts) {
  pc_space space;
  gac_points members;
  make_pc_space(session, cluster, space, members);
  const density_image image = make_image(members, part);
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  std::size_t place = 0;
  for (const found_event& match : found) {
    const std::int32_t e = candidates.events[match.candidate];
    // Both lists ascend.
    while (list[place] != e) ++place;
    if (image.holds(members.row(static_cast<std::int64_t>(place)))) continue;
    session.events.event_cluster[e] = 0;
    session.events.event_subcluster[e] = 0;
    put_back(session, candidates, match.candidate);
    ++counts.n_relabelled;
  }
  log_message(session, fmt::format("n relabelled on final check={}", counts.n_relabelled));
  // The template was made with those who have left.
  if (counts.n_relabelled > 0) recalculate_cluster(session, cluster);
}

// Templates follow, pairs do not. save: what can be taken back. Returns whether the cluster has
// changed.
bool reclaim_for_cluster(session_state& session, std::int32_t cluster,
                         reclaim_selectivity selectivity, const lost_events& lost, bool save,
                         reclaim_counts& counts) {
  const candidate_list candidates = list_candidates(session, lost, cluster);
  counts = {};
  counts.n_candidates = static_cast<std::int32_t>(candidates.events.size());
  std::vector<found_event> found;
  const float part = part_of_maximum(selectivity);
  if (!candidates.events.empty() && count_cluster_events(session, cluster) >= least_members) {
    found = find_matches(session, cluster, part, candidates, counts);
  }
  counts.n_restored = static_cast<std::int32_t>(found.size());
  // A search without a find must not cost the user the undo of what came before.
  if (save && !found.empty()) save_undo_state(session, undo_owner::cluster_review);
  if (!found.empty()) let_in(session, cluster, candidates, found);
  log_message(session, fmt::format("# of potential matches={}", counts.n_candidates));
  log_message(session, fmt::format("# of events restored  ={}", counts.n_restored));
  log_message(session, fmt::format("n_first match  ={}", counts.n_first_match));
  if (found.empty()) return false;
  check_restored(session, cluster, part, candidates, found, counts);
  return true;
}

}  // namespace

bool reclaim_events(session_state& session, reclaim_selectivity selectivity,
                    reclaim_counts& counts) {
  const std::int32_t cluster = session.clusters.current_cluster;
  counts = {};
  if (!is_cluster(session, cluster)) return false;
  if (autosort_interrupted(session)) return false;
  recorded_edit edit(session, "reclaim");
  edit.record.clusters = {cluster};
  edit.record.value = static_cast<std::int32_t>(selectivity);
  if (!reclaim_for_cluster(session, cluster, selectivity, list_lost_events(session), true,
                           counts)) {
    return !session.operation.autosort_interrupt;
  }
  // Drawn in the plane of the old components, it would enclose others now.
  session.clusters.cluster_ellipse[cluster] = {};
  renew_clusters(session, {cluster}, template_renewal::done);
  refresh_displays(session);
  return true;
}

std::int32_t reclaim_lost_events(session_state& session, reclaim_selectivity selectivity) {
  recorded_edit edit(session, "reclaim_all");
  edit.record.value = static_cast<std::int32_t>(selectivity);
  const std::int32_t n = session.clusters.n_clusters;
  const lost_events lost = list_lost_events(session);
  std::vector<std::int32_t> changed;
  std::int32_t n_restored = 0;
  for (std::int32_t cluster = 1; cluster <= n; ++cluster) {
    // Between clusters: those that are done keep what they gained, and their pairs are renewed
    // below.
    if (autosort_interrupted(session)) break;
    reclaim_counts counts;
    if (reclaim_for_cluster(session, cluster, selectivity, lost, false, counts)) {
      changed.push_back(cluster);
    }
    n_restored += counts.n_gained();
    set_progress(session, meter::clusters, cluster, n);
  }
  if (n_restored < 0) log_message(session, "Surely n_restored cannot be negative?");
  // Pairs once for all clusters: after each of them it would be the longest part by far.
  renew_clusters(session, changed, template_renewal::done);
  refresh_displays(session);
  return n_restored;
}

}  // namespace kestrelvane
