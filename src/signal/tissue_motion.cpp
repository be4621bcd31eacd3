#include "signal/tissue_motion.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "numerics/parallel.h"
#include "numerics/portable_math.h"
#include "numerics/simd.h"
#include "numerics/small_matrix.h"
#include "session/run_log.h"
#include "signal/noise.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- pictures

// A picture: spikes by height and depth, smoothed, so that two of them are alike where not the
// very same spikes arose, and on a logarithmic scale, so that a busy unit does not outweigh all
// others.
constexpr double step_um = 2;
constexpr auto reach = static_cast<std::int32_t>(motion_reach_um / 2);  // steps
constexpr std::int32_t n_ways = 2 * reach + 1;
constexpr std::int32_t ways_row = whole_lanes(n_ways);
constexpr std::int32_t n_heights = 8;
constexpr double largest_height = 40;  // times the noise; higher ones count as these
constexpr double count_weight = 4;
constexpr double margin_um = 120;  // beyond the outermost spikes: they may be moved there

// Short pictures take all that they can get and blur it; those of more spikes can afford to be
// sharp, and to leave out what is small and so has no certain place.
struct picture_rules {
  double bin_s;
  double blur_um;
  float level;  // times the noise
};

// Depths and time that all pictures cover.
struct picture_frame {
  double lowest = 0;
  std::int32_t n_depths = 0;
  double seconds = 0, frequency = 0;
  std::int32_t n_threads = 1;
};

struct pictures {
  std::int32_t n_bins = 0, n_depths = 0;
  std::vector<float> values;  // by bin, height, depth; rows have `reach` zeros on either side
  std::vector<double> norms;

  std::size_t stride() const { return static_cast<std::size_t>(n_depths + ways_row); }
  std::size_t start(std::int32_t bin, std::int32_t height) const {
    return (static_cast<std::size_t>(bin) * n_heights + static_cast<std::size_t>(height)) *
               stride() +
           reach;
  }
  float* row_of(std::int32_t bin, std::int32_t height) {
    return values.data() + start(bin, height);
  }
  const float* row_of(std::int32_t bin, std::int32_t height) const {
    return values.data() + start(bin, height);
  }
};

picture_frame frame_of(const std::vector<spike_place>& spikes, std::int64_t n_samples,
                       double frequency, std::int32_t n_threads) {
  double lowest = static_cast<double>(spikes.front().depth), highest = lowest;
  for (const spike_place& s : spikes) {
    lowest = std::min(lowest, static_cast<double>(s.depth));
    highest = std::max(highest, static_cast<double>(s.depth));
  }
  const auto n_depths = static_cast<std::int32_t>((highest - lowest + 2 * margin_um) / step_um) + 1;
  return {lowest - margin_um, n_depths, static_cast<double>(n_samples) / frequency, frequency,
          n_threads};
}

std::int32_t bin_of(const picture_frame& frame, double bin_s, std::int32_t n_bins,
                    std::int32_t time) {
  return std::min(static_cast<std::int32_t>((time - 1) / (frame.frequency * bin_s)), n_bins - 1);
}

std::int32_t count_bins(const picture_frame& frame, double bin_s) {
  return std::max(1, static_cast<std::int32_t>(std::ceil(frame.seconds / bin_s)));
}

void count_spikes(const std::vector<spike_place>& spikes, const picture_frame& frame,
                  const picture_rules& rules, pictures& p) {
  const double scale = n_heights / portable_log(largest_height / static_cast<double>(place_level));
  for (const spike_place& s : spikes) {
    if (s.height < rules.level) continue;
    const double depth = (static_cast<double>(s.depth) - frame.lowest) / step_um;
    const double above = portable_log(static_cast<double>(s.height / place_level));
    const auto height = static_cast<std::int32_t>(scale * above);
    p.row_of(bin_of(frame, rules.bin_s, p.n_bins, s.time),
             std::clamp(height, 0, n_heights - 1))[static_cast<std::int32_t>(depth)] += 1;
  }
}

