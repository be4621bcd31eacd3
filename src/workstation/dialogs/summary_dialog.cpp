#include <QAbstractTableModel>
#include <QCheckBox>
#include <QFontDatabase>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QSettings>
#include <QTableView>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "analysis/correlograms.h"
#include "analysis/unit_quality.h"
#include "review/manage_clusters.h"
#include "session/run_log.h"
#include "sorting/realign_steps.h"
#include "sorting/sorting_summary.h"
#include "sorting/undo_state.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/unit_labels.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// What the dialog tells of a cluster: a row of the summary, and what only its further columns
// need.
struct summary_line {
  unit_row row;
  double violations = 0;  // refractory_violations
};

// What columns on a switch are made from, by cluster; empty where nobody looks at them.
struct further_figures {
  std::vector<double> violations;     // element c for cluster c
  std::vector<unit_quality> quality;  // element c - 1 for cluster c
};

// Further columns, on a switch.
struct further_column {
  const char *heading, *tip;
  double (*value)(const summary_line& line);
  int decimals;
  const char* (*text)(const summary_line& line) = nullptr;  // in place of the number
};
// clang-format off
constexpr further_column further_columns[] = {
    {"X pos",   "Centre of gravity of the template across the probe, µm",
     [](const summary_line& line) { return double(line.row.x); }, 1},
    {"Rate",    "Events per second of the recording",
     [](const summary_line& line) { return line.row.rate; }, 2},
    {"< 2 ms %", "Refractory violations: intervals below 2 ms, percent of the cluster's intervals",
     [](const summary_line& line) { return line.violations; }, 2},
    {"Label",   "Your word on the unit (Alt+G, Alt+M, Alt+N, Alt+U)",
     [](const summary_line& line) { return double(static_cast<int>(line.row.label)); }, 0,
     [](const summary_line& line) { return name_of(line.row.label).words; }},
};
// clang-format on

constexpr int n_own_columns = static_cast<int>(summary_column::count);
constexpr int n_known_columns = n_own_columns + static_cast<int>(std::size(further_columns));

// The quality of units comes last, on a switch of its own: it takes a look at every spike.
int count_columns() { return n_known_columns + static_cast<int>(quality_figures().size()); }
const quality_figure& figure_of(int column) { return quality_figures()[column - n_known_columns]; }

QString figure_heading(const quality_figure& figure) {
  const QString heading = figure.heading, unit = figure.unit;
  return unit.isEmpty() ? heading : heading + " " + unit;
}

QString figure_tip(const quality_figure& figure) {
  const QString good = figure.good;
  return QString("%1 (%2)%3")
      .arg(figure.meaning, figure.source, good.isEmpty() ? good : "; good: " + good);
}

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

// The lines of the summary as the table asks for them. A heading sorts the lines themselves.
class summary_model : public QAbstractTableModel {
 public:
  summary_model(const session_state& session, QObject* parent)
      : QAbstractTableModel(parent), session_(session) {}

  // Lines that come later keep the order that the user has asked for meanwhile.
  void show(std::vector<unit_row> rows, further_figures further) {
    beginResetModel();
    rows_ = std::move(rows);
    further_ = std::move(further);
    sort_rows();
    endResetModel();
  }
  std::int32_t cluster_at(int row) const { return rows_[row].cluster; }
  void relabel(std::int32_t cluster, unit_label label) {
    for (unit_row& row : rows_) {
      if (row.cluster == cluster) row.label = label;
    }
    current_cluster_changed();
  }
  void current_cluster_changed() {
    if (!rows_.empty()) emit dataChanged(index(0, 0), index(rowCount({}) - 1, count_columns() - 1));
  }

