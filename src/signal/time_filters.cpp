#include "signal/time_filters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

// Samples of all channels of a block stay in the cache between the two visits of a step.
constexpr std::int64_t samples_in_cache = 1 << 17;
constexpr std::int32_t shortest_block = 512, longest_block = 8192;

std::int32_t block_length(std::size_t n_channels) {
  const std::int64_t fitting = samples_in_cache / static_cast<std::int64_t>(n_channels);
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(fitting / n_lanes * n_lanes, shortest_block, longest_block));
}

std::vector<std::int32_t> unmasked_channels(const recording_store& r) {
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c]) channels.push_back(c);
  }
  return channels;
}

// Nearest whole number, halves away from zero; exact, where adding 0.5 would round first.
template <typename Real>
inline std::int32_t nearest(Real x) {
  const auto whole = static_cast<std::int32_t>(x);
  const Real part = x - static_cast<Real>(whole);
  return whole + (part >= Real(0.5)) - (part <= Real(-0.5));
}

// body(channel) on every channel of the list, each a part of the step.
template <typename Body>
void for_each_channel(const session_state& session, filter_progress& progress,
                      const std::vector<std::int32_t>& channels, Body&& body) {
  if (session.recording.n_samples <= 0) return;
  const auto n = static_cast<std::int64_t>(channels.size());
  set_parts(progress, n);
  parallel_for_dealt(threads_now(session), 0, n - 1, [&](std::int64_t i, std::int32_t rank) {
    body(channels[i]);
    finish_part(progress, rank);
  });
}

// body(first, n, rank) on stretches of n samples from first on.
template <typename Body>
void for_each_block(const session_state& session, filter_progress& progress, std::int32_t length,
                    Body&& body) {
  const std::int64_t n_samples = session.recording.n_samples;
  const std::int64_t n_blocks = (n_samples + length - 1) / length;
  set_parts(progress, n_blocks);
  parallel_for(threads_now(session), 0, n_blocks - 1, [&](std::int64_t b, std::int32_t rank) {
    const std::int64_t first = b * length + 1;
    body(first, static_cast<std::int32_t>(std::min<std::int64_t>(length, n_samples + 1 - first)),
         rank);
    finish_part(progress, rank);
  });
}

std::vector<std::int32_t> all_channels(const recording_store& r) {
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) channels.push_back(c);
  return channels;
}

// ---------------------------------------------------------------- channel means

KESTRELVANE_CLONES void subtract_mean(std::int16_t* v, std::int32_t n, double mean) {
  // A mean far from 0 may carry a sample out of two bytes; it wraps.
  for (std::int32_t i = 0; i < n; ++i) v[i] = static_cast<std::int16_t>(nearest(v[i] - mean));
}

// ---------------------------------------------------------------- common mean

KESTRELVANE_CLONES void add_samples(float* sum, const std::int16_t* v, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) sum[i] += static_cast<float>(v[i]);
}

KESTRELVANE_CLONES void divide(float* sum, float divisor, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) sum[i] /= divisor;
}

KESTRELVANE_CLONES void subtract_means(std::int16_t* v, const float* mean, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) {
    v[i] = static_cast<std::int16_t>(nearest(static_cast<float>(v[i]) - mean[i]));
  }
}

// ---------------------------------------------------------------- spatial smooth

struct weighted_channel {
  std::int32_t row;  // place in the list of unmasked channels
  float weight;
};

struct weight_row {
  std::vector<weighted_channel> near;  // in the order of the channels
  float sum = 0.0f;
};

std::vector<weight_row> weight_table(const recording_store& r,
                                     const std::vector<std::int32_t>& channels, float radius) {
  std::vector<weight_row> rows(channels.size());
  const double two_r_squared = 2.0 * radius * radius;
  for (std::size_t c = 0; c < channels.size(); ++c) {
    for (std::size_t j = 0; j < channels.size(); ++j) {
      const float d = r.distance(channels[c], channels[j]);
      // Strictly below, so that a radius of 0 leaves not even the channel itself.
      if (!(d < 3.0f * radius)) continue;
      // In 64 bits, so that the table is the same on every machine.
      const auto weight = static_cast<float>(std::exp(-(double{d} * d) / two_r_squared));
      rows[c].near.push_back({static_cast<std::int32_t>(j), weight});
      rows[c].sum += weight;
    }
  }
  return rows;
}

KESTRELVANE_CLONES void copy_as_float(float* out, const std::int16_t* v, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) out[i] = static_cast<float>(v[i]);
}

KESTRELVANE_CLONES void add_weighted(float* sum, const float* v, float weight, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) sum[i] += weight * v[i];
}

KESTRELVANE_CLONES void store_quotient(std::int16_t* v, const float* sum, float divisor,
                                       std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) {
    const float x = sum[i] / divisor;
    v[i] = static_cast<std::int16_t>(static_cast<std::int32_t>(x > 0.0f ? x + 0.5f : x - 0.5f));
  }
}

// ---------------------------------------------------------------- temporal smooth

constexpr std::int32_t smooth_block = 1000;

// y[i] for the samples x[i], x[i + 1], x[i + 2].
KESTRELVANE_CLONES void smooth_121(std::int16_t* __restrict y, const std::int16_t* __restrict x,
                                   std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t outer = static_cast<std::int16_t>(x[i] + x[i + 2]);
    y[i] = static_cast<std::int16_t>(outer / 4 + x[i + 1] / 2);
  }
}

