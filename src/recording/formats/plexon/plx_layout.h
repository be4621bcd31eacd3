// The structures of a Plexon ".plx" file, as they are published.
//
// A file is its header, the spike channel headers, the event channel headers, the slow
// (continuous) channel headers, and data blocks to the end. All fields are little-endian
// and stand at their natural places, so that a structure is read and written as it lies
// in memory; the assertions below hold the layout. Reader and writers share these.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrelvane {

constexpr std::uint32_t plx_magic = 0x58454C50;  // "PLEX"

// Channel and unit tables of the file header: rows count from 1, units from 0.
constexpr std::int32_t plx_counted_channels = 129;
constexpr std::int32_t plx_counted_units = 5;
// From here on, event counts are sample counts of slow channels.
constexpr std::int32_t plx_first_slow_count = 300;

struct plx_file_header {
  std::uint32_t magic;
  std::int32_t version;
  char comment[128];
  std::int32_t ad_frequency;  // Hz, of time stamps
  std::int32_t n_dsp_channels;
  std::int32_t n_event_channels;
  std::int32_t n_slow_channels;
  std::int32_t n_points_wave;     // samples of one waveform
  std::int32_t n_points_pre_thr;  // of these, in front of the threshold crossing
  std::int32_t year, month, day, hour, minute, second;
  std::int32_t fast_read;
  std::int32_t waveform_freq;  // Hz; 0 in old files
  double last_timestamp;       // ticks
  // From version 103 on.
  std::uint8_t trodalness, data_trodalness;  // 4: tetrodes
  std::uint8_t bits_per_spike_sample, bits_per_slow_sample;
  std::uint16_t spike_max_magnitude_mv, slow_max_magnitude_mv;
  std::uint16_t spike_preamp_gain;  // from version 105 on
  char padding[46];
  std::int32_t ts_counts[plx_counted_channels + 1][plx_counted_units];
  std::int32_t wf_counts[plx_counted_channels + 1][plx_counted_units];
  std::int32_t ev_counts[512];
};
static_assert(sizeof(plx_file_header) == 7504);
static_assert(offsetof(plx_file_header, ad_frequency) == 136);
static_assert(offsetof(plx_file_header, last_timestamp) == 192);
static_assert(offsetof(plx_file_header, spike_preamp_gain) == 208);
static_assert(offsetof(plx_file_header, ts_counts) == 256);
static_assert(offsetof(plx_file_header, ev_counts) == 5456);

// A spike channel.
struct plx_channel_header {
  char name[32];
  char sig_name[32];
  std::int32_t channel;  // from 1
  std::int32_t wf_rate;
  std::int32_t sig, ref;
  std::int32_t gain;
  std::int32_t filter;
  std::int32_t threshold;
  std::int32_t method;
  std::int32_t n_units;  // sorted units
  std::int16_t templates[5][64];
  std::int32_t fit[5];
  std::int32_t sort_width;
  std::int16_t boxes[5][2][4];
  std::int32_t sort_beg;
  char comment[128];
  char padding[44];
};
static_assert(sizeof(plx_channel_header) == 1020);
static_assert(offsetof(plx_channel_header, gain) == 80);
static_assert(offsetof(plx_channel_header, n_units) == 96);
static_assert(offsetof(plx_channel_header, sort_width) == 760);

struct plx_event_header {
  char name[32];
  std::int32_t channel;  // from 1
  char comment[128];
  char padding[132];
};
static_assert(sizeof(plx_event_header) == 296);

// A continuous channel.
struct plx_slow_header {
  char name[32];
  std::int32_t channel;  // from 0
  std::int32_t ad_freq;  // Hz
  std::int32_t gain;
  std::int32_t enabled;
  std::int32_t preamp_gain;
  std::int32_t spike_channel;  // from 1; 0 for none
  char comment[128];
  char padding[112];
};
static_assert(sizeof(plx_slow_header) == 296);
static_assert(offsetof(plx_slow_header, comment) == 56);

enum plx_block_type : std::int16_t {
  plx_spike_block = 1,
  plx_event_block = 4,
  plx_slow_block = 5,
};

struct plx_block_header {
  std::int16_t type;         // plx_block_type
  std::uint16_t time_upper;  // bits 32 and up of the time stamp
  std::uint32_t time_lower;  // ticks
  std::int16_t channel;      // from 1; of slow blocks from 0
  std::int16_t unit;         // 0: unsorted
  std::int16_t n_waveforms;  // 0 or 1
  std::int16_t n_words;      // samples of one waveform, which follow the header
};
static_assert(sizeof(plx_block_header) == 16);

inline std::int64_t plx_time(const plx_block_header& h) {
  return (std::int64_t{h.time_upper} << 32) | h.time_lower;
}

inline void set_plx_time(plx_block_header& h, std::int64_t ticks) {
  h.time_upper = static_cast<std::uint16_t>(ticks >> 32);
  h.time_lower = static_cast<std::uint32_t>(ticks);
}

// ticks of one clock as whole ticks of another, rounded down; both rates positive, ticks
// not negative. A result that 64 bits do not hold becomes the largest one.
std::int64_t convert_ticks(std::int64_t ticks, std::int32_t from_hz, std::int32_t to_hz);

}  // namespace kestrelvane
