#include "signal/spike_places.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "signal/site_reading.h"

namespace kestrelvane {

namespace {

// Sources that are tried, round the channel: steps along the probe, places beside it.
constexpr std::int32_t depth_steps = 21;
constexpr double depth_step = 4;  // µm
// As close beside one another that the depth of a spike does not leap when its source moves on.
constexpr std::int32_t across_steps = 7;
constexpr double across_step = 10;  // µm
constexpr double places_z[] = {5, 20, 45};
constexpr std::int32_t n_z = 3;
constexpr std::int32_t row = whole_lanes(depth_steps);
constexpr std::int32_t n_rows = across_steps * n_z;  // by place across, then z
constexpr std::int32_t n_sources = n_rows * row;
// Round the site nearest to a spike, the one where it is largest.
constexpr float home_um = 45;
constexpr std::int64_t quick_look = 256;  // samples passed over together when all are small

struct channel_round {
  std::int32_t channel = 0;
  std::vector<std::int32_t> near, wide;  // without and with itself
  std::vector<float> gains;              // of each wide channel, of all sources
};

// Gains of a source are normed, so that the best one has the largest product.
void set_gains(const recording_store& r, channel_round& round) {
  const std::size_t n = round.wide.size();
  round.gains.assign(n * n_sources, 0.0f);
  std::vector<double> g(n);
  std::int32_t source = 0;
  for (std::int32_t a = 0; a < across_steps; ++a) {
    const double x = across_step * (a - across_steps / 2);
    for (const double z : places_z) {
      for (std::int32_t i = 0; i < depth_steps; ++i) {
        const double y = depth_step * (i - depth_steps / 2);
        double square = 0;
        for (std::size_t k = 0; k < n; ++k) {
          const double dx = r.chan_x[round.channel] + x - r.chan_x[round.wide[k]];
          const double dy = r.chan_y[round.channel] + y - r.chan_y[round.wide[k]];
          g[k] = 1 / (dx * dx + dy * dy + z * z);
          square += g[k] * g[k];
        }
        for (std::size_t k = 0; k < n; ++k) {
          round.gains[k * n_sources + static_cast<std::size_t>(source + i)] =
              static_cast<float>(g[k] / std::sqrt(square));
        }
      }
      source += row;
    }
  }
}

channel_round round_of(const session_state& session, std::int32_t c) {
  const recording_store& r = session.recording;
  channel_round round;
  round.channel = c;
  for (std::int32_t k = 1; k <= r.n_channels; ++k) {
    if (!is_in_use(r, k)) continue;
    const float away = k == c ? 0.0f : r.distance(c, k);
    if (k != c && away <= place_apart_um) round.near.push_back(k);
    if (away <= place_reach_um) round.wide.push_back(k);
  }
  set_gains(r, round);
  return round;
}

KESTRELVANE_CLONES void add_products(const float* gains, float height, float* sums) {
  for (std::int32_t i = 0; i < n_sources; ++i) sums[i] += height * gains[i];
}

KESTRELVANE_CLONES std::int32_t largest_of(const std::int16_t* v, std::int32_t n) {
  std::int32_t largest = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t x = v[i];
    largest = std::max(largest, x < 0 ? -x : x);
  }
  return largest;
}

float height_at(const recording_store& r, std::int32_t c, std::int32_t t, std::int32_t reach) {
  return static_cast<float>(largest_of(r.vd.channel(c) + t - reach, 2 * reach + 1)) /
         r.chan_noise[c];
}

// Of equal ones the first, and on equal channels the lower.
bool is_largest(const recording_store& r, const channel_round& round, std::int32_t t,
                std::int32_t reach, float height) {
  const std::int16_t* v = r.vd.channel(round.channel) + t;
  const std::int32_t own = std::abs(std::int32_t{v[0]});
  for (std::int32_t k = 1; k <= reach; ++k) {
    if (std::abs(std::int32_t{v[-k]}) >= own || std::abs(std::int32_t{v[k]}) > own) return false;
  }
  return std::none_of(round.near.begin(), round.near.end(), [&](std::int32_t c) {
    const float other = height_at(r, c, t, reach);
    return other > height || (other == height && c < round.channel);
  });
}

KESTRELVANE_CLONES std::int64_t products_of(const std::int16_t* a, const std::int16_t* b,
                                            std::int32_t n) {
  std::int64_t sum = 0;
  for (std::int32_t i = 0; i < n; ++i) sum += std::int32_t{a[i]} * std::int32_t{b[i]};
  return sum;
}

// How well each source fits the heights on the channels round it. A height is how much of the spike
// as its own channel has it is on a channel: noise is for that as often as against it, where in a
// largest value it is always for.
void fit_sources(const recording_store& r, const channel_round& round, std::int32_t t,
                 std::int32_t reach, float* sums) {
  const std::int32_t n = 2 * reach + 1;
  const std::int16_t* own = r.vd.channel(round.channel) + t - reach;
  const double scale =
      std::abs(std::int32_t{own[reach]}) / static_cast<double>(products_of(own, own, n));
  std::fill(sums, sums + n_sources, 0.0f);
  for (std::size_t k = 0; k < round.wide.size(); ++k) {
    const std::int32_t c = round.wide[k];
    const auto common = static_cast<double>(products_of(r.vd.channel(c) + t - reach, own, n));
    const auto height = static_cast<float>(common * scale / static_cast<double>(r.chan_noise[c]));
    if (height > 0) add_products(round.gains.data() + k * n_sources, height, sums);
  }
}

// Where between its neighbours the largest of some values has its top, in steps from it.
double top_of(const float* values, std::int32_t at, std::int32_t n) {
  if (at == 0 || at == n - 1) return 0;
  const double below = values[at - 1], above = values[at + 1];
  const double bend = below - 2.0 * static_cast<double>(values[at]) + above;
  return bend < 0 ? 0.5 * (below - above) / bend : 0;
}

// By how well each source fits.
spike_place place_by(const recording_store& r, const channel_round& round, const float* sums,
                     std::int32_t t, float height) {
  float along[depth_steps], across[across_steps];
  for (std::int32_t i = 0; i < depth_steps; ++i) {
    along[i] = sums[i];
    for (std::int32_t k = 1; k < n_rows; ++k) along[i] = std::max(along[i], sums[k * row + i]);
  }
  const auto at = static_cast<std::int32_t>(std::max_element(along, along + depth_steps) - along);
  for (std::int32_t a = 0; a < across_steps; ++a) {
    const float* of_z = sums + a * n_z * row + at;
    across[a] = std::max({of_z[0], of_z[row], of_z[2 * row]});
  }
  const auto beside =
      static_cast<std::int32_t>(std::max_element(across, across + across_steps) - across);
  const double up = depth_step * (at - depth_steps / 2 + top_of(along, at, depth_steps));
  const double off =
      across_step * (beside - across_steps / 2 + top_of(across, beside, across_steps));
  return {t, static_cast<float>(r.chan_y[round.channel] + up), height,
          static_cast<float>(r.chan_x[round.channel] + off)};
}

spike_place place_of(const recording_store& r, const channel_round& round, std::int32_t t,
                     std::int32_t reach, float height) {
  alignas(64) float sums[n_sources];
  fit_sources(r, round, t, reach, sums);
  return place_by(r, round, sums, t, height);
}

std::int32_t reach_of(const recording_store& r) {
  return std::max(
      1, static_cast<std::int32_t>(std::floor(place_ms * 0.001 * r.sampling_frequency + 0.5)));
}

std::vector<spike_place> places_on(const session_state& session, std::int32_t c) {
  const recording_store& r = session.recording;
  std::vector<spike_place> out;
  if (!is_in_use(r, c)) return out;
  const channel_round round = round_of(session, c);
  const std::int32_t reach = reach_of(r);
  const float level = place_level * r.chan_noise[c];
  const std::int16_t* v = r.vd.channel(c);
  for (std::int64_t from = 1 + reach; from <= r.n_samples - reach; from += quick_look) {
    const std::int64_t to = std::min<std::int64_t>(from + quick_look, r.n_samples - reach + 1);
    if (static_cast<float>(largest_of(v + from, static_cast<std::int32_t>(to - from))) <= level) {
      continue;
    }
    for (std::int64_t s = from; s < to; ++s) {
      const auto own = static_cast<float>(std::abs(std::int32_t{v[s]}));
      if (own <= level) continue;
      const auto t = static_cast<std::int32_t>(s);
      const float height = own / r.chan_noise[c];
      if (is_largest(r, round, t, reach, height)) {
        out.push_back(place_of(r, round, t, reach, height));
      }
    }
  }
  return out;
}

// ---------------------------------------------------------------- where tissue has gone

// Sites read as far up as the tissue has gone; of each way from the lowest on.
struct moved_sites {
  std::int32_t lowest = 0;                                // µm
  std::vector<std::vector<std::vector<site_source>>> of;  // by way, channel - 1
  std::vector<channel_round> rounds;                      // by channel - 1

