#include "analysis/correlograms.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>

#include "analysis/correlogram_grid.h"
#include "clustering/membership.h"
#include "numerics/parallel.h"
#include "review/review_guards.h"

namespace kestrelvane {

// ---------------------------------------------------------------- trains

tick_clock clock_of_trains(const session_state& session) {
  const recording_store& r = session.recording;
  // Stored records lie beside each other in memory whatever time was between them: only their
  // stamps, in µs, tell when a spike was.
  if (!r.is_continuous && !session.preferences.treat_as_continuous) return {1e6f, true};
  return {static_cast<float>(std::max(1, r.sampling_frequency)), false};
}

namespace {

std::int64_t event_ticks(const session_state& session, std::int32_t event, bool from_stamps) {
  const std::int32_t t = session.events.event_time[event];
  if (!from_stamps) return t;
  return event_record_time_us(session, t, session.events.event_channel[event]);
}

}  // namespace

namespace {

void time_events(const session_state& session, spike_train& train) {
  train.times.reserve(train.events.size());
  const bool from_stamps = clock_of_trains(session).from_stamps;
  for (const std::int32_t e : train.events) {
    train.times.push_back(event_ticks(session, e, from_stamps));
  }
  // Said and not mended: each count orders its spikes for itself, and the user should know of such
  // a file.
  if (from_stamps && !std::is_sorted(train.times.begin(), train.times.end())) {
    log_message(session, "Events out of order");
  }
}

}  // namespace

spike_train get_spike_train(const session_state& session, std::int32_t unit) {
  spike_train train;
  train.unit = unit;
  if (!is_cluster(session, unit)) return train;
  train.events = list_cluster_events(session, unit);
  time_events(session, train);
  return train;
}

std::vector<spike_train> get_spike_trains(const session_state& session,
                                          const std::vector<std::int32_t>& units) {
  std::vector<spike_train> trains(units.size());
  std::vector<std::int32_t> place(static_cast<std::size_t>(session.clusters.n_clusters) + 1, -1);
  for (std::size_t i = 0; i < units.size(); ++i) {
    trains[i].unit = units[i];
    if (is_cluster(session, units[i])) place[units[i]] = static_cast<std::int32_t>(i);
  }
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    const std::int32_t at = place[std::max(session.events.event_cluster[e], 0)];
    if (at >= 0) trains[at].events.push_back(e);
  }
  for (spike_train& train : trains) time_events(session, train);
  return trains;
}

// ---------------------------------------------------------------- counting

std::int32_t correlogram_bin(float dt_ms, float bin_ms) {
  // Rounded by magnitude and given its sign afterwards: a rounding to one side would make a
  // correlogram of a and b another than that of b and a, mirrored.
  const float bins = (std::fabs(dt_ms) + bin_ms / 2) / bin_ms;
  // A difference of hours in bins of µs is beyond the numbers of a bin, and of any reach.
  constexpr float beyond = 1e6f;
  const auto bin = static_cast<std::int32_t>(std::min(bins, beyond));
  return dt_ms < 0 ? -bin : bin;
}

