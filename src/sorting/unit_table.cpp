#include "sorting/unit_table.h"

#include <cmath>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "signal/blanking.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

// Status of every cluster, element 0 being spare. Going once through the pairs keeps to
// their order in memory.
std::vector<cluster_status> judge_clusters(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  const bool known = session.lists.n_kv_pairs > 0;
  std::vector<cluster_status> status(static_cast<std::size_t>(n) + 1,
                                     known ? cluster_status::stable : cluster_status::unknown);
  // Follows the numbering of pairs, which is the order of these two loops.
  std::int64_t k = 0;
  for (std::int32_t a = 1; known && a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      if (pair_is_distinct(session, ++k)) continue;
      status[a] = cluster_status::unstable;
      status[b] = cluster_status::unstable;
    }
  }
  return status;
}

// A template that is flat on every channel has no centre, and no amplitude.
void measure_template(const session_state& session, unit_row& unit) {
  const recording_store& r = session.recording;
  const template_table& templates = session.templates;
  unit.x = templates.template_x[unit.cluster];
  unit.y = templates.template_y[unit.cluster];
  unit.channel = templates.centre_channel(unit.cluster);
  unit.snr = template_snr(session, unit.cluster);
  if (unit.channel < 1 || unit.channel > r.n_channels) return;
  unit.peak_to_peak =
      double{template_peak_to_peak(session, unit.cluster, unit.channel)} * r.vscale_HP;
}

}  // namespace

std::vector<unit_row> make_unit_table(const session_state& session) {
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const std::vector<cluster_status> status = judge_clusters(session);
  // From the float of minutes that every display shows.
  const double seconds = 60.0 * session.recording.duration_mins;
  std::vector<unit_row> units;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const auto i = static_cast<std::size_t>(c);
    unit_row unit;
    unit.cluster = c;
    unit.n_events = sizes[i];
    unit.status = status[i];
    unit.label = session.clusters.cluster_label[c];
    measure_template(session, unit);
    // Where its channel was blanked nothing could have been found. Without a duration there is no
    // rate to tell.
    const double seen = seconds - blanked_seconds(session, unit.channel);
    unit.rate = seen > 0 ? sizes[i] / seen : 0.0;
    units.push_back(unit);
  }
  return units;
}

double rounded_uv(double uv) { return std::round(uv * 10) / 10; }

}  // namespace kestrelvane
