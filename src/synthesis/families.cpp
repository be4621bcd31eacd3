#include "synthesis/families.h"

namespace kestrelvane {

namespace {

typedef family_options options;

void set_pairs(options& o, pair_kind kind, std::int32_t n_pairs) {
  o.pairs = kind;
  o.n_pairs = n_pairs;
  // The question is the pair: both are to be found with ease.
  o.snr_min = 6;
}

void set_tetrode(options& o) {
  o.electrode = test_electrode::tetrode;
  o.n_channels = 4;
  o.n_units = 10;
}

constexpr double shakes = 0.5;  // a second

// clang-format off
constexpr recording_family families[] = {
    {"standard", "still tissue, many weak units", [](options&) {}},
    {"dense", "forty units in reach of 32 sites", [](options& o) { o.n_units = 40; }},
    {"low-rates", "0.2 to 0.6 spikes a second",
     [](options& o) { o.median_rate = 0.35, o.lowest_rate = 0.2, o.highest_rate = 0.6; }},
    {"high-rates", "15 to 50 spikes a second",
     [](options& o) { o.median_rate = 28, o.lowest_rate = 15, o.highest_rate = 50, o.burst_share = 0; }},
    {"bursts", "bursts in nearly all units, spikes falling to half",
     [](options& o) { o.burst_share = 0.9, o.burst_fall = 0.35; }},
    {"two-levels", "spikes of every unit of two sizes, 1 and 0.65",
     [](options& o) { o.lower_level = 0.65, o.snr_min = 6; }},
    {"two-levels-half", "spikes of every unit of two sizes, 1 and 0.5",
     [](options& o) { o.lower_level = 0.5, o.snr_min = 6; }},
    {"size-drift", "sizes that wander over the minutes", [](options& o) { o.size_walk = 0.08; }},
    {"slow-drift", "30 µm from start to end", [](options& o) { o.drift_um = 30; }},
    {"jump-10", "a jump of 10 µm at half time", [](options& o) { o.jump_um = 10; }},
    {"jump-20", "a jump of 20 µm at half time", [](options& o) { o.jump_um = 20; }},
    {"jump-40", "a jump of 40 µm at half time", [](options& o) { o.jump_um = 40; }},
    {"fast-movement", "a sine of 10 µm and 20 s", [](options& o) { o.sway_um = 10; }},
    {"movement", "bursts of movement on all channels", [](options& o) { o.shakes_per_s = shakes; }},
    {"half-movement", "bursts of movement on half of the channels",
     [](options& o) { o.shakes_per_s = shakes, o.shaken_part = 0.5; }},
    {"hum", "residue of the mains, harmonics on all channels", [](options& o) { o.hum_part = 1.5; }},
    {"common-noise", "noise on all channels alike", [](options& o) { o.common_part = 1.2; }},
    {"bad-channels", "two noisy channels, two dead ones", [](options& o) { o.n_bad_channels = 4; }},
    {"saturation", "an amplifier that ends at 80 µV", [](options& o) { o.clip_uv = 80; }},
    {"alike", "twelve pairs of one shape, 20 µm apart",
     [](options& o) { set_pairs(o, pair_kind::alike, 12); }},
    {"relays", "ten such pairs, one silent when the other begins",
     [](options& o) { set_pairs(o, pair_kind::relay, 10); }},
    {"moving-relays", "the same while the tissue drifts 20 µm",
     [](options& o) { set_pairs(o, pair_kind::relay, 10), o.drift_um = 20; }},
    {"synchronous", "twelve pairs of neighbours that fire together",
     [](options& o) { set_pairs(o, pair_kind::synchronous, 12), o.partner_chance = 0.3; }},
    {"overlaps", "twelve pairs of neighbours whose spikes overlap",
     [](options& o) { set_pairs(o, pair_kind::overlapping, 12), o.partner_chance = 0.3; }},
    {"tetrode", "four sites, ten units", set_tetrode},
    {"tetrode-movement", "a tetrode with bursts of movement",
     [](options& o) { set_tetrode(o), o.shakes_per_s = shakes; }},
    {"tetrode-size-drift", "a tetrode, sizes that wander",
     [](options& o) { set_tetrode(o), o.size_walk = 0.08; }},
    {"single", "one site, four units",
     [](options& o) { set_tetrode(o), o.n_channels = 1, o.n_units = 4, o.snr_min = 5; }},
    {"array", "sites 400 µm apart, two units to each of 16",
     [](options& o) { o.electrode = test_electrode::utah, o.n_channels = 16, o.n_units = 31; }},
    {"probe-384", "a whole probe for a minute",
     [](options& o) { o.n_channels = 384, o.n_units = 120, o.seconds = 60; }},
    {"long", "twenty minutes on 16 channels",
     [](options& o) { o.n_channels = 16, o.n_units = 14, o.seconds = 1200, o.sampling_frequency = 20000; }},
    {"noise", "no unit at all", [](options& o) { o.n_units = 0; }},
};
// clang-format on

}  // namespace

std::span<const recording_family> recording_families() { return families; }

const recording_family* find_family(std::string_view name) {
  for (const recording_family& family : families) {
    if (name == family.name) return &family;
  }
  return nullptr;
}

}  // namespace kestrelvane
