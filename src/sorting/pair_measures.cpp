#include "sorting/pair_measures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "clustering/templates.h"
#include "numerics/simd.h"
#include "session/template_window.h"

namespace kestrelvane {

// ---------------------------------------------------------------- channels

namespace {

bool has_channel(const template_table& templates, std::int32_t cluster, std::int32_t channel) {
  const std::int32_t* channels = templates.channels(cluster) + 1;
  const std::int32_t* end = channels + templates.template_n_channels[cluster];
  return std::find(channels, end, channel) != end;
}

std::vector<std::int32_t> common_channels(const session_state& session, std::int32_t a,
                                          std::int32_t b) {
  const template_table& templates = session.templates;
  std::vector<std::int32_t> common;
  for (std::int32_t k = 1; k <= templates.template_n_channels[a]; ++k) {
    const std::int32_t channel = templates.channels(a)[k];
    if (has_channel(templates, b, channel)) common.push_back(channel);
  }
  return common;
}

}  // namespace

std::int32_t n_common_channels(const session_state& session, std::int32_t a, std::int32_t b) {
  const template_table& templates = session.templates;
  std::int32_t count = 0;
  for (std::int32_t k = 1; k <= templates.template_n_channels[a]; ++k) {
    count += has_channel(templates, b, templates.channels(a)[k]);
  }
  return count;
}

std::int32_t n_union_channels(const session_state& session, std::int32_t a, std::int32_t b) {
  const template_table& templates = session.templates;
  return templates.template_n_channels[a] + templates.template_n_channels[b] -
         n_common_channels(session, a, b);
}

namespace {

// a's channels in their order, then those of b not yet present.
std::vector<std::int32_t> union_channels(const session_state& session, std::int32_t a,
                                         std::int32_t b) {
  const template_table& templates = session.templates;
  const std::int32_t* of_a = templates.channels(a) + 1;
  std::vector<std::int32_t> all(of_a, of_a + templates.template_n_channels[a]);
  for (std::int32_t k = 1; k <= templates.template_n_channels[b]; ++k) {
    const std::int32_t channel = templates.channels(b)[k];
    if (!has_channel(templates, a, channel)) all.push_back(channel);
  }
  return all;
}

}  // namespace

// ---------------------------------------------------------------- shift

namespace {

constexpr std::int32_t widest_lag = 50;

// c(L) = -sum of R(t) M(t + L) for L = -m..m, lanes over lags; each lag adds in the
// order of channels and points. A template padded with zeros on both sides keeps
// terms outside it from counting.
KESTRELVANE_CLONES void add_lagged_products(const float* reference, const float* padded_moved,
                                            std::int32_t points, std::int32_t n_lags, float* sums) {
  for (std::int32_t t = 0; t < points; ++t) {
    const float r = reference[t];
    const float* moved = padded_moved + t;
    for (std::int32_t lag = 0; lag < n_lags; ++lag) sums[lag] += r * moved[lag];
  }
}

}  // namespace

pair_shift template_shift(const session_state& session, std::int32_t a, std::int32_t b,
                          std::int32_t n_a, std::int32_t n_b) {
  if (!session.lists.template_shift_on) return {0.0f, b};
  const std::int32_t reference = n_a >= n_b ? a : b;
  const std::int32_t moved = n_a >= n_b ? b : a;
  const std::vector<std::int32_t> channels = common_channels(session, a, b);
  if (channels.empty()) return {0.0f, moved};
  // Up to a millisecond either way, held to what the arrays have room for.
  const std::int32_t m = std::min(session.recording.sampling_frequency / 1000, widest_lag);
  const std::int32_t points = session.templates.template_points;
  float sums[2 * widest_lag + 1] = {};
  float padded[template_point_limit + 2 * widest_lag];
  for (const std::int32_t channel : channels) {
    std::fill(padded, padded + points + 2 * m, 0.0f);
    const float* values = session.templates.mean(moved, channel);
    std::copy(values + 1, values + 1 + points, padded + m);
    add_lagged_products(session.templates.mean(reference, channel) + 1, padded, points, 2 * m + 1,
                        sums);
  }
  const auto c = [&](std::int32_t lag) { return -sums[lag + m]; };
  std::int32_t best = 0;
  bool found = false;
  // A local minimum needs a neighbour on both sides, so the two outermost lags are none. Of a flat
  // floor the first lag counts, of equal minima the first one.
  for (std::int32_t lag = -m + 1; lag <= m - 1; ++lag) {
    if (!(c(lag - 1) > c(lag) && c(lag + 1) >= c(lag))) continue;
    if (!found || c(lag) < c(best)) best = lag;
    found = true;
  }
  if (!found || std::abs(best) >= m) return {0.0f, moved};
  float shift = static_cast<float>(best);
  // The vertex of the parabola through the minimum and its two neighbours.
  const float d = (c(best) - c(best - 1)) + (c(best) - c(best + 1));
  if (d != 0.0f) shift += -((c(best - 1) - c(best + 1)) * 0.5f / d);
  const auto low = static_cast<float>(window_first_sample(session));
  const auto high = static_cast<float>(window_last_sample(session));
  // Beyond the spike window nothing of the template would be left to compare.
  if (!(shift > low && shift < high)) shift = 0.0f;
  return {shift, moved};
}

// ---------------------------------------------------------------- templates compared

namespace {

// Calls visit(x, y) for a's and b's template at every point of the union channels,
// channel outer, the shifted one read at its shift.
template <typename Visit>
void compare_templates(const session_state& session, std::int32_t a, std::int32_t b,
                       pair_shift shift, Visit&& visit) {
  const template_table& templates = session.templates;
  // A shift of 0 compares the points as they are, without interpolation.
  const bool moved = shift.shift != 0.0f;
  for (const std::int32_t channel : union_channels(session, a, b)) {
    const float* x = templates.mean(a, channel);
    const float* y = templates.mean(b, channel);
    for (std::int32_t t = 1; t <= templates.template_points; ++t) {
      const float position = static_cast<float>(t) + shift.shift;
      visit(moved && shift.n_shift == a ? shifted_template_value(session, x, position) : x[t],
            moved && shift.n_shift == b ? shifted_template_value(session, y, position) : y[t]);
    }
  }
}

}  // namespace

float template_correlation(const session_state& session, std::int32_t a, std::int32_t b,
                           pair_shift shift) {
  float xy = 0.0f, xx = 0.0f, yy = 0.0f;
  compare_templates(session, a, b, shift, [&](float x, float y) {
    xy += x * y;
    xx += x * x;
    yy += y * y;
  });
  const float norm = std::sqrt(xx) * std::sqrt(yy);
  // A template without any voltage is like nothing.
  return norm > 0.0f ? xy / norm : 0.0f;
}

namespace {

// Root mean square difference over the union channels, µV.
float rms_template_distance(const session_state& session, std::int32_t a, std::int32_t b,
                            pair_shift shift) {
  float sum = 0.0f;
  std::int32_t count = 0;
  compare_templates(session, a, b, shift, [&](float x, float y) {
    sum += (x - y) * (x - y);
    ++count;
  });
  if (count == 0) return 0.0f;
  return std::sqrt(sum / static_cast<float>(count)) * session.recording.vscale_HP;
}

}  // namespace

template_overlap templates_dont_overlap(const session_state& session, std::int32_t a,
                                        std::int32_t b, pair_shift shift) {
  const recording_store& r = session.recording;
  if (r.electrode_type == electrode_tetrode) {
    const bool same = r.tetrode_of_channel[session.templates.centre_channel(a)] ==
                      r.tetrode_of_channel[session.templates.centre_channel(b)];
    // Units of two tetrodes cannot be one; their waveforms are not compared at all.
    return same ? template_overlap{false, template_correlation(session, a, b, shift)}
                : template_overlap{true, -1.0f};
  }
  const float correlation = template_correlation(session, a, b, shift);
  const std::int32_t all = n_union_channels(session, a, b);
  const float share =
      all == 0 ? 0.0f
               : static_cast<float>(n_common_channels(session, a, b)) / static_cast<float>(all);
  // In 32 bits, and strictly below: a pair that reaches 1.1 is compared further.
  return {share + correlation < 1.1f, correlation};
}

// ---------------------------------------------------------------- overlap of events

namespace {

// Points in order of their first coordinate, so that a search may go outward from
// its own place and stop where the first coordinate alone is too far.
struct sorted_points {
  std::vector<float> x, y, z;
  std::vector<std::int32_t> row;    // where the point stood before
  std::vector<std::int32_t> place;  // by row: where it stands now
};

sorted_points sort_points(const std::vector<float>& coordinates, std::int32_t dimensions,
                          std::int32_t n) {
  const auto at = [&](std::int32_t i, std::int32_t d) {
    return d < dimensions ? coordinates[static_cast<std::size_t>(i) * dimensions + d] : 0.0f;
  };
  sorted_points points;
  points.row.resize(n);
  for (std::int32_t i = 0; i < n; ++i) points.row[i] = i;
  std::sort(points.row.begin(), points.row.end(),
            // Equal first coordinates may come in any order: of equal distances the lowest row
            // wins, wherever it stands.
            [&](std::int32_t a, std::int32_t b) { return at(a, 0) < at(b, 0); });
  points.place.resize(n);
  for (std::int32_t k = 0; k < n; ++k) {
    const std::int32_t i = points.row[k];
    points.place[i] = k;
    points.x.push_back(at(i, 0));
    points.y.push_back(at(i, 1));
    points.z.push_back(at(i, 2));
  }
  return points;
}

// Row of the nearest other point; of several at one distance the lowest row. A sum
// of squares is never below its first term, so nothing beyond the first one that is
// too far can be nearer.
std::int32_t find_nearest_row(const sorted_points& points, std::int32_t row, bool third) {
  const auto n = static_cast<std::int32_t>(points.x.size());
  const std::int32_t at = points.place[row];
  const float x = points.x[at], y = points.y[at], z = points.z[at];
  float best = 3.0e38f;
  std::int32_t nearest = n;
  // Looks at one point; false when the search may end on its side.
  const auto look = [&](std::int32_t k) {
    const float dx = points.x[k] - x;
    float d = dx * dx;
    // Strictly: a point as far in its first coordinate alone may still win by its row.
    if (d > best) return false;
    const float dy = points.y[k] - y;
    d += dy * dy;
    if (third) {
      const float dz = points.z[k] - z;
      d += dz * dz;
    }
    if (d < best || (d == best && points.row[k] < nearest)) {
      best = d;
      nearest = points.row[k];
    }
    return true;
  };
  std::int32_t left = at - 1, right = at + 1;
  bool go_left = left >= 0, go_right = right < n;
  while (go_left || go_right) {
    if (go_left) go_left = look(left) && --left >= 0;
    if (go_right) go_right = look(right) && ++right < n;
  }
  return nearest;
}

}  // namespace

namespace {

// By row: whether it asks, and its nearest neighbour is one of the other cluster.
std::vector<char> find_foreign(const overlap_points& p) {
  const sorted_points points = sort_points(p.coordinates, p.dimensions, p.n_a + p.n_b);
  const std::int32_t first = p.a_asks ? 0 : p.n_a;
  const std::int32_t last = p.a_asks ? p.n_a - 1 : p.n_a + p.n_b - 1;
  std::vector<char> foreign(static_cast<std::size_t>(p.n_a + p.n_b));
  for (std::int32_t i = first; i <= last; ++i) {
    const std::int32_t nearest = find_nearest_row(points, i, p.dimensions >= 3);
    foreign[static_cast<std::size_t>(i)] = nearest < first || nearest > last;
  }
  return foreign;
}

void count_foreign(overlap_points& p) {
  p.a_asks = p.n_a < p.n_b;
  p.foreign = find_foreign(p);
  p.n_foreign = static_cast<std::int32_t>(std::count(p.foreign.begin(), p.foreign.end(), 1));
  const std::int32_t n_asking = p.a_asks ? p.n_a : p.n_b;
  const auto same = static_cast<float>(n_asking - p.n_foreign);
  const auto smaller = static_cast<float>(n_asking);
  // The share of foreign neighbours over the share to be expected if the points were dealt at
  // random: 0 for two apart, about 1 for two that are mixed.
  p.overlap = (1.0f - same / smaller) / (1.0f - smaller / static_cast<float>(p.n_a + p.n_b));
}

// The test points of two clusters whose events are read, in the components of the pair.
overlap_points project_pair(session_state& session, std::int32_t a, std::int32_t b,
                            std::int32_t scratch_slot, pair_shift shift,
                            const std::vector<aligned_event>& events_a,
                            const std::vector<aligned_event>& events_b) {
  overlap_points result;
  const auto n_a = static_cast<std::int32_t>(events_a.size());
  const auto n_b = static_cast<std::int32_t>(events_b.size());
  if (n_a == 0 || n_b == 0) return result;
  make_pair_template(session, a, b, shift.shift, shift.n_shift, n_a, n_b, scratch_slot);
  const pc_parameters parameters = pc_parameters_of(session);
  const std::vector<aligned_event> sample = covariance_sample(parameters, events_a, events_b);
  const std::vector<pc_point> points = select_pc_points(session, parameters, scratch_slot, sample);
  pc_rows rows;
  fill_pc_rows(session, points, sample, 1.0f, rows);
  std::vector<float> axes;
  find_axes(rows, axes, session_failure_log(session));

  // The test points are drawn anew and in proportion: axes may come from another share of the two,
  // but neighbours must be counted at the sizes that the clusters have.
  const pair_sample sizes = proportional_sample(n_a, n_b);
  std::vector<aligned_event> test = stride_events(events_a, sizes.n_a);
  const std::vector<aligned_event> rest = stride_events(events_b, sizes.n_b);
  test.insert(test.end(), rest.begin(), rest.end());
  fill_pc_rows(session, points, test, 1.0f, rows);
  result.n_a = sizes.n_a;
  result.n_b = sizes.n_b;
  result.dimensions = std::min(parameters.dimensions, 3);
  project_rows(rows, axes, result.dimensions, result.coordinates);
  return result;
}

}  // namespace

float nearest_neighbour_overlap(const std::vector<float>& coordinates, std::int32_t dimensions,
                                std::int32_t n_a, std::int32_t n_b) {
  overlap_points points;
  points.n_a = n_a;
  points.n_b = n_b;
  points.dimensions = dimensions;
  points.coordinates = coordinates;
  count_foreign(points);
  return points.overlap;
}

float cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                      std::int32_t scratch_slot, pair_shift shift) {
  return listed_cluster_overlap(session, a, b, scratch_slot, shift, {});
}

