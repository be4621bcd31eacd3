#include "clustering/principal_components.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/template_sums.h"
#include "clustering/templates.h"
#include "numerics/jacobi.h"
#include "numerics/simd.h"
#include "numerics/sort.h"
#include "session/pair_index.h"
#include "session/template_window.h"
#include "signal/interpolation.h"

namespace kestrelvane {

// ---------------------------------------------------------------- choosing points

namespace {

std::vector<std::int32_t> assigned_channels(const session_state& session, std::int32_t slot) {
  const std::int32_t* channels = session.templates.channels(slot);
  return {channels + 1, channels + 1 + session.templates.template_n_channels[slot]};
}

std::vector<std::int32_t> channels_near_centre(const session_state& session, std::int32_t slot) {
  const recording_store& r = session.recording;
  const std::int32_t centre = session.templates.centre_channel(slot);
  std::vector<std::int32_t> near;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c] && r.distance(centre, c) < 200.0f) near.push_back(c);
  }
  return near;
}

// Scores points first..last of each channel until the candidates are full.
template <typename Score>
void score_points(const session_state& session, const std::vector<std::int32_t>& channels,
                  std::int32_t first, std::int32_t last, pc_candidates& candidates, Score&& score) {
  const std::int32_t start = window_first_sample(session);
  for (const std::int32_t channel : channels) {
    // Room is bounded: channels that come after the list is full have no say.
    for (std::int32_t t = first; t <= last && !candidates.full(); ++t) {
      candidates.points.push_back({start + t - 1, channel});
      candidates.scores.push_back(score(channel, t));
    }
  }
}

// Points shared among the assigned channels by peak-to-peak, evenly in time.
std::vector<pc_point> distribute_points(const session_state& session, std::int32_t slot,
                                        std::int32_t point_limit) {
  const std::vector<std::int32_t> channels = assigned_channels(session, slot);
  const auto limit = static_cast<std::size_t>(point_limit);
  const auto points = static_cast<float>(session.templates.template_points);
  const auto end = static_cast<float>(window_last_sample(session));
  float total = 0.0f;
  for (const std::int32_t c : channels) total += template_peak_to_peak(session, slot, c);
  std::vector<pc_point> chosen;
  for (const std::int32_t c : channels) {
    const float height = template_peak_to_peak(session, slot, c);
    const float step = points / (height * static_cast<float>(limit) / total);
    std::int32_t previous = INT32_MIN;
    // A template that is flat on every channel makes it 0 / 0.
    if (!(step > 0.0f)) continue;
    for (auto y = static_cast<float>(window_first_sample(session)); y < end; y += step) {
      const auto i = static_cast<std::int32_t>(std::lround(y));
      // A step below one sample would name the same one twice.
      if (i != previous && chosen.size() < limit) {
        chosen.push_back({i, c});
        previous = i;
      }
    }
  }
  return chosen;
}

// Entropy of the voltages at one point over events: 201 bins of 5 µV.
float point_entropy(const session_state& session, const std::vector<aligned_event>& events,
                    std::int32_t channel, std::int32_t offset) {
  constexpr std::int32_t reach = 100;
  float bins[2 * reach + 1] = {};
  float total = 0.0f;
  for (const aligned_event& e : events) {
    const float v =
        interp_voltage(session, e.time + offset, channel, interp_step(session, e.shift));
    const auto bin =
        // Cut towards 0, so that the middle bin is twice as wide: from -5 to 5 µV.
        static_cast<std::int32_t>((v * session.recording.vscale_HP + 1000.0f) / 5.0f - 200.0f);
    // What is beyond 500 µV does not enter, nor count in the total.
    if (bin < -reach || bin > reach) continue;
    bins[bin + reach] += 1.0f;
    total += 1.0f;
  }
  float entropy = 0.0f;
  for (const float count : bins) {
    if (count == 0.0f) continue;
    const float p = count / total;
    entropy -= p * static_cast<float>(std::log(static_cast<double>(p)));
  }
  return entropy;
}

