#include <QGridLayout>
#include <QHBoxLayout>
#include <QRadioButton>
#include <QVBoxLayout>
#include <array>
#include <memory>

#include "review/manage_clusters.h"
#include "review/post_processing.h"
#include "sorting/sorting_summary.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/unit_labels.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr const char* manage_title = "Manage clusters";

// The figures of one cluster, and what is done with clusters by rule. "Cancel" brings back what
// was there when the dialog opened.
struct manage_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  cluster_management management;
  std::vector<unit_row> units;  // for the list

  number_field* cluster = nullptr;
  QLabel *n_clusters = nullptr, *message = nullptr;
  std::vector<QLabel*> figures;                // in the order of their rows
  std::vector<std::array<QLabel*, 2>> counts;  // likewise: events, per cent
  QProgressBar* bar = nullptr;
  QPushButton *cancel = nullptr, *interrupt = nullptr;
  unit_list* list = nullptr;

  manage_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_manage = std::shared_ptr<manage_window>;

// ---------------------------------------------------------------- figures

QString to_places(double value, int decimals) { return QString::number(value, 'f', decimals); }

struct figure_row {
  const char* name;
  const char* label;
  const char* tip;
  QString (*text)(const managed_cluster& shown);
};

// clang-format off
constexpr figure_row figure_rows[] = {
    {"channel", "center channel", "Where the template is largest",
     [](const managed_cluster& m) { return QString::number(m.channel); }},
    {"n_events", "# of events= ", "Events of the cluster",
     [](const managed_cluster& m) { return QString::number(m.n_events); }},
    {"status", "Status", "stable: distinct from every other cluster; unknown: there are no status lists",
     [](const managed_cluster& m) { return QString(cluster_status_text(m.status)).trimmed(); }},
    {"source", "source cluster", "The cluster that an edit has cut it off from",
     [](const managed_cluster& m) { return m.source > 0 ? QString::number(m.source) : QString(); }},
    {"peak_to_peak", "P-P amplitude", "Of the template on its centre channel",
     [](const managed_cluster& m) { return to_places(m.peak_to_peak, 1) + " µV"; }},
    {"snr", "Signal-to-noise ratio (SNR)", "Peak-to-peak amplitude over the noise; 0 where that is not known",
     [](const managed_cluster& m) { return to_places(m.snr, 2); }},
    {"x_position", "X pos", "Centre of gravity of the template",
     [](const managed_cluster& m) { return to_places(double{m.x}, 1) + " µm"; }},
    {"y_position", "Y pos", "Centre of gravity of the template, along the probe",
     [](const managed_cluster& m) { return to_places(double{m.y}, 1) + " µm"; }},
    {"width", "Width", "Twice the spread of the template round its centre",
     [](const managed_cluster& m) { return to_places(m.width, 1) + " µm"; }},
    {"quality", "Quality", "Amplitude over the spread of the events at maximum and minimum",
     [](const managed_cluster& m) { return to_places(m.quality, 2); }},
};

struct count_row {
  const char* name;
  const char* label;
  const char* tip;
  std::int32_t registration_counts::*count;
};
constexpr count_row count_rows[] = {
    {"template_channel", "Template channel", "Events found on the centre channel of the template",
     &registration_counts::template_channel},
    {"neighbours", "Neighbours", "Events found on another channel of the template",
     &registration_counts::neighbours},
    {"other_channels", "Other channels", "Events found elsewhere",
     &registration_counts::other_channels},
    {"duplicates", "Duplicates", "Pairs of events less than 5 samples apart",
     &registration_counts::duplicates},
};

struct rule_row {
  const char* name;
  const char* label;
  deletion_rule rule;
  const char* limit;  // the setting of its limit; null: none
  number_options options;
};
const rule_row rule_rows[] = {
    {"rule_by_size", "with <", rule_by_size, "delete_size_limit",
     {.step = 10, .unit = "members", .tip = "Events of the cluster"}},
    {"rule_by_snr", "with SNR <", rule_by_snr, "delete_snr_limit",
     {.step = 0.1, .decimals = 1, .tip = "Peak-to-peak amplitude over the noise"}},
    {"rule_by_height", "with P-P amplitude <", rule_by_height, "manage_option_1",
     {.step = 10, .unit = "µV", .tip = "Of the template on its centre channel"}},
    {"rule_ambiguous", "that are ambiguous", rule_ambiguous, nullptr, {}},
};
// clang-format on

