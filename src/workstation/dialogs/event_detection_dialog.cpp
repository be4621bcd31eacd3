#include <QButtonGroup>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QRadioButton>
#include <QSlider>
#include <QTableWidget>
#include <QVBoxLayout>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "detection/sample_test.h"
#include "operations/detection_run.h"
#include "recording/channel_masks.h"
#include "session/settings_table.h"
#include "signal/noise.h"
#include "sorting/realign_steps.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Noise, thresholds, masks and the run. Numbers and choices are stored by Start and Done;
// masks and the method of the noise count at once, since what the dialog shows of a channel
// follows them. Start replaces all events, and with them every cluster.
struct detection_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  QLabel *noise = nullptr, *n_masked = nullptr, *message = nullptr;
  QLabel *elapsed = nullptr, *n_found = nullptr;
  QLabel *n_coincident = nullptr, *n_large = nullptr;  // deleted by the clean-up
  QSlider* channel = nullptr;
  QCheckBox* mask = nullptr;
  QTableWidget* table = nullptr;  // of the channels, row after row
  QComboBox* method = nullptr;
  number_field* width = nullptr;                            // of the window of some methods
  QRadioButton *by_fixed = nullptr, *by_noise = nullptr;    // the rule of the thresholds
  number_field *fixed_uv = nullptr, *multiplier = nullptr;  // and its values
  QProgressBar* bar = nullptr;
  QPushButton* interrupt = nullptr;
  QList<QGroupBox*> sections;
  bool masks_changed = false;

  detection_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_detection = std::shared_ptr<detection_window>;

// Widths are kept in samples and shown in ms. A session without a rate divides by 1.
double ms_per_sample(const detection_window& d) {
  return 1000.0 / std::max(d.w.session.recording.sampling_frequency, 1);
}

// Radio buttons over an integer, in one row: name, label, what it stands for, tool-tip. A
// press by the user is told to chosen at once.
QLayout* radio_row(
    detection_window& d, std::int32_t detection_settings::*value,
    std::initializer_list<std::tuple<const char*, const char*, int, const char*>> buttons,
    const std::function<void(int)>& chosen = {}, std::vector<QRadioButton*>* made = nullptr) {
  auto* row = new QHBoxLayout;
  auto* group = new QButtonGroup(d.dialog);  // apart from other rows of the same box
  for (const auto& [name, label, stands_for, tip] : buttons) {
    auto* button = new QRadioButton(label);
    group->addButton(button);
    if (made != nullptr) made->push_back(button);
    button->setObjectName(name);
    button->setToolTip(tip);
    row->addWidget(button);
    const int own = stands_for;
    detection_settings& settings = d.w.session.detection;
    d.form.bindings.push_back({[button, value, own](const session_state& from) {
                                 button->setChecked(from.detection.*value == own);
                               },
                               [button, &settings, value, own] {
                                 if (button->isChecked()) settings.*value = own;
                               },
                               nullptr});
    if (!chosen) continue;
    QObject::connect(button, &QRadioButton::clicked, d.dialog, [chosen, own] { chosen(own); });
  }
  row->addStretch();
  return row;
}

// Two radio buttons over a logical. Two, and not a box: neither choice is the lack of the
// other, and both have a name in the field.
QLayout* flag_row(detection_window& d, logical detection_settings::*flag, const char* yes_name,
                  const char* yes_label, const char* yes_tip, const char* no_name,
                  const char* no_label, const char* no_tip) {
  auto* row = new QHBoxLayout;
  auto* yes = new QRadioButton(yes_label);
  auto* no = new QRadioButton(no_label);
  yes->setObjectName(yes_name);
  yes->setToolTip(yes_tip);
  no->setObjectName(no_name);
  no->setToolTip(no_tip);
  auto* group = new QButtonGroup(d.dialog);
  group->addButton(yes);
  group->addButton(no);
  row->addWidget(yes);
  row->addWidget(no);
  row->addStretch();
  detection_settings& settings = d.w.session.detection;
  d.form.bindings.push_back({[yes, no, flag](const session_state& from) {
                               yes->setChecked(from.detection.*flag);
                               no->setChecked(!(from.detection.*flag));
                             },
                             [yes, &settings, flag] { settings.*flag = yes->isChecked(); },
                             nullptr});
  return row;
}

enum table_column { column_channel, column_noise, column_threshold, column_masked };