void score_entropy_of(const session_state& session, std::int32_t slot, std::int32_t c,
                      const std::vector<aligned_event>& events, pc_candidates& candidates) {
  const recording_store& r = session.recording;
  const float d = r.distance(session.templates.centre_channel(slot), c);
  const float argument = -(d * d) / 80000.0f;
  const auto weight = static_cast<float>(std::exp(static_cast<double>(argument)));
  // Beyond some 740 µm a channel cannot be among the best.
  if (r.chan_mask[c] || !(weight > 0.001f)) return;
  const std::int32_t start = window_first_sample(session);
  score_points(session, {c}, 1, session.templates.template_points, candidates,
               [&](std::int32_t channel, std::int32_t t) {
                 return point_entropy(session, events, channel, start + t - 1) * weight;
               });
}

void score_entropy(const session_state& session, std::int32_t slot,
                   const std::vector<aligned_event>& events, pc_candidates& candidates) {
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    score_entropy_of(session, slot, c, events, candidates);
  }
}

pc_candidates score_candidates(const session_state& session, std::int32_t slot, std::int32_t method,
                               const std::vector<aligned_event>& entropy_events) {
  const template_table& templates = session.templates;
  const std::int32_t points = templates.template_points;
  pc_candidates candidates;
  const auto voltage = [&](std::int32_t c, std::int32_t t) {
    return std::fabs(templates.mean(slot, c)[t]);
  };
  // Over two samples, so that the value belongs to the point in the middle.
  const auto gradient = [&](std::int32_t c, std::int32_t t) {
    const float* mean = templates.mean(slot, c);
    return std::fabs(mean[t + 1] - mean[t - 1]);
  };
  switch (method) {
    case pc_max_entropy:
      score_entropy(session, slot, entropy_events, candidates);
      break;
    case pc_voltage:
      score_points(session, channels_near_centre(session, slot), 1, points, candidates, voltage);
      break;
    case pc_gradient:
      score_points(session, channels_near_centre(session, slot), 2, points - 1, candidates,
                   gradient);
      break;
    case pc_voltage_plus_gradient:
      score_points(
          session, assigned_channels(session, slot), 2, points - 1, candidates,
          [&](std::int32_t c, std::int32_t t) { return gradient(c, t) + 0.5f * voltage(c, t); });
      break;
    default:
      score_points(session, assigned_channels(session, slot), 1, points, candidates,
                   [&](std::int32_t c, std::int32_t t) { return templates.sd(slot, c)[t]; });
      break;
  }
  return candidates;
}

// The best ones, highest score first.
std::vector<pc_point> choose_points(const session_state& session, const pc_parameters& parameters,
                                    const pc_candidates& candidates) {
  const auto count = static_cast<std::int32_t>(candidates.points.size());
  std::vector<std::int32_t> order(count);
  index_sort(count, candidates.scores.data(), order.data(), session_failure_log(session));
  std::vector<pc_point> chosen(std::min(count, parameters.point_limit));
  // The sort rises: the best stand at its end. Its numbers count from 1.
  for (std::size_t i = 0; i < chosen.size(); ++i) {
    chosen[i] = candidates.points[order[count - 1 - i] - 1];
  }
  return chosen;
}

}  // namespace

failure_log session_failure_log(const session_state& session) {
  // Lines can be logged through a const session.
  return {const_cast<session_state*>(&session), [](void* context, const std::string& words) {
            log_message(*static_cast<const session_state*>(context), words);
          }};
}

pc_parameters pc_parameters_of(const session_state& session) {
  const sorting_strategy_settings& strategy = session.strategy;
  pc_parameters parameters;
  parameters.selection = strategy.pc_point_selection;
  parameters.point_limit = strategy.pc_point_limit;
  parameters.dimensions = strategy.pca_dimensions;
  parameters.equal_numbers = strategy.equal_numbers_for_overlap;
  return parameters;
}

std::vector<pc_point> select_pc_points(const session_state& session,
                                       const pc_parameters& parameters, std::int32_t slot,
                                       const std::vector<aligned_event>& entropy_events) {
  const std::int32_t method = parameters.selection;
  if (method < pc_max_variance || method > pc_voltage_plus_gradient) {
    log_message(session, fmt::format("Error in pc_point_selection flag {}; valid codes are -1 to 4",
                                     method));
  }
  if (method == pc_distributed) return distribute_points(session, slot, parameters.point_limit);
  return choose_points(session, parameters,
                       score_candidates(session, slot, method, entropy_events));
}

