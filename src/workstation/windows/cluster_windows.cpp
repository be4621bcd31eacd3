#include "workstation/windows/cluster_windows.h"

#include <QDialog>
#include <QMdiArea>
#include <algorithm>
#include <optional>
#include <vector>

#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/kept_places.h"
#include "workstation/windows/measure_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

void forget_cluster_displays(workstation& w) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  forget_cluster_index(d.index);
  d.values_valid = false;
  d.single.picture = {};
  d.pair.picture = {};
}

// ---------------------------------------------------------------- the workspace

namespace {

struct tile {
  graph_kind kind;
  QRect place;
};

struct tiled_area {
  int left = 0, width = 0, height = 0;
};

// One that is being closed goes a moment later.
graph_window* standing(const workstation& w, graph_kind kind) {
  graph_window* window = graph_of(w, kind);
  return window == nullptr || window->isHidden() ? nullptr : window;
}

// The side of the dialog that has more room.
tiled_area area_beside(const workstation& w, const QDialog* dialog) {
  const QWidget* viewport = w.frame->area()->viewport();
  const QPoint corner = viewport->mapToGlobal(QPoint());
  const int left = dialog->frameGeometry().left() - corner.x();
  const int right = viewport->width() - (dialog->frameGeometry().right() - corner.x());
  const int width = std::min(std::max(left, right), viewport->width());
  return {left >= right ? 0 : viewport->width() - width, width, viewport->height()};
}

QRect part_of(const tiled_area& area, double x, double y, double wide, double high) {
  return QRect(area.left + static_cast<int>(x * area.width), static_cast<int>(y * area.height),
               static_cast<int>(wide * area.width), static_cast<int>(high * area.height));
}

// One below the other.
std::vector<tile> stacked_tiles(const workstation& w, const tiled_area& area) {
  using enum graph_kind;
  std::vector<graph_kind> below = {principal_components};
  for (const graph_kind kind :
       {correlograms, amplitude_vs_time, overlap, intervals, spike_trains}) {
    if (standing(w, kind) != nullptr) below.push_back(kind);
  }
  // The more there are, the less the waveforms take.
  const auto n_below = static_cast<double>(below.size());
  const double top = 0.55 - 0.05 * n_below, each = (1 - top) / n_below;
  std::vector<tile> tiles = {{cluster_waveforms, part_of(area, 0, 0, 1, top)},
                             {waveform_comparison, part_of(area, 0, 0, 1, top)}};
  for (std::size_t i = 0; i < below.size(); ++i) {
    const double y = top + each * static_cast<double>(i);
    tiles.push_back({below[i], part_of(area, 0, y, 1, each)});
  }
  return tiles;
}

// What is opened from the menu beside a review stands below the rest, side by side.
void add_measures(const workstation& w, const tiled_area& area, double top, double wide,
                  std::vector<tile>& tiles) {
  std::vector<graph_kind> open;
  for (const graph_kind kind : measure_kinds) {
    if (standing(w, kind) != nullptr) open.push_back(kind);
  }
  const double each = wide / std::max(static_cast<double>(open.size()), 1.0);
  for (std::size_t i = 0; i < open.size(); ++i) {
    const double x = each * static_cast<double>(i);
    tiles.push_back({open[i], part_of(area, x, top, each, 1 - top)});
  }
}

// Of the channel check, which has windows of its own; others have nothing to do with them.
bool is_channel_check(const workstation& w) {
  return w.workspace && w.workspace->dialog &&
         w.workspace->dialog->objectName() == "channel_check_dialog";
}
// Dialogs of the analysis have one window each, which has all the room there is.
struct own_window {
  const char* dialog;
  graph_kind kind;
};
constexpr own_window own_windows[] = {
    {"amplitude_dialog", graph_kind::amplitude_distribution},
    {"interval_heights_dialog", graph_kind::interval_heights},
};

// Waveforms largest, components, and below them what is counted or stands against time.
std::vector<tile> tiles_of(const workstation& w, const tiled_area& area) {
  using enum graph_kind;
  if (is_channel_check(w)) {
    return {{channel_deviations, part_of(area, 0, 0, 1, 0.5)},
            {channel_analysis, part_of(area, 0, 0.5, 1, 0.5)}};
  }
  const QDialog* dialog = w.workspace ? w.workspace->dialog.get() : nullptr;
  for (const own_window& own : own_windows) {
    if (dialog != nullptr && dialog->objectName() == own.dialog) {
      return {{own.kind, part_of(area, 0, 0, 1, 1)}};
    }
  }
  const bool alone = standing(w, cluster_waveforms) == nullptr &&
                     standing(w, waveform_comparison) == nullptr &&
                     standing(w, principal_components) == nullptr;
  const bool measured = std::any_of(std::begin(measure_kinds), std::end(measure_kinds),
                                    [&w](graph_kind kind) { return standing(w, kind) != nullptr; });
  // Without a cluster's own windows, what is counted has their room.
  if (alone && standing(w, correlograms) != nullptr && standing(w, amplitude_vs_time) == nullptr) {
    std::vector<tile> tiles = {{correlograms, part_of(area, 0, 0, 1, measured ? 0.5 : 1)}};
    add_measures(w, area, 0.5, 1, tiles);
    return tiles;
  }
  constexpr int narrow = 600;  // where two side by side would be too slim to be read
  if (area.width < narrow) return stacked_tiles(w, area);
  const bool counted = standing(w, correlograms) != nullptr;
  const bool against_time = standing(w, amplitude_vs_time) != nullptr;
  const double cut = counted && against_time ? 0.40 : counted || against_time ? 0.55 : 1;
  const double below = counted && against_time ? 0.30 : 0.45;
  const double high = measured ? 0.58 : 1;
  std::vector<tile> tiles = {
      {cluster_waveforms, part_of(area, 0, 0, 0.55, high)},
      {waveform_comparison, part_of(area, 0, 0, 0.55, high)},
      {principal_components, part_of(area, 0.55, 0, 0.45, cut)},
      {correlograms, part_of(area, 0.55, cut, 0.45, below)},
      {amplitude_vs_time, part_of(area, 0.55, counted ? 0.70 : cut, 0.45, below)}};
  add_measures(w, area, high, 0.55, tiles);
  return tiles;
}

review_workspace& workspace_of(workstation& w) {
  if (!w.workspace) w.workspace = std::make_shared<review_workspace>();
  return *w.workspace;
}

void begin_workspace(workstation& w, QDialog* dialog) {
  workspace_of(w) = {dialog, {}, {}};
  QObject::connect(dialog, &QDialog::finished, w.frame, [&w, dialog] {
    if (workspace_of(w).dialog != dialog) return;
    keep_window_places(w);
    workspace_of(w) = {};
  });
}

// By its title: a window that was pushed over the edge a little is where the user wants it.
bool can_be_reached(const workstation& w, const QRect& place) {
  const QSize title = QSize(100, 30).boundedTo(place.size());
  return w.frame->area()->viewport()->rect().contains(QRect(place.topLeft(), title));
}

bool has_own_size(const graph_window& window) {
  return !window.isMaximized() && !window.isMinimized();
}

// What the review is about must not be looked for under the voltage record.
void raise_windows(const workstation& w) {
  const bool pair = w.cluster_windows && w.cluster_windows->a > 0;
  for (const tile& of : tiles_of(w, {})) {
    graph_window* window = standing(w, of.kind);
    const bool other_place = of.kind == graph_kind::waveform_comparison && !pair &&
                             w.session.autosort.pool.pooled.empty();
    if (window != nullptr && !other_place) window->raise();
  }
}

// A window that a cascade has put under another comes out to its right, as far as the frame goes.
void stand_beside(const workstation& w, graph_kind hidden, graph_kind over) {
  graph_window* window = standing(w, hidden);
  const graph_window* other = standing(w, over);
  if (window == nullptr || other == nullptr || !has_own_size(*window) || !has_own_size(*other)) {
    return;
  }
  if (!window->geometry().intersects(other->geometry())) return;
  const int room = w.frame->area()->viewport()->width() - window->width();
  window->move(std::max(0, std::min(other->geometry().right() + 1, room)), other->y());
}

}  // namespace