// A pass over the events, between two operations: a few milliseconds.
void show_cluster(const manage_window& m) {
  const session_state& session = m.w.session;
  const std::int32_t n = session.clusters.n_clusters;
  const std::int32_t c = n > 0 ? session.clusters.current_cluster : 0;
  {
    const QSignalBlocker quiet(m.cluster);
    m.cluster->setRange(std::min(1, n), n);
    m.cluster->show_value(c);
  }
  m.n_clusters->setText(QString("of %1").arg(n));
  const managed_cluster shown = show_managed_cluster(session, c);
  for (std::size_t i = 0; i < m.figures.size(); ++i) {
    m.figures[i]->setText(figure_rows[i].text(shown));
  }
  for (std::size_t i = 0; i < m.counts.size(); ++i) {
    const std::int32_t count = shown.registered.*count_rows[i].count;
    m.counts[i][0]->setText(QString::number(count));
    m.counts[i][1]->setText(to_places(registration_percent(shown.registered, count), 1) + " %");
  }
  m.list->mark(c);
}

void go_to_cluster(const shared_manage& m, std::int32_t cluster) {
  if (m->w.worker.running) return;
  choose_cluster(m->w, cluster);
  m->message->clear();
  show_cluster(*m);
}

// ---------------------------------------------------------------- tools

using tool = std::function<void(session_state& session, cluster_management& management)>;

void run_tool(const shared_manage& m, tool routine, std::function<void()> then = {}) {
  m->bar->setValue(0);
  m->message->setText("Working ...");
  m->dialog->run(
      [m, routine = std::move(routine)](session_state& session) {
        routine(session, m->management);
        m->units = make_review_units(m->w, session);
      },
      [m, then = std::move(then)] {
        const bool stopped = m->w.session.operation.autosort_interrupt;
        set_interrupts(m->w.session.operation, false);
        m->bar->setValue(m->bar->maximum());
        m->message->setText(stopped ? "Interrupted" : "Finished");
        m->list->show_rows(m->units);
        show_cluster(*m);
        if (then) then();
      });
}

QPushButton* tool_button(const shared_manage& m, const char* name, const QString& label,
                         const char* tip, tool routine) {
  QPushButton* button = make_button(name, label, tip);
  button->setAutoDefault(false);
  m->dialog->disabled_while_running << button;
  QObject::connect(button, &QPushButton::clicked, m->dialog, [m, routine = std::move(routine)] {
    // A press on an empty sort does nothing.
    if (m->w.session.clusters.n_clusters > 0 && m->form.store()) run_tool(m, routine);
  });
  bind_keys(m->dialog, button);
  return button;
}

void delete_current(session_state& session, cluster_management& management) {
  delete_managed_cluster(session, management, session.clusters.current_cluster);
}

void remove_duplicates(session_state& session, cluster_management& management) {
  remove_cluster_duplicates(session, management, session.clusters.current_cluster);
}

void renumber(session_state& session, cluster_management& management) {
  if (renumber_clusters(session)) management.changed = true;
}

// ---------------------------------------------------------------- boxes

QLabel* value_label(const QString& name, const char* tip) {
  auto* label = new QLabel("-");
  label->setObjectName(name);
  label->setToolTip(tip);
  return label;
}

QHBoxLayout* row_of(std::initializer_list<QWidget*> widgets) {
  auto* row = new QHBoxLayout;
  for (QWidget* widget : widgets) row->addWidget(widget);
  row->addStretch();
  return row;
}

void bind_steps(const shared_manage& m) {
  const auto step = [m](int by) {
    return [m, by] {
      if (!m->dialog->running()) m->cluster->setValue(m->cluster->value() + by);
    };
  };
  for (const char* action : {"next", "next_cluster"}) bind_keys(m->dialog, action, step(1));
  for (const char* action : {"previous", "previous_cluster"})
    bind_keys(m->dialog, action, step(-1));
}

