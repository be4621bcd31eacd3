// Labels of units by key: good, multi-unit, noise, unsorted, in every dialog of the review.
#pragma once

#include <QDialog>
#include <cstdint>
#include <functional>
#include <vector>

namespace kestrelvane {

class unit_list;
struct workstation;

// Binds the four keys to the clusters that the dialog has on show, one or two; its list follows.
// Nothing happens while a worker runs.
void bind_unit_labels(workstation& w, QDialog* dialog, unit_list* list,
                      std::function<std::vector<std::int32_t>()> clusters);
// The current cluster.
void bind_unit_labels(workstation& w, QDialog* dialog, unit_list* list);

}  // namespace kestrelvane
