#include <QCheckBox>
#include <QHBoxLayout>
#include <QVBoxLayout>
#include <memory>

#include "results/exports.h"
#include "sorting/duplicates.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Nothing of the session changes here but by the two boxes: duplicates that are removed leave
// the sort for good, and are counted beforehand so that the user knows how many.
struct export_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  QComboBox* format = nullptr;
  QCheckBox* comments = nullptr;
  QLabel *n_duplicates = nullptr, *exported = nullptr;
  QProgressBar* bar = nullptr;

  export_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_export = std::shared_ptr<export_window>;

QLayout* source_rows(export_window& x) {
  const session_state& session = x.w.session;
  auto* rows = new QFormLayout;
  QLabel* source = add_value(
      rows, "source_file", "Source file name:", QString::fromStdString(source_file_path(session)));
  source->setWordWrap(true);
  add_value(rows, "n_clusters", "# of clusters", QString::number(session.clusters.n_clusters));
  if (session.recording.n_epochs > 1) {
    add_value(rows, "n_epochs", "Multiple epoch files", QString::number(session.recording.n_epochs),
              "A .ptcs export makes a file of every epoch");
  }
  x.n_duplicates = add_value(rows, "n_duplicates", "# of duplicates", "...",
                             "Events of one cluster that are the same spike found twice");
  return rows;
}

QLayout* choice_rows(export_window& x) {
  auto* rows = new QFormLayout;
  x.format = new QComboBox;
  x.format->setObjectName("data_format");
  x.format->setToolTip("The form in which the other tool reads sorted spikes");
  for (const export_format& format : export_formats()) {
    if (!format.in_full_menu) x.format->addItem(format.label, QString(format.name));
  }
  rows->addRow("Data format", x.format);
  rows->addRow(logical_control(x.form, "export_remove_duplicates",
                               "Remove duplicates within clusters before export",
                               "Duplicates leave the session, too"));
  rows->addRow(logical_control(x.form, "export_save_work_file", "Save work file after export",
                               "A work file beside the export, with its name"));
  rows->addRow(logical_control(x.form, "export_csv_heading", "Heading line in .csv files",
                               "A first line that names the columns"));
  x.comments = new QCheckBox("Save comments in .txt file");
  x.comments->setObjectName("save_comments");
  x.comments->setToolTip("The comments on units, as a text file beside the export");
  rows->addRow(x.comments);
  return rows;
}

// On the worker, since it walks all events; again after an export, which may have removed them.
void show_duplicates(const shared_export& x) {
  auto count = std::make_shared<std::int32_t>(0);
  x->dialog->run(
      [count](session_state& session) { *count = remove_duplicate_events(session, false); },
      [x, count] { x->n_duplicates->setText(QString("%1").arg(*count, 6)); });
}

void save_as(const shared_export& x) {
  x->form.store();
  // Read here: the worker must not touch a control.
  const export_format& format =
      *find_export_format(x->format->currentData().toString().toStdString());
  const bool comments = x->comments->isChecked();
  // Many formats are written too fast to report; a full bar from the last one would mislead.
  x->bar->setValue(0);
  // The file dialog comes from within, over this one; the worker waits for it.
  x->dialog->run(
      [&format, comments](session_state& session) {
        export_sorted_spikes_dialog(session, format, comments);
      },
      [x] { show_duplicates(x); });
}

QLayout* after_rows(export_window& x) {
  auto* rows = new QFormLayout;
  x.exported = add_value(rows, "exported_file", "Exported file name:");
  x.exported->setWordWrap(true);
  return rows;
}

QDialogButtonBox* button_row(const shared_export& x) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* save = add_button(buttons, "save_as", "Save As", QDialogButtonBox::ActionRole,
                                 "Choose a file and write it");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole);
  save->setDefault(true);
  x->dialog->disabled_while_running << save << done << x->format;
  QObject::connect(save, &QPushButton::clicked, x->dialog, [x] { save_as(x); });
  QObject::connect(done, &QPushButton::clicked, x->dialog, [x] {
    x->form.store();  // two boxes, which nothing can refuse
    x->dialog->accept();
  });
  return buttons;
}

}  // namespace

void export_command(workstation& w) {
  if (!needs_recording(w)) return;
  auto* dialog = new operation_dialog(w, "export_dialog", "Export spike files");
  const auto x = std::make_shared<export_window>(w, dialog);
  x->bar = make_bar("progress", 100);
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(source_rows(*x));
  layout->addLayout(choice_rows(*x));
  layout->addLayout(after_rows(*x));
  layout->addWidget(x->bar);
  layout->addWidget(button_row(x));
  dialog->setMinimumWidth(460);
  follow(w, dialog, {{meter::saving, x->bar}}, {{status_field::file_name, x->exported}});
  x->form.load();
  open_dialog(w, dialog);
  warn_of_incomplete_detection(w.session);  // over the dialog
  show_duplicates(x);
}

}  // namespace kestrelvane
