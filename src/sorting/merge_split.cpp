#include "sorting/merge_split.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "clustering/clustering_runs.h"
#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/realignment.h"
#include "session/pair_index.h"
#include "sorting/cluster_edits.h"
#include "sorting/pair_measures.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t merge_meter_range = 150;
constexpr std::int32_t merges_per_call = 100;
// A pair that stays ambiguous after so many splits is left to the user.
constexpr std::int32_t tries_per_pair = 4;
// A pair's own tries end with the pair: where its pieces merge and are split again, new pairs would
// begin to count anew for ever. So splits are counted by event as well, which goes through every
// renumbering. Far above what a sort comes to whose clusters stand for units.
constexpr std::int32_t tries_per_event = 16;
// Of what has no place in the list of sub-clusters that are kept.
constexpr std::int16_t label_outside_list = 10;

void set_merge_meter(const session_state& session, std::int32_t value) {
  set_progress(session, meter::merge_and_sort, value, merge_meter_range);
}

void show_counts(const session_state& session) {
  set_status(session, status_field::stable_clusters,
             std::to_string(count_stable_clusters(session)));
  set_status(session, status_field::clusters_found, std::to_string(session.clusters.n_clusters));
}

std::int32_t count_clustered_events(const session_state& session) {
  std::int32_t count = 0;
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    count += session.events.event_cluster[e] > 0;
  }
  return count;
}

// Of the pairs that qualify, how many there are and the one of largest overlap
// above 0 (the first on ties; 0 when there is none).
struct pair_search {
  std::int32_t count = 0;
  std::int64_t best = 0;
};
template <typename Qualifies>
pair_search find_largest_overlap(const session_state& session, Qualifies&& qualifies) {
  pair_search search;
  float best = 0.0f;
  for (std::int64_t k = 1; k <= session.lists.n_kv_pairs; ++k) {
    if (!qualifies(k)) continue;
    ++search.count;
    // Strictly above: the first of equal ones stays, and what is not a number never wins.
    if (session.lists.kv_cluster_overlap[k] > best) {
      best = session.lists.kv_cluster_overlap[k];
      search.best = k;
    }
  }
  return search;
}

// What the displays show of the pair or cluster in hand. points: of the events, in their order.
void put_in_pool(session_state& session, std::vector<std::int32_t> clusters,
                 std::vector<std::int32_t> events, gac_points& points) {
  event_pool& pool = session.autosort.pool;
  pool = {};
  pool.pooled = pool.clusters = std::move(clusters);
  pool.events = std::move(events);
  for (const std::int32_t e : pool.events) {
    pool.labels.push_back(session.events.event_subcluster[e]);
  }
  pool.dimensions = points.dimensions;
  pool.values = std::move(points.values);
}

}  // namespace

// ---------------------------------------------------------------- safe merges

bool pair_is_safe(const session_state& session, std::int64_t k) {
  const status_lists_table& lists = session.lists;
  const float s = lists.kv_template_correlation[k] + 1.25f * lists.kv_cluster_overlap[k] - 1.75f;
  if (!(s > 0.0f)) return false;
  const auto [a, b] = pair_from_index(session.clusters.n_clusters, k);
  // Templates that reach over different channels need a clearer case.
  const std::int32_t differing = n_union_channels(session, a, b) - n_common_channels(session, a, b);
  return differing < 6 || s >= 0.25f;
}

namespace {

pair_search find_safe_pair(const session_state& session) {
  return find_largest_overlap(session, [&](std::int64_t k) { return pair_is_safe(session, k); });
}

void report_merge_loss(const session_state& session, std::int32_t size_before,
                       std::int32_t size_after, std::int32_t clustered_before) {
  if (size_before == size_after) {
    log_message(session, "Merging did not remove any events");
    return;
  }
  log_message(session, fmt::format("events deleted, original-final cluster sizes={}",
                                   size_before - size_after));
  log_message(session, fmt::format("globally {} events were deleted as a result of the merge!",
                                   clustered_before - count_clustered_events(session)));
}

std::vector<std::int32_t> list_pair_events(const session_state& session, std::int32_t a,
                                           std::int32_t b) {
  std::vector<std::int32_t> list;
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    const std::int32_t of = session.events.event_cluster[e];
    if (of == a || of == b) list.push_back(e);
  }
  return list;
}

