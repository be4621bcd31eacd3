#include "sorting/matched_filter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "numerics/jacobi.h"
#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr float before_ms = 0.8f, after_ms = 1.2f;
constexpr std::int32_t fading_points = 5;
// The residual of a solution, over the shape, that no longer shows in a rank of three.
constexpr double solved = 1e-3;
constexpr std::int32_t most_iterations = 60;

std::size_t padded(std::int32_t points) { return static_cast<std::size_t>(whole_lanes(points)); }

// ---------------------------------------------------------------- phases

constexpr std::int32_t tap_count = 2 * phase_taps + 1;
using tap_table = std::array<std::array<float, tap_count>, match_phases + 1>;

// A sinc under a raised cosine; row p + match_half_phases is phase p.
tap_table make_taps() {
  tap_table table{};
  for (std::int32_t p = -match_half_phases; p <= match_half_phases; ++p) {
    for (std::int32_t j = -phase_taps; j <= phase_taps; ++j) {
      const double u = j - static_cast<double>(p) / match_phases;
      const double x = std::numbers::pi * u;
      const double sinc = u == 0.0 ? 1.0 : std::sin(x) / x;
      const double window = 0.5 + 0.5 * std::cos(x / (phase_taps + 0.5));
      table[static_cast<std::size_t>(p + match_half_phases)]
           [static_cast<std::size_t>(j + phase_taps)] = static_cast<float>(sinc * window);
    }
  }
  return table;
}

const std::array<float, tap_count>& taps_of(std::int32_t phase) {
  static const tap_table table = make_taps();
  return table[static_cast<std::size_t>(phase + match_half_phases)];
}

// ---------------------------------------------------------------- noise times a vector

// B times L points of a row.
template <int L, int B>
KESTRELVANE_INTO_CALLER void add_lagged_lanes(const float* lags, const float* v,
                                              std::int32_t points, float* out) {
  typename lanes_of<L>::floats sums[B];
  for (int b = 0; b < B; ++b) sums[b] = lanes_at<L>(out + b * L);
  for (std::int32_t w = 0; w < points; ++w) {
    for (int b = 0; b < B; ++b) sums[b] += v[w] * lanes_at<L>(lags - w + b * L);
  }
  for (int b = 0; b < B; ++b) lanes_at<L>(out + b * L) = sums[b];
}

// out[q] += sum over w of v[w] lags[q - w], with lags at lag 0; rows of whole lanes.
template <int L>
KESTRELVANE_INTO_CALLER void add_lagged_by(const float* lags, const float* v, std::int32_t points,
                                           float* out) {
  std::int32_t q = 0;
  for (; q + 4 * L <= whole_lanes(points); q += 4 * L) {
    add_lagged_lanes<L, 4>(lags + q, v, points, out + q);
  }
  for (; q < whole_lanes(points); q += L) add_lagged_lanes<L, 1>(lags + q, v, points, out + q);
}
KESTRELVANE_BY_WIDTH(add_lagged,
                     (const float* lags, const float* v, std::int32_t points, float* out),
                     (lags, v, points, out))

// Rows of whole lanes, the padding zero.
struct padded_rows {
  std::vector<float> values;
  std::size_t n_rows = 0, stride = 0;
  std::int32_t points = 0;

  padded_rows(std::size_t rows, std::int32_t n_points)
      : values(rows * padded(n_points)), n_rows(rows), stride(padded(n_points)), points(n_points) {}
  float* row(std::size_t i) { return values.data() + i * stride; }
  const float* row(std::size_t i) const { return values.data() + i * stride; }
  void fill(const std::vector<float>& from) {
    for (std::size_t i = 0; i < n_rows; ++i) {
      const float* x = from.data() + i * static_cast<std::size_t>(points);
      std::copy(x, x + points, row(i));
    }
  }
  void empty_into(std::vector<float>& to) const {
    to.resize(n_rows * static_cast<std::size_t>(points));
    for (std::size_t i = 0; i < n_rows; ++i) {
      std::copy(row(i), row(i) + points, to.data() + i * static_cast<std::size_t>(points));
    }
  }
};

void multiply(const noise_covariance& noise, const std::vector<std::int32_t>& channels,
              const padded_rows& v, padded_rows& out) {
  std::fill(out.values.begin(), out.values.end(), 0.0f);
  for (std::size_t i = 0; i < channels.size(); ++i) {
    for (std::size_t j = 0; j < channels.size(); ++j) {
      const float* lags = noise.of(channels[j], channels[i]);
      if (lags != nullptr) add_lagged(lags + noise.points - 1, v.row(j), v.points, out.row(i));
    }
    float* y = out.row(i);
    const float* x = v.row(i);
    for (std::int32_t q = 0; q < v.points; ++q) y[q] += filter_ridge * x[q];
    std::fill(y + v.points, y + out.stride, 0.0f);
  }
}

