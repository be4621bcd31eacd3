// Principal components: the events of a cluster or of a pair as points in the plane of two
// components, or in the space of three turned with the mouse.
//
// Values are those of cluster_pc_values and pair_pc_values, which clustering uses too, so an
// ellipse drawn here holds what the marking of events takes from it.
#pragma once

#include <QPainter>
#include <array>
#include <cstdint>
#include <vector>

#include "clustering/principal_components.h"
#include "displays/clusters/cluster_index.h"
#include "displays/clusters/cluster_theme.h"
#include "displays/clusters/plane_axes.h"
#include "review/plane_shapes.h"

namespace kestrelvane {

struct component_view {
  std::vector<std::int32_t> clusters;                  // one, or the two of a pair
  std::array<std::int32_t, 3> dimensions = {1, 2, 3};  // to the right, upwards, to the user
  // Of the space of three, degrees: about the upward axis, then about the one to the right.
  // Both 0: the plane of the first two.
  float turn = 0, tilt = 0;
  bool autoscale = true;       // all points fill the window
  bool centred = true;         // without autoscale: their mean in the middle, else 0
  float display_scale = 2.5f;  // without autoscale: pixels per unit
  // A part of the plane that the user has chosen; used while its ends ascend.
  graph_view range = {0, 0, 0, 0};
  std::int32_t selected_event = 0;
  bool show_ellipse = true;  // cluster_ellipse of a single cluster
  std::int32_t width = 500, height = 500;
};

// Scales and choices of the preferences, and the stored pc_view_range: left, right, lower and
// upper end, the third component's two, and the lower end again.
component_view component_view_of_settings(const session_state& session);
void store_component_range(session_state& session, const graph_view& range);

// Values of events, gathered once for all views of a cluster or pair.
struct component_values {
  std::vector<std::int32_t> clusters, events;
  std::vector<std::int16_t> marks;
  std::int32_t dimensions = 0;
  std::vector<float> values;  // event after event, dimensions each
};

// Reads the values; overwrites the scratch template of a pair, as pair_pc_values does. Empty for
// clusters that there are not.
void read_component_values(session_state& session, cluster_index& index,
                           const std::vector<std::int32_t>& clusters, component_values& values);

// The same a stretch of events at a time, for a window that must not stand still. The index and
// the session have to stay as they are until it has come to its end.
struct component_reading {
  std::vector<std::int32_t> wanted;  // clusters asked for
  std::uint64_t index_stamp = 0;     // of the index that it began with
  component_values values;           // complete at the end alone
  pc_projection projection;
};
void begin_component_values(session_state& session, cluster_index& index,
                            const std::vector<std::int32_t>& clusters, component_reading& reading);
// The next step, of at most n events; true when all values are there.
bool read_on(session_state& session, std::int32_t n, component_reading& reading);

// The marks anew, when labels have changed and nothing else has.
void mark_component_values(const session_state& session, component_values& values);

// The same from points that somebody else has, as the pool of a paused run with the labels of
// its events: n points of so many dimensions, their events in the same order.
component_values component_values_of(std::vector<std::int32_t> events,
                                     std::vector<std::int16_t> marks, std::int32_t dimensions,
                                     std::vector<float> values);

struct component_picture {
  drawn_graph plane;
  std::vector<shape_point> points;  // by event; of the plane on show
  const component_values* values = nullptr;
  shape_polygon ellipse;  // outline; empty: none
};

// values must outlive the picture.
void prepare_components(const session_state& session, const component_values& values,
                        const component_view& view, component_picture& picture);
void paint_components(QPainter& painter, const component_picture& picture,
                      const component_view& view, const cluster_theme& theme);

// The event under the pointer; 0 when there is none.
std::int32_t component_event_at(const component_picture& picture, QPointF pixel);
// What is said of it: event_words, and its components on show.
QString component_words(const session_state& session, const component_picture& picture,
                        const component_view& view, std::int32_t event);

}  // namespace kestrelvane