// ---------------------------------------------------------------- rows and axes

void pc_rows::resize(std::int32_t rows, std::int32_t points) {
  n_rows = rows;
  n_points = points;
  stride = whole_lanes(points);
  values.assign(static_cast<std::size_t>(rows) * stride, 0.0f);
}

namespace {

// Points of one channel: read as one run of neighbouring samples.
struct channel_run {
  std::int32_t channel;
  std::int32_t first, last;  // offsets
  std::vector<std::int32_t> places, offsets;
};

std::vector<channel_run> group_points(const std::vector<pc_point>& points) {
  std::vector<channel_run> runs;
  for (std::int32_t p = 0; p < static_cast<std::int32_t>(points.size()); ++p) {
    const pc_point& point = points[p];
    auto run = std::find_if(runs.begin(), runs.end(), [&](const channel_run& candidate) {
      return candidate.channel == point.channel;
    });
    if (run == runs.end()) {
      runs.push_back({point.channel, point.time_offset, point.time_offset, {}, {}});
      run = runs.end() - 1;
    }
    run->first = std::min(run->first, point.time_offset);
    run->last = std::max(run->last, point.time_offset);
    run->places.push_back(p);
    run->offsets.push_back(point.time_offset);
  }
  return runs;
}

}  // namespace

void fill_pc_rows(const session_state& session, const std::vector<pc_point>& points,
                  const std::vector<aligned_event>& events, float scale, pc_rows& rows) {
  rows.resize(static_cast<std::int32_t>(events.size()), static_cast<std::int32_t>(points.size()));
  const std::vector<channel_run> runs = group_points(points);
  // A template window is at most 151 points wide, and so is a run.
  float v[whole_lanes(2 * template_point_limit)];
  for (std::int32_t e = 0; e < rows.n_rows; ++e) {
    const aligned_event& event = events[e];
    const std::int32_t s = interp_step(session, event.shift);
    float* row = rows.row(e);
    // The samples of an event lie anywhere in vd: they are fetched while others are worked on.
    if (e + prefetch_distance < rows.n_rows) {
      for (const channel_run& run : runs) {
        prefetch_samples(session.recording.vd.channel(run.channel) +
                             events[e + prefetch_distance].time + run.first,
                         run.last - run.first + 1);
      }
    }
    for (const channel_run& run : runs) {
      interp_run(session, session.recording.vd.channel(run.channel) + event.time + run.first, s,
                 run.last - run.first + 1, v);
      for (std::size_t k = 0; k < run.places.size(); ++k) {
        row[run.places[k]] = scale * v[run.offsets[k] - run.first];
      }
    }
  }
}

namespace {

typedef double double_lanes __attribute__((vector_size(128)));

// sums[p][r] for points p = first_p .. first_p + 3 and 16 points r from first_r:
// products in 32 bits, added in 64 in the order of the rows.
template <int n_p>
__attribute__((always_inline)) inline void sum_products_block(const float* rows, std::int64_t step,
                                                              std::int64_t k, std::int32_t first_p,
                                                              std::int32_t first_r,
                                                              double_lanes* sums) {
  double_lanes local[n_p] = {};
  for (std::int64_t e = 0; e < k; ++e) {
    const float* row = rows + e * step;
    const float_lanes values = *reinterpret_cast<const float_lanes*>(row + first_r);
    for (int p = 0; p < n_p; ++p) {
      local[p] += __builtin_convertvector(values * row[first_p + p], double_lanes);
    }
  }
  for (int p = 0; p < n_p; ++p) sums[p] = local[p];
}

// Upper triangle of the sums of products, m x stride.
KESTRELVANE_CLONES void sum_all_products(const float* rows, std::int64_t step, std::int64_t k,
                                         std::int32_t m, std::int32_t stride, double* products) {
  for (std::int32_t p = 0; p < m; p += 4) {
    // From the lane that holds p on: what falls below the diagonal is computed and not read.
    for (std::int32_t r = p / n_lanes * n_lanes; r < m; r += n_lanes) {
      double_lanes sums[4];
      sum_products_block<4>(rows, step, k, p, r, sums);
      for (std::int32_t i = 0; i < 4 && p + i < m; ++i) {
        for (std::int32_t lane = 0; lane < n_lanes; ++lane) {
          products[std::int64_t{p + i} * stride + r + lane] = sums[i][lane];
        }
      }
    }
  }
}

KESTRELVANE_CLONES void sum_rows(const float* rows, std::int64_t step, std::int64_t k,
                                 std::int32_t stride, double* sums) {
  for (std::int64_t e = 0; e < k; ++e) {
    const float* row = rows + e * step;
    for (std::int32_t p = 0; p < stride; ++p) sums[p] += static_cast<double>(row[p]);
  }
}

}  // namespace

