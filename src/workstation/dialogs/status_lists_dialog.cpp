#include <QVBoxLayout>

#include "sorting/status_lists.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

void show_counts(operation_dialog* dialog, const session_state& session) {
  const auto show = [dialog](const char* name, std::int32_t n) {
    dialog->findChild<QLabel*>(name)->setText(QString::number(n));
  };
  show("n_clusters", session.clusters.n_clusters);
  // Without lists nothing is known of pairs; a cluster that has none is stable.
  const bool known = session.lists.n_kv_pairs > 0 || session.clusters.n_clusters < 2;
  show("stable_clusters", known ? count_stable_clusters(session) : 0);
  show("pairs_to_examine", known ? count_pairs_to_examine(session) : 0);
}

}  // namespace

void status_lists_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "status_lists_dialog", "Make status lists");
  auto* rows = new QFormLayout;
  add_value(rows, "n_clusters", "Clusters");
  add_value(rows, "stable_clusters", "Stable", {}, "Clusters all of whose pairs are distinct");
  add_value(rows, "pairs_to_examine", "Pairs to examine", {},
            "Pairs that are neither distinct nor marked ambiguous");
  QProgressBar* bar = make_bar("progress", 100);
  auto* buttons = new QDialogButtonBox;
  QPushButton* begin = add_button(buttons, "begin", "Begin", QDialogButtonBox::ActionRole,
                                  "Compare all pairs anew; forgets the marks of the user");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole);
  begin->setDefault(true);
  dialog->disabled_while_running << begin << done;
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(rows);
  layout->addWidget(bar);
  layout->addWidget(buttons);
  dialog->setMinimumWidth(320);

  QObject::connect(w.desk, &interface_desk::progressed, dialog,
                   [bar](meter which, int value, int range) {
                     if (which != meter::status_lists) return;
                     bar->setRange(0, range);
                     bar->setValue(value);
                   });
  QObject::connect(begin, &QPushButton::clicked, dialog, [dialog, bar, &w] {
    bar->setValue(0);
    dialog->run(build_status_lists, [dialog, bar, &w] {
      bar->setValue(bar->maximum());
      show_counts(dialog, w.session);
    });
  });
  QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
  show_counts(dialog, w.session);
  open_dialog(w, dialog);
}

}  // namespace kestrelvane
