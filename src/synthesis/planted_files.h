// The files of a recording with known truth.
//
// Written are PATH (TSF) and beside it, in place of the extension:
//   .truth.csv   time_s,unit,channel: one line per planted spike, by time
//   .units.csv   unit,x_um,y_um,amplitude_uv,rate_hz, and snr where it is known
// The time is that of the trough on the channel where the unit is largest; sample
// index s, counted from 1, is at s / sampling_frequency seconds. The amplitude is
// the mean depth of that trough, the rate what was planted.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "synthesis/planted_units.h"

namespace kestrelvane {

struct unit_line {
  std::int32_t best_channel;  // counted from 1
  double x, y;                // µm
  double amplitude_uv, rate;  // mean over its spikes; Hz
  double snr = 0;             // amplitude over the noise of its best channel; 0: not told
};

struct planted_files {
  std::int32_t sampling_frequency, n_samples;
  float microvolts_per_bit;
  std::vector<site_position> sites;
  std::vector<std::vector<planted_spike>> spikes;  // by unit, ascending
  std::vector<unit_line> units;
};

// Fills the n_samples samples of a channel (from 1). Called for several channels at a time.
typedef std::function<void(std::int32_t channel, std::int16_t* out)> channel_maker;

// Gets per cent done, 0..100, on the calling thread; false stops the making, after which no file is
// left. May be empty.
typedef std::function<bool(int percent)> making_progress;
constexpr const char* making_stopped = "the making was interrupted";

// A path without its extension: what the names of the files beside it begin with.
std::string path_stem(const std::string& path);

// Mean of the sizes; 1 for a unit without spikes, which keeps the amplitude that was planned.
double mean_size(const std::vector<planted_spike>& spikes);

// Writes all three. False when one cannot be written, with the words in problem; files already
// finished stay.
bool write_planted_files(const planted_files& files, const std::string& path,
                         std::int32_t n_threads, const channel_maker& make,
                         const making_progress& progress, std::string& problem);

}  // namespace kestrelvane
