// A graph with axes in a graph window, to be zoomed and moved.
//
// The wheel zooms about the pointer, with Ctrl x alone and with Shift y alone; a drag moves,
// a drag with Shift held encloses what shall fill the window; a double click shows the whole
// again. The numbers are gathered from the session when the window is redrawn, and kept:
// zooming and moving need no session, and go on while an operation runs.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "displays/graph.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

struct graph_plot {
  std::function<graph_data(session_state& session)> numbers;  // what it shows
  graph_data graph;                                           // gathered last
  std::optional<graph_view> view;                             // none: the whole graph
  drawn_graph drawn;                                          // by the last picture
};

// What the window of such a graph does, for its row in window_table.h. On the screen in the
// colours of the theme, on paper black on white.
graph_routines plot_routines(workstation& w, const std::shared_ptr<graph_plot>& plot);

}  // namespace kestrelvane