// Sixteen sums side by side.
template <int L>
KESTRELVANE_INTO_CALLER void add_products_by(const std::vector<float>& a,
                                             const std::vector<float>& b, float* sixteen) {
  typename lanes_of<L>::floats sums[n_lanes / L] = {};
  for (std::size_t i = 0; i < a.size(); i += n_lanes) {
    for (int k = 0; k < n_lanes / L; ++k) {
      const std::size_t at = i + static_cast<std::size_t>(k * L);
      sums[k] += lanes_at<L>(a.data() + at) * lanes_at<L>(b.data() + at);
    }
  }
  for (int k = 0; k < n_lanes / L; ++k) lanes_at<L>(sixteen + k * L) = sums[k];
}
KESTRELVANE_BY_WIDTH(add_products,
                     (const std::vector<float>& a, const std::vector<float>& b, float* sixteen),
                     (a, b, sixteen))

// The sixteen joined in order: the same bits at every width.
double dot(const std::vector<float>& a, const std::vector<float>& b) {
  float sixteen[n_lanes];
  add_products(a, b, sixteen);
  double sum = 0;
  for (const float lane : sixteen) sum += static_cast<double>(lane);
  return sum;
}

KESTRELVANE_CLONES void add_scaled(std::vector<float>& to, float factor,
                                   const std::vector<float>& from) {
  for (std::size_t i = 0; i < to.size(); ++i) to[i] += factor * from[i];
}

// to = from + factor to
KESTRELVANE_CLONES void scale_and_add(std::vector<float>& to, float factor,
                                      const std::vector<float>& from) {
  for (std::size_t i = 0; i < to.size(); ++i) to[i] = from[i] + factor * to[i];
}

// ---------------------------------------------------------------- filters

// The shape on the filter's channels, faded at both ends so that the cut leaves no step.
std::vector<float> faded_on(const spike_shape& shape, const std::vector<std::int32_t>& channels,
                            std::int32_t points) {
  std::vector<float> out(channels.size() * static_cast<std::size_t>(points));
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const float* from = shape.find(channels[i], points);
    float* to = out.data() + i * static_cast<std::size_t>(points);
    if (from == nullptr) continue;
    std::copy(from, from + points, to);
    for (std::int32_t q = 0; q < std::min(fading_points, points / 2); ++q) {
      const float part = static_cast<float>(q + 1) / (fading_points + 1);
      to[q] *= part;
      to[points - 1 - q] *= part;
    }
  }
  return out;
}

double plain_dot(const std::vector<float>& a, const std::vector<float>& b) {
  double sum = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  }
  return sum;
}

// Rows of the weights over channels: their largest principal directions, and what those read.
void cut_to_rank(unit_filter& filter, std::int32_t points) {
  const auto n = static_cast<std::int32_t>(filter.channels.size());
  const auto at = [&](std::int32_t i, std::int32_t q) {
    return filter.weights[static_cast<std::size_t>(i * points + q)];
  };
  std::vector<float> gram(static_cast<std::size_t>(n * n)), values(static_cast<std::size_t>(n)),
      vectors(gram.size());
  for (std::int32_t i = 0; i < n; ++i) {
    for (std::int32_t k = 0; k < n; ++k) {
      double sum = 0;
      for (std::int32_t q = 0; q < points; ++q) sum += static_cast<double>(at(i, q) * at(k, q));
      gram[static_cast<std::size_t>(i * n + k)] = static_cast<float>(sum);
    }
  }
  std::int32_t rotations = 0;
  eigen_decomposition(gram.data(), n, n, values.data(), vectors.data(), rotations);
  filter.spatial.assign(static_cast<std::size_t>(filter_rank * n), 0.0f);
  filter.temporal.assign(static_cast<std::size_t>(filter_rank * points), 0.0f);
  for (std::int32_t r = 0; r < std::min(filter_rank, n); ++r) {
    for (std::int32_t i = 0; i < n; ++i) {
      const float u = vectors[static_cast<std::size_t>(r * n + i)];
      filter.spatial[static_cast<std::size_t>(r * n + i)] = u;
      for (std::int32_t q = 0; q < points; ++q) {
        filter.temporal[static_cast<std::size_t>(r * points + q)] += u * at(i, q);
      }
    }
  }
}

// What the cut filter makes of the shape itself.
double response(const unit_filter& filter, const std::vector<float>& shape, std::int32_t points) {
  const std::size_t n = filter.channels.size();
  double sum = 0;
  for (std::size_t r = 0; r < filter_rank; ++r) {
    for (std::size_t i = 0; i < n; ++i) {
      const float u = filter.spatial[r * n + i];
      for (std::size_t q = 0; q < static_cast<std::size_t>(points); ++q) {
        const std::size_t at = static_cast<std::size_t>(points);
        sum += static_cast<double>(u * filter.temporal[r * at + q]) *
               static_cast<double>(shape[i * at + q]);
      }
    }
  }
  return sum;
}

