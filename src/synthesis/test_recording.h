// The test waveform maker: recordings with known truth.
//
// Units of several shapes and widths stand near an electrode and fire trains with
// refractory periods and bursts; their spikes fall where they fall, between
// samples and on top of each other, over a background of many small far units and
// coloured noise that neighbouring sites share. The same options give the same
// bytes on every machine and at any number of threads.
//
// Written are the files of planted_files.h.
#pragma once

#include <functional>
#include <string>

#include "synthesis/planted_files.h"

namespace kestrelvane {

// progress gets per cent done, 0..100, on the calling thread; it may be empty.
// False when the options do not do or a file cannot be written, with the words in
// problem; files already finished stay.
bool make_test_recording(const test_recording_options& options, const std::string& path,
                         const std::function<void(int)>& progress, std::string& problem);

}  // namespace kestrelvane