// In two columns, read down the left one first.
QGroupBox* cluster_box(const shared_manage& m) {
  m->cluster = free_number(m->dialog, "current_cluster", 1, 1, {.tip = "The cluster on show"});
  m->n_clusters = value_label("n_clusters", "Clusters of the sort");
  QObject::connect(m->cluster, &QDoubleSpinBox::valueChanged, m->dialog,
                   [m](double c) { go_to_cluster(m, static_cast<std::int32_t>(c)); });
  bind_steps(m);
  QFormLayout* columns[] = {new QFormLayout, new QFormLayout};
  constexpr std::size_t half = std::size(figure_rows) / 2;
  for (const figure_row& row : figure_rows) {
    m->figures.push_back(
        add_value(columns[m->figures.size() / half], row.name, row.label, "...", row.tip));
  }
  auto* both = new QHBoxLayout;
  for (QFormLayout* column : columns) both->addLayout(column, 1);
  auto* rows = new QVBoxLayout;
  rows->addLayout(
      row_of({new QLabel("Cluster #"), m->cluster, m->n_clusters,
              tool_button(m, "delete_cluster", "Delete",
                          "Delete the cluster; its events are unclustered", delete_current)}));
  rows->addLayout(both);
  return titled_box("Cluster", rows);
}

QGroupBox* registered_box(const shared_manage& m) {
  auto* grid = new QGridLayout;
  grid->setColumnStretch(4, 1);
  for (const count_row& row : count_rows) {
    const int line = static_cast<int>(m->counts.size());
    const QString name = row.name;
    m->counts.push_back({value_label(name, row.tip), value_label(name + "_percent", row.tip)});
    grid->addWidget(new QLabel(row.label), line, 0);
    grid->addWidget(m->counts.back()[0], line, 1, Qt::AlignRight);
    grid->addWidget(m->counts.back()[1], line, 2, Qt::AlignRight);
  }
  for (int column : {1, 2}) grid->setColumnMinimumWidth(column, 70);
  grid->addWidget(
      tool_button(m, "remove_duplicates", "Remove",
                  "Take the worse event of each duplicate out of the cluster", remove_duplicates),
      3, 3);
  return titled_box("Events registered to", grid);
}

// The rule is one setting with a button for each value.
QRadioButton* rule_button(const shared_manage& m, const rule_row& row) {
  auto* button = new QRadioButton(row.label);
  button->setObjectName(row.name);
  button->setToolTip("Clusters that \"Delete clusters\" takes");
  session_state& session = m->w.session;
  const std::int32_t rule = row.rule;
  m->form.bindings.push_back({[button, rule](const session_state& from) {
                                // A value that an older settings file has left may be none of them.
                                std::int32_t chosen = from.review.manage_option_4;
                                if (chosen < rule_by_size || chosen > rule_ambiguous)
                                  chosen = rule_by_size;
                                button->setChecked(chosen == rule);
                              },
                              [&session, button, rule] {
                                if (button->isChecked()) session.review.manage_option_4 = rule;
                              },
                              [] { return false; }});
  return button;
}

QGroupBox* rules_box(const shared_manage& m) {
  auto* grid = new QGridLayout;
  grid->setColumnStretch(1, 1);
  int line = 0;
  for (const rule_row& row : rule_rows) {
    grid->addWidget(rule_button(m, row), line, 0);
    if (row.limit != nullptr) {
      grid->addWidget(number_control(m->form, row.limit, row.options)->row(), line, 1);
    }
    ++line;
  }
  auto* rows = new QVBoxLayout;
  rows->addLayout(grid);
  rows->addLayout(row_of(
      {tool_button(m, "delete_by_rule", "Delete clusters",
                   "Delete all that the rule chosen above takes", delete_clusters_by_rule),
       tool_button(m, "delete_all", "Delete All!",
                   "Forget all clusters; their events are unclustered", delete_all_clusters)}));
  return titled_box("Delete clusters", rows);
}

