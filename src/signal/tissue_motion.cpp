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
#include "signal/site_reading.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- pictures

// A picture tells how likely a spike is at a depth, by its kind: height on a logarithmic scale, and
// place across the probe, along which the tissue does not go. That one tells most: without it a
// unit that begins to fire is taken for others near it.
constexpr double step_um = 2;
constexpr auto reach = static_cast<std::int32_t>(motion_reach_um / 2);  // steps
constexpr std::int32_t n_ways = 2 * reach + 1;
constexpr std::int32_t ways_row = whole_lanes(n_ways);
constexpr std::int32_t n_heights = 8;
constexpr double largest_height = 40;  // times the noise; higher ones count as these
constexpr std::int32_t n_across = 8;
constexpr double across_um = 10;  // places 80 µm apart are one kind: wide probes have many units
constexpr std::int32_t n_kinds = n_heights * n_across;
constexpr double blur_um = 3;
constexpr std::int32_t blur_steps = 4;
constexpr double margin_um = 120;  // beyond the outermost spikes: they may be moved there

// Spikes of one bin after the other, in steps above the lowest depth.
struct seen_spike {
  float depth;
  std::int16_t height, across;  // kind
};
struct seen_bins {
  double bin_s = 0;
  std::int32_t n_depths = 0;
  std::int32_t n_threads = 1;
  std::vector<std::vector<seen_spike>> of;

  std::int32_t count() const { return static_cast<std::int32_t>(of.size()); }
};

std::int16_t height_kind(const spike_place& s) {
  const double scale = n_heights / portable_log(largest_height / static_cast<double>(place_level));
  const double above = portable_log(static_cast<double>(s.height / place_level));
  return static_cast<std::int16_t>(
      std::clamp(static_cast<std::int32_t>(scale * above), 0, n_heights - 1));
}

std::int16_t across_kind(const spike_place& s) {
  const auto at = static_cast<std::int32_t>(std::floor(static_cast<double>(s.across) / across_um));
  return static_cast<std::int16_t>((at % n_across + n_across) % n_across);
}

seen_bins bins_of(const std::vector<spike_place>& spikes, double seconds, double frequency,
                  std::int32_t n_threads) {
  seen_bins bins;
  const double wanted = motion_bin_spikes * seconds / static_cast<double>(spikes.size());
  bins.bin_s = std::clamp(wanted, motion_bin_s, motion_longest_bin_s);
  bins.n_threads = n_threads;
  bins.of.resize(static_cast<std::size_t>(std::max(1.0, std::ceil(seconds / bins.bin_s))));
  const auto deeper = [](const spike_place& x, const spike_place& y) { return x.depth < y.depth; };
  const auto [low, high] = std::minmax_element(spikes.begin(), spikes.end(), deeper);
  const double lowest = static_cast<double>(low->depth) - margin_um;
  const double span = static_cast<double>(high->depth) + margin_um - lowest;
  bins.n_depths = static_cast<std::int32_t>(span / step_um) + 1;
  for (const spike_place& s : spikes) {
    const auto bin = static_cast<std::int32_t>((s.time - 1) / (frequency * bins.bin_s));
    const double depth = (static_cast<double>(s.depth) - lowest) / step_um;
    bins.of[static_cast<std::size_t>(std::min(bin, bins.count() - 1))].push_back(
        {static_cast<float>(depth), height_kind(s), across_kind(s)});
  }
  return bins;
}

struct picture {
  std::int32_t n_depths = 0;
  std::int64_t n_spikes = 0;
  std::vector<float> values;  // by kind, depth; rows have `reach` zeros on either side

  explicit picture(std::int32_t depths) : n_depths(depths) {
    values.assign(static_cast<std::size_t>(n_kinds) * stride(), 0.0f);
  }
  std::size_t stride() const { return static_cast<std::size_t>(n_depths + ways_row); }
  float* row_of(std::int32_t height, std::int32_t across) {
    return values.data() + static_cast<std::size_t>(height * n_across + across) * stride() + reach;
  }
};

