#include "sorting/spike_matching.h"

#include <algorithm>
#include <cmath>

#include "numerics/parallel.h"
#include "numerics/simd.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t most_rounds = 40;
// Changes of the scores are kept by so many samples.
constexpr std::int32_t bin_samples = 16;
// A spike must show on its channels as such, and not only in the filter: the shape times the
// voltage over what a spike of that amplitude would give.
constexpr float least_likeness = 0.6f;
// Amplitudes above the mean that are usual in a unit, times their deviation.
constexpr float usual_deviations = 1.0f;

// ---------------------------------------------------------------- neighbours

bool meet(const std::vector<std::int32_t>& a, const std::vector<std::int32_t>& b) {
  std::size_t i = 0, k = 0;
  while (i < a.size() && k < b.size()) {
    if (a[i] == b[k]) return true;
    a[i] < b[k] ? ++i : ++k;
  }
  return false;
}

// Adds to mixed[m] a spike of unit u as the r-th component of the filter of v reads it.
void mix_shape(const unit_filter& u, const unit_filter& v, std::size_t r, std::int32_t points,
               float* mixed) {
  const float* shape = u.at_phase(0, points);
  for (std::size_t i = 0; i < v.channels.size(); ++i) {
    const auto at = std::lower_bound(u.subtracted.begin(), u.subtracted.end(), v.channels[i]);
    if (at == u.subtracted.end() || *at != v.channels[i]) continue;
    const float* row = shape + (at - u.subtracted.begin()) * points;
    const float weight = v.spatial[r * v.channels.size() + i];
    for (std::int32_t m = 0; m < points; ++m) mixed[m] += weight * row[m];
  }
}

// sums[d] += sum over q of weights[q] z[q + d], d = 0 .. n - 1.
// In whole lanes: z is read and sums are written up to a vector beyond n.
template <int L>
KESTRELVANE_INTO_CALLER void add_correlation_by(const float* weights, std::int32_t points,
                                                const float* z, std::int32_t n, float* sums) {
  for (std::int32_t d = 0; d < n; d += 2 * L) {
    typename lanes_of<L>::floats a = lanes_at<L>(sums + d), b = lanes_at<L>(sums + d + L);
    for (std::int32_t q = 0; q < points; ++q) {
      a += weights[q] * lanes_at<L>(z + q + d);
      b += weights[q] * lanes_at<L>(z + q + d + L);
    }
    lanes_at<L>(sums + d) = a;
    lanes_at<L>(sums + d + L) = b;
  }
}
KESTRELVANE_BY_WIDTH(add_correlation,
                     (const float* weights, std::int32_t points, const float* z, std::int32_t n,
                      float* sums),
                     (weights, points, z, n, sums))

// The table of a pair: all phases.
void fill_table(const unit_filter& u, const unit_filter& v, std::int32_t points, float* table) {
  const auto n_points = static_cast<std::size_t>(points);
  const std::int32_t n_lags = 2 * points - 1;
  // Lag -(points - 1) lies at phase_taps, with room to read on either side.
  std::vector<float> sums(static_cast<std::size_t>(n_lags) + 2 * phase_taps + 2 * n_lanes);
  std::vector<float> mixed(3 * n_points + 2 * n_lanes);
  for (std::size_t r = 0; r < filter_rank; ++r) {
    std::fill(mixed.begin(), mixed.end(), 0.0f);
    mix_shape(u, v, r, points, mixed.data() + points - 1);
    add_correlation(v.temporal.data() + r * n_points, points, mixed.data(), n_lags,
                    sums.data() + phase_taps);
  }
  for (std::int32_t p = -match_half_phases; p <= match_half_phases; ++p) {
    shift_by_phase(sums.data() + phase_taps, -p, n_lags, table + (p + match_half_phases) * n_lags);
  }
}

// ---------------------------------------------------------------- one stretch

