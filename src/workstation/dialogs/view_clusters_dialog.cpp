#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLineEdit>
#include <QRadioButton>
#include <QScrollBar>
#include <QSlider>
#include <QStyle>
#include <QVBoxLayout>
#include <algorithm>
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
#include "workstation/dialogs/unit_labels.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_displays.h"
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
  std::array<QCheckBox*, n_labels> shows{};
  QCheckBox *view_all = nullptr, *or_select = nullptr, *shows_others = nullptr;
  std::array<QPushButton*, 4> shapes{};  // by shape_rows
  number_field* n_waveforms = nullptr;
  std::vector<number_field*> numbers;  // whose words stand in one line
  QScrollBar* position = nullptr;
  QCheckBox* with_times = nullptr;
  QComboBox *measure = nullptr, *mode = nullptr;
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
  v.comment->setToolTip(v.comment->text().isEmpty() ? "Your own words about the cluster"
                                                    : v.comment->text());
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
  if (v->w.worker.running || !v->form.store()) return;
  const auto words = std::make_shared<QString>();
  v->bar->setValue(0);
  v->message->setText("Working ...");
  set_interrupts(v->w.session.operation, false);
  v->dialog->run(
      [v, routine = std::move(routine), words](session_state& session) {
        *words = routine(session);
        v->labels = count_labels(session);
        v->units = make_review_units(session);
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
  QObject::connect(button, &QPushButton::clicked, v->dialog, [v, routine = std::move(routine)] {
    put_down_tool(v->w);  // what was drawn is done with
    run_tool(v, routine);
  });
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

// As wide as its words ask for, and not as a button of its own is: several stand in a row.
void make_narrow(QWidget* button, const char* words) {
  const int room = 3 * button->fontMetrics().horizontalAdvance("m") / 2;
  button->setFixedWidth(button->fontMetrics().horizontalAdvance(words) + room);
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
  auto* below = new QHBoxLayout;
  below->addWidget(tool_button(v, "delete_cluster", "Delete",
                               "Delete the cluster; its events are unclustered",
                               silent(delete_current_cluster)));
  below->addWidget(tool_button(v, "realign", "realign",
                               "Calculate the template anew and align the events",
                               silent(realign_current_cluster)));
  below->addWidget(annotate);
  // Words of any length must not make the column wider.
  v->comment->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
  below->addWidget(v->comment, 1);
  rows->addLayout(below);
  return titled_box("", rows);  // its first word says what it is
}

struct shape_row {
  shape_tool tool;
  const char* name;
  const char* label;
  const char* tip;
};
constexpr shape_row shape_rows[] = {
    {shape_tool::windows, "windows", "Windows",
     "Draw windows over the waveforms: events that do not pass all of them get label 1"},
    {shape_tool::ellipse, "ellipse", "Ellipse",
     "Draw an ellipse over the principal components: events inside get label 1"},
    {shape_tool::rectangle, "rectangle", "Rectangle",
     "Draw a rectangle over the heights against time: events inside get label 1"},
    {shape_tool::lasso, "lasso", "Lasso",
     "Draw a line round events, over components or heights: they get the label that is chosen"},
};

void use_tool(const shared_view& v, shape_tool tool) {
  const auto n_open = [v] {
    return std::count_if(std::begin(v->w.graphs), std::end(v->w.graphs),
                         [](const QPointer<graph_window>& window) { return !window.isNull(); });
  };
  const auto before = n_open();
  take_up_tool(v->w, tool);
  // One that it has opened must not lie over the others.
  if (n_open() > before) tile_cluster_windows(v->w, v->dialog);
}

QLayout* shapes_row(const shared_view& v) {
  auto* row = new QHBoxLayout;
  for (std::size_t i = 0; i < v->shapes.size(); ++i) {
    const shape_row& of = shape_rows[i];
    QPushButton* button = v->shapes[i] = make_button(of.name, of.label, of.tip);
    button->setCheckable(true);
    QObject::connect(button, &QPushButton::clicked, v->dialog,
                     [v, tool = of.tool] { use_tool(v, tool); });
    bind_keys(v->dialog, button);
    row->addWidget(button);
  }
  return row;
}

// The hand in the windows works for this dialog as long as it is open.
void serve_shapes(const shared_view& v) {
  shape_hand& hand = displays_of(v->w).hand;
  hand.run = [v](const shape_marking& marking) {
    const shape_hand& drawing = displays_of(v->w).hand;
    const std::int16_t label = drawing.tool == shape_tool::lasso ? drawing.label : std::int16_t{1};
    run_tool(v, [marking, label](session_state& session) {
      marking(session);
      const std::int32_t n = count_labels(session).size[static_cast<std::size_t>(label)];
      return label == 0 ? QString("%1 events without a label").arg(n)
                        : QString("%1 events with label %2").arg(n).arg(label);
    });
  };
  hand.changed = [v] {
    const shape_tool tool = displays_of(v->w).hand.tool;
    for (std::size_t i = 0; i < v->shapes.size(); ++i) {
      v->shapes[i]->setChecked(shape_rows[i].tool == tool);
    }
    // It may have opened a window, or the user closed one.
    const QSignalBlocker quiet(v->with_times);
    v->with_times->setChecked(graph_of(v->w, graph_kind::amplitude_vs_time) != nullptr);
  };
}

void release_displays(workstation& w) {
  cluster_displays& d = displays_of(w);
  d.hand.run = nullptr;
  d.hand.changed = nullptr;
  d.waveforms_drawn = nullptr;
  d.hand.label = 1;
  d.single.view.labels.clear();
  put_down_tool(w);
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
  QPushButton* mark = tool_button(
      v, "mark", "Mark", "Label the events that fail with 1, and no others", mark_by_settings);
  QPushButton* invert =
      tool_button(v, "invert", "Invert", "Swap label 1 and no label", silent(invert_marks));
  QPushButton* unmark =
      tool_button(v, "unmark", "Unmark", "Clear all labels of the cluster", silent(unmark_events));
  for (QPushButton* button : {mark, invert, unmark}) make_narrow(button, "Unmark");
  form->addRow("threshold", row_of({threshold->row(false), mark, invert, unmark}));
  v->numbers.push_back(threshold);
  auto* rows = new QVBoxLayout;
  rows->addLayout(form);
  rows->addLayout(shapes_row(v));
  return titled_box("Mark events", rows);
}

// Slider and number show the same sigma, and the number rules: it may stand between two stages.
void add_sigma_rows(const shared_view& v, QVBoxLayout* rows) {
  session_state& session = v->w.session;
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("view_split_sigma_slider");
  slider->setRange(1, gac_stage_limit);
  slider->setMinimumWidth(60);
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
  row->addWidget(new QLabel("with sigma ="));
  row->addWidget(slider, 1);
  row->addWidget(field->row(false));
  rows->addLayout(row);
  v->numbers.push_back(field);
}

QGroupBox* split_box(const shared_view& v) {
  auto* rows = new QVBoxLayout;
  rows->addLayout(row_of(
      {tool_button(v, "autosplit", "Autosplit",
                   "Look for sub-clusters and label them; events stay in the cluster", autosplit),
       tool_button(v, "fixed_split", "Fixed split",
                   "One stage of gradient ascent clustering at this bandwidth", split_at_sigma)}));
  add_sigma_rows(v, rows);
  return titled_box("Look for sub-clusters", rows);
}

// Which labels the waveforms are of. None of them is not the same as all.
void show_labels_chosen(const shared_view& v) {
  std::vector<std::int16_t> labels;
  if (v->or_select->isChecked()) {
    constexpr std::int16_t nobodys = -1, last = 100;
    labels = {nobodys};
    for (std::int16_t k = 0; k < n_labels; ++k) {
      if (v->shows[static_cast<std::size_t>(k)]->isChecked()) labels.push_back(k);
    }
    for (std::int16_t k = n_labels; k <= last && v->shows_others->isChecked(); ++k) {
      labels.push_back(k);
    }
  }
  waveform_view& view = displays_of(v->w).single.view;
  // A template alone would show nothing of the choice.
  if (!labels.empty() && view.mode == waveform_mode::templates) view.mode = waveform_mode::events;
  view.labels = std::move(labels);
  view.first_item = 1;
  redraw_graph(v->w, graph_kind::cluster_waveforms);
}

QCheckBox* label_box(const shared_view& v, const QString& name) {
  auto* box = new QCheckBox;
  box->setObjectName(name);
  box->setToolTip("Waveforms with this label are shown");
  box->setAccessibleName("Show waveforms of the label");
  box->setChecked(true);
  QObject::connect(box, &QCheckBox::toggled, v->dialog, [v] {
    // Who chooses a label wants to see the choice.
    const QSignalBlocker quiet(v->or_select);
    v->or_select->setChecked(true);
    v->view_all->setChecked(false);
    show_labels_chosen(v);
  });
  return box;
}

QComboBox* mode_list(const shared_view& v) {
  v->mode = new QComboBox;
  v->mode->setObjectName("waveform_mode");
  v->mode->addItems({"Waveforms", "Density", "Template"});  // in the order of waveform_mode
  v->mode->setToolTip("What is drawn of the events; a double click in the window changes it, too");
  QObject::connect(v->mode, &QComboBox::activated, v->dialog, [v](int mode) {
    displays_of(v->w).single.view.mode = static_cast<waveform_mode>(mode);
    redraw_graph(v->w, graph_kind::cluster_waveforms);
  });
  return v->mode;
}

// The two exclude each other.
QLayout* label_choice(const shared_view& v) {
  v->view_all = new QCheckBox("View all");
  v->view_all->setObjectName("view_all");
  v->view_all->setToolTip("Waveforms of all labels are shown");
  v->view_all->setChecked(true);
  v->or_select = new QCheckBox("or select");
  v->or_select->setObjectName("or_select");
  v->or_select->setToolTip("Only waveforms whose labels are ticked above");
  QObject::connect(v->view_all, &QCheckBox::toggled, v->or_select,
                   [v](bool on) { v->or_select->setChecked(!on); });
  QObject::connect(v->or_select, &QCheckBox::toggled, v->view_all, [v](bool on) {
    v->view_all->setChecked(!on);
    show_labels_chosen(v);
  });
  return row_of({mode_list(v), v->view_all, v->or_select});
}

// By what the keys of Split and Delete go, and what the lasso gives.
void choose_label(const shared_view& v, int k) {
  displays_of(v->w).hand.label = static_cast<std::int16_t>(k);
  // The words in the windows name it.
  for (const graph_kind kind : {graph_kind::principal_components, graph_kind::amplitude_vs_time}) {
    if (graph_window* window = graph_of(v->w, kind)) window->surface()->update();
  }
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
  v->shows[at] = label_box(v, QString("show_%1").arg(k));
  bind_keys(v->dialog, v->label[at]);
  QObject::connect(v->label[at], &QRadioButton::toggled, v->dialog, [v, k](bool on) {
    if (on) choose_label(v, k);
  });
  int row = 0;
  for (QWidget* widget : std::initializer_list<QWidget*>{v->label[at], v->size[at], v->split[at],
                                                         v->remove[at], v->shows[at]}) {
    if (qobject_cast<QPushButton*>(widget) != nullptr) make_narrow(widget, "Delete");
    grid->addWidget(widget, row++, k, Qt::AlignHCenter);
  }
}

// Which part of the waveforms is on show; wheel and keys of the window move it as well.
void follow_waveforms(const view_window& v) {
  const waveform_window_state& state = displays_of(v.w).single;
  const std::int32_t n = state.picture.sets.empty() ? 0 : state.picture.sets[0].n_labelled;
  const QSignalBlocker quiet(v.position), quiet_too(v.n_waveforms);
  v.position->setRange(1, std::max(1, n - state.view.n_items + 1));
  v.position->setPageStep(std::max(state.view.n_items, 1));
  v.position->setValue(state.view.first_item);
  // A density has all of them in it, and a template none.
  v.position->setEnabled(state.view.mode == waveform_mode::events);
  v.n_waveforms->show_value(state.view.n_items);
  v.mode->setCurrentIndex(static_cast<int>(state.view.mode));
}

QLayout* position_row(const shared_view& v) {
  v->n_waveforms =
      free_number(v->dialog, "n_waveforms", 1, 10000,
                  {.step = 50, .tip = "How many waveforms are shown, one over another"});
  v->position = new QScrollBar(Qt::Horizontal);
  v->position->setObjectName("sw_first_item");
  v->position->setToolTip("Which waveforms of the cluster are shown, in the order of time");
  QObject::connect(v->n_waveforms, &QDoubleSpinBox::valueChanged, v->dialog, [v](double n) {
    displays_of(v->w).single.view.n_items = static_cast<std::int32_t>(n);
    redraw_graph(v->w, graph_kind::cluster_waveforms);
  });
  QObject::connect(v->position, &QScrollBar::valueChanged, v->dialog, [v](int first) {
    displays_of(v->w).single.view.first_item = first;
    redraw_graph(v->w, graph_kind::cluster_waveforms);
  });
  displays_of(v->w).waveforms_drawn = [v] { follow_waveforms(*v); };
  auto* row = new QHBoxLayout;
  row->addWidget(new QLabel("# of waveforms"));
  row->addWidget(v->n_waveforms);
  row->addWidget(v->position, 1);
  return row;
}

QGroupBox* labels_box(const shared_view& v) {
  auto* grid = new QGridLayout;
  grid->setSpacing(3);
  for (int k = 0; k < n_labels; ++k) add_label_column(v, grid, k);
  v->label[1]->setChecked(true);
  v->others = value_label("size_others", "Events of the cluster with labels above 4");
  grid->addWidget(new QLabel("others"), 0, n_labels, Qt::AlignHCenter);
  grid->addWidget(v->others, 1, n_labels, Qt::AlignHCenter);
  v->shows_others = label_box(v, "show_others");
  grid->addWidget(v->shows_others, 4, n_labels, Qt::AlignHCenter);
  const auto press = [v](const std::array<QPushButton*, n_labels>& buttons) {
    return [v, buttons] {
      for (std::size_t k = 0; k < buttons.size(); ++k) {
        if (v->label[k]->isChecked() && buttons[k]->isEnabled()) return buttons[k]->click();
      }
    };
  };
  bind_keys(v->dialog, "split", press(v->split));
  bind_keys(v->dialog, "delete_marked", press(v->remove));
  auto* rows = new QVBoxLayout;
  rows->addLayout(grid);
  rows->addLayout(label_choice(v));
  rows->addLayout(position_row(v));
  return titled_box("Labels", rows);
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
  auto* rows = new QVBoxLayout;
  rows->addLayout(row);
  rows->addLayout(row_of({new QLabel("# restored ="), v->n_restored}));
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
  return titled_box("Lost events", rows);
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
    if (v->dialog->running()) return;
    show_autocorrelogram(*v, on);
    if (on) tile_cluster_windows(v->w, v->dialog);
  });
  return v->with_correlograms;
}