// The rule for thresholds as the fields have it now, stored or not.
struct threshold_rule {
  int mode;
  double value;  // µV, or times the noise
};

threshold_rule rule_of(const detection_window& d) {
  if (d.by_fixed->isChecked()) return {threshold_fixed, std::abs(d.fixed_uv->value())};
  if (d.by_noise->isChecked()) return {threshold_variable, d.multiplier->value()};
  return {threshold_automatic, 0};
}

// The threshold that a run would begin with, µV.
QString threshold_text(const session_state& session, const threshold_rule& rule, int c) {
  // µV; noise and thresholds are kept in bits.
  const double bit = session.recording.vscale_HP;
  const auto uv = [](double value) { return QString::number(value, 'f', 1); };
  if (rule.mode == threshold_fixed) return "± " + uv(rule.value);
  if (rule.mode == threshold_variable) {
    return "± " + uv(rule.value * session.recording.chan_noise[c] * bit);
  }
  // Fitted by each run; those of the last one stand until then.
  const double negative = session.detector.auto_threshold_neg[c] * bit;
  const double positive = session.detector.auto_threshold_pos[c] * bit;
  return negative == 0 && positive == 0 ? QString("fitted") : uv(negative) + " / " + uv(positive);
}

// What the table has of every channel.
void show_table(detection_window& d) {
  const recording_store& r = d.w.session.recording;
  const QSignalBlocker quiet(d.table);
  const threshold_rule rule = rule_of(d);
  for (int c = 1; c <= r.n_channels; ++c) {
    const double noise = static_cast<double>(r.chan_noise[c] * r.vscale_HP);
    d.table->item(c - 1, column_noise)->setText(QString::number(noise, 'f', 2));
    d.table->item(c - 1, column_threshold)->setText(threshold_text(d.w.session, rule, c));
    d.table->item(c - 1, column_masked)
        ->setCheckState(r.chan_mask[c] ? Qt::Checked : Qt::Unchecked);
  }
}

// The noise of the channel under the slider, and whether it is masked.
void show_channel(detection_window& d) {
  const recording_store& r = d.w.session.recording;
  const int c = d.channel->value();
  d.noise->setText(QString("Channel %1: noise %2 µV")
                       .arg(c)
                       .arg(static_cast<double>(r.chan_noise[c] * r.vscale_HP), 0, 'f', 2));
  // Shown, not pressed: moving along the channels must not mark their masks as changed.
  const QSignalBlocker quiet(d.mask);
  d.mask->setChecked(r.chan_mask[c]);
  int masked = 0;
  for (int i = 1; i <= r.n_channels; ++i) masked += r.chan_mask[i] ? 1 : 0;
  d.n_masked->setText(QString("%1 of %2 channels are masked").arg(masked).arg(r.n_channels));
}

void show_channels(detection_window& d) {
  show_table(d);
  show_channel(d);
}

// On the worker at normal priority: the user waits for it before anything else.
void measure_noise(const shared_detection& d) {
  d->message->setText("Measuring the noise ...");
  d->dialog->run([](session_state& session) { compute_noise(session); },
                 [d] {
                   d->message->clear();
                   show_channels(*d);
                 },
                 worker_priority::normal);
}

// The user sees at once what a method makes of the recording, before anything is detected.
void measure_with(const shared_detection& d, int method) {
  {
    const std::lock_guard lock(d->w.session.settings_mutex);
    d->w.session.detection.noise_method = method;
  }
  measure_noise(d);
}

QGroupBox* noise_section(const shared_detection& d) {
  auto* rows = new QFormLayout;
  rows->addRow("Measure", radio_row(*d, &detection_settings::noise_method,
                                    {{"noise_sd", "s.d.", 1, "Standard deviation of the samples"},
                                     {"noise_median", "median", 2,
                                      "Median of the absolute voltage over 0.6745; spikes "
                                      "weigh less"}},
                                    [d](int method) { measure_with(d, method); }));
  rows->addRow("Noise", flag_row(*d, &detection_settings::noise_static, "noise_static", "Static",
                                 "One value for the whole recording", "noise_dynamic", "Dynamic",
                                 "Measured anew in each window of time"));
  add_number(rows, d->form, "window", "noise_window_secs",
             {.step = 10,
              .unit = "secs",
              .tip = "Window of the dynamic noise, a multiple of 10 s",
              .low = 10,
              .high = 100'000,
              .multiple = 10});
  d->noise = new QLabel;
  d->noise->setObjectName("channel_noise");
  rows->addRow(d->noise);
  return titled_box("Noise", rows);
}

