#include "workstation/windows/shape_tools.h"

#include <QLineF>
#include <QPainter>
#include <algorithm>
#include <array>
#include <utility>

#include "clustering/membership.h"
#include "review/event_blocks.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

using enum graph_kind;

constexpr double least_drag = 4;  // pixels; a shorter one was a press that shook

struct tool_row {
  shape_tool tool;
  int key;
  std::array<graph_kind, 2> places;  // the first is opened where none is open
  const char* words;
};
constexpr tool_row tools[] = {
    {shape_tool::windows,
     Qt::Key_W,
     {cluster_waveforms, cluster_waveforms},
     "Draw windows: who misses one gets label 1. Esc ends."},
    {shape_tool::ellipse,
     Qt::Key_E,
     {principal_components, principal_components},
     "Drag along the ellipse, then its handles. Esc ends."},
    {shape_tool::rectangle,
     Qt::Key_B,
     {amplitude_vs_time, amplitude_vs_time},
     "Draw a rectangle: label 1 inside. Esc ends."},
    {shape_tool::lasso,
     Qt::Key_K,
     {principal_components, amplitude_vs_time},
     "Draw round events: label %1 inside. Esc ends."},
};

const tool_row* row_of(shape_tool tool) {
  const auto* found = std::find_if(std::begin(tools), std::end(tools),
                                   [tool](const tool_row& row) { return row.tool == tool; });
  return found == std::end(tools) ? nullptr : found;
}

bool draws_in(shape_tool tool, graph_kind kind) {
  const tool_row* row = row_of(tool);
  return row != nullptr && (row->places[0] == kind || row->places[1] == kind);
}

constexpr graph_kind all_places[] = {cluster_waveforms, principal_components, amplitude_vs_time};

// Cursors, and the buttons of a dialog.
void tell_tool(workstation& w) {
  const shape_hand& hand = displays_of(w).hand;
  for (const graph_kind kind : all_places) {
    const bool draws = draws_in(hand.tool, kind);
    graph_window* window = graph_of(w, kind);
    if (window) window->surface()->setCursor(draws ? Qt::CrossCursor : Qt::OpenHandCursor);
  }
  if (hand.changed) hand.changed();
}

void follow_tool(workstation& w) {
  tell_tool(w);
  for (const graph_kind kind : all_places) redraw_graph(w, kind);
}

const drawn_graph& plane_of(const cluster_displays& d, graph_kind kind) {
  return kind == principal_components ? d.component_points.plane : d.height_points.plane;
}

// ---------------------------------------------------------------- marking

void run_marking(workstation& w, shape_marking mark) {
  const shape_hand& hand = displays_of(w).hand;
  shape_marking anew = [mark = std::move(mark), marks = hand.marks](session_state& session) {
    return mark_anew(session, *marks, [&] { return mark(session); });
  };
  if (hand.run) return hand.run(std::move(anew));
  // A dialog of another kind would not know that its figures have changed.
  if (dialog_beside(w) != nullptr) return;
  start_operation(
      w, [anew](session_state& session) { anew(session); }, [&w] { refresh_windows(w); });
}

// Events at the places where a display shows them: planes that the engine has no name for.
template <typename Holds>
shape_marking mark_on_show(std::vector<std::int32_t> events, std::vector<shape_point> points,
                           std::int16_t label, Holds holds) {
  return [=](session_state& session) {
    std::vector<std::int32_t> found;
    const bool finished = for_each_block(session, events.size(), block_meter::moves,
                                         [&](std::size_t first, std::size_t end) {
                                           for (std::size_t i = first; i < end; ++i) {
                                             if (holds(points[i])) found.push_back(events[i]);
                                           }
                                         });
    if (finished) label_events(session, found, label);
    return finished;
  };
}

bool shows_first_two(const component_view& view) {
  return view.turn == 0 && view.tilt == 0 && view.dimensions[0] == 1 && view.dimensions[1] == 2;
}

void finish_lasso(workstation& w, graph_kind kind) {
  const cluster_displays& d = displays_of(w);
  shape_polygon path = d.hand.path;
  const std::int16_t label = d.hand.label;
  const auto inside = [path](shape_point p) { return polygon_holds(path, p); };
  const bool components = kind == principal_components;
  if (components && !shows_first_two(d.components)) {
    run_marking(w, mark_on_show(d.component_points.values->events, d.component_points.points, label,
                                inside));
  } else if (!components && d.heights.measure != height_measure::peak_to_peak) {
    run_marking(w, mark_on_show(d.height_points.events, d.height_points.points, label, inside));
  } else {
    const mark_plane plane = components ? mark_plane::components : mark_plane::heights;
    run_marking(w, [plane, path, label](session_state& session) {
      return mark_in_lasso(session, plane, path, label);
    });
  }
}

