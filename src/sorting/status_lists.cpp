#include "sorting/status_lists.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <vector>

#include "clustering/membership.h"
#include "numerics/parallel.h"
#include "numerics/sort.h"
#include "session/pair_index.h"
#include "sorting/pair_measures.h"

namespace kestrelvane {

namespace {

using clock = std::chrono::steady_clock;

std::int64_t msecs_since(clock::time_point begin) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begin).count();
}

std::int32_t count_of_pairs(const session_state& session) {
  return static_cast<std::int32_t>(pair_count(session.clusters.n_clusters));
}

void store_pair(status_lists_table& lists, std::int64_t k, bool dont_overlap, float correlation,
                float overlap, pair_shift shift) {
  lists.kv_templates_dont_overlap[k] = dont_overlap;
  lists.kv_template_correlation[k] = correlation;
  lists.kv_cluster_overlap[k] = overlap;
  lists.rms_template_shift[k] = shift.shift;
  lists.kv_n_shift_template[k] = shift.n_shift;
}

// No common channel: nothing to compare, and the shift belongs to b as it does without one.
void store_pair_apart(status_lists_table& lists, std::int64_t k, std::int32_t b) {
  store_pair(lists, k, true, 0.0f, -1.0f, {0.0f, b});
}

// The values of one pair; sizes[c] are the cluster sizes. Every build and update
// goes through here.
void compute_pair(session_state& session, std::int64_t k, cluster_pair pair,
                  const std::vector<std::int32_t>& sizes, std::int32_t rank,
                  const listed_cluster& listed = {}) {
  const auto [a, b] = pair;
  status_lists_table& lists = session.lists;
  if (n_common_channels(session, a, b) == 0) {
    store_pair_apart(lists, k, b);
    return;
  }
  const pair_shift shift = template_shift(session, a, b, sizes[a], sizes[b]);
  const template_overlap match = templates_dont_overlap(session, a, b, shift);
  // The correlation is kept for the eye; the overlap of such a pair is never computed.
  if (match.dont_overlap) {
    store_pair(lists, k, true, match.correlation, -1.0f, {0.0f, b});
    return;
  }
  // Each thread has a scratch template above the clusters; max_clusters leaves room for them.
  const float overlap =
      listed_cluster_overlap(session, a, b, session.clusters.n_clusters + 1 + rank, shift, listed);
  store_pair(lists, k, false, match.correlation, overlap, shift);
}

// The clusters that have each channel, ascending.
std::vector<std::vector<std::int32_t>> clusters_by_channel(const session_state& session) {
  std::vector<std::vector<std::int32_t>> on(static_cast<std::size_t>(session.recording.n_channels) +
                                            1);
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const std::int32_t* const channels = session.templates.channels(c);
    for (std::int32_t k = 1; k <= session.templates.template_n_channels[c]; ++k) {
      on[channels[k]].push_back(c);
    }
  }
  return on;
}

// Pairs with a channel in common are found channel by channel: on a long probe they are few, and
// grow with the clusters and not with their square. All others get their values here; the pairs
// that are left to compute are returned in their order.
std::vector<cluster_pair> fill_pairs_apart(session_state& session) {
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  const std::vector<std::vector<std::int32_t>> on = clusters_by_channel(session);
  std::vector<cluster_pair> meeting;
  std::vector<char> meets(static_cast<std::size_t>(n) + 1);
  std::int64_t k = 0;
  for (std::int32_t a = 1; a < n; ++a) {
    std::fill(meets.begin(), meets.end(), char{0});
    for (std::int32_t i = 1; i <= session.templates.template_n_channels[a]; ++i) {
      for (const std::int32_t b : on[session.templates.channels(a)[i]]) meets[b] = 1;
    }
    for (std::int32_t b = a + 1; b <= n; ++b) {
      ++k;
      if (meets[b]) {
        meeting.push_back({a, b});
      } else {
        store_pair_apart(lists, k, b);
      }
    }
  }
  return meeting;
}

}  // namespace

// ---------------------------------------------------------------- questions

