#include <QHBoxLayout>
#include <QVBoxLayout>
#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

#include "files/input_file.h"
#include "recording/acquisition_facts.h"
#include "recording/electrode_config.h"
#include "recording/site_tables.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The default of tables that need ordering: across the rows and down the shank.
constexpr double usual_scan_angle = 1.0;

struct acquisition_window {
  workstation& w;
  operation_dialog* dialog;
  // As they were when the dialog opened, for "Cancel".
  float old_vscale;
  std::vector<std::int32_t> old_order;
  bool changed = false;
  QLabel *scaling = nullptr, *x = nullptr, *y = nullptr, *place = nullptr;
  number_field *new_scaling = nullptr, *scan_angle = nullptr, *channel = nullptr;

  acquisition_window(workstation& of, operation_dialog* d)
      : w(of), dialog(d), old_vscale(of.session.recording.vscale_HP) {
    const recording_store& r = of.session.recording;
    // Copied here and not at the first change, since both can be changed many times.
    old_order.assign(r.chan_sort_order.first(), r.chan_sort_order.first() + r.n_channels);
  }
};
using shared_acquisition = std::shared_ptr<acquisition_window>;

QString qt(const std::string& text) { return QString::fromStdString(text); }

QString with_unit(const std::string& value, const char* unit) {
  return value == "n/a" ? qt(value) : qt(value) + ' ' + unit;
}

// A path in one line; the whole of it in the tool-tip.
void add_path(QFormLayout* rows, const char* name, const QString& label, const QString& path) {
  QLabel* text = add_value(rows, name, label);
  // Cut in the middle: the folder at the front and the name at the end are what is looked for.
  text->setText(text->fontMetrics().elidedText(path, Qt::ElideMiddle, 560));
  text->setToolTip(path);
}

void show_changeable(const acquisition_window& a) {
  const recording_store& r = a.w.session.recording;
  const auto channel = static_cast<std::int32_t>(a.channel->value());
  const auto um = [](std::int16_t position) { return QString("%1 µm").arg(position); };
  a.x->setText(um(r.chan_x[channel]));
  a.y->setText(um(r.chan_y[channel]));
  a.place->setText(QString::number(display_position(r, channel)));
  a.scaling->setText(qt(list_acquisition_facts(a.w.session).voltage_scaling) + " µV/bit");
}

QGroupBox* recording_box(const acquisition_facts& facts) {
  auto* rows = new QFormLayout;
  add_value(rows, "record_date", "Recording date (d/m/y)", qt(facts.date));
  add_value(rows, "record_time", "Time (h/m/s)", qt(facts.time));
  if (facts.decimal_time != "n/a") {
    add_value(rows, "decimal_time", "", qt(facts.decimal_time + " hours past midnight"));
  }
  add_value(rows, "duration_mins", "Recording duration", with_unit(facts.duration, "minutes"));
  add_value(rows, "n_epochs", "# of epochs", qt(facts.n_epochs),
            "Stretches of the recording that were started one by one");
  add_value(rows, "recording_type", "Recording type", qt(facts.recording_type),
            "Unbroken time, or stored stretches around spikes");
  add_value(rows, "treated_as", "treated as", qt(facts.treated_as),
            "How stored stretches are laid out in memory; a preference");
  add_value(rows, "samples_per_event", "Samples per event", qt(facts.samples_per_event),
            "Samples of one stored stretch");
  return titled_box("Recording", rows);
}

QGroupBox* electrode_box(const acquisition_facts& facts) {
  auto* rows = new QFormLayout;
  add_value(rows, "electrode_name", "Electrode name", qt(facts.electrode_name));
  add_value(rows, "electrode_type", "electrode type", qt(facts.electrode_type));
  add_value(rows, "n_channels", "# of channels", qt(facts.n_channels));
  add_value(rows, "n_masked", "# masked", qt(facts.n_masked),
            "Channels that take no part in detection, clustering and templates");
  add_value(rows, "spacing_from", "Site spacing from", with_unit(facts.spacing_from, "µm"),
            "Smallest distance of a site to the nearest other one, µm");
  add_value(rows, "spacing_to", "to", with_unit(facts.spacing_to, "µm"),
            "Largest distance of a site to the nearest other one, µm");
  return titled_box("Electrode", rows);
}

