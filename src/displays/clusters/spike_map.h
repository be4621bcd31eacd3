// Spikes in the space of the probe: y position against time, and the probe itself with its
// units.
//
// Events of chosen clusters stand at their own centres of mass, where drift is seen; all others
// do as long as a few thousand events are in view, and else stand at their cluster's centre;
// unclustered ones at their channel's site. y grows downwards, as the rows of the voltage
// record run.
#pragma once

#include <QPainter>
#include <cstdint>
#include <vector>

#include "displays/clusters/cluster_index.h"
#include "displays/clusters/mark_counts.h"
#include "displays/clusters/plane_axes.h"

namespace kestrelvane {

struct spike_view {
  std::vector<std::int32_t> clusters;       // chosen; the rest is drawn fainter behind them
  double from_minutes = 0, to_minutes = 0;  // to not above from: the whole recording
  double y_from = 0, y_to = 0;              // µm, likewise
  bool show_unclustered = true;
  // Chosen events larger the higher they are, against the highest on show.
  bool size_by_height = true;
  std::int32_t width = 1000, height = 600;
  double pixel_ratio = 1;  // of the device to one logical pixel
};

struct spike_picture {
  drawn_graph plane;
  std::int64_t n_in_view = 0;  // events
  // More than 100,000 events in view are counted into pixels, those of chosen clusters with them,
  // and are no single events. The counts are kept while only the choice changes.
  mark_counts behind;
  std::int64_t n_counted = 0;
  struct counted_view {
    std::uint64_t index_stamp = 0;
    graph_view shown;
    std::int32_t width = 0, height = 0;
    double pixel_ratio = 0;
    bool unclustered = false;
    bool operator==(const counted_view&) const = default;
  } counted;
  std::vector<shape_point> centres;  // of the clusters then, by number; y in µm
  // Background first, then those of the chosen clusters.
  std::vector<std::int32_t> events;
  std::vector<std::int16_t> marks;
  std::vector<shape_point> points;  // minutes, µm
  std::size_t n_behind = 0;         // events of the background
  std::vector<float> heights;       // µV on the centre channel, by chosen event
  std::int32_t stride = 1;          // every stride-th of the chosen events is shown
};

// Call it with the same picture after every change of the view. A picture is forgotten (made anew
// by assignment) when templates or samples change.
void prepare_spikes(const session_state& session, cluster_index& index, const spike_view& view,
                    spike_picture& picture);
void paint_spikes(QPainter& painter, const spike_picture& picture, const spike_view& view,
                  const cluster_theme& theme);

// The event under the pointer, a chosen one before the background; 0 when there is none, and for
// a background that is counted. The cluster is what a click chooses.
std::int32_t spike_event_at(const spike_picture& picture, QPointF pixel);
// What is said of it: event_words, and where it stands along the probe.
QString spike_words(const session_state& session, const spike_picture& picture, std::int32_t event);
std::int32_t spike_cluster_at(const session_state& session, const spike_picture& picture,
                              QPointF pixel);

// The wheel: time goes on by a part of the window, the window grows or shrinks about a place;
// the recording's ends hold. Plain numbers of the view.
void scroll_spikes(const session_state& session, spike_view& view, double windows);
void zoom_spikes(const session_state& session, spike_view& view, const spike_picture& picture,
                 QPointF about, double factor);

// ---------------------------------------------------------------- the probe

struct probe_view {
  std::vector<std::int32_t> clusters;  // chosen: ringed
  bool show_numbers = true;
  graph_view range = {0, 0, 0, 0};  // that the user has chosen; used while its ends ascend
  std::int32_t width = 300, height = 700;
};

struct probe_picture {
  drawn_graph plane;
  std::vector<shape_point> sites;    // by channel from 0, µm
  std::vector<std::uint8_t> masked;  // likewise
  std::vector<shape_point> units;    // by cluster from 0
  std::vector<float> radii;          // pixels, by the square root of the number of events
};

void prepare_probe(const session_state& session, cluster_index& index, const probe_view& view,
                   probe_picture& picture);
void paint_probe(QPainter& painter, const probe_picture& picture, const probe_view& view,
                 const cluster_theme& theme);
// The unit under the pointer, of several the nearest; 0 when there is none.
std::int32_t probe_cluster_at(const probe_picture& picture, QPointF pixel);

}  // namespace kestrelvane