bool pair_is_distinct(const session_state& session, std::int64_t k) {
  const status_lists_table& lists = session.lists;
  const sorting_strategy_settings& strategy = session.strategy;
  // An overlap at its threshold is distinct, a correlation at its threshold is not. An overlap that
  // is not a number fails every test: nothing is known of such a pair, and it stays to be looked
  // at.
  return lists.kv_cluster_overlap[k] <= strategy.overlap_threshold ||
         lists.kv_template_correlation[k] < strategy.correlation_threshold ||
         lists.kv_templates_dont_overlap[k] || lists.kv_user_distinct[k];
}

bool cluster_is_stable(const session_state& session, std::int32_t cluster) {
  const std::int32_t n = session.clusters.n_clusters;
  // One cluster alone has no pair that could be doubtful; of several nothing is known.
  if (session.lists.n_kv_pairs == 0) return n == 1;
  for (std::int32_t other = 1; other <= n; ++other) {
    if (other == cluster) continue;
    const std::int64_t k = pair_index(n, std::min(cluster, other), std::max(cluster, other));
    if (!pair_is_distinct(session, k)) return false;
  }
  return true;
}

std::int32_t count_stable_clusters(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  if (session.lists.n_kv_pairs == 0) return n == 1;
  // Along the pairs: cluster by cluster each would be looked at twice, and in leaps.
  std::vector<char> in_doubt(static_cast<std::size_t>(n) + 1);
  std::int64_t k = 0;
  for (std::int32_t a = 1; a <= n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      if (!pair_is_distinct(session, ++k)) in_doubt[a] = in_doubt[b] = 1;
    }
  }
  return n - static_cast<std::int32_t>(std::count(in_doubt.begin(), in_doubt.end(), 1));
}

std::int32_t count_pairs_to_examine(const session_state& session) {
  std::int32_t count = 0;
  for (std::int32_t k = 1; k <= session.lists.n_kv_pairs; ++k) {
    count += !pair_is_distinct(session, k) && !session.lists.kv_user_ambiguous[k];
  }
  return count;
}

// ---------------------------------------------------------------- building

void clear_status_lists(session_state& session) {
  status_lists_table& lists = session.lists;
  // Only entries in use: the rest of the column was never touched, and would cost memory.
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) lists.kv_cluster_overlap[k] = -1.0f;
  lists.rms_template_shift.clear();
  lists.kv_n_shift_template.clear();
  lists.kv_template_correlation.clear();
  lists.kv_user_distinct.clear();
  lists.kv_user_ambiguous.clear();
  lists.kv_templates_dont_overlap.clear();
  lists.n_kv_pairs = 0;
}

void build_status_lists(session_state& session) {
  const auto begin = clock::now();
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  const std::int32_t n_threads = threads_now(session);
  const bool threaded = n_threads > 1;
  const bool report = session.log.log_threading_times;
  if (report) {
    log_message(session,
                threaded ? "Making threaded status lists" : "Making unthreaded status lists");
  }
  for_each_column([](auto& list) { list.clear(); }, lists);
  lists.n_kv_pairs = count_of_pairs(session);
  // Stays where a pair has not been reached yet, and is no value that a pair can have.
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) lists.kv_cluster_overlap[k] = -10.0f;
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const standing_events standing(session);
  const std::vector<cluster_pair> meeting = fill_pairs_apart(session);
  const auto n_meeting = static_cast<std::int64_t>(meeting.size());
  // Dealt one by one: neighbouring pairs share a cluster, and the cost of a large
  // one spreads over the threads.
  parallel_for_dealt(n_threads, 1, n_meeting, [&](std::int64_t i, std::int32_t rank) {
    const cluster_pair pair = meeting[static_cast<std::size_t>(i - 1)];
    compute_pair(session, pair_index(n, pair.a, pair.b), pair, sizes, rank);
    // The calling thread alone posts; its pairs are spread over the range as the others' are.
    if (rank == 0) {
      set_progress(session, meter::status_lists, static_cast<std::int32_t>(100 * i / n_meeting),
                   100);
    }
  });
  if (!report) return;
  if (threaded) {
    log_message(session, fmt::format("Make status lists threaded took at total of{} msecs",
                                     msecs_since(begin)));
    log_message(session, fmt::format("n_kv_pairs={}", lists.n_kv_pairs));
    log_message(session, fmt::format("Finished making threaded status lists in{} msecs",
                                     msecs_since(begin)));
  } else {
    log_message(session, fmt::format("Finished making unthreaded status lists in{} msecs",
                                     msecs_since(begin)));
  }
}

