#include <QVBoxLayout>
#include <memory>

#include "sorting/status_lists.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The pairs of clusters compared anew. It is a dialog of its own, with a button, because it
// forgets which pairs the user has marked ambiguous: hours of looking may be in them.
struct lists_window {
  workstation& w;
  operation_dialog* dialog;
  QLabel *n_clusters = nullptr, *stable = nullptr, *to_examine = nullptr;
  QProgressBar* bar = nullptr;
};
using shared_lists = std::shared_ptr<lists_window>;

void show_counts(const lists_window& l) {
  const session_state& session = l.w.session;
  l.n_clusters->setText(QString::number(session.clusters.n_clusters));
  // Without lists nothing is known of pairs; a cluster that has none is stable.
  const bool known = session.lists.n_kv_pairs > 0 || session.clusters.n_clusters < 2;
  l.stable->setText(QString::number(known ? count_stable_clusters(session) : 0));
  l.to_examine->setText(QString::number(known ? count_pairs_to_examine(session) : 0));
}

QLayout* count_rows(lists_window& l) {
  auto* rows = new QFormLayout;
  l.n_clusters = add_value(rows, "n_clusters", "Clusters");
  l.stable =
      add_value(rows, "stable_clusters", "Stable", {}, "Clusters all of whose pairs are distinct");
  l.to_examine = add_value(rows, "pairs_to_examine", "Pairs to examine", {},
                           "Pairs that are neither distinct nor marked ambiguous");
  return rows;
}

void compare_pairs(const shared_lists& l) {
  l->bar->setValue(0);
  l->dialog->run(build_status_lists, [l] {
    // The last pairs may be too few to be reported.
    l->bar->setValue(l->bar->maximum());
    show_counts(*l);
  });
}

QDialogButtonBox* button_row(const shared_lists& l) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* begin = add_button(buttons, "begin", "Begin", QDialogButtonBox::ActionRole,
                                  "Compare all pairs anew; forgets the marks of the user");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole);
  begin->setDefault(true);
  l->dialog->disabled_while_running << begin << done;
  QObject::connect(begin, &QPushButton::clicked, l->dialog, [l] { compare_pairs(l); });
  QObject::connect(done, &QPushButton::clicked, l->dialog, &QDialog::accept);
  return buttons;
}

}  // namespace

void status_lists_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "status_lists_dialog", "Make status lists");
  const auto l = std::make_shared<lists_window>(lists_window{w, dialog});
  l->bar = make_bar("progress", 100);
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(count_rows(*l));
  layout->addWidget(l->bar);
  layout->addWidget(button_row(l));
  dialog->setMinimumWidth(320);  // a shorter bar hardly moves
  follow(w, dialog, {{meter::status_lists, l->bar}});
  show_counts(*l);
  open_runner(w, dialog);
}

}  // namespace kestrelvane
