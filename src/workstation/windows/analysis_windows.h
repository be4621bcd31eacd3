// The windows of the analysis: the power spectrum, and the autocorrelogram against time.
#pragma once

#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

// Shows the spectrum that hp_spectrum_command has measured, as long as the recording is as it was,
// with one channel by itself; cursor and page keys go through the channels.
graph_routines spectrum_routines(workstation& w);
// Of the current cluster; follows it.
graph_routines autocorrelation_time_routines(workstation& w);

}  // namespace kestrelvane
