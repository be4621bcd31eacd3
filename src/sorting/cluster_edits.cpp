#include "sorting/cluster_edits.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>
#include <set>

#include "clustering/deferred_templates.h"
#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "numerics/simd.h"
#include "session/pair_index.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

// ---------------------------------------------------------------- the change

std::vector<std::int32_t> all_clusters(const session_state& session) {
  std::vector<std::int32_t> all(static_cast<std::size_t>(session.clusters.n_clusters));
  std::iota(all.begin(), all.end(), 1);
  return all;
}

cluster_change begin_change(const session_state& session, cluster_change_kind kind,
                            std::vector<std::int32_t> before) {
  cluster_change change{kind, std::move(before), {}, {}};
  using enum cluster_change_kind;
  // Nothing can be followed over these: with no numbers, number_after gives 0 for all.
  if (kind == cleared || kind == restored || kind == rebuilt) return change;
  change.number_now.resize(static_cast<std::size_t>(session.clusters.n_clusters) + 1);
  std::iota(change.number_now.begin(), change.number_now.end(), 0);
  return change;
}

namespace {

// The match lists keep the pairs that are left, under their new numbers. Values of clusters
// that an edit changed are for the pair comparison to compute anew.
void follow_in_match_lists(status_lists_table& lists, const cluster_change& change) {
  // An entry moves down or stays, so that one pass in place never reads what it has written. A
  // change whose numbers cannot be followed empties the lists.
  std::int32_t kept = 0;
  for (std::int32_t i = 1; i <= lists.n_match; ++i) {
    const std::int32_t a = number_after(change, lists.match_a[i]);
    const std::int32_t b = number_after(change, lists.match_b[i]);
    // A pair whose two clusters became one is no pair any more.
    if (a == 0 || b == 0 || a == b) continue;
    ++kept;
    lists.match_a[kept] = std::min(a, b);
    lists.match_b[kept] = std::max(a, b);
    lists.match_values[kept] = lists.match_values[i];
  }
  lists.n_match = kept;
}

}  // namespace

void end_change(session_state& session, cluster_change& change) {
  // What an undo brought back has match lists of its own.
  if (change.kind != cluster_change_kind::restored) follow_in_match_lists(session.lists, change);
  // A run's own cuts are no edits, and their numbers stand for nothing when it has ended.
  if (change.kind == cluster_change_kind::rebuilt) session.clusters.cluster_source.clear();
  tell_cluster_change(session, change);
}

// ---------------------------------------------------------------- records

namespace {

// Copies the record of one slot over that of another; cluster_sigma stays.
void copy_record(session_state& session, std::int32_t from, std::int32_t to) {
  const auto copy = [from, to](auto& column) { column[to] = column[from]; };
  template_table& templates = session.templates;
  for_each_moving_column(copy, session.clusters);
  for_each_column(copy, templates);
  copy_template_debt(session, from, to);
  // A window that has been changed may be changed back, and its templates hold again.
  const std::int32_t points = std::max(templates.template_points, templates.outdated.points);
  const std::size_t bytes = sizeof(float) * static_cast<std::size_t>(points);
  for (std::int32_t channel = 1; channel <= templates.allocated_channels; ++channel) {
    std::memcpy(templates.mean(to, channel) + 1, templates.mean(from, channel) + 1, bytes);
    std::memcpy(templates.sd(to, channel) + 1, templates.sd(from, channel) + 1, bytes);
  }
  std::memcpy(templates.channels(to) + 1, templates.channels(from) + 1,
              sizeof(std::int32_t) * static_cast<std::size_t>(templates.allocated_channels));
}

void close_record_gap(session_state& session, std::int32_t removed) {
  // Upwards: the copy of one step frees the slot that the next step writes to.
  for (std::int32_t k = removed; k < session.clusters.n_clusters; ++k) {
    copy_record(session, k + 1, k);
  }
}

// Takes a cluster out of the lists and renumbers the shift owners above it.
void remove_from_lists(session_state& session, std::int32_t cluster) {
  if (session.lists.n_kv_pairs == 0) return;
  remove_cluster_from_lists(session, cluster);
  renumber_shift_owners(session, cluster);
}

// The numbers of a change once a cluster, by its present number, has gone.
void drop_number(std::vector<std::int32_t>& numbers, std::int32_t gone) {
  for (std::int32_t& number : numbers) {
    if (number == gone) {
      number = 0;
    } else if (number > gone) {
      --number;
    }
  }
}

}  // namespace

