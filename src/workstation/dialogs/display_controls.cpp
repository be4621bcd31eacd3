#include "workstation/dialogs/display_controls.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QScrollBar>
#include <QSlider>
#include <QTimer>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/operation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"

namespace kestrelvane {

float pc_scale_of(int position) { return static_cast<float>(position * 9.75 / 200 + 0.25); }
int pc_position_of(float scale) {
  return static_cast<int>(std::lround((static_cast<double>(scale) - 0.25) * 200 / 9.75));
}

void use_pc_scale(workstation& w, int position) {
  component_view& view = displays_of(w).components;
  view.display_scale = pc_scale_of(position);
  {
    const std::lock_guard lock(w.session.settings_mutex);
    w.session.preferences.pc_display_scale = view.display_scale;
  }
  // A scale of one's own is neither that which fits all points nor that of a part zoomed to.
  view.autoscale = false;
  view.range = {0, 0, 0, 0};
  redraw_graph(w, graph_kind::principal_components);
}

namespace {

constexpr auto waveform_kind = graph_kind::waveform_comparison;
constexpr auto component_kind = graph_kind::principal_components;

// Steps of the bar and of the slider to a factor of two.
constexpr double steps_per_octave = 16;
constexpr double least_gain = 0.05, most_gain = 50;  // as far as the wheel goes
constexpr int zoom_steps = 48;                       // eight times

int steps_of(double factor) {
  return static_cast<int>(std::lround(steps_per_octave * std::log2(factor)));
}
float factor_of(int steps) { return static_cast<float>(std::exp2(steps / steps_per_octave)); }

waveform_view& pair_view(const display_controls& d) { return displays_of(d.w).pair.view; }

template <typename Control, typename Value>
void show_quietly(Control* control, Value value) {
  if (control == nullptr) return;
  const QSignalBlocker quiet(control);
  control->setValue(value);
}

void check_quietly(QAbstractButton* button, bool on) {
  if (button == nullptr) return;
  const QSignalBlocker quiet(button);
  button->setChecked(on);
}

// ---------------------------------------------------------------- following

void follow_position(const display_controls& d) {
  if (d.position == nullptr) return;
  const waveform_window_state& state = displays_of(d.w).pair;
  std::int32_t most = 1;
  for (const waveform_set& set : state.picture.sets) most = std::max(most, set.n_labelled);
  const QSignalBlocker quiet(d.position);
  d.position->setRange(1, std::max(1, most - state.view.n_items + 1));
  d.position->setPageStep(state.view.n_items);
  d.position->setValue(state.view.first_item);
  // A density and templates are of all events at once.
  d.position->setEnabled(state.view.mode == waveform_mode::events && d.position->maximum() > 1);
}

void follow_waveforms(const display_controls& d) {
  const waveform_window_state& state = displays_of(d.w).pair;
  const waveform_view& view = state.view;
  check_quietly(d.templates, view.mode == waveform_mode::templates);
  check_quietly(d.waveforms, view.mode != waveform_mode::templates);
  if (d.n_items != nullptr && !d.n_items->refused() && d.n_items->value() != view.n_items) {
    const QSignalBlocker quiet(d.n_items);
    d.n_items->show_value(view.n_items);
  }
  check_quietly(d.error_bars, view.error_bars);
  show_quietly(d.gain, -steps_of(view.voltage_gain));
  show_quietly(d.zoom, steps_of(view.zoom));
  show_quietly(d.offset, static_cast<int>(std::lround(100 * view.offset)));
  follow_position(d);
  const double scale = state.picture.layout.pixels_per_uv;
  if (d.voltage_scale != nullptr) {
    d.voltage_scale->setText(QString("%1 pixels/µV").arg(scale, 0, 'g', 3));
  }
  // What is being typed is left alone; it has been followed already.
  if (d.pixels_per_uv != nullptr && !d.pixels_per_uv->hasFocus()) {
    const QSignalBlocker quiet(d.pixels_per_uv);
    d.pixels_per_uv->show_value(std::clamp(scale, d.pixels_per_uv->minimum(), 1000.0));
  }
}

void follow_components(const display_controls& d) {
  const component_view& view = displays_of(d.w).components;
  // A globe goes round: beyond half a turn it comes from the other side.
  show_quietly(d.rotate, static_cast<int>(std::remainder(view.turn, 360.0f)));
  // A plane has nothing that could turn into sight.
  if (d.rotate != nullptr) d.rotate->setEnabled(displays_of(d.w).values.dimensions >= 3);
  show_quietly(d.pc_scale, pc_position_of(view.display_scale));
  check_quietly(d.autoscale, view.autoscale);
}

// The box of a window that can be closed; null for those that stay.
QCheckBox* box_of(const display_controls& d, graph_kind kind) {
  if (kind == graph_kind::correlograms) return d.with_correlograms;
  if (kind == graph_kind::overlap) return d.with_overlap;
  return kind == graph_kind::amplitude_vs_time ? d.with_times : nullptr;
}

void follow_window(const shared_displays& d, const graph_window* window, QCheckBox* box) {
  d->followed.removeAll(nullptr);
  d->followed << window->surface();
  QObject::connect(window->surface(), &graph_surface::drawn, d->dialog, [d] {
    follow_waveforms(*d);
    follow_components(*d);
  });
  if (box == nullptr) return;
  // One that another dialog has left open is on show here as well.
  check_quietly(box, true);
  // Closed by its cross, it must not come back with the next pair, and the others take its room
  // when it has gone.
  QObject::connect(window, &graph_window::closed, d->dialog, [d, box] {
    check_quietly(box, false);
    QTimer::singleShot(0, d->dialog, [d] {
      if (d->dialog->isVisible()) tile_cluster_windows(d->w, d->dialog);
    });
  });
}

void follow_windows(const shared_displays& d) {
  for (const graph_kind kind : {waveform_kind, component_kind, graph_kind::correlograms,
                                graph_kind::amplitude_vs_time, graph_kind::overlap}) {
    const graph_window* window = graph_of(d->w, kind);
    if (window == nullptr || d->followed.contains(window->surface())) continue;
    follow_window(d, window, box_of(*d, kind));
  }
  follow_waveforms(*d);
  follow_components(*d);
}

// ---------------------------------------------------------------- windows

void name_times(const display_controls& d) {
  graph_window* window = graph_of(d.w, graph_kind::amplitude_vs_time);
  if (window == nullptr) return;
  // After it has been drawn: the channel of a cluster is a fact of the picture.
  const cluster_displays& shown = displays_of(d.w);
  const QString title = height_title(shown.height_points, shown.heights.measure);
  if (!title.isEmpty()) window->setWindowTitle(title);
}

void choose_measure(const display_controls& d) {
  height_view& view = displays_of(d.w).heights;
  view.measure = static_cast<height_measure>(d.measure->currentData().toInt());
  // A part of one measure's axis is no part of another's.
  view.range = {0, 0, 0, 0};
  redraw_graph(d.w, graph_kind::amplitude_vs_time);
  name_times(d);
}

void close_window(const workstation& w, graph_kind kind) {
  if (graph_window* window = graph_of(w, kind)) window->close();
}

bool is_open(const workstation& w, graph_kind kind) {
  const graph_window* window = graph_of(w, kind);
  // One that is being closed goes a moment later.
  return window != nullptr && !window->isHidden();
}

void open_missing(workstation& w, graph_kind kind) {
  if (!is_open(w, kind)) open_graph(w, kind);
}

void draw_pair(const shared_displays& d) {
  if (d->a < 1) return;
  const std::int32_t first = d->swapped ? d->b : d->a, second = d->swapped ? d->a : d->b;
  const auto count_open = [&] {
    return std::count_if(
        std::begin(d->w.graphs), std::end(d->w.graphs),
        [](const QPointer<graph_window>& window) { return window && !window->isHidden(); });
  };
  const auto open_before = count_open();
  cluster_displays& shown = displays_of(d->w);
  shown.a = first;
  shown.b = second;
  shown.heights.measure = static_cast<height_measure>(d->measure->currentData().toInt());
  if (d->w.correlograms) choose_correlograms(d->w, first, second);
  {
    const drawing_hold hold(d->w);
    refresh_windows(d->w);
    open_missing(d->w, waveform_kind);
    open_missing(d->w, component_kind);
    if (d->with_times->isChecked()) open_missing(d->w, graph_kind::amplitude_vs_time);
    if (d->with_overlap->isChecked()) open_missing(d->w, graph_kind::overlap);
    if (d->with_correlograms->isChecked() && !is_open(d->w, graph_kind::correlograms)) {
      show_correlograms(d->w, first, second);
    }
    if (!std::exchange(d->tiled, true) || count_open() != open_before) {
      tile_cluster_windows(d->w, d->dialog);
    }
  }
  name_times(*d);
  follow_windows(d);
  follow_new_windows(d->w, d->dialog, [d = std::weak_ptr(d)] {
    if (const shared_displays open = d.lock()) follow_windows(open);
  });
}

// A box that opens and closes a window. While an operation runs it only says what is wanted; the
// next pair that is shown follows it.
void open_with(const shared_displays& d, QCheckBox* box, graph_kind kind) {
  QObject::connect(box, &QCheckBox::toggled, d->dialog, [d, kind](bool on) {
    if (d->dialog->running()) return;
    if (on) return draw_pair(d);
    keep_window_places(d->w);
    close_window(d->w, kind);
    tile_cluster_windows(d->w, d->dialog);
  });
}

QCheckBox* window_box(const shared_displays& d, const char* name, const char* label,
                      const char* tip, graph_kind kind) {
  auto* box = new QCheckBox(label);
  box->setObjectName(name);
  box->setToolTip(tip);
  box->setChecked(is_open(d->w, kind));
  open_with(d, box, kind);
  return box;
}

QPushButton* swap_button(const shared_displays& d) {
  QPushButton* swap = make_button("swap_display", "Swap display", "Draw the other cluster on top");
  QObject::connect(swap, &QPushButton::clicked, d->dialog, [d] {
    d->swapped = !d->swapped;
    draw_pair(d);
  });
  bind_keys(d->dialog, swap);
  return swap;
}

// ---------------------------------------------------------------- fields of the views

void redraw_waveforms(const display_controls& d) { redraw_graph(d.w, waveform_kind); }
void redraw_components(const display_controls& d) { redraw_graph(d.w, component_kind); }

void choose_mode(const shared_displays& d, QRadioButton* button, waveform_mode mode) {
  QObject::connect(button, &QRadioButton::toggled, d->dialog, [d, mode](bool on) {
    if (!on) return;
    pair_view(*d).mode = mode;
    redraw_waveforms(*d);
  });
}

QSlider* view_slider(const shared_displays& d, const char* name, int low, int high, const char* tip,
                     std::function<void(const display_controls& d, int value)> set) {
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName(name);
  slider->setRange(low, high);
  slider->setToolTip(tip);
  slider->setMinimumWidth(60);
  QObject::connect(slider, &QSlider::valueChanged, d->dialog,
                   [d, set = std::move(set)](int value) { set(*d, value); });
  return slider;
}

void set_turn(const display_controls& d, int degrees) {
  displays_of(d.w).components.turn = static_cast<float>(degrees);
  redraw_components(d);
}

void set_autoscale(const display_controls& d, bool on) {
  component_view& view = displays_of(d.w).components;
  view.autoscale = on;
  view.range = {0, 0, 0, 0};
  redraw_components(d);
}

void set_pixels_per_uv(const display_controls& d, double wanted) {
  const waveform_window_state& state = displays_of(d.w).pair;
  const double now = state.picture.layout.pixels_per_uv;
  if (!(now > 0)) return;
  // By the gain, so that sites stay where they are and both scalings of the window have it.
  const double gain = state.view.voltage_gain * wanted / now;
  pair_view(d).voltage_gain = static_cast<float>(std::clamp(gain, least_gain, most_gain));
  redraw_waveforms(d);
}

}  // namespace

QLayout* window_rows(const shared_displays& d, settings_form& form, const char* correlograms) {
  d->with_correlograms = logical_control(form, "show_correlograms", correlograms,
                                         "Of the two, in a window beside this");
  open_with(d, d->with_correlograms, graph_kind::correlograms);
  // At once, and only by the user's hand: a method of comparison ticks it as well.
  QObject::connect(d->with_correlograms, &QCheckBox::clicked, d->dialog,
                   [d](bool on) { d->w.session.review.show_correlograms = on; });
  d->with_times = window_box(d, "show_times", "show ",
                             "The events of both against time, in a window beside this",
                             graph_kind::amplitude_vs_time);
  d->with_overlap = window_box(d, "show_overlap", "overlap",
                               "What the overlap of the two is counted from, in a window beside "
                               "this",
                               graph_kind::overlap);
  d->measure = new QComboBox;
  d->measure->setObjectName("time_measure");
  d->measure->setToolTip("What is drawn against time: height in µV, or a component");
  for (const auto& [label, measure] : {std::pair{"P-P height", height_measure::peak_to_peak},
                                       {"PC1", height_measure::pc1},
                                       {"PC2", height_measure::pc2}}) {
    d->measure->addItem(label, static_cast<int>(measure));
  }
  d->measure->setCurrentIndex(static_cast<int>(displays_of(d->w).heights.measure));
  QObject::connect(d->measure, &QComboBox::currentIndexChanged, d->dialog, [d] {
    if (!d->dialog->running()) choose_measure(*d);
  });
  auto* times = new QHBoxLayout;
  times->setSpacing(6);
  times->addWidget(d->with_times);
  times->addWidget(d->measure);
  times->addWidget(new QLabel("vs time"));
  times->addStretch();
  times->addWidget(swap_button(d));
  auto* rows = new QVBoxLayout;
  rows->setSpacing(3);
  auto* measures = new QHBoxLayout;
  measures->addWidget(d->with_correlograms);
  measures->addWidget(d->with_overlap);
  rows->addLayout(measures);
  rows->addLayout(times);
  return rows;
}

QLayout* waveform_row(const shared_displays& d) {
  d->templates = new QRadioButton("Templates");
  d->templates->setObjectName("templates");
  d->templates->setToolTip("Only the mean of each");
  d->waveforms = new QRadioButton("Waveforms: number");
  d->waveforms->setObjectName("waveforms");
  d->waveforms->setToolTip("Events of each, the mean over them");
  choose_mode(d, d->templates, waveform_mode::templates);
  choose_mode(d, d->waveforms, waveform_mode::events);
  d->n_items =
      free_number(d->dialog, "n_waveforms", 1, 1000, {.step = 10, .tip = "Events drawn of each"});
  d->n_items->setMinimumWidth(62);
  QObject::connect(d->n_items, &QDoubleSpinBox::valueChanged, d->dialog, [d](double n) {
    pair_view(*d).n_items = static_cast<std::int32_t>(n);
    redraw_waveforms(*d);
  });
  auto* row = new QHBoxLayout;
  row->setSpacing(6);
  row->addWidget(d->templates);
  row->addWidget(d->waveforms);
  row->addWidget(d->n_items);
  row->addStretch();
  return row;
}

namespace {

void make_scale_sliders(const shared_displays& d) {
  d->rotate =
      view_slider(d, "rotate", -180, 180,
                  "Turns the space of three components, degrees; off with two of them", set_turn);
  d->pc_scale =
      view_slider(d, "pc_display_scale", 0, 200, "Scale of the principal components display",
                  [](const display_controls& of, int position) { use_pc_scale(of.w, position); });
  d->zoom = view_slider(d, "zoom", 0, zoom_steps,
                        "Enlarges the waveforms about the centre channel, up to eight times",
                        [](const display_controls& of, int steps) {
                          pair_view(of).zoom = factor_of(steps);
                          redraw_waveforms(of);
                        });
  d->offset = view_slider(d, "offset", -400, 400,
                          "Moves the waveforms up or down, per cent of the window's height",
                          [](const display_controls& of, int percent) {
                            pair_view(of).offset = static_cast<float>(percent) / 100.0f;
                            redraw_waveforms(of);
                          });
}

void make_error_bars(const shared_displays& d) {
  d->error_bars = new QCheckBox("Error bars");
  d->error_bars->setObjectName("error_bars");
  d->error_bars->setToolTip("The band of one standard deviation round each template");
  QObject::connect(d->error_bars, &QCheckBox::toggled, d->dialog, [d](bool on) {
    pair_view(*d).error_bars = on;
    redraw_waveforms(*d);
  });
}

}  // namespace

QLayout* scale_rows(const shared_displays& d) {
  make_scale_sliders(d);
  make_error_bars(d);
  d->autoscale = new QCheckBox("auto");
  d->autoscale->setObjectName("autoscale");
  d->autoscale->setToolTip("All points fill the window");
  QObject::connect(d->autoscale, &QCheckBox::toggled, d->dialog,
                   [d](bool on) { set_autoscale(*d, on); });
  d->pixels_per_uv = free_number(d->dialog, "pixels_per_uv", 0.0001, 1000,
                                 {.step = 0.1, .decimals = 4, .tip = "Voltage scale"});
  QObject::connect(d->pixels_per_uv, &QDoubleSpinBox::valueChanged, d->dialog,
                   [d](double value) { set_pixels_per_uv(*d, value); });
  auto* components = new QHBoxLayout;
  components->setSpacing(6);
  components->addWidget(d->rotate, 1);
  components->addWidget(new QLabel("PC scale"));
  components->addWidget(d->pc_scale, 1);
  components->addWidget(d->autoscale);
  auto* waveforms = new QHBoxLayout;
  waveforms->setSpacing(6);
  waveforms->addWidget(d->zoom, 1);
  waveforms->addWidget(new QLabel("offset"));
  waveforms->addWidget(d->offset, 1);
  auto* rows = new QFormLayout;
  rows->setHorizontalSpacing(6);
  rows->setVerticalSpacing(3);
  rows->addRow("rotate", components);
  rows->addRow("zoom", waveforms);
  auto* scale = new QHBoxLayout;
  scale->addWidget(d->pixels_per_uv);
  scale->addStretch();
  scale->addWidget(d->error_bars);
  rows->addRow("pixels/µV", scale);
  return rows;
}

QScrollBar* gain_bar(const shared_displays& d) {
  d->gain = new QScrollBar(Qt::Vertical);
  d->gain->setObjectName("voltage_gain");
  d->gain->setToolTip("Voltage scale of the waveforms: up is larger");
  // A bar counts downwards.
  d->gain->setRange(-steps_of(most_gain), -steps_of(least_gain));
  d->gain->setPageStep(static_cast<int>(steps_per_octave));
  QObject::connect(d->gain, &QScrollBar::valueChanged, d->dialog, [d](int steps) {
    pair_view(*d).voltage_gain = factor_of(-steps);
    redraw_waveforms(*d);
  });
  return d->gain;
}

QScrollBar* position_bar(const shared_displays& d) {
  d->position = new QScrollBar(Qt::Horizontal);
  d->position->setObjectName("first_item");
  d->position->setToolTip("Position in the waveforms: the number of the first event drawn");
  d->position->setRange(1, 1);
  QObject::connect(d->position, &QScrollBar::valueChanged, d->dialog, [d](int first) {
    pair_view(*d).first_item = first;
    redraw_waveforms(*d);
  });
  return d->position;
}

void show_pair_displays(const shared_displays& d, std::int32_t a, std::int32_t b) {
  if (a < 1) return;
  d->a = a;
  d->b = b;
  draw_pair(d);
}

}  // namespace kestrelvane
