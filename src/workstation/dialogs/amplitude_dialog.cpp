#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QRadioButton>
#include <QVBoxLayout>
#include <cmath>
#include <memory>
#include <set>

#include "analysis/power_spectrum.h"
#include "clustering/membership.h"
#include "files/input_file.h"
#include "signal/filter_chain.h"
#include "signal/noise.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/file_choice.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/frame.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/analysis_windows.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr const char* title = "Event amplitude distribution analysis";

// What is counted stands in the request of w.amplitudes from one opening to the next; the worker
// gets a copy of it.
struct distribution_window {
  workstation& w;
  operation_dialog* dialog;
  std::shared_ptr<amplitude_state> state = {};
  std::vector<tagged_stretch> stretches = {};  // as read
  QComboBox *source = nullptr, *tag = nullptr;
  number_field *width = nullptr, *channel = nullptr, *unit = nullptr;
  QLabel *binary = nullptr, *n_tagged = nullptr;
  QCheckBox *all = nullptr, *masked = nullptr, *truncation = nullptr, *logarithmic = nullptr;
  QCheckBox *second = nullptr, *events = nullptr, *use_only = nullptr;
  std::vector<QLabel*> figures = {};  // of figure_cells
  QRadioButton* files[4] = {};
  QPushButton* export_button = nullptr;
  QProgressBar* bar = nullptr;
};
using shared_distribution = std::shared_ptr<distribution_window>;

// ---------------------------------------------------------------- figures

struct figure_cell {
  const char *name, *label;
  int row, column;  // of the grid: a label and its number
  double amplitude_figures::*value;
  int decimals;
  const char* unit;
  const char* tip;
};
using f = amplitude_figures;
// clang-format off
constexpr figure_cell figure_cells[] = {
    {"gaussian_sigma", "Gaussian sigma", 0, 0, &f::sigma_uv, 2, "µV", "Sigma of the Gaussian that was fitted to the core of the histogram, µV"},
    {"shoulder_temperature_left", "Shoulder temps: L", 1, 0, &f::temperature_left, 2, "", "Left shoulder in units of sigma"},
    {"shoulder_temperature_right", "R", 1, 1, &f::temperature_right, 2, "", "Right shoulder in units of sigma"},
    {"shoulder_left", "Shoulder points: L", 2, 0, &f::left_uv, 1, "µV", "Outermost place on the left at which the Gaussian accounts for over 90 % of the counts, µV"},
    {"shoulder_right", "R", 2, 1, &f::right_uv, 1, "µV", "The same on the right, µV"},
    {"shoulder_sigma", "sigma", 2, 2, &f::between_uv, 2, "µV", "Standard deviation of the values between the shoulders, µV"},
    {"shoulder_count_left", "shoulder counts: L", 3, 0, &f::left_count, 0, "", "Counts of the bin at the left shoulder"},
    {"shoulder_count_right", "R", 3, 1, &f::right_count, 0, "", "Counts of the bin at the right shoulder"},
    {"linear_flank_left", "Linear flank fits: L", 4, 0, &f::slope_left, 4, "/µV", "Slope of the logarithm of the counts along the left flank, per µV"},
    {"linear_flank_right", "R", 4, 1, &f::slope_right, 4, "/µV", "The same along the right flank, per µV"},
    {"flank_sigma_left", "Flank sigmas: L", 5, 0, &f::flank_left_uv, 1, "µV", "Sigma of a Gaussian through what the left flank has over the first, µV"},
    {"flank_sigma_right", "R", 5, 1, &f::flank_right_uv, 1, "µV", "The same of the right flank, µV"},
    {"non_gaussian", "% non-Gaussian", 6, 0, &f::non_gaussian, 2, "%", "Counts outside the shoulders that the Gaussian does not account for, % of all"},
    {"goodness", "GOF value (%)", 6, 1, &f::goodness, 2, "", "Mean distance of the counts from the Gaussian between the shoulders, % of the counts"},
    {"isi_test", "ISI test (R)", 7, 0, &f::isi_r, 3, "", "Of a unit: correlation of the height of a spike with the interval before it"},
    {"q_variability", "Q variability", 7, 1, &f::q_variability, 3, "", "Of a unit: standard deviation of the heights over their mean"},
    {"levene_w", "Levene's W", 8, 0, &f::levene_w, 3, "", "Of deviations and peaks: do they vary alike in the quarters of the recording, or for all labels?"},
    {"levene_p", "prob.", 8, 1, &f::levene_p, 4, "", "Chance of a W as large if they vary alike"},
    {"anova_f", "ANOVA, F", 9, 0, &f::anova_f, 3, "", "The same groups: have they the same mean?"},
    {"anova_p", "p", 9, 1, &f::anova_p, 4, "", "Chance of an F as large if they have"},
};
// clang-format on