namespace {

// A spike of either unit. Of an autocorrelogram only the first copy of the unit is kept.
struct spike {
  std::int64_t time;
  std::int32_t event;
  bool of_b;
};

struct counting {
  std::vector<spike> spikes;                // by time, in the order of events at one time
  std::vector<std::size_t> place_of_entry;  // of each spike of a, then of each of b
  tick_clock clock;
  bool is_auto;
  float bin_ms;
  std::int64_t reach;  // ticks beyond which no difference lies in a bin
};

// By time, so that a look on both sides misses nobody: alignment may have carried an event past
// another, and files bring events in any order. n_a: where the entries of b begin.
std::vector<std::size_t> order_by_time(const std::vector<spike>& entries, std::size_t n_a) {
  std::vector<std::size_t> order(entries.size());
  // Equal times go by the number of the event, so that the order is one, whatever sorts.
  std::iota(order.begin(), order.end(), std::size_t{0});
  const auto earlier = [&entries](std::size_t x, std::size_t y) {
    return entries[x].time != entries[y].time ? entries[x].time < entries[y].time
                                              : entries[x].event < entries[y].event;
  };
  const auto middle = order.begin() + static_cast<std::ptrdiff_t>(n_a);
  // Nearly always, and much quicker for units of hundreds of thousands of spikes.
  if (std::is_sorted(order.begin(), middle, earlier) &&
      std::is_sorted(middle, order.end(), earlier)) {
    std::inplace_merge(order.begin(), middle, order.end(), earlier);
  } else {
    std::sort(order.begin(), order.end(), earlier);
  }
  return order;
}

// 50.5 widths, and a tick for the roundings of the bin's own arithmetic.
std::int64_t reach_of(tick_clock clock, float bin_ms) {
  const double widths = (correlogram_reach + 0.5) * static_cast<double>(bin_ms);
  return static_cast<std::int64_t>(widths * static_cast<double>(clock.rate) / 1000) + 2;
}

counting prepare_counting(const spike_train& a, const spike_train& b, tick_clock clock,
                          float bin_ms) {
  counting c;
  c.clock = clock;
  c.bin_ms = bin_ms;
  c.is_auto = a.unit == b.unit;
  std::vector<spike> entries;
  entries.reserve(a.times.size() + b.times.size());
  for (std::size_t i = 0; i < a.times.size(); ++i) {
    entries.push_back({a.times[i], a.events[i], false});
  }
  for (std::size_t i = 0; !c.is_auto && i < b.times.size(); ++i) {
    entries.push_back({b.times[i], b.events[i], true});
  }
  const std::vector<std::size_t> order = order_by_time(entries, a.times.size());
  c.place_of_entry.resize(entries.size());
  c.spikes.reserve(entries.size());
  for (std::size_t i = 0; i < order.size(); ++i) {
    c.spikes.push_back(entries[order[i]]);
    c.place_of_entry[order[i]] = i;
  }
  c.reach = reach_of(clock, bin_ms);
  return c;
}

using bin_counts = std::array<std::int32_t, 2 * correlogram_reach + 1>;

// One reference and another spike: which of the two rules apply follows from whose they are.
// second_copy: the reference stands in the second copy of an autocorrelogram's list.
void count_pair(const counting& c, const spike& reference, const spike& other, bool second_copy,
                bin_counts& counts) {
  // A pair counts once, by the spike that comes first in the table of events.
  if (other.event <= reference.event) return;
  // In a cross-correlogram two spikes of one unit say nothing of the pair.
  if (!c.is_auto && other.of_b == reference.of_b) return;
  std::int64_t ticks = other.time - reference.time;
  // Stamps are those of whole records: two of one unit with the same stamp are one record.
  if (c.clock.from_stamps && c.is_auto && ticks == 0) return;
  // Seen from a: what b fired later lies at the right, whichever of the two was the reference. The
  // second copy of an autocorrelogram makes it even about 0.
  if (c.is_auto ? second_copy : reference.of_b) ticks = -ticks;
  const float dt_ms = static_cast<float>(ticks) * 1000.0f / c.clock.rate;
  const std::int32_t bin = correlogram_bin(dt_ms, c.bin_ms);
  if (std::abs(bin) <= correlogram_reach) ++counts[bin + correlogram_reach];
}

void count_round_reference(const counting& c, std::size_t entry, bin_counts& counts) {
  const std::size_t n = c.place_of_entry.size();
  const bool second_copy = entry >= n;
  const std::size_t at = c.place_of_entry[entry % n];
  const spike& reference = c.spikes[at];
  for (std::size_t i = at + 1; i < n && c.spikes[i].time - reference.time <= c.reach; ++i) {
    count_pair(c, reference, c.spikes[i], second_copy, counts);
  }
  for (std::size_t i = at; i > 0 && reference.time - c.spikes[i - 1].time <= c.reach; --i) {
    count_pair(c, reference, c.spikes[i - 1], second_copy, counts);
  }
}

// ---------------------------------------------------------------- trains in order of time

// The bin of every difference within reach, by its magnitude: a look into it takes less than the
// two divisions of the bin's arithmetic, of which many pairs would make many millions.
struct bin_table {
  tick_clock clock;
  float bin_ms = 0;
  std::int64_t reach = 0;             // ticks
  std::vector<std::int8_t> of_ticks;  // empty where there would be too many
};
constexpr std::int8_t beyond_reach = correlogram_reach + 1;

std::int32_t compute_bin(const bin_table& table, std::int64_t ticks) {
  const float dt_ms = static_cast<float>(ticks) * 1000.0f / table.clock.rate;
  return std::min(correlogram_bin(dt_ms, table.bin_ms), std::int32_t{beyond_reach});
}

bin_table make_bin_table(tick_clock clock, float bin_ms) {
  constexpr std::int64_t most = 200'000;
  bin_table table{clock, bin_ms, reach_of(clock, bin_ms), {}};
  if (table.reach > most) return table;
  for (std::int64_t ticks = 0; ticks <= table.reach; ++ticks) {
    table.of_ticks.push_back(static_cast<std::int8_t>(compute_bin(table, ticks)));
  }
  return table;
}

// Nearly all are: the two are then walked side by side, without a list of both.
struct ordered_trains {
  const spike_train &a, &b;
  const bin_table& table;
  bool is_auto;
  std::int32_t stride;  // of the references
};

// The sign is given to the bin, since its arithmetic goes by the magnitude.
void count_ticks(const ordered_trains& o, std::int64_t ticks, bool second, bin_counts& counts) {
  // As count_pair has it.
  if (o.table.clock.from_stamps && o.is_auto && ticks == 0) return;
  const std::int64_t magnitude = std::abs(ticks);
  const std::int32_t bin =
      o.table.of_ticks.empty()
          ? compute_bin(o.table, magnitude)
          : std::int32_t{o.table.of_ticks[static_cast<std::size_t>(magnitude)]};
  if (bin > correlogram_reach) return;
  const bool left = second != (ticks < 0);
  ++counts[left ? correlogram_reach - bin : correlogram_reach + bin];
}

// References from..to of one train among the spikes of the other; of an autocorrelogram among those
// that follow them, which are the later ones of the table as well. Positions go by the stride.
void count_references(const ordered_trains& o, bool second, std::size_t from, std::size_t to,
                      bin_counts& counts) {
  const spike_train& own = second ? o.b : o.a;
  const spike_train& other = second ? o.a : o.b;
  const auto stride = static_cast<std::size_t>(o.stride);
  if (from >= to) return;
  const auto begin = other.times.begin();
  auto low = static_cast<std::size_t>(
      std::lower_bound(begin, other.times.end(), own.times[from] - o.table.reach) - begin);
  const std::size_t n = other.times.size();
  const std::int64_t reach = o.table.reach;
  for (std::size_t i = from; i < to; i += stride) {
    const std::int64_t time = own.times[i];
    while (low < n && other.times[low] < time - reach) ++low;
    for (std::size_t j = o.is_auto ? i + 1 : low; j < n && other.times[j] - time <= reach; ++j) {
      // A pair counts once, by the spike that comes first in the table of events.
      if (other.events[j] > own.events[i]) {
        count_ticks(o, other.times[j] - time, second, counts);
      }
    }
  }
}

// The list of references, first those of a and then those of b, has no gap where one ends: of the
// second the first that the stride meets.
std::size_t first_of_second(std::size_t n_a, std::int32_t stride) {
  const auto s = static_cast<std::size_t>(stride);
  return (n_a + s - 1) / s * s - n_a;
}

// Whole numbers, so that the sum over threads is the same in any order and at any number of them.
void add_parts(const std::vector<bin_counts>& of_thread, bin_counts& counts) {
  for (const bin_counts& part : of_thread) {
    for (std::size_t bin = 0; bin < part.size(); ++bin) counts[bin] += part[bin];
  }
}

void count_ordered(const ordered_trains& o, std::int32_t n_threads, bin_counts& counts) {
  // Positions in a train; whole strides, so that each piece begins at a reference.
  const std::size_t piece = 4096 * static_cast<std::size_t>(o.stride);
  const std::size_t begins[] = {0, first_of_second(o.a.times.size(), o.stride)};
  const std::size_t ends[] = {o.a.times.size(), o.b.times.size()};
  for (const int side : {0, 1}) {
    if (begins[side] >= ends[side]) continue;
    std::vector<bin_counts> of_thread(static_cast<std::size_t>(n_threads));
    const auto n_pieces =
        static_cast<std::int64_t>((ends[side] - begins[side] + piece - 1) / piece);
    parallel_for(n_threads, 0, n_pieces - 1, [&](std::int64_t i, std::int32_t rank) {
      const std::size_t from = begins[side] + static_cast<std::size_t>(i) * piece;
      count_references(o, side == 1, from, std::min(from + piece, ends[side]), of_thread[rank]);
    });
    add_parts(of_thread, counts);
  }
}

void count_all(const counting& c, std::int64_t n_listed, std::int32_t stride,
               std::int32_t n_threads, bin_counts& counts) {
  std::vector<bin_counts> of_thread(static_cast<std::size_t>(n_threads));
  parallel_for(n_threads, 0, (n_listed - 1) / stride, [&](std::int64_t i, std::int32_t rank) {
    count_round_reference(c, static_cast<std::size_t>(i * stride), of_thread[rank]);
  });
  add_parts(of_thread, counts);
}

bool is_ordered(const spike_train& train) {
  return std::is_sorted(train.times.begin(), train.times.end());
}

// Without counts. table: of the width that the bins have.
correlogram begin_correlogram(const session_state& session, const spike_train& a,
                              const spike_train& b, const bin_table& table) {
  correlogram result;
  result.a = a.unit;
  result.b = b.unit;
  result.bin_ms = table.bin_ms;
  result.n_a = static_cast<std::int32_t>(a.times.size());
  result.n_b = static_cast<std::int32_t>(b.times.size());
  result.duration_ms = 60000.0 * static_cast<double>(session.recording.duration_mins);
  const std::int64_t n_listed = std::int64_t{result.n_a} + result.n_b;
  // Records that were stored one by one are too few to be thinned.
  if (!table.clock.from_stamps) result.stride = static_cast<std::int32_t>(n_listed / 20000 + 1);
  return result;
}

void count_on_threads(const spike_train& a, const spike_train& b, const bin_table& table,
                      std::int32_t n_threads, correlogram& result) {
  const std::int64_t n_listed = std::int64_t{result.n_a} + result.n_b;
  if (n_listed == 0) return;
  if (is_ordered(a) && is_ordered(b)) {
    count_ordered({a, b, table, a.unit == b.unit, result.stride}, n_threads, result.counts);
  } else {
    count_all(prepare_counting(a, b, table.clock, result.bin_ms), n_listed, result.stride,
              n_threads, result.counts);
  }
}

bin_table table_of_width(const session_state& session, float bin_ms) {
  // A width of nothing holds nothing; what a setting may bring is above it.
  return make_bin_table(clock_of_trains(session), std::max(bin_ms, 1e-6f));
}

}  // namespace