void make_phases(const spike_shape& shape, std::int32_t points, unit_filter& filter) {
  const std::vector<float> faded = faded_on(shape, filter.subtracted, points);
  filter.square = static_cast<float>(plain_dot(faded, faded));
  const auto n_points = static_cast<std::size_t>(points);
  const std::size_t n = filter.subtracted.size() * n_points;
  filter.phases.assign((match_phases + 1) * n, 0.0f);
  std::vector<float> row(n_points + 2 * phase_taps);
  for (std::size_t i = 0; i < filter.subtracted.size(); ++i) {
    std::copy_n(faded.data() + i * n_points, n_points, row.data() + phase_taps);
    for (std::int32_t p = -match_half_phases; p <= match_half_phases; ++p) {
      // A spike that comes later has its shape read earlier.
      shift_by_phase(row.data() + phase_taps, -p, points,
                     filter.phases.data() + static_cast<std::size_t>(p + match_half_phases) * n +
                         i * n_points);
    }
  }
}

// ---------------------------------------------------------------- scores

// A chunk of the mixed channels stays in the first cache.
constexpr std::int32_t score_chunk = 1024;

// Rows of t: for each component the sum over channels i of its weight times x[i][t], B times L of
// them. All components at once: reading the voltages is most of the work.
template <int L, int B>
KESTRELVANE_INTO_CALLER void mix_lanes(const unit_filter& filter,
                                       const std::vector<const float*>& x, std::int32_t from,
                                       float* mixed, std::int32_t stride) {
  typename lanes_of<L>::floats sums[filter_rank][B] = {};
  for (std::size_t i = 0; i < x.size(); ++i) {
    for (int b = 0; b < B; ++b) {
      const typename lanes_of<L>::floats v = lanes_at<L>(x[i] + from + b * L);
      for (std::size_t r = 0; r < filter_rank; ++r) {
        sums[r][b] += filter.spatial[r * x.size() + i] * v;
      }
    }
  }
  for (std::size_t r = 0; r < filter_rank; ++r) {
    for (int b = 0; b < B; ++b) {
      lanes_at<L>(mixed + static_cast<std::int32_t>(r) * stride + b * L) = sums[r][b];
    }
  }
}

// The sum over components, and then over q, of the component's weight at q times its row at q,
// B times L of them.
template <int L, int B>
KESTRELVANE_INTO_CALLER void score_lanes(const unit_filter& filter, std::int32_t points,
                                         const float* mixed, std::int32_t stride, float* out) {
  typename lanes_of<L>::floats sums[B] = {};
  for (std::int32_t r = 0; r < filter_rank; ++r) {
    const float* const weights = filter.temporal.data() + r * points;
    const float* const row = mixed + r * stride;
    for (std::int32_t q = 0; q < points; ++q) {
      for (int b = 0; b < B; ++b) sums[b] += weights[q] * lanes_at<L>(row + q + b * L);
    }
  }
  for (int b = 0; b < B; ++b) lanes_at<L>(out + b * L) = sums[b];
}

template <int L>
KESTRELVANE_INTO_CALLER void score_all_by(const unit_filter& filter, match_window window,
                                          const std::vector<const float*>& x, std::int32_t n,
                                          float* out) {
  const std::int32_t stride = score_chunk + whole_lanes(window.points) + 2 * n_lanes;
  std::vector<float> mixed(static_cast<std::size_t>(filter_rank * stride));
  const std::int32_t whole = (n + 4 * n_lanes - 1) / (4 * n_lanes) * (4 * n_lanes);
  for (std::int32_t t = 0; t < whole; t += score_chunk) {
    const std::int32_t size = std::min(score_chunk, whole - t);
    for (std::int32_t k = 0; k < size + window.points; k += 2 * L) {
      mix_lanes<L, 2>(filter, x, t - window.before + k, mixed.data() + k, stride);
    }
    for (std::int32_t k = 0; k < size; k += 4 * L) {
      score_lanes<L, 4>(filter, window.points, mixed.data() + k, stride, out + t + k);
    }
  }
}
KESTRELVANE_BY_WIDTH(score_all,
                     (const unit_filter& filter, match_window window,
                      const std::vector<const float*>& x, std::int32_t n, float* out),
                     (filter, window, x, n, out))

