// Families of recordings: one kind of tissue, or of trouble, each.
//
// A row of the table tells what sets its recordings apart from the common one: the stretch of
// a staggered probe in still tissue, 25 units of which a good part is weak, noise that
// neighbours share and small units out of reach of sorting. Seed and length are the caller's.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "synthesis/planted_units.h"

namespace kestrelvane {

// What the units 2k - 1 and 2k, for k up to n_pairs, are to each other.
enum class pair_kind {
  none,
  alike,        // one shape, 20 µm apart
  relay,        // alike, and one falls silent when the other begins
  synchronous,  // neighbours; a spike often brings one of the other about 1 ms later
  overlapping,  // neighbours; a spike often falls within 1 ms of one of the other
};

struct family_options {
  test_electrode electrode = test_electrode::neuropixels;
  std::int32_t n_channels = 32;
  double seconds = 160;
  std::int32_t sampling_frequency = 30000;  // Hz
  // --- units
  std::int32_t n_units = 25;
  double snr_min = 3.5, snr_max = 20;  // height over the noise of the best channel
  double median_rate = 4, lowest_rate = 0.5, highest_rate = 20;  // Hz
  double size_jitter = 0.06;  // s.d. of the logarithm of spike sizes
  double burst_share = 0.3;   // of the units; they begin a burst with one spike in five
  double burst_fall = 0.25;   // as in firing_pattern
  double lower_level = 1;     // size of every other spike, by chance
  double size_walk = 0;       // s.d. of the step of the logarithm of the size in 10 s
  pair_kind pairs = pair_kind::none;
  std::int32_t n_pairs = 0;
  double partner_chance = 0;  // that a spike brings one of its partner
  // --- tissue
  double drift_um = 0;  // from start to end
  double jump_um = 0;   // at half time
  double sway_um = 0;   // amplitude of a sine of 20 s
  // --- noise
  double noise_uv = 8;                 // rms, everything but units and disturbances
  double field_part = 0.2;             // of the variance, shared by neighbours
  std::int32_t hash_per_channel = 15;  // small units
  double common_part = 0;              // noise on all channels, times noise_uv
  double hum_part = 0;                 // residue of the mains, times noise_uv
  // --- disturbances
  double shakes_per_s = 0;          // bursts of movement
  double shaken_part = 1;           // of the channels
  std::int32_t n_bad_channels = 0;  // noisy and dead ones in turn
  double clip_uv = 0;               // where the amplifier ends; 0: out of reach
};

struct recording_family {
  const char* name;
  const char* purpose;  // in a line
  void (*set)(family_options& options);
};

std::span<const recording_family> recording_families();

// Null when there is none of this name.
const recording_family* find_family(std::string_view name);

}  // namespace kestrelvane