// ---------------------------------------------------------------- deleting

namespace {

// Deletes one cluster, by its present number, inside an edit.
void delete_record(session_state& session, std::int32_t cluster, cluster_change& change) {
  cluster_table& clusters = session.clusters;
  const bool have_lists = session.lists.n_kv_pairs > 0;
  // The lists go first: their pair numbers are those of the old count.
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
    session.lists.n_kv_pairs = static_cast<std::int32_t>(pair_count(clusters.n_clusters));
  }
  clusters.current_cluster = std::min(clusters.current_cluster, clusters.n_clusters);
  drop_number(change.number_now, cluster);
}

}  // namespace

void delete_clusters(session_state& session, const std::vector<std::int32_t>& doomed) {
  std::vector<std::int32_t> before;
  // A number named twice goes once; the set is ascending, which the loop below needs.
  for (const std::int32_t c : std::set<std::int32_t>(doomed.begin(), doomed.end())) {
    if (is_cluster(session, c)) before.push_back(c);
  }
  if (before.empty()) return;
  cluster_change change = begin_change(session, cluster_change_kind::deleted, before);
  // From the top down, so that the numbers still to go stay as they are.
  for (auto c = before.rbegin(); c != before.rend(); ++c) delete_record(session, *c, change);
  end_change(session, change);
}

void delete_cluster(session_state& session, std::int32_t cluster) {
  delete_clusters(session, {cluster});
}

std::int32_t delete_small_clusters(session_state& session, std::int32_t size) {
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  std::vector<std::int32_t> small;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (sizes[c] < size) small.push_back(c);
  }
  delete_clusters(session, small);
  return static_cast<std::int32_t>(small.size());
}

// ---------------------------------------------------------------- coincident events

std::int32_t remove_coincident_cluster_events(session_state& session, std::int32_t cluster) {
  event_table& events = session.events;
  // Cut to whole samples. A window of 0 still catches two events of the same sample.
  const auto window =
      static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                session.detection.coincidence_ms / 1000.0f);
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  // Side by side, as each is compared fifty times.
  std::vector<std::int32_t> times;
  times.reserve(list.size());
  for (const std::int32_t e : list) times.push_back(events.event_time[e]);
  // Events that have lost already go on being compared, at the times they were put back to, so that
  // the outcome depends on the order of the list.
  constexpr std::size_t look_ahead = 50;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const std::size_t last = std::min(list.size() - 1, i + look_ahead);
    for (std::size_t j = i + 1; j <= last; ++j) {
      if (std::abs(times[j] - times[i]) > window) continue;
      const float d_i = distance_from_centre_squared(session, list[i], cluster);
      const float d_j = distance_from_centre_squared(session, list[j], cluster);
      // On a tie the earlier one goes.
      const std::size_t loser = d_j > d_i ? j : i;
      const std::int32_t e = list[loser];
      events.event_cluster[e] = 0;
      if (events.event_detected_time[e] == 0) continue;
      events.event_time[e] = times[loser] = events.event_detected_time[e];
    }
  }
  // By what is left and not by a count of losses: an event may lose more than once.
  return static_cast<std::int32_t>(list.size()) - count_cluster_events(session, cluster);
}

// ---------------------------------------------------------------- merging

namespace {

// Events of a cluster get another number, and those above it the next lower one.
KESTRELVANE_CLONES void close_numbers(std::int32_t* of, std::int64_t n, std::int32_t removed,
                                      std::int32_t becomes) {
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int32_t lower = of[i] - (of[i] > removed ? 1 : 0);
    of[i] = of[i] == removed ? becomes : lower;
  }
}