void finish_rectangle(workstation& w) {
  const cluster_displays& d = displays_of(w);
  const shape_point a = plane_place(d.height_points.plane, d.hand.from);
  const shape_point b = plane_place(d.height_points.plane, d.hand.to);
  if (d.heights.measure == height_measure::peak_to_peak) {
    return run_marking(w, [a, b](session_state& s) { return mark_in_rectangle(s, a, b); });
  }
  run_marking(w, mark_on_show(d.height_points.events, d.height_points.points, 1,
                              [a, b](shape_point p) { return rectangle_holds(a, b, p); }));
}

void finish_window(workstation& w) {
  cluster_displays& d = displays_of(w);
  const QPointF from = d.hand.from, to = d.hand.to;
  const waveform_picture& picture = d.single.picture;
  const auto number = [](double pixel) { return static_cast<float>(pixel); };
  // By its middle: what is drawn generously reaches over other waveforms, too.
  const waveform_panel* panel =
      panel_at(picture, number((from.x() + to.x()) / 2), number((from.y() + to.y()) / 2));
  // Between the channels there is nothing that a waveform could cross.
  if (panel == nullptr) return;
  const waveform_window window = window_of_corners(
      picture.layout, *panel, number(from.x()), number(from.y()), number(to.x()), number(to.y()));
  d.hand.windows.push_back(window);
  run_marking(w, [windows = d.hand.windows](session_state& session) {
    return mark_by_windows(session, windows);
  });
}

void finish_ellipse(workstation& w) {
  cluster_displays& d = displays_of(w);
  w.session.clusters.cluster_ellipse[d.hand.cluster] = d.hand.ellipse;
  note_ellipse(d, d.hand.ellipse);
  run_marking(w, mark_in_ellipse);
}

void finish_shape(workstation& w, graph_kind kind) {
  shape_hand& hand = displays_of(w).hand;
  // The lasso comes back to where it began: its length counts.
  const bool meant = hand.tool == shape_tool::lasso
                         ? hand.path.size() >= 3
                         : QLineF(hand.from, hand.to).length() >= least_drag;
  if (!meant) return;
  switch (hand.tool) {
    case shape_tool::windows:
      return finish_window(w);
    case shape_tool::ellipse:
      return finish_ellipse(w);
    case shape_tool::rectangle:
      finish_rectangle(w);
      break;
    default:
      finish_lasso(w, kind);
      break;
  }
  put_down_tool(w);
}

// ---------------------------------------------------------------- drawing

void begin_shape(cluster_displays& d, graph_kind kind, QPointF at) {
  shape_hand& hand = d.hand;
  d.pointer.reset();  // the read-out would lie over what is drawn
  hand.drawing = true;
  hand.place = kind;
  hand.from = hand.to = at;
  hand.path = {plane_place(plane_of(d, kind), at)};
  hand.grip = ellipse_grip_at(d.component_points.plane, hand.ellipse, at);
  hand.held = hand.ellipse;
}

void go_on_drawing(cluster_displays& d, QPointF at) {
  shape_hand& hand = d.hand;
  // Corners closer than the hand can mean would only cost time.
  if (QLineF(hand.to, at).length() < 2) return;
  hand.to = at;
  hand.path.push_back(plane_place(plane_of(d, hand.place), at));
  if (hand.tool == shape_tool::ellipse) {
    hand.ellipse = drag_ellipse(d.component_points.plane, hand.held, hand.grip, hand.from, hand.to);
  }
}

bool draw_shape(workstation& w, graph_kind kind, mouse_step step, QPoint at) {
  cluster_displays& d = displays_of(w);
  shape_hand& hand = d.hand;
  if (step == mouse_step::pressed) {
    // While the components of another cluster are still on show there is nothing to draw round.
    const bool there = kind != principal_components || values_are_of(w, hand.cluster);
    if (!draws_in(hand.tool, kind) || w.worker.running || !there) return false;
    begin_shape(d, kind, at);
    return true;
  }
  // It was given up with the button down.
  if (!hand.drawing) return false;
  go_on_drawing(d, at);
  if (step == mouse_step::released) {
    hand.drawing = false;
    finish_shape(w, kind);
  }
  return true;
}

bool press_tool_key(workstation& w, graph_kind kind, int key) {
  if (key == Qt::Key_Escape) return give_up_shape(w);
  for (const tool_row& row : tools) {
    if (row.key != key || !draws_in(row.tool, kind)) continue;
    take_up_tool(w, row.tool);
    return true;
  }
  return false;
}