// The full build clears every column, the marks of the user as well.
void update_all_lists(session_state& session) {
  status_lists_table& lists = session.lists;
  const std::int64_t n = lists.n_kv_pairs;
  if (n == 0) return;
  const auto keep = [n](const auto& list) {
    using entry = std::remove_cvref_t<decltype(list[1])>;
    return std::vector<entry>(list.first(), list.first() + n);
  };
  const auto user_distinct = keep(lists.kv_user_distinct);
  const auto user_ambiguous = keep(lists.kv_user_ambiguous);
  const auto split_tries = keep(lists.kv_split_tries);
  build_status_lists(session);
  std::copy(user_distinct.begin(), user_distinct.end(), lists.kv_user_distinct.first());
  std::copy(user_ambiguous.begin(), user_ambiguous.end(), lists.kv_user_ambiguous.first());
  std::copy(split_tries.begin(), split_tries.end(), lists.kv_split_tries.first());
}

void update_lists_for_cluster(session_state& session, std::int32_t cluster, std::int32_t but_not) {
  const auto begin = clock::now();
  const std::int32_t n = session.clusters.n_clusters;
  if (session.lists.n_kv_pairs == 0 || n < 2) return;
  session.lists.n_kv_pairs = count_of_pairs(session);
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const std::int32_t n_threads = threads_now(session);
  std::vector<cluster_pair> work;
  for (std::int32_t other = 1; other <= n; ++other) {
    if (other == cluster || other == but_not) continue;
    const cluster_pair pair{std::min(cluster, other), std::max(cluster, other)};
    // Pairs without common channels cost nothing and need no thread.
    if (n_common_channels(session, pair.a, pair.b) == 0) {
      compute_pair(session, pair_index(n, pair.a, pair.b), pair, sizes, 0);
    } else {
      work.push_back(pair);
    }
  }
  // Once for all of its pairs: among millions of events the search takes longer than the rest.
  const listed_cluster listed{cluster, list_cluster_events(session, cluster)};
  parallel_for(n_threads, 0, static_cast<std::int64_t>(work.size()) - 1,
               [&](std::int64_t i, std::int32_t rank) {
                 compute_pair(session, pair_index(n, work[i].a, work[i].b), work[i], sizes, rank,
                              listed);
               });
  if (log_timing(session)) {
    log_message(session,
                fmt::format("{} status list updating took {}",
                            n_threads > 1 ? "threaded" : "unthreaded", msecs_since(begin)));
  }
}

void add_cluster_to_lists(session_state& session) {
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  if (lists.n_kv_pairs == 0 || n < 2) return;
  // From the end down: each row moves up by as many places as rows before it gain
  // an entry, and its new last entry (a, n) is zeroed.
  for_each_column(
      [&](auto& list) {
        using entry = std::remove_reference_t<decltype(list[1])>;
        for (std::int32_t a = n - 1; a >= 1; --a) {
          // Row a holds its pairs with a + 1 .. n, one more than before.
          const std::int32_t old_length = n - 1 - a;
          const std::int64_t new_first = pair_index(n, a, a + 1);
          if (old_length > 0) {
            std::memmove(list.base() + new_first, list.base() + pair_index(n - 1, a, a + 1),
                         sizeof(entry) * old_length);
          }
          // The new place still holds an entry of the row that made way.
          list[new_first + old_length] = entry{};
        }
      },
      lists);
  lists.n_kv_pairs = count_of_pairs(session);
  log_message(session, fmt::format("Updating lists for cluster {}", n));
  update_lists_for_cluster(session, n);
}

