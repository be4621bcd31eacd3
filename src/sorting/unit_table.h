// The table of units: what a sort found, one row per cluster.
//
// The one source of these figures: the sorting summary, the batch command's list and report,
// and the exports that carry measures show the same rows.
#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum class cluster_status { stable, unstable, unknown };  // unknown: there are no pair lists

struct unit_row {
  std::int32_t cluster = 0;
  std::int32_t channel = 0;  // centre channel of the template
  float x = 0, y = 0;        // µm, centre of gravity of the template
  std::int32_t n_events = 0;
  double rate = 0;          // events per second of the recording; 0 without a duration
  double peak_to_peak = 0;  // µV, of the template on the centre channel
  double snr = 0;           // template_snr
  cluster_status status = cluster_status::unknown;
  unit_label label = unit_label::unsorted;
  double violations = 0;  // refractory_violations, where somebody has asked for them
  // Figures of analysis/unit_quality.h, likewise; no number: not known.
  double contamination = std::numeric_limits<double>::quiet_NaN();  // by all pairs
  double cutoff = std::numeric_limits<double>::quiet_NaN();
  double presence = std::numeric_limits<double>::quiet_NaN();
  double nearest = std::numeric_limits<double>::quiet_NaN();
  double d_prime = std::numeric_limits<double>::quiet_NaN();
};

// In cluster order; one pass over the events and one over the pairs, so that a full session
// takes well under a second. Still work for the worker.
std::vector<unit_row> make_unit_table(const session_state& session);

// A voltage as tables show it, to a tenth of a µV.
double rounded_uv(double uv);

}  // namespace kestrelvane