// With zeros beyond the ends.
void blur_depths(double blur_um, std::int32_t n, float* row) {
  const auto steps = static_cast<std::int32_t>(3 * blur_um / step_um);
  std::vector<double> weights;
  double sum = 0;
  for (std::int32_t k = -steps; k <= steps; ++k) {
    const double d = k * step_um / blur_um;
    weights.push_back(portable_exp(-0.5 * d * d));
    sum += weights.back();
  }
  const std::vector<float> from(row, row + n);
  for (std::int32_t i = 0; i < n; ++i) {
    double value = 0;
    for (std::int32_t k = std::max(-steps, -i); k <= std::min(steps, n - 1 - i); ++k) {
      value += weights[static_cast<std::size_t>(k + steps)] / sum *
               static_cast<double>(from[static_cast<std::size_t>(i + k)]);
    }
    row[i] = static_cast<float>(value);
  }
}

void finish_picture(double blur_um, std::int32_t bin, pictures& p) {
  for (std::int32_t h = 0; h < n_heights; ++h) blur_depths(blur_um, p.n_depths, p.row_of(bin, h));
  double square = 0;
  for (std::int32_t i = 0; i < p.n_depths; ++i) {
    float before = 0, own = p.row_of(bin, 0)[i];
    for (std::int32_t h = 0; h < n_heights; ++h) {
      const float next = h + 1 < n_heights ? p.row_of(bin, h + 1)[i] : 0.0f;
      const auto blurred = static_cast<double>(0.25f * before + 0.5f * own + 0.25f * next);
      const double value = blurred > 0 ? portable_log(1 + count_weight * blurred) : 0;
      p.row_of(bin, h)[i] = static_cast<float>(value);
      square += value * value;
      before = own;
      own = next;
    }
  }
  p.norms[static_cast<std::size_t>(bin)] = std::sqrt(square);
}

pictures make_pictures(const std::vector<spike_place>& spikes, const picture_frame& frame,
                       const picture_rules& rules) {
  pictures p;
  p.n_bins = count_bins(frame, rules.bin_s);
  p.n_depths = frame.n_depths;
  p.values.assign(static_cast<std::size_t>(p.n_bins) * n_heights * p.stride(), 0.0f);
  p.norms.resize(static_cast<std::size_t>(p.n_bins));
  count_spikes(spikes, frame, rules, p);
  parallel_for_dealt(frame.n_threads, 0, p.n_bins - 1, [&](std::int64_t bin, std::int32_t) {
    finish_picture(rules.blur_um, static_cast<std::int32_t>(bin), p);
  });
  return p;
}

// ---------------------------------------------------------------- pairs

// Two pictures, and by how much the second lies higher.
struct picture_pair {
  std::int32_t earlier = 0, later = 0;
  double way = 0;       // µm
  double likeness = 0;  // there; 1: the same, 0: nothing to be said
};
typedef std::array<float, n_ways> likeness_by_way;

// sums[w] += values[w] * by
KESTRELVANE_CLONES void add_ways(const float* values, float by, float* sums) {
  for (std::int32_t w = 0; w < ways_row; ++w) sums[w] += by * values[w];
}

bool compare(const pictures& from, std::int32_t i, const pictures& to, std::int32_t k,
             likeness_by_way& likeness) {
  const double norm =
      from.norms[static_cast<std::size_t>(i)] * to.norms[static_cast<std::size_t>(k)];
  if (!(norm > 0)) return false;
  float sums[ways_row] = {};
  for (std::int32_t h = 0; h < n_heights; ++h) {
    const float *a = from.row_of(i, h), *b = to.row_of(k, h) - reach;
    for (std::int32_t d = 0; d < from.n_depths; ++d) {
      if (a[d] > 0) add_ways(b + d, a[d], sums);
    }
  }
  for (std::size_t w = 0; w < likeness.size(); ++w) {
    likeness[w] = static_cast<float>(static_cast<double>(sums[w]) / norm);
  }
  return true;
}