// Changes the session on the worker, which has the gate, and shows the outcome.
void change(const shared_acquisition& a, session_routine routine) {
  a->changed = true;
  a->dialog->run(std::move(routine), [a] { show_changeable(*a); });
}

QGroupBox* samples_box(const shared_acquisition& a, const acquisition_facts& facts) {
  auto* rows = new QFormLayout;
  add_value(rows, "sampling_frequency", "Sampling Frequency",
            with_unit(facts.sampling_frequency, "Hz"));
  add_value(rows, "n_samples", "# of samples per channel", qt(facts.n_samples));
  add_value(rows, "vscale_norm", "Vscale norm", qt(facts.vscale_norm),
            "Scale of voltages in distances of clustering");
  a->scaling =
      add_value(rows, "vscale", "Voltage scaling", {}, "What one bit of a sample is worth");
  a->new_scaling =
      free_number(a->dialog, "new_vscale", 1e-6, 1e6,
                  {.step = 0.01,
                   .decimals = 9,
                   .unit = "µV/bit",
                   .tip = "Another scale, µV/bit, where that of the file is known to be wrong"});
  a->new_scaling->setValue(qt(facts.voltage_scaling).toDouble());
  QPushButton* button = make_button("change_vscale", "Change",
                                    "Take this scale; voltages are shown by it from now on");
  auto* row = new QHBoxLayout;
  row->addWidget(a->new_scaling->row(false), 1);
  row->addWidget(button);
  rows->addRow("", row);
  rows->addRow(words_line({a->new_scaling}));
  QObject::connect(button, &QPushButton::clicked, a->dialog, [a] {
    if (!a->new_scaling->hasAcceptableInput()) return;
    // Read here: the worker must not touch a control.
    const auto scale = static_cast<float>(a->new_scaling->value());
    change(a, [scale](session_state& session) { session.recording.vscale_HP = scale; });
  });
  a->dialog->disabled_while_running << button;
  return titled_box("Samples", rows);
}

QLayout* order_row(const shared_acquisition& a) {
  a->scan_angle = free_number(a->dialog, "scan_angle", -180, 180,
                              {.step = 1,
                               .decimals = 2,
                               .unit = "degrees",
                               .tip = "Direction along which the sites are put in order, "
                                      "degrees; 0 is across the probe, 90 along it"});
  a->scan_angle->setValue(usual_scan_angle);
  QPushButton* recalculate =
      make_button("recalculate", "Recalculate", "Put the channels in order along the scan angle");
  QPushButton* linear =
      make_button("linear", "Linear", "Take the order of the channel numbers as display order");
  auto* row = new QHBoxLayout;
  row->addWidget(a->scan_angle->row(false), 1);
  row->addWidget(recalculate);
  row->addWidget(linear);
  QObject::connect(recalculate, &QPushButton::clicked, a->dialog, [a] {
    if (!a->scan_angle->hasAcceptableInput()) return;
    const auto angle = static_cast<float>(a->scan_angle->value());
    change(a, [angle](session_state& session) { sort_channels(session, angle); });
  });
  QObject::connect(linear, &QPushButton::clicked, a->dialog,
                   [a] { change(a, order_channels_linearly); });
  a->dialog->disabled_while_running << recalculate << linear;
  return row;
}

QGroupBox* channel_box(const shared_acquisition& a) {
  session_state& session = a->w.session;
  auto* rows = new QFormLayout;
  a->channel = free_number(a->dialog, "channel", 1, session.recording.n_channels,
                           {.tip = "Channel whose site is shown"});
  rows->addRow("Channel #", a->channel->row());
  a->x = add_value(rows, "x_position", "X position", {}, "Across the probe, µm");
  a->y = add_value(rows, "y_position", "Y position", {}, "Along the probe, µm");
  a->place = add_value(rows, "sort_order", "Sort order", {},
                       "Row of the channel in displays, counted from 1");
  rows->addRow("scan angle", order_row(a));
  rows->addRow(words_line({a->scan_angle}));
  QObject::connect(a->channel, &QDoubleSpinBox::valueChanged, a->dialog, [a](double channel) {
    a->w.session.current_channel = static_cast<std::int32_t>(channel);
    show_changeable(*a);
  });
  return titled_box("Channel", rows);
}