QGroupBox* threshold_section(const shared_detection& d) {
  auto* rows = new QFormLayout;
  std::vector<QRadioButton*> modes;
  rows->addRow(
      radio_row(*d, &detection_settings::threshold_mode,
                {{"threshold_automatic", "Automatic", threshold_automatic,
                  "Where the histogram of voltages leaves the bell curve of the noise"},
                 {"threshold_fixed", "Fixed", threshold_fixed, "The same voltage on all channels"},
                 {"threshold_variable", "Variable", threshold_variable,
                  "A multiple of each channel's noise"}},
                {}, &modes));
  d->by_fixed = modes[1];
  d->by_noise = modes[2];
  d->fixed_uv =
      add_number(rows, d->form, "Fixed", "fixed_threshold_uv",
                 {.step = 5,
                  .unit = "µV",
                  .tip = "Fixed threshold, µV; a negative one looks for troughs alone in the "
                         "unipolar method"});
  d->multiplier = add_number(
      rows, d->form, "Variable", "variable_multiplier",
      {.step = 0.1, .unit = "× noise", .tip = "Variable threshold, multiple of the noise"});
  return titled_box("Threshold", rows);
}

// The row of the slider's channel, unless several are selected.
void follow_slider(detection_window& d) {
  const int row = d.channel->value() - 1;
  if (d.table->currentRow() != row) {
    const QSignalBlocker quiet(d.table);
    d.table->setCurrentCell(row, column_channel);
  }
  show_channel(d);
}

void change_masks(detection_window& d) {
  d.masks_changed = true;
  show_channels(d);
}

// A tick in one of several selected rows stands for all of them.
void tick_rows(detection_window& d, const QTableWidgetItem* ticked) {
  if (ticked->column() != column_masked) return;
  const bool on = ticked->checkState() == Qt::Checked;
  logical* masks = &d.w.session.recording.chan_mask[1];
  std::unique_lock lock(d.w.session.settings_mutex);
  masks[ticked->row()] = on;
  const QModelIndexList rows = d.table->selectionModel()->selectedRows();
  const bool of_selection = std::any_of(
      rows.begin(), rows.end(), [&](const QModelIndex& row) { return row.row() == ticked->row(); });
  // A tick in a row outside of the selection stands for itself alone.
  if (of_selection) {
    for (const QModelIndex& row : rows) masks[row.row()] = on;
  }
  lock.unlock();
  change_masks(d);
}

void fill_table(QTableWidget* table, int n_channels) {
  table->setRowCount(n_channels);
  for (int row = 0; row < n_channels; ++row) {
    for (int column = column_channel; column <= column_masked; ++column) {
      auto* item = new QTableWidgetItem;
      item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
      item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
      if (column == column_masked) item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
      table->setItem(row, column, item);
    }
    table->item(row, column_channel)->setText(QString::number(row + 1));
  }
}

// Styles take the outline of a tick box from the colour of windows, which is no outline on the
// dark ground of a table.
void outline_boxes(QTableWidget* table) {
  QPalette colours = table->palette();
  if (colours.color(QPalette::Base).lightness() >= 128) return;
  colours.setColor(QPalette::Window, colours.color(QPalette::Text));
  table->setPalette(colours);
}

// All channels at a glance; several are masked at once by selecting their rows.
QTableWidget* channel_table(const shared_detection& d) {
  auto* table = new QTableWidget(0, 4);
  table->setObjectName("channel_masks");
  table->setToolTip(
      "Noise and threshold of every channel, µV; a tick in one of several selected "
      "rows masks them all");
  table->setHorizontalHeaderLabels({"channel", "noise, µV", "threshold, µV", "masked"});
  table->setSelectionBehavior(QAbstractItemView::SelectRows);
  table->setSelectionMode(QAbstractItemView::ExtendedSelection);
  table->setEditTriggers(QAbstractItemView::NoEditTriggers);
  // Tab leads out of the table, or it would take one press for each channel to get past it.
  table->setTabKeyNavigation(false);
  table->setShowGrid(false);
  table->setAlternatingRowColors(true);
  outline_boxes(table);
  table->verticalHeader()->hide();
  table->verticalHeader()->setDefaultSectionSize(table->fontMetrics().height() + 6);
  table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
  table->horizontalHeader()->setMinimumSectionSize(
      table->fontMetrics().horizontalAdvance("threshold, µV") + 16);
  table->setMinimumSize(4 * table->horizontalHeader()->minimumSectionSize() + 24, 160);
  fill_table(table, d->w.session.recording.n_channels);
  QObject::connect(table, &QTableWidget::itemChanged, d->dialog,
                   [d](const QTableWidgetItem* item) { tick_rows(*d, item); });
  QObject::connect(table, &QTableWidget::currentCellChanged, d->dialog,
                   [d](int row) { d->channel->setValue(row + 1); });
  return d->table = table;
}

