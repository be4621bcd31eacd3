// The undo slot: one copy of the sort, taken before the user changes it.
//
// Plain storage, sized to the data at hand; the routines are in sorting/undo_state.h. The
// session owns one at most: a new save replaces it, and a new recording drops it. The
// columns are those of the session's own records, without their unused ends; channels and
// waveforms of templates are packed, n_channels and n_channels times template_points to a
// cluster.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "session/cluster_table.h"
#include "session/event_table.h"
#include "session/status_lists_table.h"
#include "session/template_table.h"

namespace kestrelvane {

// The tools that save before they change. Each takes back only what it saved itself.
enum class undo_owner {
  nobody,
  realignment,
  cluster_review,
  guided_merge,
  pair_comparison,
  post_processing,
  management,
  template_pass,
  labels,
};

struct undo_slot {
  undo_owner owner = undo_owner::nobody;
  std::string recording_path;                      // whose sort it is
  std::chrono::system_clock::time_point saved_at;  // when

  std::int32_t n_channels = 0, template_points = 0;  // what the templates are packed by
  std::vector<logical> masks;                        // that they were made with, of each channel
  event_table events;
  cluster_table clusters;
  template_table templates;
  status_lists_table lists;

  undo_slot(std::int32_t n_events, std::int32_t n_clusters, std::int32_t n_pairs)
      : events(n_events), clusters(n_clusters), templates(n_clusters), lists(n_pairs) {}
};

}  // namespace kestrelvane
