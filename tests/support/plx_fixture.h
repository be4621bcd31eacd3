// ".plx" files made field by field, independent of the product's structures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrelvane::test {

struct plx_fixture_channel {
  std::int32_t channel = 1, gain = 1, n_units = 0;
};

struct plx_fixture_slow {
  std::int32_t channel = 0, ad_freq = 20000, gain = 1, preamp_gain = 1;
};

struct plx_fixture_block {
  std::int32_t type = 1;
  std::int64_t time = 0;
  std::int32_t channel = 1, unit = 0;
  std::vector<std::int16_t> words;
  std::int32_t n_waveforms = 1;
};

// The defaults are those of an event-based file of two channels and no blocks.
struct plx_fixture {
  std::uint32_t magic = 0x58454C50;
  std::int32_t version = 105;
  std::int32_t ad_frequency = 20000, waveform_freq = 20000;
  std::int32_t n_points_wave = 8;
  std::int32_t year = 2010, month = 2, day = 22;
  double last_timestamp = 0;
  std::int32_t trodalness = 1;
  std::int32_t spike_bits = 12, slow_bits = 12;
  std::int32_t spike_mv = 3000, slow_mv = 5000, preamp_gain = 1000;
  std::vector<plx_fixture_channel> channels{{1}, {2}};
  std::int32_t n_event_headers = 1;
  std::vector<plx_fixture_slow> slow;
  std::int32_t slow_count = 1;  // samples that the header tells of, if there are slow channels
  std::vector<plx_fixture_block> blocks;
};

std::vector<char> plx_bytes(const plx_fixture& f);
// Offset of the first block.
std::size_t plx_blocks_offset(const plx_fixture& f);

// n samples that tell where they come from: 100 * seed + k.
std::vector<std::int16_t> ramp(std::int32_t seed, std::int32_t n);

// A continuous file: n_rounds blocks of words samples on each of n_channels, slow channels
// from 0, and 1 spike channel for each. Sample t (from 1) of channel c is
// plx_fixture_sample(c, t).
std::int16_t plx_fixture_sample(std::int32_t channel, std::int64_t time_index);
plx_fixture continuous_plx(std::int32_t n_channels, std::int32_t n_rounds, std::int32_t words);

// Spike blocks of one tetrode record, channels 4 * tetrode - 3 and on.
void add_tetrode_record(plx_fixture& f, std::int64_t time, std::int32_t tetrode, std::int32_t unit);
// n_tetrodes whole tetrodes.
plx_fixture tetrode_plx(std::int32_t n_tetrodes);

// An electrode configuration with a channel for each of n, numbered alike, 50 µm apart.
std::vector<char> straight_config(std::int32_t n);

}  // namespace kestrelvane::test
