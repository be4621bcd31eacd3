#include "workstation/windows/analysis_windows.h"

#include "analysis/autocorrelation_time.h"
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

}  // namespace

graph_routines spectrum_routines(workstation& w) {
  const auto plot = std::make_shared<graph_plot>();
  plot->numbers = [&w](session_state& session) {
    const std::shared_ptr<power_spectrum> spectrum = w.spectrum;
    if (!spectrum || spectrum->recording != recording_state(session)) return outdated_spectrum();
    return make_spectrum_graph(*spectrum, session.current_channel);
  };
  return plot_routines(w, plot);
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
