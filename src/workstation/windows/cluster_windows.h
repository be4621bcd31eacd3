// The windows of sorted clusters: waveforms of the current cluster, of a pair, principal
// components, amplitudes against time, the template as an image, spikes over the probe.
//
// They show the current cluster, or the pair that a review has on show, and follow both. What is
// drawn is displays/clusters/; the mouse and the keys of each are in waveform_windows.cpp,
// plane_windows.cpp and spike_windows.cpp; what they share is cluster_displays.h.
#pragma once

#include <QDialog>
#include <QPointer>
#include <QRect>
#include <cstdint>
#include <functional>
#include <map>

#include "session/cluster_change.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

graph_routines cluster_waveform_routines(workstation& w);
graph_routines pair_waveform_routines(workstation& w);
graph_routines component_routines(workstation& w);
graph_routines height_routines(workstation& w);
graph_routines template_image_routines(workstation& w);
graph_routines spike_view_routines(workstation& w);
// The session has changed: nothing that is kept of it holds any more.
void forget_cluster_displays(workstation& w);

// The windows of a review beside its dialog, where the program has last put them.
struct review_workspace {
  QPointer<QDialog> dialog;
  std::map<graph_kind, QRect> placed;  // in the frame's area; of those that are open
  std::function<void()> follow;        // empty where the dialog has no boxes for windows
};
// What has the boxes of a dialog that is tiled follow a window that has come by another hand than
// theirs.
void follow_new_windows(workstation& w, QDialog* dialog, const std::function<void()>& follow);

// Puts those of the review's windows that are open beside a dialog where the user has moved them
// beside it the last time; the others are tiled without overlap: waveforms largest, components,
// and below them what stands against time or is counted. Where the dialog leaves too little room
// they stay where they are.
void tile_cluster_windows(workstation& w, QDialog* dialog);
// Remembers what the user has moved since then; before a window closes, and when the dialog does.
void keep_window_places(workstation& w);
// "Auto-arrange" beside a review dialog: what was moved is forgotten, and dialog and windows
// stand as computed. False when there is no such dialog.
bool arrange_workspace(workstation& w);

// Opens the windows of one cluster, the current one, or of a pair; those that are open follow.
void show_cluster_windows(workstation& w);
void show_pair_windows(workstation& w, std::int32_t a, std::int32_t b);
// Those of a run that pauses, over its pool of events; in a turn at the session.
void show_pool_windows(workstation& w);
// The pair on show after an edit has changed the numbers; none when one of the two is gone.
void follow_cluster_change(workstation& w, const cluster_change& change);
// A review has closed: windows show the current cluster again.
void forget_pair(workstation& w);

}  // namespace kestrelvane
