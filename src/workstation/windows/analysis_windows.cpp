#include "workstation/windows/analysis_windows.h"

#include <algorithm>

#include "analysis/autocorrelation_time.h"
#include "analysis/interval_heights.h"
#include "analysis/power_spectrum.h"
#include "review/review_guards.h"
#include "workstation/commands/commands.h"
#include "workstation/operation.h"
#include "workstation/windows/graph_plot.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// What the window says when filters have run since it was opened, or another recording was read.
graph_data outdated_spectrum() {
  graph_data graph = make_spectrum_graph({}, 0);
  graph.labels[label_subtitle] = "The recording is another now:";
  graph.remark = "View > HP spectrum measures it again";
  return graph;
}

// The channel that comes before or after one in the spectrum; the nearest end beyond.
std::int32_t step_channel(const power_spectrum& spectrum, std::int32_t channel, int step) {
  const std::vector<std::int32_t>& all = spectrum.channels;
  const auto at = std::find(all.begin(), all.end(), channel);
  // One that is masked has no line: the first is as good as any.
  if (at == all.end()) return all.front();
  const auto last = static_cast<std::ptrdiff_t>(all.size()) - 1;
  return all[std::clamp<std::ptrdiff_t>(at - all.begin() + step, 0, last)];
}

// Cursor keys go through the channels, page keys ten at a time.
int channels_of_key(int key) {
  constexpr int page = 10;
  return key == Qt::Key_Down       ? 1
         : key == Qt::Key_Up       ? -1
         : key == Qt::Key_PageDown ? page
         : key == Qt::Key_PageUp   ? -page
                                   : 0;
}

}  // namespace

graph_routines spectrum_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  const auto channel = std::make_shared<std::int32_t>(w.session.current_channel);
  plot->numbers = [&w, channel](session_state& session) {
    const std::shared_ptr<power_spectrum> spectrum = w.spectrum;
    if (!spectrum || spectrum->recording != recording_state(session)) return outdated_spectrum();
    return make_spectrum_graph(*spectrum, *channel);
  };
  graph_routines routines = plot_routines(w, plot);
  routines.key = [&w, plot, channel](int key) {
    const int step = channels_of_key(key);
    // What is outdated has no lines.
    if (step == 0 || !w.spectrum || plot->graph.series[0].x.empty()) return false;
    *channel = step_channel(*w.spectrum, *channel, step);
    plot->graph = make_spectrum_graph(*w.spectrum, *channel);
    return true;
  };
  return routines;
}

// Measured by the worker: of 384 channels it takes seconds.
void hp_spectrum_command(workstation& w) {
  if (!has_power_spectrum(w.session)) {
    show_message(w, spectrum_refusal, "HP spectrum", box_icon::warning);
    return;
  }
  const auto measured = std::make_shared<power_spectrum>();
  run_with_progress(
      w, "spectrum_progress", "HP spectrum",
      [measured](session_state& session) { *measured = measure_power_spectrum(session); },
      [&w, measured] {
        // Interrupted: what is shown stays.
        if (measured->mean.empty()) return;
        w.spectrum = measured;
        show_graph(w, graph_kind::hp_spectrum);
      });
}

graph_routines amplitude_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [&w](session_state& session) {
    const std::shared_ptr<amplitude_state> state = w.amplitudes;
    if (state && state->recording == recording_state(session)) {
      return make_amplitude_graph(state->analysis, state->log_scaling);
    }
    graph_data graph;
    graph.title = amplitude_graph_title;
    graph.labels[label_subtitle] = "The recording is another now:";
    graph.remark = "\"Graph\" of the dialog counts it again";
    return graph;
  };
  return plot_routines(w, plot);
}

graph_routines interval_height_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [&w](session_state&) {
    return w.heights ? make_interval_heights_graph(*w.heights) : graph_data{};
  };
  return plot_routines(w, plot);
}

graph_routines autocorrelation_time_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [](session_state& session) {
    return make_autocorrelation_time_graph(measure_autocorrelation_time(
        session, session.clusters.current_cluster, autocorrelation_time_bin(session)));
  };
  return plot_routines(w, plot);
}

void autocorrelation_time_command(workstation& w) {
  if (can_review(w.session, "Autocorrelation vs time")) {
    show_graph(w, graph_kind::autocorrelation_vs_time);
  }
}

}  // namespace kestrelvane
