#include "synthesis/family_recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "synthesis/family_plan.h"
#include "synthesis/noise_voice.h"
#include "synthesis/planted_files.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

enum random_purpose : std::uint64_t {
  for_thermal = 401,
  for_field,
  for_common,
  for_shaking,
  for_own_shaking,
  for_hash_train,
  for_channel_factors,
};

constexpr float microvolts_per_bit = 0.25f;
constexpr std::int32_t chunk = 32 * noise_block;  // samples of a channel made at a time
constexpr double least_height_uv = 0.3;           // smaller spikes are not drawn
constexpr double noisy_factor = 6;                // of a bad channel's own noise
constexpr double dead_factor = 0.05;              // of all that a dead one should hear
constexpr double field_reach_um = 35;
constexpr double farthest_field_um = 100;
constexpr double own_shaking = 0.3;  // of a channel, over what all have in common

// The band of an amplifier for spikes; what reaches a site from afar is slower.
constexpr noise_colour thermal_colour{300, 7000};
constexpr noise_colour field_colour{300, 900};
constexpr noise_colour common_colour{300, 3000};
constexpr noise_colour shaking_colour{300, 1200};

// A cell as one channel sees it.
struct channel_cell {
  const cell_model* cell;
  const cell_currents* currents;
  compartment_gains gains;
  const std::vector<planted_spike>* spikes;  // null: a small unit, made as they come
  std::size_t next = 0;
  double rate = 0;
  random_stream random{0, 0, 0};
  std::int64_t next_step = 0;
};

struct voiced {
  noise_voice voice;
  double size_uv;
};

// What one channel is made of.
struct channel_parts {
  std::vector<channel_cell> cells;
  std::vector<voiced> noises;
  std::vector<voiced> shaking;  // under the envelope of the bursts; empty: still
  double common_factor = 1;     // of the hum
  bool is_dead = false;
};

double square(double v) { return v * v; }

// Height of what a channel may see of a cell, from above.
double height_bound(const cell_model& cell, const site_position& site, double shift_um) {
  const compartment_gains gains = gains_at(cell, site, shift_um);
  // Currents add up to nothing: a common part of the gains does not show.
  double bound = 0, mean = 0;
  for (const float g : gains.of) mean += double{g} / n_compartments;
  for (const float g : gains.of) bound += std::fabs(double{g} - mean);
  return 0.5 * bound;
}

bool is_seen(const family_plan& plan, const cell_model& cell, const site_position& site) {
  const family_options& o = plan.options;
  const double reach = 0.5 * (o.drift_um + o.jump_um) + o.sway_um;
  for (const double shift : {-reach, 0.0, reach}) {
    if (height_bound(cell, site, shift) >= least_height_uv) return true;
  }
  return false;
}

std::int64_t hash_interval(const family_plan& plan, channel_cell& c) {
  const double steps_per_s = double{sub_sample_steps} * plan.options.sampling_frequency;
  // 3 ms apart at least.
  return static_cast<std::int64_t>(steps_per_s * (0.003 + c.random.exponential(1 / c.rate)));
}

void add_cells(const family_plan& plan, const site_position& site, channel_parts& parts) {
  for (std::size_t u = 0; u < plan.units.size(); ++u) {
    const cell_model& cell = plan.units[u].cell;
    if (!is_seen(plan, cell, site)) continue;
    channel_cell c{&cell, &plan.currents[u], gains_at(cell, site, 0), &plan.spikes[u]};
    parts.cells.push_back(c);
  }
}

// Returns the variance of what they sound like together (Campbell's theorem).
double add_hash(const family_plan& plan, const site_position& site, channel_parts& parts) {
  double variance = 0;
  for (std::size_t u = 0; u < plan.hash.size(); ++u) {
    const hash_unit& unit = plan.hash[u];
    if (height_bound(unit.cell, site, 0) < least_height_uv) continue;
    channel_cell c{&unit.cell, &plan.hash_currents[unit.shape], gains_at(unit.cell, site, 0),
                   nullptr};
    c.rate = unit.rate;
    // Every channel draws the same train.
    c.random = random_stream(plan.seed, for_hash_train, u);
    c.next_step = hash_interval(plan, c);
    variance += c.rate * spike_energy(*c.currents, c.gains) / plan.options.sampling_frequency;
    parts.cells.push_back(c);
  }
  return variance;
}

noise_source source_of(const family_plan& plan, std::uint64_t purpose, std::uint64_t index) {
  noise_source source = start_source(plan.seed, purpose, index);
  source.weight = 1;
  return source;
}