QGroupBox* figures_box(distribution_window& d) {
  auto* grid = new QGridLayout;
  for (const figure_cell& cell : figure_cells) {
    auto* value = new QLabel;
    value->setObjectName(cell.name);
    value->setToolTip(cell.tip);
    value->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // So that nothing moves when numbers come.
    value->setMinimumWidth(value->fontMetrics().horizontalAdvance("-0.0000 /µV "));
    auto* label = new QLabel(cell.label);
    label->setToolTip(cell.tip);
    grid->addWidget(label, cell.row, 2 * cell.column);
    grid->addWidget(value, cell.row, 2 * cell.column + 1);
    d.figures.push_back(value);
  }
  grid->setColumnStretch(5, 1);
  return titled_box("Figures", grid);
}

void show_figures(const distribution_window& d) {
  std::size_t i = 0;
  for (const figure_cell& cell : figure_cells) {
    const double value = d.state->analysis.figures.*cell.value;
    const QString unit = *cell.unit == '\0' ? "" : QString(" ") + cell.unit;
    d.figures[i++]->setText(std::isfinite(value) ? QString::number(value, 'f', cell.decimals) + unit
                                                 : QString("-"));
  }
}

// ---------------------------------------------------------------- counting

amplitude_request request_of(const distribution_window& d) {
  amplitude_request request;
  request.ea_source = d.source->currentIndex() + 1;
  request.ea_bin_width = static_cast<std::int32_t>(d.width->value());
  request.all_channels = d.all->isChecked();
  request.channel = static_cast<std::int32_t>(d.channel->value());
  request.unit = static_cast<std::int32_t>(d.unit->value());
  request.masked = d.masked->isChecked();
  request.correct_truncation = d.truncation->isChecked();
  request.double_gaussian = d.second->isChecked();
  request.add_events = d.events->isEnabled() && d.events->isChecked();
  if (!d.use_only->isChecked()) return request;
  for (const tagged_stretch& s : d.stretches) {
    if (QString::fromStdString(s.tag) == d.tag->currentData().toString()) {
      request.use_only.push_back(s);
    }
  }
  return request;
}

// "Stop" must not reach what comes after, nor an earlier one this.
void run_anew(const shared_distribution& d, session_routine routine,
              std::function<void()> finished) {
  set_interrupts(d->w.session.operation, false);
  d->dialog->run(std::move(routine), [d, finished = std::move(finished)] {
    set_interrupts(d->w.session.operation, false);
    finished();
  });
}

void make_graph(const shared_distribution& d) {
  const auto analysis = std::make_shared<amplitude_analysis>();
  const auto done = std::make_shared<bool>(false);
  const amplitude_request request = request_of(*d);
  d->bar->setValue(0);
  run_anew(
      d, [=](session_state& session) { *done = analyse_amplitudes(session, request, *analysis); },
      [d, analysis, done] {
        // Refused or interrupted: what is shown stays.
        if (!*done) return;
        d->bar->setValue(d->bar->maximum());
        d->state->analysis = std::move(*analysis);
        d->state->recording = recording_state(d->w.session);
        d->w.amplitudes = d->state;
        d->export_button->setEnabled(true);
        show_figures(*d);
        const drawing_hold hold(d->w);
        show_graph(d->w, graph_kind::amplitude_distribution);
        tile_cluster_windows(d->w, d->dialog);
      });
}

