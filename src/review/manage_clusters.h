// Manage clusters: the figures of one cluster, and deleting by rule.
//
// Opening saves an undo state, and "Cancel" goes back to it. Renumbering is that of the
// post-processing; whoever calls it for this dialog sets changed. Worker's work.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "session/session_state.h"
#include "sorting/unit_table.h"

namespace kestrelvane {

struct cluster_management {
  bool can_undo = false;
  bool changed = false;  // something was changed since it opened
};
// Guards; false, after a box: the dialog does not open.
bool open_cluster_management(session_state& session, cluster_management& management);

// "Events registered to". The first three add up to the events of the cluster; duplicates are
// pairs of its events less than 5 samples apart.
struct registration_counts {
  std::int32_t n_events = 0;
  std::int32_t template_channel = 0, neighbours = 0, other_channels = 0;
  std::int32_t duplicates = 0;
};
registration_counts count_registrations(const session_state& session, std::int32_t cluster);
// Per cent of the cluster, as shown to one decimal; 0 of none.
double registration_percent(const registration_counts& counts, std::int32_t count);

// Stable when all its pairs are distinct; unknown without lists. As text: cluster_status_text.
cluster_status find_cluster_status(const session_state& session, std::int32_t cluster);

// Twice the root mean square distance of the assigned channels from the template's centre,
// each with the weight of its peak-to-peak height; µm.
double template_width_um(const session_state& session, std::int32_t cluster);

// What the dialog shows; zeros for a number that is no cluster.
struct managed_cluster {
  std::int32_t cluster = 0, n_clusters = 0;
  std::int32_t channel = 0, n_events = 0;
  std::int32_t source = 0;  // cluster that an edit cut it off from; 0: left blank
  cluster_status status = cluster_status::unknown;
  double peak_to_peak = 0;  // µV
  double snr = 0;           // 0 for event-based recordings
  float x = 0, y = 0;       // µm
  double width = 0;         // µm
  double quality = 0;
  registration_counts registered;
};
managed_cluster show_managed_cluster(const session_state& session, std::int32_t cluster);

// review_settings::manage_option_4, the rule by which "Delete clusters" goes.
enum deletion_rule : std::int32_t {
  rule_by_size = 1,    // fewer events than delete_size_limit
  rule_by_snr = 2,     // below delete_snr_limit; not in event-based recordings
  rule_by_height = 3,  // peak-to-peak below manage_option_1, µV
  rule_ambiguous = 4,  // not distinct from some other cluster
};

// The user's word on a unit, from any dialog of the review.
void label_unit(session_state& session, std::int32_t cluster, unit_label label);
// Labels of several units in one edit, one for each in turn, with an undo state of their own. False
// when all of them have these labels.
bool label_units(session_state& session, const std::vector<std::int32_t>& units,
                 const std::vector<unit_label>& labels);
// The labels, and all else, as they were before the last label_units; false where there is nothing
// to go back to.
bool undo_unit_labels(session_state& session);

// Each says how it went; false when nothing changed.
bool delete_managed_cluster(session_state& session, cluster_management& management,
                            std::int32_t cluster);
bool delete_clusters_by_rule(session_state& session, cluster_management& management);
bool delete_all_clusters(session_state& session, cluster_management& management);
// Takes the worse event of each duplicate of a cluster out of it, back at the time of its
// detection; by the rule of post-processing. Returns how many went.
std::int32_t remove_cluster_duplicates(session_state& session, cluster_management& management,
                                       std::int32_t cluster);

// "Cancel": brings back what was there at opening, and says so if there was anything to bring
// back.
void cancel_cluster_management(session_state& session, cluster_management& management);

}  // namespace kestrelvane