// Sources stand at every other site and are heard the less the farther away.
std::vector<noise_source> field_sources(const family_plan& plan, const site_position& here) {
  std::vector<noise_source> sources;
  for (std::size_t i = 0; i < plan.sites.size(); i += 2) {
    const double distance =
        std::sqrt(square(here.x - plan.sites[i].x) + square(here.y - plan.sites[i].y));
    if (distance > farthest_field_um) continue;
    sources.push_back(source_of(plan, for_field, i));
    sources.back().weight = static_cast<float>(1 / (1 + square(distance / field_reach_um)));
  }
  return sources;
}

void add_noises(const family_plan& plan, std::int32_t c, double hash_variance,
                channel_parts& parts) {
  const family_options& o = plan.options;
  random_stream random(plan.seed, for_channel_factors, c);
  const double factor = random.uniform(0.85, 1.15), shaken = random.uniform(0.6, 1.4);
  parts.common_factor = factor;
  const auto add = [&](std::vector<voiced>& to, std::vector<noise_source> sources,
                       const noise_colour& colour, double size_uv) {
    to.push_back({start_voice(std::move(sources), colour, o.sampling_frequency), size_uv});
  };
  const double variance = square(plan.noise_uv[c]);
  std::vector<noise_source> field = field_sources(plan, plan.sites[c]);
  const double field_variance = field.empty() ? 0 : o.field_part * variance;
  // What is left to the site itself; a tenth at least, whatever the small units make.
  double own = std::sqrt(std::max(variance - field_variance - hash_variance, 0.1 * variance));
  if (plan.states[c] == channel_state::noisy) own = noisy_factor * plan.noise_uv[c];
  add(parts.noises, {source_of(plan, for_thermal, c)}, thermal_colour, own);
  if (!field.empty()) add(parts.noises, field, field_colour, std::sqrt(field_variance));
  if (o.common_part > 0) {
    add(parts.noises, {source_of(plan, for_common, 0)}, common_colour,
        factor * o.common_part * o.noise_uv);
  }
  if (plan.shakes.empty() || c >= o.shaken_part * o.n_channels) return;
  add(parts.shaking, {source_of(plan, for_shaking, 0)}, shaking_colour, shaken);
  add(parts.shaking, {source_of(plan, for_own_shaking, c)}, shaking_colour, shaken * own_shaking);
}

channel_parts parts_of(const family_plan& plan, std::int32_t c) {
  channel_parts parts;
  add_cells(plan, plan.sites[c], parts);
  const double hash_variance = add_hash(plan, plan.sites[c], parts);
  add_noises(plan, c, hash_variance, parts);
  parts.is_dead = plan.states[c] == channel_state::dead;
  return parts;
}

// A stretch of one channel being put together: room in front and behind for
// spikes that reach over its ends.
struct stretch {
  std::int32_t room;
  std::vector<float> samples;  // room + chunk + room
  std::int64_t first = 0;      // sample at samples[room], from 0
};

void draw(stretch& s, const channel_cell& c, const compartment_gains& gains, std::int64_t step,
          float size) {
  // Step sub_sample_steps is sample 1 of the recording, index 0 here.
  const std::int64_t at = step / sub_sample_steps - 1 - c.currents->before - s.first + s.room;
  draw_potential(*c.currents, gains, size, step % sub_sample_steps, s.samples.data() + at);
}

void draw_until(const family_plan& plan, const site_position& site, stretch& s, channel_cell& c,
                std::int64_t end_step) {
  const family_options& o = plan.options;
  const bool moves = o.drift_um != 0 || o.jump_um != 0 || o.sway_um != 0;
  if (c.spikes == nullptr) {
    for (; c.next_step < end_step; c.next_step += hash_interval(plan, c)) {
      draw(s, c, c.gains, c.next_step, static_cast<float>(c.random.uniform(0.8, 1.2)));
    }
    return;
  }
  for (; c.next < c.spikes->size() && (*c.spikes)[c.next].time < end_step; ++c.next) {
    const planted_spike& spike = (*c.spikes)[c.next];
    if (moves) c.gains = gains_at(*c.cell, site, tissue_shift(plan, spike.time));
    draw(s, c, c.gains, spike.time, spike.size);
  }
}

// How hard it shakes at each sample: bursts swell and die away.
void add_shaking(const family_plan& plan, stretch& s, channel_parts& parts, std::int32_t begin) {
  if (parts.shaking.empty()) return;
  float numbers[noise_block] = {};
  for (voiced& v : parts.shaking) add_voice(v.voice, static_cast<float>(v.size_uv), numbers);
  const std::int64_t first = s.first + begin;
  for (const shake& burst : plan.shakes) {
    const std::int64_t from = std::max(burst.first, first);
    const std::int64_t to = std::min(burst.first + burst.n, first + noise_block);
    for (std::int64_t i = from; i < to; ++i) {
      const double part = static_cast<double>(i - burst.first) / burst.n;
      const auto size = static_cast<float>(burst.size_uv * 4 * part * (1 - part));
      s.samples[s.room + (i - s.first)] += size * numbers[i - first];
    }
  }
}

