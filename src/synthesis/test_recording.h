// The test waveform maker: recordings with known truth.
//
// Units of several shapes and widths stand near an electrode and fire trains with
// refractory periods and bursts; their spikes fall where they fall, between
// samples and on top of each other, over a background of many small far units and
// coloured noise that neighbouring sites share. The same options give the same
// bytes on every machine and at any number of threads.
//
// Written are PATH (TSF) and beside it, in place of the extension:
//   .truth.csv   time_s,unit,channel: one line per planted spike, by time
//   .units.csv   unit,x_um,y_um,amplitude_uv,rate_hz
// The time is that of the trough on the channel where the unit is largest; sample
// index s, counted from 1, is at s / sampling_frequency seconds. The amplitude is
// the mean depth of that trough, the rate what was planted.
#pragma once

#include <functional>
#include <string>

#include "synthesis/planted_units.h"

namespace kestrelvane {

// A path without its extension: what the names of the files beside it begin with.
std::string path_stem(const std::string& path);

// progress gets per cent done, 0..100, on the calling thread; it may be empty.
// False when the options do not do or a file cannot be written, with the words in
// problem; files already finished stay.
bool make_test_recording(const test_recording_options& options, const std::string& path,
                         const std::function<void(int)>& progress, std::string& problem);

}  // namespace kestrelvane