// The stretch with its margins: what the peeling works on.
struct stretch {
  const matching_set& set;
  matching_scratch& scratch;
  std::int64_t origin;  // time index of sample 0
  std::int32_t n;       // samples that have scores
  std::int32_t front;   // voltage samples in front of sample 0
  std::size_t voltage_stride, score_stride, bins;
  std::int32_t round = 0;

  // Sample 0 less the part of the window before it lies on a cache line: loads of whole lines, as
  // the scores read them, do not straddle two.
  float* voltage(std::int32_t channel) const {
    constexpr std::uintptr_t line = sizeof(float) * n_lanes;
    const auto begin = reinterpret_cast<std::uintptr_t>(scratch.voltage.data());
    float* const rows = scratch.voltage.data() + (line - begin % line) % line / sizeof(float);
    return rows +
           static_cast<std::size_t>(scratch.row[static_cast<std::size_t>(channel)]) *
               voltage_stride +
           front;
  }
  float* scores(std::int32_t unit) const {
    return scratch.scores.data() + static_cast<std::size_t>(unit) * score_stride;
  }
  std::int32_t& touched(std::int32_t unit, std::int32_t bin) const {
    return scratch.touched[static_cast<std::size_t>(unit) * bins + static_cast<std::size_t>(bin)];
  }
};

// Samples of the channels that any unit uses, over the channel's noise; zero beyond the recording.
void read_voltages(const session_state& session, const noise_covariance& noise, stretch& s) {
  const recording_store& r = session.recording;
  s.scratch.row.assign(static_cast<std::size_t>(r.n_channels) + 1, -1);
  for (const unit_filter& unit : s.set.units) {
    for (const std::int32_t c : unit.channels) s.scratch.row[static_cast<std::size_t>(c)] = 0;
    for (const std::int32_t c : unit.subtracted) s.scratch.row[static_cast<std::size_t>(c)] = 0;
  }
  std::int32_t n_rows = 0;
  for (std::int32_t& row : s.scratch.row) {
    if (row == 0) row = n_rows++;
  }
  s.scratch.voltage.assign(static_cast<std::size_t>(n_rows) * s.voltage_stride + n_lanes, 0.0f);
  const std::int64_t begin = s.origin - s.front;
  const std::int64_t from = std::max<std::int64_t>(begin, 1);
  const std::int64_t to =
      std::min<std::int64_t>(begin + static_cast<std::int64_t>(s.voltage_stride) - 1, r.n_samples);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (s.scratch.row[static_cast<std::size_t>(c)] < 0) continue;
    const std::int16_t* v = r.vd.channel(c);
    float* x = s.voltage(c) - s.front;
    const float scale = 1.0f / noise.sigma[static_cast<std::size_t>(c)];
    for (std::int64_t t = from; t <= to; ++t) x[t - begin] = static_cast<float>(v[t]) * scale;
  }
}

// A few samples of all channels at a time, which stay in the second cache for the units that share
// them.
void score_units(const stretch& s) {
  constexpr std::int32_t at_once = 512;
  std::vector<const float*> x;
  for (std::int32_t first = 0; first < s.n; first += at_once) {
    const std::int32_t n = std::min(at_once, s.n - first);
    for (std::size_t u = 0; u < s.set.units.size(); ++u) {
      const unit_filter& unit = s.set.units[u];
      x.clear();
      for (const std::int32_t c : unit.channels) x.push_back(s.voltage(c) + first);
      score_stretch(unit, s.set.window, x, n, s.scores(static_cast<std::int32_t>(u)) + first);
    }
  }
}

// The spike at a peak of a unit's scores, placed between the samples by a parabola.
found_spike spike_at(const stretch& s, std::int32_t unit, std::int32_t t) {
  const float* score = s.scores(unit) + t;
  const unit_filter& filter = s.set.units[static_cast<std::size_t>(unit)];
  const float slope = score[-1] - score[1];
  const float bend = score[-1] - 2.0f * score[0] + score[1];
  const float shift = bend < 0.0f ? std::clamp(0.5f * slope / bend, -0.5f, 0.5f) : 0.0f;
  found_spike spike;
  spike.time = t;
  spike.unit = unit;
  spike.phase = static_cast<std::int32_t>(std::lround(shift * match_phases));
  spike.score = score[0] - 0.25f * slope * shift;
  const float prior = s.set.limits.prior();
  const float whole = static_cast<float>(filter.energy) + prior;
  const float raised = spike.score + prior;
  spike.amplitude = raised / whole;
  spike.gain = raised * spike.amplitude - prior - s.set.limits.threshold;
  return spike;
}