// A row has its own use for each control; the others are off.
void enable_choices(const distribution_window& d) {
  const amplitude_source_row& row = amplitude_sources()[d.source->currentIndex()];
  const int source = d.source->currentIndex() + 1;
  const bool of_channels = !row.of_unit && source != ea_formula;
  d.all->setEnabled(of_channels);
  d.channel->setEnabled(of_channels && !d.all->isChecked());
  d.unit->setEnabled(row.of_unit && d.w.session.clusters.n_clusters > 0);
  d.masked->setEnabled(row.of_samples && source != ea_events && source != ea_unit);
  d.truncation->setEnabled(row.of_samples || source == ea_lfp);
  d.events->setEnabled(source != ea_formula && source != ea_lfp);
  d.use_only->setEnabled(row.of_samples && !d.stretches.empty());
  d.tag->setEnabled(d.use_only->isEnabled());
}

void show_width(const distribution_window& d) {
  const double uv = d.width->value() * double{d.w.session.recording.vscale_HP};
  d.binary->setText(QString::number(uv, 'f', 3) + " µV");
}

QCheckBox* option_box(const char* name, const QString& label, const char* tip, bool on) {
  auto* box = new QCheckBox(label);
  box->setObjectName(name);
  box->setToolTip(tip);
  box->setChecked(on);
  return box;
}

QLayout* width_line(const shared_distribution& d) {
  d->width = free_number(d->dialog, "ea_bin_width", 1, 1000,
                         {.tip = "Width of a bin, in steps of the converter"});
  d->width->setValue(d->state->analysis.request.ea_bin_width);
  d->binary = new QLabel;
  d->binary->setObjectName("bin_width_uv");
  d->binary->setToolTip("Width of a bin, µV");
  auto* row = new QHBoxLayout;
  row->addWidget(d->width->row(false));
  row->addWidget(new QLabel("binary="));
  row->addWidget(d->binary);
  row->addStretch();
  QObject::connect(d->width, &QDoubleSpinBox::valueChanged, d->dialog, [d] { show_width(*d); });
  show_width(*d);
  return row;
}

QLayout* place_line(const shared_distribution& d) {
  const amplitude_request& last = d->state->analysis.request;
  const session_state& session = d->w.session;
  d->all = option_box("all_channels", "all channels",
                      "All that are not masked, rather than the channel beside", last.all_channels);
  d->channel = free_number(d->dialog, "channel", 1, session.recording.n_channels,
                           {.tip = "The channel that is counted"});
  d->channel->setValue(last.channel);
  d->unit = free_number(d->dialog, "unit", 1, std::max(1, session.clusters.n_clusters),
                        {.tip = "The unit that is counted, on its centre channel"});
  d->unit->setValue(std::max(1, session.clusters.current_cluster));
  auto* row = new QHBoxLayout;
  row->addWidget(d->all);
  row->addWidget(new QLabel("or select channel"));
  row->addWidget(d->channel->row(false));
  row->addSpacing(12);
  row->addWidget(new QLabel("Unit"));
  row->addWidget(d->unit->row(false));
  row->addStretch();
  QObject::connect(d->all, &QCheckBox::toggled, d->dialog, [d] { enable_choices(*d); });
  return row;
}

QLayout* option_grid(const shared_distribution& d) {
  const amplitude_request& last = d->state->analysis.request;
  d->masked = option_box("masked", "masked", "Samples inside the windows of events are left out",
                         last.masked);
  d->truncation = option_box("correct_truncation", "correct integer truncation error",
                             "A converter that cuts towards zero fills the bin of zero twice: half "
                             "of the zeros are taken out",
                             last.correct_truncation);
  d->logarithmic = option_box("log_scaling", "log scaling", "Logarithm of base 10 of the counts",
                              d->state->log_scaling);
  d->second = option_box("double_gaussian", "fit double Gaussian",
                         "The sum of two Gaussians, besides", last.double_gaussian);
  d->events = option_box("add_events", "add event distribution",
                         "The voltages at the times of the events on these channels, besides",
                         last.add_events);
  auto* grid = new QGridLayout;
  grid->addWidget(d->masked, 0, 0);
  grid->addWidget(d->truncation, 0, 1);
  grid->addWidget(d->logarithmic, 1, 0);
  grid->addWidget(d->events, 1, 1);
  grid->addWidget(d->second, 2, 0, 1, 2);
  QObject::connect(d->logarithmic, &QCheckBox::toggled, d->dialog, [d](bool on) {
    d->state->log_scaling = on;
    if (graph_window* window = graph_of(d->w, graph_kind::amplitude_distribution)) {
      window->surface()->redraw();
    }
  });
  return grid;
}