// out[q] = the sum over taps j of taps[j] x[q + j], in their order.
template <int L>
KESTRELVANE_INTO_CALLER void shift_lanes(const float* x, const float* taps, float* out) {
  typename lanes_of<L>::floats sum = {};
  for (std::int32_t j = 0; j < tap_count; ++j) sum += taps[j] * lanes_at<L>(x + j);
  lanes_at<L>(out) = sum;
}
template <int L>
KESTRELVANE_INTO_CALLER void shift_by_taps_by(const float* x, const float* taps, std::int32_t n,
                                              float* out) {
  std::int32_t q = 0;
  for (; q + L <= n; q += L) shift_lanes<L>(x + q, taps, out + q);
  for (; q < n; ++q) {
    float sum = 0;
    for (std::int32_t j = 0; j < tap_count; ++j) sum += taps[j] * x[q + j];
    out[q] = sum;
  }
}
KESTRELVANE_BY_WIDTH(shift_by_taps, (const float* x, const float* taps, std::int32_t n, float* out),
                     (x, taps, n, out))

}  // namespace

match_window window_for_matching(const session_state& session) {
  const float rate_khz = static_cast<float>(session.recording.sampling_frequency) / 1000.0f;
  const auto before = static_cast<std::int32_t>(std::lround(before_ms * rate_khz));
  return {before, before + static_cast<std::int32_t>(std::lround(after_ms * rate_khz))};
}

const float* spike_shape::find(std::int32_t channel, std::int32_t points) const {
  const auto at = std::lower_bound(channels.begin(), channels.end(), channel);
  if (at == channels.end() || *at != channel) return nullptr;
  return row(static_cast<std::size_t>(at - channels.begin()), points);
}

void shift_by_phase(const float* x, std::int32_t phase, std::int32_t n, float* out) {
  if (phase == 0) {
    std::copy(x, x + n, out);
    return;
  }
  shift_by_taps(x - phase_taps, taps_of(phase).data(), n, out);
}

void multiply_by_noise(const noise_covariance& noise, const std::vector<std::int32_t>& channels,
                       const std::vector<float>& v, std::vector<float>& out) {
  padded_rows x(channels.size(), noise.points), y(channels.size(), noise.points);
  x.fill(v);
  multiply(noise, channels, x, y);
  y.empty_into(out);
}

void solve_noise(const noise_covariance& noise, const std::vector<std::int32_t>& channels,
                 const std::vector<float>& shape, std::vector<float>& weights) {
  const std::size_t n = channels.size();
  padded_rows goal(n, noise.points), w(n, noise.points), product(n, noise.points),
      residual(n, noise.points);
  goal.fill(shape);
  residual.values = goal.values;
  if (weights.size() == shape.size()) {
    w.fill(weights);
    multiply(noise, channels, w, product);
    add_scaled(residual.values, -1.0f, product.values);
  }
  padded_rows direction = residual;
  const double enough = solved * solved * dot(goal.values, goal.values);
  double left = dot(residual.values, residual.values);
  for (std::int32_t i = 0; i < most_iterations && left > enough; ++i) {
    multiply(noise, channels, direction, product);
    const double bend = dot(direction.values, product.values);
    // A covariance of few samples may have a direction of no noise at all: what is reached holds.
    if (!(bend > 0)) break;
    const auto step = static_cast<float>(left / bend);
    add_scaled(w.values, step, direction.values);
    add_scaled(residual.values, -step, product.values);
    const double now = dot(residual.values, residual.values);
    scale_and_add(direction.values, static_cast<float>(now / left), residual.values);
    left = now;
  }
  w.empty_into(weights);
}

float match_limits::least_amplitude_of(double energy) const {
  constexpr double sure = 8, smallest = 0.5;  // times the noise of the score; of the unit's size
  const double least = std::max(smallest, sure / std::sqrt(std::max(energy, 1.0)));
  return std::min(least_amplitude, static_cast<float>(least));
}

void make_filter(const noise_covariance& noise, const spike_shape& shape, match_window window,
                 const match_limits& limits, unit_filter& filter) {
  const std::vector<float> faded = faded_on(shape, filter.channels, window.points);
  solve_noise(noise, filter.channels, faded, filter.weights);
  filter.energy = plain_dot(faded, filter.weights);
  cut_to_rank(filter, window.points);
  const double kept = response(filter, faded, window.points);
  const auto scale = static_cast<float>(kept > 0 ? filter.energy / kept : 1.0);
  for (float& w : filter.temporal) w *= scale;
  make_phases(shape, window.points, filter);
  filter.least_amplitude = limits.least_amplitude_of(filter.energy);
  const double prior = static_cast<double>(limits.prior());
  filter.least_score = static_cast<float>(
      std::sqrt((prior + static_cast<double>(limits.threshold)) * (filter.energy + prior)) - prior);
}

void score_stretch(const unit_filter& filter, match_window window,
                   const std::vector<const float*>& x, std::int32_t n, float* out) {
  score_all(filter, window, x, n, out);
}

}  // namespace kestrelvane