typedef std::array<double, 2 * blur_steps + 1> blur_weights;

blur_weights weights_of_blur() {
  blur_weights weights;
  double sum = 0;
  for (std::int32_t k = -blur_steps; k <= blur_steps; ++k) {
    const double d = k * step_um / blur_um;
    weights[static_cast<std::size_t>(k + blur_steps)] = portable_exp(-0.5 * d * d);
    sum += weights[static_cast<std::size_t>(k + blur_steps)];
  }
  for (double& w : weights) w /= sum;
  return weights;
}

// A bin's spikes where they would be had the tissue stayed at home.
void add_bin(const std::vector<seen_spike>& spikes, double place, const blur_weights& blur,
             picture& p) {
  constexpr double beside[3] = {0.25, 0.5, 0.25};
  const double limit = margin_um - 5 * step_um;
  const double back = std::clamp(place, -limit, limit) / step_um;
  for (const seen_spike& s : spikes) {
    const auto at = static_cast<std::int32_t>(std::floor(static_cast<double>(s.depth) - back));
    for (std::int32_t h = -1; h <= 1; ++h) {
      const std::int32_t height = s.height + h;
      if (height < 0 || height >= n_heights) continue;
      for (std::int32_t a = -1; a <= 1; ++a) {
        const double part = beside[h + 1] * beside[a + 1];
        float* row = p.row_of(height, (s.across + a + n_across) % n_across) + at - blur_steps;
        for (std::size_t k = 0; k < blur.size(); ++k) row[k] += static_cast<float>(part * blur[k]);
      }
    }
  }
  p.n_spikes += static_cast<std::int64_t>(spikes.size());
}

// Logarithms of densities over one that holds anywhere: a spike where none was seen says nothing,
// and one unit that gives way to another cannot outvote those that stay.
void take_logarithms(picture& p) {
  const double anywhere = static_cast<double>(p.n_spikes) / (n_kinds * p.n_depths);
  for (float& v : p.values) {
    if (v > 0) v = static_cast<float>(portable_log(1 + static_cast<double>(v) / anywhere));
  }
}

picture picture_of(const seen_bins& bins, std::int32_t first, std::int32_t last, std::int32_t every,
                   const std::vector<double>& places, const blur_weights& blur) {
  picture p(bins.n_depths);
  for (std::int32_t i = first; i <= last; i += every) {
    add_bin(bins.of[static_cast<std::size_t>(i)], places[static_cast<std::size_t>(i)], blur, p);
  }
  if (p.n_spikes > 0) take_logarithms(p);
  return p;
}

// ---------------------------------------------------------------- pairs

// Two bins, or a picture of several and a bin, and by how much the second lies higher.
struct place_pair {
  std::int32_t earlier = 0, later = 0;
  double way = 0;     // µm
  double weight = 0;  // how surely; 0: nothing to be said
};
typedef std::array<float, n_ways> likelihood_by_way;

// sums[w] += values[w]
KESTRELVANE_CLONES void add_ways(const float* values, float* sums) {
  for (std::int32_t w = 0; w < ways_row; ++w) sums[w] += values[w];
}

// What a picture says to a bin's spikes that lie so much higher.
likelihood_by_way compare(picture& p, const std::vector<seen_spike>& spikes) {
  float sums[ways_row] = {};
  for (const seen_spike& s : spikes) {
    add_ways(p.row_of(s.height, s.across) + static_cast<std::int32_t>(s.depth) - reach, sums);
  }
  likelihood_by_way out;
  // Where a picture is read lower, spikes lie higher.
  for (std::size_t w = 0; w < out.size(); ++w) out[w] = sums[out.size() - 1 - w];
  return out;
}