void merge_events(session_state& session, std::int32_t low, std::int32_t high) {
  event_table& events = session.events;
  close_numbers(events.event_cluster.first(), events.n_events, high, low);
  for (const std::int32_t e : list_cluster_events(session, low)) events.event_subcluster[e] = 0;
}

// Where the user has said two different things of the parts, he is to say what the whole is.
unit_label label_of_both(unit_label a, unit_label b) {
  if (a == b || b == unit_label::unsorted) return a;
  return a == unit_label::unsorted ? b : unit_label::unsorted;
}

cluster_change begin_merge(const session_state& session, std::int32_t low, std::int32_t high) {
  cluster_change change = begin_change(session, cluster_change_kind::merged, {low, high});
  drop_number(change.number_now, high);
  // Whoever looked at either of the two looks at what they became.
  change.number_now[high] = low;
  change.after = {low};
  return change;
}

}  // namespace

void merge_clusters(session_state& session, std::int32_t a, std::int32_t b) {
  cluster_table& clusters = session.clusters;
  if (a == b) {
    clusters.current_cluster = a;
    return;
  }
  const std::int32_t low = std::min(a, b), high = std::max(a, b);
  cluster_change change = begin_merge(session, low, high);
  remove_from_lists(session, high);
  merge_events(session, low, high);
  // The records close up here, before anything is calculated: the number above
  // n_clusters is a scratch slot from now on.
  const float sigma = (clusters.cluster_sigma[a] + clusters.cluster_sigma[b]) * 0.5f;
  const unit_label label = label_of_both(clusters.cluster_label[a], clusters.cluster_label[b]);
  close_record_gap(session, high);
  clusters.current_cluster = low;
  --clusters.n_clusters;
  // The template is that of all events of both; it is not made anew for those that leave below.
  recalculate_cluster(session, low);
  // What was signed off were the two, and not what they became.
  clusters.cluster_signed_off[low] = false;
  clusters.cluster_label[low] = label;
  clusters.cluster_sigma[low] = sigma;
  const std::int32_t removed = remove_coincident_cluster_events(session, low);
  log_message(session,
              fmt::format("{} coincident events were removed from the merged cluster", removed));
  if (!clusters.cluster_comment[low].is_blank()) {
    clusters.cluster_comment[low].assign("Comment deleted because it was merged with another unit");
  }
  update_lists_for_cluster(session, low);
  end_change(session, change);
}

void absorb_cluster(session_state& session, std::int32_t a, std::int32_t b) {
  cluster_change change = begin_change(session, cluster_change_kind::merged, {a, b});
  event_table& events = session.events;
  // b has no events from here on, but keeps its record until the numbers close up.
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] != a && events.event_cluster[e] != b) continue;
    events.event_cluster[e] = a;
    events.event_subcluster[e] = 1;
  }
  recalculate_cluster(session, a);
  // When b lies below a, this is where a changes its number.
  delete_record(session, b, change);
  const std::int32_t left = number_after(change, a);
  update_lists_for_cluster(session, left);
  change.number_now[b] = left;
  change.after = {left};
  end_change(session, change);
}

// ---------------------------------------------------------------- splitting

namespace {

// A new cluster at the end of the table, of the events that carry its number already; most of
// them were in the source.
void add_cluster(session_state& session, std::int32_t number, std::int32_t source) {
  clear_cluster_record(session, number);
  session.clusters.cluster_source[number] = source;
  session.clusters.n_clusters = number;
  recalculate_cluster(session, number);
  // Its pairs are computed here, and do not change before the next cluster.
  add_cluster_to_lists(session);
}

// Events of a cluster that have a label.
std::vector<std::int32_t> list_labelled_events(const session_state& session, std::int32_t cluster,
                                               std::int32_t label) {
  std::vector<std::int32_t> labelled = list_cluster_events(session, cluster);
  std::erase_if(labelled,
                [&](std::int32_t e) { return session.events.event_subcluster[e] != label; });
  return labelled;
}

}  // namespace