void show_times(const view_window& v, bool on) {
  height_view& view = displays_of(v.w).heights;
  view.measure = static_cast<height_measure>(v.measure->currentIndex());
  // Minutes stay what they are, and heights do not.
  view.range = {0, 0, 0, 0};
  if (!on) {
    if (graph_window* window = graph_of(v.w, graph_kind::amplitude_vs_time)) window->close();
    return;
  }
  const bool is_new = graph_of(v.w, graph_kind::amplitude_vs_time) == nullptr;
  show_graph(v.w, graph_kind::amplitude_vs_time);
  if (is_new) tile_cluster_windows(v.w, v.dialog);
}

QLayout* display_row(const shared_view& v) {
  v->with_times = new QCheckBox("vs time:");
  v->with_times->setObjectName("show_vs_time");
  v->with_times->setToolTip("The events of the cluster against the minutes of the recording");
  v->measure = new QComboBox;
  v->measure->setObjectName("height_measure");
  v->measure->addItems({"P-P height", "PC1", "PC2"});  // in the order of height_measure
  v->measure->setToolTip("Peak-to-peak on the centre channel, µV, or a principal component");
  QObject::connect(v->with_times, &QCheckBox::toggled, v->dialog,
                   [v](bool on) { show_times(*v, on); });
  QObject::connect(v->measure, &QComboBox::activated, v->dialog,
                   [v] { show_times(*v, v->with_times->isChecked()); });
  return row_of({correlogram_box(v), v->with_times, v->measure});
}