void keep_window_places(workstation& w) {
  review_workspace& space = workspace_of(w);
  if (!space.dialog) return;
  for (auto& [kind, place] : space.placed) {
    const graph_window* window = standing(w, kind);
    if (window == nullptr || !has_own_size(*window) || window->geometry() == place) continue;
    place = window->geometry();
    keep_place(space.dialog->objectName(), window->objectName(), place);
  }
}

void follow_new_windows(workstation& w, QDialog* dialog, const std::function<void()>& follow) {
  if (workspace_of(w).dialog == dialog) workspace_of(w).follow = follow;
}

void tile_cluster_windows(workstation& w, QDialog* dialog) {
  review_workspace& space = workspace_of(w);
  if (space.dialog == dialog) {
    keep_window_places(w);
  } else {
    begin_workspace(w, dialog);
    raise_windows(w);
  }
  const tiled_area area = area_beside(w, dialog);
  constexpr int least_width = 300;  // of a window that can still be read
  space.placed.clear();
  for (const tile& computed : tiles_of(w, area)) {
    graph_window* window = standing(w, computed.kind);
    if (window == nullptr || !has_own_size(*window)) continue;
    const std::optional<QRect> kept = kept_place(dialog->objectName(), window->objectName());
    if (kept && can_be_reached(w, *kept)) {
      window->setGeometry(*kept);
    } else if (area.width >= least_width) {
      window->setGeometry(computed.place);
    }
    space.placed[computed.kind] = window->geometry();
  }
}

