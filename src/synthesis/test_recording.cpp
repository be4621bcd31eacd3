#include "synthesis/test_recording.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>

#include "numerics/portable_math.h"
#include "numerics/simd.h"
#include "synthesis/noise_maker.h"
#include "synthesis/planted_files.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

enum random_purpose : std::uint64_t { for_channel_noise = 201, for_far_train = 202 };

constexpr float microvolts_per_bit = 0.25f;
constexpr std::int32_t chunk = 32 * noise_block;  // samples of a channel made at a time
constexpr double shape_before_ms = 1.2;           // window of a spike round its trough
constexpr double shape_after_ms = 2.4;
constexpr double broadening = 1.3;          // of a spike far from its cell, against close by
constexpr double broadening_um = 80;        // distance at which half of it has happened
constexpr double least_amplitude_uv = 0.3;  // smaller spikes are not drawn
constexpr std::int32_t n_far_shapes = 16;

// One spike shape at every sub-sample phase: row(k)[i] is its height at
// i - before - k / sub_sample_steps samples after the trough, which is -1.
struct shape_table {
  std::int32_t before, n;  // n in whole lanes
  std::vector<float> heights;
  double energy;  // sum of squares of one row

  const float* row(std::int64_t phase) const { return heights.data() + phase * n; }
};

double square_of(double v) { return v * v; }
double lobe(double t, double width) { return portable_exp(-0.5 * (t / width) * (t / width)); }

double raw_height(const spike_shape& s, double broad, double t_ms) {
  double height = -lobe(t_ms, s.trough_ms * broad) +
                  s.peak * lobe(t_ms - s.rise_ms * broad, 0.45 * s.rise_ms * broad);
  if (s.first_peak > 0) {
    height += s.first_peak * lobe(t_ms + 2.2 * s.trough_ms * broad, 0.9 * s.trough_ms * broad);
  }
  return height;
}

shape_table make_shape(const spike_shape& s, double broad, std::int32_t sampling_frequency) {
  const double ms_per_step = 1000.0 / sampling_frequency / sub_sample_steps;
  // The peaks move the trough a little; spikes are timed by where it ends up.
  double lowest = 0, trough_ms = 0;
  const auto search = static_cast<std::int32_t>(0.2 / ms_per_step);
  for (std::int32_t k = -search; k <= search; ++k) {
    const double height = raw_height(s, broad, k * ms_per_step);
    if (height < lowest) lowest = height, trough_ms = k * ms_per_step;
  }
  shape_table table{};
  table.before = static_cast<std::int32_t>(shape_before_ms * 0.001 * sampling_frequency);
  const auto after = static_cast<std::int32_t>(shape_after_ms * 0.001 * sampling_frequency);
  table.n = whole_lanes(table.before + after + 1);
  // All phases, so that drawing needs no interpolation.
  table.heights.resize(std::size_t{sub_sample_steps} * table.n);
  for (std::int32_t phase = 0; phase < sub_sample_steps; ++phase) {
    float* row = table.heights.data() + std::int64_t{phase} * table.n;
    for (std::int32_t i = 0; i < table.n; ++i) {
      const double steps = double{sub_sample_steps} * (i - table.before) - phase;
      row[i] = static_cast<float>(raw_height(s, broad, trough_ms + steps * ms_per_step) / -lowest);
    }
  }
  // Of one phase, since the others hardly differ.
  for (std::int32_t i = 0; i < table.n; ++i) table.energy += square_of(table.heights[i]);
  return table;
}

// Everything that is planted, shared by all channels.
struct recording_plan {
  test_recording_options options;
  std::vector<site_position> sites;
  std::int32_t n_samples = 0;
  std::vector<planted_unit> units;
  std::vector<std::vector<planted_spike>> spikes;       // by unit
  std::vector<shape_table> close_shapes, broad_shapes;  // by unit
  std::vector<planted_unit> far_units;
  std::vector<shape_table> far_shapes;  // dealt out in turn
};

// How far along its drift the probe has come, 0..1: slow at both ends.
double drift_part(const recording_plan& plan, std::int64_t step) {
  const double part = static_cast<double>(step) / sub_sample_steps / plan.n_samples;
  // Smooth at both ends, so that the probe starts and stops without a jerk.
  return part * part * (3 - 2 * part);
}

