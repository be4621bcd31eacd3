// The windows of the channel check: how far each channel deviates, and correlation against
// distance.
//
// They show what the check has found last, as long as the recording is as it was; the dialog beside
// them (dialogs/channel_check_dialog.cpp) chooses the channel and what is in use. A click on a
// channel's point chooses the channel.
#pragma once

#include <cstdint>
#include <functional>

#include "signal/channel_check.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

struct channel_check_state {
  channel_check found;
  std::uint64_t recording = 0;                       // recording_state of when it was measured
  bool use_masked = false;                           // masked channels are in use
  bool with_numbers = true;                          // points have the numbers of their channels
  bool one_channel = false;                          // pairs of the session's current channel alone
  std::function<void(std::int32_t channel)> chosen;  // by a click; empty without a dialog
};

graph_routines channel_deviation_routines(workstation& w);
graph_routines channel_distance_routines(workstation& w);
// Both, as far as they are open, after the state has changed.
void redraw_channel_windows(workstation& w);

}  // namespace kestrelvane