// The two as they are before the merge, for who wants to see what is merged.
void show_safe_pair(session_state& session, std::int32_t a, std::int32_t b) {
  std::vector<std::int32_t> list = list_pair_events(session, a, b);
  for (const std::int32_t e : list) {
    session.events.event_subcluster[e] = session.events.event_cluster[e] == a ? 0 : 1;
  }
  gac_points points;
  pair_pc_values(session, a, b, 0, points);
  put_in_pool(session, {a, b}, std::move(list), points);
  set_status(session, status_field::current_pair, fmt::format("{} {}", a, b));
  refresh_displays(session);
  log_message(session, fmt::format("Paused for clusters {} {}", a, b));
}

// A merge has no labels left; for as long as it is looked at they tell who came from where.
void label_as_pooled(session_state& session, std::int32_t merged) {
  event_pool& pool = session.autosort.pool;
  pool.clusters = {merged};
  for (std::size_t i = 0; i < pool.events.size(); ++i) {
    const std::int32_t e = pool.events[i];
    if (session.events.event_cluster[e] == merged) {
      session.events.event_subcluster[e] = pool.labels[i];
    }
  }
}

void merge_safe_pair(session_state& session, std::int64_t k) {
  const auto [a, b] = pair_from_index(session.clusters.n_clusters, k);
  // Read once: labels, report and pause belong together, and the button may be pressed at any
  // moment.
  const bool pause = session.operation.pause_requested;
  const std::int32_t size_before =
      count_cluster_events(session, a) + count_cluster_events(session, b);
  const std::int32_t clustered_before = pause ? count_clustered_events(session) : 0;
  session.autosort.pool = {};
  if (pause) show_safe_pair(session, a, b);
  // Numbers the pair by the clusters before the merge; k means nothing after it.
  apply_template_shift(session, a, b, k);
  merge_clusters(session, a, b);
  const std::int32_t merged = std::min(a, b);
  if (pause) label_as_pooled(session, merged);
  refresh_displays(session);
  if (!pause) return;
  report_merge_loss(session, size_before, count_cluster_events(session, merged), clustered_before);
  pause_point(session);
  for (const std::int32_t e : list_cluster_events(session, merged)) {
    session.events.event_subcluster[e] = 0;
  }
}

}  // namespace

std::int32_t automerge_safe_pairs(session_state& session, std::int32_t meter_from,
                                  std::int32_t meter_to) {
  set_merge_meter(session, meter_from);
  pair_search search = find_safe_pair(session);
  const std::int32_t n_first = search.count;
  if (n_first != 0) {
    log_message(session, "Automerging safe pairs");
    log_message(session, fmt::format("n pairs to merge ={}", n_first));
  }
  std::int32_t merges = 0;
  while (search.best != 0) {
    ++merges;
    const auto [a, b] = pair_from_index(session.clusters.n_clusters, search.best);
    log_message(session, fmt::format("Automerge #{} merging clusters {} & {}", merges, a, b));
    merge_safe_pair(session, search.best);
    show_counts(session);
    set_status(session, status_field::current_pair, "");
    search = find_safe_pair(session);
    // A merge may make new safe pairs, more than there were at first.
    const std::int32_t done = std::max(0, n_first - search.count);
    set_merge_meter(session, meter_from + (meter_to - meter_from) * done / n_first);
    // A bound for merges that keep making each other's next pair.
    if (merges >= merges_per_call || autosort_interrupted(session)) break;
  }
  set_merge_meter(session, meter_to);
  return merges;
}

// ---------------------------------------------------------------- one pair