correlogram correlogram_counts(const session_state& session, const spike_train& a,
                               const spike_train& b, float bin_ms) {
  const bin_table table = table_of_width(session, bin_ms);
  correlogram result = begin_correlogram(session, a, b, table);
  count_on_threads(a, b, table, std::max(1, threads_now(session)), result);
  return result;
}

std::vector<correlogram> correlograms_of_pairs(const session_state& session,
                                               const std::vector<spike_train>& trains,
                                               const std::vector<train_pair>& pairs, float bin_ms) {
  const bin_table table = table_of_width(session, bin_ms);
  const std::int32_t n_threads = std::max(1, threads_now(session));
  std::vector<correlogram> results;
  results.reserve(pairs.size());
  for (const train_pair& pair : pairs) {
    results.push_back(begin_correlogram(session, trains[pair.a], trains[pair.b], table));
  }
  // Stamps of stored records have rules of their own.
  const bool in_grid = !table.clock.from_stamps &&
                       count_correlogram_grid(n_threads, trains, pairs, table.of_ticks, results);
  const auto last = static_cast<std::int64_t>(pairs.size()) - 1;
  parallel_for(n_threads, 0, last, [&](std::int64_t i, std::int32_t) {
    correlogram& result = results[static_cast<std::size_t>(i)];
    if (in_grid && result.a != result.b) return;
    const train_pair& pair = pairs[static_cast<std::size_t>(i)];
    count_on_threads(trains[pair.a], trains[pair.b], table, 1, result);
  });
  return results;
}

