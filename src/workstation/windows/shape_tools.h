// Marking with the mouse: a tool is taken up by a button of "View, clean and split clusters" or by
// a key of a window, and the left button then draws with it in the windows of the current cluster.
//
// Windows are drawn over waveforms, the ellipse and the lasso over components, the rectangle and
// the lasso over amplitudes against time. On the release the events are labelled on the worker
// (review/cluster_marks.h). Windows and ellipse stay in the hand, to be added to and adjusted, and
// the labels are then those of what is drawn at last; rectangle and lasso are put down after one.
// Escape gives up what is being drawn, and else puts the tool down. Interface thread.
#pragma once

#include <QPointF>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "displays/clusters/drawn_shapes.h"
#include "review/cluster_marks.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

enum class shape_tool { none, windows, ellipse, rectangle, lasso };

// Labels events of the current cluster; runs on the worker.
using shape_marking = std::function<bool(session_state& session)>;

struct shape_hand {
  shape_tool tool = shape_tool::none;
  std::int32_t cluster = 0;  // that it was taken up for
  std::int16_t label = 1;    // that the lasso gives

  bool drawing = false;  // the button is down, in the window of this kind
  graph_kind place = graph_kind::principal_components;
  QPointF from, to;                      // pixels
  shape_polygon path;                    // of the lasso, in units of its plane
  std::vector<waveform_window> windows;  // drawn so far
  ellipse_grip grip = ellipse_grip::none;
  cluster_ellipse_record held = {}, ellipse = {};  // at the press, and now
  std::shared_ptr<drawn_marks> marks;              // the worker's while it runs

  // Of the dialog that is open: runs a marking, and hears of another tool.
  std::function<void(shape_marking marking)> run;
  std::function<void()> changed;
};

// Takes up a tool, or puts it down when it is in the hand already, and opens a window to draw in.
// An ellipse that has been drawn before marks at once. Nothing happens while an operation runs,
// and without a single cluster on show.
void take_up_tool(workstation& w, shape_tool tool);
// False when there was none.
bool put_down_tool(workstation& w);
// Escape. False when there is nothing to give up.
bool give_up_shape(workstation& w);
// Puts the tool down when its cluster is no longer the one on show; for whoever draws.
void follow_shown_cluster(workstation& w);

// What mouse and keys do to shapes in a window of that kind; the rest of its keys come after.
void add_shape_routines(workstation& w, graph_kind kind, graph_routines& routines);
// The shape in the hand, and words that tell what to draw.
void paint_shape_in_hand(workstation& w, graph_kind kind, QPainter& painter);

}  // namespace kestrelvane
