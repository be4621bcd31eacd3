#ifdef KESTRELVANE_WITH_DISPLAYS

#include "batch/cluster_pictures.h"

#include <fmt/format.h>

#include <QPainter>

#include "analysis/autocorrelation_time.h"
#include "analysis/interval_heights.h"
#include "displays/clusters/components.h"
#include "displays/clusters/correlogram_panel.h"
#include "displays/clusters/heights.h"
#include "displays/clusters/overlap_display.h"
#include "displays/clusters/sorted_waveforms.h"
#include "displays/clusters/spike_map.h"
#include "displays/clusters/template_image.h"
#include "displays/clusters/train_correlograms.h"
#include "displays/graph.h"
#include "displays/picture_file.h"

namespace kestrelvane {

namespace {

struct cluster_canvas {
  QPainter& painter;
  session_state& session;
  const cluster_drawing& drawing;
  cluster_theme theme;
  cluster_index index;
};

void draw_waveforms(cluster_canvas& canvas) {
  waveform_view view = view_of_settings(canvas.session);
  view.clusters = canvas.drawing.clusters;
  // Events with their template: "Templates" of the settings is what a window was left with.
  view.mode = canvas.drawing.density ? waveform_mode::density : waveform_mode::events;
  view.first_item = 1;
  view.width = canvas.drawing.size.width();
  view.height = canvas.drawing.size.height();
  waveform_picture picture;
  // A window fills a density over several pictures; a file is written once it is whole.
  do {
    prepare_waveforms(canvas.session, canvas.index, view, picture);
  } while (!picture.complete);
  paint_waveforms(canvas.painter, picture, view, canvas.theme);
}

void draw_components(cluster_canvas& canvas) {
  component_view view = component_view_of_settings(canvas.session);
  view.clusters = canvas.drawing.clusters;
  view.width = canvas.drawing.size.width();
  view.height = canvas.drawing.size.height();
  component_values values;
  read_component_values(canvas.session, canvas.index, view.clusters, values);
  component_picture picture;
  prepare_components(canvas.session, values, view, picture);
  paint_components(canvas.painter, picture, view, canvas.theme);
}

// One beside the other.
void draw_templates(cluster_canvas& canvas) {
  const auto n = static_cast<int>(canvas.drawing.clusters.size());
  template_image_view view;
  view.width = canvas.drawing.size.width() / n;
  view.height = canvas.drawing.size.height();
  for (int i = 0; i < n; ++i) {
    view.cluster = canvas.drawing.clusters[static_cast<std::size_t>(i)];
    template_image_picture picture;
    prepare_template_image(canvas.session, view, picture);
    canvas.painter.save();
    canvas.painter.translate(i * view.width, 0);
    paint_template_image(canvas.painter, picture, view, canvas.theme);
    canvas.painter.restore();
  }
}

void draw_heights(cluster_canvas& canvas) {
  height_view view;
  view.clusters = canvas.drawing.clusters;
  view.width = canvas.drawing.size.width();
  view.height = canvas.drawing.size.height();
  height_picture picture;
  prepare_heights(canvas.session, canvas.index, nullptr, view, picture);
  paint_heights(canvas.painter, picture, view, canvas.theme);
}

void draw_correlograms(cluster_canvas& canvas) {
  paint_correlogram_matrix(canvas.painter, QRectF(QPointF(0, 0), canvas.drawing.size),
                           canvas.session, canvas.drawing.clusters,
                           canvas.session.review.correlogram_bin_ms, canvas.theme);
}

void draw_autocorrelation_time(cluster_canvas& canvas) {
  const std::int32_t unit = canvas.drawing.clusters.front();
  const graph_data graph = make_autocorrelation_time_graph(
      measure_autocorrelation_time(canvas.session, unit, autocorrelation_time_bin(canvas.session)));
  paint_graph(graph, canvas.drawing.dark ? dark_style() : paper_style(), whole_view(graph),
              canvas.painter, canvas.drawing.size);
}

// Within a unit, or of the second after the first.
void draw_interval_heights(cluster_canvas& canvas) {
  const std::vector<std::int32_t>& units = canvas.drawing.clusters;
  const graph_data graph = make_interval_heights_graph(measure_interval_heights(
      canvas.session, units.back(), units.front(), interval_heights_reach_ms));
  paint_graph(graph, canvas.drawing.dark ? dark_style() : paper_style(), whole_view(graph),
              canvas.painter, canvas.drawing.size);
}

void draw_intervals(cluster_canvas& canvas) {
  const graph_data graph =
      make_interval_graph(count_intervals(canvas.session, canvas.drawing.clusters.front()));
  paint_graph(graph, canvas.drawing.dark ? dark_style() : paper_style(), whole_view(graph),
              canvas.painter, canvas.drawing.size);
}

// The first against the others; one alone against its neighbours.
void draw_trains(cluster_canvas& canvas) {
  std::vector<std::int32_t> others = canvas.drawing.clusters;
  const std::int32_t unit = others.front();
  others.erase(others.begin());
  const train_panels panels = others.empty() ? count_trains(canvas.session, unit, 0)
                                             : count_trains(canvas.session, unit, 0, others);
  paint_trains(canvas.painter, QRectF(QPointF(), canvas.drawing.size), panels, false, canvas.theme);
}

// Of a pair, or of one cluster and the one that it overlaps most.
void draw_overlap(cluster_canvas& canvas) {
  const std::vector<std::int32_t>& units = canvas.drawing.clusters;
  const std::int32_t a = units.front();
  overlap_picture picture;
  prepare_overlap(canvas.session, a,
                  units.size() > 1 ? units[1] : find_overlap_partner(canvas.session, a), picture);
  paint_overlap(canvas.painter, QRectF(QPointF(), canvas.drawing.size), picture, canvas.theme);
}

// The probe stands at the right, its units beside their spikes.
void draw_spikes(cluster_canvas& canvas) {
  const int width = canvas.drawing.size.width(), height = canvas.drawing.size.height();
  // Pixels: the probe needs no more, and the spikes most of the width.
  const int probe_width = std::min(320, width / 3);
  spike_view view;
  view.clusters = canvas.drawing.clusters;
  view.width = width - probe_width;
  view.height = height;
  spike_picture picture;
  prepare_spikes(canvas.session, canvas.index, view, picture);
  paint_spikes(canvas.painter, picture, view, canvas.theme);
  probe_view probe;
  probe.clusters = view.clusters;
  probe.width = probe_width;
  probe.height = height;
  probe_picture sites;
  prepare_probe(canvas.session, canvas.index, probe, sites);
  // Again, over the same stretch.
  const graph_view& beside = picture.plane.view;
  probe.range = {sites.plane.view.x_from, sites.plane.view.x_to, beside.y_from, beside.y_to};
  prepare_probe(canvas.session, canvas.index, probe, sites);
  canvas.painter.translate(view.width, 0);
  paint_probe(canvas.painter, sites, probe, canvas.theme);
}

struct cluster_view_row {
  std::string_view name;
  std::size_t fewest, most;  // clusters that it shows
  void (*draw)(cluster_canvas& canvas);
};
constexpr cluster_view_row cluster_views[] = {
    {"waveforms", 1, 2, draw_waveforms},
    {"components", 1, 2, draw_components},
    {"templates", 1, 8, draw_templates},
    {"correlograms", 1, 8, draw_correlograms},
    {"acf-time", 1, 1, draw_autocorrelation_time},
    {"isi-heights", 1, 2, draw_interval_heights},
    {"isi", 1, 1, draw_intervals},
    {"trains", 1, neighbours_per_page + 1, draw_trains},
    {"overlap", 1, 2, draw_overlap},
    {"heights", 1, 2, draw_heights},
    {"spikes", 0, 4000, draw_spikes},
};

const cluster_view_row* find_view(std::string_view name) {
  for (const cluster_view_row& row : cluster_views) {
    if (row.name == name) return &row;
  }
  return nullptr;
}

}  // namespace

bool is_cluster_view(std::string_view view) { return find_view(view) != nullptr; }

std::string check_cluster_drawing(const session_state& session, const cluster_drawing& drawing) {
  const cluster_view_row* row = find_view(drawing.view);
  const std::int32_t n_clusters = session.clusters.n_clusters;
  if (n_clusters == 0) return "There are no clusters";
  // Said before the painter is made, which would leave an empty picture behind.
  if (drawing.clusters.size() < row->fewest) {
    return fmt::format("--view {}: --clusters says which", row->name);
  }
  if (drawing.clusters.size() > row->most) {
    return fmt::format("--view {}: at most {} clusters", row->name, row->most);
  }
  for (std::size_t i = 0; i < drawing.clusters.size(); ++i) {
    const std::int32_t c = drawing.clusters[i];
    if (c > n_clusters) return fmt::format("--clusters {}: there are {} clusters", c, n_clusters);
    for (std::size_t j = 0; j < i; ++j) {
      if (drawing.clusters[j] == c) return fmt::format("--clusters {}: named twice", c);
    }
  }
  return {};
}

bool write_cluster_picture(session_state& session, const cluster_drawing& drawing) {
  const cluster_view_row* row = find_view(drawing.view);
  return write_picture(drawing.path, drawing.size, [&](QPainter& painter) {
    cluster_canvas canvas = {
        painter, session, drawing, make_cluster_theme(session.preferences, drawing.dark), {}};
    row->draw(canvas);
  });
}

}  // namespace kestrelvane

#endif
