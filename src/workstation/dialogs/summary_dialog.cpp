#include <QAbstractTableModel>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QSettings>
#include <QTableView>
#include <QVBoxLayout>
#include <memory>

#include "sorting/sorting_summary.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr int n_columns = static_cast<int>(summary_column::count);

const char* column_tip(summary_column column) {
  static constexpr const char* tips[] = {
      "Number of the cluster",
      "Centre channel of the template",
      "Centre of gravity of the template along the probe, µm",
      "Events of the cluster",
      "Peak-to-peak amplitude of the template on its centre channel, µV",
      "Peak-to-peak amplitude over the noise of the centre channel; 0 where the noise is not known",
      "stable: distinct from every other cluster; unknown: status lists have not been made"};
  return tips[static_cast<int>(column)];
}

// The rows of the summary as the table asks for them. A heading sorts the rows themselves.
class summary_model : public QAbstractTableModel {
 public:
  summary_model(const session_state& session, QObject* parent)
      : QAbstractTableModel(parent), session_(session) {}

  void show(std::vector<unit_row> rows) {
    beginResetModel();
    rows_ = std::move(rows);
    sort_summary(rows_, column_, ascending_);
    endResetModel();
  }
  std::int32_t cluster_at(int row) const { return rows_[static_cast<std::size_t>(row)].cluster; }
  void current_cluster_changed() {
    if (!rows_.empty()) emit dataChanged(index(0, 0), index(rowCount({}) - 1, n_columns - 1));
  }

  int rowCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
  }
  int columnCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : n_columns;
  }
  QVariant data(const QModelIndex& at, int role) const override {
    const unit_row& row = rows_[static_cast<std::size_t>(at.row())];
    if (role == Qt::DisplayRole) {
      return QString::fromStdString(summary_text(row, static_cast<summary_column>(at.column())));
    }
    if (role == Qt::TextAlignmentRole) return int{Qt::AlignRight | Qt::AlignVCenter};
    if (role == Qt::FontRole && row.cluster == session_.clusters.current_cluster) return bold();
    return {};
  }
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
    if (orientation != Qt::Horizontal) return {};
    const auto column = static_cast<summary_column>(section);
    if (role == Qt::DisplayRole) return QString::fromUtf8(summary_heading(column));
    if (role == Qt::ToolTipRole) return QString::fromUtf8(column_tip(column));
    return {};
  }
  void sort(int section, Qt::SortOrder order) override {
    column_ = static_cast<summary_column>(section);
    ascending_ = order == Qt::AscendingOrder;
    beginResetModel();
    sort_summary(rows_, column_, ascending_);
    endResetModel();
  }

 private:
  static QFont bold() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setBold(true);
    return font;
  }
  const session_state& session_;
  std::vector<unit_row> rows_;
  summary_column column_ = summary_column::cluster;
  bool ascending_ = true;
};

QString qt(const std::string& text) { return QString::fromStdString(text); }

QLayout* top_block(operation_dialog* dialog) {
  auto* files = new QFormLayout;
  add_value(files, "file_name", "Filename");
  add_value(files, "file_type", "File type");
  auto* left = new QFormLayout;
  add_value(left, "n_events", "Total events", "...");
  add_value(left, "n_clustered", "Clustered", "...", "Events that belong to a cluster");
  add_value(left, "n_unclustered", "unclustered", "...", "Events that belong to none");
  add_value(left, "percent_clustered", "% clustered", "...", "Share of the events, percent");
  auto* right = new QFormLayout;
  add_value(right, "n_clusters", "# of clusters", "...");
  add_value(right, "n_stable", "Stable", "...", "Clusters all of whose pairs are distinct");
  auto* counts = new QHBoxLayout;
  counts->addLayout(left, 1);
  counts->addLayout(right, 1);
  auto* column = new QVBoxLayout;
  column->addLayout(files);
  column->addLayout(counts);
  dialog->setMinimumWidth(420);
  return column;
}

void show_top_block(operation_dialog* dialog, const sorting_summary& summary) {
  const auto show = [dialog](const char* name, const QString& text) {
    dialog->findChild<QLabel*>(name)->setText(text);
  };
  auto* file = dialog->findChild<QLabel*>("file_name");
  file->setText(file->fontMetrics().elidedText(qt(summary.file_name), Qt::ElideMiddle, 420));
  file->setToolTip(qt(summary.file_name));
  show("file_type", qt(summary.file_type));
  show("n_events", QString::number(summary.n_events));
  show("n_clustered", QString::number(summary.n_clustered));
  show("n_unclustered", QString::number(summary.n_unclustered));
  show("percent_clustered", QString::number(summary.percent_clustered, 'f', 1) + " %");
  show("n_clusters", QString::number(summary.n_clusters));
  show("n_stable", QString::number(summary.n_stable));
}

// Widths of columns and size of the window, kept from run to run.
void restore_layout(QDialog* dialog, QTableView* table) {
  const QSettings store;
  const QVariantList widths = store.value("summary/columns").toList();
  for (int column = 0; column < n_columns; ++column) {
    const int width = column < widths.size() ? widths[column].toInt() : 0;
    table->setColumnWidth(column, width > 0 ? width : 84);
  }
  dialog->resize(store.value("summary/size", QSize(660, 560)).toSize());
}

void save_layout(const QDialog* dialog, const QTableView* table) {
  QVariantList widths;
  for (int column = 0; column < n_columns; ++column) widths << table->columnWidth(column);
  QSettings store;
  store.setValue("summary/columns", widths);
  store.setValue("summary/size", dialog->size());
}

QTableView* make_table(workstation& w, operation_dialog* dialog, summary_model* model) {
  auto* table = new QTableView;
  table->setObjectName("summary_table");
  table->setModel(model);
  table->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  table->setSelectionBehavior(QAbstractItemView::SelectRows);
  table->setSelectionMode(QAbstractItemView::SingleSelection);
  table->setAlternatingRowColors(true);
  table->setToolTip(
      "Press a heading to sort by it; double-click a line to make its cluster the "
      "current one, shown in bold");
  table->verticalHeader()->hide();
  table->verticalHeader()->setDefaultSectionSize(table->fontMetrics().height() + 8);
  table->horizontalHeader()->setStretchLastSection(true);
  table->sortByColumn(0, Qt::AscendingOrder);
  table->setSortingEnabled(true);
  QObject::connect(table, &QTableView::doubleClicked, dialog, [&w, model](const QModelIndex& at) {
    if (w.worker.running) return;
    w.session.clusters.current_cluster = model->cluster_at(at.row());
    model->current_cluster_changed();
    refresh_graphs(w);
  });
  return table;
}

}  // namespace

void sorting_summary_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "summary_dialog", "Sorting summary");
  auto* model = new summary_model(w.session, dialog);
  QTableView* table = make_table(w, dialog, model);
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(top_block(dialog));
  layout->addWidget(table, 1);
  layout->addWidget(buttons);
  dialog->disabled_while_running << done;
  QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
  QObject::connect(dialog, &QDialog::finished, dialog,
                   [dialog, table] { save_layout(dialog, table); });
  restore_layout(dialog, table);
  open_dialog(w, dialog);
  // On the worker: a pass over all events and all pairs.
  const auto summary = std::make_shared<sorting_summary>();
  dialog->run([summary](session_state& session) { *summary = make_sorting_summary(session); },
              [dialog, model, summary] {
                show_top_block(dialog, *summary);
                model->show(std::move(summary->rows));
              });
}

}  // namespace kestrelvane