// Spikes of one unit as a channel sees them.
struct channel_unit {
  const planted_unit* unit;
  const shape_table* close;
  const shape_table* broad;  // null: of one shape everywhere
  float amplitude, broad_share;
  std::int64_t delay;                        // steps
  const std::vector<planted_spike>* spikes;  // null: a far unit, made as they come
  std::size_t next = 0;
  random_stream random{0, 0, 0};
  std::int64_t next_far = 0;
};

// A stretch of one channel being put together: room in front and behind for
// spikes that reach over its ends.
struct channel_canvas {
  std::int32_t room;
  std::vector<float> samples;  // room + chunk + room
  std::int64_t first = 0;      // sample index at samples[room], from 0
};

KESTRELVANE_CLONES void draw_spike(float* out, const float* close, const float* broad,
                                   float close_size, float broad_size, std::int32_t n) {
  for (std::int32_t i = 0; i < n; i += n_lanes) {
    *reinterpret_cast<float_lanes*>(out + i) +=
        close_size * *reinterpret_cast<const float_lanes*>(close + i) +
        broad_size * *reinterpret_cast<const float_lanes*>(broad + i);
  }
}

KESTRELVANE_CLONES void add_samples(float* out, const float* in, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) out[i] += in[i];
}

KESTRELVANE_CLONES void to_bits(const float* microvolts, float bits_per_microvolt, std::int32_t n,
                                std::int16_t* out) {
  for (std::int32_t i = 0; i < n; ++i) {
    const float v = microvolts[i] * bits_per_microvolt;
    // Held to 16 bits, as an amplifier is.
    const float held = v > 32767.0f ? 32767.0f : v < -32768.0f ? -32768.0f : v;
    // Rounds by truncation of a positive number.
    out[i] = static_cast<std::int16_t>(static_cast<std::int32_t>(held + 32768.5f) - 32768);
  }
}

void draw(channel_canvas& canvas, const channel_unit& u, std::int64_t time, float amplitude) {
  const std::int64_t centre = time + u.delay;
  const std::int64_t sample = centre / sub_sample_steps;
  const std::int64_t phase = centre % sub_sample_steps;
  // Step sub_sample_steps is sample 1 of the recording, index 0 here.
  const std::int64_t at = sample - 1 - u.close->before - canvas.first + canvas.room;
  const float broad_size = u.broad == nullptr ? 0.0f : amplitude * u.broad_share;
  const shape_table& broad = u.broad == nullptr ? *u.close : *u.broad;
  draw_spike(canvas.samples.data() + at, u.close->row(phase), broad.row(phase),
             amplitude - broad_size, broad_size, u.close->n);
}

void draw_planted(const recording_plan& plan, channel_canvas& canvas, channel_unit& u,
                  std::int32_t channel, std::int64_t end_step) {
  const std::vector<planted_spike>& spikes = *u.spikes;
  for (; u.next < spikes.size() && spikes[u.next].time < end_step; ++u.next) {
    const planted_spike& spike = spikes[u.next];
    float amplitude = u.amplitude;
    // With drift the size follows the place that the probe has reached.
    if (plan.options.drift_um != 0) {
      const double shift = plan.options.drift_um * drift_part(plan, spike.time);
      amplitude = static_cast<float>(u.unit->amplitude_uv *
                                     relative_size(*u.unit, plan.sites, channel, shift));
    }
    draw(canvas, u, spike.time, amplitude * spike.size);
  }
}

std::int64_t far_interval(const recording_plan& plan, channel_unit& u) {
  const double steps_per_s = double{sub_sample_steps} * plan.options.sampling_frequency;
  return static_cast<std::int64_t>(
      // Refractory time and a random wait: no bursts so far out.
      steps_per_s *
      (0.001 * u.unit->firing.refractory_ms + u.random.exponential(1 / u.unit->firing.rate)));
}

