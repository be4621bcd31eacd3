#include <fmt/format.h>

#include <QButtonGroup>
#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QRadioButton>
#include <QScreen>
#include <QScrollBar>
#include <QSlider>
#include <QVBoxLayout>
#include <cmath>
#include <functional>
#include <type_traits>

#include "displays/voltage/voltage_navigation.h"
#include "signal/display_scale.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/session_turn.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/workstation.h"

namespace kestrelvane {

// The controls write the view and redraw; whatever moves the view by other ways, the wheel or a
// key, brings the controls in step through update_voltage_dialog. Neither side may answer the
// other, or rounding would carry the view away.
struct voltage_controls {
  workstation& w;
  QDialog* dialog;
  number_field *voltage_scale = nullptr, *time_scale = nullptr;
  number_field *voltage_step = nullptr, *time_step = nullptr, *spacing = nullptr;
  QSlider* position = nullptr;
  QScrollBar* first_row = nullptr;
  number_field *event = nullptr, *index = nullptr, *cluster = nullptr;
  QLabel *minutes = nullptr, *first_shown = nullptr, *to_shown = nullptr, *last_shown = nullptr;
  QCheckBox *proto_events = nullptr, *reversed = nullptr;
};

namespace {

// A control keeps its value without telling its own listeners, which would move the view.
template <typename Control, typename Value>
void show(Control* control, Value value) {
  const QSignalBlocker quiet(control);
  if constexpr (std::is_same_v<Control, number_field>) {
    control->show_value(value);
  } else {
    control->setValue(value);
  }
}

// A scale, to so many digits. What stands for the same scale stays as it was typed, and so does
// what is not yet a number; anything else follows the wheel and the keys at once.
void show_scale(number_field* field, float scale, const std::string& text) {
  const bool typing = field->hasFocus() && !field->hasAcceptableInput();
  if (typing || static_cast<float>(field->value()) == scale) return;
  show(field, QString::fromStdString(text).toDouble());
}

// The position of a scale, of which several have the same: a step on must not be taken back.
void show_step(number_field* field, float scale, float (*scale_at)(std::int32_t),
               std::int32_t (*position_of)(float)) {
  if (scale_at(static_cast<std::int32_t>(field->value())) != scale) show(field, position_of(scale));
}

// How far a number may go follows what is in memory.
void limit(number_field* field, double first, double last, bool words_beside = true) {
  // Without events or clusters there is no last one.
  last = std::max(last, first);
  // A limit that is set anew writes over what is being typed.
  const double finest = std::pow(10.0, -field->decimals());
  const auto is_near = [&](double a, double b) { return std::abs(a - b) < finest; };
  if (is_near(field->minimum(), first) && is_near(field->maximum(), last)) return;
  const QSignalBlocker quiet(field);
  field->setRange(first, last);
  if (words_beside) field->keep_room();
}

void show_text(QLabel* label, const std::string& text) {
  label->setText(QString::fromStdString(text));
}

// A scale as a number that may be typed and a spinner of steps, which follow each other.
QLayout* scale_row(workstation& w, number_field* typed, number_field* steps, float& scale,
                   float (*scale_at)(std::int32_t)) {
  auto* row = new QHBoxLayout;
  row->addWidget(typed->row(false), 1);
  row->addStretch();
  row->addWidget(new QLabel("step"));
  row->addWidget(steps->row(false));
  QObject::connect(typed, &QDoubleSpinBox::valueChanged, w.frame, [&w, &scale](double value) {
    scale = static_cast<float>(value);
    redraw_voltage_display(w);
  });
  QObject::connect(steps, &QDoubleSpinBox::valueChanged, w.frame,
                   [&w, &scale, scale_at](double position) {
                     scale = scale_at(static_cast<std::int32_t>(position));
                     redraw_voltage_display(w);
                   });
  return row;
}

// Its arrows change the first digits, whatever their place: no step leads to naught.
number_field* scale_field(const char* name, double low, double high, const char* unit,
                          const char* tip) {
  number_field* field =
      free_number(nullptr, name, low, high, {.decimals = 9, .unit = unit, .tip = tip});
  field->setStepType(QAbstractSpinBox::AdaptiveDecimalStepType);
  return field;
}

QGroupBox* scales_box(voltage_controls& v) {
  workstation& w = v.w;
  display_settings& d = w.session.display;
  const time_scale_range time = find_time_scale_range(w.session);
  v.voltage_scale =
      scale_field("vd_voltage_scale", 1e-4, 1e3, "pixels/µV",
                  "Height of a microvolt, pixels; Shift and the wheel change it, too");
  v.time_scale = scale_field("vd_time_scale", time.least, time.greatest, "pixels/sample",
                             "Width of a sample, pixels, from the whole recording on; Ctrl and "
                             "the wheel change it, too");
  v.voltage_step =
      free_number(nullptr, "vd_voltage_scale_step", 1, 100, {.tip = "Steps of the scale"});
  v.time_step = free_number(nullptr, "vd_time_scale_step", time.first, time.last,
                            {.tip = "Steps of the scale; five double it"});
  v.spacing = free_number(nullptr, "vd_channel_spacing", 1, 500,
                          {.unit = "pixels", .tip = "Distance of two rows, pixels"});
  auto* rows = new QFormLayout;
  rows->addRow("Voltage scale",
               scale_row(w, v.voltage_scale, v.voltage_step, d.vd_voltage_scale, voltage_scale_at));
  rows->addRow("Time scale",
               scale_row(w, v.time_scale, v.time_step, d.vd_time_scale, time_scale_at));
  rows->addRow("Channel spacing", v.spacing->row(false));
  rows->addRow(words_line({v.voltage_scale, v.voltage_step, v.time_scale, v.time_step, v.spacing}));
  QObject::connect(v.spacing, &QDoubleSpinBox::valueChanged, w.frame, [&w](double pixels) {
    set_channel_spacing(w.session, static_cast<std::int32_t>(pixels));
    redraw_voltage_display(w);
  });
  return titled_box("Scales", rows);
}

// A pair of buttons that move back and on, again and again while they are held.
QLayout* move_buttons(workstation& w, const QString& name,
                      void (*move)(session_state&, std::int32_t), const char* tip) {
  auto* row = new QHBoxLayout;
  for (const int direction : {-1, 1}) {
    QPushButton* button = make_button(qPrintable(name + (direction < 0 ? "_back" : "_on")),
                                      direction < 0 ? "◀" : "▶", tip);
    button->setAutoRepeat(true);
    button->setMaximumWidth(44);
    row->addWidget(button);
    QObject::connect(button, &QPushButton::clicked, w.frame, [&w, move, direction] {
      move(w.session, direction);
      redraw_voltage_display(w);
    });
  }
  return row;
}

QSlider* position_slider(workstation& w) {
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("vd_slider_position");
  slider->setRange(1, 270);
  slider->setToolTip("Position in the recording");
  QObject::connect(slider, &QSlider::valueChanged, w.frame, [&w](int position) {
    move_to_slider(w.session, position);
    redraw_voltage_display(w);
  });
  return slider;
}

QLayout* adjust_row(workstation& w) {
  auto* row = new QHBoxLayout;
  row->addLayout(move_buttons(w, "move_coarse", move_coarsely, "250 pixels; the page keys"));
  row->addWidget(new QLabel("fine"));
  row->addLayout(
      move_buttons(w, "move_fine", move_finely, "10 pixels and 5 samples; the cursor keys"));
  row->addStretch();
  return row;
}

QLabel* named_label(const char* name) {
  auto* label = new QLabel;
  label->setObjectName(name);
  return label;
}

QGroupBox* position_box(voltage_controls& v) {
  v.position = position_slider(v.w);
  v.first_shown = named_label("first_shown");
  v.last_shown = named_label("last_shown");
  auto* events = new QHBoxLayout;
  events->addWidget(v.first_shown);
  events->addWidget(v.to_shown = new QLabel);
  events->addWidget(v.last_shown);
  events->addStretch();
  auto* rows = new QFormLayout;
  rows->addRow(v.position);
  rows->addRow("Position adjust: coarse", adjust_row(v.w));
  v.minutes = add_value(rows, "position_minutes", "Position, minutes");
  rows->addRow("Displaying events", events);
  return titled_box("Position", rows);
}

// A number and its "Go to" button; go gets the number.
number_field* add_jump(workstation& w, QGridLayout* grid, int row, const QString& label,
                       const char* name, double high, const char* tip,
                       std::function<void(int)> go) {
  number_field* field = free_number(nullptr, name, 1, std::max(high, 1.0), {.tip = tip});
  field->keep_room();
  // Typed and sent off: arrows would change the number without going there.
  field->setButtonSymbols(QAbstractSpinBox::NoButtons);
  QPushButton* button = make_button(qPrintable(QString("go_to_") + name), "Go to", tip);
  grid->addWidget(button, row, 0);
  grid->addWidget(new QLabel(label), row, 1);
  grid->addWidget(field, row, 2);
  grid->addWidget(field->problem(), row, 3);
  // By the button or by Return, which is why Close is no default button.
  const auto jump = [&w, field, go = std::move(go)] {
    if (!field->hasAcceptableInput()) return;
    go(static_cast<int>(field->value()));
    redraw_voltage_display(w);
  };
  QObject::connect(button, &QPushButton::clicked, w.frame, jump);
  QObject::connect(field->findChild<QLineEdit*>(), &QLineEdit::returnPressed, w.frame, jump);
  return field;
}

// Where a jump has gone; a field whose number there is none of is left empty.
void show_jump(const voltage_controls& v, const event_jump& jump) {
  if (!jump.done) return;
  const std::pair<number_field*, std::string> shown[] = {{v.event, jump_event_text(jump)},
                                                         {v.index, jump_index_text(jump)}};
  for (const auto& [field, text] : shown) {
    const QSignalBlocker quiet(field);
    const double value = QString::fromStdString(text).toDouble();
    if (value > 0) {
      field->show_value(value);
    } else {
      field->clear();
    }
  }
}

constexpr int first_index = 51;  // that a jump takes

QGroupBox* jumps_box(voltage_controls& v) {
  workstation& w = v.w;
  session_state& session = w.session;
  auto* grid = new QGridLayout;
  v.index = add_jump(w, grid, 0, "index", "index", session.recording.n_samples,
                     "Time index in samples, above 50 and before the last",
                     [&w](int index) { go_to_index(w.session, index); });
  v.event = add_jump(w, grid, 1, "event", "event", session.events.n_events, "Number of an event",
                     [&w](int event) { go_to_event(w.session, event); });
  add_jump(w, grid, 2, "next event on channel", "channel", session.recording.n_channels,
           "The first event after the left edge on this channel",
           [&v](int channel) { show_jump(v, go_to_next_event_on_channel(v.w.session, channel)); });
  v.cluster = add_jump(w, grid, 3, "next event in cluster", "cluster", session.clusters.n_clusters,
                       "The first event after the left edge in this cluster", [&v](int number) {
                         if (!choose_current_cluster(v.w.session, number)) return;
                         show_jump(v, go_to_next_event_in_cluster(v.w.session));
                       });
  limit(v.index, first_index, session.recording.n_samples - 1);
  v.cluster->setValue(session.clusters.current_cluster);  // the likeliest to be looked for
  grid->setColumnStretch(3, 1);
  return titled_box("Go to", grid);
}

QCheckBox* mark(workstation& w, const char* name, const QString& label, logical& flag,
                const char* tip) {
  auto* box = new QCheckBox(label);
  box->setObjectName(name);
  box->setToolTip(tip);
  box->setChecked(flag);
  QObject::connect(box, &QCheckBox::toggled, w.frame, [&w, &flag](bool on) {
    flag = on;
    redraw_voltage_display(w);
  });
  return box;
}

// Traces or a grey image. The second button follows from the first; one of them tells.
QLayout* form_row(workstation& w) {
  auto* row = new QHBoxLayout;
  auto* waveforms = new QRadioButton("Waveforms");
  auto* grey = new QRadioButton("Grey Scale");
  waveforms->setObjectName("vd_waveforms");
  grey->setObjectName("vd_grey_scale");
  waveforms->setToolTip("A trace for every channel");
  grey->setToolTip("A band of grey for every channel");
  (w.session.view.vd_grey_scale ? grey : waveforms)->setChecked(true);
  row->addWidget(waveforms);
  row->addWidget(grey);
  row->addStretch();
  QObject::connect(grey, &QRadioButton::toggled, w.frame, [&w](bool on) {
    w.session.view.vd_grey_scale = on;
    redraw_voltage_display(w);
  });
  return row;
}

QGroupBox* marks_box(voltage_controls& v) {
  workstation& w = v.w;
  display_settings& d = w.session.display;
  voltage_view& view = w.session.view;
  v.proto_events = mark(w, "vd_show_proto_events", "proto-events", d.vd_show_proto_events,
                        "Green: single-channel triggers of the last detection");
  v.reversed = mark(w, "vd_reverse_contrast", "reverse contrast", view.vd_reverse_contrast,
                    "White traces on black; at first as the preferences have it for pictures");
  QWidget* const boxes[] = {
      v.proto_events,
      mark(w, "vd_show_events", "events", d.vd_show_events,
           "Red on their own channel, blue elsewhere"),
      mark(w, "vd_cluster_colours", "cluster colours", d.vd_cluster_colours,
           "Events as blocks in the colour of their cluster"),
      mark(w, "vd_cluster_numbers", "cluster numbers", d.vd_cluster_numbers,
           "The number of the cluster above each event"),
      mark(w, "vd_show_template_channel", "if in cluster, show template channel",
           view.vd_show_template_channel,
           "Clustered events on the centre channel of their cluster"),
      mark(w, "vd_msec_grid", "msec grid", d.vd_msec_grid,
           "A line every millisecond, or every ten"),
      v.reversed};
  auto* grid = new QGridLayout;
  int n = 0;
  for (QWidget* box : boxes) {
    grid->addWidget(box, n % 4, n / 4);
    ++n;
  }
  grid->addLayout(form_row(w), n % 4, n / 4);
  return titled_box("Show", grid);
}

QScrollBar* row_bar(workstation& w) {
  auto* bar = new QScrollBar(Qt::Vertical);
  bar->setObjectName("vd_first_channel");
  // A few rows more than there are, so that the last ones can be brought to the top.
  bar->setRange(1, w.session.recording.n_channels + 9);
  bar->setToolTip("The row at the top");
  QObject::connect(bar, &QScrollBar::valueChanged, w.frame, [&w](int row) {
    scroll_to_row(w.session, row);
    redraw_voltage_display(w);
  });
  return bar;
}

void show_scales(const voltage_controls& v) {
  const display_settings& d = v.w.session.display;
  const time_scale_range time = find_time_scale_range(v.w.session);
  limit(v.time_scale, time.least, time.greatest, false);
  limit(v.time_step, time.first, time.last, false);
  show_step(v.voltage_step, d.vd_voltage_scale, voltage_scale_at, position_of_voltage_scale);
  show_step(v.time_step, d.vd_time_scale, time_scale_at, position_of_time_scale);
  show_scale(v.voltage_scale, d.vd_voltage_scale, fmt::format("{:.6g}", d.vd_voltage_scale));
  show_scale(v.time_scale, d.vd_time_scale, time_scale_text(v.w.session));
  if (v.spacing->value() != d.vd_channel_spacing) show(v.spacing, d.vd_channel_spacing);
}

void show_position(const voltage_controls& v) {
  const session_state& session = v.w.session;
  show(v.position, session.view.vd_slider_position);
  show(v.first_row, session.view.vd_first_channel);
  show_text(v.minutes, position_minutes_text(session));
  const drawn_events& drawn = v.w.voltage->drawn;
  const shown_range_text shown = displaying_events_text(drawn.first_event, drawn.n_events_shown);
  show_text(v.first_shown, shown.first);
  show_text(v.to_shown, shown.first.empty() ? "none" : "to");
  show_text(v.last_shown, shown.last);
}

QDialogButtonBox* button_row(const voltage_controls& v) {
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
  QPushButton* close = buttons->button(QDialogButtonBox::Close);
  close->setObjectName("close");
  close->setAutoDefault(false);  // Return belongs to the fields
  QObject::connect(buttons, &QDialogButtonBox::rejected, v.dialog, &QDialog::close);
  return buttons;
}

void lay_out(voltage_controls& v) {
  auto* column = new QVBoxLayout;
  column->addWidget(scales_box(v));
  column->addWidget(position_box(v));
  column->addWidget(jumps_box(v));
  column->addWidget(marks_box(v));
  auto* beside = new QHBoxLayout;
  beside->addLayout(column);
  beside->addWidget(v.first_row = row_bar(v.w));
  auto* layout = new QVBoxLayout(v.dialog);
  layout->addLayout(beside);
  layout->addWidget(button_row(v));
}

// Keys of the slider: a position, or ten, in the dialog's own way of counting them.
bool press_slider_key(workstation& w, int key) {
  session_state& session = w.session;
  const std::pair<int, int> steps[] = {
      {Qt::Key_Left, -1},    {Qt::Key_Down, -1},     {Qt::Key_Right, 1},     {Qt::Key_Up, 1},
      {Qt::Key_PageUp, -10}, {Qt::Key_PageDown, 10}, {Qt::Key_Home, -1'000}, {Qt::Key_End, 1'000}};
  for (const auto& [own, n] : steps) {
    if (own != key) continue;
    step_slider(session, n);
    redraw_voltage_display(w);
    return true;
  }
  return false;
}

// The keyboard belongs to the traces: what is pressed in the dialog moves them as it does in
// their window, but for a field with the cursor in it, which is being edited.
class trace_keys : public QObject {
 public:
  trace_keys(workstation& of, QDialog* dialog) : QObject(dialog), w_(of), dialog_(dialog) {
    dialog->installEventFilter(this);
    const QList<QWidget*> children = dialog->findChildren<QWidget*>();
    for (QWidget* child : children) child->installEventFilter(this);
    // Return, or a click beside the fields, ends the editing.
    const QList<number_field*> fields = dialog->findChildren<number_field*>();
    for (const number_field* field : fields) {
      connect(field->findChild<QLineEdit*>(), &QLineEdit::returnPressed, dialog,
              [dialog] { dialog->setFocus(); });
    }
    dialog->setFocusPolicy(Qt::ClickFocus);
    dialog->setFocus();
  }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() != QEvent::KeyPress) return false;
    const auto* key = static_cast<QKeyEvent*>(event);
    QWidget* focus = dialog_->focusWidget();
    if (qobject_cast<QLineEdit*>(focus) || qobject_cast<QAbstractSpinBox*>(focus)) return false;
    // Shortcuts of the menus go on to the menus.
    if ((key->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier) return false;
    const session_turn turn(w_);
    if (!turn.taken) return false;
    if (qobject_cast<QSlider*>(watched)) return press_slider_key(w_, key->key());
    return press_voltage_key(w_, key->key());
  }