// False when nothing was in it.
bool empty_hand(cluster_displays& d) {
  if (d.hand.tool == shape_tool::none) return false;
  d.hand.tool = shape_tool::none;
  d.hand.drawing = false;
  d.hand.windows.clear();
  d.hand.ellipse = {};
  d.components.show_ellipse = true;
  return true;
}

cluster_ellipse_record ellipse_of_current(workstation& w) {
  const std::int32_t c = w.session.clusters.current_cluster;
  return is_cluster(w.session, c) ? w.session.clusters.cluster_ellipse[c]
                                  : cluster_ellipse_record{};
}

}  // namespace

void take_up_tool(workstation& w, shape_tool tool) {
  cluster_displays& d = displays_of(w);
  const tool_row* row = row_of(tool);
  const std::vector<std::int32_t> shown = clusters_on_show(w);
  const bool taken = d.hand.tool == tool;
  put_down_tool(w);
  if (taken || row == nullptr || shown.size() != 1 || w.worker.running) return follow_tool(w);
  if (graph_of(w, row->places[0]) == nullptr && graph_of(w, row->places[1]) == nullptr) {
    show_graph(w, row->places[0]);
  }
  d.hand.tool = tool;
  d.hand.cluster = shown[0];
  d.hand.marks = std::make_shared<drawn_marks>();
  // Windows are drawn round waveforms; a template alone shows none.
  waveform_mode& mode = d.single.view.mode;
  if (tool == shape_tool::windows && mode == waveform_mode::templates) mode = waveform_mode::events;
  if (tool == shape_tool::ellipse) {
    // It lies in the plane of the first two components, and is seen there alone.
    d.components.turn = d.components.tilt = 0;
    d.components.dimensions = {1, 2, 3};
    d.components.show_ellipse = false;  // drawn with its grips instead
    d.hand.ellipse = ellipse_of_current(w);
  }
  follow_tool(w);
  if (d.hand.tool == shape_tool::ellipse && d.hand.ellipse.semi_axis_1 > 0) {
    run_marking(w, mark_in_ellipse);
  }
}

bool put_down_tool(workstation& w) {
  if (!empty_hand(displays_of(w))) return false;
  follow_tool(w);
  return true;
}

bool give_up_shape(workstation& w) {
  shape_hand& hand = displays_of(w).hand;
  if (!std::exchange(hand.drawing, false)) return put_down_tool(w);
  hand.ellipse = hand.held;
  if (graph_window* window = graph_of(w, hand.place)) window->surface()->update();
  return true;
}

void follow_shown_cluster(workstation& w) {
  cluster_displays& d = displays_of(w);
  if (d.hand.tool == shape_tool::none) return;
  const std::vector<std::int32_t> shown = clusters_on_show(w);
  if (shown.size() != 1 || shown[0] != d.hand.cluster) {
    empty_hand(d);
    tell_tool(w);  // and no redrawing, while somebody draws
  } else if (d.hand.tool == shape_tool::ellipse && !d.hand.drawing) {
    // An edit of the cluster may have dropped it.
    d.hand.ellipse = ellipse_of_current(w);
  }
}

void add_shape_routines(workstation& w, graph_kind kind, graph_routines& routines) {
  routines.shape = [&w, kind](mouse_step step, QPoint at) { return draw_shape(w, kind, step, at); };
  routines.key = [&w, kind, other = std::move(routines.key)](int key) {
    return press_tool_key(w, kind, key) || (other && other(key));
  };
}

void paint_shape_in_hand(workstation& w, graph_kind kind, QPainter& painter) {
  const cluster_displays& d = displays_of(w);
  const shape_hand& hand = d.hand;
  if (!draws_in(hand.tool, kind)) return;
  const cluster_theme theme = theme_for(w, painter);
  const bool here = hand.drawing && hand.place == kind;
  const QRectF drawn = QRectF(hand.from, hand.to).normalized();
  const drawn_graph& plane = plane_of(d, kind);
  if (kind == cluster_waveforms)
    paint_windows(painter, d.single.picture.layout, hand.windows, theme);
  if (hand.tool == shape_tool::ellipse) paint_ellipse(painter, plane, hand.ellipse, theme);
  if (hand.tool == shape_tool::lasso && here) paint_outline(painter, plane, hand.path, theme);
  const bool of_corners = hand.tool == shape_tool::windows || hand.tool == shape_tool::rectangle;
  if (of_corners && here) paint_rectangle(painter, drawn, theme);
  QString words = row_of(hand.tool)->words;
  if (hand.tool == shape_tool::lasso) {
    words = hand.label == 0 ? QString("Draw round events: no label inside. Esc ends.")
                            : words.arg(hand.label);
  }
  paint_hint(painter, kind == cluster_waveforms ? d.single.view.width : plane.inside.right(), words,
             theme);
}

}  // namespace kestrelvane
