#include "synthesis/family_plan.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <numbers>

#include "numerics/parallel.h"
#include "numerics/portable_math.h"
#include "synthesis/random_stream.h"

namespace kestrelvane {

namespace {

enum random_purpose : std::uint64_t {
  for_cells = 301,
  for_trains,
  for_levels,
  for_walks,
  for_partners,
  for_channels,
  for_hash,
  for_hash_shapes,
  for_shakes,
  for_hum,
};

constexpr double least_separation_um = 20;  // of two units
constexpr double pair_separation_um = 20;
constexpr double neighbour_um = 50;  // partners that are not alike stand no farther apart
constexpr double margin_ms = 5;      // without spikes at either end
constexpr double burst_chance = 0.2;
constexpr double walk_s = 10;  // from one size to the next
constexpr double sway_s = 20;
constexpr std::size_t n_hash_shapes = 16;
constexpr double mains_hz = 50;
constexpr std::int32_t lowest_harmonic = 7, highest_harmonic = 25;

double square(double v) { return v * v; }

double steps_per_ms(const family_plan& plan) {
  return 0.001 * plan.options.sampling_frequency * sub_sample_steps;
}

void plan_channels(family_plan& plan) {
  const std::int32_t n = plan.options.n_channels;
  random_stream random(plan.seed, for_channels, 0);
  for (std::int32_t c = 0; c < n; ++c) {
    plan.noise_uv.push_back(plan.options.noise_uv * random.uniform(0.9, 1.12));
  }
  plan.states.assign(n, channel_state::good);
  for (std::int32_t k = 0; k < plan.options.n_bad_channels;) {
    channel_state& state = plan.states[random.below(n)];
    if (state != channel_state::good) continue;
    state = k++ % 2 == 0 ? channel_state::noisy : channel_state::dead;
  }
}

// Somewhere off a site, in a plane in front of the probe.
void place_cell(cell_model& cell, const family_plan& plan, double beside, double z_min,
                double z_max, random_stream& random) {
  const site_position& site = plan.sites[random.below(plan.options.n_channels)];
  cell.x = site.x + random.uniform(-beside, beside);
  cell.y = site.y + random.uniform(-beside, beside);
  cell.z = random.uniform(z_min, z_max);
}

double squared_distance(const cell_model& a, const cell_model& b) {
  return square(a.x - b.x) + square(a.y - b.y) + square(a.z - b.z);
}

bool stands_apart(const cell_model& cell, const std::vector<family_unit>& others) {
  return std::none_of(others.begin(), others.end(), [&](const family_unit& o) {
    return squared_distance(cell, o.cell) < square(least_separation_um);
  });
}

// The good channel where the cell is largest, and how large it is there.
void look_from_sites(family_unit& unit, const std::vector<current_set>& trace,
                     const family_plan& plan) {
  spike_peak best{};
  for (std::int32_t c = 0; c < plan.options.n_channels; ++c) {
    const double distance = std::fabs(unit.cell.y - plan.sites[c].y);
    // Farther sites see less of it, whatever its form.
    if (plan.states[c] != channel_state::good || distance > 100) continue;
    const spike_peak peak = find_peak(unit.cell, trace, plan.sites[c]);
    if (peak.height <= best.height) continue;
    best = peak;
    unit.best_channel = c + 1;
  }
  unit.zero_ms = best.ms;
  unit.height_uv = best.height;
}

void set_strength(family_unit& unit, const family_plan& plan, double snr) {
  const double noise = plan.noise_uv[unit.best_channel - 1];
  unit.cell.strength *= snr * noise / unit.height_uv;
  unit.height_uv = snr * noise;
  unit.snr = snr;
}

void choose_firing(firing_pattern& firing, const family_options& o, random_stream& random) {
  firing.rate = std::clamp(random.log_normal(o.median_rate, 0.7), o.lowest_rate, o.highest_rate);
  firing.refractory_ms = random.uniform(1.8, 3);
  firing.burst_chance = random.chance(o.burst_share) ? burst_chance : 0;
  firing.burst_fall = o.burst_fall;
  firing.size_jitter = o.size_jitter * random.uniform(0.7, 1.3);
}

bool is_second(const family_options& o, std::int32_t u) {
  return o.pairs != pair_kind::none && u % 2 == 1 && u / 2 < o.n_pairs;
}

bool pairs_are_alike(const family_options& o) {
  return o.pairs == pair_kind::alike || o.pairs == pair_kind::relay;
}

// The same cell farther along the probe, on the side where there is more of it.
void place_alike(family_unit& unit, const family_unit& first, const family_plan& plan) {
  unit.cell = first.cell;
  const double middle = 0.5 * (plan.sites.front().y + plan.sites.back().y);
  unit.cell.y += first.cell.y < middle ? pair_separation_um : -pair_separation_um;
  look_from_sites(unit, trace_currents(unit.cell), plan);
  unit.snr = unit.height_uv / plan.noise_uv[unit.best_channel - 1];
  // Of the very same currents, whose time 0 is that of the first.
  unit.zero_ms = first.zero_ms;
}

void place_unit(family_unit& unit, const family_plan& plan, random_stream& random) {
  const bool near_other = is_second(plan.options, static_cast<std::int32_t>(plan.units.size()));
  unit.cell = random_cell(random);
  // A crowded electrode gives up on the distance after many tries.
  for (int tries = 0; tries < 500; ++tries) {
    place_cell(unit.cell, plan, 25, 12, 45, random);
    if (!stands_apart(unit.cell, plan.units)) continue;
    if (!near_other || squared_distance(unit.cell, plan.units.back().cell) < square(neighbour_um)) {
      break;
    }
  }
  look_from_sites(unit, trace_currents(unit.cell), plan);
  set_strength(unit, plan, random.log_uniform(plan.options.snr_min, plan.options.snr_max));
}

void plan_units_of(family_plan& plan) {
  for (std::int32_t u = 0; u < plan.options.n_units; ++u) {
    random_stream random(plan.seed, for_cells, u);
    family_unit unit;
    if (is_second(plan.options, u) && pairs_are_alike(plan.options)) {
      place_alike(unit, plan.units.back(), plan);
    } else {
      place_unit(unit, plan, random);
    }
    choose_firing(unit.firing, plan.options, random);
    plan.units.push_back(unit);
  }
}

// Sizes of the spikes of a unit beyond what bursts and jitter make of them.
void change_sizes(family_plan& plan, std::size_t u) {
  random_stream levels(plan.seed, for_levels, u), walk(plan.seed, for_walks, u);
  const double steps_per_knot = 1000 * walk_s * steps_per_ms(plan);
  double from = 0, to = plan.options.size_walk * walk.normal();
  std::int64_t knot = 0;
  for (planted_spike& spike : plan.spikes[u]) {
    if (levels.chance(0.5)) spike.size *= static_cast<float>(plan.options.lower_level);
    double place = static_cast<double>(spike.time) / steps_per_knot - static_cast<double>(knot);
    for (; place >= 1; place -= 1, ++knot) {
      from = to;
      to += plan.options.size_walk * walk.normal();
    }
    // From one knot to the next in a straight line.
    spike.size *= static_cast<float>(portable_exp(from + (to - from) * place));
  }
}

// Spikes of the second of a pair that the first brings with it.
void bring_partners(family_plan& plan, std::size_t first) {
  random_stream random(plan.seed, for_partners, first);
  const auto delay_ms = [&](random_stream& of) {
    return plan.options.pairs == pair_kind::synchronous ? 1 + 0.15 * of.normal()
                                                        : of.uniform(-1, 1);
  };
  bring_spikes(plan.spikes[first + 1], plan.spikes[first], plan.options.partner_chance, delay_ms,
               plan.units[first + 1].firing.refractory_ms, steps_per_ms(plan), random);
}

void plan_trains(family_plan& plan) {
  const auto margin = static_cast<std::int64_t>(margin_ms * steps_per_ms(plan));
  const std::int64_t begin = sub_sample_steps + margin;
  const std::int64_t end = std::int64_t{plan.n_samples} * sub_sample_steps - margin;
  const family_options& o = plan.options;
  for (std::size_t u = 0; u < plan.units.size(); ++u) {
    std::int64_t first = begin, last = end;
    if (o.pairs == pair_kind::relay && static_cast<std::int32_t>(u / 2) < o.n_pairs) {
      // One stream for both, so that they agree on when.
      random_stream random(plan.seed, for_partners, u / 2);
      const auto turn =
          static_cast<std::int64_t>(static_cast<double>(end) * random.uniform(0.35, 0.65));
      (u % 2 == 0 ? last : first) = turn;
    }
    plan.spikes.push_back(make_train(plan.units[u].firing, random_stream(plan.seed, for_trains, u),
                                     steps_per_ms(plan), first, last));
    change_sizes(plan, u);
  }
  if (o.partner_chance == 0) return;
  for (std::int32_t k = 0; k < o.n_pairs; ++k) bring_partners(plan, std::size_t{2} * k);
}

// Small ones everywhere, most of them lost in the noise that they make.
void plan_hash(family_plan& plan) {
  const std::int32_t n = plan.options.n_channels * plan.options.hash_per_channel;
  std::vector<cell_model> shapes;
  std::vector<std::vector<current_set>> traces;
  for (std::size_t s = 0; s < n_hash_shapes && n > 0; ++s) {
    random_stream random(plan.seed, for_hash_shapes, s);
    shapes.push_back(random_cell(random));
    traces.push_back(trace_currents(shapes.back()));
  }
  for (std::int32_t u = 0; u < n; ++u) {
    random_stream random(plan.seed, for_hash, u);
    hash_unit unit;
    unit.shape = static_cast<std::size_t>(u) % n_hash_shapes;
    unit.cell = shapes[unit.shape];
    place_cell(unit.cell, plan, 60, 30, 90, random);
    family_unit seen;
    seen.cell = unit.cell;
    look_from_sites(seen, traces[unit.shape], plan);
    set_strength(seen, plan, random.log_uniform(0.5, 2.3));
    unit.cell.strength = seen.cell.strength;
    unit.rate = std::clamp(random.log_normal(7, 0.5), 2.0, 20.0);
    plan.hash.push_back(unit);
  }
  plan.hash_currents.resize(shapes.size());
}

void make_all_currents(family_plan& plan, std::int32_t n_threads) {
  const auto n_units = static_cast<std::int64_t>(plan.units.size());
  const auto n_shapes = static_cast<std::int64_t>(plan.hash_currents.size());
  plan.currents.resize(plan.units.size());
  parallel_for_dealt(n_threads, 0, n_units + n_shapes - 1, [&](std::int64_t i, std::int32_t) {
    const std::int32_t frequency = plan.options.sampling_frequency;
    if (i < n_units) {
      plan.currents[i] = make_currents(plan.units[i].cell, plan.units[i].zero_ms, frequency);
    } else {
      // The first of the small units stands for all of its shape.
      plan.hash_currents[i - n_units] = make_currents(plan.hash[i - n_units].cell, 0, frequency);
    }
  });
}

void plan_shakes(family_plan& plan) {
  const family_options& o = plan.options;
  if (o.shakes_per_s == 0) return;
  random_stream random(plan.seed, for_shakes, 0);
  for (double at = random.exponential(1 / o.shakes_per_s); at < o.seconds;) {
    const double seconds = random.log_uniform(0.02, 0.12);
    plan.shakes.push_back({static_cast<std::int64_t>(at * o.sampling_frequency),
                           static_cast<std::int32_t>(seconds * o.sampling_frequency),
                           o.noise_uv * random.log_uniform(15, 60)});
    at += seconds + random.exponential(1 / o.shakes_per_s);
  }
}

// Odd harmonics in the band of spikes, as dimmers and switched supplies leave them.
void plan_hum(family_plan& plan) {
  const family_options& o = plan.options;
  if (o.hum_part == 0) return;
  random_stream random(plan.seed, for_hum, 0);
  const auto n = static_cast<std::int32_t>(o.sampling_frequency / mains_hz);
  plan.hum.assign(n, 0.0f);
  std::vector<double> sum(n, 0.0);
  for (std::int32_t h = lowest_harmonic; h <= highest_harmonic; h += 2) {
    const double phase = random.uniform(0, 2 * std::numbers::pi);
    for (std::int32_t i = 0; i < n; ++i) {
      sum[i] += portable_sin(2 * std::numbers::pi * h * i / n + phase);
    }
  }
  double squares = 0;
  for (const double v : sum) squares += square(v);
  const double factor = o.hum_part * o.noise_uv / std::sqrt(squares / n);
  for (std::int32_t i = 0; i < n; ++i) plan.hum[i] = static_cast<float>(factor * sum[i]);
}

}  // namespace

family_plan plan_family(const family_options& options, std::int64_t seed, std::int32_t n_threads) {
  family_plan plan;
  plan.options = options;
  plan.seed = seed;
  plan.n_samples =
      static_cast<std::int32_t>(std::floor(options.seconds * options.sampling_frequency + 0.5));
  plan.sites = electrode_sites(options.electrode, options.n_channels);
  plan_channels(plan);
  plan_units_of(plan);
  plan_trains(plan);
  plan_hash(plan);
  make_all_currents(plan, n_threads);
  plan_shakes(plan);
  plan_hum(plan);
  return plan;
}

double tissue_shift(const family_plan& plan, std::int64_t step) {
  const family_options& o = plan.options;
  const double seconds = static_cast<double>(step) / sub_sample_steps / o.sampling_frequency;
  const double part = seconds / o.seconds;
  // Slow at both ends, and about where the units were planned.
  double shift = o.drift_um * (part * part * (3 - 2 * part) - 0.5);
  shift += part < 0.5 ? -0.5 * o.jump_um : 0.5 * o.jump_um;
  if (o.sway_um > 0) shift += o.sway_um * portable_sin(2 * std::numbers::pi * seconds / sway_s);
  return shift;
}

}  // namespace kestrelvane
