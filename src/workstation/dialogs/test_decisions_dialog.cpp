#include <QAbstractTableModel>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QTableView>
#include <QVBoxLayout>
#include <memory>

#include "review/review_guards.h"
#include "sorting/pair_decisions.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

struct decision_column {
  const char *heading, *tip;
  QVariant (*value)(const pair_decision& decision);
};
// clang-format off
constexpr decision_column columns[] = {
    {"Pair", "The two clusters",
     [](const pair_decision& d) -> QVariant { return QString("%1 and %2").arg(d.a).arg(d.b); }},
    {"Verdict", "What Autosort would do with the pair as it is now",
     [](const pair_decision& d) -> QVariant { return QString(pair_verdict_text(d.verdict)); }},
    {"Overlap", "Cluster overlap: 0 apart, about 1 mixed",
     [](const pair_decision& d) -> QVariant { return QString::number(d.overlap, 'f', 3); }},
    {"Correlation", "Correlation of the templates, -1 to 1",
     [](const pair_decision& d) -> QVariant { return QString::number(d.correlation, 'f', 3); }},
    {"Why", "The measure that decides, and its limit",
     [](const pair_decision& d) -> QVariant { return QString::fromStdString(reason_text(d)); }},
};
// clang-format on
constexpr int n_columns = static_cast<int>(std::size(columns));

class decision_model : public QAbstractTableModel {
 public:
  using QAbstractTableModel::QAbstractTableModel;
  void show(std::vector<pair_decision> rows) {
    beginResetModel();
    rows_ = std::move(rows);
    endResetModel();
  }
  const pair_decision& at(int row) const { return rows_[row]; }
  int rowCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
  }
  int columnCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : n_columns;
  }
  QVariant data(const QModelIndex& at, int role) const override {
    if (role != Qt::DisplayRole) return {};
    return columns[at.column()].value(rows_[at.row()]);
  }
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::DisplayRole) return QString(columns[section].heading);
    return role == Qt::ToolTipRole ? QVariant(QString(columns[section].tip)) : QVariant();
  }

 private:
  std::vector<pair_decision> rows_;
};

// What the automatic rules say of each pair, beside the windows of the pair whose line is pressed.
// It changes nothing.
struct decisions_window {
  workstation& w;
  operation_dialog* dialog;
  decision_model* model;
  QTableView* table = nullptr;
  QLabel* summary = nullptr;
};
using shared_decisions = std::shared_ptr<decisions_window>;

void show_chosen(const decisions_window& d) {
  const QModelIndexList lines = d.table->selectionModel()->selectedRows();
  if (lines.isEmpty() || d.w.worker.running) return;
  const pair_decision& chosen = d.model->at(lines.first().row());
  const drawing_hold hold(d.w);
  show_pair_windows(d.w, chosen.a, chosen.b);
  tile_cluster_windows(d.w, d.dialog);
}

QString summary_text(const pair_decisions& all) {
  std::int64_t n[4] = {};
  for (const pair_decision& d : all.rows) ++n[static_cast<int>(d.verdict)];
  return QString(
             "%1 to merge, %2 to merge and split, %3 left to you, %4 distinct; %5 without a "
             "common channel are not listed")
      .arg(n[0])
      .arg(n[1])
      .arg(n[2])
      .arg(n[3])
      .arg(all.n_far_apart);
}

QTableView* make_table(const shared_decisions& d) {
  d->table = new QTableView;
  d->table->setObjectName("decisions");
  d->table->setModel(d->model);
  d->table->setSelectionBehavior(QAbstractItemView::SelectRows);
  d->table->setSelectionMode(QAbstractItemView::SingleSelection);
  d->table->setAlternatingRowColors(true);
  d->table->setToolTip("Press a line to see its pair in the windows");
  d->table->verticalHeader()->hide();
  d->table->horizontalHeader()->setStretchLastSection(true);
  QObject::connect(d->table->selectionModel(), &QItemSelectionModel::selectionChanged, d->dialog,
                   [d] { show_chosen(*d); });
  return d->table;
}

void open_decisions(const shared_decisions& d, const std::shared_ptr<pair_decisions>& all) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  QObject::connect(done, &QPushButton::clicked, d->dialog, &QDialog::accept);
  d->summary = new QLabel(summary_text(*all));
  d->summary->setObjectName("summary");
  d->summary->setWordWrap(true);
  auto* layout = new QVBoxLayout(d->dialog);
  layout->addWidget(make_table(d), 1);
  layout->addWidget(d->summary);
  layout->addWidget(buttons);
  d->model->show(std::move(all->rows));
  d->table->resizeColumnsToContents();
  // Headings that touch each other are hard to tell apart.
  constexpr int room = 16;  // pixels
  for (int column = 0; column < n_columns - 1; ++column) {
    d->table->setColumnWidth(column, d->table->columnWidth(column) + room);
  }
  QObject::connect(d->dialog, &QDialog::finished, d->dialog, [d] {
    keep_window_places(d->w);
    forget_pair(d->w);
  });
  d->dialog->resize(620, 560);
  place_at_right(d->w, d->dialog);
  open_beside(d->w, d->dialog, live_entries + measure_entries);
  if (d->model->rowCount({}) > 0) d->table->selectRow(0);
  d->table->setFocus();
}

}  // namespace

void test_decisions_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "test_decisions_dialog", "Test decisions");
  const auto d =
      std::make_shared<decisions_window>(decisions_window{w, dialog, new decision_model(dialog)});
  const auto all = std::make_shared<pair_decisions>();
  const auto opens = std::make_shared<bool>(false);
  // The guards may have to make the lists of pairs first.
  run_with_progress(
      w, "test_decisions_progress", "Test decisions",
      [all, opens](session_state& session) {
        *opens = can_review_pairs(session, "Test decisions");
        if (*opens) *all = list_pair_decisions(session);
      },
      [d, all, opens] {
        if (*opens) return open_decisions(d, all);
        delete d->dialog;
      });
}

}  // namespace kestrelvane