void split_marked_to_new_cluster(session_state& session, std::int32_t k) {
  cluster_table& clusters = session.clusters;
  event_table& events = session.events;
  if (!cluster_can_grow(session)) return;
  const std::int32_t old_cluster = clusters.current_cluster;
  const std::int32_t new_cluster = clusters.n_clusters + 1;
  const std::vector<std::int32_t> labelled = list_labelled_events(session, old_cluster, k);
  const auto n_labelled = static_cast<std::int32_t>(labelled.size());
  // A split that leaves one of the two sides empty is none.
  if (n_labelled == 0 || n_labelled == count_cluster_events(session, old_cluster)) return;
  cluster_change change = begin_change(session, cluster_change_kind::split, {old_cluster});
  for (const std::int32_t e : labelled) {
    events.event_cluster[e] = new_cluster;
    events.event_subcluster[e] = 0;
  }
  clusters.previous_cluster = old_cluster;
  recalculate_cluster(session, old_cluster);
  add_cluster(session, new_cluster, old_cluster);
  update_lists_for_cluster(session, old_cluster);
  change.after = {old_cluster, new_cluster};
  end_change(session, change);
  refresh_displays(session);
  if (session.preferences.tell_new_cluster) {
    tell(session, fmt::format("New cluster {} created", new_cluster), "Create new cluster",
         box_icon::information);
  }
}

namespace {

// Element p: of the clusters that the events of place p come from, the one that most do, the
// first of several.
std::vector<std::int32_t> find_sources(const session_state& session, const event_places& places) {
  std::vector<std::map<std::int32_t, std::int32_t>> counts(
      static_cast<std::size_t>(places.n_places) + 1);
  for (std::size_t i = 0; i < places.events.size(); ++i) {
    if (places.place[i] > 0) {
      ++counts[places.place[i]][session.events.event_cluster[places.events[i]]];
    }
  }
  std::vector<std::int32_t> sources;
  for (const auto& of_place : counts) {
    const auto most = std::max_element(of_place.begin(), of_place.end(),
                                       [](auto& x, auto& y) { return x.second < y.second; });
    sources.push_back(most == of_place.end() ? 0 : most->first);
  }
  return sources;
}

// Old clusters without a place have lost all their events; they are looked for under the first.
void delete_placeless(session_state& session, const event_places& places, cluster_change& change) {
  const std::set<std::int32_t> gone(places.clusters.begin() + places.n_places,
                                    places.clusters.end());
  for (auto c = gone.rbegin(); c != gone.rend(); ++c) delete_record(session, *c, change);
  for (std::int32_t& now : change.after) now = number_after(change, now);
  for (const std::int32_t c : gone) change.number_now[c] = change.after.front();
}

}  // namespace

std::vector<std::int32_t> share_out_events(session_state& session, const event_places& places) {
  const auto n_old = static_cast<std::int32_t>(places.clusters.size());
  const std::int32_t n_left = std::min(n_old, places.n_places);
  // Those of the old clusters that keep a place.
  const std::vector<std::int32_t> old(places.clusters.begin(), places.clusters.begin() + n_left);
  cluster_change change = begin_change(
      session, n_left < n_old ? cluster_change_kind::merged : cluster_change_kind::split,
      places.clusters);
  const std::int32_t first_new = session.clusters.n_clusters + 1;
  const std::vector<std::int32_t> sources = find_sources(session, places);
  for (std::int32_t p = 1; p <= places.n_places; ++p) {
    change.after.push_back(p <= n_old ? places.clusters[p - 1] : first_new + p - 1 - n_old);
  }
  for (std::size_t i = 0; i < places.events.size(); ++i) {
    const std::int32_t p = places.place[i];
    if (p < 0) continue;
    session.events.event_cluster[places.events[i]] = p == 0 ? 0 : change.after[p - 1];
  }
  // Every template before any pair: two of the old clusters may be each other's pair.
  for (const std::int32_t c : old) recalculate_cluster(session, c);
  for (std::size_t i = 0; i < old.size(); ++i) {
    // The pair of two old clusters is computed once, with the later of them.
    update_lists_for_cluster(session, old[i], i + 1 < old.size() ? old[i + 1] : 0);
  }
  // Pair numbers still count the old clusters; the first new one changes them all.
  if (places.old_ones_done) places.old_ones_done();
  for (std::int32_t p = n_old + 1; p <= places.n_places; ++p) {
    add_cluster(session, change.after[p - 1], sources[p]);
  }
  if (n_left < n_old) delete_placeless(session, places, change);
  end_change(session, change);
  return change.after;
}

