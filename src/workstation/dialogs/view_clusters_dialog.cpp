#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLineEdit>
#include <QRadioButton>
#include <QSlider>
#include <QVBoxLayout>
#include <array>
#include <cmath>
#include <memory>

#include "clustering/clustering_runs.h"
#include "clustering/gradient_ascent.h"
#include "clustering/splitting.h"
#include "review/cluster_marks.h"
#include "review/reclaim.h"
#include "sorting/undo_state.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr int n_labels = 5;  // 0..4, each with its buttons; what is above is "others"

// One cluster, and the labels of its events. Tools label; only "Split", "Delete" and "Reclaim"
// change who belongs to the cluster, and one undo takes the last of them back.
struct view_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  label_sizes labels;           // of the current cluster
  std::vector<unit_row> units;  // for the list
  std::int32_t restored = -1;   // by the last "Reclaim" of this cluster; -1: there was none

  number_field* cluster = nullptr;
  QLabel *n_clusters = nullptr, *channel = nullptr, *n_events = nullptr, *comment = nullptr;
  std::array<QLabel*, n_labels> size{};
  std::array<QRadioButton*, n_labels> label{};
  std::array<QPushButton*, n_labels> split{}, remove{};
  QLabel *others = nullptr, *n_restored = nullptr, *message = nullptr;
  std::array<QRadioButton*, 3> selectivity{};  // from low to high
  QProgressBar* bar = nullptr;
  QCheckBox* with_correlograms = nullptr;
  QPushButton *undo = nullptr, *interrupt = nullptr;
  unit_list* list = nullptr;

  view_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_view = std::shared_ptr<view_window>;

// ---------------------------------------------------------------- showing

void show_labels(const view_window& v) {
  for (std::size_t k = 0; k < n_labels; ++k) {
    v.size[k]->setText(QString::number(v.labels.size[k]));
    v.split[k]->setEnabled(v.labels.size[k] > 0);
    v.remove[k]->setEnabled(v.labels.size[k] > 0);
  }
  v.others->setText(QString::number(v.labels.others));
}

void show_cluster(const view_window& v) {
  const session_state& session = v.w.session;
  const std::int32_t n = session.clusters.n_clusters;
  const std::int32_t c = n > 0 ? session.clusters.current_cluster : 0;
  {
    const QSignalBlocker quiet(v.cluster);
    v.cluster->setRange(std::min(1, n), n);
    v.cluster->show_value(c);
  }
  v.n_clusters->setText(QString("of %1").arg(n));
  v.channel->setText(c > 0 ? QString::number(session.templates.centre_channel(c)) : "-");
  v.n_events->setText(QString::number(v.labels.n_events));
  v.comment->setText(
      c > 0 ? QString::fromStdString(std::string(session.clusters.cluster_comment[c].view())) : "");
  v.n_restored->setText(v.restored < 0 ? "-" : QString::number(v.restored));
  v.undo->setEnabled(can_undo(session, undo_owner::cluster_review));
  v.list->mark(c);
  show_labels(v);
}

// Between two operations: counting the labels of one cluster takes a few milliseconds.
void go_to_cluster(const shared_view& v, std::int32_t cluster) {
  if (v->w.worker.running) return;
  choose_cluster(v->w, cluster);
  v->labels = count_labels(v->w.session);
  v->restored = -1;
  v->message->clear();
  show_cluster(*v);
}

// The window follows the current cluster by itself.
void show_autocorrelogram(const view_window& v, bool on) {
  if (on) {
    show_correlograms(v.w, 0, 0);
  } else if (graph_window* window = graph_of(v.w, graph_kind::correlograms)) {
    window->close();
  }
}

// ---------------------------------------------------------------- tools

// Works on current_cluster; returns what to say of it, or nothing.
using tool = std::function<QString(session_state& session)>;