namespace {

// Position of a sub-cluster in the list of those kept, from 1; 0 when not in it.
std::int32_t place_in_list(const stage_verdict& verdict, std::int32_t label) {
  const auto at = std::find(verdict.kept.begin(), verdict.kept.end(), label);
  return at == verdict.kept.end() ? 0 : static_cast<std::int32_t>(at - verdict.kept.begin()) + 1;
}

// Folds what is at the best stage but not in the list.
void fold_unlisted(const session_state& session, const gac_points& points, gac_tables& tables,
                   const stage_verdict& verdict) {
  bool any = false;
  for (std::int32_t j = 1; j <= gac_label_limit; ++j) {
    if (tables.as_cl_sizes[verdict.best_stage][j] == 0 || place_in_list(verdict, j) != 0) continue;
    // The call stands first, so that none is skipped once one has been folded.
    any = fold_small_subcluster(session, points, tables, verdict.best_stage, j) || any;
  }
  if (any) log_message(session, "Small subcluster was merged");
}

// Labels events for what follows and for the displays: their place in the list.
void label_events(session_state& session, const std::vector<std::int32_t>& list,
                  const gac_tables& tables, const stage_verdict& verdict) {
  for (std::size_t i = 0; i < list.size(); ++i) {
    std::int16_t label = 1;
    // Without a stage that splits the pool, all of it is sub-cluster 1.
    if (verdict.best_stage != 0 && verdict.n_keep >= 2) {
      const std::int32_t place = place_in_list(verdict, tables.stage_labels[verdict.best_stage][i]);
      label = place == 0 ? label_outside_list : static_cast<std::int16_t>(place);
    }
    session.events.event_subcluster[list[i]] = label;
  }
}

// The pool is one unit: a plain merge, without shift and without removals.
void merge_pool(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k) {
  log_message(session, fmt::format("Merging pair that can't be split; initial overlap ={}",
                                   session.lists.kv_cluster_overlap[k]));
  absorb_cluster(session, a, b);
  session.autosort.pool.clusters = {std::min(a, b)};
}

void mark_ambiguous(session_state& session, const std::vector<std::int32_t>& members) {
  const std::int32_t n = session.clusters.n_clusters;
  for (const std::int32_t x : members) {
    for (const std::int32_t y : members) {
      if (x < y) session.lists.kv_user_ambiguous[pair_index(n, x, y)] = true;
    }
  }
}

// Where labelled events go: label p to place p. others: the place of events whose label
// stands for no sub-cluster of the list.
event_places places_of_labels(const session_state& session, std::vector<std::int32_t> clusters,
                              const std::vector<std::int32_t>& list, const stage_verdict& verdict,
                              std::int32_t others) {
  event_places places{
      std::move(clusters), list, {}, static_cast<std::int32_t>(verdict.kept.size()), {}};
  places.place.reserve(list.size());
  for (const std::int32_t e : list) {
    const std::int32_t label = session.events.event_subcluster[e];
    places.place.push_back(label <= places.n_places ? label : others);
  }
  return places;
}

// The pair has been tried once more; says what became of its overlap.
void note_pair_tried(session_state& session, std::int64_t k, float old_overlap) {
  session.lists.kv_user_ambiguous[k] = true;
  ++session.lists.kv_split_tries[k];
  log_message(session, fmt::format("  overlaps before and after split ={} and {}", old_overlap,
                                   session.lists.kv_cluster_overlap[k]));
}

// Makes the listed sub-clusters a, b and, from the third on, new clusters. All pairs among
// them count as looked at, so that the pass ends.
void replace_pair(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k,
                  const std::vector<std::int32_t>& list, const stage_verdict& verdict) {
  if (session.preferences.verbose_log) {
    log_message(session, fmt::format("split list = {}", fmt::join(verdict.kept, " ")));
  }
  const auto n_listed = static_cast<std::int32_t>(verdict.kept.size());
  const float old_overlap = session.lists.kv_cluster_overlap[k];
  // What no listed sub-cluster could take stays where it is.
  event_places places = places_of_labels(session, {a, b}, list, verdict, -1);
  // k is good here and no later: the first new cluster gives all pairs other numbers.
  places.old_ones_done = [&] {
    note_pair_tried(session, k, old_overlap);
    if (n_listed < 3) return;
    log_message(session, n_listed == 3 ? "Adding new cluster" : "Adding new clusters");
    log_message(session, fmt::format("Splitting into{}", n_listed));
  };
  session.autosort.pool.clusters = share_out_events(session, places);
  mark_ambiguous(session, session.autosort.pool.clusters);
}

// Merges or splits the pair k = (a, b). False when the cluster limit forbids it;
// nothing is changed then.
bool merge_or_split_pair(session_state& session, std::int64_t k) {
  const auto [a, b] = pair_from_index(session.clusters.n_clusters, k);
  log_message(session, fmt::format("Merging & splitting clusters {} & {}", a, b));
  gac_points points;
  const auto tables = std::make_unique<gac_tables>();
  gac_run_pair(session, automatic_gac_parameters(session), a, b, points, *tables);
  const stage_verdict verdict = judge_stages(session, points, *tables);
  // As if all of them were new, though two take over the numbers of the pair.
  if (session.clusters.n_clusters + verdict.n_keep > session.max_clusters) return false;
  if (verdict.best_stage != 0) fold_unlisted(session, points, *tables, verdict);
  const std::vector<std::int32_t> list = list_pair_events(session, a, b);
  label_events(session, list, *tables, verdict);
  put_in_pool(session, {a, b}, list, points);
  refresh_displays(session);
  if (verdict.kept.size() < 2) {
    merge_pool(session, a, b, k);
  } else {
    replace_pair(session, a, b, k, list, verdict);
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------- all pairs

namespace {

void clear_marks(session_state& session) {
  for (std::int32_t k = 1; k <= session.lists.n_kv_pairs; ++k) {
    session.lists.kv_split_tries[k] = 0;
    session.lists.kv_user_ambiguous[k] = false;
    session.lists.kv_user_distinct[k] = false;
  }
}

void clear_ambiguous_marks(session_state& session) { session.lists.kv_user_ambiguous.clear(); }

std::string name_pairs_left(std::int32_t n) {
  return n == 1 ? "There is 1 pair left" : fmt::format("There are {} pairs left", n);
}

// An overlap that is not a number belongs to a pair that nothing can be said of: it
// counts, but is never the largest.
pair_search find_pair_to_try(const session_state& session, const std::vector<char>& worn_out) {
  const std::int32_t n = session.clusters.n_clusters;
  return find_largest_overlap(session, [&](std::int64_t k) {
    if (pair_is_distinct(session, k) || session.lists.kv_split_tries[k] >= tries_per_pair) {
      return false;
    }
    const auto [a, b] = pair_from_index(n, k);
    return !(worn_out[a] && worn_out[b]);
  });
}

// Clusters all of whose events have been through as many splits as an event may be. A split takes
// one event at least that has not, so that the pass ends.
std::vector<char> find_worn_out(const session_state& session,
                                const std::vector<std::int32_t>& tries) {
  std::vector<char> worn_out(static_cast<std::size_t>(session.clusters.n_clusters) + 1, 1);
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    if (tries[e] < tries_per_event) worn_out[session.events.event_cluster[e]] = 0;
  }
  return worn_out;
}

// The pair in hand has been replaced: more clusters than one came of it.
void count_event_tries(const session_state& session, std::vector<std::int32_t>& tries) {
  const event_pool& pool = session.autosort.pool;
  if (pool.clusters.size() < 2) return;
  for (const std::int32_t e : pool.events) ++tries[e];
}

// A split may leave more pairs than there were at first: the meter stays within its part.
void move_pairs_meter(const session_state& session, std::int32_t from, std::int32_t to,
                      std::int32_t n_left, std::int32_t n_initial) {
  // Pairs run to eight million; times the range of the meter that leaves 32 bits.
  const auto left = static_cast<std::int64_t>(n_left) * to / n_initial;
  set_merge_meter(session,
                  std::min(to, std::max(from, static_cast<std::int32_t>(from + to - left))));
}

// Merges or splits a pair, with its words; false when the cluster limit forbids it.
bool try_pair(session_state& session, std::int64_t k, std::int32_t looked_at) {
  const auto [a, b] = pair_from_index(session.clusters.n_clusters, k);
  log_message(session,
              fmt::format(" # of comparisons={} next pair={} {}; sizes={} {}", looked_at, a, b,
                          count_cluster_events(session, a), count_cluster_events(session, b)));
  set_status(session, status_field::current_pair, fmt::format("{} {}", a, b));
  const bool room = merge_or_split_pair(session, k);
  refresh_displays(session);
  show_counts(session);
  pause_point(session);
  if (room) return true;
  tell(session, "Cannot add new cluster as maximum number has been reached", "Create new cluster",
       box_icon::warning);
  session.autosort.max_clusters_reached = true;
  return false;
}

}  // namespace

void merge_split_pairs_pass(session_state& session, std::int32_t meter_from,
                            std::int32_t meter_to) {
  set_merge_meter(session, meter_from);
  clear_marks(session);
  std::int32_t n_initial = 0, looked_at = 0;
  std::vector<std::int32_t> tries(static_cast<std::size_t>(session.events.n_events) + 1, 0);
  bool stop = false;
  while (!stop) {
    const pair_search search = find_pair_to_try(session, find_worn_out(session, tries));
    if (n_initial == 0) n_initial = search.count;
    if (search.count == 0) break;
    move_pairs_meter(session, meter_from, meter_to, search.count, n_initial);
    log_message(session, name_pairs_left(search.count));
    // Pairs are left, none of them with an overlap above 0: there is no best one to take.
    if (search.best == 0) {
      log_message(session, "!!!!!!!!!!!Error looking for cluster pair!!!!!!!!!!!!!");
      break;
    }
    ++looked_at;
    // The pair in hand is finished; the interrupt counts before the next one.
    stop = !try_pair(session, search.best, looked_at) || autosort_interrupted(session);
    count_event_tries(session, tries);
  }
  // They were the marks of the pass; the review by the user starts without any.
  clear_ambiguous_marks(session);
  if (stop) {
    log_message(session, fmt::format("Initial # of pairs to look at={}", n_initial));
    log_message(session, fmt::format("# of pairs actually looked at={}", looked_at));
  }
}

// ---------------------------------------------------------------- final check

namespace {

// Cuts one cluster by the verdict: the first of the list stays, the others become
// new clusters at the end, and what no listed sub-cluster could take is unclustered.
void split_by_verdict(session_state& session, std::int32_t cluster, gac_points& points,
                      gac_tables& tables, const stage_verdict& verdict) {
  fold_unlisted(session, points, tables, verdict);
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  label_events(session, list, tables, verdict);
  put_in_pool(session, {cluster}, list, points);
  refresh_displays(session);
  session.autosort.pool.clusters =
      share_out_events(session, places_of_labels(session, {cluster}, list, verdict, 0));
  for (const std::int32_t e : list) session.events.event_subcluster[e] = 0;
}

void report_final_check(const session_state& session, const char* words, std::int32_t n_splits,
                        std::int32_t n_first) {
  log_message(session, fmt::format("{}; made {} further splits", words, n_splits));
  log_message(session,
              fmt::format("initial, final clusters ={} {}", n_first, session.clusters.n_clusters));
}

enum class check_result { one_cluster, split, no_room };

// Tries once to split a cluster that stands alone.
check_result check_cluster(session_state& session, std::int32_t c) {
  session.clusters.current_cluster = c;
  set_status(session, status_field::current_cluster,
             fmt::format("{} {}", c, count_cluster_events(session, c)));
  log_message(session, fmt::format("Checking cluster {}", c));
  gac_points points;
  const auto tables = std::make_unique<gac_tables>();
  gac_run_cluster(session, automatic_gac_parameters(session), c, points, *tables);
  const stage_verdict verdict = judge_stages(session, points, *tables);
  if (verdict.kept.size() < 2) {
    log_message(session, "Cannot find subclusters");
    const std::vector<std::int32_t> list = list_cluster_events(session, c);
    for (const std::int32_t e : list) session.events.event_subcluster[e] = 0;
    put_in_pool(session, {c}, list, points);
    refresh_displays(session);
    return check_result::one_cluster;
  }
  // As if all of them were new, though the first keeps the number.
  if (session.clusters.n_clusters + verdict.n_keep > session.max_clusters) {
    return check_result::no_room;
  }
  log_message(session, "Splitting cluster ");
  if (session.preferences.verbose_log) {
    log_message(session, fmt::format("Split list ={}", fmt::join(verdict.kept, " ")));
  }
  split_by_verdict(session, c, points, *tables, verdict);
  show_counts(session);
  return check_result::split;
}

// Where the meter stands in the final check: most of its way belongs to the first
// pass, the rest to the second.
struct check_meter {
  std::int32_t from, mid, to;
};

void move_check_meter(const session_state& session, const check_meter& meter, std::int32_t pass,
                      std::int32_t c, std::int32_t n_in_pass) {
  if (pass == 1) {
    set_merge_meter(session, meter.from + c * (meter.mid - meter.from) / n_in_pass);
  } else if (pass == 2) {
    set_merge_meter(session,
                    std::min(meter.to, meter.mid + (meter.to - meter.mid) * c / n_in_pass));
  }
}

}  // namespace

void final_split_check(session_state& session, std::int32_t meter_from, std::int32_t meter_to) {
  log_message(session, "");
  log_message(session, "Making final check ... please wait");
  const std::int32_t n_first = session.clusters.n_clusters;
  const check_meter meter{
      meter_from,
      static_cast<std::int32_t>(static_cast<float>(meter_from) +
                                static_cast<float>(meter_to - meter_from) * 0.8f),
      meter_to};
  // By number, which holds during the check: clusters come at the end and none is deleted.
  std::vector<char> checked(cluster_limit + 1, 0);
  std::int32_t n_splits = 0, n_left = n_first;
  for (std::int32_t pass = 1; n_left > 0; ++pass) {
    // Clusters that this pass adds wait for the next one.
    const std::int32_t n_now = session.clusters.n_clusters;
    for (std::int32_t c = 1; c <= n_now; ++c) {
      if (checked[c]) continue;
      const check_result result = check_cluster(session, c);
      // A cluster that was split stays unchecked under its number: what is left of it is looked at
      // again, until every part has been found to be one.
      checked[c] = result == check_result::one_cluster;
      n_splits += result == check_result::split;
      if (result == check_result::no_room) {
        session.autosort.max_clusters_reached = true;
        report_final_check(session, "Stopping final check for subclusters as max clusters reached",
                           n_splits, n_first);
        return;
      }
      move_check_meter(session, meter, pass, c, n_left);
      pause_point(session);
      if (autosort_interrupted(session)) return;
    }
    n_left = 0;
    for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) n_left += checked[c] == 0;
  }
  report_final_check(session, "Finished final check for subclusters", n_splits, n_first);
}

}  // namespace kestrelvane