namespace {

// From every q-th row: where rows holds none but those, q is 1.
void find_axes_of(const pc_rows& rows, std::int32_t q, std::vector<float>& axes,
                  const failure_log& log) {
  const std::int32_t m = rows.n_points;
  const std::int64_t k = (rows.n_rows + q - 1) / q;
  const std::int64_t step = std::int64_t{q} * rows.stride;
  axes.assign(static_cast<std::size_t>(m) * m, 0.0f);
  if (m == 0 || k == 0) return;
  std::vector<double> sums(rows.stride, 0.0);
  std::vector<double> products(static_cast<std::size_t>(m + 4) * rows.stride, 0.0);
  sum_rows(rows.values.data(), step, k, rows.stride, sums.data());
  sum_all_products(rows.values.data(), step, k, m, rows.stride, products.data());
  std::vector<float> covariance(static_cast<std::size_t>(m) * m);
  const auto n = static_cast<double>(k);
  for (std::int32_t p = 0; p < m; ++p) {
    for (std::int32_t r = p; r < m; ++r) {
      const double product = products[std::int64_t{p} * rows.stride + r];
      // Over n and not n - 1, which changes no axis.
      const auto value = static_cast<float>((product - sums[p] * sums[r] / n) / n);
      covariance[static_cast<std::size_t>(p) * m + r] = value;
      covariance[static_cast<std::size_t>(r) * m + p] = value;
    }
  }
  std::vector<float> eigenvalues(m);
  std::int32_t rotations = 0;
  eigen_decomposition(covariance.data(), m, m, eigenvalues.data(), axes.data(), rotations, log);
}

// About 5000 rows enter, however many there are.
std::int32_t covariance_stride(std::size_t n) { return static_cast<std::int32_t>(n) / 5000 + 1; }

}  // namespace

void find_axes(const pc_rows& rows, std::vector<float>& axes, const failure_log& log) {
  find_axes_of(rows, covariance_stride(static_cast<std::size_t>(rows.n_rows)), axes, log);
}

void project_rows(const pc_rows& rows, const std::vector<float>& axes, std::int32_t dimensions,
                  std::vector<float>& out) {
  const std::int32_t m = rows.n_points;
  out.assign(static_cast<std::size_t>(rows.n_rows) * dimensions, 0.0f);
  // With more components than points the rest stay 0.
  for (std::int32_t d = 0; d < std::min(dimensions, m); ++d) {
    const float* axis = axes.data() + std::int64_t{d} * m;
    // Eight rows side by side, each in the order of its points.
    for (std::int32_t e = 0; e < rows.n_rows; e += 8) {
      const std::int32_t n = std::min(8, rows.n_rows - e);
      float sums[8] = {};
      for (std::int32_t p = 0; p < m; ++p) {
        for (std::int32_t i = 0; i < n; ++i) sums[i] += rows.row(e + i)[p] * axis[p];
      }
      for (std::int32_t i = 0; i < n; ++i) {
        out[static_cast<std::size_t>(e + i) * dimensions + d] = sums[i];
      }
    }
  }
}

// ---------------------------------------------------------------- events