// ---------------------------------------------------------------- moving events

namespace {

void renew_template(session_state& session, std::int32_t cluster, template_renewal renewal) {
  if (renewal == template_renewal::done) return;
  if (renewal == template_renewal::realigned) return recalculate_cluster(session, cluster);
  calculate_template(session, cluster);
  calculate_template_centre(session, cluster);
}

// What the clusters that lost or gained events need: template, centre, status rows; those
// without any event go.
void settle_changed_clusters(session_state& session, const std::set<std::int32_t>& changed,
                             template_renewal renewal, cluster_change& change) {
  std::vector<std::int32_t> emptied;
  // By the old numbers, and so are the templates: no record has moved yet.
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  for (const std::int32_t c : changed) {
    if (sizes[c] == 0) {
      emptied.push_back(c);
      continue;
    }
    renew_template(session, c, renewal);
  }
  // From the top down, so that the numbers still to go stay as they are.
  for (auto c = emptied.rbegin(); c != emptied.rend(); ++c) delete_record(session, *c, change);
  // Pairs come last: they look at the templates of both clusters and at the final numbers.
  const auto n_changed = static_cast<std::int32_t>(changed.size());
  std::int32_t n_done = 0;
  for (const std::int32_t c : changed) {
    set_progress(session, meter::status_lists, ++n_done, n_changed);
    const std::int32_t now = number_after(change, c);
    if (now == 0) continue;
    session.clusters.cluster_signed_off[now] = false;
    update_lists_for_cluster(session, now);
    change.after.push_back(now);
  }
}

// Gives events to a cluster, 0 for none; returns the clusters whose members changed.
std::set<std::int32_t> reassign(session_state& session, const std::vector<std::int32_t>& moving,
                                std::int32_t cluster, std::int32_t& n_moved) {
  event_table& events = session.events;
  std::set<std::int32_t> changed;
  for (const std::int32_t e : moving) {
    // Where it is already, an event does not move, and its label stays.
    if (events.event_cluster[e] == cluster) continue;
    if (events.event_cluster[e] > 0) changed.insert(events.event_cluster[e]);
    events.event_cluster[e] = cluster;
    events.event_subcluster[e] = 0;
    ++n_moved;
  }
  if (n_moved > 0 && cluster > 0) changed.insert(cluster);
  return changed;
}

std::int32_t reassign_events(session_state& session, const std::vector<std::int32_t>& moving,
                             std::int32_t cluster, cluster_change_kind kind,
                             template_renewal renewal) {
  std::int32_t n_moved = 0;
  const std::set<std::int32_t> changed = reassign(session, moving, cluster, n_moved);
  if (n_moved == 0) return 0;
  cluster_change change = begin_change(session, kind, {changed.begin(), changed.end()});
  settle_changed_clusters(session, changed, renewal, change);
  end_change(session, change);
  return n_moved;
}

}  // namespace

std::int32_t remove_events(session_state& session, const std::vector<std::int32_t>& events,
                           template_renewal renewal) {
  return reassign_events(session, events, 0, cluster_change_kind::removed_events, renewal);
}

std::int32_t move_events(session_state& session, const std::vector<std::int32_t>& events,
                         std::int32_t cluster) {
  if (!is_cluster(session, cluster)) return 0;
  return reassign_events(session, events, cluster, cluster_change_kind::moved_events,
                         template_renewal::calculated);
}

void renew_clusters(session_state& session, const std::vector<std::int32_t>& clusters,
                    template_renewal renewal) {
  const std::set<std::int32_t> changed(clusters.begin(), clusters.end());
  if (changed.empty()) return;
  cluster_change change =
      begin_change(session, cluster_change_kind::moved_events, {changed.begin(), changed.end()});
  settle_changed_clusters(session, changed, renewal, change);
  end_change(session, change);
}