void set_way(const likeness_by_way& l, picture_pair& pair) {
  const auto best = static_cast<std::size_t>(std::max_element(l.begin(), l.end()) - l.begin());
  // At the end of the reach there may be more behind it.
  if (best == 0 || best + 1 == l.size()) return;
  const auto below = static_cast<double>(l[best - 1]), above = static_cast<double>(l[best + 1]);
  const double bend = below - 2.0 * static_cast<double>(l[best]) + above;
  const double offset = bend < 0 ? 0.5 * (below - above) / bend : 0;
  pair.way = step_um * (static_cast<double>(best) - reach + offset);
  pair.likeness = static_cast<double>(l[best]);
}

// Of pictures so many apart: each with its neighbours, and fewer and fewer far pairs, which hold a
// long recording together.
std::vector<picture_pair> pairs_of(std::int32_t n_bins, std::int32_t most_apart) {
  std::vector<picture_pair> pairs;
  std::int32_t apart = 1;
  while (apart < n_bins && apart <= most_apart) {
    for (std::int32_t i = 0; i + apart < n_bins; ++i) pairs.push_back({i, i + apart});
    apart = apart < 8 ? apart + 1 : apart * 13 / 10;
  }
  return pairs;
}

void compare_pictures(const pictures& p, std::int32_t n_threads, std::vector<picture_pair>& pairs) {
  const auto n = static_cast<std::int64_t>(pairs.size());
  parallel_for_dealt(n_threads, 0, n - 1, [&](std::int64_t i, std::int32_t) {
    picture_pair& pair = pairs[static_cast<std::size_t>(i)];
    likeness_by_way likeness;
    if (compare(p, pair.earlier, p, pair.later, likeness)) set_way(likeness, pair);
  });
}

// ---------------------------------------------------------------- places

constexpr double least_likeness = 0.3;  // pictures of which nothing can be said
constexpr double outlier_um = 4;        // a way that is off by so much counts half
constexpr double smoothing = 0.0025;    // weight of staying, over the pairs of a picture
constexpr int rounds = 20, solver_steps = 200;
constexpr double solved = 1e-9;

// The graph of pairs, and for each picture the weights that meet in it.
struct place_system {
  const std::vector<picture_pair>& pairs;
  std::vector<double> weights;
  double stay = 0;

  void apply(const std::vector<double>& x, std::vector<double>& y) const {
    std::fill(y.begin(), y.end(), 0.0);
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      const auto i = static_cast<std::size_t>(pairs[k].earlier);
      const auto j = static_cast<std::size_t>(pairs[k].later);
      const double pull = weights[k] * (x[j] - x[i]);
      y[j] += pull;
      y[i] -= pull;
    }
    for (std::size_t i = 0; i + 1 < x.size(); ++i) {
      const double pull = stay * (x[i + 1] - x[i]);
      y[i + 1] += pull;
      y[i] -= pull;
    }
  }
};

// Conjugate gradients from the places as they are. All places may be moved together: the sum of
// the right side is 0, and so is that of every step.
void solve_places(const place_system& system, const std::vector<double>& right,
                  std::vector<double>& places) {
  std::vector<double> left(places.size()), applied(places.size());
  system.apply(places, applied);
  for (std::size_t i = 0; i < left.size(); ++i) left[i] = right[i] - applied[i];
  std::vector<double> step = left;
  double square = dot(left, left);
  const double enough = solved * (dot(right, right) + 1e-12);
  for (int n = 0; n < solver_steps && square > enough; ++n) {
    system.apply(step, applied);
    const double bend = dot(step, applied);
    if (!(bend > 0)) return;
    const double length = square / bend;
    for (std::size_t i = 0; i < left.size(); ++i) {
      places[i] += length * step[i];
      left[i] -= length * applied[i];
    }
    const double next = dot(left, left);
    for (std::size_t i = 0; i < left.size(); ++i) step[i] = left[i] + next / square * step[i];
    square = next;
  }
}

