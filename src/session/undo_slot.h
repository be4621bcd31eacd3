// The undo slot: one copy of the sort, taken before the user changes it.
//
// Plain storage, sized to the data at hand; the routines are in sorting/undo_state.h. The
// session owns one at most: a new save replaces it, and a new recording drops it. Tables keep the
// order of the tables they were copied from, without their unused ends: templates hold
// template_points floats for each channel of each cluster.
#pragma once

#include <cstdint>

#include "numerics/table.h"
#include "session/cluster_table.h"
#include "session/logical.h"

namespace kestrelvane {

struct undo_slot {
  std::int32_t n_channels = 0, template_points = 0;  // what the templates were packed by

  std::int32_t n_events = 0;
  table<std::int32_t> event_time, event_detected_time, event_channel, event_cluster;
  table<float> event_shift;
  table<std::int16_t> event_subcluster;

  std::int32_t n_clusters = 0, current_cluster = 0, previous_cluster = 0;
  table<std::int32_t> cluster_spare, cluster_tag;
  table<float> cluster_sigma, cluster_reserved;
  table<text256> cluster_comment;
  table<cluster_ellipse_record> cluster_ellipse;
  table<logical> cluster_signed_off;
  table<std::int32_t> template_n_channels;
  table<float> template_x, template_y, template_z;
  table<std::int32_t> template_channels;  // n_channels to a cluster
  table<float> template_mean, template_sd;

  std::int32_t n_kv_pairs = 0;
  table<logical> kv_templates_dont_overlap, kv_user_distinct, kv_user_ambiguous;
  table<float> kv_template_correlation, kv_cluster_overlap, rms_template_shift;
  table<std::int32_t> kv_n_shift_template;
  table<std::int16_t> kv_split_tries;
  std::int32_t n_match = 0;
  table<std::int32_t> match_a, match_b;
  table<float> match_values;
};

}  // namespace kestrelvane