void show_tags(const distribution_window& d) {
  std::set<std::string> tags;
  for (const tagged_stretch& s : d.stretches) tags.insert(s.tag);
  d.tag->clear();
  for (const std::string& tag : tags) {
    const QString name = QString::fromStdString(tag);
    const auto n = std::count_if(d.stretches.begin(), d.stretches.end(),
                                 [&](const tagged_stretch& s) { return s.tag == tag; });
    d.tag->addItem(QString("%1 (%2)").arg(tag.empty() ? "no tag" : name).arg(n), name);
  }
  d.n_tagged->setText(QString("%1 read").arg(d.stretches.size()));
  enable_choices(d);
}

void read_tags(const shared_distribution& d) {
  file_choice choice{
      "Read tagged stretches", {"Text files(*.TXT *.CSV *.DAT)", "All files(*.*)"}, ""};
  choose_file(d->w, choice, [d, dialog = QPointer<QDialog>(d->dialog)](const QString& path, int) {
    if (path.isEmpty() || !dialog) return;
    if (!read_tagged_stretches(path.toStdString(), d->stretches)) {
      show_message(d->w, "No line of " + path + " has a start, an end and a tag, in seconds", title,
                   box_icon::warning);
    }
    show_tags(*d);
  });
}

QLayout* tag_line(const shared_distribution& d) {
  QPushButton* read = make_button("read_tags", "Read",
                                  "A text file with a start, an end (seconds) and a tag on each "
                                  "line");
  d->use_only =
      option_box("use_only", "Use only", "Count nothing but the stretches of this tag", false);
  d->tag = new QComboBox;
  d->tag->setObjectName("tag");
  d->tag->setToolTip("The tags of the file, and how many stretches have each");
  d->tag->setMinimumContentsLength(12);
  d->n_tagged = new QLabel("0 read");
  d->n_tagged->setObjectName("n_tagged");
  auto* row = new QHBoxLayout;
  row->addWidget(read);
  row->addWidget(d->use_only);
  row->addWidget(d->tag);
  row->addWidget(d->n_tagged);
  row->addStretch();
  d->dialog->disabled_while_running << read;
  QObject::connect(read, &QPushButton::clicked, d->dialog, [d] { read_tags(d); });
  return row;
}

QGroupBox* choices_box(const shared_distribution& d) {
  d->source = new QComboBox;
  d->source->setObjectName("ea_source");
  d->source->setToolTip("What is counted");
  for (const amplitude_source_row& row : amplitude_sources()) d->source->addItem(row.label);
  auto* rows = new QFormLayout;
  rows->addRow("use", d->source);
  rows->addRow("bin width", width_line(d));
  rows->addRow(place_line(d));
  rows->addRow(words_line({d->width, d->channel, d->unit}));
  rows->addRow(option_grid(d));
  rows->addRow(tag_line(d));
  d->source->setCurrentIndex(d->state->analysis.request.ea_source - 1);
  QObject::connect(d->source, &QComboBox::currentIndexChanged, d->dialog,
                   [d] { enable_choices(*d); });
  return titled_box("Histogram", rows);
}

// ---------------------------------------------------------------- test data and files

void put_data(const shared_distribution& d, test_data which) {
  ask_then(d->w, QString::fromStdString(test_data_question(which)), title, [=](bool yes) {
    if (!yes) return;
    d->dialog->run(
        [which](session_state& session) {
          put_test_data(session, which);
          compute_noise(session);
        },
        [d] {
          // Measured of other samples.
          d->w.spectrum.reset();
          refresh_windows(d->w);
        });
  });
}

