#include <QButtonGroup>
#include <QCheckBox>
#include <QHBoxLayout>
#include <QRadioButton>
#include <QSlider>
#include <QTabWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <memory>

#include "session/interpolation_tables.h"
#include "session/settings_table.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

// Positions of the "Starting sigma" slider; position 20 is 5 µV, each step a factor 1.1, since
// what matters of a bandwidth is its ratio to the spread of a cluster.
constexpr int sigma_positions = 60;

double sigma_of_position(int position) { return 5.0 * std::pow(1.1, position - 20); }
int position_of_sigma(double sigma) {
  // ln 1.1; the thousandth keeps a value that lies on a position from being cut to the one below
  // it.
  return static_cast<int>(std::log(sigma / 5.0) / 0.095310204 + 20.001);
}

// Settings of sorting that are chosen once for a kind of recording. All pages are stored
// together by "OK", or none: a number that is refused on a hidden page keeps the dialog open.
struct strategy_window {
  QDialog* dialog;
  settings_form form;
  number_field *depth = nullptr, *width = nullptr;  // of the interpolation
  QLabel* problem = nullptr;                        // what is wrong with two numbers together

  strategy_window(workstation& of, QDialog* d) : dialog(d), form(of.session, d) {}
};
using shared_strategy = std::shared_ptr<strategy_window>;

// The rows keep to the top: a short page would spread them over the height of the longest.
QWidget* page_of(QLayout* layout) {
  auto* page = new QWidget;
  auto* column = new QVBoxLayout(page);
  column->addLayout(layout);
  column->addStretch();
  return page;
}

QWidget* templates_page(strategy_window& s) {
  settings_form& form = s.form;
  auto* rows = new QFormLayout;
  add_number(rows, form, "Threshold 1", "channel_threshold_1",
             {.step = 0.01,
              .tip = "Least ratio of a channel's peak-to-peak voltage to that of the centre "
                     "channel for it to belong to the template, 0 to 1"});
  add_number(rows, form, "Threshold 2", "channel_threshold_2",
             {.step = 0.1,
              .tip = "A channel's peak-to-peak voltage over its standard deviation must exceed "
                     "this, 0 to 10"});
  add_number(rows, form, "Radius", "channel_radius",
             {.step = 10,
              .unit = "µm",
              .tip = "Channels further than this from the centre channel do not belong to the "
                     "template, µm"});
  add_number(rows, form, "Event realignment window", "realign_window_ms",
             {.step = 0.05,
              .unit = "± ms",
              .tip = "How far an event may be moved to lie on its template, plus or minus, ms"});
  rows->addRow(logical_control(
      form, "multiplicative_matching", "use multiplicative event matching to templates",
      "Fit events by the product with the template instead of the squared difference"));
  s.depth =
      add_number(rows, form, "Depth", "interp_depth",
                 {.tip = "Interpolation: steps between two samples, 1 to 50; depth times width "
                         "may be 1000 at most"});
  s.width = add_number(rows, form, "Width", "interp_width",
                       {.tip = "Interpolation: samples used on each side, 1 to 50"});
  return page_of(rows);
}

// A pair of radio buttons over a logical setting.
QLayout* register_row(settings_form& form) {
  auto* row = new QHBoxLayout;
  auto* cog = new QRadioButton("c.o.g.");
  auto* largest = new QRadioButton("Max V");
  cog->setObjectName("register_to_cog");
  largest->setObjectName("register_to_max_v");
  cog->setToolTip("Events belong to the channel nearest their centre of gravity");
  largest->setToolTip("Events belong to the channel with the largest voltage");
  row->addWidget(cog);
  row->addWidget(largest);
  row->addStretch();
  session_state& session = form.session;
  form.bindings.push_back({[=](const session_state& from) {
                             cog->setChecked(from.detection.register_to_cog);
                             largest->setChecked(!from.detection.register_to_cog);
                           },
                           [=, &session] { session.detection.register_to_cog = cog->isChecked(); },
                           nullptr});
  return row;
}

QWidget* clusters_page(settings_form& form) {
  auto* rows = new QFormLayout;
  rows->addRow("Register events to", register_row(form));
  add_number(rows, form, "Min. cluster size", "min_cluster_size",
             {.step = 10,
              .unit = "events",
              .tip = "Clusters with fewer spikes than the minimum cluster size will be deleted "
                     "during sorting"});
  rows->addRow(
      logical_control(form, "force_one_cluster_per_tetrode", "force one cluster per tetrode",
                      "Start from one cluster for each tetrode instead of one for each channel"));
  rows->addRow("Principal Components Selection",
               choice_control(form, "pc_point_selection", mode_entries(pc_selections()),
                              "Which points of the template the components are computed from"));
  add_number(rows, form, "limit to", "pc_point_limit",
             {.unit = "points", .tip = "Most template points that are used, 1 to 100"});
  rows->addRow(logical_control(form, "equal_numbers_for_overlap", "use equal numbers for overlap",
                               "Take equally many events of both clusters when their overlap "
                               "is measured"));
  return page_of(rows);
}

// The slider and the number beside it show the same sigma. The number rules: the slider tells
// it only of moves by the user, or a typed value would jump to the slider's next step.
QLayout* sigma_row(settings_form& form) {
  auto* slider = new QSlider(Qt::Horizontal);
  slider->setObjectName("gac_start_sigma_slider");
  slider->setRange(0, sigma_positions);
  slider->setToolTip("Bandwidth of the first stage; each step is a factor of 1.1");
  number_field* field = number_control(
      form, "gac_start_sigma",
      {.step = 0.5, .unit = "µV", .tip = "Bandwidth of the first stage of clustering, µV"});
  QObject::connect(slider, &QSlider::sliderMoved, field,
                   [field](int position) { field->setValue(sigma_of_position(position)); });
  QObject::connect(field, &QDoubleSpinBox::valueChanged, slider, [slider](double sigma) {
    slider->setValue(std::clamp(position_of_sigma(sigma), 0, sigma_positions));
  });
  auto* row = new QHBoxLayout;
  row->addWidget(slider, 1);
  row->addWidget(field->row());
  return row;
}