std::vector<aligned_event> read_events(const session_state& session,
                                       const std::vector<std::int32_t>& list, bool shifted,
                                       float shift) {
  std::vector<aligned_event> events(list.size());
  for (std::size_t i = 0; i < list.size(); ++i) {
    events[i] = {session.events.event_time[list[i]], session.events.event_shift[list[i]]};
    if (shifted) apply_event_shift(events[i].time, events[i].shift, shift);
  }
  return events;
}

std::int32_t stride_member(std::int32_t i, std::int32_t n, std::int32_t m) {
  // In 64 bits: places and counts multiply beyond 32.
  return static_cast<std::int32_t>(std::int64_t{i - 1} * n / m) + 1;
}

std::vector<aligned_event> stride_events(const std::vector<aligned_event>& events, std::int32_t m) {
  const auto n = static_cast<std::int32_t>(events.size());
  std::vector<aligned_event> chosen(m);
  for (std::int32_t i = 1; i <= m; ++i) chosen[i - 1] = events[stride_member(i, n, m) - 1];
  return chosen;
}

pair_sample proportional_sample(std::int32_t n_a, std::int32_t n_b) {
  constexpr std::int64_t most = 2000;
  if (n_a + n_b <= most) return {n_a, n_b};
  const std::int64_t total = std::int64_t{n_a} + n_b;
  const auto share_a = static_cast<std::int32_t>(n_a * most / total);
  const auto share_b = static_cast<std::int32_t>(n_b * most / total);
  // Ten events at least, if there are as many: fewer tell nothing of a cloud.
  if (share_a < 10) {
    const std::int32_t kept = std::min(n_a, 10);
    return {kept, static_cast<std::int32_t>(most) - kept};
  }
  if (share_b < 10) {
    const std::int32_t kept = std::min(n_b, 10);
    return {static_cast<std::int32_t>(most) - kept, kept};
  }
  return {share_a, share_b};
}

std::vector<aligned_event> covariance_sample(const pc_parameters& parameters,
                                             const std::vector<aligned_event>& a,
                                             const std::vector<aligned_event>& b) {
  const auto n_a = static_cast<std::int32_t>(a.size());
  const auto n_b = static_cast<std::int32_t>(b.size());
  pair_sample sizes = proportional_sample(n_a, n_b);
  if (parameters.equal_numbers) {
    const std::int32_t m = std::min({n_a, n_b, 1000});
    sizes = {m, m};
  }
  std::vector<aligned_event> sample = stride_events(a, sizes.n_a);
  const std::vector<aligned_event> rest = stride_events(b, sizes.n_b);
  sample.insert(sample.end(), rest.begin(), rest.end());
  return sample;
}

// ---------------------------------------------------------------- clusters

float compute_pc_scale(const session_state& session) {
  return session.recording.vscale_norm * session.recording.vscale_HP /
         (session.strategy.gac_start_sigma * 1.4142135f);
}

namespace {

// Of all events, those that "max entropy" makes its histograms of; none for other scores.
std::vector<aligned_event> entropy_sample(const session_state& session, std::int32_t selection,
                                          std::vector<std::int32_t> list) {
  if (selection != pc_max_entropy) return {};
  thin_event_list(list, 10000);
  return read_events(session, list, false, 0.0f);
}

}  // namespace

void make_pc_space(const session_state& session, std::int32_t cluster, pc_space& space,
                   gac_points& values) {
  const float scale = compute_pc_scale(session);
  const pc_parameters parameters = pc_parameters_of(session);
  const std::vector<std::int32_t> list = list_cluster_events(session, cluster);
  const std::vector<aligned_event> events = read_events(session, list, false, 0.0f);
  space.points = select_pc_points(session, parameters, cluster,
                                  entropy_sample(session, parameters.selection, list));
  space.dimensions = parameters.dimensions;
  pc_rows rows;
  fill_pc_rows(session, space.points, events, scale, rows);
  find_axes(rows, space.axes, session_failure_log(session));
  values.n = rows.n_rows;
  values.dimensions = space.dimensions;
  project_rows(rows, space.axes, space.dimensions, values.values);
}

