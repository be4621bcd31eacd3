#include "synthesis/planted_units.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "numerics/portable_math.h"
#include "session/limits.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

enum random_purpose : std::uint64_t {
  for_units = 1,
  for_spikes = 2,
  for_background = 3,
  for_overlaps = 4
};

constexpr double least_separation_um = 15;
constexpr double least_rate = 0.5;
constexpr double highest_rate = 30;
constexpr std::int32_t background_units_per_channel = 10;
constexpr std::int32_t longest_burst = 5;
constexpr double burst_goes_on = 0.45;

struct electrode_row {
  const char* name;
  test_electrode electrode;
};

constexpr std::array<electrode_row, 5> electrodes = {{
    {"tetrode", test_electrode::tetrode},
    {"polytrode", test_electrode::polytrode},
    {"linear", test_electrode::linear},
    {"utah", test_electrode::utah},
    {"neuropixels", test_electrode::neuropixels},
}};

struct whole_position {
  std::int32_t x, y;
};

// Channel i, from 0, of n.
whole_position site_of(test_electrode electrode, std::int32_t i, std::int32_t n) {
  const auto side = static_cast<std::int32_t>(std::ceil(std::sqrt(static_cast<double>(n))));
  switch (electrode) {
    case test_electrode::tetrode:
      return {25 * (i % 2), 25 * (i % 4 / 2) + 300 * (i / 4)};
    case test_electrode::polytrode:
      return {56 * (i % 2), 65 * (i / 2) + 32 * (i % 2)};
    case test_electrode::linear:
      return {0, 50 * i};
    case test_electrode::utah:
      return {400 * (i % side), 400 * (i / side)};
    case test_electrode::neuropixels:
      break;
  }
  // The staggered columns of the probe, by channel modulo four.
  constexpr std::int32_t columns[4] = {43, 11, 59, 27};
  return {columns[i % 4], 20 * (i / 2)};
}

double square(double v) { return v * v; }

double squared_distance(const planted_unit& unit, const site_position& site, double shift_um) {
  return square(unit.x - site.x) + square(unit.y + shift_um - site.y) + square(unit.z);
}

// Falls with the square of the distance once outside the reach.
double size_at(const planted_unit& unit, const site_position& site, double shift_um) {
  return 1 / (1 + squared_distance(unit, site, shift_um) / square(unit.reach_um));
}

void find_best_channel(planted_unit& unit, const std::vector<site_position>& sites) {
  std::size_t best = 0;
  // The lowest of equally near ones.
  for (std::size_t c = 1; c < sites.size(); ++c) {
    if (squared_distance(unit, sites[c], 0) < squared_distance(unit, sites[best], 0)) best = c;
  }
  unit.best_channel = static_cast<std::int32_t>(best) + 1;
}

void place_near_a_site(planted_unit& unit, const std::vector<site_position>& sites, double beside,
                       double z_min, double z_max, random_stream& random) {
  const site_position& site = sites[random.below(static_cast<std::int32_t>(sites.size()))];
  unit.x = site.x + random.uniform(-beside, beside);
  unit.y = site.y + random.uniform(-beside, beside);
  unit.z = random.uniform(z_min, z_max);
  find_best_channel(unit, sites);
}

bool stands_apart(const planted_unit& unit, const std::vector<planted_unit>& others) {
  return std::none_of(others.begin(), others.end(), [&](const planted_unit& o) {
    return square(unit.x - o.x) + square(unit.y - o.y) + square(unit.z - o.z) <
           square(least_separation_um);
  });
}