KESTRELVANE_CLONES bool any_above(const float* x, float limit) {
  std::int32_t any = 0;
  for (std::int32_t t = 0; t < bin_samples; ++t) any |= x[t] > limit;
  return any != 0;
}

// Peaks of the scores that are worth a spike, in the bins that the last round has changed.
void find_candidates(const stretch& s) {
  std::vector<found_spike>& found = s.scratch.candidates;
  found.clear();
  const match_limits& limits = s.set.limits;
  for (std::int32_t u = 0; u < static_cast<std::int32_t>(s.set.units.size()); ++u) {
    const unit_filter& unit = s.set.units[static_cast<std::size_t>(u)];
    const float least = unit.least_score;
    const float* score = s.scores(u);
    for (std::int32_t bin = 0; bin < static_cast<std::int32_t>(s.bins); ++bin) {
      if (s.touched(u, bin) != s.round - 1) continue;
      const std::int32_t first = bin * bin_samples;
      if (!any_above(score + first, least)) continue;
      const std::int32_t last = std::min(first + bin_samples, s.n - 1);
      for (std::int32_t t = std::max(first, 1); t < last; ++t) {
        if (score[t] <= least || score[t] < score[t - 1] || score[t] <= score[t + 1]) continue;
        const found_spike spike = spike_at(s, u, t);
        if (spike.gain > 0.0f && spike.amplitude >= unit.least_amplitude &&
            spike.amplitude <= limits.largest_amplitude) {
          found.push_back(spike);
        }
      }
    }
  }
  std::sort(found.begin(), found.end(), [](const found_spike& a, const found_spike& b) {
    if (a.gain != b.gain) return a.gain > b.gain;
    return a.unit != b.unit ? a.unit < b.unit : a.time < b.time;
  });
}

bool looks_like_it(const stretch& s, const found_spike& spike) {
  const unit_filter& unit = s.set.units[static_cast<std::size_t>(spike.unit)];
  const std::int32_t points = s.set.window.points;
  const float* shape = unit.at_phase(spike.phase, points);
  float sum = 0;
  for (std::size_t i = 0; i < unit.subtracted.size(); ++i, shape += points) {
    const float* x = s.voltage(unit.subtracted[i]) + spike.time - s.set.window.before;
    for (std::int32_t q = 0; q < points; ++q) sum += x[q] * shape[q];
  }
  return sum >= least_likeness * spike.amplitude * unit.square;
}

KESTRELVANE_CLONES void subtract(float* x, const float* shape, float amplitude, std::int32_t n) {
  for (std::int32_t q = 0; q < n; ++q) x[q] -= amplitude * shape[q];
}

// Takes a spike out of the voltages and of all scores that it is part of. One that is larger than
// its unit's spikes are may be two, the other under it: what goes beyond is left for that one.
void take_out(const stretch& s, const found_spike& spike) {
  const float amplitude =
      std::min(spike.amplitude, 1.0f + usual_deviations * s.set.limits.amplitude_sd);
  const unit_filter& unit = s.set.units[static_cast<std::size_t>(spike.unit)];
  const std::int32_t points = s.set.window.points;
  const float* shape = unit.at_phase(spike.phase, points);
  for (const std::int32_t c : unit.subtracted) {
    subtract(s.voltage(c) + spike.time - s.set.window.before, shape, amplitude, points);
    shape += points;
  }
  const auto n_lags = static_cast<std::int32_t>(s.set.lags());
  const std::int32_t first = std::max(0, spike.time - points + 1);
  const std::int32_t last = std::min(s.n - 1, spike.time + points - 1);
  for (const matching_neighbour& near : s.set.neighbours[static_cast<std::size_t>(spike.unit)]) {
    const float* table =
        s.set.tables.data() + near.scores + (spike.phase + match_half_phases) * n_lags + points - 1;
    subtract(s.scores(near.unit) + first, table + first - spike.time, amplitude, last - first + 1);
    // A sample more on either side: it may have become a peak by its neighbour's fall.
    const std::int32_t to = std::min(s.n - 1, last + 1) / bin_samples;
    for (std::int32_t bin = std::max(0, first - 1) / bin_samples; bin <= to; ++bin) {
      s.touched(near.unit, bin) = s.round;
    }
  }
}