float listed_cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                             std::int32_t scratch_slot, pair_shift shift,
                             const listed_cluster& listed) {
  const auto read = [&](std::int32_t c) {
    const bool shifted = shift.n_shift == c;
    return c == listed.cluster
               ? read_events(session, listed.events, shifted, shift.shift)
               : read_events(session, list_cluster_events(session, c), shifted, shift.shift);
  };
  const std::vector<aligned_event> events_a = read(a);
  const std::vector<aligned_event> events_b = read(b);
  overlap_points points = project_pair(session, a, b, scratch_slot, shift, events_a, events_b);
  if (points.n_a == 0) return std::nanf("");
  count_foreign(points);
  return points.overlap;
}

overlap_points find_overlap_points(session_state& session, std::int32_t a, std::int32_t b,
                                   std::int32_t scratch_slot, pair_shift shift) {
  const auto read = [&](std::int32_t c) {
    return read_events(session, list_cluster_events(session, c), shift.n_shift == c, shift.shift);
  };
  overlap_points points = project_pair(session, a, b, scratch_slot, shift, read(a), read(b));
  if (points.n_a > 0) count_foreign(points);
  return points;
}

// ---------------------------------------------------------------- comparison values

float spatial_separation(const session_state& session, std::int32_t a, std::int32_t b) {
  const float dx = session.templates.template_x[a] - session.templates.template_x[b];
  const float dy = session.templates.template_y[a] - session.templates.template_y[b];
  return std::sqrt(dx * dx + dy * dy);
}