 private:
  workstation& w_;
  QDialog* dialog_;
};

// Another recording has other channels and limits: the dialog of the last one goes.
void close_last_dialog(voltage_state& state) {
  if (!state.dialog) return;
  state.dialog->close();
  // At once, and not when the toolkit comes to it: its controls have the names that the next
  // dialog's will have.
  delete state.dialog;
}

// At the right edge of the frame, so that the traces stay in view.
void place_dialog(const voltage_controls& v) {
  const QWidget* frame = v.w.frame;
  const QPoint corner = frame->mapToGlobal(QPoint(frame->width() - v.dialog->width() - 12, 90));
  const QRect screen = frame->screen()->availableGeometry();
  // With its title in sight: below it has the room that it was fitted to.
  v.dialog->move(corner.x(),
                 std::clamp(corner.y(), screen.top(),
                            std::max(screen.bottom() - v.dialog->height() - 40, screen.top())));
}

}  // namespace

void update_voltage_dialog(workstation& w) {
  if (voltage_dialog_of(w) == nullptr) return;
  const session_turn turn(w);
  if (!turn.taken) return;
  const voltage_controls& v = *w.voltage->controls;
  const session_state& session = w.session;
  show_scales(v);
  show_position(v);
  limit(v.event, 1, session.events.n_events);
  limit(v.cluster, 1, session.clusters.n_clusters);
  const QSignalBlocker quiet(v.reversed);
  v.reversed->setChecked(session.view.vd_reverse_contrast);
  v.proto_events->setEnabled(session.detector.n_proto_marks > 0);
}

void voltage_record_command(workstation& w) {
  if (!needs_recording(w)) return;
  open_voltage_window(w);
  // The view first: the dialog shows it, and a control that is filled must not move it.
  prepare_voltage_dialog(w.session);
  close_last_dialog(*w.voltage);
  // Beside the window, which stays live, and without a hold on the menus: it only looks.
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("voltage_dialog");
  dialog->setWindowTitle("Voltage Waveform Display");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  w.voltage->controls = std::make_shared<voltage_controls>(voltage_controls{w, dialog});
  lay_out(*w.voltage->controls);
  w.voltage->dialog = dialog;
  new trace_keys(w, dialog);
  redraw_voltage_display(w);
  fit_to_screen(dialog);
  place_dialog(*w.voltage->controls);
  dialog->show();
}

}  // namespace kestrelvane