void remove_cluster_from_lists(session_state& session, std::int32_t cluster) {
  status_lists_table& lists = session.lists;
  if (lists.n_kv_pairs == 0) return;
  // No owner is negative, so the column itself can carry the mark until entries have moved.
  constexpr std::int32_t marker = -100;
  const std::int32_t n = session.clusters.n_clusters;
  for (std::int32_t other = 1; other <= n; ++other) {
    if (other == cluster) continue;
    lists.kv_n_shift_template[pair_index(n, std::min(cluster, other), std::max(cluster, other))] =
        marker;
  }
  std::int32_t kept = 0;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    if (lists.kv_n_shift_template[k] == marker) continue;
    ++kept;
    if (kept != k) for_each_column([&](auto& list) { list[kept] = list[k]; }, lists);
  }
  lists.n_kv_pairs = kept;
  // A mark that is still there means that the count and the list were out of step.
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    if (lists.kv_n_shift_template[k] == marker) {
      log_message(session, fmt::format("shifting error at point {} {}", k, lists.n_kv_pairs));
    }
  }
}

void renumber_shift_owners(session_state& session, std::int32_t removed) {
  status_lists_table& lists = session.lists;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    if (lists.kv_n_shift_template[k] > removed) --lists.kv_n_shift_template[k];
  }
}

// ---------------------------------------------------------------- match lists

namespace {

constexpr std::int32_t match_list_limit = 5000;

// Pairs that a method leaves out before its value is computed.
bool is_left_out(const session_state& session, cluster_pair pair) {
  switch (session.review.match_method) {
    case match_rates:
      return spatial_separation(session, pair.a, pair.b) >= 50.0f;
    // Rates that take turns speak for one unit only where the two lie close together.
    case match_pc_adjacency:
      // Principal components of few common channels say little: half of all must be shared.
      return 2 * n_common_channels(session, pair.a, pair.b) <
             n_union_channels(session, pair.a, pair.b);
    default:
      return false;
  }
}

struct match_entry {
  cluster_pair pair;
  std::int64_t k;
  optional_value match = {};
};

bool is_listed(const session_state& session, std::int64_t k, cluster_pair pair) {
  return !session.lists.kv_templates_dont_overlap[k] && !is_left_out(session, pair);
}

// Interrupted, if it can be, the pairs that have not been reached are left out.
void compute_matches(session_state& session, std::vector<match_entry>& entries,
                     bool can_be_interrupted) {
  const status_lists_table& lists = session.lists;
  const auto n = static_cast<std::int64_t>(entries.size());
  // As many as make a poll between them soon enough for the slowest method.
  constexpr std::int64_t at_once = 128;
  for (std::int64_t first = 0; first < n; first += at_once) {
    if (can_be_interrupted && autosort_interrupted(session)) break;
    parallel_for_dealt(threads_now(session), first, std::min(first + at_once, n) - 1,
                       [&](std::int64_t i, std::int32_t rank) {
                         match_entry& entry = entries[static_cast<std::size_t>(i)];
                         const pair_shift shift{lists.rms_template_shift[entry.k],
                                                lists.kv_n_shift_template[entry.k]};
                         entry.match =
                             match_value(session, entry.pair.a, entry.pair.b, entry.k, shift, rank);
                       });
    set_progress(session, meter::status_lists, static_cast<std::int32_t>(100 * first / n), 100);
  }
  set_progress(session, meter::status_lists, 100, 100);
  // Of a pair that cannot be measured nothing can be said, least of all where it stands.
  std::erase_if(entries, [](const match_entry& entry) { return !entry.match.is_set; });
}

// entries in the order of pairs: where equal values end up depends on it.
void store_match_list(session_state& session, const std::vector<match_entry>& entries) {
  status_lists_table& lists = session.lists;
  const std::int32_t method = session.review.match_method;
  const bool ascending = method == match_separation || method == match_rms_distance;
  const auto n = static_cast<std::int32_t>(entries.size());
  std::vector<float> keys;
  // The sort goes up only; methods in which large means alike sort the negated values.
  for (const match_entry& entry : entries) {
    keys.push_back(ascending ? entry.match.value : -entry.match.value);
  }
  std::vector<std::int32_t> order(entries.size());
  index_sort(n, keys.data(), order.data());
  // Cut after sorting, so that it is the least interesting pairs that fall away.
  lists.n_match = std::min(n, match_list_limit);
  for (std::int32_t i = 1; i <= lists.n_match; ++i) {
    const match_entry& entry = entries[order[i - 1] - 1];
    lists.match_a[i] = entry.pair.a;
    lists.match_b[i] = entry.pair.b;
    lists.match_values[i] = entry.match.value;
  }
}

}  // namespace

