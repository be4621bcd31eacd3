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

#include <string>

#include "synthesis/planted_files.h"

namespace kestrelvane {

// False when the options do not do, a file cannot be written or progress has stopped it
// (making_stopped), with the words in problem; files already finished stay.
bool make_test_recording(const test_recording_options& options, const std::string& path,
                         const making_progress& progress, std::string& problem);

}  // namespace kestrelvane