// Ways by least squares, those that the others contradict counting less in each round (weights
// after Cauchy).
std::vector<double> find_places(const std::vector<picture_pair>& pairs, std::int32_t n_places) {
  std::vector<double> places(static_cast<std::size_t>(n_places)), right(places.size());
  place_system system{pairs, std::vector<double>(pairs.size()), 0};
  for (int round = 0; round < rounds; ++round) {
    std::fill(right.begin(), right.end(), 0.0);
    double sum = 0;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      const picture_pair& pair = pairs[k];
      const auto i = static_cast<std::size_t>(pair.earlier);
      const auto j = static_cast<std::size_t>(pair.later);
      const double off = round == 0 ? 0 : (pair.way - (places[j] - places[i])) / outlier_um;
      const double above = std::max(pair.likeness - least_likeness, 0.0);
      const double weight = above * above / (1 + off * off);
      system.weights[k] = weight;
      sum += 2 * weight;
      right[j] += weight * pair.way;
      right[i] -= weight * pair.way;
    }
    system.stay = smoothing * sum / n_places;
    solve_places(system, right, places);
  }
  return places;
}

// ---------------------------------------------------------------- from coarse to fine

constexpr double fine_blur_um = 5, sharp_blur_um = 3;
constexpr float sharp_level = 8;          // times the noise
constexpr std::int32_t coarse_bins = 10;  // fine pictures to a coarse one
constexpr int sharpenings = 2;
constexpr std::int32_t fewest_bins = 16;
constexpr std::int32_t neighbours = 4;  // that a picture is held to in the end

double ranked(std::vector<double> values, double part) {
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1) + 0.5);
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

// Spikes where they would be if each bin had been moved down by its place.
std::vector<spike_place> moved_back(const std::vector<spike_place>& spikes,
                                    const picture_frame& frame, double bin_s,
                                    const std::vector<double>& by) {
  std::vector<spike_place> out = spikes;
  for (spike_place& s : out) {
    const std::int32_t bin = bin_of(frame, bin_s, static_cast<std::int32_t>(by.size()), s.time);
    const double limit = margin_um - 4 * step_um;
    s.depth -= static_cast<float>(std::clamp(by[static_cast<std::size_t>(bin)], -limit, limit));
  }
  return out;
}

// What single short pictures cannot tell of far pairs, the sum of ten can: a jump above all.
void correct_by_coarse_pictures(const std::vector<spike_place>& spikes, const picture_frame& frame,
                                double bin_s, std::vector<double>& places) {
  const std::size_t n_coarse = (places.size() + coarse_bins - 1) / coarse_bins;
  if (n_coarse < 2) return;
  std::vector<double> means(n_coarse), within(places.size());
  for (std::size_t k = 0; k < n_coarse; ++k) {
    const std::size_t first = k * coarse_bins, end = std::min(first + coarse_bins, places.size());
    for (std::size_t i = first; i < end; ++i) {
      means[k] += places[i] / static_cast<double>(end - first);
    }
    for (std::size_t i = first; i < end; ++i) within[i] = places[i] - means[k];
  }
  const pictures p = make_pictures(moved_back(spikes, frame, bin_s, within), frame,
                                   {coarse_bins * bin_s, sharp_blur_um, sharp_level});
  std::vector<picture_pair> pairs = pairs_of(p.n_bins, p.n_bins);
  compare_pictures(p, frame.n_threads, pairs);
  const std::vector<double> coarse = find_places(pairs, p.n_bins);
  for (std::size_t i = 0; i < places.size(); ++i) places[i] = within[i] + coarse[i / coarse_bins];
}

