// The clusters: parallel per-cluster records, numbers dense from 1 to n_clusters.
//
// A cluster is a number. Removing one closes the gap at once: every record above
// it moves down by one, and event_cluster follows (clustering/cluster_operations.h,
// the only writer of n_clusters apart from the readers of files). cluster_sigma
// stays where it is when numbers move.
#pragma once

#include <cstdint>

#include "numerics/table.h"
#include "session/limits.h"
#include "session/logical.h"

namespace kestrelvane {

// Ellipse drawn by the user in the principal components display.
struct cluster_ellipse_record {
  float centre_x, centre_y;  // PC units
  float semi_axis_1, semi_axis_2;
  float angle;  // degrees
};

struct cluster_table {
  std::int32_t n_clusters = 0;
  std::int32_t current_cluster = 0;   // selected in all dialogs; 0 when there is none
  std::int32_t previous_cluster = 0;  // current before a split

  table<std::int32_t> cluster_spare{cluster_limit};  // carried by the work file, no other reader
  table<float> cluster_sigma{cluster_limit};         // µV, bandwidth at sign-off; never moved
  table<float> cluster_reserved{cluster_limit};      // carried by the work file, no other reader
  table<text256> cluster_comment{cluster_limit};
  table<cluster_ellipse_record> cluster_ellipse{cluster_limit};
  table<logical> cluster_signed_off{cluster_limit};  // the splitter has finished with it
  table<std::int32_t> cluster_tag{cluster_limit};    // opaque value of the analysis tools

  // Legacy tables of the work file: zero in a new session, passed through.
  table<std::int32_t> history_count{cluster_limit};
  table<std::int32_t> history_a{std::int64_t{cluster_limit} * 150};
  table<std::int32_t> history_b{std::int64_t{cluster_limit} * 100};
  table<float> history_c{std::int64_t{cluster_limit} * 50};
  table<std::int32_t> history_d{std::int64_t{cluster_limit} * 50};
};

}  // namespace kestrelvane
