#include <QHeaderView>
#include <QShortcut>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <memory>

#include "results/curation_file.h"
#include "review/recorded_edit.h"
#include "review/replay.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/operation.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The edits of the review, line by line, and the way back to any of them.
struct history_window {
  workstation& w;
  operation_dialog* dialog;
  QTreeWidget* lines = nullptr;
  QLabel* message = nullptr;
  QProgressBar* bar = nullptr;
  QPushButton *back = nullptr, *interrupt = nullptr;
};
using shared_history = std::shared_ptr<history_window>;

enum column { number_column, time_column, edit_column, n_columns };

QTreeWidgetItem* make_line(std::int32_t number, const QString& time, const QString& text) {
  auto* line = new QTreeWidgetItem({QString::number(number), time, text});
  line->setData(number_column, Qt::UserRole, number);
  line->setTextAlignment(number_column, Qt::AlignRight);
  return line;
}

QString time_text(std::chrono::system_clock::time_point time) {
  return QDateTime::fromSecsSinceEpoch(std::chrono::system_clock::to_time_t(time))
      .toString("yyyy-MM-dd HH:mm:ss");
}

// What has been taken back stays in the list, where it can be gone back to, but recedes.
void show_lines(const history_window& h) {
  const edit_history& history = h.w.session.history;
  h.lines->clear();
  h.lines->addTopLevelItem(make_line(0, {}, "The beginning"));
  const std::vector<std::int32_t> in_force = records_in_force(history, last_record(history));
  std::int32_t number = 0;
  for (const edit_record& record : history.records) {
    auto* line =
        make_line(++number, time_text(record.time), QString::fromStdString(edit_text(record)));
    const bool holds = std::binary_search(in_force.begin(), in_force.end(), number);
    line->setToolTip(edit_column, holds ? "In force" : "Taken back, or a step back itself");
    if (!holds) {
      for (int c = 0; c < n_columns; ++c) {
        line->setForeground(c, h.lines->palette().brush(QPalette::Disabled, QPalette::Text));
      }
    }
    h.lines->addTopLevelItem(line);
  }
  h.lines->setCurrentItem(h.lines->topLevelItem(h.lines->topLevelItemCount() - 1));
  h.lines->scrollToBottom();
}

void go_back(const shared_history& h) {
  const QTreeWidgetItem* line = h->lines->currentItem();
  if (line == nullptr || h->dialog->running()) return;
  const std::int32_t number = line->data(number_column, Qt::UserRole).toInt();
  h->message->setText("Repeating the edits up to there ...");
  h->bar->setValue(0);
  const auto done = std::make_shared<bool>(false);
  h->dialog->run(
      [number, done](session_state& session) {
        load_beginning(session);
        *done = go_back_to(session, number);
      },
      [h, done, number] {
        set_interrupts(h->w.session.operation, false);
        h->bar->setValue(*done ? h->bar->maximum() : 0);
        h->message->setText(!*done       ? QString("Nothing has changed")
                            : number > 0 ? QString("The sort is as edit %1 left it").arg(number)
                                         : QString("The sort is as the review began with it"));
        show_lines(*h);
        refresh_windows(h->w);
      });
}

QTreeWidget* make_list(const shared_history& h) {
  auto* list = new QTreeWidget;
  list->setObjectName("history_list");
  list->setHeaderLabels({"#", "Time", "Edit"});
  list->setRootIsDecorated(false);
  list->setUniformRowHeights(true);
  list->setMinimumSize(460, 260);
  list->header()->setSectionResizeMode(number_column, QHeaderView::ResizeToContents);
  list->header()->setSectionResizeMode(time_column, QHeaderView::ResizeToContents);
  QObject::connect(list, &QTreeWidget::itemDoubleClicked, h->dialog, [h] { go_back(h); });
  return list;
}

QDialogButtonBox* button_row(const shared_history& h) {
  auto* buttons = new QDialogButtonBox;
  h->back = add_button(buttons, "back_to_here", "Back to here", QDialogButtonBox::ActionRole,
                       "Bring the sort to the state after this edit; later ones stay in the list");
  h->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop, and leave the sort as it is");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  h->interrupt->setEnabled(false);
  h->dialog->enabled_while_running << h->interrupt;
  h->dialog->disabled_while_running << h->back << h->lines << done;
  QObject::connect(h->back, &QPushButton::clicked, h->dialog, [h] { go_back(h); });
  QObject::connect(h->interrupt, &QPushButton::clicked, h->dialog,
                   [h] { set_interrupts(h->w.session.operation, true); });
  QObject::connect(done, &QPushButton::clicked, h->dialog, &QDialog::accept);
  return buttons;
}

}  // namespace

void history_command(workstation& w) {
  if (w.session.history.records.empty()) {
    show_message(w, "There are no edits yet: the history begins with the first one", "History");
    return;
  }
  auto* dialog = new operation_dialog(w, "history_dialog", "History");
  const auto h = std::make_shared<history_window>(history_window{w, dialog});
  h->lines = make_list(h);
  h->message = new QLabel;
  h->message->setObjectName("message");
  h->bar = make_bar("progress", 100);
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(h->lines, 1);
  layout->addWidget(h->message);
  layout->addWidget(h->bar);
  layout->addWidget(button_row(h));
  follow(w, dialog, every_meter(h->bar));
  show_lines(*h);
  open_runner(w, dialog);
  h->lines->setFocus();
}

}  // namespace kestrelvane