// The top within a window, µm to either side of what is expected; its bend is the weight.
void set_way(const likelihood_by_way& l, double expected, double window, place_pair& pair) {
  const auto first = static_cast<std::int32_t>(std::ceil((expected - window) / step_um)) + reach;
  const auto last = static_cast<std::int32_t>(std::floor((expected + window) / step_um)) + reach;
  const std::int32_t from = std::max(first, 0), to = std::min(last, n_ways - 1);
  if (from > to) return;
  const auto best = std::max_element(l.begin() + from, l.begin() + to + 1) - l.begin();
  // At the end of the reach there may be more behind it.
  if (best == 0 || best == n_ways - 1) return;
  const auto at = static_cast<std::size_t>(best);
  const auto below = static_cast<double>(l[at - 1]), above = static_cast<double>(l[at + 1]);
  const auto own = static_cast<double>(l[at]);
  const double bend = below - 2.0 * own + above;
  // On a flank that goes on beyond the window.
  if (below > own || above > own || !(bend < 0)) return;
  pair.way = step_um * (static_cast<double>(best) - reach + 0.5 * (below - above) / bend);
  pair.weight = -bend;
}

// ---------------------------------------------------------------- places

constexpr double outlier_um = 4;      // a way that is off by so much counts half
constexpr double smoothing = 0.0025;  // weight of staying, over the pairs of a bin
constexpr int rounds = 20, solver_steps = 200;
constexpr double solved = 1e-9;