QWidget* clustering_page(settings_form& form) {
  auto* rows = new QFormLayout;
  rows->addRow("Starting sigma", sigma_row(form));
  add_number(rows, form, "Merge radius", "gac_merge_radius",
             {.step = 0.1, .tip = "Scouts closer than this fall together, 0.1 to 10"});
  add_number(rows, form, "Gain", "gac_gain",
             {.step = 0.1, .tip = "Length of a step up the gradient, 0.1 to 10"});
  add_number(rows, form, "Iterations", "gac_max_iterations",
             {.step = 50, .tip = "Most steps of all scouts in one stage"});
  add_number(rows, form, "Stop after", "gac_stall_limit",
             {.unit = "tiny steps", .tip = "A scout that has made so many tiny steps stops"});
  add_number(rows, form, "Tiny step", "gac_stop_step",
             {.step = 0.0001, .tip = "A step shorter than this counts as tiny"});
  add_number(rows, form, "Size tolerance", "gac_size_tolerance",
             {.unit = "%",
              .tip = "How much a cluster's size may change from stage to stage for it to go on "
                     "as the same, per cent"});
  rows->addRow(logical_control(form, "gac_subsample", "Subsample large clusters",
                               "Use only every so-manyth point as a source of the density when "
                               "there are many"));
  rows->addRow(logical_control(form, "split_obvious", "Split obvious clusters early",
                               "Stop the ladder of stages as soon as two clusters are plain"));
  return page_of(rows);
}

QWidget* splitting_page(settings_form& form) {
  auto* rows = new QFormLayout;
  add_number(rows, form, "Recluster if >", "recluster_limit",
             {.unit = "events deleted",
              .tip = "Try a cluster again when its last split has deleted more events"});
  rows->addRow(logical_control(form, "remove_small_final_subclusters",
                               "Remove small final sub-clusters",
                               "At sign-off, drop sub-clusters below the minimum size"));
  rows->addRow(logical_control(form, "keep_largest_final_subcluster",
                               "Keep only the largest final sub-cluster",
                               "At sign-off, keep the largest sub-cluster alone"));
  add_number(rows, form, "cluster overlap <", "overlap_threshold",
             {.step = 0.005,
              .decimals = 3,
              .tip = "A pair of clusters with at most this overlap is distinct, 0 to 1"});
  add_number(rows, form, "template correlation <", "correlation_threshold",
             {.step = 0.01,
              .decimals = 2,
              .tip = "A pair whose templates correlate less is distinct, -1 to 1"});
  return page_of(rows);
}

// Depth times width is the length of the interpolation table, which holds 1000.
QString refused_together(const strategy_window& s) {
  return s.depth->value() * s.width->value() > 1000 ? "Depth times width must be 1000 at most"
                                                    : QString();
}

// False while a field is refused. Another table of interpolation is said in the log: events
// aligned before and after it may differ by a fraction of a sample.
bool store_strategy(settings_form& form) {
  const sorting_strategy_settings& s = form.session.strategy;
  const std::int32_t depth = s.interp_depth, width = s.interp_width;
  if (!form.store()) return false;
  if (s.interp_depth != depth || s.interp_width != width) log_interpolation(form.session);
  return true;
}

// Shows the values of a new installation; nothing is stored before "OK".
void restore_defaults(settings_form& form) {
  const std::unique_ptr<session_state> shown = copy_settings(form.session);
  set_default_strategy(*shown);
  shown->detection.register_to_cog = true;
  form.load(*shown);
}

QTabWidget* all_pages(strategy_window& s) {
  auto* pages = new QTabWidget;
  pages->setObjectName("pages");
  pages->setUsesScrollButtons(false);
  pages->addTab(templates_page(s), "Templates");
  pages->addTab(clusters_page(s.form), "First clusters");
  pages->addTab(clustering_page(s.form), "Clustering");
  pages->addTab(splitting_page(s.form), "Splitting and pairs");
  return pages;
}

void leave_with_ok(strategy_window& s) {
  s.problem->setText(refused_together(s));
  if (s.problem->text().isEmpty() && store_strategy(s.form)) s.dialog->accept();
}

QDialogButtonBox* button_row(const shared_strategy& s) {
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
  buttons->button(QDialogButtonBox::Ok)->setObjectName("ok");
  buttons->button(QDialogButtonBox::Cancel)->setObjectName("cancel");
  QPushButton* defaults =
      add_button(buttons, "restore_defaults", "Restore defaults", QDialogButtonBox::ResetRole,
                 "The values of a new installation");
  QObject::connect(defaults, &QPushButton::clicked, s->dialog, [s] { restore_defaults(s->form); });
  QObject::connect(buttons, &QDialogButtonBox::rejected, s->dialog, &QDialog::reject);
  QObject::connect(buttons, &QDialogButtonBox::accepted, s->dialog, [s] { leave_with_ok(*s); });
  return buttons;
}

}  // namespace

void strategy_command(workstation& w) {
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("strategy_dialog");
  dialog->setWindowTitle("Sorting strategy");
  const auto s = std::make_shared<strategy_window>(w, dialog);
  s->problem = new QLabel;
  s->problem->setObjectName("problem");
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(all_pages(*s));
  layout->addWidget(s->problem);
  layout->addWidget(button_row(s));
  s->form.load();
  open_dialog(w, dialog);
}

}  // namespace kestrelvane
