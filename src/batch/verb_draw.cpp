// draw: the voltage record as a picture, or as a graph with axes, and the views of sorted
// clusters, without a screen.
#ifdef KESTRELVANE_WITH_DISPLAYS

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>

#include "analysis/amplitude_fits.h"
#include "analysis/channel_check_graphs.h"
#include "analysis/power_spectrum.h"
#include "batch/channel_list.h"
#include "batch/cluster_pictures.h"
#include "batch/off_screen.h"
#include "batch/verbs.h"
#include "displays/graph.h"
#include "displays/picture_file.h"
#include "displays/voltage/voltage_graph.h"
#include "displays/voltage/voltage_record.h"
#include "files/safe_file.h"
#include "signal/display_scale.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t largest_side = 32'767;  // pixels; what every painter takes

// "1280x800".
bool parse_size(const std::string& text, QSize& size) {
  int width = 0, height = 0;
  const char* end = text.data() + text.size();
  const auto [cross, error] = std::from_chars(text.data(), end, width);
  if (error != std::errc{} || cross == end || *cross != 'x') return false;
  const auto [stop, second_error] = std::from_chars(cross + 1, end, height);
  size = QSize(width, height);
  return second_error == std::errc{} && stop == end && width > 0 && height > 0 &&
         width <= largest_side && height <= largest_side;
}

bool is_check_view(std::string_view view) { return view == "deviations" || view == "distances"; }

bool is_graph_view(std::string_view view) {
  return view == "graph" || view == "spectrum" || view == "amplitudes" || is_check_view(view);
}

// A graph can be written as its numbers, which need no drawing.
bool wants_numbers(const batch_options& options) {
  return is_graph_view(options.view) &&
         (options.picture.ends_with(".csv") || options.picture.ends_with(".gra"));
}

constexpr const char* without_list = "true";  // what the parser gives a bare --clusters

std::vector<std::int32_t> clusters_of(const batch_options& options) {
  std::vector<std::int32_t> clusters;
  if (options.draw_clusters != without_list) parse_channel_list(options.draw_clusters, clusters);
  return clusters;
}

// Words that belong to the other kind of view, or are no list.
std::string check_clusters(const batch_options& options) {
  const std::string& list = options.draw_clusters;
  const bool of_clusters = is_cluster_view(options.view);
  if (!list.empty() && list != without_list) {
    std::vector<std::int32_t> clusters;
    if (!of_clusters) return "--clusters " + list + ": the view " + options.view + " takes no list";
    if (!parse_channel_list(list, clusters)) return "--clusters " + list + ": not a list as 3,7";
  }
  if (of_clusters && options.view != "spikes" && (list.empty() || list == without_list)) {
    return "--view " + options.view + ": --clusters says which";
  }
  if (options.draw_density && options.view != "waveforms") return "--density: of waveforms alone";
  return {};
}

bool check_draw_options(const batch_options& options, QSize& size, std::string& problem) {
  if (options.picture.empty()) {
    problem = "draw: --out is required";
  } else if (!is_picture_path(options.picture) && !wants_numbers(options)) {
    problem = "--out " + options.picture + ": not a .png, .svg or .pdf" +
              (is_graph_view(options.view) ? ", .csv or .gra" : "");
  } else if (!parse_size(options.size, size)) {
    problem = "--size " + options.size + ": not WxH in pixels";
  } else if (options.time_scale < 0 || options.voltage_scale < 0) {
    problem = "--scale and --voltage-scale: must be above 0";
  } else if (options.spacing > 500) {
    problem = "--spacing: at most 500";
  } else {
    problem = check_clusters(options);
  }
  return problem.empty();
}

void choose_marks(session_state& session, const batch_options& options) {
  display_settings& display = session.display;
  // Marks of detection are not among the options.
  display.vd_show_proto_events = false;
  const bool in_colours = options.draw_clusters == without_list;
  display.vd_show_events = options.draw_events || in_colours;
  display.vd_cluster_colours = in_colours;
  display.vd_cluster_numbers = options.draw_numbers;
  display.vd_msec_grid = options.draw_grid;
  voltage_view& view = session.view;
  view.vd_show_template_channel = options.draw_on_template_channel;
  view.vd_reverse_contrast = options.draw_reversed;
  view.vd_keep_peaks = options.draw_peaks;
  view.vd_grey_scale = options.view == "grey";
}