  int rowCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
  }
  int columnCount(const QModelIndex& parent) const override {
    return parent.isValid() ? 0 : count_columns();
  }
  QVariant data(const QModelIndex& at, int role) const override {
    const unit_row& row = rows_[at.row()];
    if (role == Qt::DisplayRole) return text(row, at.column());
    if (role == Qt::TextAlignmentRole) return int{Qt::AlignRight | Qt::AlignVCenter};
    if (role == Qt::FontRole && row.cluster == session_.clusters.current_cluster) return bold();
    return {};
  }
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override {
    if (orientation != Qt::Horizontal) return {};
    const bool own = section < n_own_columns;
    if (section >= n_known_columns) {
      const quality_figure& figure = figure_of(section);
      if (role == Qt::DisplayRole) return figure_heading(figure);
      return role == Qt::ToolTipRole ? figure_tip(figure) : QVariant();
    }
    const auto column = static_cast<summary_column>(section);
    if (role == Qt::DisplayRole) {
      return QString::fromUtf8(own ? summary_heading(column) : further(section).heading);
    }
    if (role == Qt::ToolTipRole) {
      return QString::fromUtf8(own ? column_tip(column) : further(section).tip);
    }
    return {};
  }
  void sort(int section, Qt::SortOrder order) override {
    column_ = section;
    ascending_ = order == Qt::AscendingOrder;
    beginResetModel();
    sort_rows();
    endResetModel();
  }

 private:
  static const further_column& further(int column) {
    return further_columns[column - n_own_columns];
  }
  static QFont bold() {
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setBold(true);
    return font;
  }
  summary_line line(const unit_row& row) const {
    const auto cluster = static_cast<std::size_t>(row.cluster);
    const std::vector<double>& violations = further_.violations;
    return {row, cluster < violations.size() ? violations[cluster] : 0.0};
  }
  const unit_quality* quality(const unit_row& row) const {
    const auto cluster = static_cast<std::size_t>(row.cluster);
    return cluster <= further_.quality.size() ? &further_.quality[cluster - 1] : nullptr;
  }
  double value(const unit_row& row, int column) const {
    if (column < n_known_columns) return further(column).value(line(row));
    const unit_quality* of_row = quality(row);
    const double figure = of_row != nullptr ? of_row->*figure_of(column).value : 0.0;
    // What cannot be told stands behind all that can.
    return std::isnan(figure) ? std::numeric_limits<double>::infinity() : figure;
  }
  QString text(const unit_row& row, int column) const {
    if (column < n_own_columns) {
      return QString::fromStdString(summary_text(row, static_cast<summary_column>(column)));
    }
    if (column >= n_known_columns) {
      const unit_quality* of_row = quality(row);
      if (of_row == nullptr) return {};
      return QString::fromStdString(quality_text(figure_of(column), *of_row));
    }
    const further_column& more = further(column);
    return more.text != nullptr ? QString(more.text(line(row)))
                                : QString::number(more.value(line(row)), 'f', more.decimals);
  }
  // Lines that are equal keep their order, either way.
  void sort_rows() {
    if (column_ < n_own_columns) {
      sort_summary(rows_, static_cast<summary_column>(column_), ascending_);
      return;
    }
    std::stable_sort(rows_.begin(), rows_.end(), [&](const unit_row& a, const unit_row& b) {
      const double of_a = value(a, column_), of_b = value(b, column_);
      return ascending_ ? of_a < of_b : of_b < of_a;
    });
  }

  const session_state& session_;
  std::vector<unit_row> rows_;
  further_figures further_;
  int column_ = 0;
  bool ascending_ = true;
};

QString qt(const std::string& text) { return QString::fromStdString(text); }

// A line for every cluster, beside the windows, which show the cluster of the line that is
// pressed. It changes nothing but the current cluster and, on request, labels, so that it may be
// opened at any point of a sort.
struct summary_window {
  workstation& w;
  operation_dialog* dialog;
  summary_model* model;
  QTableView* table = nullptr;
  QCheckBox *more = nullptr, *quality = nullptr;
  QWidget* limits = nullptr;  // of a first label
  QPushButton* undo = nullptr;
  std::unique_ptr<settings_form> form = nullptr;
  QLabel *file_name = nullptr, *file_type = nullptr;
  QLabel *n_events = nullptr, *n_clustered = nullptr, *n_unclustered = nullptr;
  QLabel *percent_clustered = nullptr, *n_clusters = nullptr, *n_stable = nullptr;
};
using shared_summary = std::shared_ptr<summary_window>;