void run_tool(const shared_view& v, tool routine) {
  if (!v->form.store()) return;
  const auto words = std::make_shared<QString>();
  v->bar->setValue(0);
  v->message->setText("Working ...");
  set_interrupts(v->w.session.operation, false);
  v->dialog->run(
      [v, routine = std::move(routine), words](session_state& session) {
        *words = routine(session);
        v->labels = count_labels(session);
        v->units = make_unit_table(session);
      },
      [v, words] {
        const bool stopped = v->w.session.operation.autosort_interrupt;
        set_interrupts(v->w.session.operation, false);
        v->bar->setValue(v->bar->maximum());
        v->message->setText(stopped ? "Interrupted" : words->isEmpty() ? "Finished" : *words);
        v->form.load();  // "Mark" may have changed where it looks
        v->list->show_rows(v->units);
        show_cluster(*v);
        refresh_windows(v->w);  // their colours are the labels
      });
}

QPushButton* tool_button(const shared_view& v, const char* name, const QString& label,
                         const char* tip, tool routine) {
  QPushButton* button = make_button(name, label, tip);
  button->setAutoDefault(false);
  v->dialog->disabled_while_running << button;
  QObject::connect(button, &QPushButton::clicked, v->dialog,
                   [v, routine = std::move(routine)] { run_tool(v, routine); });
  bind_keys(v->dialog, button);
  return button;
}

// For routines that say themselves what there is to say.
template <typename Routine>
tool silent(Routine routine) {
  return [routine](session_state& session) {
    routine(session);
    return QString();
  };
}

QString mark_by_settings(session_state& session) {
  if (!mark_events(session, mark_parameters_of(session))) return {};
  return QString("%1 events marked").arg(count_labels(session).size[1]);
}

QString autosplit(session_state& session) {
  if (session.clusters.n_clusters < 1) return {};
  autosplit_current_cluster(session);
  const label_sizes labels = count_labels(session);
  return labels.size[0] == labels.n_events ? "Cannot find subclusters" : "Subclusters are labelled";
}

QString split_at_sigma(session_state& session) {
  const std::int32_t stage = nearest_stage(session, session.review.view_split_sigma);
  if (!fixed_split(session, session.review.view_split_sigma)) return {};
  const float sigma = stage_sigma_uv(session, stage);
  return QString("sigma = %1 µV").arg(static_cast<double>(sigma), 0, 'f', 2);
}

void ask_for_comment(const shared_view& v) {
  session_state& session = v->w.session;
  if (session.clusters.n_clusters < 1 || v->w.worker.running) return;
  auto* input = new QInputDialog(v->dialog);
  input->setObjectName("annotate_dialog");
  input->setWindowTitle("Annotate");
  input->setLabelText(QString("Comment of cluster %1").arg(session.clusters.current_cluster));
  input->setTextValue(v->comment->text());
  if (auto* line = input->findChild<QLineEdit*>()) {
    line->setObjectName("cluster_comment");
    line->setMinimumWidth(320);
    line->setMaxLength(sizeof(text256));
  }
  QObject::connect(input, &QInputDialog::textValueSelected, v->dialog, [v](const QString& text) {
    annotate_current_cluster(v->w.session, text.toStdString());
    show_cluster(*v);
  });
  open_dialog(v->w, input);
}

// ---------------------------------------------------------------- boxes

QHBoxLayout* row_of(std::initializer_list<QWidget*> widgets) {
  auto* row = new QHBoxLayout;
  for (QWidget* widget : widgets) row->addWidget(widget);
  row->addStretch();
  return row;
}

QLabel* value_label(const char* name, const char* tip) {
  auto* label = new QLabel("-");
  label->setObjectName(name);
  label->setToolTip(tip);
  return label;
}

void bind_steps(const shared_view& v) {
  const auto step = [v](int by) {
    return [v, by] {
      if (!v->dialog->running()) v->cluster->setValue(v->cluster->value() + by);
    };
  };
  for (const char* action : {"next", "next_cluster"}) bind_keys(v->dialog, action, step(1));
  for (const char* action : {"previous", "previous_cluster"})
    bind_keys(v->dialog, action, step(-1));
}