correlogram correlogram_counts(const session_state& session, std::int32_t a, std::int32_t b) {
  const spike_train of_a = get_spike_train(session, a);
  const float width = session.review.correlogram_bin_ms;
  if (a == b) return correlogram_counts(session, of_a, of_a, width);
  return correlogram_counts(session, of_a, get_spike_train(session, b), width);
}

// ---------------------------------------------------------------- measures

double expected_count(const correlogram& result) {
  if (result.duration_ms <= 0) return 0;
  // Each spike of a has n_b partners, or its own n_a - 1 others, spread over the recording; of
  // every stride-th pair there is a reference.
  const double partners = result.a == result.b ? result.n_a - 1.0 : result.n_b;
  return std::max(0.0, result.n_a * partners * static_cast<double>(result.bin_ms) /
                           result.duration_ms / result.stride);
}

double count_as_rate(const correlogram& result, double count) {
  // Per spike of a and second of the bin: what b fires round a spike of a.
  if (result.n_a == 0) return 0;
  return count * result.stride * 1000 / (result.n_a * static_cast<double>(result.bin_ms));
}

// ---------------------------------------------------------------- showing

std::string correlogram_title(const correlogram& result) {
  return result.a == result.b
             ? fmt::format("Unit {} autocorrelation", result.a)
             : fmt::format("Units {} and {} cross-correlation", result.a, result.b);
}