// Fast spikes of interneurons, three in four broader ones of pyramidal cells.
void choose_cell_type(planted_unit& unit, double median_rate, random_stream& random) {
  const bool fast = random.chance(0.25);
  spike_shape& shape = unit.shape;
  shape.trough_ms = fast ? random.uniform(0.045, 0.065) : random.uniform(0.065, 0.105);
  shape.rise_ms = fast ? random.uniform(0.2, 0.35) : random.uniform(0.4, 0.8);
  shape.peak = fast ? random.uniform(0.25, 0.5) : random.uniform(0.15, 0.4);
  shape.first_peak = random.chance(0.3) ? random.uniform(0.08, 0.3) : 0;
  // A wide spread of rates, as cells have: the median is that which was asked for.
  unit.firing.rate = std::clamp(random.log_normal(fast ? 1.5 * median_rate : median_rate, 0.8),
                                least_rate, std::max(least_rate, highest_rate));
  unit.firing.refractory_ms = fast ? random.uniform(1.2, 2.0) : random.uniform(2.0, 3.5);
  unit.firing.burst_chance = !fast && random.chance(0.4) ? random.uniform(0.05, 0.25) : 0;
}

// Spikes that a burst adds to its first one, on average.
double mean_burst_extra() {
  // Every further spike needs one more yes.
  double mean = 0, reached = 1;
  for (std::int32_t k = 1; k < longest_burst; ++k, reached *= burst_goes_on) mean += reached;
  return mean;
}

struct train_maker {
  const firing_pattern& firing;
  random_stream random;
  double steps_per_ms;
  std::int64_t first, last;  // steps between which spikes may fall
  std::vector<planted_spike> spikes;

  float size(double times) {
    return static_cast<float>(times * portable_exp(firing.size_jitter * random.normal()));
  }

  void make() {
    const double extra = firing.burst_chance * mean_burst_extra();
    // The wait is so much longer as bursts are to add spikes, so that the mean rate holds.
    const double mean_wait_ms = 1000 * (1 + extra) / firing.rate;
    // The refractory time and the bursts are taken off; a tenth of a ms is left at least.
    const double random_wait_ms = std::max(0.1, mean_wait_ms - firing.refractory_ms - 5 * extra);
    double at = static_cast<double>(first) + steps_per_ms * random.exponential(mean_wait_ms);
    while (static_cast<std::int64_t>(at) <= last) {
      spikes.push_back({static_cast<std::int64_t>(at), size(1)});
      if (random.chance(firing.burst_chance)) at = add_burst(at);
      // A step more, so that two spikes are never closer than the refractory time after rounding.
      at += steps_per_ms * (firing.refractory_ms + random.exponential(random_wait_ms)) + 1;
    }
  }

  // Each spike of a burst is smaller than the one before, the more so the sooner
  // it comes. Returns the time of the last.
  double add_burst(double at) {
    double times = 1;
    for (std::int32_t k = 1; k < longest_burst; ++k) {
      // Within a burst a few ms, however short the cell's refractory time.
      const double wait_ms = std::max(firing.refractory_ms, 3.0) + random.exponential(2);
      at += steps_per_ms * wait_ms + 1;
      if (static_cast<std::int64_t>(at) > last) break;
      times *= 1 - firing.burst_fall * portable_exp(-wait_ms / 8);
      spikes.push_back({static_cast<std::int64_t>(at), size(times)});
      if (!random.chance(burst_goes_on)) break;
    }
    return at;
  }
};

}  // namespace

bool electrode_from_name(const std::string& name, test_electrode& electrode) {
  for (const electrode_row& row : electrodes) {
    if (name != row.name) continue;
    electrode = row.electrode;
    return true;
  }
  return false;
}

std::string electrode_names() {
  std::string names;
  for (const electrode_row& row : electrodes) {
    names += (names.empty() ? "" : ", ") + std::string(row.name);
  }
  return names;
}

