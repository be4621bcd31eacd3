#include "review/pair_split.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <numeric>

#include "clustering/clustering_runs.h"
#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/stage_judge.h"
#include "review/pair_values.h"
#include "review/recorded_edit.h"
#include "sorting/cluster_edits.h"

namespace kestrelvane {

const char* ugm_text(ugm_message message) {
  switch (message) {
    case ugm_not_split:
      return "Pair could not be split";
    case ugm_one_cluster:
      return "Only one good cluster can be found";
    case ugm_three_clusters:
      return "Three clusters appear to be present";
    case ugm_two_and_spurious:
      return "Two clusters + possibly spurious clusters present";
    default:
      return "";
  }
}

// ---------------------------------------------------------------- rows

namespace {

constexpr const char* split_title = "What do you want to do?";

// Whether the larger part of the pool goes to b, whose events those mostly are.
bool b_was_larger(const pair_split& split) { return split.n_b > split.n_a; }

// The label of the row at a rank, from 0.
std::int16_t label_of_rank(const pair_split& split, std::size_t rank) {
  // Only the two largest change places; rows of a third or fourth unit belong to neither.
  if (rank < 2 && b_was_larger(split)) rank = 1 - rank;
  // Labels end at 99; what lies beyond goes the way of the others in any case.
  return static_cast<std::int16_t>(std::min<std::size_t>(rank + 1, label_of_deleted - 1));
}

bool is_deleted(const pair_split& split, std::int16_t label) {
  return std::any_of(split.rows.begin(), split.rows.end(),
                     [label](const split_row& row) { return row.label == label && row.deleted; });
}

// Rows by falling size, the lower label first of equal ones, and labels by their rows. Marks
// of deletion go with their rows.
void rank_rows(pair_split& split) {
  std::array<std::int32_t, label_of_deleted + 1> sizes{};
  for (const std::int16_t label : split.labels) ++sizes[label];
  std::vector<split_row> rows;
  for (std::int16_t label = 0; label <= label_of_deleted; ++label) {
    if (sizes[label] > 0) rows.push_back({label, sizes[label], is_deleted(split, label)});
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [](const split_row& x, const split_row& y) { return x.n_events > y.n_events; });
  std::array<std::int16_t, label_of_deleted + 1> new_label{};
  for (std::size_t rank = 0; rank < rows.size(); ++rank) {
    new_label[rows[rank].label] = label_of_rank(split, rank);
    rows[rank].label = label_of_rank(split, rank);
  }
  for (std::int16_t& label : split.labels) label = new_label[label];
  split.rows = std::move(rows);
}

void write_labels(session_state& session, const pair_split& split) {
  for (std::size_t i = 0; i < split.events.size(); ++i) {
    const std::int16_t label = split.labels[i];
    session.events.event_subcluster[split.events[i]] =
        is_deleted(split, label) ? label_of_deleted : label;
  }
  refresh_displays(session);
}

// Subclusters of a stage that are neither large nor long-lived join a neighbour, so that the
// rows show what there is to choose from. Done for the stages that are looked at.
void fold_stage(const session_state& session, pair_split& split, std::int32_t stage) {
  if (split.folded[stage]) return;
  split.folded[stage] = true;
  gac_tables& tables = *split.tables;
  // From the last label on: one that has been folded may make its neighbour large enough to stay.
  for (std::int32_t j = gac_label_limit; j >= 1; --j) {
    const std::int32_t size = tables.as_cl_sizes[stage][j];
    const bool weak = 2 * tables.as_cl_scores[stage][j] < session.strategy.gac_threshold;
    if (size == 0 || size >= least_cluster_size(session) || !weak) continue;
    fold_small_subcluster(session, split.points, tables, stage, j);
  }
}

std::size_t count_shown_rows(const pair_split& split) {
  return std::min(split.rows.size(), split_row_limit);
}

}  // namespace

void show_split_stage(session_state& session, pair_split& split, std::int32_t stage) {
  // Too few points for a single stage: there is only the membership to be shown.
  if (split.n_stages == 0) return revert_split(session, split);
  split.selected_stage = std::clamp(stage, 1, split.n_stages);
  fold_stage(session, split, split.selected_stage);
  const std::vector<std::int32_t>& of = split.tables->stage_labels[split.selected_stage];
  split.labels.assign(of.begin(), of.end());
  split.rows.clear();
  rank_rows(split);
  write_labels(session, split);
}

float split_sigma_uv(const session_state& session, const pair_split& split) {
  return split.selected_stage == 0 ? 0.0f : stage_sigma_uv(session, split.selected_stage);
}

bool merge_split_rows(session_state& session, pair_split& split, std::size_t row) {
  // A row merges with the one below it, and the last has none.
  if (row + 1 >= count_shown_rows(split)) return false;
  const std::int16_t upper = split.rows[row].label, lower = split.rows[row + 1].label;
  std::replace(split.labels.begin(), split.labels.end(), lower, upper);
  rank_rows(split);
  write_labels(session, split);
  return true;
}

bool delete_split_row(session_state& session, pair_split& split, std::size_t row) {
  if (row >= count_shown_rows(split)) return false;
  // The same button takes it back.
  split.rows[row].deleted = !split.rows[row].deleted;
  write_labels(session, split);
  return true;
}

void revert_split(session_state& session, pair_split& split) {
  split.selected_stage = 0;
  split.labels.clear();
  for (const std::int32_t e : split.events) {
    split.labels.push_back(session.events.event_cluster[e] == split.pair.a ? 1 : 2);
  }
  split.rows.clear();
  rank_rows(split);
  write_labels(session, split);
}

std::int32_t count_other_events(const pair_split& split) {
  std::int32_t count = 0;
  for (std::size_t i = split_row_limit; i < split.rows.size(); ++i) {
    count += split.rows[i].n_events;
  }
  return count;
}

bool offers_merge(const pair_split& split) {
  return split.message == ugm_not_split || split.message == ugm_one_cluster;
}

// ---------------------------------------------------------------- splitting

namespace {

// Events of both clusters, in the order in which clustering has their points.
std::vector<std::int32_t> list_pool(const session_state& session, cluster_pair pair) {
  const std::vector<std::int32_t> of_a = list_cluster_events(session, pair.a);
  const std::vector<std::int32_t> of_b = list_cluster_events(session, pair.b);
  std::vector<std::int32_t> pool;
  std::merge(of_a.begin(), of_a.end(), of_b.begin(), of_b.end(), std::back_inserter(pool));
  return pool;
}

// Where nothing was found, the stage at which the two leading subclusters last longest is the
// best guess of where a split could be; the first of several.
std::int32_t find_longest_lived_stage(const gac_tables& tables) {
  std::int32_t best = tables.n_stages > 0 ? 1 : 0;
  const auto score = [&tables](std::int32_t s) {
    return tables.as_cl_scores[s][1] + tables.as_cl_scores[s][2];
  };
  for (std::int32_t s = 2; s <= tables.n_stages; ++s) {
    if (score(s) > score(best)) best = s;
  }
  return best;
}

void log_stages(const session_state& session, const gac_tables& tables,
                const stage_verdict& verdict) {
  if (!session.preferences.verbose_log) return;
  for (std::int32_t s = 1; s <= tables.n_stages; ++s) {
    log_message(
        session,
        fmt::format("stage {} sigma={:.3f} sizes={} {} {} scores={} {} {} value={}", s,
                    stage_sigma_uv(session, s), tables.as_cl_sizes[s][1], tables.as_cl_sizes[s][2],
                    tables.as_cl_sizes[s][3], tables.as_cl_scores[s][1], tables.as_cl_scores[s][2],
                    tables.as_cl_scores[s][3], verdict.stage_value[s]));
  }
}

// The pair has been looked at, and need not be shown again.
void mark_pair_ambiguous(session_state& session, cluster_pair pair) {
  const std::int64_t k = find_pair(session, pair);
  if (k != 0) session.lists.kv_user_ambiguous[k] = true;
}

// A place is one character: there are at most as many as rows.
void describe_places(edit_record& record, const event_places& places) {
  record.clusters = places.clusters;
  for (const std::int32_t place : places.place) {
    record.places += static_cast<char>('0' + place);
  }
}

// The two subclusters that were found become the two clusters; everything else is spurious.
void split_in_two(session_state& session, pair_split& split, std::int32_t stage,
                  const std::vector<std::int32_t>& kept) {
  event_places places{{split.pair.a, split.pair.b}, split.events, {}, 2, {}};
  const std::vector<std::int32_t>& labels = split.tables->stage_labels[stage];
  for (std::size_t i = 0; i < split.events.size(); ++i) {
    const std::int32_t place = labels[i] == kept[0] ? 1 : labels[i] == kept[1] ? 2 : 0;
    places.place.push_back(place);
    session.events.event_subcluster[split.events[i]] = static_cast<std::int16_t>(place);
  }
  recorded_edit edit(session, "split_pair");
  describe_places(edit.record, places);
  split.changed = share_out_events(session, places);
  mark_pair_ambiguous(session, split.pair);
}

// What a stage that was found calls for.
ugm_message judge_found(const gac_tables& tables, const stage_verdict& verdict) {
  // Folding may have left fewer than the stage was to keep.
  if (verdict.kept.size() < 2) return ugm_one_cluster;
  if (verdict.n_keep > 2) return ugm_three_clusters;
  // Whatever else is large enough to be a cluster is shown before it is thrown away.
  return tables.nc_ge_min[verdict.best_stage] < 3 ? ugm_none : ugm_two_and_spurious;
}

pair_split begin_split(const session_state& session, cluster_pair pair) {
  pair_split split;
  split.pair = {std::min(pair.a, pair.b), std::max(pair.a, pair.b)};
  split.n_a = count_cluster_events(session, split.pair.a);
  split.n_b = count_cluster_events(session, split.pair.b);
  split.events = list_pool(session, split.pair);
  split.tables = std::make_unique<gac_tables>();
  log_message(session, fmt::format("Merging & splitting clusters {} & {}; sizes={} {}",
                                   split.pair.a, split.pair.b, split.n_a, split.n_b));
  return split;
}

}  // namespace

pair_split guided_split(session_state& session, cluster_pair pair, bool manual) {
  pair_split split = begin_split(session, pair);
  gac_tables& tables = *split.tables;
  gac_parameters parameters = gac_parameters_of(session);
  // The user may want to see every bandwidth, so that no run ends at the first good cluster.
  parameters.split_obvious = false;
  gac_run_pair(session, parameters, split.pair.a, split.pair.b, split.points, tables);
  stage_verdict verdict = judge_stages(session, split.points, tables);
  log_stages(session, tables, verdict);
  split.n_stages = tables.n_stages;
  const std::int32_t stage = verdict.found ? verdict.best_stage : find_longest_lived_stage(tables);
  split.message = ugm_not_split;
  if (verdict.found && !manual) {
    session.reviewed.last_split_sigma = stage_sigma_uv(session, stage);
    // So that the larger part keeps the number of the larger cluster, and with it what the user
    // knows of it.
    if (b_was_larger(split) && verdict.kept.size() >= 2) {
      std::swap(verdict.kept[0], verdict.kept[1]);
    }
    if (session.preferences.verbose_log) {
      log_message(session, fmt::format("Split list={}", fmt::join(verdict.kept, " ")));
    }
    split.message = judge_found(tables, verdict);
  }
  if (split.message == ugm_none) {
    split_in_two(session, split, stage, verdict.kept);
  } else {
    show_split_stage(session, split, stage);
  }
  return split;
}

// ---------------------------------------------------------------- applying

namespace {

bool shows_membership(const session_state& session, const pair_split& split) {
  for (std::size_t i = 0; i < split.events.size(); ++i) {
    const bool of_a = session.events.event_cluster[split.events[i]] == split.pair.a;
    if (split.labels[i] != (of_a ? 1 : 2) || is_deleted(split, split.labels[i])) return false;
  }
  return true;
}

// Labels of the rows that become clusters, by falling size.
std::vector<std::int16_t> list_kept_labels(const session_state& session, const pair_split& split) {
  std::vector<std::int16_t> kept;
  for (std::size_t i = 0; i < count_shown_rows(split); ++i) {
    const split_row& row = split.rows[i];
    if (!row.deleted && row.n_events >= least_cluster_size(session)) kept.push_back(row.label);
  }
  return kept;
}

// How many of the kept rows become clusters: all, or as many as there is room for.
std::int32_t count_places(const session_state& session, std::size_t n_kept) {
  const auto wanted = static_cast<std::int32_t>(n_kept);
  const std::int32_t room = std::max(0, session.max_clusters - session.clusters.n_clusters);
  // Two of them take the numbers of the pair, and need no room.
  if (wanted - 2 <= room) return wanted;
  tell(session, "Cannot add new cluster as maximum number has been reached", "Create new cluster",
       box_icon::warning);
  return 2 + room;
}

event_places places_of_rows(const session_state& session, const pair_split& split,
                            const std::vector<std::int16_t>& kept) {
  event_places places{{split.pair.a, split.pair.b}, split.events, {}, 0, {}};
  places.n_places = count_places(session, kept.size());
  std::array<std::int32_t, label_of_deleted + 1> place_of{};
  for (std::size_t i = 0; i < kept.size(); ++i) {
    auto place = static_cast<std::int32_t>(i) + 1;
    // The two largest keep to the larger and the smaller of the two clusters.
    if (kept.size() > 1 && place <= 2 && b_was_larger(split)) place = 3 - place;
    // What cannot be made stays where most of it would have been without a split.
    place_of[kept[i]] = place <= places.n_places ? place : 1;
  }
  for (const std::int16_t label : split.labels) places.place.push_back(place_of[label]);
  return places;
}

bool delete_both(session_state& session, pair_split& split) {
  if (!ask(session, "There will be no points left: delete the whole cluster?", split_title)) {
    return false;
  }
  recorded_edit edit(session, "delete_clusters");
  edit.record.clusters = {split.pair.a, split.pair.b};
  delete_clusters(session, edit.record.clusters);
  return true;
}

void tell_others(const session_state& session, const pair_split& split) {
  const std::int32_t others = count_other_events(split);
  if (others == 0) return;
  tell(session, fmt::format("{} events of other subclusters become unclustered", others),
       split_title, box_icon::information);
}

}  // namespace

bool apply_manual_split(session_state& session, pair_split& split) {
  // Applied as it is, it would change nothing but cost templates and pairs of both clusters.
  if (shows_membership(session, split)) return false;
  const std::vector<std::int16_t> kept = list_kept_labels(session, split);
  if (kept.empty()) return delete_both(session, split);
  // Said before the deed, since rows beyond those shown had no button of their own.
  tell_others(session, split);
  const event_places places = places_of_rows(session, split, kept);
  recorded_edit edit(session, "split_pair");
  describe_places(edit.record, places);
  // The labels stay for the eye, but none outside its cluster.
  for (std::size_t i = 0; i < split.events.size(); ++i) {
    if (places.place[i] == 0) session.events.event_subcluster[split.events[i]] = 0;
  }
  split.changed = share_out_events(session, places);
  // With one row left there is no pair any more.
  if (places.n_places > 1) mark_pair_ambiguous(session, split.pair);
  refresh_displays(session);
  return true;
}

void merge_pair(session_state& session, cluster_pair pair) {
  const std::int64_t k = find_pair(session, pair);
  const std::int32_t low = std::min(pair.a, pair.b), high = std::max(pair.a, pair.b);
  recorded_edit edit(session, "merge");
  edit.record.clusters = {low, high};
  // Numbers the pair by the clusters before the merge; k means nothing after it.
  if (k != 0) apply_template_shift(session, low, high, k);
  merge_clusters(session, low, high);
}

void finish_split(session_state& session, pair_split& split, ugm_message answer) {
  const auto [a, b] = split.pair;
  if (answer == ugm_split_as_shown) {
    apply_manual_split(session, split);
  } else if (split.message == ugm_three_clusters) {
    log_message(session, "Unrecognised ugm_message");
  } else if (answer == ugm_merge && offers_merge(split)) {
    log_message(session, fmt::format("Merging clusters {} and {}", a, b));
    merge_pair(session, split.pair);
    split.changed = {a};
  }
  split.message = ugm_none;
}

}  // namespace kestrelvane