std::string correlogram_panel_title(const correlogram& result) {
  return result.a == result.b ? fmt::format("AC: Unit {}", result.a)
                              : fmt::format("CC: Units {} and {}", result.a, result.b);
}

std::string bin_width_text(float bin_ms) { return fmt::format("{:.3f} ms bins", bin_ms); }

namespace {

// An upright line in a series of its own.
void add_upright(graph_data& graph, std::size_t series, float x, float height,
                 std::uint32_t colour) {
  graph.series[series].x = {x, x};
  graph.series[series].y = {0, height};
  graph.series_style[series] = pack_series_look({form_lines, false, true, colour});
}

// Of the refractory period, in which one neuron hardly fires twice: at 1 and 2 ms, on one side or
// on both, where the bins reach so far.
void add_refractory_lines(graph_data& graph, float reach_ms, float height, bool both_sides) {
  constexpr std::uint32_t colours[] = {0x3030D0, 0x30A0E0};
  std::size_t series = 1;
  for (const float ms : {1.0f, 2.0f}) {
    if (ms > reach_ms) continue;
    if (both_sides) add_upright(graph, series++, -ms, height, colours[ms > 1]);
    add_upright(graph, series++, ms, height, colours[ms > 1]);
  }
}

}  // namespace

graph_data make_correlogram_graph(const correlogram& result, bool as_rate) {
  graph_data graph;
  graph.title = correlogram_title(result);
  graph.kind = form_bars;
  graph.labels[label_x_axis] = "Time difference";
  graph.labels[label_y_axis] = as_rate ? "Spikes per second" : "Counts per bin";
  graph.labels[label_subtitle] = bin_width_text(result.bin_ms);
  graph.units[0] = "ms";
  graph.axis_style[style_of_y_axis] = axis_from_zero;
  graph.axis_style[style_of_legend] = legend_hidden;
  const auto shown = [&](double count) {
    return static_cast<float>(as_rate ? count_as_rate(result, count) : count);
  };
  graph_series& bars = graph.series[0];
  for (std::int32_t bin = -correlogram_reach; bin <= correlogram_reach; ++bin) {
    bars.x.push_back(static_cast<float>(bin) * result.bin_ms);
    bars.y.push_back(shown(result.count(bin)));
    bars.extra.push_back(shown(expected_count(result)));
  }
  const float height = std::max(*std::max_element(bars.y.begin(), bars.y.end()), bars.extra[0]);
  const float edge = static_cast<float>(correlogram_reach) * result.bin_ms;
  graph.x_range = {-edge - result.bin_ms / 2, edge + result.bin_ms / 2};
  add_refractory_lines(graph, edge, height, true);
  return graph;
}