void draw_far(const recording_plan& plan, channel_canvas& canvas, channel_unit& u,
              std::int64_t end_step) {
  while (u.next_far < end_step) {
    const auto size = static_cast<float>(u.random.uniform(0.8, 1.2));
    draw(canvas, u, u.next_far, u.amplitude * size);
    u.next_far += far_interval(plan, u);
  }
}

// Largest size of a unit on a channel over the whole drift.
double largest_size(const recording_plan& plan, const planted_unit& unit, std::int32_t channel) {
  double largest = 0;
  // At nine places of the way, which no unit passes unseen.
  for (int k = 0; k <= 8; ++k) {
    largest = std::max(largest,
                       relative_size(unit, plan.sites, channel, plan.options.drift_um * 0.125 * k));
  }
  return largest;
}

channel_unit on_channel(const recording_plan& plan, const planted_unit& unit,
                        std::int32_t channel) {
  channel_unit u{};
  u.unit = &unit;
  const site_position& site = plan.sites[channel - 1];
  const site_position& best = plan.sites[unit.best_channel - 1];
  const double dx = unit.x - site.x, dy = unit.y - site.y;
  const double distance = std::sqrt(dx * dx + dy * dy + unit.z * unit.z);
  u.amplitude = static_cast<float>(unit.amplitude_uv * relative_size(unit, plan.sites, channel, 0));
  u.broad_share = static_cast<float>(distance / (distance + broadening_um));
  // Held to what the room round a spike allows.
  const double delay_ms = std::clamp(unit.slowness_ms_per_um * (site.y - best.y), -0.6, 0.6);
  u.delay = static_cast<std::int64_t>(
      std::floor(delay_ms * 0.001 * plan.options.sampling_frequency * sub_sample_steps + 0.5));
  return u;
}

std::vector<channel_unit> units_on_channel(const recording_plan& plan, std::int32_t channel) {
  std::vector<channel_unit> seen;
  for (std::size_t i = 0; i < plan.units.size(); ++i) {
    const planted_unit& unit = plan.units[i];
    // What would be seen nowhere on its way is not drawn on this channel at all.
    if (unit.amplitude_uv * largest_size(plan, unit, channel) < least_amplitude_uv) continue;
    channel_unit u = on_channel(plan, unit, channel);
    u.close = &plan.close_shapes[i];
    u.broad = &plan.broad_shapes[i];
    u.spikes = &plan.spikes[i];
    seen.push_back(u);
  }
  for (std::size_t i = 0; i < plan.far_units.size(); ++i) {
    const planted_unit& unit = plan.far_units[i];
    channel_unit u = on_channel(plan, unit, channel);
    if (u.amplitude < least_amplitude_uv) continue;
    u.close = &plan.far_shapes[i % plan.far_shapes.size()];
    // Every channel draws the same train.
    u.random = random_stream(plan.options.seed, for_far_train, i);
    u.next_far = far_interval(plan, u);
    seen.push_back(u);
  }
  return seen;
}

// Sensor noise that brings the channel's noise to what was asked for, the variance
// of the far units' spikes (Campbell's theorem) counted in.
float sensor_noise_uv(const recording_plan& plan, const std::vector<channel_unit>& seen,
                      std::int32_t channel) {
  random_stream random(plan.options.seed, for_channel_noise, static_cast<std::uint64_t>(channel));
  const double wanted = plan.options.noise_uv * random.uniform(0.9, 1.12);
  double far_variance = 0;
  for (const channel_unit& u : seen) {
    if (u.spikes != nullptr) continue;
    far_variance += u.unit->firing.rate * square_of(u.amplitude) * u.close->energy /
                    plan.options.sampling_frequency;
  }
  return static_cast<float>(
      std::sqrt(std::max(wanted * wanted - far_variance, 0.25 * wanted * wanted)));
}