void get_match_lists(session_state& session) {
  const auto begin = clock::now();
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  lists.n_match = 0;
  lists.match_a.clear();
  lists.match_b.clear();
  const standing_events standing(session);
  // The pairs are noted first, so that values can be computed in any order after it.
  std::vector<match_entry> entries;
  for (std::int64_t k = 1; k <= lists.n_kv_pairs; ++k) {
    if (lists.kv_templates_dont_overlap[k]) continue;
    const cluster_pair pair = pair_from_index(n, k);
    if (is_listed(session, k, pair)) entries.push_back({pair, k});
  }
  compute_matches(session, entries, true);
  log_message(session, fmt::format("{} took {} msecs",
                                   threads_now(session) > 1 ? "Get threaded match lists"
                                                            : "Get match lists unthreaded",
                                   msecs_since(begin)));
  store_match_list(session, entries);
  if (lists.n_match == 0) {
    tell(session, "There are no pairs in this list", "Pair comparisons", box_icon::information);
  }
}

void update_match_lists(session_state& session, const std::vector<std::int32_t>& clusters) {
  status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  const standing_events standing(session);
  std::vector<char> is_changed(static_cast<std::size_t>(n) + 1);
  for (const std::int32_t c : clusters) is_changed[c] = 1;
  std::vector<match_entry> entries;
  for (std::int32_t c = 1; c <= n && lists.n_kv_pairs > 0; ++c) {
    for (std::int32_t other = 1; other <= n && is_changed[c]; ++other) {
      // The pair of two changed clusters belongs to the lower one.
      if (other == c || (is_changed[other] && other < c)) continue;
      const cluster_pair pair{std::min(c, other), std::max(c, other)};
      const std::int64_t k = pair_index(n, pair.a, pair.b);
      if (is_listed(session, k, pair)) entries.push_back({pair, k});
    }
  }
  // Part of an edit, which ends with whole lists.
  compute_matches(session, entries, false);
  for (std::int32_t i = 1; i <= lists.n_match; ++i) {
    const cluster_pair pair{lists.match_a[i], lists.match_b[i]};
    if (is_changed[pair.a] || is_changed[pair.b]) continue;
    entries.push_back({pair, pair_index(n, pair.a, pair.b), {true, lists.match_values[i]}});
  }
  std::sort(entries.begin(), entries.end(),
            [](const match_entry& x, const match_entry& y) { return x.k < y.k; });
  store_match_list(session, entries);
}

// ---------------------------------------------------------------- self-checks

bool check_shift_owners(const session_state& session) {
  const status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  std::int32_t errors = 0;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    const auto [a, b] = pair_from_index(n, k);
    const std::int32_t owner = lists.kv_n_shift_template[k];
    if (owner == a || owner == b) continue;
    // A list that is out of step is so everywhere; a hundred lines tell as much as a million.
    if (++errors > 100) {
      log_message(session, "Limiting error log");
      return false;
    }
    log_message(session, fmt::format("List position error at {} {} {}", k, a, b));
  }
  if (errors == 0) {
    log_message(session,
                fmt::format("n_shift_template values appear correct {}", lists.n_kv_pairs));
  }
  return errors == 0;
}