bool arrange_workspace(workstation& w) {
  QDialog* dialog = workspace_of(w).dialog;
  if (dialog == nullptr || !dialog->isVisible()) return false;
  forget_places(dialog);
  dialog->resize(dialog->sizeHint().boundedTo(screen_room(dialog)));
  put_at_right(w, dialog);
  workspace_of(w).placed.clear();
  for (const tile& computed : tiles_of(w, {})) {
    if (graph_window* window = standing(w, computed.kind)) window->showNormal();
  }
  raise_windows(w);
  tile_cluster_windows(w, dialog);
  return true;
}

// ---------------------------------------------------------------- clusters and pairs

void show_cluster_windows(workstation& w) {
  displays_of(w);
  const std::int32_t current = w.session.clusters.current_cluster;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::cluster_waveforms, QString("Cluster %1 waveforms").arg(current));
}

void show_pair_windows(workstation& w, std::int32_t a, std::int32_t b) {
  cluster_displays& d = displays_of(w);
  d.a = a;
  d.b = b;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::waveform_comparison);
}

void show_pool_windows(workstation& w) {
  waveform_view& view = displays_of(w).pair.view;
  const bool first = graph_of(w, graph_kind::waveform_comparison) == nullptr;
  show_graph(w, graph_kind::principal_components);
  show_graph(w, graph_kind::waveform_comparison);
  // What is merged already has one template: only its events tell what they were.
  if (!first || view.mode != waveform_mode::templates) return;
  view.mode = waveform_mode::events;
  redraw_graph(w, graph_kind::waveform_comparison);
}

void follow_cluster_change(workstation& w, const cluster_change& change) {
  if (!w.cluster_windows) return;
  cluster_displays& d = *w.cluster_windows;
  d.a = number_after(change, d.a);
  d.b = number_after(change, d.b);
  // A merge makes both one number: no pair is left to show.
  if (d.a == 0 || d.b == 0 || d.a == d.b) d.a = d.b = 0;
}

void forget_pair(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.a = d.b = 0;
  if (w.correlograms) choose_correlograms(w, 0, 0);
  refresh_windows(w);
}

// ---------------------------------------------------------------- menu entries

void sorted_waveforms_command(workstation& w) {
  if (!can_review(w.session, "Sorted waveforms")) return;
  const bool was_open = standing(w, graph_kind::principal_components) != nullptr;
  show_cluster_windows(w);
  if (!was_open) stand_beside(w, graph_kind::principal_components, graph_kind::cluster_waveforms);
}

void template_image_command(workstation& w) {
  if (can_review(w.session, "Template image")) open_graph(w, graph_kind::template_image);
}

void spike_view_command(workstation& w) {
  if (needs_recording(w)) open_graph(w, graph_kind::spike_view);
}

}  // namespace kestrelvane