void make_channel(const recording_plan& plan, std::int32_t channel, std::int16_t* out) {
  std::vector<channel_unit> seen = units_on_channel(plan, channel);
  const float noise_uv = sensor_noise_uv(plan, seen, channel);
  noise_maker noise = start_noise(plan.options.seed, plan.sites, channel);
  float block[noise_block];
  channel_canvas canvas{};
  const double rate = plan.options.sampling_frequency;
  canvas.room =
      // The widest spike, its delay, and whole lanes at either end.
      whole_lanes(static_cast<std::int32_t>(rate * 0.001 * (shape_before_ms + shape_after_ms + 1)) +
                  2 * n_lanes);
  canvas.samples.assign(std::size_t{2} * canvas.room + chunk, 0.0f);
  float* samples = canvas.samples.data();
  // A chunk is finished as far as room before its end: what starts later reaches
  // back no further. So what is written lags behind what is drawn by room.
  for (; canvas.first - canvas.room < plan.n_samples; canvas.first += chunk) {
    const std::int64_t end_step = (canvas.first + chunk + 1) * sub_sample_steps;
    for (std::int32_t i = 0; i < chunk && noise_uv > 0; i += noise_block) {
      make_noise(noise, noise_uv, block);
      add_samples(samples + canvas.room + i, block, noise_block);
    }
    for (channel_unit& u : seen) {
      if (u.spikes != nullptr) {
        draw_planted(plan, canvas, u, channel, end_step);
      } else {
        draw_far(plan, canvas, u, end_step);
      }
    }
    const std::int64_t done = canvas.first - canvas.room;
    const double part = static_cast<double>(std::max<std::int64_t>(done, 0)) / plan.n_samples;
    // One gain to a chunk, by where it begins.
    const auto scale =
        static_cast<float>((1 + plan.options.gain_change * part) / double{microvolts_per_bit});
    const std::int64_t begin = std::max<std::int64_t>(done, 0);
    const std::int64_t end = std::min<std::int64_t>(done + chunk, plan.n_samples);
    to_bits(samples + (begin - done), scale, static_cast<std::int32_t>(end - begin), out + begin);
    // What reaches over the end is kept for the next chunk.
    std::copy(samples + chunk, samples + chunk + 2 * canvas.room, samples);
    std::fill(samples + 2 * canvas.room, samples + 2 * canvas.room + chunk, 0.0f);
  }
}

recording_plan make_plan(const test_recording_options& options) {
  recording_plan plan;
  plan.options = options;
  plan.sites = electrode_sites(options.electrode, options.n_channels);
  plan.n_samples = count_test_samples(options);
  plan.units = plan_units(options, plan.sites);
  plan.spikes = plan_spikes(options, plan.units);
  for (const planted_unit& unit : plan.units) {
    plan.close_shapes.push_back(make_shape(unit.shape, 1, options.sampling_frequency));
    plan.broad_shapes.push_back(make_shape(unit.shape, broadening, options.sampling_frequency));
  }
  plan.far_units = plan_background(options, plan.sites);
  const std::size_t n_shapes = std::min<std::size_t>(plan.far_units.size(), n_far_shapes);
  for (std::size_t i = 0; i < n_shapes; ++i) {
    plan.far_shapes.push_back(
        make_shape(plan.far_units[i].shape, broadening, options.sampling_frequency));
  }
  return plan;
}

planted_files describe_files(const recording_plan& plan) {
  planted_files files{plan.options.sampling_frequency,
                      plan.n_samples,
                      microvolts_per_bit,
                      plan.sites,
                      plan.spikes,
                      {}};
  const double seconds = static_cast<double>(plan.n_samples) / plan.options.sampling_frequency;
  for (std::size_t u = 0; u < plan.units.size(); ++u) {
    const planted_unit& unit = plan.units[u];
    const auto n = static_cast<double>(plan.spikes[u].size());
    files.units.push_back({unit.best_channel, unit.x, unit.y,
                           unit.amplitude_uv * mean_size(plan.spikes[u]), n / seconds});
  }
  return files;
}

}  // namespace

bool make_test_recording(const test_recording_options& options, const std::string& path,
                         const making_progress& progress, std::string& problem) {
  problem = validate_test_recording(options);
  if (!problem.empty()) return false;
  const recording_plan plan = make_plan(options);
  const auto make = [&](std::int32_t channel, std::int16_t* out) {
    make_channel(plan, channel, out);
  };
  return write_planted_files(describe_files(plan), path, options.n_threads, make, progress,
                             problem);
}

}  // namespace kestrelvane