bool check_match_values(const session_state& session) {
  const status_lists_table& lists = session.lists;
  const std::int32_t n = session.clusters.n_clusters;
  std::int32_t errors = 0;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    const auto [a, b] = pair_from_index(n, k);
    // The stored shift means nothing for pairs that were not compared.
    if (lists.kv_templates_dont_overlap[k] || n_common_channels(session, a, b) == 0) continue;
    const float value = template_correlation(
        session, a, b, {lists.rms_template_shift[k], lists.kv_n_shift_template[k]});
    const float difference = value - lists.kv_template_correlation[k];
    if (std::fabs(difference) <= 0.01f) continue;
    ++errors;
    log_message(session, fmt::format("match value error {} {} {} {} {}", a, b, value,
                                     lists.kv_template_correlation[k], difference));
  }
  if (errors == 0) {
    log_message(session, fmt::format("match values appear correct {}", lists.n_kv_pairs));
  } else {
    log_message(session, fmt::format("There were {} match value errors", errors));
  }
  return errors == 0;
}

bool check_shift_values(const session_state& session) {
  const status_lists_table& lists = session.lists;
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const std::int32_t n = session.clusters.n_clusters;
  std::int32_t errors = 0;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    if (lists.kv_templates_dont_overlap[k]) continue;
    const auto [a, b] = pair_from_index(n, k);
    const pair_shift shift = template_shift(session, a, b, sizes[a], sizes[b]);
    // Shifts come from the same arithmetic, so that anything but the last digits is a fault.
    errors += std::fabs(shift.shift - lists.rms_template_shift[k]) > 0.000001f;
  }
  if (errors == 0) {
    log_message(session, "shift values match");
  } else {
    log_message(session, fmt::format("There were {} errors", errors));
  }
  return errors == 0;
}

bool check_overlap_flags(const session_state& session) {
  const status_lists_table& lists = session.lists;
  bool good = true;
  for (std::int32_t k = 1; k <= lists.n_kv_pairs; ++k) {
    const auto [a, b] = pair_from_index(session.clusters.n_clusters, k);
    if (n_common_channels(session, a, b) == 0 && !lists.kv_templates_dont_overlap[k]) good = false;
  }
  log_message(session, good ? "kv_templates_dont_overlap list appears correct"
                            : "kv_templates_dont_overlap list has errors");
  return good;
}

bool check_threaded_lists(session_state& session) {
  status_lists_table& lists = session.lists;
  const logical old_threads = session.multi_threaded_now;
  session.multi_threaded_now = false;
  // Both builds forget the marks of the user; the lists of the second stay.
  build_status_lists(session);
  const std::size_t n = static_cast<std::size_t>(lists.n_kv_pairs) + 1;
  const std::vector<float> overlap(lists.kv_cluster_overlap.base(),
                                   lists.kv_cluster_overlap.base() + n);
  const std::vector<float> shift(lists.rms_template_shift.base(),
                                 lists.rms_template_shift.base() + n);
  const std::vector<std::int32_t> owner(lists.kv_n_shift_template.base(),
                                        lists.kv_n_shift_template.base() + n);
  session.multi_threaded_now = true;
  build_status_lists(session);
  session.multi_threaded_now = old_threads;
  const auto same = [&](const void* plain, const void* threaded) {
    // By their bits, so that an overlap that is not a number equals itself. All three columns have
    // entries of four bytes, and element 0 is spare.
    return std::memcmp(plain, threaded, 4 * n) == 0;
  };
  const bool same_overlap = same(overlap.data(), lists.kv_cluster_overlap.base());
  const bool same_shift = same(shift.data(), lists.rms_template_shift.base());
  const bool same_owner = same(owner.data(), lists.kv_n_shift_template.base());
  log_message(session, same_overlap ? "overlap values pass test" : "overlap values fail test");
  log_message(session,
              same_shift ? "template shift values pass test" : "template_shift values fail test");
  log_message(session, same_owner ? "kv_n_shift_template values pass test"
                                  : "kv_n_shift_template values fail test");
  return same_overlap && same_shift && same_owner;
}

}  // namespace kestrelvane
