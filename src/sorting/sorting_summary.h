// The sorting summary: the same facts for every cluster at once.
//
// Made in one pass over the events and one over the pairs, so that a full session takes
// well under a second; still work for the worker.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

enum class cluster_status { stable, unstable, unknown };  // unknown: there are no pair lists

struct summary_row {
  std::int32_t cluster = 0;
  std::int32_t channel = 0;  // centre channel of the template
  float y = 0;               // µm, template_y
  std::int32_t n_events = 0;
  double peak_to_peak = 0;  // µV on the centre channel, rounded to a tenth
  double snr = 0;           // template_snr
  cluster_status status = cluster_status::unknown;
};

struct sorting_summary {
  std::string file_name, file_type;
  std::int32_t n_events = 0, n_clustered = 0, n_unclustered = 0;
  double percent_clustered = 0;  // 0 without events
  std::int32_t n_clusters = 0, n_stable = 0;
  std::vector<summary_row> rows;  // in cluster order
};

sorting_summary make_sorting_summary(const session_state& session);

// In eight characters: "  stable", "unstable" or " unknown".
const char* cluster_status_text(cluster_status status);

// Columns of the table, with their headings.
enum class summary_column { cluster, channel, y, events, peak_to_peak, snr, status, count };
const char* summary_heading(summary_column column);
std::string summary_text(const summary_row& row, summary_column column);

// Sorts rows by a column; those that are equal in it keep their order.
void sort_summary(std::vector<summary_row>& rows, summary_column column, bool ascending);

}  // namespace kestrelvane
