#include "sorting/sorting_summary.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>

#include "recording/recording_formats.h"
#include "sorting/status_lists.h"

namespace kestrelvane {

namespace {

// The label of the format without its pattern of file names.
std::string file_type_text(const session_state& session) {
  const recording_format* format = find_recording_format(session.recording.file_type);
  if (format == nullptr || session.recording.n_samples == 0) return {};
  const std::string label = format->filter_label;
  return label.substr(0, label.find_last_not_of(' ', label.find('(') - 1) + 1);
}

// key: a field of the row, or a routine of it.
template <typename Key>
void sort_by(std::vector<unit_row>& rows, Key key, bool ascending) {
  std::stable_sort(rows.begin(), rows.end(), [&](const unit_row& a, const unit_row& b) {
    // Operands change sides, not the answer: equal rows keep their order either way.
    return ascending ? std::invoke(key, a) < std::invoke(key, b)
                     : std::invoke(key, b) < std::invoke(key, a);
  });
}

}  // namespace

sorting_summary make_sorting_summary(const session_state& session) {
  sorting_summary summary;
  summary.file_name = session.recording.recording_path;
  summary.file_type = file_type_text(session);
  summary.n_events = session.events.n_events;
  summary.n_clusters = session.clusters.n_clusters;
  summary.n_stable = count_stable_clusters(session);
  summary.rows = make_unit_table(session);
  for (const unit_row& row : summary.rows) summary.n_clustered += row.n_events;
  // Clusters hold each event once, so that what they do not count is unclustered.
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

std::string summary_text(const unit_row& row, summary_column column) {
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
      return fmt::format("{:.1f}", rounded_uv(row.peak_to_peak));
    case summary_column::snr:
      return fmt::format("{:.2f}", row.snr);
    case summary_column::status:
      return cluster_status_text(row.status);
    case summary_column::count:
      break;
  }
  return {};
}

void sort_summary(std::vector<unit_row>& rows, summary_column column, bool ascending) {
  switch (column) {
    case summary_column::cluster:
      return sort_by(rows, &unit_row::cluster, ascending);
    case summary_column::channel:
      return sort_by(rows, &unit_row::channel, ascending);
    case summary_column::y:
      return sort_by(rows, &unit_row::y, ascending);
    case summary_column::events:
      return sort_by(rows, &unit_row::n_events, ascending);
    case summary_column::peak_to_peak:
      // As shown: rows that look alike keep their order.
      return sort_by(
          rows, [](const unit_row& r) { return rounded_uv(r.peak_to_peak); }, ascending);
    case summary_column::snr:
      return sort_by(rows, &unit_row::snr, ascending);
    case summary_column::status:
      return sort_by(rows, &unit_row::status, ascending);
    case summary_column::count:
      break;
  }
}

}  // namespace kestrelvane
