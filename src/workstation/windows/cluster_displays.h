// What the windows of sorted clusters share: the views that the user has chosen, and what is kept
// between two pictures - the index of events, and the values of the components, of which one
// reading serves three windows. What is kept is forgotten when the session has changed.
//
// The controls of a dialog beside the windows set the fields of a view and redraw its window.
#pragma once

#include <QPointF>
#include <QString>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "displays/clusters/cluster_index.h"
#include "displays/clusters/cluster_theme.h"
#include "displays/clusters/components.h"
#include "displays/clusters/heights.h"
#include "displays/clusters/sorted_waveforms.h"
#include "displays/clusters/spike_map.h"
#include "displays/clusters/template_image.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/shape_tools.h"

namespace kestrelvane {

inline constexpr double closer_per_notch = 1.25;  // of a wheel

// A window of waveforms and what it shows.
struct waveform_window_state {
  waveform_view view;
  waveform_picture picture;
  waveform_view of_settings;  // what they said when view was last taken from them
  bool begun = false;
};

// What the pointer finds in a window, drawn over its picture.
struct pointer_reading {
  graph_kind kind;
  QPointF at;
  QString words;
};

// An ellipse and what its components were when it was drawn.
struct noted_ellipse {
  cluster_ellipse_record ellipse;
  std::uint64_t fingerprint;
};

struct cluster_displays {
  cluster_index index;
  std::int32_t a = 0, b = 0;  // the pair on show; 0: the current cluster alone
  waveform_window_state single, pair;
  component_view components;
  component_values values;  // of values.clusters
  bool values_valid = false;
  std::optional<component_reading> reading;  // of values that are still to come
  bool reading_planned = false;              // it goes on with the next turn
  component_picture component_points;
  bool components_begun = false;
  height_view heights;
  height_picture height_points;
  template_image_view image;
  template_image_picture image_values;
  spike_view spikes;
  spike_picture spike_points;
  std::optional<pointer_reading> pointer;
  shape_hand hand;
  std::vector<noted_ellipse> ellipses;
  // The waveforms of the current cluster have been drawn; for controls that follow them.
  std::function<void()> waveforms_drawn;
};

// Made on first need.
cluster_displays& displays_of(workstation& w);

// The current cluster; empty when there is none.
std::vector<std::int32_t> current_cluster_alone(const workstation& w);
// The pair while a review has one on show, else the current cluster; empty for none.
std::vector<std::int32_t> clusters_on_show(workstation& w);
// Of clusters_on_show; read again when they or the session have changed. Those of many events take
// several turns: until then they are the earlier ones, and the windows are redrawn at the end.
const component_values& values_on_show(workstation& w);
// Whether the values on show are those of this cluster alone, as it is now.
bool values_are_of(const workstation& w, std::int32_t cluster);
// An ellipse has been drawn over the values on show. When these are found to have changed, it goes.
void note_ellipse(cluster_displays& d, const cluster_ellipse_record& ellipse);

// Paper is white, whatever the windows are.
cluster_theme theme_for(const workstation& w, const QPainter& painter);
// The window of a kind, when it is open.
void redraw_graph(workstation& w, graph_kind kind);
// The event that was pressed is ringed in all windows, and the voltage record goes there; nothing
// for 0.
void choose_event(workstation& w, std::int32_t event);

// What the pointer is over, shown until it goes elsewhere; nothing for no words.
void show_reading(workstation& w, graph_kind kind, QPointF at, const QString& words);
void paint_reading(workstation& w, graph_kind kind, QPainter& painter, const QRectF& area);

}  // namespace kestrelvane
