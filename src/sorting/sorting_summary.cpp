#include "sorting/sorting_summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "clustering/membership.h"
#include "clustering/templates.h"
#include "recording/recording_formats.h"
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
  std::int64_t k = 0;
  for (std::int32_t a = 1; known && a < n; ++a) {
    for (std::int32_t b = a + 1; b <= n; ++b) {
      if (pair_is_distinct(session, ++k)) continue;
      status[static_cast<std::size_t>(a)] = cluster_status::unstable;
      status[static_cast<std::size_t>(b)] = cluster_status::unstable;
    }
  }
  return status;
}

double rounded_peak_to_peak(const session_state& session, std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t centre = session.templates.centre_channel(cluster);
  if (centre < 1 || centre > r.n_channels) return 0;
  const double uv = double{template_peak_to_peak(session, cluster, centre)} * r.vscale_HP;
  return std::round(uv * 10) / 10;
}

// The label of the format without its pattern of file names.
std::string file_type_text(const session_state& session) {
  const recording_format* format = find_recording_format(session.recording.file_type);
  if (format == nullptr || session.recording.n_samples == 0) return {};
  const std::string label = format->filter_label;
  return label.substr(0, label.find_last_not_of(' ', label.find('(') - 1) + 1);
}

template <typename Value>
void sort_by(std::vector<summary_row>& rows, Value summary_row::*field, bool ascending) {
  std::stable_sort(rows.begin(), rows.end(), [&](const summary_row& a, const summary_row& b) {
    return ascending ? a.*field < b.*field : b.*field < a.*field;
  });
}

}  // namespace

sorting_summary make_sorting_summary(const session_state& session) {
  sorting_summary summary;
  summary.file_name = session.recording.recording_path;
  summary.file_type = file_type_text(session);
  summary.n_events = session.events.n_events;
  summary.n_clusters = session.clusters.n_clusters;
  const std::vector<std::int32_t> sizes = count_events_by_cluster(session);
  const std::vector<cluster_status> status = judge_clusters(session);
  for (std::int32_t c = 1; c <= summary.n_clusters; ++c) {
    const auto i = static_cast<std::size_t>(c);
    summary.rows.push_back({c, session.templates.centre_channel(c), session.templates.template_y[c],
                            sizes[i], rounded_peak_to_peak(session, c), template_snr(session, c),
                            status[i]});
    summary.n_clustered += sizes[i];
    summary.n_stable += status[i] == cluster_status::stable;
  }
  summary.n_unclustered = summary.n_events - summary.n_clustered;
  if (summary.n_events > 0) {
    summary.percent_clustered = 100.0 * summary.n_clustered / summary.n_events;
  }
  return summary;
}

const char* cluster_status_text(cluster_status status) {
  switch (status) {
    case cluster_status::stable:
      return "  stable";
    case cluster_status::unstable:
      return "unstable";
    case cluster_status::unknown:
      break;
  }
  return " unknown";
}

const char* summary_heading(summary_column column) {
  static constexpr const char* headings[] = {"Cluster", "Channel", "Y pos", "Events",
                                             "p-p µV",  "SNR",     "Status"};
  return headings[static_cast<int>(column)];
}

std::string summary_text(const summary_row& row, summary_column column) {
  switch (column) {
    case summary_column::cluster:
      return fmt::format("{}", row.cluster);
    case summary_column::channel:
      return fmt::format("{}", row.channel);
    case summary_column::y:
      return fmt::format("{:.1f}", row.y);
    case summary_column::events:
      return fmt::format("{}", row.n_events);
    case summary_column::peak_to_peak:
      return fmt::format("{:.1f}", row.peak_to_peak);
    case summary_column::snr:
      return fmt::format("{:.2f}", row.snr);
    case summary_column::status:
      return cluster_status_text(row.status);
    case summary_column::count:
      break;
  }
  return {};
}

void sort_summary(std::vector<summary_row>& rows, summary_column column, bool ascending) {
  switch (column) {
    case summary_column::cluster:
      return sort_by(rows, &summary_row::cluster, ascending);
    case summary_column::channel:
      return sort_by(rows, &summary_row::channel, ascending);
    case summary_column::y:
      return sort_by(rows, &summary_row::y, ascending);
    case summary_column::events:
      return sort_by(rows, &summary_row::n_events, ascending);
    case summary_column::peak_to_peak:
      return sort_by(rows, &summary_row::peak_to_peak, ascending);
    case summary_column::snr:
      return sort_by(rows, &summary_row::snr, ascending);
    case summary_column::status:
      return sort_by(rows, &summary_row::status, ascending);
    case summary_column::count:
      break;
  }
}

}  // namespace kestrelvane