// Tells the cross of the window from Escape: both ask the dialog to go, and only Escape gives up a
// shape instead.
class cross_watch : public QObject {
 public:
  using QObject::QObject;
  bool by_cross = false;
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() == QEvent::Close) by_cross = event->spontaneous();
    return false;
  }
};

// Escape is "Done", in the windows, too, unless it gives up a shape. Only a number that was refused
// is then forgotten.
void leave_by_escape(const shared_view& v) {
  auto* watch = new cross_watch(v->dialog);
  v->dialog->installEventFilter(watch);
  v->dialog->on_leaving = [v, watch] {
    if (!std::exchange(watch->by_cross, false) && give_up_shape(v->w)) return;
    v->form.store();
    v->dialog->accept();
  };
}

void fill_dialog(const shared_view& v) {
  v->list = new unit_list(v->w);
  bind_unit_labels(v->w, v->dialog, v->list);
  v->list->setMinimumSize(280, 92);
  QObject::connect(v->list, &unit_list::chosen, v->dialog, [v](int c) { go_to_cluster(v, c); });
  v->message = value_label("message", "What the last tool has come to");
  v->message->clear();
  v->bar = make_bar("progress", 100);
  // One narrow column, so that the windows have the rest of the screen.
  auto* layout = new QVBoxLayout(v->dialog);
  layout->setSpacing(layout->spacing() / 2);
  layout->setContentsMargins(6, 6, 6, 6);
  for (QGroupBox* box :
       {cluster_box(v), mark_box(v), split_box(v), labels_box(v), reclaim_box(v)}) {
    // Five boxes and a list have to stand on a screen of 800 lines.
    box->layout()->setContentsMargins(8, 4, 8, 4);
    box->layout()->setSpacing(4);
    layout->addWidget(box);
    v->dialog->disabled_while_running << inputs_of(box);
  }
  layout->addLayout(display_row(v));
  v->numbers.push_back(v->n_waveforms);
  auto* below = new QHBoxLayout;
  v->bar->setFixedWidth(v->bar->fontMetrics().horizontalAdvance("m") * 10);
  below->addWidget(v->bar);
  below->addWidget(words_line(v->numbers), 1);
  layout->addLayout(below);
  layout->addWidget(v->list, 1);
  layout->addWidget(v->message);
  layout->addWidget(button_row(v));
  v->form.load();
  follow(v->w, v->dialog, every_meter(v->bar));
  leave_by_escape(v);
}