QGroupBox* order_box(const shared_manage& m) {
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of({tool_button(m, "reorder", "Sort clusters by",
                                      "Sort the clusters and number them anew", renumber),
                          choice_control(m->form, "renumber_order", mode_entries(renumber_orders()),
                                         "By what clusters are numbered")}));
  auto* directions = new QHBoxLayout;
  directions->addStretch();
  add_numbering_direction(m->form, directions);
  rows->addLayout(directions);
  return titled_box("Numbers", rows);
}

QDialogButtonBox* button_row(const shared_manage& m) {
  auto* buttons = new QDialogButtonBox;
  m->interrupt =
      add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole, "Stop what runs");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* ok =
      add_button(buttons, "ok", "OK", QDialogButtonBox::AcceptRole, "Close; changes stay");
  m->cancel = add_button(buttons, "cancel", "Cancel", QDialogButtonBox::RejectRole,
                         "Close, back to the clusters as they were when this dialog opened");
  m->interrupt->setEnabled(false);
  m->dialog->enabled_while_running << m->interrupt;
  m->dialog->disabled_while_running << ok << m->cancel;
  QObject::connect(m->interrupt, &QPushButton::clicked, m->dialog,
                   [m] { set_interrupts(m->w.session.operation, true); });
  QObject::connect(keys, &QPushButton::clicked, m->dialog, [m] { show_key_page(m->w, m->dialog); });
  QObject::connect(ok, &QPushButton::clicked, m->dialog, [m] {
    if (m->form.store()) m->dialog->accept();
  });
  QObject::connect(m->cancel, &QPushButton::clicked, m->dialog,
                   [m] { run_tool(m, cancel_cluster_management, [m] { m->dialog->accept(); }); });
  bind_keys(m->dialog, keys);
  return buttons;
}

void fill_dialog(const shared_manage& m) {
  m->list = new unit_list(m->w);
  bind_unit_labels(m->w, m->dialog, m->list, "the cluster on show");
  m->list->setMinimumWidth(280);
  QObject::connect(m->list, &unit_list::chosen, m->dialog, [m](int c) { go_to_cluster(m, c); });
  m->message = new QLabel;
  m->message->setObjectName("message");
  m->bar = make_bar("progress", 100);
  auto* left = new QVBoxLayout;
  for (QGroupBox* box : {cluster_box(m), registered_box(m), rules_box(m), order_box(m)}) {
    left->addWidget(box);
    m->dialog->disabled_while_running << inputs_of(box);
  }
  left->addStretch();
  left->addWidget(m->message);
  left->addWidget(m->bar);
  auto* both = new QHBoxLayout;
  both->addLayout(left, 1);
  both->addWidget(m->list, 1);
  auto* layout = new QVBoxLayout(m->dialog);
  layout->addLayout(both, 1);
  layout->addWidget(button_row(m));
  m->form.load();
  follow(m->w, m->dialog, every_meter(m->bar));
  // Its cross and Escape take back, as in any dialog that has a "Cancel".
  m->dialog->on_leaving = [m] { m->cancel->click(); };
}

}  // namespace

// The save for "Cancel" and the figures of a large sort take a while: on the worker, before the
// dialog is shown.
void manage_clusters_command(workstation& w) {
  auto* dialog = new operation_dialog(w, "manage_clusters_dialog", manage_title);
  const auto m = std::make_shared<manage_window>(w, dialog);
  const auto ready = std::make_shared<bool>(false);
  fill_dialog(m);
  run_with_progress(
      w, "manage_clusters_progress", manage_title,
      [m, ready](session_state& session) {
        *ready = open_cluster_management(session, m->management);
        if (*ready) m->units = make_review_units(m->w, session);
      },
      [m, ready] {
        if (!*ready) {
          delete m->dialog;
          return;
        }
        m->list->show_rows(m->units);
        show_cluster(*m);
        place_at_right(m->w, m->dialog);
        open_runner(m->w, m->dialog);
        tile_cluster_windows(m->w, m->dialog);
        m->list->setFocus();  // the keys are commands there, and text in a field
      });
}

}  // namespace kestrelvane