namespace {

// From the rows that make_pc_space takes; what it passes over is not read.
void find_projection_axes(session_state& session, pc_projection& projection) {
  const std::vector<aligned_event>& events = projection.events;
  std::vector<aligned_event> sample;
  const auto stride = static_cast<std::size_t>(covariance_stride(events.size()));
  for (std::size_t i = 0; i < events.size(); i += stride) sample.push_back(events[i]);
  pc_rows rows;
  fill_pc_rows(session, projection.space.points, sample, projection.scale, rows);
  find_axes_of(rows, 1, projection.space.axes, session_failure_log(session));
}

// A channel at a time: of ten thousand events each takes a hundredth of a second.
void choose_on(session_state& session, pc_projection& projection) {
  score_entropy_of(session, projection.cluster, projection.next_channel, projection.entropy_events,
                   projection.candidates);
  if (++projection.next_channel <= session.recording.n_channels) return;
  projection.next_channel = 0;
  projection.space.points =
      choose_points(session, pc_parameters_of(session), projection.candidates);
  find_projection_axes(session, projection);
}

}  // namespace

void begin_projection(session_state& session, std::int32_t cluster,
                      const std::vector<std::int32_t>& list, pc_projection& projection) {
  const pc_parameters parameters = pc_parameters_of(session);
  projection = {};
  projection.scale = compute_pc_scale(session);
  projection.events = read_events(session, list, false, 0.0f);
  projection.space.dimensions = parameters.dimensions;
  if (parameters.selection == pc_max_entropy && session.recording.n_channels > 0) {
    projection.cluster = cluster;
    projection.next_channel = 1;
    projection.entropy_events = entropy_sample(session, parameters.selection, list);
    return;
  }
  projection.space.points = select_pc_points(session, parameters, cluster, {});
  find_projection_axes(session, projection);
}

bool project_on(session_state& session, std::int32_t n, pc_projection& projection) {
  if (projection.next_channel > 0) {
    choose_on(session, projection);
    return false;
  }
  const pc_space& space = projection.space;
  const auto first = projection.events.begin() + projection.n_done;
  const auto left = static_cast<std::int32_t>(projection.events.end() - first);
  n = std::min(n, left);
  pc_rows rows;
  fill_pc_rows(session, space.points, {first, first + n}, projection.scale, rows);
  std::vector<float> values;
  project_rows(rows, space.axes, space.dimensions, values);
  projection.values.dimensions = space.dimensions;
  projection.values.values.insert(projection.values.values.end(), values.begin(), values.end());
  projection.n_done += n;
  projection.values.n = projection.n_done;
  return n == left;
}

void project_events(const session_state& session, const pc_space& space,
                    const std::vector<std::int32_t>& list, gac_points& values) {
  pc_rows rows;
  fill_pc_rows(session, space.points, read_events(session, list, false, 0.0f),
               compute_pc_scale(session), rows);
  values.n = rows.n_rows;
  values.dimensions = space.dimensions;
  project_rows(rows, space.axes, space.dimensions, values.values);
}

void cluster_pc_values(const session_state& session, std::int32_t cluster, gac_points& points) {
  pc_space space;
  make_pc_space(session, cluster, space, points);
}

float shifted_template_value(const session_state& session, const float* values, float position) {
  const interpolation_tables& tables = session.tables;
  const std::int32_t points = session.templates.template_points;
  const auto i = static_cast<std::int32_t>(position);
  const auto j = static_cast<std::int32_t>((position - static_cast<float>(i)) *
                                           static_cast<float>(tables.depth));
  // A whole shift repeats the end point where it runs over the template; a fraction reads 0.
  if (j == 0) return values[std::clamp(i, 1, points)];
  // Point 151, where there is one, never enters a sum.
  const std::int32_t last = std::min({i + tables.width, points, template_point_limit - 1});
  float sum = 0.0f;
  for (std::int32_t k = std::max(i - tables.width, 1); k <= last; ++k) {
    sum += values[k] * tables.interp_table[std::abs(tables.depth * (k - i) - j)];
  }
  return sum;
}

