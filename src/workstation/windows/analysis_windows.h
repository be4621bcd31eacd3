// The windows of the analysis: the power spectrum, the autocorrelogram against time, the
// distribution of amplitudes and the heights after intervals. Those that measure clusters by their
// times and neighbours are in measure_windows.h.
#pragma once

#include "analysis/amplitude_fits.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

// Shows the spectrum that hp_spectrum_command has measured, as long as the recording is as it was,
// with one channel by itself; cursor and page keys go through the channels.
graph_routines spectrum_routines(workstation& w);
// Of the current cluster; follows it.
graph_routines autocorrelation_time_routines(workstation& w);

// What the dialog "Event amplitude distribution analysis" has asked for and got.
struct amplitude_state {
  amplitude_analysis analysis;
  bool log_scaling = false;
  std::uint64_t recording = 0;  // recording_state
};
// Shows w.amplitudes as long as the recording is as it was.
graph_routines amplitude_routines(workstation& w);
// Shows w.heights.
graph_routines interval_height_routines(workstation& w);

}  // namespace kestrelvane