void print_correlogram(const session_state& session, const correlogram& result) {
  // Characters: a longer line would be broken by the run log, in a rhythm of its own.
  constexpr std::size_t line_length = 100;
  log_message(session,
              fmt::format("{}, {}", correlogram_title(result), bin_width_text(result.bin_ms)));
  std::string line;
  for (const std::int32_t count : result.counts) {
    const std::string text = std::to_string(count);
    if (!line.empty() && line.size() + 1 + text.size() > line_length) {
      log_message(session, line);
      line.clear();
    }
    line += (line.empty() ? "" : " ") + text;
  }
  log_message(session, line);
}

// ---------------------------------------------------------------- bin widths

namespace {

std::int32_t samples_per_ms(const session_state& session) {
  return session.recording.sampling_frequency / 1000;
}

}  // namespace

std::int32_t bin_slider_limit(const session_state& session) { return samples_per_ms(session) + 99; }

float bin_width_of_slider(const session_state& session, std::int32_t position) {
  const std::int32_t k = samples_per_ms(session);
  const std::int32_t p = std::clamp(position, 1, bin_slider_limit(session));
  // Below 1 ms a step is one sample, above it one ms: a bin narrower than a sample would only show
  // the sampling.
  if (p < k) return static_cast<float>(p) / static_cast<float>(k);
  return static_cast<float>(p - k + 1);
}

std::int32_t slider_of_bin_width(const session_state& session, float bin_ms) {
  std::int32_t best = 1;
  for (std::int32_t p = 2; p <= bin_slider_limit(session); ++p) {
    const float distance = std::fabs(bin_width_of_slider(session, p) - bin_ms);
    // The lower of two that are equally near.
    if (distance < std::fabs(bin_width_of_slider(session, best) - bin_ms)) best = p;
  }
  return best;
}

float next_preset_width(const session_state& session, float bin_ms) {
  const auto& widths = session.preferences.correlogram_binwidths;
  const auto at = std::find(std::begin(widths), std::end(widths), bin_ms);
  // A width of the user's own leads back to the first as well.
  if (at == std::end(widths) || at + 1 == std::end(widths)) return widths[0];
  return at[1];
}

// ---------------------------------------------------------------- spike trains

bool correlate_trains(const session_state& session, std::int32_t a, std::int32_t b,
                      train_correlation& result) {
  result = {};
  if (!can_review(session, "Cross-correlate spike trains")) return false;
  const spike_train of_a = get_spike_train(session, a), of_b = get_spike_train(session, b);
  const float width = session.review.correlogram_bin_ms;
  result.n_first = static_cast<std::int32_t>(of_a.times.size());
  result.n_second = static_cast<std::int32_t>(of_b.times.size());
  result.first = correlogram_counts(session, of_a, of_a, width);
  result.second = correlogram_counts(session, of_b, of_b, width);
  result.cross = correlogram_counts(session, of_a, of_b, width);
  return true;
}

void print_train_correlation(const session_state& session, const train_correlation& result) {
  print_correlogram(session, result.first);
  print_correlogram(session, result.second);
  print_correlogram(session, result.cross);
}