void choose_place(session_state& session, const batch_options& options, QSize size) {
  display_settings& display = session.display;
  voltage_view& view = session.view;
  view.vd_width = size.width();
  view.vd_height = size.height();
  // Before the row is chosen, whose place depends on the spacing.
  if (options.spacing > 0) {
    set_channel_spacing(session, options.spacing);
    // The voltage scale follows the spacing, unless one is given below.
    autoscale_voltage_display(session);
  }
  scroll_to_row(session, options.first_row);
  if (options.time_scale > 0) display.vd_time_scale = static_cast<float>(options.time_scale);
  if (options.voltage_scale > 0) {
    display.vd_voltage_scale = static_cast<float>(options.voltage_scale);
  }
  if (std::isnan(options.from_seconds)) return;
  // Time index 1 stands at 0 s.
  const double first = options.from_seconds * session.recording.sampling_frequency + 1;
  view.vd_first_sample = static_cast<std::int32_t>(
      std::clamp(first, 1.0, std::max(1.0, static_cast<double>(session.recording.n_samples))));
}

cluster_drawing drawing_of(const batch_options& options, QSize size) {
  return {.view = options.view,
          .clusters = clusters_of(options),
          .dark = options.draw_reversed,
          .density = options.draw_density,
          .path = options.picture,
          .size = size};
}

graph_data graph_of_check(const session_state& session, std::string_view view) {
  channel_check check;
  if (compute_pair_correlations(session, check)) judge_channels(session, check, false);
  return view == "deviations" ? make_deviation_graph(session, check, true)
                              : make_distance_graph(session, check, false, 0);
}

// Raw voltages of all channels, their counts as logarithms: flanks hold a thousandth of the core.
graph_data graph_of_amplitudes(const session_state& session) {
  amplitude_request request;
  request.all_channels = true;
  amplitude_analysis analysis;
  analyse_amplitudes(session, request, analysis);
  return make_amplitude_graph(analysis, true);
}

graph_data graph_of_view(session_state& session, std::string_view view) {
  if (is_check_view(view)) return graph_of_check(session, view);
  if (view == "spectrum") {
    return make_spectrum_graph(measure_power_spectrum(session), session.current_channel);
  }
  if (view == "amplitudes") return graph_of_amplitudes(session);
  return make_voltage_graph(session);
}

bool draw_view(const batch_session& batch, QSize size) {
  const batch_options& options = batch.options;
  session_state& session = *batch.session;
  if (is_cluster_view(options.view)) {
    return write_cluster_picture(session, drawing_of(options, size));
  }
  if (is_graph_view(options.view)) {
    // A file goes on paper or a page, which are white, whatever the windows look like.
    const graph_style style = options.draw_reversed ? dark_style() : paper_style();
    return write_graph_picture(graph_of_view(session, options.view), style, options.picture, size);
  }
  return write_picture(options.picture, size,
                       [&](QPainter& painter) { draw_voltage_display(session, painter); });
}

batch_status write_view(batch_session& batch, QSize size) {
  const std::string& path = batch.options.picture;
  if (is_cluster_view(batch.options.view)) {
    const std::string problem =
        check_cluster_drawing(*batch.session, drawing_of(batch.options, size));
    if (!problem.empty()) return fail_batch(batch, problem);
  }
  if (batch.options.view == "spectrum" && !has_power_spectrum(*batch.session)) {
    return fail_batch(batch, spectrum_refusal);
  }
  if (is_check_view(batch.options.view) && !can_check_channels(*batch.session)) {
    return batch_status::failed;
  }
  errno = 0;
  const bool written =
      wants_numbers(batch.options)
          ? write_graph_file(graph_of_view(*batch.session, batch.options.view), path)
          : draw_off_screen([&] { return draw_view(batch, size); });
  if (!written) return fail_batch(batch, "Failed to save file " + why_not_saved(path));
  return batch_status::done;
}

}  // namespace

batch_status run_draw(const batch_options& options) {
  QSize size;
  std::string problem;
  if (!check_draw_options(options, size, problem)) return refuse_usage(problem);
  batch_session batch;
  batch_status status = start_batch(batch, options, "draw");
  // Words have been said, and nothing was started.
  if (status == batch_status::wrong_usage) return status;
  // The view is this picture's, and no setting for later runs.
  session_state& session = *batch.session;
  const preferences_record preferences = session.preferences;
  // The window's size decides how high the rows of the recording are.
  const display_settings display = session.display;
  session.preferences.voltage_window_size[0] = size.width();
  session.preferences.voltage_window_size[1] = size.height();
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = read_work_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) {
    choose_place(session, options, size);
    choose_marks(session, options);
    status = write_view(batch, size);
  }
  // Put back whatever came of it, or the home directory would keep them.
  session.preferences = preferences;
  session.display = display;
  return finish_batch(batch, status);
}

}  // namespace kestrelvane

#endif