// The thresholds of the table follow what is typed.
void follow_thresholds(const shared_detection& d) {
  for (const number_field* field : {d->fixed_uv, d->multiplier}) {
    QObject::connect(field, &QDoubleSpinBox::valueChanged, d->dialog, [d] { show_table(*d); });
  }
  for (const QRadioButton* button : {d->by_fixed, d->by_noise}) {
    QObject::connect(button, &QRadioButton::toggled, d->dialog, [d] { show_table(*d); });
  }
}

QLayout* channel_row(const shared_detection& d) {
  d->channel = new QSlider(Qt::Horizontal);
  d->channel->setObjectName("channel");
  d->channel->setRange(1, std::max(d->w.session.recording.n_channels, 1));
  d->channel->setToolTip("The channel that is shown");
  d->mask = new QCheckBox("Mask");
  d->mask->setObjectName("mask_channel");
  d->mask->setToolTip("The channel takes no part in detection, clustering and templates");
  QObject::connect(d->channel, &QSlider::valueChanged, d->dialog, [d] { follow_slider(*d); });
  QObject::connect(d->mask, &QCheckBox::toggled, d->dialog, [d](bool on) {
    {
      const std::lock_guard lock(d->w.session.settings_mutex);
      d->w.session.recording.chan_mask[d->channel->value()] = on;
    }
    change_masks(*d);
  });
  auto* row = new QHBoxLayout;
  row->addWidget(d->channel, 1);
  row->addWidget(d->mask);
  return row;
}

// The number counts at once, since the button beside it needs it.
QLayout* quiet_row(const shared_detection& d) {
  QPushButton* quiet = make_button("mask_quiet", "Mask", "Mask every channel that is quieter");
  number_field* below = number_control(
      d->form, "mask_noise_below_uv",
      {.step = 0.5, .unit = "µV", .tip = "Channels with less noise are likely not connected, µV"});
  QObject::connect(quiet, &QPushButton::clicked, d->dialog, [d, below] {
    if (!below->hasAcceptableInput()) return;
    {
      const std::lock_guard lock(d->w.session.settings_mutex);
      d->w.session.detection.mask_noise_below_uv = static_cast<float>(below->value());
      mask_quiet_channels(d->w.session);
    }
    change_masks(*d);
  });
  auto* row = new QHBoxLayout;
  row->addWidget(quiet);
  row->addWidget(new QLabel("if noise <"));
  row->addWidget(below->row(), 1);
  return row;
}

QLayout* all_channels_row(const shared_detection& d) {
  QPushButton* all = make_button("mask_all", "Mask all", "Mask every channel");
  QPushButton* none = make_button("unmask_all", "Unmask all", "Let every channel take part");
  auto* row = new QHBoxLayout;
  for (QPushButton* button : {all, none}) {
    row->addWidget(button);
    QObject::connect(button, &QPushButton::clicked, d->dialog, [d, masked = button == all] {
      {
        const std::lock_guard lock(d->w.session.settings_mutex);
        mask_all_channels(d->w.session, masked);
      }
      change_masks(*d);
    });
  }
  row->addStretch();
  return row;
}

QGroupBox* mask_section(const shared_detection& d) {
  auto* rows = new QFormLayout;
  rows->addRow(channel_table(d));
  rows->addRow("Channel", channel_row(d));
  rows->addRow(quiet_row(d));
  rows->addRow(all_channels_row(d));
  d->n_masked = new QLabel;
  d->n_masked->setObjectName("n_masked");
  rows->addRow(d->n_masked);
  return titled_box("Channel masks", rows);
}

// The width is live for the methods that have a window; while a run is on, for none.
void follow_method(const detection_window& d) {
  const bool has_window = d.method->currentData().toInt() >= method_multiphasic;
  d.width->setEnabled(has_window && !d.dialog->running());
}