QGroupBox* cluster_box(const shared_view& v) {
  v->cluster = free_number(v->dialog, "current_cluster", 1, 1, {.tip = "The cluster on show"});
  v->n_clusters = value_label("n_clusters", "Clusters of the sort");
  v->channel = value_label("channel", "Centre channel of the template");
  v->n_events = value_label("n_events", "Events of the cluster");
  v->comment = value_label("comment", "Your own words about the cluster");
  v->dialog->disabled_while_running << v->cluster;
  QObject::connect(v->cluster, &QDoubleSpinBox::valueChanged, v->dialog,
                   [v](double c) { go_to_cluster(v, static_cast<std::int32_t>(c)); });
  bind_steps(v);
  QPushButton* annotate = make_button("annotate", "Annotate", "Write a comment on the cluster");
  annotate->setAutoDefault(false);
  v->dialog->disabled_while_running << annotate;
  QObject::connect(annotate, &QPushButton::clicked, v->dialog, [v] { ask_for_comment(v); });
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of({new QLabel("Cluster"), v->cluster, v->n_clusters, new QLabel("  channel"),
                          v->channel, new QLabel("  # of events ="), v->n_events}));
  rows->addLayout(row_of(
      {tool_button(v, "delete_cluster", "Delete", "Delete the cluster; its events are unclustered",
                   silent(delete_current_cluster)),
       tool_button(v, "realign", "realign", "Calculate the template anew and align the events",
                   silent(realign_current_cluster)),
       annotate, v->comment}));
  return titled_box("Cluster", rows);
}

QGroupBox* mark_box(const shared_view& v) {
  auto* form = new QFormLayout;
  form->addRow("Method", choice_control(v->form, "clean_method", mode_entries(clean_methods()),
                                        "By what an event is told that does not belong"));
  form->addRow("using",
               choice_control(v->form, "clean_channels", mode_entries(clean_channel_choices()),
                              "Where an event is compared with its template"));
  number_field* threshold = number_control(
      v->form, "clean_threshold",
      {.step = 0.1,
       .decimals = 2,
       .tip = "Realignment clean marks scores below it, where 2 to 3 tells noise from spikes; the "
              "other methods mark distances above it, in s.d. of the template"});
  form->addRow("threshold", threshold->row());
  auto* rows = new QVBoxLayout;
  rows->addLayout(form);
  rows->addLayout(
      row_of({tool_button(v, "mark", "Mark", "Label the events that fail with 1, and no others",
                          mark_by_settings),
              tool_button(v, "invert", "Invert", "Swap label 1 and no label", silent(invert_marks)),
              tool_button(v, "unmark", "Unmark", "Clear all labels of the cluster",
                          silent(unmark_events))}));
  return titled_box("Mark events", rows);
}

// Slider and number show the same sigma, and the number rules: it may stand between two stages.
void add_sigma_rows(const shared_view& v, QVBoxLayout* rows) {
  session_state& session = v->w.session;
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("view_split_sigma_slider");
  slider->setRange(1, gac_stage_limit);
  slider->setMinimumWidth(120);
  slider->setToolTip("Stage of gradient ascent clustering; each step is a factor of 1.1");
  number_field* field =
      number_control(v->form, "view_split_sigma",
                     {.step = 0.5, .decimals = 2, .unit = "µV", .tip = "Bandwidth of the stage"});
  QObject::connect(slider, &QSlider::sliderMoved, field, [&session, field](int stage) {
    field->setValue(double{session.strategy.gac_start_sigma} * std::pow(1.1, stage - 1));
  });
  QObject::connect(field, &QDoubleSpinBox::valueChanged, slider, [&session, slider](double sigma) {
    slider->setValue(nearest_stage(session, static_cast<float>(sigma)));
  });
  v->dialog->disabled_while_running << slider << field;
  auto* row = new QHBoxLayout;
  row->addWidget(tool_button(v, "fixed_split", "Fixed split",
                             "One stage of gradient ascent clustering at this bandwidth",
                             split_at_sigma));
  row->addWidget(new QLabel("with sigma ="));
  row->addWidget(slider, 1);
  row->addWidget(field->row(false));
  rows->addLayout(row);
  rows->addWidget(words_line({field}));
}

QGroupBox* split_box(const shared_view& v) {
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of({tool_button(
      v, "autosplit", "Autosplit",
      "Look for sub-clusters and label them; events stay in the cluster", autosplit)}));
  add_sigma_rows(v, rows);
  return titled_box("Look for sub-clusters", rows);
}