constexpr int column_width = 84;  // pixels, until the user has chosen his own
constexpr int name_width = 420;   // pixels; longer paths lose their middle

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

// Widths of columns and the switch, kept from run to run; the window keeps its place itself. An
// entry that cannot be read counts as none.
void restore_layout(const summary_window& s) {
  const QSettings store;
  const QVariantList widths = store.value("summary/columns").toList();
  for (int column = 0; column < count_columns(); ++column) {
    const int width = column < widths.size() ? widths[column].toInt() : 0;
    s.table->setColumnWidth(column, width > 0 ? width : column_width);
  }
  s.more->setChecked(store.value("summary/more_columns", false).toBool());
  s.quality->setChecked(store.value("summary/quality_columns", false).toBool());
  s.dialog->resize(660, s.quality->isChecked() ? 700 : 560);
}

void save_layout(const summary_window& s) {
  QVariantList widths;
  for (int column = 0; column < count_columns(); ++column) widths << s.table->columnWidth(column);
  QSettings store;
  store.setValue("summary/columns", widths);
  store.setValue("summary/more_columns", s.more->isChecked());
  store.setValue("summary/quality_columns", s.quality->isChecked());
}

// The cluster of the line that is pressed, or come to with the cursor keys.
void choose_line(const summary_window& s) {
  const QModelIndexList lines = s.table->selectionModel()->selectedRows();
  if (lines.isEmpty()) return;
  choose_cluster(s.w, s.model->cluster_at(lines.first().row()));
  s.model->current_cluster_changed();
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
      "Press a heading to sort by it, a line to make its cluster the current one, which the "
      "windows show; it is bold");
  table->verticalHeader()->hide();
  table->verticalHeader()->setDefaultSectionSize(table->fontMetrics().height() + 8);
  table->horizontalHeader()->setStretchLastSection(true);
  table->sortByColumn(0, Qt::AscendingOrder);
  table->setSortingEnabled(true);
  QObject::connect(table->selectionModel(), &QItemSelectionModel::selectionChanged, s->dialog,
                   [s] { choose_line(*s); });
  return table;
}

// On the worker: a pass over all events and all pairs, and one over all intervals when somebody
// looks at them.
void count_and_show(const shared_summary& s) {
  struct counted {
    sorting_summary summary;
    further_figures further;
  };
  const auto result = std::make_shared<counted>();
  const bool more = s->more->isChecked(), quality = s->quality->isChecked();
  s->dialog->run(
      [result, more, quality](session_state& session) {
        result->summary = make_sorting_summary(session);
        if (more) result->further.violations = refractory_violations(session);
        // Waveforms are compared with the templates.
        if (quality) renew_outdated_templates(session);
        if (quality) result->further.quality = measure_quality(session);
      },
      [s, result] {
        show_top_block(*s, result->summary);
        s->model->show(std::move(result->summary.rows), std::move(result->further));
        s->undo->setEnabled(can_undo(s->w.session, undo_owner::labels));
      });
}

// Of all figures of quality these have a column of the summary's own.
bool stands_before(const quality_figure& figure) {
  return figure.value == &unit_quality::n_events || figure.value == &unit_quality::snr;
}

void show_further_columns(const summary_window& s) {
  const bool more = s.more->isChecked(), quality = s.quality->isChecked();
  for (int column = n_own_columns; column < count_columns(); ++column) {
    const bool known = column < n_known_columns;
    s.table->setColumnHidden(column, known ? !more : !quality || stands_before(figure_of(column)));
  }
  // Labels are what the figures are looked at for.
  s.table->setColumnHidden(n_known_columns - 1, !more && !quality);
  s.limits->setVisible(s.quality->isChecked());
}