// Each picture against the sum of all as it is known by now, and against its neighbours.
void refine(const std::vector<spike_place>& spikes, const picture_frame& frame,
            const pictures& fine, double bin_s, std::vector<double>& places) {
  const auto n = static_cast<std::int32_t>(places.size());
  const pictures all = make_pictures(moved_back(spikes, frame, bin_s, places), frame,
                                     {2 * frame.seconds, fine_blur_um, place_level});
  std::vector<picture_pair> pairs = pairs_of(n, neighbours);
  compare_pictures(fine, frame.n_threads, pairs);
  const std::size_t first = pairs.size();
  // The sum is one more picture, behind the last.
  for (std::int32_t i = 0; i < n; ++i) pairs.push_back({n, i});
  parallel_for_dealt(frame.n_threads, 0, n - 1, [&](std::int64_t i, std::int32_t) {
    likeness_by_way likeness;
    const auto at = static_cast<std::size_t>(i);
    if (compare(all, 0, fine, static_cast<std::int32_t>(i), likeness)) {
      set_way(likeness, pairs[first + at]);
    }
  });
  places = find_places(pairs, n + 1);
  places.pop_back();
}

// How alike the coarse pictures are as they lie.
double likeness_of(const std::vector<spike_place>& spikes, const picture_frame& frame,
                   double bin_s) {
  const pictures p =
      make_pictures(spikes, frame, {coarse_bins * bin_s, sharp_blur_um, sharp_level});
  std::vector<picture_pair> pairs = pairs_of(p.n_bins, p.n_bins);
  const auto n = static_cast<std::int64_t>(pairs.size());
  parallel_for_dealt(frame.n_threads, 0, n - 1, [&](std::int64_t i, std::int32_t) {
    picture_pair& pair = pairs[static_cast<std::size_t>(i)];
    likeness_by_way l;
    if (compare(p, pair.earlier, p, pair.later, l)) pair.likeness = static_cast<double>(l[reach]);
  });
  double sum = 0;
  for (const picture_pair& pair : pairs) sum += pair.likeness;
  return pairs.empty() ? 0 : sum / static_cast<double>(pairs.size());
}

}  // namespace

tissue_motion measure_motion(const std::vector<spike_place>& spikes, std::int64_t n_samples,
                             double sampling_frequency, std::int32_t n_threads) {
  tissue_motion motion;
  if (spikes.empty()) return motion;
  const picture_frame frame = frame_of(spikes, n_samples, sampling_frequency, n_threads);
  const double wanted = motion_bin_spikes * frame.seconds / static_cast<double>(spikes.size());
  motion.bin_s = std::clamp(wanted, motion_bin_s, motion_longest_bin_s);
  const pictures fine = make_pictures(spikes, frame, {motion.bin_s, fine_blur_um, place_level});
  if (fine.n_bins < fewest_bins) return motion;
  std::vector<picture_pair> pairs = pairs_of(fine.n_bins, fine.n_bins);
  compare_pictures(fine, n_threads, pairs);
  std::vector<double> places = find_places(pairs, fine.n_bins);
  for (int i = 0; i < sharpenings; ++i) {
    correct_by_coarse_pictures(spikes, frame, motion.bin_s, places);
    refine(spikes, frame, fine, motion.bin_s, places);
  }
  const double home = ranked(places, 0.5);
  for (const double place : places) motion.um.push_back(static_cast<float>(place - home));
  motion.range = static_cast<float>(ranked(places, 0.97) - ranked(places, 0.03));
  motion.gain = likeness_of(moved_back(spikes, frame, motion.bin_s, places), frame, motion.bin_s) -
                likeness_of(spikes, frame, motion.bin_s);
  motion.moved = motion.range >= motion_least_um && motion.gain >= motion_least_gain;
  return motion;
}

tissue_motion measure_motion(const session_state& session) {
  if (!can_follow_motion(session)) return {};
  return measure_motion(find_spike_places(session), session.recording.n_samples,
                        session.recording.sampling_frequency, threads_now(session));
}

