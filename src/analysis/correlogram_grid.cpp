#include "analysis/correlogram_grid.h"

#include <algorithm>
#include <array>
#include <limits>

#include "numerics/parallel.h"
#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t n_bins = 2 * correlogram_reach + 1;
constexpr std::int32_t row_width = n_bins + 1;  // the last takes what lies beyond
using bin_counts = std::array<std::int32_t, n_bins>;

// The events of all trains, in the order of the table.
struct event_row {
  std::vector<std::int32_t> time, train;
  std::vector<std::int32_t> end;  // of each event: what stands there or later is beyond its reach
  std::vector<std::vector<std::int32_t>> of_train;  // places
};

struct partner {
  std::int32_t train;
  std::size_t pair;
};

struct grid {
  event_row row;
  std::vector<std::vector<partner>> partners;   // by train
  std::vector<std::int16_t> bin_of_difference;  // from -reach - 1 on
  std::int32_t reach = 0;                       // samples
};

bool gather_events(const std::vector<spike_train>& trains, event_row& row) {
  std::int32_t last = 0;
  for (const spike_train& train : trains) {
    if (!train.events.empty()) last = std::max(last, train.events.back());
  }
  std::vector<std::int32_t> owner(static_cast<std::size_t>(last) + 1, -1);
  std::vector<std::int32_t> time(owner.size());
  for (std::size_t i = 0; i < trains.size(); ++i) {
    for (std::size_t k = 0; k < trains[i].events.size(); ++k) {
      const auto e = static_cast<std::size_t>(trains[i].events[k]);
      const std::int64_t t = trains[i].times[k];
      // Differences are 32 bits wide.
      if (owner[e] >= 0 || t < 0 || t > std::numeric_limits<std::int32_t>::max()) return false;
      owner[e] = static_cast<std::int32_t>(i);
      time[e] = static_cast<std::int32_t>(t);
    }
  }
  row.of_train.resize(trains.size());
  for (std::size_t e = 0; e < owner.size(); ++e) {
    if (owner[e] < 0) continue;
    row.of_train[owner[e]].push_back(static_cast<std::int32_t>(row.time.size()));
    row.time.push_back(time[e]);
    row.train.push_back(owner[e]);
  }
  return true;
}

// Alignment may have carried an event past another, so an event is beyond reach when it and all
// that follow it are. Returns false once more than the given number of events would be looked at.
bool find_ends(event_row& row, std::int32_t reach, std::int64_t most) {
  const std::size_t n = row.time.size();
  std::vector<std::int32_t> earliest = row.time;  // of an event and all after it
  for (std::size_t i = n; i-- > 1;) earliest[i - 1] = std::min(earliest[i - 1], earliest[i]);
  row.end.resize(n);
  std::size_t end = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::int64_t limit = std::int64_t{row.time[i]} + reach;
    end = std::max(end, i + 1);
    while (end < n && earliest[end] <= limit) ++end;
    while (end > i + 1 && earliest[end - 1] > limit) --end;
    row.end[i] = static_cast<std::int32_t>(end);
    most -= static_cast<std::int64_t>(end - i);
    if (most < 0) return false;
  }
  return true;
}

// Every unit's pairs, from both of their sides; false where a pair is there twice.
bool list_partners(const std::vector<spike_train>& trains, const std::vector<train_pair>& pairs,
                   std::vector<std::vector<partner>>& partners) {
  partners.resize(trains.size());
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const auto [a, b] = pairs[i];
    if (trains[a].unit == trains[b].unit) continue;
    partners[a].push_back({static_cast<std::int32_t>(b), i});
    partners[b].push_back({static_cast<std::int32_t>(a), i});
  }
  for (std::vector<partner>& list : partners) {
    const auto lower = [](const partner& x, const partner& y) { return x.train < y.train; };
    const auto same = [](const partner& x, const partner& y) { return x.train == y.train; };
    std::sort(list.begin(), list.end(), lower);
    if (std::adjacent_find(list.begin(), list.end(), same) != list.end()) return false;
  }
  return true;
}

// Events that may be looked at before pair by pair is quicker, by what both were measured to take:
// a reference that is searched for, 17 ns, costs as much as four events that are passed.
std::int64_t most_looks(const std::vector<spike_train>& trains,
                        const std::vector<train_pair>& pairs,
                        const std::vector<correlogram>& results) {
  std::int64_t references = 0, n_events = 0;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    if (results[i].a == results[i].b) continue;
    references += (std::int64_t{results[i].n_a} + results[i].n_b) / results[i].stride;
  }
  for (const spike_train& train : trains) n_events += static_cast<std::int64_t>(train.times.size());
  // Weights, many at a time.
  return 4 * references - n_events * static_cast<std::int64_t>(trains.size() / 16 + 1);
}