void add_label_column(const shared_view& v, QGridLayout* grid, int k) {
  const auto at = static_cast<std::size_t>(k);
  v->label[at] = new QRadioButton(k == 0 ? "none" : QString::number(k));
  v->label[at]->setObjectName(QString("label_%1").arg(k));
  v->label[at]->setToolTip("The label that the keys of Split and Delete go by");
  v->size[at] =
      value_label(qPrintable(QString("size_%1").arg(k)), "Events of the cluster with this label");
  v->split[at] = tool_button(v, qPrintable(QString("split_%1").arg(k)), "Split",
                             "Make the events with this label a new cluster",
                             silent([k](session_state& s) { split_label(s, k); }));
  v->remove[at] = tool_button(v, qPrintable(QString("delete_%1").arg(k)), "Delete",
                              "Take the events with this label out of the cluster",
                              silent([k](session_state& s) { delete_label(s, k); }));
  bind_keys(v->dialog, v->label[at]);
  int row = 0;
  for (QWidget* widget :
       std::initializer_list<QWidget*>{v->label[at], v->size[at], v->split[at], v->remove[at]}) {
    if (qobject_cast<QPushButton*>(widget) != nullptr) widget->setMinimumWidth(54);
    grid->addWidget(widget, row++, k, Qt::AlignHCenter);
  }
}

QGroupBox* labels_box(const shared_view& v) {
  auto* grid = new QGridLayout;
  for (int k = 0; k < n_labels; ++k) add_label_column(v, grid, k);
  v->label[1]->setChecked(true);
  v->others = value_label("size_others", "Events of the cluster with labels above 4");
  grid->addWidget(new QLabel("others"), 0, n_labels, Qt::AlignHCenter);
  grid->addWidget(v->others, 1, n_labels, Qt::AlignHCenter);
  const auto press = [v](const std::array<QPushButton*, n_labels>& buttons) {
    return [v, buttons] {
      for (std::size_t k = 0; k < buttons.size(); ++k) {
        if (v->label[k]->isChecked() && buttons[k]->isEnabled()) return buttons[k]->click();
      }
    };
  };
  bind_keys(v->dialog, "split", press(v->split));
  bind_keys(v->dialog, "delete_marked", press(v->remove));
  return titled_box("Labels", grid);
}

QGroupBox* reclaim_box(const shared_view& v) {
  QPushButton* reclaim = make_button(
      "reclaim", "Reclaim", "Take unclustered events in where the cluster's own are dense");
  reclaim->setAutoDefault(false);
  v->dialog->disabled_while_running << reclaim;
  v->n_restored = value_label("n_restored", "Unclustered events that joined the cluster");
  auto* row = row_of({reclaim, new QLabel("with")});
  constexpr const char* names[] = {"low", "med", "high"};
  constexpr const char* words[] = {"Low", "Med", "High selectivity"};
  for (std::size_t i = 0; i < v->selectivity.size(); ++i) {
    v->selectivity[i] = new QRadioButton(words[i]);
    v->selectivity[i]->setObjectName(names[i]);
    v->selectivity[i]->setToolTip("How sure an event must be of the cluster to be taken in");
    row->insertWidget(row->count() - 1, v->selectivity[i]);
  }
  v->selectivity[1]->setChecked(true);
  row->addWidget(new QLabel("# restored ="));
  row->addWidget(v->n_restored);
  QObject::connect(reclaim, &QPushButton::clicked, v->dialog, [v] {
    // Read here: the worker must not touch a control.
    auto wanted = reclaim_selectivity::low;
    if (v->selectivity[1]->isChecked()) wanted = reclaim_selectivity::medium;
    if (v->selectivity[2]->isChecked()) wanted = reclaim_selectivity::high;
    run_tool(v, [v, wanted](session_state& session) {
      reclaim_counts counts;
      if (!reclaim_events(session, wanted, counts)) return QString();
      v->restored = counts.n_gained();
      return QString("%1 restored, %2 relabelled on final check")
          .arg(counts.n_restored)
          .arg(counts.n_relabelled);
    });
  });
  bind_keys(v->dialog, reclaim);
  return titled_box("Lost events", row);
}