namespace {

// Two templates on their way to a weighted mean, one of them read at a shift.
struct weighted_pair {
  std::int32_t a, b;
  std::int32_t n_shift;
  float shift;
  float w_a, w_b;
};

void mean_on_channel(session_state& session, const weighted_pair& pair, std::int32_t slot,
                     std::int32_t c) {
  template_table& templates = session.templates;
  const auto read = [&](std::int32_t cluster, const float* values, std::int32_t t) {
    return cluster == pair.n_shift
               ? shifted_template_value(session, values, static_cast<float>(t) - pair.shift)
               : values[t];
  };
  float* mean = templates.mean(slot, c);
  float* sd = templates.sd(slot, c);
  for (std::int32_t t = 1; t <= templates.template_points; ++t) {
    mean[t] = pair.w_a * read(pair.a, templates.mean(pair.a, c), t) +
              pair.w_b * read(pair.b, templates.mean(pair.b, c), t);
    const float sd_a = read(pair.a, templates.sd(pair.a, c), t);
    const float sd_b = read(pair.b, templates.sd(pair.b, c), t);
    // The spreads alone, by their weights; how far the two means lie apart does not enter.
    sd[t] = std::sqrt(pair.w_a * (sd_a * sd_a) + pair.w_b * (sd_b * sd_b));
  }
}

// No shifted value is larger than the largest of the template times this.
float largest_shift_gain(const session_state& session) {
  const interpolation_tables& tables = session.tables;
  float largest = 1.0f;
  for (std::int32_t j = 1; j < tables.depth; ++j) {
    float gain = 0.0f;
    for (std::int32_t k = -tables.width; k <= tables.width; ++k) {
      gain += std::fabs(tables.interp_table[std::abs(tables.depth * k - j)]);
    }
    largest = std::max(largest, gain);
  }
  return largest;
}

// What the mean's peak-to-peak on a channel can be at most.
float pair_height_bound(const session_state& session, const weighted_pair& pair, std::int32_t c,
                        float shift_gain) {
  const auto bound = [&](std::int32_t cluster) {
    const auto [low, high] =
        find_range(session.templates.mean(cluster, c) + 1, session.templates.template_points);
    const float largest = shift_gain * std::max(high, -low);
    // Weights and interpolation are rounded, by far less than a 10,000th.
    return (cluster == pair.n_shift ? 2.0f * largest : high - low) + 1e-4f * largest;
  };
  return pair.w_a * bound(pair.a) + pair.w_b * bound(pair.b);
}

// The mean where it is large enough to be the centre, and round the centre; 0 when it is flat.
std::int32_t mean_round_centre(session_state& session, const weighted_pair& pair,
                               std::int32_t slot) {
  const recording_store& r = session.recording;
  const template_table& templates = session.templates;
  std::vector<char> made(static_cast<std::size_t>(r.n_channels) + 1);
  const auto make = [&](std::int32_t c) {
    if (!made[c]) mean_on_channel(session, pair, slot, c);
    made[c] = 1;
  };
  // The tallest of the two's centres comes close; what can not reach it needs no mean.
  float tallest = 0.0f;
  for (const std::int32_t c :
       {templates.centre_channel(pair.a), templates.centre_channel(pair.b)}) {
    if (c < 1 || c > r.n_channels) continue;
    make(c);
    if (!r.chan_mask[c]) tallest = std::max(tallest, template_peak_to_peak(session, slot, c));
  }
  const float shift_gain = largest_shift_gain(session);
  std::int32_t centre = 0;
  float height = 0.0f;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (r.chan_mask[c]) continue;
    if (!made[c] && pair_height_bound(session, pair, c, shift_gain) < tallest) continue;
    make(c);
    const float here = template_peak_to_peak(session, slot, c);
    // Strictly: the lowest of equal ones.
    if (here > height) {
      height = here;
      centre = c;
    }
  }
  for (std::int32_t c = 1; c <= r.n_channels && centre != 0; ++c) {
    if (!r.chan_mask[c] && r.distance(centre, c) <= session.strategy.channel_radius) make(c);
  }
  return centre;
}

}  // namespace