  const std::vector<site_source>& at(std::int32_t way, std::int32_t c) const {
    return of[static_cast<std::size_t>(way - lowest)][static_cast<std::size_t>(c - 1)];
  }
  const channel_round& round(std::int32_t c) const {
    return rounds[static_cast<std::size_t>(c - 1)];
  }
};

moved_sites move_sites(const session_state& session, std::int32_t lowest, std::int32_t highest) {
  const recording_store& r = session.recording;
  moved_sites moved;
  moved.lowest = lowest;
  moved.of.resize(static_cast<std::size_t>(highest - lowest + 1));
  const auto n_ways = static_cast<std::int64_t>(moved.of.size());
  parallel_for_dealt(threads_now(session), 0, n_ways - 1, [&](std::int64_t i, std::int32_t) {
    std::vector<std::vector<site_source>>& sources = moved.of[static_cast<std::size_t>(i)];
    sources.resize(static_cast<std::size_t>(r.n_channels));
    // Beyond the ends as well, what little is told there.
    double told = 0;
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      if (!is_in_use(r, c)) continue;
      const auto way = static_cast<double>(lowest + i);
      sources[static_cast<std::size_t>(c - 1)] = sources_at(r, c, way, told);
    }
  });
  moved.rounds.resize(static_cast<std::size_t>(r.n_channels));
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (is_in_use(r, c)) moved.rounds[static_cast<std::size_t>(c - 1)] = round_of(session, c);
  }
  return moved;
}

