#include "workstation/windows/measure_windows.h"

#include <QTimer>
#include <algorithm>

#include "analysis/correlograms.h"
#include "displays/clusters/overlap_display.h"
#include "displays/clusters/train_correlograms.h"
#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_plot.h"
#include "workstation/workstation.h"

namespace kestrelvane {

graph_routines interval_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [](session_state& session) {
    return make_interval_graph(count_intervals(session, session.clusters.current_cluster));
  };
  return plot_routines(w, plot);
}

// ---------------------------------------------------------------- neighbours

namespace {

// Cursor keys go by one neighbour, page keys by as many as are on show.
std::int32_t neighbours_of_key(int key, std::int32_t on_show) {
  return key == Qt::Key_Down       ? 1
         : key == Qt::Key_Up       ? -1
         : key == Qt::Key_PageDown ? on_show
         : key == Qt::Key_PageUp   ? -on_show
                                   : 0;
}

// Beside a review the others make room for a window that has come, and take it back; the dialog's
// boxes follow.
void tile_beside_review(workstation& w) {
  const review_workspace* space = w.workspace.get();
  if (space == nullptr || !space->dialog || !space->dialog->isVisible()) return;
  tile_cluster_windows(w, space->dialog);
  if (space->follow) space->follow();
}

QRectF area_of(const workstation& w, graph_kind kind) {
  const graph_window* window = graph_of(w, kind);
  return window == nullptr ? QRectF() : QRectF(window->surface()->rect());
}

// The unit whose neighbours these are, beside the one that was pressed.
void show_pressed(workstation& w, const train_panels& shown, QPoint at) {
  const std::int32_t other = train_at(area_of(w, graph_kind::spike_trains), shown, at);
  if (other < 1) return;
  const drawing_hold hold(w);
  const bool was_open = graph_of(w, graph_kind::correlograms) != nullptr;
  show_correlograms(w, shown.unit, other);
  if (!was_open) tile_beside_review(w);
}

}  // namespace

graph_routines train_routines(workstation& w) {
  const auto state = std::make_shared<train_panels>();
  graph_routines routines;
  routines.gather = [&w, state] {
    const std::int32_t current = w.session.clusters.current_cluster;
    // Another unit has other neighbours, and its nearest come first.
    const std::int32_t first = state->unit == current ? state->first : 0;
    *state = count_trains(w.session, current, first);
  };
  routines.draw = [&w, state](QPainter& painter, QSize size) {
    const bool as_rate = w.correlograms && w.correlograms->as_rate;
    paint_trains(painter, QRectF(QPointF(), size), *state, as_rate, theme_for(w, painter));
  };
  routines.key = [&w, state](int key) {
    const std::int32_t on_show = panels_in(area_of(w, graph_kind::spike_trains), *state) - 1;
    const std::int32_t step = neighbours_of_key(key, on_show);
    if (step == 0 || state->unit == 0) return false;
    const auto n = static_cast<std::int32_t>(state->others.size());
    const std::int32_t last = std::max(n - on_show, 0);
    *state = count_trains(w.session, state->unit, std::min(state->first + step, last));
    return true;
  };
  routines.clicked = [&w, state](QPoint at) { show_pressed(w, *state, at); };
  return routines;
}

// ---------------------------------------------------------------- overlap

namespace {

void gather_overlap(workstation& w, overlap_picture& picture) {
  // The scratch template is the worker's as long as it runs.
  if (w.worker.running) return;
  const cluster_displays& d = displays_of(w);
  const bool pair = is_cluster_pair(w.session, {d.a, d.b});
  const std::int32_t a = pair ? d.a : w.session.clusters.current_cluster;
  prepare_overlap(w.session, a, pair ? d.b : find_overlap_partner(w.session, a), picture);
  graph_window* window = graph_of(w, graph_kind::overlap);
  if (window != nullptr && picture.pair.a > 0) {
    window->setWindowTitle(QString::fromStdString(overlap_title(picture)));
  }
}

}  // namespace

graph_routines overlap_routines(workstation& w) {
  const auto picture = std::make_shared<overlap_picture>();
  graph_routines routines;
  routines.gather = [&w, picture] { gather_overlap(w, *picture); };
  routines.draw = [&w, picture](QPainter& painter, QSize size) {
    paint_overlap(painter, QRectF(QPointF(), size), *picture, theme_for(w, painter));
  };
  return routines;
}

// ---------------------------------------------------------------- menu entries

namespace {

void show_measure(workstation& w, graph_kind kind, const char* title) {
  if (!can_review(w.session, title)) return;
  const drawing_hold hold(w);
  const bool was_open = graph_of(w, kind) != nullptr;
  const graph_window* window = show_graph(w, kind);
  tile_beside_review(w);
  if (was_open) return;
  QObject::connect(window, &graph_window::closed, w.frame,
                   [&w] { QTimer::singleShot(0, w.frame, [&w] { tile_beside_review(w); }); });
}

}  // namespace

void interval_plot_command(workstation& w) { show_measure(w, graph_kind::intervals, "ISI plot"); }

void train_correlograms_command(workstation& w) {
  show_measure(w, graph_kind::spike_trains, "Spike train cross correlograms");
}

void overlap_command(workstation& w) {
  show_measure(w, graph_kind::overlap, "Overlap diagnostics");
}

}  // namespace kestrelvane
