// What reading a work file does round the rows: clearing what the file replaces,
// and putting right afterwards what no later stage could bear.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "session/session_state.h"

namespace kestrelvane {

// What a read may have to go back to.
struct kept_settings {
  std::vector<double> values;  // every element of every row of the settings table
  float window_start_ms = 0, window_end_ms = 0;
  filter_history_table filter_history;
  logical recording_filtered;
};

kept_settings keep_settings(const session_state& session);

// Empties events, clusters, comments and pair lists. Fields that old versions
// lack (cluster_sigma) keep what they had.
void prepare_for_work_file(session_state& session);

// A setting outside its range gets back its earlier value, with a log line; then
// everything that is derived from settings is built anew.
void settle_settings(session_state& session, const kept_settings& before);

// Makes the sort of a file just read consistent: removes events outside the
// samples, completes what old versions lack. Returns an empty text, or what makes
// the file unusable.
std::string settle_sort(session_state& session, std::int32_t version);

// After a failed read: no events, no clusters, no lists; the filter history is
// again that of the samples in memory.
void forget_sort(session_state& session, const kept_settings& before);

}  // namespace kestrelvane