QDialogButtonBox* button_row(const shared_view& v) {
  auto* buttons = new QDialogButtonBox;
  v->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop the tool that runs");
  v->undo = add_button(buttons, "undo", "Undo", QDialogButtonBox::ResetRole,
                       "Take the last split, deletion, realignment or reclaim back");
  QPushButton* keys =
      add_button(buttons, "key_page", "Keys", QDialogButtonBox::HelpRole, "What the keys do");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  v->interrupt->setEnabled(false);
  v->dialog->enabled_while_running << v->interrupt;
  v->dialog->disabled_while_running << v->undo << done;
  QObject::connect(v->interrupt, &QPushButton::clicked, v->dialog,
                   [v] { set_interrupts(v->w.session.operation, true); });
  QObject::connect(v->undo, &QPushButton::clicked, v->dialog,
                   [v] { run_tool(v, silent(undo_cluster_review)); });
  QObject::connect(keys, &QPushButton::clicked, v->dialog, [v] { show_key_page(v->w, v->dialog); });
  QObject::connect(done, &QPushButton::clicked, v->dialog, [v] {
    if (v->form.store()) v->dialog->accept();
  });
  bind_keys(v->dialog, v->undo);
  bind_keys(v->dialog, keys);
  return buttons;
}

QCheckBox* correlogram_box(const shared_view& v) {
  v->with_correlograms = logical_control(v->form, "show_correlograms", "show autocorrelogram",
                                         "Of the cluster on show, beside this dialog");
  QObject::connect(v->with_correlograms, &QCheckBox::toggled, v->dialog, [v](bool on) {
    if (!v->dialog->running()) show_autocorrelogram(*v, on);
  });
  return v->with_correlograms;
}

void fill_dialog(const shared_view& v) {
  v->list = new unit_list(v->w);
  v->list->setMinimumWidth(280);
  QObject::connect(v->list, &unit_list::chosen, v->dialog, [v](int c) { go_to_cluster(v, c); });
  v->message = value_label("message", "What the last tool has come to");
  v->message->clear();
  v->bar = make_bar("progress", 100);
  auto* left = new QVBoxLayout;
  for (QGroupBox* box :
       {cluster_box(v), mark_box(v), split_box(v), labels_box(v), reclaim_box(v)}) {
    left->addWidget(box);
    v->dialog->disabled_while_running << inputs_of(box);
  }
  auto* below = new QHBoxLayout;
  below->addWidget(v->message, 1);
  below->addWidget(correlogram_box(v));
  left->addStretch();
  left->addLayout(below);
  left->addWidget(v->bar);
  auto* both = new QHBoxLayout;
  both->addLayout(left, 1);
  both->addWidget(v->list, 1);
  auto* layout = new QVBoxLayout(v->dialog);
  layout->addLayout(both, 1);
  layout->addWidget(button_row(v));
  v->form.load();
  follow(v->w, v->dialog, every_meter(v->bar));
  // Its cross is "Done"; only a number that was refused is then forgotten.
  v->dialog->on_leaving = [v] {
    v->form.store();
    v->dialog->accept();
  };
}

void open_view(workstation& w, std::vector<unit_row> units) {
  auto* dialog = new operation_dialog(w, "view_clusters_dialog", cluster_review_title);
  const auto v = std::make_shared<view_window>(w, dialog);
  fill_dialog(v);
  v->units = std::move(units);
  v->labels = count_labels(w.session);
  v->list->show_rows(v->units);
  show_cluster(*v);
  place_at_right(w, dialog);
  open_runner(w, dialog);
  show_cluster_windows(w);
  tile_cluster_windows(w, dialog);
  v->list->setFocus();  // the keys are commands there, and text in a field
  if (v->with_correlograms->isChecked()) show_autocorrelogram(*v, true);
}

}  // namespace

// The guards and the figures of a large sort take a while: on the worker, before the dialog is
// there.
void view_clusters_command(workstation& w) {
  const auto ready = std::make_shared<bool>(false);
  const auto units = std::make_shared<std::vector<unit_row>>();
  run_with_progress(
      w, "view_clusters_progress", cluster_review_title,
      [ready, units](session_state& session) {
        *ready = begin_cluster_review(session);
        if (*ready) *units = make_unit_table(session);
      },
      [&w, ready, units] {
        if (*ready) open_view(w, std::move(*units));
      });
}

}  // namespace kestrelvane