float doublet_value(const session_state& session, std::int32_t a, std::int32_t b, float window_ms) {
  const recording_store& r = session.recording;
  const event_table& events = session.events;
  if (!r.is_continuous && !session.preferences.treat_as_continuous) return -1.0f;
  // Events are in order of discovery, so a window of time is a stretch of the list: as many as all
  // clusters together hold when each fires at 50 Hz, and never below 50.
  const std::int64_t span = std::max<std::int64_t>(
      50, static_cast<std::int64_t>(static_cast<float>(session.clusters.n_clusters) * 50.0f *
                                    window_ms / 1000.0f));
  std::int32_t after = 0, before = 0, n_a = 0;
  const std::vector<std::int32_t> events_b = list_cluster_events(session, b);
  auto first = events_b.begin();
  for (const std::int32_t e : list_cluster_events(session, a)) {
    ++n_a;
    while (first != events_b.end() && *first < e - span) ++first;
    for (auto other_place = first; other_place != events_b.end() && *other_place <= e + span;
         ++other_place) {
      const std::int32_t other = *other_place;
      const float dt = static_cast<float>(events.event_time[other] - events.event_time[e]) *
                       1000.0f / static_cast<float>(r.sampling_frequency);
      if (std::fabs(dt) > window_ms) continue;
      // What is less than a millisecond apart has no order that could be trusted.
      after += dt > 1.0f;
      before += dt < -1.0f;
    }
  }
  const std::int32_t channel = session.templates.centre_channel(b);
  const float height_a = template_peak_to_peak(session, a, channel);
  const float height_b = template_peak_to_peak(session, b, channel);
  // By the count of the one that is smaller on b's centre channel; positive when the smaller
  // follows the larger, as in a burst, where the later spikes lose height.
  const std::int32_t size = height_a <= height_b ? n_a : count_cluster_events(session, b);
  const float value = static_cast<float>(after - before) / static_cast<float>(size);
  return (height_a - height_b) / (height_a + height_b) >= 0.0f ? value : -value;
}