QGroupBox* method_section(const shared_detection& d) {
  const double ms = ms_per_sample(*d);
  auto* rows = new QFormLayout;
  QComboBox* method = choice_control(d->form, "detection_method", mode_entries(detection_methods()),
                                     "What makes a sample a candidate for a spike");
  d->method = method;
  rows->addRow("Method", method);
  d->width = add_number(rows, d->form, "Window width", "window_samples",
                        {.step = ms,
                         .decimals = 4,
                         .unit = "ms",
                         .tip = "How far around a sample the last three methods look, "
                                "ms; kept in whole samples",
                         .shown_per_stored = ms});
  rows->addRow("Align to", choice_control(d->form, "align_feature", mode_entries(align_features()),
                                          "Point of the spike that is its time"));
  rows->addRow(logical_control(d->form, "delete_large_events", "delete events with p-p > ",
                               "Take out artefacts that are larger than any spike"));
  add_number(rows, d->form, "", "max_event_pp_uv",
             {.step = 50, .unit = "µV", .tip = "Largest peak-to-peak voltage of a spike, µV"});
  QObject::connect(method, &QComboBox::currentIndexChanged, d->dialog, [d] { follow_method(*d); });
  QObject::connect(d->dialog, &operation_dialog::running_changed, d->dialog,
                   [d] { follow_method(*d); });
  return titled_box("Detection", rows);
}

QGroupBox* detector_section(const shared_detection& d) {
  session_state& session = d->w.session;
  const double ms = ms_per_sample(*d);
  auto* rows = new QFormLayout;
  // After a failed try there is no room for proto-events.
  if (session.detector.pe_alloc_failed) {
    const std::lock_guard lock(session.settings_mutex);
    session.detection.use_lockout = true;
  }
  auto* choice = new QWidget;
  choice->setLayout(
      flag_row(*d, &detection_settings::use_lockout, "use_lockout", "Spatio-temporal lockout",
               "The first trigger locks its neighbourhood out for a time", "use_proto_events",
               "Proto-event clustering", "Triggers climb their own density in space and time"));
  choice->setDisabled(session.detector.pe_alloc_failed);
  rows->addRow(choice);
  add_number(rows, d->form, "distance", "lockout_radius_um",
             {.step = 10, .unit = "µm", .tip = "Radius of the lockout, µm"});
  add_number(rows, d->form, "time", "lockout_ms",
             {.step = ms, .unit = "ms", .tip = "Duration of the lockout, ms"});
  add_number(rows, d->form, "sigma in space", "pe_sigma_um",
             {.step = 5, .unit = "µm", .tip = "Spatial sigma of proto-event clustering, µm"});
  add_number(rows, d->form, "sigma in time", "pe_sigma_ms",
             {.step = ms, .unit = "ms", .tip = "Temporal sigma of proto-event clustering, ms"});
  return titled_box("Detector", rows);
}

QGroupBox* result_section(const shared_detection& d) {
  auto* rows = new QFormLayout;
  d->bar = make_bar("progress", 1000);
  rows->addRow("Progress", d->bar);
  d->elapsed = add_value(rows, "elapsed_time", "Time, s");
  d->n_coincident = add_value(rows, "coincident_deleted", "# coincident", {},
                              "Deleted: the same spike found twice on one channel");
  d->n_large =
      add_value(rows, "large_deleted", "# too large", {}, "Deleted: larger than any spike");
  d->n_found =
      add_value(rows, "events_found", "# found", QString::number(d->w.session.events.n_events));
  return titled_box("Run", rows);
}

void start_detection(const shared_detection& d) {
  if (!d->form.store()) return;
  // A run that is interrupted may never report them; the last run's would stay.
  d->n_coincident->clear();
  d->n_large->clear();
  d->message->setText("Detecting events ...");
  d->dialog->run([](session_state& session) { run_detection(session); },
                 [d] {
                   d->message->clear();
                   // The run may have turned to the lockout detector for lack of memory.
                   d->form.load();
                   show_channels(*d);
                 });
}

// However the dialog is left, what the run left is looked at, and changed masks are offered to
// be kept; they count already. Settings are stored by "Done" alone.
void leave_detection(const shared_detection& d, QDialog::DialogCode how) {
  if (how == QDialog::Accepted && !d->form.store()) return;
  const bool masks_changed = d->masks_changed;
  d->dialog->run(
      [masks_changed](session_state& session) {
        check_detected_events(session);
        if (masks_changed) write_mask_file(session);
      },
      [d, how] { d->dialog->done(how); });
}