void add_disturbances(const family_plan& plan, stretch& s, channel_parts& parts) {
  for (std::int32_t i = 0; i < chunk; i += noise_block) {
    float* out = s.samples.data() + s.room + i;
    for (voiced& v : parts.noises) add_voice(v.voice, static_cast<float>(v.size_uv), out);
    add_shaking(plan, s, parts, i);
  }
  const auto factor = static_cast<float>(parts.common_factor);
  const auto period = static_cast<std::int64_t>(plan.hum.size());
  for (std::int32_t i = 0; i < chunk && period > 0; ++i) {
    s.samples[s.room + i] += factor * plan.hum[(s.first + i) % period];
  }
}

void write_bits(const family_plan& plan, const channel_parts& parts, const float* microvolts,
                std::int64_t n, std::int16_t* out) {
  const double clip = plan.options.clip_uv > 0 ? plan.options.clip_uv : 8000;
  const auto limit = static_cast<float>(clip);
  const float factor = parts.is_dead ? static_cast<float>(dead_factor) : 1.0f;
  for (std::int64_t i = 0; i < n; ++i) {
    const float v = std::clamp(factor * microvolts[i], -limit, limit) / microvolts_per_bit;
    // Rounds by truncation of a positive number.
    out[i] = static_cast<std::int16_t>(static_cast<std::int32_t>(v + 32768.5f) - 32768);
  }
}

void make_channel(const family_plan& plan, std::int32_t channel, std::int16_t* out) {
  channel_parts parts = parts_of(plan, channel - 1);
  const site_position& site = plan.sites[channel - 1];
  stretch s{};
  // The longest spike and whole lanes at either end; 5 ms hold it at any rate.
  s.room = 6 * plan.options.sampling_frequency / 1000 + 2 * 16;
  s.samples.assign(std::size_t{2} * s.room + chunk, 0.0f);
  float* samples = s.samples.data();
  // A chunk is finished as far as room before its end: what starts later reaches back no
  // further. So what is written lags behind what is drawn by room.
  for (; s.first - s.room < plan.n_samples; s.first += chunk) {
    add_disturbances(plan, s, parts);
    const std::int64_t end_step = (s.first + chunk + 1) * sub_sample_steps;
    for (channel_cell& c : parts.cells) draw_until(plan, site, s, c, end_step);
    const std::int64_t done = s.first - s.room;
    const std::int64_t begin = std::max<std::int64_t>(done, 0);
    const std::int64_t end = std::min<std::int64_t>(done + chunk, plan.n_samples);
    write_bits(plan, parts, samples + (begin - done), end - begin, out + begin);
    // What reaches over the end is kept for the next chunk.
    std::copy(samples + chunk, samples + chunk + 2 * s.room, samples);
    std::fill(samples + 2 * s.room, samples + 2 * s.room + chunk, 0.0f);
  }
}

planted_files describe_files(const family_plan& plan) {
  planted_files files{plan.options.sampling_frequency,
                      plan.n_samples,
                      microvolts_per_bit,
                      plan.sites,
                      plan.spikes,
                      {}};
  for (std::size_t u = 0; u < plan.units.size(); ++u) {
    const family_unit& unit = plan.units[u];
    const double size = mean_size(plan.spikes[u]);
    const double rate = static_cast<double>(plan.spikes[u].size()) / plan.options.seconds;
    files.units.push_back({unit.best_channel, unit.cell.x, unit.cell.y, size * unit.height_uv, rate,
                           size * unit.snr});
  }
  return files;
}

}  // namespace

std::string family_list() {
  std::string text;
  for (const recording_family& family : recording_families()) {
    text += fmt::format("{:<20}{}\n", family.name, family.purpose);
  }
  return text;
}

bool make_family_recording(const family_options& options, std::int64_t seed, std::int32_t n_threads,
                           const std::string& path, const making_progress& progress,
                           std::string& problem) {
  const double n_samples = options.seconds * options.sampling_frequency;
  // Negated, so that what is no number is refused as well. 2.1e9 samples still fit 32 bits.
  if (!(n_samples >= options.sampling_frequency && n_samples <= 2.1e9)) {
    problem =
        fmt::format("minutes must be from 0.017 to {:.1f} at the sampling rate of this family",
                    2.1e9 / 60 / options.sampling_frequency);
    return false;
  }
  const family_plan plan = plan_family(options, seed, n_threads);
  const auto make = [&](std::int32_t channel, std::int16_t* out) {
    make_channel(plan, channel, out);
  };
  return write_planted_files(describe_files(plan), path, n_threads, make, progress, problem);
}

}  // namespace kestrelvane