namespace {

std::vector<float> count_by_bin(const session_state& session, std::int32_t cluster,
                                std::int32_t n_bins, float width) {
  std::vector<float> counts(n_bins + 1, 0.0f);
  for (const std::int32_t e : list_cluster_events(session, cluster)) {
    // Cut to whole seconds before the bin is found. In recordings below 100 s, where bins are
    // shorter than a second, the bins between stay empty and are passed over.
    const std::int32_t seconds =
        session.events.event_time[e] / session.recording.sampling_frequency;
    const auto bin = static_cast<std::int32_t>(static_cast<float>(seconds) / width + 1.0f);
    if (bin >= 1 && bin <= n_bins) counts[bin] += 1.0f;
  }
  return counts;
}

}  // namespace

float rate_complementarity(const session_state& session, std::int32_t a, std::int32_t b) {
  const float length = session.recording.duration_mins * 60.0f;
  float width = 60.0f;
  auto n_bins = static_cast<std::int32_t>(length / width);
  // At least a hundred bins, or a correlation would rest on a handful of points.
  if (n_bins < 100) {
    width = length / 100.0f;
    n_bins = static_cast<std::int32_t>(length / width);
  }
  const std::vector<float> x = count_by_bin(session, a, n_bins, width);
  const std::vector<float> y = count_by_bin(session, b, n_bins, width);
  double n = 0, sum_x = 0, sum_y = 0, sum_xx = 0, sum_yy = 0, sum_xy = 0;
  for (std::int32_t i = 1; i <= n_bins; ++i) {
    if (x[i] == 0.0f && y[i] == 0.0f) continue;
    n += 1;
    sum_x += x[i];
    sum_y += y[i];
    sum_xx += static_cast<double>(x[i] * x[i]);
    sum_yy += static_cast<double>(y[i] * y[i]);
    sum_xy += static_cast<double>(x[i] * y[i]);
  }
  if (n == 0) return -0.0f;
  const double norm = std::sqrt((sum_xx - sum_x * sum_x / n) * (sum_yy - sum_y * sum_y / n));
  // Negated: units that take turns, one unit that drifted, have the highest value.
  return norm > 0.0 ? -static_cast<float>((sum_xy - sum_x * sum_y / n) / norm) : 0.0f;
}

