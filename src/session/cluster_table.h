// The clusters: parallel per-cluster records, numbers dense from 1 to n_clusters.
//
// A cluster is a number. Removing one closes the gap at once: every record above
// it moves down by one, and event_cluster follows (clustering/cluster_operations.h,
// the only writer of n_clusters apart from the readers of files). cluster_sigma
// stays where it is when numbers move.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

// The user's word on a unit.
enum class unit_label : std::int32_t { unsorted, good, multi_unit, noise };
struct unit_label_name {
  unit_label label;
  const char* name;    // in files, as other programs of the field read it: "group"
  const char* letter;  // in tables; none for those that nobody has looked at
  const char* words;
};
inline constexpr unit_label_name unit_label_names[] = {
    {unit_label::unsorted, "unsorted", "", "Unsorted"},
    {unit_label::good, "good", "G", "Good"},
    {unit_label::multi_unit, "mua", "M", "Multi-unit"},
    {unit_label::noise, "noise", "N", "Noise"},
};
constexpr const unit_label_name& name_of(unit_label label) {
  return unit_label_names[static_cast<std::size_t>(label)];
}

struct cluster_table {
  std::int32_t n_clusters = 0;
  std::int32_t current_cluster = 0;   // selected in all dialogs; 0 when there is none
  std::int32_t previous_cluster = 0;  // current before a split

  // Moves with its cluster.
  table<text256> cluster_comment;
  table<cluster_ellipse_record> cluster_ellipse;
  table<logical> cluster_signed_off;  // the splitter has finished with it
  table<std::int32_t> cluster_tag;    // opaque value of the analysis tools
  table<unit_label> cluster_label;
  // The cluster that an edit of this session cut it off from, by the number that one had then;
  // 0: none did. Not saved.
  table<std::int32_t> cluster_source;
  // Two clusters of one number here are proposed to Guided Merge, for the reason of that number
  // (from 1); 0: none is.
  table<std::int32_t> cluster_proposal;

  std::vector<std::string> proposal_reasons;  // of cluster_proposal, element 0 of number 1

  // Stays at its number when clusters move.
  table<float> cluster_sigma;         // µV, bandwidth at sign-off
  table<float> cluster_reserved;      // carried by the work file, no other reader
  table<std::int32_t> cluster_spare;  // likewise

  // Legacy tables of the work file: zero in a new session, passed through.
  table<std::int32_t> history_count, history_a, history_b, history_d;
  table<float> history_c;

  cluster_table();                                // room for cluster_limit clusters
  explicit cluster_table(std::int64_t capacity);  // without the legacy tables
};

// Calls visit for each column that moves with its cluster; templates have their own.
template <typename Visit, record_of<cluster_table>... Tables>
void for_each_moving_column(Visit&& visit, Tables&... of) {
  visit(of.cluster_comment...);
  visit(of.cluster_ellipse...);
  visit(of.cluster_signed_off...);
  visit(of.cluster_tag...);
  visit(of.cluster_label...);
  visit(of.cluster_source...);
  visit(of.cluster_proposal...);
}

// Calls visit for each column of a cluster.
template <typename Visit, record_of<cluster_table>... Tables>
void for_each_column(Visit&& visit, Tables&... of) {
  for_each_moving_column(visit, of...);
  visit(of.cluster_sigma...);
  visit(of.cluster_reserved...);
  visit(of.cluster_spare...);
}

// Calls visit(table, entries per cluster) for each legacy table.
template <typename Visit>
void for_each_legacy_table(Visit&& visit, cluster_table& clusters) {
  visit(clusters.history_count, 1);
  visit(clusters.history_a, 150);
  visit(clusters.history_b, 100);
  visit(clusters.history_c, 50);
  visit(clusters.history_d, 50);
}

inline cluster_table::cluster_table(std::int64_t capacity) {
  for_each_column([capacity](auto& column) { column.reserve(capacity); }, *this);
}

inline cluster_table::cluster_table() : cluster_table(cluster_limit) {
  for_each_legacy_table(
      [](auto& legacy, std::int64_t each) { legacy.reserve(cluster_limit * each); }, *this);
}

// Whether the user has labelled any of the units.
inline bool has_unit_labels(const cluster_table& clusters) {
  for (std::int32_t c = 1; c <= clusters.n_clusters; ++c) {
    if (clusters.cluster_label[c] != unit_label::unsorted) return true;
  }
  return false;
}

// Forgets all clusters and what stood beside them.
inline void clear_cluster_table(cluster_table& clusters) {
  clusters.n_clusters = clusters.current_cluster = clusters.previous_cluster = 0;
  for_each_column([](auto& column) { column.clear(); }, clusters);
  clusters.proposal_reasons.clear();
  for_each_legacy_table([](auto& legacy, std::int64_t) { legacy.clear(); }, clusters);
}

}  // namespace kestrelvane