QGroupBox* test_box(const shared_distribution& d) {
  struct test_row {
    const char *name, *label, *tip;
    test_data which;
  };
  static constexpr test_row tests[] = {
      {"two_gaussians", "Ch 1 2x Gauss", "Add Gaussian events to channel 1, in memory",
       test_data::second_gaussian},
      {"one_gaussian", "Ch1 Gauss", "Replace channel 1 by Gaussian noise of 10 µV, in memory",
       test_data::gaussian},
      {"ks_test", "KS test", "Add exponential noise events to channel 1, in memory",
       test_data::exponential},
  };
  auto* row = new QHBoxLayout;
  for (const test_row& test : tests) {
    QPushButton* button = make_button(test.name, test.label, test.tip);
    row->addWidget(button);
    d->dialog->disabled_while_running << button;
    QObject::connect(button, &QPushButton::clicked, d->dialog,
                     [d, which = test.which] { put_data(d, which); });
  }
  row->addStretch();
  return titled_box("Test data", row);
}

void export_file(const shared_distribution& d) {
  int chosen = 0;
  while (!d->files[chosen]->isChecked()) ++chosen;
  const auto state = d->state;
  run_anew(
      d,
      [state, chosen](session_state& session) {
        // Beside the recording and by its name, which the user may change.
        std::string path = replace_extension(session.recording.recording_path, "") +
                           amplitude_files()[chosen].ending;
        if (choose_file_to_save(session, "Export data", "Data files(*.DAT)", path)) {
          write_amplitude_file(session, state->analysis, static_cast<amplitude_file>(chosen), path);
        }
      },
      [] {});
}

QGroupBox* export_box(const shared_distribution& d) {
  constexpr const char* names[] = {"deviation_measures", "flank_residuals", "gaussian_residuals",
                                   "matched_channel_units"};
  auto* grid = new QGridLayout;
  for (int i = 0; i < 4; ++i) {
    d->files[i] = new QRadioButton(amplitude_files()[i].label);
    d->files[i]->setObjectName(names[i]);
    d->files[i]->setToolTip(amplitude_files()[i].meaning);
    grid->addWidget(d->files[i], i / 2, i % 2);
  }
  d->files[0]->setChecked(true);
  d->export_button = make_button("export", "Export", "Write the file that is chosen, as text");
  // Until there is something to write.
  d->export_button->setEnabled(false);
  grid->addWidget(d->export_button, 0, 2);
  grid->setColumnStretch(1, 1);
  QObject::connect(d->export_button, &QPushButton::clicked, d->dialog, [d] { export_file(d); });
  return titled_box("Export", grid);
}

QDialogButtonBox* button_row(const shared_distribution& d) {
  auto* buttons = new QDialogButtonBox;
  QPushButton* graph =
      add_button(buttons, "graph", "Graph", QDialogButtonBox::ActionRole, "Count, fit and plot");
  QPushButton* stop =
      add_button(buttons, "stop", "Stop", QDialogButtonBox::ActionRole, "Give up counting");
  QPushButton* done = add_button(buttons, "done", "Done", QDialogButtonBox::AcceptRole, "Close");
  graph->setDefault(true);
  stop->setEnabled(false);
  d->dialog->disabled_while_running << graph << done;
  d->dialog->enabled_while_running << stop;
  QObject::connect(graph, &QPushButton::clicked, d->dialog, [d] { make_graph(d); });
  QObject::connect(stop, &QPushButton::clicked, d->dialog, [d] { interrupt_worker(d->w); });
  QObject::connect(done, &QPushButton::clicked, d->dialog, &QDialog::accept);
  return buttons;
}

}  // namespace

void amplitude_distribution_command(workstation& w) {
  if (!needs_recording(w)) return;
  auto* dialog = new operation_dialog(w, "amplitude_dialog", title);
  const auto d = std::make_shared<distribution_window>(distribution_window{w, dialog});
  d->state = w.amplitudes ? w.amplitudes : std::make_shared<amplitude_state>();
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(choices_box(d));
  layout->addWidget(figures_box(*d));
  layout->addWidget(export_box(d));
  layout->addWidget(test_box(d));
  d->bar = make_bar("progress", 100);
  layout->addWidget(d->bar);
  layout->addWidget(button_row(d));
  enable_choices(*d);
  follow(w, dialog, {{meter::clusters, d->bar}});
  place_at_right(w, dialog);
  open_beside(w, dialog, live_entries);
}

}  // namespace kestrelvane
