#include <QCheckBox>
#include <QGridLayout>
#include <QVBoxLayout>
#include <memory>
#include <vector>

#include "signal/filter_chain.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// The chain rewrites the samples in memory: there is no way back but reading the file again.
// So nothing runs before "Do It!", and what must not be done twice is unticked once it has run.
struct filter_window {
  workstation& w;
  operation_dialog* dialog;
  settings_form form;
  QGridLayout* grid = new QGridLayout;
  int row = 0;
  std::vector<number_field*> fields;  // whose words share a line
  QLabel* message = nullptr;
  QProgressBar* bar = nullptr;
  QPushButton* interrupt = nullptr;

  filter_window(workstation& of, operation_dialog* d) : w(of), dialog(d), form(of.session, d) {}
};
using shared_filter = std::shared_ptr<filter_window>;

// A tick box over an option of the chain.
QCheckBox* option(filter_window& f, const char* name, logical filter_settings::*flag,
                  const QString& label, const char* tip) {
  auto* box = new QCheckBox(label);
  box->setObjectName(name);
  box->setToolTip(tip);
  filter_settings& settings = f.w.session.filter;
  f.form.bindings.push_back(
      {[box, flag](const session_state& from) { box->setChecked(from.filter.*flag); },
       [box, &settings, flag] { settings.*flag = box->isChecked(); }, nullptr});
  return box;
}

// A line of the dialog: the option, and on its right what goes with it.
void add_line(filter_window& f, QWidget* box, std::initializer_list<QWidget*> fields = {}) {
  f.grid->addWidget(box, f.row, 0);
  auto* line = new QHBoxLayout;
  for (QWidget* field : fields) line->addWidget(field);
  line->addStretch();
  f.grid->addLayout(line, f.row++, 1);
}

QWidget* number(filter_window& f, const char* setting, const number_options& options) {
  f.fields.push_back(number_control(f.form, setting, options));
  return f.fields.back()->row(false);
}

// Top to bottom in the order in which the chain applies them.
void add_time_domain(filter_window& f) {
  add_line(f, option(f, "do_channel_means", &filter_settings::do_channel_means,
                     "Make channel means ~ 0", "Take the mean of each channel out of it"));
  add_line(f, option(f, "do_common_mean", &filter_settings::do_common_mean, "Remove common mean",
                     "Take the mean of all unmasked channels out of each of them, sample by "
                     "sample"));
  add_line(f,
           option(f, "do_spatial_smooth", &filter_settings::do_spatial_smooth,
                  "Spatial smooth, radius =", "Average each channel with its neighbours"),
           {number(f, "smooth_radius_um",
                   {.step = 5, .unit = "µm", .tip = "Radius of the Gaussian weight, µm"})});
  add_line(
      f, option(f, "do_temporal_smooth", &filter_settings::do_temporal_smooth,
                "Temporal 1:2:1 smooth", "Average each sample with the ones before and after it"));
}

void add_frequency_domain(filter_window& f) {
  auto* low_pass = option(f, "make_low_pass", &filter_settings::make_low_pass, "make low pass",
                          "Keep what is below f0 instead of what is above it");
  add_line(f,
           option(f, "do_high_pass", &filter_settings::do_high_pass,
                  "High pass Butterworth filter, f0=", "Take slow voltages out; no shift in phase"),
           {number(f, "bw_f0_khz", {.step = 0.1, .unit = "KHz", .tip = "Cut-off frequency, KHz"}),
            new QLabel("poles ="),
            number(f, "bw_poles", {.tip = "Steepness of the filter, 1 to 10"}), low_pass});
  add_line(f,
           option(f, "do_phase_correction", &filter_settings::do_phase_correction,
                  "Correct phase distortion of hardware filter, f0=",
                  "Turn back the phases that the filter of the amplifier has turned"),
           {number(f, "phase_f0_khz",
                   {.step = 0.1, .unit = "KHz", .tip = "Frequency whose phase stays, KHz"}),
            new QLabel("shift ="),
            number(f, "phase_shift_degs_per_decade",
                   {.step = 5,
                    .unit = "degs/decade",
                    .tip = "Degrees per tenfold frequency, -200 to 200"})});
  add_line(f, option(f, "do_notch", &filter_settings::do_notch, "60 Hz notch filter",
                     "Take mains hum and its harmonics to 240 Hz out"));
  add_line(f,
           option(f, "do_compressive", &filter_settings::do_compressive,
                  "Compressive transform; 75% point =",
                  "Make large voltages smaller, as little as possible near 0"),
           {number(f, "compressive_75pct_uv",
                   {.step = 5,
                    .unit = "µV",
                    .tip = "The voltage that comes out as three quarters of itself, µV"})});
}

void do_it(const shared_filter& f) {
  if (!f->form.store()) return;
  f->message->setText("Filtering ...");
  f->dialog->run([](session_state& session) { run_filter_chain(session); },
                 [f] {
                   // The chain has cleared what must be ticked afresh.
                   f->form.load();
                   f->message->clear();
                 },
                 worker_priority::normal);
}

void interrupt_chain(const filter_window& f) {
  f.w.session.operation.filtering_interrupted = true;
  f.interrupt->setEnabled(false);  // the step under way may take a while
}

QDialogButtonBox* button_row(const shared_filter& f) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* start = add_button(buttons, "do_it", "Do It!", QDialogButtonBox::ActionRole,
                                  "Rewrite the samples in memory; the file stays as it is");
  f->interrupt = add_button(buttons, "interrupt", "Interrupt", QDialogButtonBox::ActionRole,
                            "Finish the step under way and leave out the later ones");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole);
  start->setDefault(true);
  f->interrupt->setEnabled(false);
  operation_dialog* dialog = f->dialog;
  dialog->disabled_while_running << start << done;
  dialog->enabled_while_running << f->interrupt;
  QObject::connect(start, &QPushButton::clicked, dialog, [f] { do_it(f); });
  QObject::connect(f->interrupt, &QPushButton::clicked, dialog, [f] { interrupt_chain(*f); });
  QObject::connect(done, &QPushButton::clicked, dialog, [f] {
    if (f->form.store()) f->dialog->accept();
  });
  return buttons;
}

QGroupBox* chain_box(filter_window& f) {
  add_time_domain(f);
  add_frequency_domain(f);
  f.grid->addWidget(words_line(f.fields), f.row++, 0, 1, 2);
  QGroupBox* box = titled_box("Applied in this order", f.grid);
  f.dialog->disabled_while_running << box;
  return box;
}

}  // namespace

void filter_command(workstation& w) {
  if (!needs_recording(w)) return;
  // Options without a memory: a low pass left on from last time would take the spikes out.
  w.session.filter.make_low_pass = false;
  w.session.filter.do_one_over_f = false;
  auto* dialog = new operation_dialog(w, "filter_dialog", "Transform voltage waveform");
  const auto f = std::make_shared<filter_window>(w, dialog);
  f->message = new QLabel;
  f->message->setObjectName("message");
  f->bar = make_bar("progress", 100);
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(chain_box(*f));
  layout->addWidget(f->message);
  layout->addWidget(f->bar);
  layout->addWidget(button_row(f));
  follow(w, dialog, {{meter::filtering, f->bar}}, {{status_field::message, f->message}});
  f->form.load();
  open_runner(w, dialog);
}

}  // namespace kestrelvane
