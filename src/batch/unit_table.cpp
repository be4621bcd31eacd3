#include "batch/unit_table.h"

#include <fmt/format.h>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

// Without pair lists only a cluster that is alone can be judged.
unit_stability judge_stability(const session_state& session, std::int32_t cluster) {
  if (session.clusters.n_clusters > 1 && session.lists.n_kv_pairs == 0) {
    return unit_stability::unknown;
  }
  return cluster_is_stable(session, cluster) ? unit_stability::stable : unit_stability::unstable;
}

void measure_template(const session_state& session, unit_row& unit) {
  const recording_store& r = session.recording;
  unit.x = session.templates.template_x[unit.cluster];
  unit.y = session.templates.template_y[unit.cluster];
  unit.channel = session.templates.centre_channel(unit.cluster);
  if (unit.channel < 1 || unit.channel > r.n_channels) return;
  unit.peak_to_peak =
      double{template_peak_to_peak(session, unit.cluster, unit.channel)} * r.vscale_HP;
  unit.snr = template_snr(session, unit.cluster);
}

}  // namespace

const char* stability_text(unit_stability stability) {
  switch (stability) {
    case unit_stability::stable:
      return "stable";
    case unit_stability::unstable:
      return "not stable";
    case unit_stability::unknown:
      break;
  }
  return "-";
}

std::vector<unit_row> make_unit_table(const session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  std::vector<unit_row> units(static_cast<std::size_t>(n));
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const double seconds = 60.0 * session.recording.duration_mins;
  for (std::int32_t c = 1; c <= n; ++c) {
    unit_row& unit = units[static_cast<std::size_t>(c - 1)];
    unit.cluster = c;
    unit.n_events = sizes[static_cast<std::size_t>(c)];
    unit.rate = seconds > 0 ? unit.n_events / seconds : 0.0;
    unit.stability = judge_stability(session, c);
    measure_template(session, unit);
  }
  return units;
}

std::string print_unit_table(const std::vector<unit_row>& units) {
  std::string text =
      fmt::format("{:>7} {:>7} {:>7} {:>7} {:>8} {:>8} {:>8} {:>6}  {}\n", "cluster", "channel",
                  "x/µm", "y/µm", "events", "rate/Hz", "p-p/µV", "SNR", "status");
  for (const unit_row& u : units) {
    text += fmt::format("{:>7} {:>7} {:>7.1f} {:>7.1f} {:>8} {:>8.2f} {:>8.1f} {:>6.1f}  {}\n",
                        u.cluster, u.channel, u.x, u.y, u.n_events, u.rate, u.peak_to_peak, u.snr,
                        stability_text(u.stability));
  }
  return text;
}

}  // namespace kestrelvane
