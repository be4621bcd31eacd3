#include <QGridLayout>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

#include "workstation/dialogs/setting_controls.h"
#include "workstation/dialogs/view_clusters_window.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"
#include "workstation/windows/graph_windows.h"

namespace kestrelvane {

// ---------------------------------------------------------------- labels

namespace {

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

}  // namespace

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

// ---------------------------------------------------------------- windows beside it

namespace {

void check_quietly(QCheckBox* box, bool on) {
  const QSignalBlocker quiet(box);
  box->setChecked(on);
}

}  // namespace

void follow_plots(const shared_view& v) {
  for (const auto& [kind, box] : {std::pair{graph_kind::correlograms, v->with_correlograms},
                                  {graph_kind::amplitude_vs_time, v->with_times}}) {
    graph_window* window = graph_of(v->w, kind);
    if (window == nullptr || window->isHidden()) continue;
    check_quietly(box, true);
    if (v->followed.contains(window)) continue;
    v->followed.removeAll(nullptr);
    v->followed << window;
    // By its cross as by the box; the others take its room when it has gone.
    QObject::connect(window, &graph_window::closed, v->dialog, [v, box = box] {
      check_quietly(box, false);
      QTimer::singleShot(0, v->dialog, [v] {
        if (v->dialog->isVisible()) tile_cluster_windows(v->w, v->dialog);
      });
    });
  }
}

// The window follows the current cluster by itself.
void show_autocorrelogram(const view_window& v, bool on) {
  if (on) {
    show_correlograms(v.w, 0, 0);
  } else if (graph_window* window = graph_of(v.w, graph_kind::correlograms)) {
    window->close();
  }
}

namespace {

QCheckBox* correlogram_box(const shared_view& v) {
  v->with_correlograms = logical_control(v->form, "show_correlograms", "show autocorrelogram",
                                         "Of the cluster on show, beside this dialog");
  QObject::connect(v->with_correlograms, &QCheckBox::toggled, v->dialog, [v](bool on) {
    if (v->dialog->running()) return;
    show_autocorrelogram(*v, on);
    if (on) tile_cluster_windows(v->w, v->dialog);
    follow_plots(v);
  });
  return v->with_correlograms;
}

void show_times(const shared_view& v, bool on) {
  workstation& w = v->w;
  height_view& view = displays_of(w).heights;
  view.measure = static_cast<height_measure>(v->measure->currentIndex());
  // Minutes stay what they are, and heights do not.
  view.range = {0, 0, 0, 0};
  if (!on) {
    if (graph_window* window = graph_of(w, graph_kind::amplitude_vs_time)) window->close();
    return;
  }
  const bool is_new = graph_of(w, graph_kind::amplitude_vs_time) == nullptr;
  show_graph(w, graph_kind::amplitude_vs_time);
  if (is_new) tile_cluster_windows(w, v->dialog);
  follow_plots(v);
}

}  // namespace

QLayout* display_row(const shared_view& v) {
  v->with_times = new QCheckBox("vs time:");
  v->with_times->setObjectName("show_vs_time");
  v->with_times->setToolTip("The events of the cluster against the minutes of the recording");
  v->measure = new QComboBox;
  v->measure->setObjectName("height_measure");
  v->measure->addItems({"P-P height", "PC1", "PC2"});  // in the order of height_measure
  v->measure->setToolTip("Peak-to-peak on the centre channel, µV, or a principal component");
  QObject::connect(v->with_times, &QCheckBox::toggled, v->dialog,
                   [v](bool on) { show_times(v, on); });
  QObject::connect(v->measure, &QComboBox::activated, v->dialog,
                   [v] { show_times(v, v->with_times->isChecked()); });
  return row_of({correlogram_box(v), v->with_times, v->measure});
}

}  // namespace kestrelvane
