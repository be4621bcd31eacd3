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

  // Rows that come later keep the order that the user has asked for meanwhile.
  void show(std::vector<unit_row> rows) {
    beginResetModel();
    rows_ = std::move(rows);
    sort_summary(rows_, column_, ascending_);
    endResetModel();
  }
  std::int32_t cluster_at(int row) const { return rows_[row].cluster; }
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
    const unit_row& row = rows_[at.row()];
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

// A line for every cluster. The figures are taken once, on opening; the window changes nothing
// but the current cluster, so that it may be opened at any point of a sort.
struct summary_window {
  workstation& w;
  operation_dialog* dialog;
  summary_model* model;
  QTableView* table = nullptr;
  QLabel *file_name = nullptr, *file_type = nullptr;
  QLabel *n_events = nullptr, *n_clustered = nullptr, *n_unclustered = nullptr;
  QLabel *percent_clustered = nullptr, *n_clusters = nullptr, *n_stable = nullptr;
};
using shared_summary = std::shared_ptr<summary_window>;

constexpr int name_width = 420;  // pixels; longer paths lose their middle

QLayout* top_block(summary_window& s) {
  auto* files = new QFormLayout;
  s.file_name = add_value(files, "file_name", "Filename");
  s.file_type = add_value(files, "file_type", "File type");
  auto* left = new QFormLayout;
  s.n_events = add_value(left, "n_events", "Total events", "...");
  s.n_clustered =
      add_value(left, "n_clustered", "Clustered", "...", "Events that belong to a cluster");
  s.n_unclustered =
      add_value(left, "n_unclustered", "unclustered", "...", "Events that belong to none");
  s.percent_clustered =
      add_value(left, "percent_clustered", "% clustered", "...", "Share of the events, percent");
  auto* right = new QFormLayout;
  s.n_clusters = add_value(right, "n_clusters", "# of clusters", "...");
  s.n_stable =
      add_value(right, "n_stable", "Stable", "...", "Clusters all of whose pairs are distinct");
  auto* counts = new QHBoxLayout;
  counts->addLayout(left, 1);
  counts->addLayout(right, 1);
  auto* column = new QVBoxLayout;
  column->addLayout(files);
  column->addLayout(counts);
  return column;
}

void show_top_block(const summary_window& s, const sorting_summary& summary) {
  const QString name = qt(summary.file_name);
  // Both ends tell recordings apart: the folder, and the number of the file.
  s.file_name->setText(s.file_name->fontMetrics().elidedText(name, Qt::ElideMiddle, name_width));
  s.file_name->setToolTip(name);
  s.file_type->setText(qt(summary.file_type));
  s.n_events->setText(QString::number(summary.n_events));
  s.n_clustered->setText(QString::number(summary.n_clustered));
  s.n_unclustered->setText(QString::number(summary.n_unclustered));
  s.percent_clustered->setText(QString::number(summary.percent_clustered, 'f', 1) + " %");
  s.n_clusters->setText(QString::number(summary.n_clusters));
  s.n_stable->setText(QString::number(summary.n_stable));
}

// Widths of columns and size of the window, kept from run to run. An entry that cannot be read
// counts as none.
void restore_layout(const summary_window& s) {
  const QSettings store;
  const QVariantList widths = store.value("summary/columns").toList();
  for (int column = 0; column < n_columns; ++column) {
    const int width = column < widths.size() ? widths[column].toInt() : 0;
    s.table->setColumnWidth(column, width > 0 ? width : 84);
  }
  s.dialog->resize(store.value("summary/size", QSize(660, 560)).toSize());
}

void save_layout(const summary_window& s) {
  QVariantList widths;
  for (int column = 0; column < n_columns; ++column) widths << s.table->columnWidth(column);
  QSettings store;
  store.setValue("summary/columns", widths);
  store.setValue("summary/size", s.dialog->size());
}

// The cluster of a line becomes the current one, which other windows show.
void choose_line(const summary_window& s, int row) {
  // Its number may be another cluster's by the time the worker has finished.
  if (s.w.worker.running) return;
  s.w.session.clusters.current_cluster = s.model->cluster_at(row);
  s.model->current_cluster_changed();
  refresh_graphs(s.w);
}

QTableView* make_table(const shared_summary& s) {
  auto* table = new QTableView;
  s->table = table;
  table->setObjectName("summary_table");
  table->setModel(s->model);
  // Digits one below the other, so that columns of figures can be compared at a glance.
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
  QObject::connect(table, &QTableView::doubleClicked, s->dialog,
                   [s](const QModelIndex& at) { choose_line(*s, at.row()); });
  return table;
}

// On the worker: a pass over all events and all pairs.
void count_and_show(const shared_summary& s) {
  const auto summary = std::make_shared<sorting_summary>();
  s->dialog->run([summary](session_state& session) { *summary = make_sorting_summary(session); },
                 [s, summary] {
                   show_top_block(*s, *summary);
                   s->model->show(std::move(summary->rows));
                 });
}

}  // namespace

void sorting_summary_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "summary_dialog", "Sorting summary");
  const auto s = std::make_shared<summary_window>(
      summary_window{w, dialog, new summary_model(w.session, dialog)});
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(top_block(*s));
  layout->addWidget(make_table(s), 1);
  layout->addWidget(buttons);
  dialog->setMinimumWidth(name_width);
  dialog->disabled_while_running << done;
  QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
  QObject::connect(dialog, &QDialog::finished, dialog, [s] { save_layout(*s); });
  restore_layout(*s);
  open_dialog(w, dialog);
  count_and_show(s);
}

}  // namespace kestrelvane