void write_configuration(const shared_acquisition& a) {
  const auto written = std::make_shared<bool>(false);
  a->dialog->run([written](session_state& session) { *written = write_config_file(session); },
                 [a, written] {
                   show_message(a->w,
                                *written ? "Configuration file saved"
                                         : "The configuration file could not be written",
                                "Acquisition properties",
                                *written ? box_icon::information : box_icon::error);
                 });
}

void save_configuration(const shared_acquisition& a) {
  const std::string path = replace_extension(a->w.session.recording.recording_path, ".cfg");
  // One that is there may have been made by hand.
  if (!std::filesystem::exists(path)) return write_configuration(a);
  ask_then(a->w, "Replace the configuration file beside the recording?", "Acquisition properties",
           [a](bool yes) {
             if (yes) write_configuration(a);
           });
}

// Scale and order as they were, however the dialog was left without "OK".
void take_back(const acquisition_window& a) {
  if (!a.changed) return;
  start_operation(
      a.w,
      [scale = a.old_vscale, order = a.old_order](session_state& session) {
        session.recording.vscale_HP = scale;
        std::copy(order.begin(), order.end(), session.recording.chan_sort_order.first());
      },
      nullptr);
}

QDialogButtonBox* button_row(const shared_acquisition& a) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* save =
      add_button(buttons, "save_configuration", "Save configuration", QDialogButtonBox::ResetRole,
                 "Write channels and site positions as a .cfg file beside the recording");
  QPushButton* ok =
      add_button(buttons, "ok", "OK", QDialogButtonBox::AcceptRole, "Keep scale and order");
  QPushButton* cancel = add_button(buttons, "cancel", "Cancel", QDialogButtonBox::RejectRole,
                                   "Scale and order as they were when this dialog opened");
  ok->setDefault(true);
  save->setAutoDefault(false);
  a->dialog->disabled_while_running << save << ok << cancel;
  QObject::connect(save, &QPushButton::clicked, a->dialog, [a] { save_configuration(a); });
  QObject::connect(ok, &QPushButton::clicked, a->dialog, &QDialog::accept);
  QObject::connect(cancel, &QPushButton::clicked, a->dialog, &QDialog::reject);
  return buttons;
}

}  // namespace

void acquisition_properties_command(workstation& w) {
  if (!needs_recording(w)) return;
  {
    // The field of the channel begins there.
    const std::lock_guard lock(w.session.settings_mutex);
    w.session.current_channel = 1;
  }
  auto* dialog = new operation_dialog(w, "acquisition_dialog", "Acquisition properties");
  const auto a = std::make_shared<acquisition_window>(w, dialog);
  const acquisition_facts facts = list_acquisition_facts(w.session);
  auto* files = new QFormLayout;
  add_path(files, "recording_file", "Recording file", qt(facts.recording_file));
  add_path(files, "config_file", "Channel configuration file", qt(facts.config_file));
  auto* left = new QVBoxLayout;
  left->addWidget(recording_box(facts));
  left->addWidget(samples_box(a, facts));
  auto* right = new QVBoxLayout;
  right->addWidget(electrode_box(facts));
  right->addWidget(channel_box(a));
  auto* columns = new QHBoxLayout;
  columns->addLayout(left, 1);
  columns->addLayout(right, 1);
  auto* layout = new QVBoxLayout(dialog);
  layout->addLayout(files);
  layout->addLayout(columns);
  layout->addWidget(button_row(a));
  QObject::connect(dialog, &QDialog::rejected, w.frame, [a] { take_back(*a); });
  show_changeable(*a);
  open_dialog(w, dialog);
}

}  // namespace kestrelvane
