// Sorted waveforms: the events of a cluster or of a pair, channel by channel at the places of
// the sites, with the template and its s.d. band.
//
// prepare_waveforms gathers what a view needs from the session; it is called after every change
// of the view, with the same picture, and takes a few ms whatever the cluster's size: a density is
// counted a part at a time, each part spread evenly over all events, so that the first one
// looks like the whole. While the picture is not complete, prepare and paint again soon.
// Events are read at their aligned times, between samples.
#pragma once

#include <QPainter>
#include <QString>
#include <cstdint>
#include <vector>

#include "displays/clusters/cluster_index.h"
#include "displays/clusters/cluster_theme.h"
#include "displays/clusters/mark_counts.h"
#include "displays/clusters/waveform_layout.h"

namespace kestrelvane {

struct waveform_set {
  std::int32_t cluster = 0;
  std::int32_t n_events = 0;    // of the cluster
  std::int32_t n_labelled = 0;  // of them with a label on show: the range of first_item
  std::int16_t mark = 0;        // whose colour the template has
  // µV, panel after panel, n_points each.
  std::vector<float> mean, sd;
};

struct waveform_picture {
  waveform_layout layout;
  std::vector<waveform_set> sets;  // by cluster on show
  // Events on show, in the order in which they are drawn.
  std::vector<std::int32_t> events;
  std::vector<std::int16_t> marks;
  std::vector<float> values;  // µV, event after event, panel after panel
  // Density: counts so far, and how many of how many events they hold.
  mark_counts density;
  std::int64_t n_counted = 0, n_to_count = 0;
  bool complete = true;

  // What it was made for. A picture is forgotten (made anew by assignment) when events,
  // labels, templates or samples change.
  waveform_view view;
  std::uint64_t index_stamp = 0;
  std::vector<std::int32_t> counted_events;
  std::vector<std::int16_t> counted_marks;
};

void prepare_waveforms(const session_state& session, cluster_index& index,
                       const waveform_view& view, waveform_picture& picture);

// Into (0, 0)..(view.width, view.height).
void paint_waveforms(QPainter& painter, const waveform_picture& picture, const waveform_view& view,
                     const cluster_theme& theme);

// The event whose waveform runs within 4 pixels of a place, the nearest one, of equals the one on
// top; 0 when there is none, and in the density, which has no single ones.
std::int32_t waveform_event_at(const waveform_picture& picture, float x, float y);

// The panel of a place: over its time, the one whose template runs nearest. A spike reaches into
// the rows beside its own, and is meant where it is seen. Null beside all of them.
const waveform_panel* panel_at(const waveform_picture& picture, float x, float y);
// What a place of the display is: "channel 12, 0.23 ms, -45.1 µV"; empty beside the panels.
QString waveform_words(const session_state& session, const waveform_picture& picture, float x,
                       float y);

}  // namespace kestrelvane