void list_bins(const std::vector<std::int8_t>& bin_of_ticks, grid& g) {
  const std::int32_t reach = g.reach;
  g.bin_of_difference.assign(2 * static_cast<std::size_t>(reach) + 3, n_bins);
  for (std::int32_t d = -reach; d <= reach; ++d) {
    const std::int32_t bin = bin_of_ticks[static_cast<std::size_t>(std::abs(d))];
    if (bin > correlogram_reach) continue;
    g.bin_of_difference[static_cast<std::size_t>(d + reach + 1)] =
        static_cast<std::int16_t>(correlogram_reach + (d < 0 ? -bin : bin));
  }
}

// Where each unit stands in the strides of its pairs with one unit; a reference at 0.
struct stride_phases {
  std::vector<std::int32_t> stride, phase, weight;  // by train
};

// The references of a pair are every stride-th of the list that holds the spikes of a and then
// those of b. A unit that is no partner never comes to 0.
stride_phases begin_strides(const std::vector<spike_train>& trains, std::size_t unit,
                            const std::vector<partner>& partners,
                            const std::vector<correlogram>& results) {
  stride_phases s;
  s.stride.assign(trains.size(), 1);
  s.phase.assign(trains.size(), 1);
  s.weight.assign(trains.size(), 0);
  for (const partner& p : partners) {
    const correlogram& pair = results[p.pair];
    const bool first = pair.a == trains[unit].unit;
    s.stride[p.train] = pair.stride;
    s.phase[p.train] = first ? 0 : pair.n_a % pair.stride;
  }
  return s;
}

KESTRELVANE_CLONES
void step_strides(std::int32_t n, const std::int32_t* stride, std::int32_t* phase,
                  std::int32_t* weight) {
  for (std::int32_t i = 0; i < n; ++i) {
    weight[i] = phase[i] == 0 ? 1 : 0;
    phase[i] = phase[i] + 1 == stride[i] ? 0 : phase[i] + 1;
  }
}

// What follows a reference, by unit and bin.
void count_followers(const grid& g, std::int32_t at, const std::int32_t* weight,
                     std::int32_t* counts) {
  const std::int32_t *time = g.row.time.data(), *train = g.row.train.data();
  const std::int16_t* bin_of = g.bin_of_difference.data() + g.reach + 1;
  const std::int32_t own = time[at], beyond = g.reach + 1, end = g.row.end[at];
  for (std::int32_t i = at + 1; i < end; ++i) {
    const std::int32_t d = std::clamp(time[i] - own, -beyond, beyond);
    counts[train[i] * row_width + bin_of[d]] += weight[train[i]];
  }
}

// References of one unit. The first of a pair writes to its result, the second to mirrored, so that
// no two threads meet.
void count_unit(const grid& g, const std::vector<spike_train>& trains, std::size_t unit,
                std::vector<correlogram>& results, std::vector<bin_counts>& mirrored) {
  const std::vector<partner>& partners = g.partners[unit];
  if (partners.empty()) return;
  stride_phases s = begin_strides(trains, unit, partners, results);
  std::vector<std::int32_t> counts(trains.size() * row_width);
  for (const std::int32_t at : g.row.of_train[unit]) {
    step_strides(static_cast<std::int32_t>(trains.size()), s.stride.data(), s.phase.data(),
                 s.weight.data());
    count_followers(g, at, s.weight.data(), counts.data());
  }
  for (const partner& p : partners) {
    const std::int32_t* from = counts.data() + static_cast<std::size_t>(p.train) * row_width;
    // The sign of a difference is that of b relative to a.
    if (results[p.pair].a == trains[unit].unit) {
      std::copy_n(from, n_bins, results[p.pair].counts.begin());
    } else {
      std::reverse_copy(from, from + n_bins, mirrored[p.pair].begin());
    }
  }
}

}  // namespace

bool count_correlogram_grid(std::int32_t n_threads, const std::vector<spike_train>& trains,
                            const std::vector<train_pair>& pairs,
                            const std::vector<std::int8_t>& bin_of_ticks,
                            std::vector<correlogram>& results) {
  grid g;
  const std::int64_t most = most_looks(trains, pairs, results);
  if (bin_of_ticks.empty() || most <= 0) return false;
  g.reach = static_cast<std::int32_t>(bin_of_ticks.size()) - 1;
  if (!list_partners(trains, pairs, g.partners) || !gather_events(trains, g.row) ||
      !find_ends(g.row, g.reach, most)) {
    return false;
  }
  list_bins(bin_of_ticks, g);
  std::vector<bin_counts> mirrored(pairs.size());
  const auto n_trains = static_cast<std::int64_t>(trains.size());
  parallel_for_dealt(n_threads, 0, n_trains - 1, [&](std::int64_t unit, std::int32_t) {
    count_unit(g, trains, static_cast<std::size_t>(unit), results, mirrored);
  });
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    for (std::size_t bin = 0; bin < n_bins; ++bin) results[i].counts[bin] += mirrored[i][bin];
  }
  return true;
}

}  // namespace kestrelvane