// To the left, since the dialog stands at the right edge; windows are behind it anyway.
void make_room(const summary_window& s, int n_more, int higher = 0) {
  const QSize room = screen_room(s.dialog);
  const int width = std::min(s.dialog->width() + n_more * column_width, room.width());
  const int height = std::min(s.dialog->height() + higher, room.height());
  const int left = s.dialog->x() - (width - s.dialog->width());
  s.dialog->resize(width, height);
  s.dialog->move(std::max(0, left), s.dialog->y());
}

QCheckBox* more_box(const shared_summary& s) {
  s->more = new QCheckBox("position, rate, refractory violations and label");
  s->more->setObjectName("more_columns");
  s->more->setToolTip("Further columns");
  s->dialog->disabled_while_running << s->more;
  QObject::connect(s->more, &QCheckBox::clicked, s->dialog, [s](bool on) {
    show_further_columns(*s);
    const int n = n_known_columns - n_own_columns;
    make_room(*s, on ? n : -n);
    count_and_show(s);
  });
  return s->more;
}

QCheckBox* quality_box(const shared_summary& s) {
  s->quality = new QCheckBox("quality of the units");
  s->quality->setObjectName("quality_columns");
  s->quality->setToolTip(
      "Columns of the figures by which a unit is one neuron, whole and itself; each heading says "
      "what it means, where it comes from and what is good");
  s->dialog->disabled_while_running << s->quality;
  QObject::connect(s->quality, &QCheckBox::clicked, s->dialog, [s](bool on) {
    show_further_columns(*s);
    // A screen has no room for all of them; they scroll.
    constexpr int n_in_sight = 4;
    const int limits = s->limits->sizeHint().height();
    make_room(*s, on ? n_in_sight : -n_in_sight, on ? limits : -limits);
    count_and_show(s);
  });
  return s->quality;
}

// ---------------------------------------------------------------- first labels

struct limit_row {
  const char *label, *setting, *unit, *tip;
  double step;
  int decimals;
};
// clang-format off
constexpr limit_row limit_rows[] = {
    {"Contamination ≤", "good_contamination", "", "Of a good unit, by all pairs of spikes within "
     "the refractory period: fraction of foreign spikes at most", 0.01, 2},
    {"Cut-off ≤", "good_cutoff", "", "Of a good unit: fraction of spikes that the threshold has "
     "missed, at most", 0.01, 2},
    {"Presence ≥", "good_presence", "", "Of a good unit: fraction of the recording in which it "
     "fires, at least", 0.05, 2},
    {"SNR ≥", "good_snr", "", "Of a good unit: peak-to-peak over noise, at least; of event-based "
     "recordings it has no say", 0.5, 1},
    {"Noise: SNR <", "noise_snr", "", "Units with a smaller peak-to-peak over noise are noise", 0.5,
     1},
    {"Noise: events <", "noise_events", "", "Units of fewer events are noise", 10, 0},
    {"Refractory", "quality_refractory_ms", "ms", "Time in which no neuron fires twice, ms", 0.1,
     2},
    {"Censored", "quality_censored_ms", "ms", "Time in which the sorter finds no second spike, and "
     "which the violations leave out, ms", 0.1, 2},
};
// clang-format on

// By the limits as they stand in the fields: all units, in one edit.
void label_by_figures(const shared_summary& s) {
  if (!s->form->store()) return;
  s->dialog->run(
      [](session_state& session) {
        renew_outdated_templates(session);
        std::vector<std::int32_t> units;
        std::vector<unit_label> labels;
        for (const unit_quality& quality : measure_quality(session)) {
          units.push_back(quality.unit);
          labels.push_back(suggest_label(session, quality));
        }
        if (!label_units(session, units, labels)) {
          log_message(session, "Label by figures: all units have these labels");
        }
      },
      [s] { count_and_show(s); });
}