namespace {

constexpr std::int32_t grid_limit = 50;

struct pc_spread {
  float mean[2] = {}, sd[2] = {};
};

pc_spread measure_spread(const std::vector<float>& xy) {
  pc_spread spread;
  const auto n = static_cast<std::int32_t>(xy.size() / 2);
  for (std::int32_t d = 0; d < 2; ++d) {
    float squares = 0.0f;
    for (std::int32_t i = 0; i < n; ++i) {
      spread.mean[d] += (xy[2 * i + d] - spread.mean[d]) / static_cast<float>(i + 1);
      squares += xy[2 * i + d] * xy[2 * i + d];
    }
    // Rounding may leave a variance below zero when all points lie on one spot.
    const float variance = (squares - static_cast<float>(n) * spread.mean[d] * spread.mean[d]) /
                           static_cast<float>(n - 1);
    spread.sd[d] = variance > 0.0f ? std::sqrt(variance) : 0.0f;
  }
  return spread;
}

struct count_grid {
  float cells[grid_limit + 1][grid_limit + 1] = {};
};

void fill_grid(const std::vector<float>& xy, const float* low, float scale, count_grid& grid) {
  for (std::size_t i = 0; i + 1 < xy.size(); i += 2) {
    const auto bx = static_cast<std::int32_t>((xy[i] - low[0]) * scale + 1.0f);
    const auto by = static_cast<std::int32_t>((xy[i + 1] - low[1]) * scale + 1.0f);
    // What lies beyond two deviations on either side is not counted.
    if (bx < 1 || bx > grid_limit || by < 1 || by > grid_limit) continue;
    grid.cells[bx][by] += 1.0f;
  }
  for (auto& row : grid.cells) {
    for (float& cell : row) {
      // One point alone in its cell makes no density.
      if (cell == 1.0f) cell = 0.0f;
    }
  }
}

// 100 times the opposing part of the two densities' gradients over the gradient
// power of the smaller one.
float compare_gradients(const count_grid& a, const count_grid& b) {
  float power_a = 0, power_b = 0, opposing = 0, count_a = 0, count_b = 0;
  // The rim has no neighbour to take a difference with, so it has no gradient.
  for (std::int32_t x = 2; x < grid_limit; ++x) {
    for (std::int32_t y = 2; y < grid_limit; ++y) {
      const float ax = a.cells[x + 1][y] - a.cells[x - 1][y];
      const float ay = a.cells[x][y + 1] - a.cells[x][y - 1];
      const float bx = b.cells[x + 1][y] - b.cells[x - 1][y];
      const float by = b.cells[x][y + 1] - b.cells[x][y - 1];
      power_a += ax * ax + ay * ay;
      power_b += bx * bx + by * by;
      opposing += std::max(0.0f, -(ax * bx + ay * by));
      count_a += a.cells[x][y];
      count_b += b.cells[x][y];
    }
  }
  const float denominator = count_a < count_b ? power_a : power_b;
  return denominator == 0.0f ? -1.0f : 100.0f * opposing / denominator;
}

}  // namespace