// ---------------------------------------------------------------- intervals

interval_histogram count_intervals(const session_state& session, const spike_train& train,
                                   float bin_ms, std::int32_t n_bins) {
  interval_histogram histogram;
  histogram.unit = train.unit;
  histogram.bin_ms = std::max(bin_ms, 1e-6f);
  histogram.counts.assign(static_cast<std::size_t>(std::max(0, n_bins)), 0);
  std::vector<std::int64_t> times = train.times;
  // Alignment may have carried a spike past another, and an interval is never negative.
  std::sort(times.begin(), times.end());
  const float rate = clock_of_trains(session).rate;
  for (std::size_t i = 1; i < times.size(); ++i) {
    const float ms = static_cast<float>(times[i] - times[i - 1]) * 1000.0f / rate;
    ++histogram.n_intervals;
    histogram.below_1_ms += ms < 1.0f;
    histogram.below_2_ms += ms < 2.0f;
    const float bin = ms / histogram.bin_ms;
    // Compared before the cast, which has no value for an interval of days in bins of µs. Longer
    // ones are counted among the intervals all the same.
    if (bin < static_cast<float>(n_bins)) ++histogram.counts[static_cast<std::size_t>(bin)];
  }
  return histogram;
}

interval_histogram count_intervals(const session_state& session, std::int32_t unit) {
  // Bursts and the first bump of a rhythm lie within it; bins of µs would be too many to be seen.
  constexpr float span_ms = 100, most_bins = 2000;
  const float width = std::max(session.review.correlogram_bin_ms, 1e-6f);
  const float bins = std::clamp(std::ceil(span_ms / width), 2.0f * correlogram_reach, most_bins);
  return count_intervals(session, get_spike_train(session, unit), width,
                         static_cast<std::int32_t>(bins));
}

std::vector<double> refractory_violations(const session_state& session) {
  const tick_clock clock = clock_of_trains(session);
  // All trains at once: a pass for each cluster would be one too many with a thousand of them.
  std::vector<spike_train> trains(static_cast<std::size_t>(session.clusters.n_clusters) + 1);
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    const std::int32_t cluster = session.events.event_cluster[e];
    if (cluster < 1) continue;
    trains[static_cast<std::size_t>(cluster)].times.push_back(
        event_ticks(session, e, clock.from_stamps));
  }
  std::vector<double> percent(trains.size());
  for (std::size_t c = 1; c < trains.size(); ++c) {
    const interval_histogram all = count_intervals(session, trains[c], 1, 0);
    if (all.n_intervals > 0) percent[c] = 100.0 * all.below_2_ms / all.n_intervals;
  }
  return percent;
}

graph_data make_interval_graph(const interval_histogram& histogram) {
  graph_data graph;
  graph.title = fmt::format("Unit {} interspike intervals", histogram.unit);
  graph.kind = form_bars;
  graph.labels[label_x_axis] = "Interval";
  graph.labels[label_y_axis] = "Counts per bin";
  graph.labels[label_subtitle] =
      fmt::format("{}; {} of {} below 2 ms", bin_width_text(histogram.bin_ms), histogram.below_2_ms,
                  histogram.n_intervals);
  graph.units[0] = "ms";
  graph.axis_style[style_of_y_axis] = axis_from_zero;
  graph.axis_style[style_of_legend] = legend_hidden;
  for (std::size_t i = 0; i < histogram.counts.size(); ++i) {
    // Bars stand on their middles.
    graph.series[0].x.push_back((static_cast<float>(i) + 0.5f) * histogram.bin_ms);
    graph.series[0].y.push_back(static_cast<float>(histogram.counts[i]));
  }
  if (histogram.counts.empty()) return graph;
  const auto most = std::max_element(histogram.counts.begin(), histogram.counts.end());
  const float reach = static_cast<float>(histogram.counts.size()) * histogram.bin_ms;
  graph.x_range = {0, reach};
  add_refractory_lines(graph, reach, static_cast<float>(*most), false);
  return graph;
}

}  // namespace kestrelvane
