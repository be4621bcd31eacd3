// What the analysis of amplitudes shows.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "analysis/amplitude_fits.h"
#include "numerics/savgol.h"

namespace kestrelvane {

namespace {

struct bin_range {
  std::int32_t first = 0, last = -1;  // that hold anything
};
bin_range filled_bins(const ea_histogram& h) {
  bin_range range;
  for (std::int32_t bin = -ea_bin_limit; bin <= ea_bin_limit; ++bin) {
    if (h.count(bin) <= 0) continue;
    if (range.last < range.first) range.first = bin;
    range.last = bin;
  }
  return range;
}

struct graph_maker {
  graph_data graph;
  bool logarithmic = false;
  std::size_t n = 0;  // series so far

  void add(const std::string& name, graph_form form, const ea_histogram& h, bin_range range,
           const std::function<double(std::int32_t bin)>& value) {
    if (n == graph_series_limit) return;
    graph_series& series = graph.series[n];
    for (std::int32_t bin = range.first; bin <= range.last; ++bin) {
      const double y = value(bin);
      series.x.push_back(h.microvolts(bin));
      // Nothing has no logarithm, and a curve below half a count is nothing.
      series.y.push_back(!logarithmic ? static_cast<float>(y)
                         : y < 0.5    ? graph_data::open_end
                                      : static_cast<float>(std::log10(y)));
    }
    graph.labels[label_legend + n] = name;
    graph.series_style[n] = pack_series_look({.form = form});
    ++n;
  }
  void add_counts(const std::string& name, const ea_histogram& h) {
    add(name, form_steps, h, filled_bins(h),
        [&h](std::int32_t bin) { return static_cast<double>(h.count(bin)); });
  }
};

void add_flank(graph_maker& maker, const ea_histogram& h, const flank_fit& flank) {
  if (std::isnan(flank.slope)) return;
  const bin_range range = {std::min(flank.end, flank.shoulder),
                           std::max(flank.end, flank.shoulder)};
  maker.add(flank.is_right ? "right flank" : "left flank", form_lines, h, range,
            [&](std::int32_t bin) {
              return std::exp(flank.intercept + flank.slope * double{h.position(bin)});
            });
}

void add_fits(graph_maker& maker, const amplitude_analysis& a) {
  const ea_histogram& h = a.values.histogram;
  if (!a.fits.has_core) return;
  const bin_range range = filled_bins(h);
  maker.add("Gaussian", form_lines, h, range,
            [&](std::int32_t bin) { return double{a.fits.core.at(h.position(bin))}; });
  if (a.fits.has_second) {
    maker.add("double Gaussian", form_lines, h, range, [&](std::int32_t bin) {
      return double{a.fits.first.at(h.position(bin))} + double{a.fits.second.at(h.position(bin))};
    });
  }
  add_flank(maker, h, a.fits.left);
  add_flank(maker, h, a.fits.right);
}

// Through the values of the events, which come at no even times: over their order. A parabola over
// 51 of them follows a drift and not a single spike.
std::vector<float> smooth(const std::vector<float>& values) {
  constexpr std::int32_t reach = 25;
  float weights[2 * reach + 1];
  const auto n = static_cast<std::int32_t>(values.size());
  if (n < 2 * reach + 1 || !savgol(weights, reach, reach, 0, 2)) return {};
  std::vector<float> line(values.size(), graph_data::open_end);
  for (std::int32_t i = reach; i < n - reach; ++i) {
    double sum = 0;
    for (std::int32_t k = -reach; k <= reach; ++k) {
      sum += double{weights[k + reach]} * double{values[static_cast<std::size_t>(i + k)]};
    }
    line[static_cast<std::size_t>(i)] = static_cast<float>(sum);
  }
  return line;
}

graph_data graph_of_time(const amplitude_values& values) {
  graph_data graph;
  graph.kind = form_points;
  graph.labels[label_x_axis] = "Time";
  graph.labels[label_y_axis] = "Deviation";
  graph.units = {"min", "µV", "", ""};
  graph.series[0].x = values.minutes;
  graph.series[0].y = values.event_uv;
  graph.labels[label_legend] = "spikes";
  const std::vector<float> line = smooth(values.event_uv);
  if (line.empty()) return graph;
  graph.series[1].x = values.minutes;
  graph.series[1].y = line;
  graph.series_style[1] = pack_series_look({.form = form_lines});
  graph.labels[label_legend + 1] = "smoothed";
  return graph;
}

std::string subtitle_of(const amplitude_analysis& a) {
  const amplitude_source_row& row = amplitude_sources()[a.request.ea_source - 1];
  std::string text = row.label;
  if (row.of_unit) {
    text += fmt::format(", unit {}", a.request.unit);
  } else if (a.request.ea_source != ea_formula) {
    text +=
        a.values.channel == 0 ? ", all channels" : fmt::format(", channel {}", a.values.channel);
  }
  return text;
}

}  // namespace

graph_data make_amplitude_graph(const amplitude_analysis& analysis, bool log_scaling) {
  const amplitude_values& values = analysis.values;
  graph_maker maker;
  maker.logarithmic = log_scaling;
  if (analysis.request.ea_source == ea_deviations_time) {
    maker.graph = graph_of_time(values);
  } else {
    maker.graph.kind = form_steps;
    maker.graph.labels[label_x_axis] = "Voltage";
    maker.graph.labels[label_y_axis] = log_scaling ? "log10 of counts" : "Counts";
    maker.graph.units[0] = "µV";
    if (values.histogram.n_values > 0) maker.add_counts("counts", values.histogram);
    add_fits(maker, analysis);
    for (std::size_t i = 0; i < values.split.size(); ++i) {
      maker.add_counts(fmt::format("label {}", values.split_labels[i]), values.split[i]);
    }
    if (values.events.n_values > 0) maker.add_counts("events", values.events);
  }
  maker.graph.title = amplitude_graph_title;
  maker.graph.labels[label_subtitle] = subtitle_of(analysis);
  if (values.histogram.n_values == 0) maker.graph.remark = "There are no values";
  return maker.graph;
}

}  // namespace kestrelvane
