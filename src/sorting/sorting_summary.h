// The sorting summary: the same facts for every cluster at once.
//
// The rows are those of the unit table; making them is work for the worker.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"
#include "sorting/unit_table.h"

namespace kestrelvane {

struct sorting_summary {
  std::string file_name, file_type;
  std::int32_t n_events = 0, n_clustered = 0, n_unclustered = 0;
  double percent_clustered = 0;  // 0 without events
  std::int32_t n_clusters = 0, n_stable = 0;
  std::vector<unit_row> rows;  // in cluster order
};

sorting_summary make_sorting_summary(const session_state& session);

// In eight characters: "  stable", "unstable" or " unknown".
const char* cluster_status_text(cluster_status status);

// Columns of the table, with their headings.
enum class summary_column { cluster, channel, y, events, peak_to_peak, snr, status, count };
const char* summary_heading(summary_column column);
std::string summary_text(const unit_row& row, summary_column column);

// Sorts rows by a column; those that are equal in it keep their order.
void sort_summary(std::vector<unit_row>& rows, summary_column column, bool ascending);

}  // namespace kestrelvane
