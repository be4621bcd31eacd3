// Amplitude against time: peak-to-peak height, or a component, of the events of one or two
// clusters over the recording's minutes, with running medians and the joints of the recording.
#pragma once

#include <QPainter>
#include <cstdint>
#include <vector>

#include "displays/clusters/components.h"
#include "displays/clusters/plane_axes.h"

namespace kestrelvane {

enum class height_measure { peak_to_peak, pc1, pc2 };

struct height_view {
  std::vector<std::int32_t> clusters;  // one or two
  height_measure measure = height_measure::peak_to_peak;
  bool show_median = true, show_gaps = true;
  graph_view range = {0, 0, 0, 0};  // that the user has chosen; used while its ends ascend
  std::int32_t selected_event = 0;
  // Read at most, spread evenly: more than the plane has pixels for, and each costs an
  // interpolated waveform.
  std::int64_t most_events = 200'000;
  std::int32_t width = 800, height = 300;
};

struct height_picture {
  drawn_graph plane;
  std::vector<std::int32_t> clusters, events;
  std::vector<std::int32_t> channels;  // centre channel by cluster
  std::vector<std::int16_t> marks;
  std::vector<shape_point> points;                // minutes; µV, or units of the components
  std::vector<std::vector<shape_point>> medians;  // a line per cluster
  std::vector<float> gaps;                        // minutes, where one epoch follows another
  std::int32_t stride = 1;                        // every stride-th event is shown
};

// Heights are read on the centre channel of an event's cluster, as marking by a rectangle
// reads them; components come from values read before, of the same clusters. Not all events need
// be read: shapes are handed to the marking, which looks at all.
void prepare_heights(const session_state& session, cluster_index& index,
                     const component_values* values, const height_view& view,
                     height_picture& picture);
void paint_heights(QPainter& painter, const height_picture& picture, const height_view& view,
                   const cluster_theme& theme);

// "P-P Height (3 on channel 12)", "PC1 vs time for clusters 3 and 7": the window's title, too.
QString height_title(const height_picture& picture, height_measure measure);

std::int32_t height_event_at(const height_picture& picture, QPointF pixel);
// What is said of it: event_words, and its height.
QString height_words(const session_state& session, const height_picture& picture,
                     height_measure measure, std::int32_t event);

// Medians of y over stretches of points neighbouring in x, each of so many points and half
// over the one before; one point per stretch at the mean of its x. Too few points: one stretch.
std::vector<shape_point> running_median(std::vector<shape_point> points, std::size_t stretch);

}  // namespace kestrelvane