void make_pair_template(session_state& session, std::int32_t a, std::int32_t b, float shift,
                        std::int32_t n_shift, std::int32_t n_a, std::int32_t n_b,
                        std::int32_t slot) {
  const weighted_pair pair{a,
                           b,
                           n_shift,
                           shift,
                           static_cast<float>(n_a) / static_cast<float>(n_a + n_b),
                           static_cast<float>(n_b) / static_cast<float>(n_a + n_b)};
  // A flat template must not inherit the channels of whoever used the slot before.
  session.templates.template_n_channels[slot] = 0;
  if (!session.strategy.template_centre_from_events) {
    return assign_channels(session, slot, mean_round_centre(session, pair, slot));
  }
  for (std::int32_t c = 1; c <= session.recording.n_channels; ++c) {
    mean_on_channel(session, pair, slot, c);
  }
  get_scratch_template_channels(session, slot);
}

namespace {

// How far a pair's templates lie apart, and which of the two is read at that shift.
struct pair_reading {
  float shift;  // samples
  std::int32_t n_shift;
};

// The shift that the lists hold for a pair; without lists b lies where it lies.
pair_reading stored_shift(const session_state& session, std::int32_t a, std::int32_t b) {
  if (session.lists.n_kv_pairs == 0) return {0.0f, b};
  const std::int64_t k = pair_index(session.clusters.n_clusters, std::min(a, b), std::max(a, b));
  return {session.lists.rms_template_shift[k], session.lists.kv_n_shift_template[k]};
}

// Both clusters in event order, which is that of the labels that clustering gives back.
std::vector<aligned_event> join_events(const std::vector<std::int32_t>& list_a,
                                       const std::vector<aligned_event>& events_a,
                                       const std::vector<std::int32_t>& list_b,
                                       const std::vector<aligned_event>& events_b) {
  std::vector<aligned_event> all;
  all.reserve(events_a.size() + events_b.size());
  std::size_t i = 0, j = 0;
  while (i < list_a.size() || j < list_b.size()) {
    // An event is in one cluster, so that no two numbers are equal.
    const bool from_a = j == list_b.size() || (i < list_a.size() && list_a[i] < list_b[j]);
    all.push_back(from_a ? events_a[i++] : events_b[j++]);
  }
  return all;
}

}  // namespace

void begin_pair_projection(session_state& session, std::int32_t a, std::int32_t b,
                           std::int32_t rank, pc_projection& projection) {
  const pc_parameters parameters = pc_parameters_of(session);
  projection = {};
  projection.scale = compute_pc_scale(session);
  const auto [shift, n_shift] = stored_shift(session, a, b);
  const std::vector<std::int32_t> list_a = list_cluster_events(session, a);
  const std::vector<std::int32_t> list_b = list_cluster_events(session, b);
  const std::vector<aligned_event> events_a = read_events(session, list_a, n_shift == a, shift);
  const std::vector<aligned_event> events_b = read_events(session, list_b, n_shift == b, shift);
  // The first slots above the clusters are scratch, one for each thread.
  const std::int32_t slot = session.clusters.n_clusters + 1 + rank;
  make_pair_template(session, a, b, shift, n_shift, static_cast<std::int32_t>(list_a.size()),
                     static_cast<std::int32_t>(list_b.size()), slot);
  const std::vector<aligned_event> sample = covariance_sample(parameters, events_a, events_b);
  // Points and axes come from the sample, then every event is projected on them.
  pc_space& space = projection.space;
  space.points = select_pc_points(session, parameters, slot, sample);
  space.dimensions = parameters.dimensions;
  pc_rows rows;
  fill_pc_rows(session, space.points, sample, projection.scale, rows);
  find_axes(rows, space.axes, session_failure_log(session));

  projection.events = join_events(list_a, events_a, list_b, events_b);
  const auto expected = static_cast<std::int32_t>(list_a.size() + list_b.size());
  const auto n = static_cast<std::int32_t>(projection.events.size());
  if (n != expected) {
    log_message(session, fmt::format("possible mismatch with nevents {} {}", n, expected));
  }
}

void pair_pc_values(session_state& session, std::int32_t a, std::int32_t b, std::int32_t rank,
                    gac_points& points) {
  pc_projection projection;
  begin_pair_projection(session, a, b, rank, projection);
  project_on(session, static_cast<std::int32_t>(projection.events.size()), projection);
  points = std::move(projection.values);
}

}  // namespace kestrelvane