double motion_at(const tissue_motion& motion, double seconds) {
  if (motion.um.empty()) return 0;
  const auto last = static_cast<double>(motion.um.size() - 1);
  const double at = std::clamp(seconds / motion.bin_s - 0.5, 0.0, last);
  const auto i = static_cast<std::size_t>(at);
  const double part = at - static_cast<double>(i);
  const auto here = static_cast<double>(motion.um[i]);
  const double next = i + 1 < motion.um.size() ? static_cast<double>(motion.um[i + 1]) : here;
  return here + part * (next - here);
}

namespace {

// ---------------------------------------------------------------- between the sites

constexpr double field_um = 20;      // s.d. of the field's likeness to itself
constexpr double site_noise = 0.01;  // of the square of a voltage, each site's own
constexpr float source_um = 60;      // sites that a place is read from
// Part of the field that they must tell; a place beyond the end of the probe has no samples.
constexpr double told = 0.6;
constexpr double way_step = 0.25;  // µm
constexpr std::int64_t block = 1024;

struct source_weight {
  std::int32_t channel;
  float weight;
};
typedef std::vector<std::vector<source_weight>> site_weights;  // element c - 1 of channel c

double likeness_of_sites(double dx, double dy) {
  return portable_exp(-(dx * dx + dy * dy) / (2 * field_um * field_um));
}

// What the place `way` above a site reads of the sites round it.
std::vector<source_weight> weights_at(const recording_store& r, std::int32_t c, double way) {
  std::vector<std::int32_t> sites;
  std::vector<double> likeness;
  for (std::int32_t k = 1; k <= r.n_channels; ++k) {
    const double dx = r.chan_x[k] - r.chan_x[c], dy = r.chan_y[k] - (r.chan_y[c] + way);
    if (!is_in_use(r, k) || dx * dx + dy * dy > double{source_um} * source_um) continue;
    sites.push_back(k);
    likeness.push_back(likeness_of_sites(dx, dy));
  }
  std::vector<double> x = likeness, a(sites.size() * sites.size());
  for (std::size_t i = 0; i < sites.size(); ++i) {
    for (std::size_t k = 0; k < sites.size(); ++k) {
      a[i * sites.size() + k] = likeness_of_sites(r.chan_x[sites[i]] - r.chan_x[sites[k]],
                                                  r.chan_y[sites[i]] - r.chan_y[sites[k]]);
    }
    a[i * sites.size() + i] += site_noise;
  }
  // Each site's own noise keeps the pivots above nothing.
  take_root(a, x.size(), 0);
  solve_by_root(a, x);
  solve_by_transpose(a, x);
  std::vector<source_weight> out;
  if (dot(x, likeness) < told) return out;
  for (std::size_t i = 0; i < sites.size(); ++i) {
    out.push_back({sites[i], static_cast<float>(x[i])});
  }
  return out;
}

KESTRELVANE_CLONES void read_block(const std::int16_t* v, std::int64_t n, float* out) {
  for (std::int64_t i = 0; i < n; ++i) out[i] = v[i];
}
KESTRELVANE_CLONES void add_block(const float* v, std::int64_t n, float weight, float* sums) {
  for (std::int64_t i = 0; i < n; ++i) sums[i] += weight * v[i];
}
KESTRELVANE_CLONES void write_block(const float* sums, std::int64_t n, std::int16_t* v) {
  for (std::int64_t i = 0; i < n; ++i) {
    const float x = std::min(std::max(sums[i] + 0.5f, -32768.0f), 32767.0f);
    const auto cut = static_cast<std::int32_t>(x);
    // Down, as the floor of it.
    v[i] = static_cast<std::int16_t>(cut - (static_cast<float>(cut) > x));
  }
}

struct block_scratch {
  std::vector<float> samples, sums;
};

void move_block(recording_store& r, std::int64_t first, const site_weights& weights,
                block_scratch& scratch) {
  const std::int64_t n = std::min<std::int64_t>(block, r.n_samples - first + 1);
  scratch.samples.resize(static_cast<std::size_t>(r.n_channels * block));
  scratch.sums.resize(block);
  const auto samples_of = [&](std::int32_t c) { return scratch.samples.data() + (c - 1) * block; };
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (is_in_use(r, c)) read_block(r.vd.channel(c) + first, n, samples_of(c));
  }
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!is_in_use(r, c)) continue;
    std::fill(scratch.sums.begin(), scratch.sums.end(), 0.0f);
    for (const source_weight& s : weights[static_cast<std::size_t>(c - 1)]) {
      add_block(samples_of(s.channel), n, s.weight, scratch.sums.data());
    }
    write_block(scratch.sums.data(), n, r.vd.channel(c) + first);
  }
}

