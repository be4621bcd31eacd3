#include "workstation/dialogs/unit_labels.h"

#include <QPointer>
#include <QStatusBar>

#include "review/manage_clusters.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

struct label_action {
  const char* name;  // of review_keys
  unit_label label;
};
constexpr label_action label_actions[] = {
    {"label_good", unit_label::good},
    {"label_multi_unit", unit_label::multi_unit},
    {"label_noise", unit_label::noise},
    {"label_unsorted", unit_label::unsorted},
};

// On the worker: a label is an edit with its record, which of a large sort takes a moment.
void label_clusters(workstation& w, const QPointer<QDialog>& dialog,
                    const std::vector<std::int32_t>& clusters, unit_label label,
                    const unit_labelled& labelled) {
  if (w.worker.running || clusters.empty()) return;
  run_with_progress(
      w, "label_progress", "Label",
      [clusters, label](session_state& session) {
        for (const std::int32_t c : clusters) label_unit(session, c, label);
      },
      [&w, dialog, clusters, label, labelled] {
        // Where no column shows it, somebody has to say that the key was heard.
        constexpr int shown_ms = 4000;
        w.frame->statusBar()->showMessage(
            QString("Cluster %1: %2").arg(clusters.front()).arg(name_of(label).words), shown_ms);
        if (!dialog || !labelled) return;
        for (const std::int32_t c : clusters) labelled(c, label);
      });
}

}  // namespace

void bind_unit_labels(workstation& w, QDialog* dialog,
                      std::function<std::vector<std::int32_t>()> clusters, unit_labelled labelled) {
  const QPointer<QDialog> open(dialog);
  for (const label_action& action : label_actions) {
    bind_keys(dialog, action.name, [&w, open, clusters, labelled, label = action.label] {
      label_clusters(w, open, clusters(), label, labelled);
    });
  }
}

void bind_unit_labels(workstation& w, QDialog* dialog, unit_list* list, const char* whose) {
  QStringList told;
  for (const label_action& action : label_actions) {
    const QString keys = keys_of(action.name);
    if (!keys.isEmpty()) told << QString("%1 (%2)").arg(name_of(action.label).words, keys);
  }
  if (!told.isEmpty()) list->add_to_tip(QString("Label %1: %2").arg(whose, told.join(", ")));
  bind_unit_labels(
      w, dialog, [&w] { return current_cluster_alone(w); },
      [list](std::int32_t cluster, unit_label label) { list->relabel(cluster, label); });
}

}  // namespace kestrelvane
