// Labels of units by key: good, multi-unit, noise, unsorted, in every dialog of the review.
#pragma once

#include <QDialog>
#include <cstdint>
#include <functional>
#include <vector>

#include "session/cluster_table.h"

namespace kestrelvane {

class unit_list;
struct workstation;

using unit_labelled = std::function<void(std::int32_t cluster, unit_label label)>;

// Binds the four keys to the clusters that the dialog has on show, one or two; labelled is called
// for each when it is done, and may be empty. Nothing happens while a worker runs.
void bind_unit_labels(workstation& w, QDialog* dialog,
                      std::function<std::vector<std::int32_t>()> clusters, unit_labelled labelled);
// To the current cluster, which the list of the dialog shows. whose: what that cluster is there,
// "the cluster on show" or, as a key can mean but one of two, "the first cluster of the pair"; the
// tool-tip of the list says it with the keys.
void bind_unit_labels(workstation& w, QDialog* dialog, unit_list* list, const char* whose);

}  // namespace kestrelvane