KESTRELVANE_CLONES void add_samples(const std::int16_t* v, float weight, std::int32_t n,
                                    float* sums) {
  for (std::int32_t i = 0; i < n; ++i) sums[i] += weight * static_cast<float>(v[i]);
}

void read_moved(const recording_store& r, const std::vector<site_source>& sources,
                std::int32_t first, std::vector<float>& out) {
  std::fill(out.begin(), out.end(), 0.0f);
  for (const site_source& s : sources) {
    add_samples(r.vd.channel(s.channel) + first, s.weight, static_cast<std::int32_t>(out.size()),
                out.data());
  }
}

// The site where the spike is largest, of those round the one nearest to its place at home; 0 when
// it shows on none.
std::int32_t home_channel(const recording_store& r, const moved_sites& moved, const spike_place& s,
                          std::int32_t way) {
  std::int32_t nearest = 0;
  float least = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!is_in_use(r, c)) continue;
    const float dx = r.chan_x[c] - s.across;
    const float dy = r.chan_y[c] - (s.depth - static_cast<float>(way));
    const float square = dx * dx + dy * dy;
    if (nearest != 0 && square >= least) continue;
    least = square;
    nearest = c;
  }
  std::int32_t best = 0;
  float largest = 0;
  for (const std::int32_t c : moved.round(nearest).wide) {
    if (c != nearest && r.distance(c, nearest) > home_um) continue;
    float sum = 0;
    for (const site_source& source : moved.at(way, c)) {
      sum += source.weight * static_cast<float>(r.vd.channel(source.channel)[s.time]);
    }
    const float height = std::fabs(sum) / r.chan_noise[c];
    if (height <= largest) continue;
    largest = height;
    best = c;
  }
  return best;
}

spike_place place_at_home(const recording_store& r, const moved_sites& moved, const spike_place& s,
                          std::int32_t way) {
  const std::int32_t main = home_channel(r, moved, s, way);
  if (main == 0) return s;
  const std::int32_t reach = reach_of(r);
  const channel_round& round = moved.round(main);
  std::vector<float> own(static_cast<std::size_t>(2 * reach + 1)), other(own.size());
  read_moved(r, moved.at(way, main), s.time - reach, own);
  const auto products = [&](const std::vector<float>& v) {
    double sum = 0;
    for (std::size_t i = 0; i < v.size(); ++i) {
      sum += static_cast<double>(v[i]) * static_cast<double>(own[i]);
    }
    return sum;
  };
  const auto peak = static_cast<double>(std::fabs(own[static_cast<std::size_t>(reach)]));
  const double scale = peak / products(own);
  alignas(64) float sums[n_sources] = {};
  for (std::size_t k = 0; k < round.wide.size(); ++k) {
    const std::int32_t c = round.wide[k];
    read_moved(r, moved.at(way, c), s.time - reach, other);
    const double common = products(other) * scale / static_cast<double>(r.chan_noise[c]);
    const auto height = static_cast<float>(common);
    if (height > 0) add_products(round.gains.data() + k * n_sources, height, sums);
  }
  spike_place placed = place_by(r, round, sums, s.time, s.height);
  placed.depth += static_cast<float>(way);
  return placed;
}

}  // namespace

std::vector<spike_place> place_again(const session_state& session,
                                     const std::vector<spike_place>& spikes,
                                     const std::vector<std::int32_t>& ways) {
  if (spikes.empty()) return {};
  const auto [low, high] = std::minmax_element(ways.begin(), ways.end());
  const moved_sites moved = move_sites(session, *low, *high);
  std::vector<spike_place> out = spikes;
  const auto n = static_cast<std::int64_t>(spikes.size());
  parallel_for_dealt(threads_now(session), 0, n - 1, [&](std::int64_t i, std::int32_t) {
    const auto k = static_cast<std::size_t>(i);
    out[k] = place_at_home(session.recording, moved, spikes[k], ways[k]);
  });
  return out;
}

bool is_in_use(const recording_store& recording, std::int32_t channel) {
  return !recording.chan_mask[channel] && recording.chan_noise[channel] > 0;
}

std::vector<spike_place> find_spike_places(const session_state& session) {
  const std::int32_t n_channels = session.recording.n_channels;
  std::vector<std::vector<spike_place>> found(static_cast<std::size_t>(n_channels));
  parallel_for_dealt(threads_now(session), 1, n_channels, [&](std::int64_t c, std::int32_t) {
    found[static_cast<std::size_t>(c - 1)] = places_on(session, static_cast<std::int32_t>(c));
  });
  std::vector<spike_place> all;
  for (const auto& of_channel : found) all.insert(all.end(), of_channel.begin(), of_channel.end());
  std::stable_sort(all.begin(), all.end(), [](const spike_place& a, const spike_place& b) {
    return std::tie(a.time, a.depth) < std::tie(b.time, b.depth);
  });
  return all;
}

}  // namespace kestrelvane