std::int32_t step_of(const tissue_motion& motion, double seconds) {
  return static_cast<std::int32_t>(std::floor(motion_at(motion, seconds) / way_step + 0.5));
}

void move_samples(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const std::int64_t n_blocks = (r.n_samples + block - 1) / block;
  std::vector<std::int32_t> steps(static_cast<std::size_t>(n_blocks));
  for (std::int64_t b = 0; b < n_blocks; ++b) {
    const double middle = (static_cast<double>(b) + 0.5) * block / r.sampling_frequency;
    steps[static_cast<std::size_t>(b)] = step_of(r.motion, middle);
  }
  const auto [low, high] = std::minmax_element(steps.begin(), steps.end());
  const std::int32_t lowest = *low, n_steps = *high - *low + 1;
  std::vector<site_weights> weights(static_cast<std::size_t>(n_steps));
  parallel_for_dealt(threads_now(session), 0, n_steps - 1, [&](std::int64_t i, std::int32_t) {
    site_weights& w = weights[static_cast<std::size_t>(i)];
    w.resize(static_cast<std::size_t>(r.n_channels));
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      const double way = way_step * (lowest + static_cast<double>(i));
      if (is_in_use(r, c)) w[static_cast<std::size_t>(c - 1)] = weights_at(r, c, way);
    }
  });
  set_parts(progress, n_blocks);
  std::vector<block_scratch> scratch(static_cast<std::size_t>(std::max(1, threads_now(session))));
  parallel_for(threads_now(session), 0, n_blocks - 1, [&](std::int64_t b, std::int32_t rank) {
    const std::int32_t step = steps[static_cast<std::size_t>(b)];
    move_block(r, 1 + b * block, weights[static_cast<std::size_t>(step - lowest)],
               scratch[static_cast<std::size_t>(rank)]);
    finish_part(progress, rank);
  });
}

}  // namespace

bool can_follow_motion(const session_state& session) {
  const recording_store& r = session.recording;
  if (!r.is_continuous || r.n_samples < 1) return false;
  std::vector<std::int32_t> depths;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (is_in_use(r, c)) depths.push_back(r.chan_y[c]);
  }
  if (static_cast<std::int32_t>(depths.size()) < motion_channels) return false;
  std::sort(depths.begin(), depths.end());
  depths.erase(std::unique(depths.begin(), depths.end()), depths.end());
  const auto span = static_cast<float>(depths.back() - depths.front());
  return span >= motion_span_um &&
         span <= motion_spacing_um * static_cast<float>(depths.size() - 1);
}

bool reads_tissue(const recording_store& recording, std::int32_t channel, double way) {
  return !weights_at(recording, channel, way).empty();
}

void correct_motion(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  compute_noise(session);
  if (r.motion.um.empty() || r.motion.corrected) r.motion = measure_motion(session);
  if (!r.motion.moved) {
    say(session, "The tissue was not seen to move");
    return;
  }
  move_samples(session, progress);
  r.motion.corrected = true;
  say(session, fmt::format("The tissue moves by {:.0f} um along the probe: each channel follows it",
                           r.motion.range));
}

}  // namespace kestrelvane