// Templates of clusters that are there lose the channels that have been masked, however
// the dialog was left.
void follow_masks(const shared_detection& d) {
  // Every template and every pair anew: minutes for a large sort, and only where there is a reason.
  if (!d->masks_changed || d->w.session.clusters.n_clusters == 0) return;
  run_with_progress(d->w, "recalculate_progress", "Recalculate templates", renew_masked_templates,
                    nullptr);
}

// Shows the values of a new installation; they count once detection starts or is left.
void restore_defaults(const shared_detection& d) {
  const session_state& session = d->w.session;
  const std::unique_ptr<session_state> shown = copy_settings(session);
  set_default_parameters(*shown);
  if (session.detector.pe_alloc_failed) shown->detection.use_lockout = true;
  d->form.load(*shown);
}

// Pressed once only: what was found is still clustered into events, which takes a while.
void interrupt_run(const detection_window& d) {
  d.w.session.operation.detection_interrupted = true;
  d.interrupt->setEnabled(false);
  d.message->setText("Interrupting: finishing the current step ...");
}

QDialogButtonBox* button_row(const shared_detection& d) {
  auto* buttons = new QDialogButtonBox;
  operation_dialog* dialog = d->dialog;
  QPushButton* start = add_button(buttons, "start", "Start", QDialogButtonBox::ActionRole,
                                  "Look for spikes; replaces all events and clusters");
  d->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Stop looking; what has been found is clustered into events");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole);
  QPushButton* defaults =
      add_button(buttons, "restore_defaults", "Restore defaults", QDialogButtonBox::ResetRole,
                 "The values of a new installation");
  start->setDefault(true);
  d->interrupt->setEnabled(false);
  dialog->disabled_while_running << start << done << defaults;
  dialog->enabled_while_running << d->interrupt;
  QObject::connect(start, &QPushButton::clicked, dialog, [d] { start_detection(d); });
  QObject::connect(d->interrupt, &QPushButton::clicked, dialog, [d] { interrupt_run(*d); });
  QObject::connect(done, &QPushButton::clicked, dialog,
                   [d] { leave_detection(d, QDialog::Accepted); });
  QObject::connect(defaults, &QPushButton::clicked, dialog, [d] { restore_defaults(d); });
  return buttons;
}

QLayout* column_of(detection_window& d, std::initializer_list<QGroupBox*> sections) {
  auto* column = new QVBoxLayout;
  for (QGroupBox* section : sections) {
    column->addWidget(section);
    d.sections << section;
  }
  column->addStretch();
  return column;
}

void follow_run(const detection_window& d) {
  follow(d.w, d.dialog, {{meter::detection, d.bar}},
         {{status_field::elapsed_time, d.elapsed},
          {status_field::coincident_deleted, d.n_coincident},
          {status_field::large_deleted, d.n_large},
          {status_field::events_found, d.n_found}});
}

void lay_out(const shared_detection& d) {
  auto* columns = new QHBoxLayout;
  columns->addLayout(column_of(*d, {noise_section(d), threshold_section(d), result_section(d)}));
  columns->addLayout(column_of(*d, {method_section(d), detector_section(d)}));
  // As tall as the dialog: the table has the room to spare.
  QGroupBox* masks = mask_section(d);
  columns->addWidget(masks, 1);
  d->sections << masks;
  d->message = new QLabel;
  d->message->setObjectName("message");
  auto* layout = new QVBoxLayout(d->dialog);
  layout->addLayout(columns);
  layout->addWidget(d->message);
  layout->addWidget(button_row(d));
  // The inputs alone, so that the figures of a running detection are not greyed.
  for (const QGroupBox* section : d->sections) {
    d->dialog->disabled_while_running << inputs_of(section);
  }
}

}  // namespace

void event_detection_command(workstation& w) {
  if (!needs_recording(w)) return;
  auto* dialog = new operation_dialog(w, "event_detection_dialog", "Event detection");
  const auto d = std::make_shared<detection_window>(w, dialog);
  lay_out(d);
  d->form.load();
  follow_method(*d);
  follow_thresholds(d);
  follow_run(*d);
  dialog->on_leaving = [d] { leave_detection(d, QDialog::Rejected); };
  QObject::connect(dialog, &QDialog::finished, w.frame, [d] { follow_masks(d); });
  open_runner(w, dialog);
  measure_noise(d);  // the first look at a recording is whether its channels are alive
}

}  // namespace kestrelvane