// Samples 2 .. last; what lies beyond the allocated time reads as 0.
void smooth_channel(std::int16_t* v, std::int64_t last, std::int64_t max_time) {
  std::int16_t x[smooth_block + 2];
  std::int16_t before = v[1];
  for (std::int64_t t = 2; t <= last; t += smooth_block) {
    const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(smooth_block, last + 1 - t));
    // The sample in front has been written over by now, the one after it will be.
    x[0] = before;
    std::memcpy(x + 1, v + t, sizeof(std::int16_t) * static_cast<std::size_t>(n));
    x[n + 1] = t + n <= max_time ? v[t + n] : std::int16_t{0};
    before = x[n];
    smooth_121(v + t, x, n);
  }
}

// ---------------------------------------------------------------- compression

// The bits of every bit pattern after compression, by v + 32768.
std::vector<std::int16_t> compression_table(float scale, float point_uv) {
  std::vector<std::int16_t> table(1 << 16);
  for (std::int32_t v = -32768; v <= 32767; ++v) {
    const float u = static_cast<float>(v) * scale / point_uv;
    const float y = 3.0f * u / (3.0f + std::fabs(u));
    const float out = std::round(y * point_uv / scale);
    // The output is never larger than the input, unless a scale is beyond reason.
    const bool holds = std::fabs(out) <= 32768.0f;
    table[v + 32768] =
        holds ? static_cast<std::int16_t>(static_cast<std::int32_t>(out)) : std::int16_t{0};
  }
  return table;
}

}  // namespace

double channel_mean(const session_state& session, std::int32_t channel) {
  const recording_store& r = session.recording;
  const std::int16_t* v = r.vd.channel(channel);
  const std::int64_t stride = r.n_samples / 10000 + 1;
  double mean = 0.0, k = 0.0;
  for (std::int64_t t = 1; t <= r.n_samples; t += stride) {
    k += 1.0;
    mean += (v[t] - mean) / k;
  }
  return mean;
}

void zero_channel_means(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  for_each_channel(session, progress, all_channels(r), [&](std::int32_t c) {
    subtract_mean(r.vd.channel(c) + 1, r.n_samples, channel_mean(session, c));
  });
  r.means_zeroed = true;
  log_message(session, "Channel means set to ~ 0");
}

void remove_common_mean(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const std::vector<std::int32_t> channels = unmasked_channels(r);
  if (!channels.empty()) {
    const auto count = static_cast<float>(channels.size());
    for_each_block(session, progress, block_length(channels.size()),
                   [&](std::int64_t first, std::int32_t n, std::int32_t) {
                     float mean[longest_block];
                     std::fill_n(mean, n, 0.0f);
                     for (const std::int32_t c : channels) {
                       add_samples(mean, r.vd.channel(c) + first, n);
                     }
                     divide(mean, count, n);
                     for (const std::int32_t c : channels) {
                       subtract_means(r.vd.channel(c) + first, mean, n);
                     }
                   });
  }
  r.common_mean_removed = true;
  log_message(session, "Common mean subtracted");
}

void spatial_smooth(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const float radius = session.filter.smooth_radius_um;
  const std::vector<std::int32_t> channels = unmasked_channels(r);
  const std::vector<weight_row> rows = weight_table(r, channels, radius);
  if (!channels.empty()) {
    const std::int32_t length = block_length(2 * channels.size());
    const std::int32_t n_threads = threads_now(session);
    std::vector<std::vector<float>> blocks(static_cast<std::size_t>(std::max(n_threads, 1)));
    for (auto& block : blocks) block.resize(channels.size() * static_cast<std::size_t>(length));
    for_each_block(session, progress, length,
                   [&](std::int64_t first, std::int32_t n, std::int32_t rank) {
                     float* const block = blocks[rank].data();
                     // All channels are copied before any is written: neighbours must be read
                     // unsmoothed.
                     for (std::size_t c = 0; c < channels.size(); ++c) {
                       copy_as_float(block + c * length, r.vd.channel(channels[c]) + first, n);
                     }
                     for (std::size_t c = 0; c < channels.size(); ++c) {
                       float sum[longest_block];
                       std::fill_n(sum, n, 0.0f);
                       for (const weighted_channel& w : rows[c].near) {
                         add_weighted(sum, block + std::int64_t{w.row} * length, w.weight, n);
                       }
                       // Not even the channel itself is near: a radius of 0.
                       if (rows[c].near.empty()) continue;
                       store_quotient(r.vd.channel(channels[c]) + first, sum, rows[c].sum, n);
                     }
                   });
  }
  log_message(session, fmt::format("Spatial smooth done with radius {}", radius));
}

void temporal_smooth(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const std::int64_t n_blocks = (std::int64_t{r.n_samples} + smooth_block - 1) / smooth_block;
  const std::int64_t max_time = r.vd.max_time();
  // Whole blocks, on beyond the recording as far as there is room.
  const std::int64_t last = std::min(n_blocks * smooth_block + 1, max_time);
  for_each_channel(session, progress, unmasked_channels(r),
                   [&](std::int32_t c) { smooth_channel(r.vd.channel(c), last, max_time); });
  r.temporal_smoothed = true;
  log_message(session, "Temporal 1:2:1 smooth done");
}

void compressive_transform(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const std::vector<std::int16_t> table =
      compression_table(r.vscale_HP, session.filter.compressive_75pct_uv);
  const std::int16_t* const compressed = table.data() + 32768;
  for_each_channel(session, progress, all_channels(r), [&](std::int32_t c) {
    std::int16_t* v = r.vd.channel(c);
    for (std::int32_t t = 1; t <= r.n_samples; ++t) v[t] = compressed[v[t]];
  });
}

}  // namespace kestrelvane
