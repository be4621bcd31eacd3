#include <QButtonGroup>
#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QRadioButton>
#include <QScrollBar>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>
#include <functional>

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

namespace {

// A control keeps its value without telling its own listeners.
template <typename Control, typename Value>
void show(QDialog* dialog, const char* name, Value value) {
  auto* control = dialog->findChild<Control*>(name);
  const QSignalBlocker quiet(control);
  control->setValue(value);
}

// How far a number may go follows what is in memory.
void limit(QDialog* dialog, const char* name, std::int32_t last) {
  auto* field = dialog->findChild<number_field*>(name);
  const QSignalBlocker quiet(field);
  if (field->maximum() != std::max(last, 1)) field->setMaximum(std::max(last, 1));
}

void show_text(QDialog* dialog, const char* name, const std::string& text) {
  dialog->findChild<QLabel*>(name)->setText(QString::fromStdString(text));
}

QSpinBox* spinner(const char* name, int low, int high, const char* tip) {
  auto* box = new QSpinBox;
  box->setObjectName(name);
  box->setRange(low, high);
  box->setToolTip(tip);
  box->setAccelerated(true);
  return box;
}

// A scale as a spinner of steps and a number that may be typed.
void add_scale(workstation& w, QFormLayout* rows, const QString& label, const char* name,
               const char* step_name, int last_position, const number_options& options,
               float& scale, float (*scale_at)(std::int32_t)) {
  number_field* typed = free_number(nullptr, name, 1e-6, 1e6, options);
  QSpinBox* steps = spinner(step_name, 1, last_position, "Steps of the scale");
  auto* row = new QHBoxLayout;
  row->addWidget(typed->row(), 1);
  row->addWidget(new QLabel("step"));
  row->addWidget(steps);
  rows->addRow(label, row);
  QObject::connect(typed, &QDoubleSpinBox::valueChanged, w.frame, [&w, &scale](double value) {
    scale = static_cast<float>(value);
    redraw_voltage_display(w);
  });
  QObject::connect(steps, &QSpinBox::valueChanged, w.frame, [&w, &scale, scale_at](int position) {
    scale = scale_at(position);
    redraw_voltage_display(w);
  });
}

QGroupBox* scales_box(workstation& w) {
  session_state& session = w.session;
  auto* rows = new QFormLayout;
  add_scale(w, rows, "Voltage scale", "vd_voltage_scale", "vd_voltage_scale_step", 100,
            {.step = 0.05,
             .decimals = 6,
             .unit = "pixels/µV",
             .tip = "Height of a microvolt, pixels; Shift and the wheel change it, too"},
            session.display.vd_voltage_scale, voltage_scale_at);
  add_scale(w, rows, "Time scale", "vd_time_scale", "vd_time_scale_step", 2000,
            {.step = 0.1,
             .decimals = 6,
             .unit = "pixels/sample",
             .tip = "Width of a sample, pixels; Ctrl and the wheel change it, too"},
            session.display.vd_time_scale, time_scale_at);
  QSpinBox* spacing = spinner("vd_channel_spacing", 1, 500, "Distance of two rows, pixels");
  spacing->setSuffix(" pixels");
  rows->addRow("Channel spacing", spacing);
  QObject::connect(spacing, &QSpinBox::valueChanged, w.frame, [&w](int pixels) {
    set_channel_spacing(w.session, pixels);
    redraw_voltage_display(w);
  });
  return titled_box("Scales", rows);
}

// A pair of buttons that move back and on.
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

QGroupBox* position_box(workstation& w) {
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("vd_slider_position");
  slider->setRange(1, 270);
  slider->setToolTip("Position in the recording");
  QObject::connect(slider, &QSlider::valueChanged, w.frame, [&w](int position) {
    move_to_slider(w.session, position);
    redraw_voltage_display(w);
  });
  auto* rows = new QFormLayout;
  rows->addRow(slider);
  auto* adjust = new QHBoxLayout;
  adjust->addLayout(move_buttons(w, "move_coarse", move_coarsely, "250 pixels; the page keys"));
  adjust->addWidget(new QLabel("fine"));
  adjust->addLayout(
      move_buttons(w, "move_fine", move_finely, "10 pixels and 5 samples; the cursor keys"));
  adjust->addStretch();
  rows->addRow("Position adjust: coarse", adjust);
  add_value(rows, "position_minutes", "Position, minutes");
  auto* events = new QHBoxLayout;
  for (const char* name : {"first_shown", "last_shown"}) {
    auto* text = new QLabel;
    text->setObjectName(name);
    if (QString(name) == "last_shown") events->addWidget(new QLabel("to"));
    events->addWidget(text);
  }
  events->addStretch();
  rows->addRow("Displaying events", events);
  return titled_box("Position", rows);
}

// A number and its "Go to" button; go gets the number.
number_field* add_jump(workstation& w, QGridLayout* grid, int row, const QString& label,
                       const char* name, double high, const char* tip,
                       std::function<void(int)> go) {
  number_field* field = free_number(nullptr, name, 1, std::max(high, 1.0), {.tip = tip});
  field->setButtonSymbols(QAbstractSpinBox::NoButtons);
  QPushButton* button = make_button(qPrintable(QString("go_to_") + name), "Go to", tip);
  grid->addWidget(button, row, 0);
  grid->addWidget(new QLabel(label), row, 1);
  grid->addWidget(field, row, 2);
  grid->addWidget(field->problem(), row, 3);
  const auto jump = [&w, field, go = std::move(go)] {
    if (!field->hasAcceptableInput()) return;
    go(static_cast<int>(field->value()));
    redraw_voltage_display(w);
  };
  QObject::connect(button, &QPushButton::clicked, w.frame, jump);
  QObject::connect(field->findChild<QLineEdit*>(), &QLineEdit::returnPressed, w.frame, jump);
  return field;
}

void show_jump(QDialog* dialog, const event_jump& jump) {
  if (!jump.done) return;
  const std::pair<const char*, std::string> shown[] = {{"event", jump_event_text(jump)},
                                                       {"index", jump_index_text(jump)}};
  for (const auto& [name, text] : shown) {
    auto* field = dialog->findChild<number_field*>(name);
    const QSignalBlocker quiet(field);
    const double value = QString::fromStdString(text).toDouble();
    if (value > 0) {
      field->setValue(value);
    } else {
      field->clear();
    }
  }
}

QGroupBox* jumps_box(workstation& w, QDialog* dialog) {
  session_state& session = w.session;
  auto* grid = new QGridLayout;
  add_jump(w, grid, 0, "index", "index", session.recording.n_samples,
           "Time index in samples, above 50", [&w](int index) { go_to_index(w.session, index); });
  add_jump(w, grid, 1, "event", "event", session.events.n_events, "Number of an event",
           [&w](int event) { go_to_event(w.session, event); });
  add_jump(w, grid, 2, "next event on channel", "channel", session.recording.n_channels,
           "The first event behind the left edge on this channel", [&w, dialog](int channel) {
             show_jump(dialog, go_to_next_event_on_channel(w.session, channel));
           });
  number_field* cluster =
      add_jump(w, grid, 3, "next event in cluster", "cluster", session.clusters.n_clusters,
               "The first event behind the left edge in this cluster", [&w, dialog](int number) {
                 if (!choose_current_cluster(w.session, number)) return;
                 show_jump(dialog, go_to_next_event_in_cluster(w.session));
               });
  cluster->setValue(session.clusters.current_cluster);
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

// Traces or a grey image.
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

QGroupBox* marks_box(workstation& w) {
  display_settings& d = w.session.display;
  voltage_view& view = w.session.view;
  QCheckBox* proto = mark(w, "vd_show_proto_events", "proto-events", d.vd_show_proto_events,
                          "Green: single-channel triggers of the last detection");
  proto->setEnabled(w.session.detector.n_proto_marks > 0);
  QWidget* const boxes[] = {
      proto,
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
      mark(w, "vd_reverse_contrast", "reverse contrast", view.vd_reverse_contrast,
           "White traces on black")};
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
  bar->setRange(1, w.session.recording.n_channels + 9);
  bar->setToolTip("The row at the top");
  QObject::connect(bar, &QScrollBar::valueChanged, w.frame, [&w](int row) {
    scroll_to_row(w.session, row);
    redraw_voltage_display(w);
  });
  return bar;
}

}  // namespace

void update_voltage_dialog(workstation& w) {
  QDialog* dialog = voltage_dialog_of(w);
  const session_turn turn(w);
  if (dialog == nullptr || !turn.taken) return;
  const session_state& session = w.session;
  const display_settings& d = session.display;
  show<QSpinBox>(dialog, "vd_voltage_scale_step", position_of_voltage_scale(d.vd_voltage_scale));
  show<QSpinBox>(dialog, "vd_time_scale_step", position_of_time_scale(d.vd_time_scale));
  // What is being typed stays as it is.
  if (!dialog->findChild<number_field*>("vd_voltage_scale")->hasFocus()) {
    show<number_field>(dialog, "vd_voltage_scale", static_cast<double>(d.vd_voltage_scale));
  }
  if (!dialog->findChild<number_field*>("vd_time_scale")->hasFocus()) {
    show<number_field>(dialog, "vd_time_scale",
                       QString::fromStdString(time_scale_text(session)).toDouble());
  }
  show<QSpinBox>(dialog, "vd_channel_spacing", d.vd_channel_spacing);
  show<QSlider>(dialog, "vd_slider_position", session.view.vd_slider_position);
  show<QScrollBar>(dialog, "vd_first_channel", session.view.vd_first_channel);
  limit(dialog, "event", session.events.n_events);
  limit(dialog, "cluster", session.clusters.n_clusters);
  auto* proto = dialog->findChild<QCheckBox*>("vd_show_proto_events");
  proto->setEnabled(session.detector.n_proto_marks > 0);
  show_text(dialog, "position_minutes", position_minutes_text(session));
  const shown_range_text shown =
      displaying_events_text(w.voltage->drawn.first_event, w.voltage->drawn.n_events_shown);
  show_text(dialog, "first_shown", shown.first);
  show_text(dialog, "last_shown", shown.last);
}

void voltage_record_command(workstation& w) {
  if (!needs_recording(w)) return;
  session_state& session = w.session;
  const std::int32_t* size = session.preferences.voltage_window_size;
  open_voltage_window(w, QSize(size[0], size[1]));
  prepare_voltage_dialog(session);
  if (w.voltage->dialog) {
    w.voltage->dialog->close();
    delete w.voltage->dialog;
  }
  // Beside the window, which stays live.
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("voltage_dialog");
  dialog->setWindowTitle("Voltage Waveform Display");
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  auto* column = new QVBoxLayout;
  column->addWidget(scales_box(w));
  column->addWidget(position_box(w));
  column->addWidget(jumps_box(w, dialog));
  column->addWidget(marks_box(w));
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
  buttons->button(QDialogButtonBox::Close)->setObjectName("close");
  buttons->button(QDialogButtonBox::Close)->setAutoDefault(false);  // Return belongs to the fields
  QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::close);
  column->addWidget(buttons);
  auto* layout = new QHBoxLayout(dialog);
  layout->addLayout(column);
  layout->addWidget(row_bar(w));
  w.voltage->dialog = dialog;
  redraw_voltage_display(w);
  dialog->adjustSize();
  // At the right edge of the frame, so that the traces stay in view.
  const QPoint corner = w.frame->mapToGlobal(QPoint(w.frame->width() - dialog->width() - 12, 90));
  dialog->move(corner);
  dialog->show();
}

}  // namespace kestrelvane