QLayout* label_buttons(const shared_summary& s) {
  QPushButton* label = make_button("label_by_figures", "&Label by figures",
                                   "Labels every unit good, multi-unit or noise by these limits");
  s->undo = make_button("undo_labels", "&Undo labels",
                        "All labels as they were before \"Label by figures\"");
  s->undo->setEnabled(false);
  s->dialog->disabled_while_running << label;
  QObject::connect(label, &QPushButton::clicked, s->dialog, [s] { label_by_figures(s); });
  QObject::connect(s->undo, &QPushButton::clicked, s->dialog, [s] {
    s->dialog->run([](session_state& session) { undo_unit_labels(session); },
                   [s] { count_and_show(s); });
  });
  auto* row = new QHBoxLayout;
  row->addStretch(1);
  row->addWidget(label);
  row->addWidget(s->undo);
  return row;
}

QWidget* limits_box(const shared_summary& s) {
  s->form = std::make_unique<settings_form>(s->w.session, s->dialog);
  auto* grid = new QGridLayout;
  std::vector<number_field*> fields;
  constexpr int n_across = 4;
  for (int i = 0; i < static_cast<int>(std::size(limit_rows)); ++i) {
    const limit_row& row = limit_rows[i];
    number_field* field = number_control(
        *s->form, row.setting,
        {.step = row.step, .decimals = row.decimals, .unit = row.unit, .tip = row.tip});
    auto* name = new QLabel(row.label);
    name->setBuddy(field);
    grid->addWidget(name, i / n_across, 2 * (i % n_across));
    grid->addWidget(field->row(false), i / n_across, 2 * (i % n_across) + 1);
    fields.push_back(field);
  }
  s->form->load();
  auto* column = new QVBoxLayout;
  column->addLayout(grid);
  column->addWidget(words_line(fields));
  column->addLayout(label_buttons(s));
  s->limits = titled_box("First labels", column);
  for (QWidget* input : inputs_of(s->limits)) s->dialog->disabled_while_running << input;
  return s->limits;
}

// Entries that only show something, and may be used while the summary is open.
const QStringList entries_beside =
    live_entries + measure_entries +
    QStringList{"voltage_record", "template_image", "sorted_waveforms", "correlograms"};

}  // namespace

void sorting_summary_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "summary_dialog", "Sorting summary");
  const auto s = std::make_shared<summary_window>(
      summary_window{w, dialog, new summary_model(w.session, dialog)});
  auto* buttons = new QDialogButtonBox;
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(top_block(*s));
  layout->addWidget(make_table(s), 1);
  layout->addWidget(more_box(s));
  layout->addWidget(quality_box(s));
  layout->addWidget(limits_box(s));
  layout->addWidget(buttons);
  dialog->setMinimumWidth(name_width);
  // While the first figures are counted it is off, and the focus goes to the next button, which
  // must not become what Return presses.
  done->setDefault(true);
  keys->setAutoDefault(false);
  dialog->disabled_while_running << done;
  QObject::connect(done, &QPushButton::clicked, dialog, &QDialog::accept);
  QObject::connect(keys, &QPushButton::clicked, dialog, [&w, dialog] { show_key_page(w, dialog); });
  bind_keys(dialog, keys);
  QObject::connect(dialog, &QDialog::finished, dialog, [s] { save_layout(*s); });
  // Another window or dialog may have chosen a cluster.
  QObject::connect(w.desk, &interface_desk::refresh_requested, dialog,
                   [s] { s->model->current_cluster_changed(); });
  bind_unit_labels(
      w, dialog, [&w] { return current_cluster_alone(w); },
      [s](std::int32_t cluster, unit_label label) { s->model->relabel(cluster, label); });
  restore_layout(*s);
  show_further_columns(*s);
  place_at_right(w, dialog);
  open_beside(w, dialog, entries_beside);
  tile_cluster_windows(w, dialog);
  count_and_show(s);
}

}  // namespace kestrelvane