std::string validate_test_recording(const test_recording_options& o) {
  if (o.n_channels < 1 || o.n_channels > channel_limit) {
    return fmt::format("channels must be from 1 to {}", channel_limit);
  }
  const whole_position last = site_of(o.electrode, o.n_channels - 1, o.n_channels);
  if (last.x > INT16_MAX || last.y > INT16_MAX) {
    return "this electrode would be longer than 32767 µm: choose fewer channels";
  }
  if (o.sampling_frequency < 5000 || o.sampling_frequency > 200000) {
    return "the sampling rate must be from 5000 to 200000 Hz";
  }
  const double n_samples = o.minutes * 60 * o.sampling_frequency;
  // Negated, so that what is no number is refused as well. 2.1e9 samples still fit 32 bits.
  if (!(n_samples >= o.sampling_frequency && n_samples <= 2.1e9)) {
    return fmt::format("minutes must be from 0.017 to {:.1f} at this sampling rate",
                       2.1e9 / 60 / o.sampling_frequency);
  }
  if (o.n_units < 0 || o.n_units >= cluster_limit) return "units must be from 0 to 3999";
  if (!(o.amplitude_min_uv > 0 && o.amplitude_max_uv >= o.amplitude_min_uv &&
        o.amplitude_max_uv <= 5000)) {
    return "amplitudes must be above 0 and at most 5000 µV, the lower one first";
  }
  if (!(o.noise_uv >= 0 && o.noise_uv <= 1000)) return "the noise must be from 0 to 1000 µV";
  if (!(o.median_rate > 0 && o.median_rate <= 100)) return "the firing rate must be up to 100 Hz";
  if (!(std::fabs(o.drift_um) <= 1000)) return "the drift must be at most 1000 µm";
  if (!(o.gain_change > -1 && o.gain_change <= 1)) return "the gain change must be from -1 to 1";
  if (!(o.overlap >= 0 && o.overlap <= 0.9)) return "the overlap must be from 0 to 0.9";
  return {};
}

std::int32_t count_test_samples(const test_recording_options& options) {
  return static_cast<std::int32_t>(
      std::floor(options.minutes * 60 * options.sampling_frequency + 0.5));
}

std::vector<site_position> electrode_sites(test_electrode electrode, std::int32_t n_channels) {
  std::vector<site_position> sites;
  for (std::int32_t i = 0; i < n_channels; ++i) {
    const whole_position p = site_of(electrode, i, n_channels);
    sites.push_back({static_cast<std::int16_t>(p.x), static_cast<std::int16_t>(p.y)});
  }
  return sites;
}

double relative_size(const planted_unit& unit, const std::vector<site_position>& sites,
                     std::int32_t channel, double shift_um) {
  // Over the best site without drift, where the amplitude was set.
  return size_at(unit, sites[channel - 1], shift_um) /
         size_at(unit, sites[unit.best_channel - 1], 0);
}

std::vector<planted_unit> plan_units(const test_recording_options& options,
                                     const std::vector<site_position>& sites) {
  std::vector<planted_unit> units;
  for (std::int32_t u = 0; u < options.n_units; ++u) {
    // A stream of its own to each unit: one unit more changes none of the others.
    random_stream random(options.seed, for_units, u);
    planted_unit unit{};
    // A crowded electrode gives up on the distance after many tries.
    for (int tries = 0; tries < 500; ++tries) {
      place_near_a_site(unit, sites, 32, 8, 32, random);
      if (stands_apart(unit, units)) break;
    }
    unit.amplitude_uv = random.log_uniform(options.amplitude_min_uv, options.amplitude_max_uv);
    unit.reach_um = random.uniform(26, 38);
    // Half a metre to two metres a second, up or down the dendrite.
    unit.slowness_ms_per_um = random.uniform(0.0005, 0.002) * (random.chance(0.5) ? 1.0 : -1.0);
    unit.firing.size_jitter = random.uniform(0.02, 0.06);
    choose_cell_type(unit, options.median_rate, random);
    units.push_back(unit);
  }
  return units;
}

std::vector<planted_spike> make_train(const firing_pattern& firing, random_stream random,
                                      double steps_per_ms, std::int64_t first, std::int64_t last) {
  train_maker maker{firing, random, steps_per_ms, first, last, {}};
  maker.make();
  return std::move(maker.spikes);
}