// ---------------------------------------------------------------- renumbering

namespace {

bool names_each_cluster_once(const session_state& session, const std::vector<std::int32_t>& order) {
  // Comparing with 1..n catches missing, repeated and foreign numbers at once.
  std::vector<std::int32_t> sorted = order;
  std::sort(sorted.begin(), sorted.end());
  return sorted == all_clusters(session);
}

// Follows each cycle of the permutation, with the slot above the clusters to hold its first.
void permute_records(session_state& session, const std::vector<std::int32_t>& order) {
  const std::int32_t n = session.clusters.n_clusters;
  const std::int32_t spare = n + 1;
  std::vector<char> placed(order.size(), 0);
  for (std::int32_t start = 1; start <= n; ++start) {
    if (placed[start - 1] != 0) continue;
    copy_record(session, start, spare);
    std::int32_t to = start;
    for (;;) {
      placed[to - 1] = 1;
      const std::int32_t from = order[to - 1];
      // The first slot of a cycle was overwritten at once; its record waits in the spare one.
      copy_record(session, from == start ? spare : from, to);
      if (from == start) break;
      to = from;
    }
  }
}

// Each pair's values stay with its two clusters, whichever of them comes first now.
void permute_pairs(status_lists_table& lists, const std::vector<std::int32_t>& order,
                   const cluster_change& change) {
  if (lists.n_kv_pairs == 0) return;
  const auto n = static_cast<std::int32_t>(order.size());
  std::vector<std::int64_t> from;
  from.reserve(static_cast<std::size_t>(lists.n_kv_pairs));
  for (std::int32_t a = 1; a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      // In the old numbering the pair may have been the other way round.
      const auto [low, high] = std::minmax(order[a - 1], order[b - 1]);
      from.push_back(pair_index(n, low, high));
    }
  }
  // All is read before anything is written: a permutation has no safe direction in place.
  for_each_column(
      [&from](auto& list) {
        using entry = std::remove_reference_t<decltype(list[1])>;
        std::vector<entry> moved;
        moved.reserve(from.size());
        for (const std::int64_t k : from) moved.push_back(list[k]);
        std::copy(moved.begin(), moved.end(), list.first());
      },
      lists);
  // Owners are cluster numbers as well; they lie in the column as the old ones.
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    lists.kv_n_shift_template[k] = number_after(change, lists.kv_n_shift_template[k]);
  }
}

}  // namespace

bool permute_clusters(session_state& session, const std::vector<std::int32_t>& order) {
  // The slot above the clusters holds a record on its way.
  if (session.clusters.n_clusters >= cluster_limit) return false;
  if (!names_each_cluster_once(session, order)) return false;
  cluster_table& clusters = session.clusters;
  cluster_change change = begin_change(session, cluster_change_kind::renumbered, order);
  change.after = all_clusters(session);
  for (std::size_t i = 0; i < order.size(); ++i) {
    change.number_now[order[i]] = static_cast<std::int32_t>(i) + 1;
  }
  permute_records(session, order);
  std::int32_t* of = session.events.event_cluster.base();
  // Labels below 1 are no clusters: unclustered events, and those of a removal pass.
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    if (of[e] > 0) of[e] = number_after(change, of[e]);
  }
  permute_pairs(session.lists, order, change);
  clusters.current_cluster = number_after(change, clusters.current_cluster);
  clusters.previous_cluster = number_after(change, clusters.previous_cluster);
  end_change(session, change);
  return true;
}

// ---------------------------------------------------------------- forgetting

void clear_clusters(session_state& session) {
  if (!ask(session, "This will delete all the cluster assignments to events!", "Are you sure?")) {
    return;
  }
  cluster_change change =
      begin_change(session, cluster_change_kind::cleared, all_clusters(session));
  blank_cluster_comments(session);
  session.events.event_cluster.clear();
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
  session.clusters.cluster_sigma.clear();
  session.clusters.cluster_spare.clear();
  session.lists.n_kv_pairs = 0;
  end_change(session, change);
}

}  // namespace kestrelvane
