#include <QDateTime>
#include <QFileInfo>
#include <QHeaderView>
#include <QLocale>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "operations/kept_states.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/operation.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

enum column { recording_column, time_column, events_column, clusters_column };

QTreeWidgetItem* make_line(const kept_state& state) {
  const QString recording = QString::fromStdString(state.recording);
  auto* line = new QTreeWidgetItem(
      {QFileInfo(recording).fileName(),
       QDateTime::fromSecsSinceEpoch(state.saved).toString("yyyy-MM-dd HH:mm:ss"),
       QLocale().toString(state.n_events), QLocale().toString(state.n_clusters)});
  for (const int number : {events_column, clusters_column}) {
    line->setTextAlignment(number, Qt::AlignRight | Qt::AlignVCenter);
  }
  line->setToolTip(recording_column, recording);
  line->setToolTip(time_column, QString::fromStdString(state.path));
  line->setData(recording_column, Qt::UserRole, QString::fromStdString(state.path));
  return line;
}

QTreeWidget* make_list(const std::vector<kept_state>& states) {
  auto* list = new QTreeWidget;
  list->setObjectName("earlier_states_list");
  list->setHeaderLabels({"Recording", "Saved", "Events", "Clusters"});
  list->setRootIsDecorated(false);
  list->setUniformRowHeights(true);
  for (const kept_state& state : states) list->addTopLevelItem(make_line(state));
  list->setCurrentItem(list->topLevelItem(0));
  list->header()->setStretchLastSection(false);
  list->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
  list->header()->setSectionResizeMode(recording_column, QHeaderView::Stretch);
  // Characters, for a name, a time and two numbers.
  list->setMinimumSize(list->fontMetrics().averageCharWidth() * 84,
                       list->fontMetrics().height() * 10);
  return list;
}

}  // namespace

void earlier_states_command(workstation& w) {
  const std::vector<kept_state> states = list_kept_states(w.session);
  if (states.empty()) {
    show_message(w, "No earlier states are kept", "Earlier states");
    return;
  }
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("earlier_states_dialog");
  dialog->setWindowTitle("Earlier states");
  QTreeWidget* list = make_list(states);
  auto* buttons = new QDialogButtonBox;
  QPushButton* open =
      add_button(buttons, "open_state", "Open", QDialogButtonBox::AcceptRole,
                 "Read the recording again, and the state over it; the file of the state stays");
  QPushButton* cancel = add_button(buttons, "cancel", "Cancel", QDialogButtonBox::RejectRole);
  open->setDefault(true);
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(new QLabel("Sorts of earlier sessions that have not been saved by their user"));
  layout->addWidget(list, 1);
  layout->addWidget(buttons);
  const auto open_current = [&w, dialog, list] {
    const QTreeWidgetItem* line = list->currentItem();
    if (line == nullptr) return;
    const QString path = line->data(recording_column, Qt::UserRole).toString();
    dialog->accept();
    open_kept_state_path(w, path);
  };
  QObject::connect(open, &QPushButton::clicked, dialog, open_current);
  QObject::connect(list, &QTreeWidget::itemDoubleClicked, dialog, open_current);
  QObject::connect(cancel, &QPushButton::clicked, dialog, &QDialog::reject);
  open_dialog(w, dialog);
  list->setFocus();
}

}  // namespace kestrelvane