// The graph of pairs, and for each bin the weights that meet in it.
struct place_system {
  const std::vector<place_pair>& pairs;
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
std::vector<double> find_places(const std::vector<place_pair>& pairs, std::int32_t n_places) {
  std::vector<double> places(static_cast<std::size_t>(n_places)), right(places.size());
  place_system system{pairs, std::vector<double>(pairs.size()), 0};
  for (int round = 0; round < rounds; ++round) {
    std::fill(right.begin(), right.end(), 0.0);
    double sum = 0;
    for (std::size_t k = 0; k < pairs.size(); ++k) {
      const place_pair& pair = pairs[k];
      const auto i = static_cast<std::size_t>(pair.earlier);
      const auto j = static_cast<std::size_t>(pair.later);
      const double off = round == 0 ? 0 : (pair.way - (places[j] - places[i])) / outlier_um;
      const double weight = pair.weight / (1 + off * off);
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

// ---------------------------------------------------------------- from near to far

constexpr std::int32_t neighbours = 10;        // bins that one is first compared with
constexpr double around_s = 60, looks_s = 20;  // a picture to either side; to the next
constexpr double window_um = 8;                // that its bins may still be off
constexpr int sharpenings = 3;
// Spikes are placed anew by the movement that is known, since they lie too near to sites: a first
// look sees as little as half of a way. It goes on for as long as they lie that much more alike.
constexpr int placings = 2, most_placings = 6;
constexpr double placed_better = 1.1;
constexpr double hint_of_gain = 0.25;  // of the least, to place them at all
constexpr std::int32_t fewest_bins = 16;
constexpr double fewest_spikes = 60;  // of a bin in the mean

double ranked(std::vector<double> values, double part) {
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1) + 0.5);
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

typedef std::vector<std::vector<place_pair>> pairs_by_picture;

std::vector<place_pair> in_one(const pairs_by_picture& found) {
  std::vector<place_pair> all;
  for (const std::vector<place_pair>& pairs : found) {
    for (const place_pair& pair : pairs) {
      if (pair.weight > 0) all.push_back(pair);
    }
  }
  return all;
}

// Each bin with those of a short time round it, from which it differs by its movement and by a unit
// or two. Between far ones more has changed: which units fire decides there, and not the tissue.
std::vector<double> places_by_neighbours(const seen_bins& bins, const blur_weights& blur) {
  const std::int32_t n = bins.count();
  const std::vector<double> still(bins.of.size());
  pairs_by_picture found(bins.of.size());
  parallel_for_dealt(bins.n_threads, 0, n - 1, [&](std::int64_t item, std::int32_t) {
    const auto i = static_cast<std::int32_t>(item);
    picture p = picture_of(bins, i, i, 1, still, blur);
    if (p.n_spikes == 0) return;
    for (std::int32_t k = std::max(0, i - neighbours); k <= std::min(n - 1, i + neighbours); ++k) {
      if (k == i) continue;
      place_pair pair{i, k};
      set_way(compare(p, bins.of[static_cast<std::size_t>(k)]), 0, motion_reach_um, pair);
      found[static_cast<std::size_t>(i)].push_back(pair);
    }
  });
  return find_places(in_one(found), n);
}

// Pictures that overlap, of all that was seen round a moment.
struct picture_look {
  std::int32_t first, last;  // bins
};

std::vector<picture_look> looks_at(const seen_bins& bins) {
  const auto around = static_cast<std::int32_t>(around_s / bins.bin_s);
  const auto every = static_cast<std::int32_t>(looks_s / bins.bin_s);
  std::vector<picture_look> looks;
  for (std::int32_t middle = every / 2; middle < bins.count() + every / 2; middle += every) {
    looks.push_back({std::max(0, middle - around), std::min(bins.count() - 1, middle + around)});
  }
  return looks;
}

// Each bin against the pictures that it is part of, as they are known by now. A picture may lie off
// as a whole: its place is one more unknown, behind those of the bins.
void sharpen_places(const seen_bins& bins, const std::vector<picture_look>& looks,
                    const blur_weights& blur, std::vector<double>& places) {
  const auto n = bins.count(), n_looks = static_cast<std::int32_t>(looks.size());
  pairs_by_picture found(looks.size());
  parallel_for_dealt(bins.n_threads, 0, n_looks - 1, [&](std::int64_t item, std::int32_t) {
    const auto k = static_cast<std::size_t>(item);
    picture p = picture_of(bins, looks[k].first, looks[k].last, 1, places, blur);
    if (p.n_spikes == 0) return;
    for (std::int32_t i = looks[k].first; i <= looks[k].last; ++i) {
      const auto at = static_cast<std::size_t>(i);
      place_pair pair{n + static_cast<std::int32_t>(item), i};
      set_way(compare(p, bins.of[at]), places[at], window_um, pair);
      found[k].push_back(pair);
    }
  });
  places = find_places(in_one(found), n + n_looks);
  places.resize(bins.of.size());
}

// How likely a spike of every other bin is by a picture of those between, in the mean; the spikes
// that a picture is made of would speak for any places.
double likelihood_of(const seen_bins& bins, const std::vector<picture_look>& looks,
                     const blur_weights& blur, const std::vector<double>& places) {
  const auto n_looks = static_cast<std::int32_t>(looks.size());
  std::vector<double> sums(looks.size()), counts(looks.size());
  parallel_for_dealt(bins.n_threads, 0, n_looks - 1, [&](std::int64_t item, std::int32_t) {
    const auto k = static_cast<std::size_t>(item);
    for (std::int32_t odd = 0; odd <= 1; ++odd) {
      picture p = picture_of(bins, looks[k].first + odd, looks[k].last, 2, places, blur);
      if (p.n_spikes == 0) continue;
      for (std::int32_t i = looks[k].first + 1 - odd; i <= looks[k].last; i += 2) {
        const auto at = static_cast<std::size_t>(i);
        for (const seen_spike& s : bins.of[at]) {
          const double depth = static_cast<double>(s.depth) - places[at] / step_um;
          const auto d = std::clamp(static_cast<std::int32_t>(depth), 0, bins.n_depths - 1);
          sums[k] += static_cast<double>(p.row_of(s.height, s.across)[d]);
          counts[k] += 1;
        }
      }
    }
  });
  double sum = 0, count = 0;
  for (std::size_t k = 0; k < looks.size(); ++k) sum += sums[k], count += counts[k];
  return count > 0 ? sum / count : 0;
}

}  // namespace

namespace {

// From places that are known about, or, where there are none, from those by neighbours.
tissue_motion measure_from(const std::vector<float>& known, const std::vector<spike_place>& spikes,
                           std::int64_t n_samples, double sampling_frequency,
                           std::int32_t n_threads) {
  tissue_motion motion;
  if (spikes.empty()) return motion;
  const double seconds = static_cast<double>(n_samples) / sampling_frequency;
  const seen_bins bins = bins_of(spikes, seconds, sampling_frequency, n_threads);
  motion.bin_s = bins.bin_s;
  const auto n_spikes = static_cast<double>(spikes.size());
  if (bins.count() < fewest_bins || n_spikes < fewest_spikes * bins.count()) return motion;
  const blur_weights blur = weights_of_blur();
  const std::vector<picture_look> looks = looks_at(bins);
  std::vector<double> places(known.begin(), known.end());
  if (places.empty()) places = places_by_neighbours(bins, blur);
  for (int i = 0; i < sharpenings; ++i) sharpen_places(bins, looks, blur, places);
  const double home = ranked(places, 0.5);
  for (double& place : places) place -= home;
  for (const double place : places) motion.um.push_back(static_cast<float>(place));
  motion.range = static_cast<float>(ranked(places, 0.97) - ranked(places, 0.03));
  const std::vector<double> still(places.size());
  motion.gain = likelihood_of(bins, looks, blur, places) - likelihood_of(bins, looks, blur, still);
  motion.moved = motion.range >= motion_least_um && motion.gain >= motion_least_gain;
  return motion;
}

}  // namespace

tissue_motion measure_motion(const std::vector<spike_place>& spikes, std::int64_t n_samples,
                             double sampling_frequency, std::int32_t n_threads) {
  return measure_from({}, spikes, n_samples, sampling_frequency, n_threads);
}

namespace {

bool may_have_moved(const tissue_motion& motion) {
  return motion.range >= motion_least_um && motion.gain >= hint_of_gain * motion_least_gain;
}

}  // namespace

tissue_motion measure_motion(const session_state& session) {
  if (!can_follow_motion(session)) return {};
  const recording_store& r = session.recording;
  const std::vector<spike_place> found = find_spike_places(session);
  const auto measure = [&](const std::vector<float>& known,
                           const std::vector<spike_place>& spikes) {
    return measure_from(known, spikes, r.n_samples, r.sampling_frequency, threads_now(session));
  };
  tissue_motion motion = measure({}, found);
  double gain_before = 0;
  for (int i = 0; i < most_placings && may_have_moved(motion); ++i) {
    if (i >= placings && motion.gain < placed_better * gain_before) break;
    gain_before = motion.gain;
    std::vector<std::int32_t> ways;
    for (const spike_place& s : found) {
      const double way = motion_at(motion, static_cast<double>(s.time) / r.sampling_frequency);
      ways.push_back(static_cast<std::int32_t>(std::floor(way + 0.5)));
    }
    motion = measure(motion.um, place_again(session, found, ways));
  }
  return motion;
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

// Part of the field that sites must tell; a place beyond the end of the probe has no samples.
constexpr double least_told = 0.6;
constexpr double way_step = 0.25;  // µm
constexpr std::int64_t block = 1024;

typedef std::vector<std::vector<site_source>> site_weights;  // element c - 1 of channel c

// What a channel reads when its tissue has gone so far: nothing beyond the end of the probe.
std::vector<site_source> weights_at(const recording_store& r, std::int32_t c, double way) {
  double told = 0;
  std::vector<site_source> sources = sources_at(r, c, way, told);
  if (told < least_told) sources.clear();
  return sources;
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
    for (const site_source& s : weights[static_cast<std::size_t>(c - 1)]) {
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