// One round: the best candidates that do not touch each other. False when there were none.
bool peel(const stretch& s, std::vector<found_spike>& out) {
  find_candidates(s);
  bool any = false;
  for (const found_spike& spike : s.scratch.candidates) {
    // Somebody near it was taken in this round: its score is another now, and the next round
    // looks at it again.
    if (s.touched(spike.unit, spike.time / bin_samples) == s.round) continue;
    if (!looks_like_it(s, spike)) continue;
    take_out(s, spike);
    out.push_back(spike);
    any = true;
  }
  return any;
}

std::size_t count_voltages(const stretch& s) {
  return static_cast<std::size_t>(
      whole_lanes(s.n + s.front + 2 * s.set.window.points + 8 * n_lanes));
}

}  // namespace

void link_neighbours(matching_set& set, std::int32_t n_threads) {
  const std::size_t n = set.units.size();
  const auto table_size = static_cast<std::int64_t>((match_phases + 1) * set.lags());
  set.neighbours.assign(n, {});
  std::int64_t size = 0;
  for (std::size_t u = 0; u < n; ++u) {
    for (std::size_t v = 0; v < n; ++v) {
      if (!meet(set.units[u].subtracted, set.units[v].channels)) continue;
      set.neighbours[u].push_back({static_cast<std::int32_t>(v), size});
      size += table_size;
    }
  }
  set.tables.resize(static_cast<std::size_t>(size));
  parallel_for_dealt(n_threads, 1, static_cast<std::int64_t>(n), [&](std::int64_t i, std::int32_t) {
    const auto u = static_cast<std::size_t>(i - 1);
    for (const matching_neighbour& near : set.neighbours[u]) {
      fill_table(set.units[u], set.units[static_cast<std::size_t>(near.unit)], set.window.points,
                 set.tables.data() + near.scores);
    }
  });
}

void match_stretch(const session_state& session, const noise_covariance& noise,
                   const matching_set& set, std::int64_t first, std::int64_t last,
                   matching_scratch& scratch, std::vector<found_spike>& out) {
  out.clear();
  const std::int32_t margin = 4 * set.window.points;
  const auto n = static_cast<std::int32_t>(last - first + 1) + 2 * margin;
  const auto bins = static_cast<std::size_t>((n + bin_samples - 1) / bin_samples);
  const std::int32_t front = whole_lanes(2 * set.window.points) + set.window.before;
  stretch s{set, scratch, first - margin, n, front, 0, 0, bins};
  s.voltage_stride = count_voltages(s);
  s.score_stride = static_cast<std::size_t>(n + 8 * n_lanes);
  read_voltages(session, noise, s);
  scratch.scores.resize(set.units.size() * s.score_stride);
  scratch.touched.assign(set.units.size() * bins, 0);
  score_units(s);
  for (s.round = 1; s.round <= most_rounds; ++s.round) {
    if (!peel(s, out)) break;
  }
  const auto own_end = static_cast<std::int32_t>(last - s.origin);
  std::erase_if(
      out, [&](const found_spike& spike) { return spike.time < margin || spike.time > own_end; });
  std::sort(out.begin(), out.end(), [](const found_spike& a, const found_spike& b) {
    return a.time != b.time ? a.time < b.time : a.unit < b.unit;
  });
  for (found_spike& spike : out) spike.time += static_cast<std::int32_t>(s.origin);
}

}  // namespace kestrelvane