void bring_spikes(std::vector<planted_spike>& own, const std::vector<planted_spike>& other,
                  double chance, const std::function<double(random_stream&)>& delay_ms,
                  double refractory_ms, double steps_per_ms, random_stream& random) {
  const auto refractory = static_cast<std::int64_t>(steps_per_ms * refractory_ms);
  std::vector<planted_spike> brought;
  for (const planted_spike& spike : other) {
    if (!random.chance(chance)) continue;
    const std::int64_t time =
        spike.time + static_cast<std::int64_t>(delay_ms(random) * steps_per_ms);
    if (!brought.empty() && time - brought.back().time < refractory) continue;
    brought.push_back({time, static_cast<float>(portable_exp(0.06 * random.normal()))});
  }
  const auto gives_way = [&](const planted_spike& spike) {
    const auto next =
        std::lower_bound(brought.begin(), brought.end(), spike.time - refractory,
                         [](const planted_spike& s, std::int64_t time) { return s.time < time; });
    return next != brought.end() && next->time <= spike.time + refractory;
  };
  std::erase_if(own, gives_way);
  std::vector<planted_spike> both;
  std::merge(own.begin(), own.end(), brought.begin(), brought.end(), std::back_inserter(both),
             [](const planted_spike& a, const planted_spike& b) { return a.time < b.time; });
  own = std::move(both);
}

namespace {

// Of the units before it, whose trains are settled; -1: there is none.
std::ptrdiff_t nearest_before(const std::vector<planted_unit>& units, std::size_t u) {
  std::ptrdiff_t nearest = -1;
  double least = std::numeric_limits<double>::infinity();
  for (std::size_t v = 0; v < u; ++v) {
    const double distance = square(units[u].x - units[v].x) + square(units[u].y - units[v].y);
    if (distance < least) least = distance, nearest = static_cast<std::ptrdiff_t>(v);
  }
  return nearest;
}

}  // namespace

std::vector<std::vector<planted_spike>> plan_spikes(const test_recording_options& options,
                                                    const std::vector<planted_unit>& units) {
  const double steps_per_ms = options.sampling_frequency * 0.001 * sub_sample_steps;
  // 5 ms at either end, so that no waveform is cut.
  const auto margin = static_cast<std::int64_t>(5 * steps_per_ms);
  const std::int64_t end = std::int64_t{count_test_samples(options)} * sub_sample_steps;
  std::vector<std::vector<planted_spike>> trains;
  for (std::size_t u = 0; u < units.size(); ++u) {
    trains.push_back(make_train(units[u].firing, random_stream(options.seed, for_spikes, u),
                                steps_per_ms, sub_sample_steps + margin, end - margin));
    const std::ptrdiff_t other = options.overlap > 0 ? nearest_before(units, u) : -1;
    if (other < 0) continue;
    random_stream random(options.seed, for_overlaps, u);
    bring_spikes(
        trains[u], trains[other], options.overlap,
        [](random_stream& of) { return of.uniform(-0.5, 0.5); }, units[u].firing.refractory_ms,
        steps_per_ms, random);
  }
  return trains;
}

std::vector<planted_unit> plan_background(const test_recording_options& options,
                                          const std::vector<site_position>& sites) {
  std::vector<planted_unit> units;
  if (options.noise_uv == 0) return units;
  const std::int32_t n = background_units_per_channel * options.n_channels;
  for (std::int32_t u = 0; u < n; ++u) {
    random_stream random(options.seed, for_background, u);
    planted_unit unit{};
    // Farther out than the sorted ones: too small to be told apart.
    place_near_a_site(unit, sites, 60, 60, 140, random);
    unit.amplitude_uv = options.noise_uv * random.log_uniform(0.4, 2.5);
    unit.reach_um = 40;
    choose_cell_type(unit, 6, random);
    unit.firing.size_jitter = 0.1;
    units.push_back(unit);
  }
  return units;
}

}  // namespace kestrelvane