// On a screen that is too low for it the column scrolls, and its bar must not cut the column.
void keep_room_for_scroll_bar(QDialog* dialog) {
  const QSize hint = dialog->sizeHint();
  if (dialog->layout()->totalMinimumSize().height() <= screen_room(dialog).height()) return;
  const int bar = dialog->style()->pixelMetric(QStyle::PM_ScrollBarExtent);
  dialog->resize(hint + QSize(bar + 4, 0));
}

void open_view(workstation& w, std::vector<unit_row> units) {
  auto* dialog = new operation_dialog(w, "view_clusters_dialog", cluster_review_title);
  const auto v = std::make_shared<view_window>(w, dialog);
  fill_dialog(v);
  v->units = std::move(units);
  v->labels = count_labels(w.session);
  v->list->show_rows(v->units);
  show_cluster(*v);
  keep_room_for_scroll_bar(dialog);
  place_at_right(w, dialog);
  open_runner(w, dialog);
  serve_shapes(v);
  const auto release = [&w] { release_displays(w); };
  QObject::connect(dialog, &QDialog::finished, w.desk, release);
  show_cluster_windows(w);
  if (v->with_correlograms->isChecked()) show_autocorrelogram(*v, true);
  tile_cluster_windows(w, dialog);
  v->list->setFocus();  // the keys are commands there, and text in a field
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
        if (*ready) *units = make_review_units(session);
      },
      [&w, ready, units] {
        if (*ready) open_view(w, std::move(*units));
      });
}

}  // namespace kestrelvane