optional_value pc_adjacency(session_state& session, std::int32_t a, std::int32_t b,
                            std::int32_t rank) {
  gac_points points;
  pair_pc_values(session, a, b, rank, points);
  std::vector<float> xy[2];
  // Rows lie in the order of the events, whichever of the two clusters they belong to.
  const std::vector<std::int32_t> events_a = list_cluster_events(session, a);
  const std::vector<std::int32_t> events_b = list_cluster_events(session, b);
  const auto n = static_cast<std::int32_t>(events_a.size() + events_b.size());
  std::size_t next_a = 0, next_b = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    const bool of_b = next_a == events_a.size() ||
                      (next_b < events_b.size() && events_b[next_b] < events_a[next_a]);
    ++(of_b ? next_b : next_a);
    xy[of_b].push_back(points.row(i)[0]);
    xy[of_b].push_back(points.row(i)[1]);
  }
  // Two coordinates to an event.
  if (xy[0].size() < 4 || xy[1].size() < 4) return {false, 0.0f};
  const pc_spread spread_a = measure_spread(xy[0]), spread_b = measure_spread(xy[1]);
  float low[2], range = 0.0f;
  for (std::int32_t d = 0; d < 2; ++d) {
    low[d] = std::min(spread_a.mean[d] - 2.0f * spread_a.sd[d],
                      spread_b.mean[d] - 2.0f * spread_b.sd[d]);
    const float high = std::max(spread_a.mean[d] + 2.0f * spread_a.sd[d],
                                spread_b.mean[d] + 2.0f * spread_b.sd[d]);
    // One scale for both axes, the one that fits the wider of them.
    range = std::max(range, high - low[d]);
  }
  // The more points, the finer the grid.
  const std::int32_t bins =
      std::min(grid_limit, static_cast<std::int32_t>(std::sqrt(static_cast<float>(points.n))));
  const float scale = static_cast<float>(bins - 1) / range;
  count_grid grid_a, grid_b;
  fill_grid(xy[0], low, scale, grid_a);
  fill_grid(xy[1], low, scale, grid_b);
  return {true, compare_gradients(grid_a, grid_b)};
}

optional_value match_value(session_state& session, std::int32_t a, std::int32_t b, std::int64_t k,
                           pair_shift shift, std::int32_t rank) {
  const recording_store& r = session.recording;
  if (r.electrode_type == electrode_tetrode &&
      r.tetrode_of_channel[session.templates.centre_channel(a)] !=
          r.tetrode_of_channel[session.templates.centre_channel(b)]) {
    // Last in methods that begin with small values, first in those that begin with large ones.
    return {true, 1000.0f};
  }
  switch (session.review.match_method) {
    case match_separation:
      return {true, spatial_separation(session, a, b)};
    case match_overlap:
      return {true, session.lists.kv_cluster_overlap[k]};
    case match_correlation:
      return {true, template_correlation(session, a, b, shift)};
    case match_rms_distance:
      return {true, rms_template_distance(session, a, b, shift)};
    case match_doublets:
      return {true, doublet_value(session, a, b, 20.0f)};
    case match_rates:
      return {true, rate_complementarity(session, a, b)};
    default:
      return pc_adjacency(session, a, b, rank);
  }
}

}  // namespace kestrelvane
