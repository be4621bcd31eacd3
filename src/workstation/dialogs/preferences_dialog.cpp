#include <QButtonGroup>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QPushButton>
#include <QTabWidget>
#include <QVBoxLayout>
#include <array>
#include <memory>
#include <utility>

#include "session/run_log.h"
#include "session/settings_files.h"
#include "session/settings_table.h"
#include "workstation/commands/commands.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/frame.h"
#include "workstation/program_options.h"
#include "workstation/themes.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/windows/window_table.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr float never = 1.0e27f;  // minutes; a number, as the preference file has a number

struct interval_entry {
  const char* label;
  float minutes;
};
constexpr interval_entry intervals[] = {
    {"Never", never},      {"every 1 min", 1},    {"every 2 mins", 2},   {"every 5 mins", 5},
    {"every 10 mins", 10}, {"every 20 mins", 20}, {"every 30 mins", 30}, {"every hour", 60},
};

// A value that is not in the list leaves it on its first entry.
int interval_entry_of(float minutes) {
  for (int i = 0; i < static_cast<int>(std::size(intervals)); ++i) {
    if (intervals[i].minutes == minutes) return i;
  }
  return 0;
}

// The windows of "Make", in the order of their slots (window_table.h).
constexpr const char* sized_windows[] = {"View cluster waveforms", "Compare cluster pairs",
                                         "Principal components",   "Correlograms",
                                         "View sorted waveforms",  "Voltage record"};
static_assert(std::size(sized_windows) == slot_count);

// Red in the lowest byte, blue in the third: the order of the preference file.
QColor colour_of(std::int32_t word) {
  return QColor(word & 0xff, (word >> 8) & 0xff, (word >> 16) & 0xff);
}
std::int32_t word_of(const QColor& colour) {
  return colour.red() | colour.green() << 8 | colour.blue() << 16;
}

// How the program looks and behaves. "Apply" shows a change at once, so that "Cancel" has to
// know what was there before it.
struct preferences_window {
  workstation& w;
  QDialog* dialog;
  settings_form form;
  preferences_record before;  // for "Cancel"
  // The dialog's own values, stored by "OK" and "Apply".
  std::array<std::int32_t, 10> colours{};
  std::array<std::array<int, 2>, 6> sizes{};
  QComboBox* autorecover = nullptr;
  QComboBox* window_list = nullptr;
  number_field *width = nullptr, *height = nullptr;
  QComboBox *theme = nullptr, *pictures = nullptr;
  QCheckBox* keep_peaks = nullptr;
  QCheckBox* research_tools = nullptr;
  QCheckBox* open_traces = nullptr;
  QCheckBox* log_file = nullptr;
  bool arrange = false;  // "Default" was pressed: windows go back to their places
  QList<QPushButton*> colour_buttons;

  preferences_window(workstation& of, QDialog* d) : w(of), dialog(d), form(of.session, d) {}
};

using shared_window = std::shared_ptr<preferences_window>;

void show_colour(QPushButton* button, std::int32_t word) {
  QPixmap patch(28, 14);
  patch.fill(colour_of(word));
  button->setIcon(QIcon(patch));
  button->setIconSize(patch.size());
}

// A copy, since each field stores what both show as soon as it changes.
void show_size(preferences_window& p, int entry) {
  const auto size = p.sizes[entry];
  p.width->show_value(size[0]);
  p.height->show_value(size[1]);
  p.sizes[entry] = size;
}

// The preferences of a session: this one's, or a copy that has the defaults.
void load(preferences_window& p, const session_state& from) {
  // Written by nobody; the routine that finds a size has one form.
  preferences_record record = from.preferences;
  p.form.load(from);
  p.autorecover->setCurrentIndex(
      interval_entry_of(record.autorecover_minutes >= 1000 ? never : record.autorecover_minutes));
  for (std::size_t i = 0; i < p.colours.size(); ++i) {
    p.colours[i] = record.subcluster_colours[i];
    show_colour(p.colour_buttons[static_cast<qsizetype>(i)], p.colours[i]);
  }
  for (int i = 0; i < 6; ++i) {
    const std::int32_t* size = size_in(record, i);
    p.sizes[i] = {size[0], size[1]};
  }
  show_size(p, p.window_list->currentIndex());
  p.theme->setCurrentIndex(static_cast<int>(chosen_theme()));
  p.pictures->setCurrentIndex(static_cast<int>(chosen_picture_theme()));
  p.keep_peaks->setChecked(p.w.session.view.vd_keep_peaks);
}

// A log belongs to a recording and lies beside it; without one there is no place for it.
void open_log_if_wanted(workstation& w) {
  run_log_table& log = w.session.log;
  if (!w.session.preferences.log_file_enabled || w.session.recording.n_samples == 0) {
    close_log_file(w.session);
  } else if (!log.log_file_open) {
    open_log_file(w.session);
  }
}

void store_window_size(preferences_window& p) {
  const std::lock_guard lock(p.w.session.settings_mutex);
  preferences_record& record = p.w.session.preferences;
  if (std::exchange(p.arrange, false)) {
    compute_window_layout(p.w);
    place_windows(p.w);
  }
  for (int i = 0; i < 6; ++i) {
    const auto& size = p.sizes[i];
    std::copy(size.begin(), size.end(), size_in(record, i));
  }
  size_windows(p.w);
}

// Contrast that the user has turned by hand stays while pictures stay as dark as they are.
void apply_themes(const preferences_window& p) {
  const bool were_dark = pictures_are_dark();
  choose_theme(static_cast<colour_theme>(p.theme->currentIndex()));
  choose_picture_theme(static_cast<picture_theme>(p.pictures->currentIndex()));
  apply_theme();
  if (pictures_are_dark() != were_dark) follow_picture_theme(p.w);
}

// False while a field is refused.
bool apply(preferences_window& p) {
  // Not settings of the form, and so not asked by it.
  if (!p.width->hasAcceptableInput() || !p.height->hasAcceptableInput()) return false;
  if (p.form.refused()) return false;
  session_state& session = p.w.session;
  preferences_record& record = session.preferences;
  {
    const std::lock_guard lock(session.settings_mutex);
    p.form.store();
    record.autorecover_minutes = intervals[p.autorecover->currentIndex()].minutes;
    std::copy(p.colours.begin(), p.colours.end(), record.subcluster_colours);
  }
  // No operation runs while this dialog is open, so that it can count at once.
  session.multi_threaded_now = record.multi_threaded;
  set_autorecover_interval(p.w.autorecover, record.autorecover_minutes);
  open_log_if_wanted(p.w);
  // A file that cannot be opened turns the option off.
  p.log_file->setChecked(record.log_file_enabled);
  session.view.vd_keep_peaks = p.keep_peaks->isChecked();
  keep_wish(program_option::keep_peaks, p.keep_peaks->isChecked());
  keep_wish(program_option::research_tools, p.research_tools->isChecked());
  keep_wish(program_option::open_traces, p.open_traces->isChecked());
  show_full_entries(p.w);
  apply_themes(p);
  store_window_size(p);
  // On the worker, since the file is flushed to the device; until then nothing more is
  // applied.
  const bool started = start_operation(
      p.w, [](session_state& of) { write_preferences(of); },
      [dialog = QPointer<QDialog>(p.dialog)] {
        if (dialog) dialog->setEnabled(true);
      });
  p.dialog->setEnabled(!started);
  return true;
}

// "Cancel", also by the key or the frame of the dialog: as it was before, whatever has
// been applied since.
void give_back(preferences_window& p) {
  {
    const std::lock_guard lock(p.w.session.settings_mutex);
    p.w.session.preferences = p.before;
  }
  // The log as it was, too: it is written for as long as it is open.
  open_log_if_wanted(p.w);
  p.w.session.multi_threaded_now = p.before.multi_threaded;
  // The timer has its own copy, taken when the interval was applied.
  set_autorecover_interval(p.w.autorecover, p.before.autorecover_minutes);
}

// The preferences of a new installation, window layout as computed for this frame.
void restore_defaults(preferences_window& p) {
  const std::unique_ptr<session_state> shown = copy_settings(p.w.session);
  set_default_preferences(*shown);
  load(p, *shown);
  p.arrange = true;
}

QWidget* scales_page(preferences_window& p) {
  auto* form = new QFormLayout;
  const auto row = [&](const char* name, const char* label, const number_options& options) {
    add_number(form, p.form, label, name, options);
  };
  row("pixels_per_um_x", "Pixels per micron x",
      {.step = 0.1,
       .unit = "pixels/µm",
       .tip = "Horizontal scale of site positions in waveform displays, pixels per µm"});
  row("pixels_per_um_y", "Pixels per micron y",
      {.step = 0.1,
       .unit = "pixels/µm",
       .tip = "Vertical scale of site positions in waveform displays, pixels per µm"});
  row("pixels_per_uv", "Pixels per µV",
      {.step = 0.1, .unit = "pixels/µV", .tip = "Voltage scale of waveform displays"});
  row("pixels_per_msec", "Pixels per msec",
      {.step = 10, .unit = "pixels/ms", .tip = "Time scale of waveform displays"});
  row("vertical_axis_uv", "Vertical axis length",
      {.step = 10, .unit = "µV", .tip = "Length of the voltage axis in waveform displays"});
  row("pc_display_scale", "PC display scale",
      {.step = 0.25, .tip = "Scale of the principal components displays"});
  form->addRow(logical_control(
      p.form, "autoscale_voltage", "Autoscale voltage and channel position scaling values",
      "Choose these scales from the noise and the sites of each recording that is opened"));
  form->addRow(logical_control(p.form, "centre_pc_points", "Center points in PC display",
                               "Shift the points so that their mean lies at the centre"));
  form->addRow(logical_control(p.form, "autoscale_pc_display", "Autoscale PC display",
                               "Choose the scale so that all points are in view"));
  form->addRow(logical_control(p.form, "show_pca_points", "Show points used for PCA in displays",
                               "Mark the template points from which components are computed"));
  auto* page = new QWidget;
  page->setLayout(form);
  return page;
}

QComboBox* autorecover_list() {
  auto* list = new QComboBox;
  list->setObjectName("autorecover_minutes");
  list->setToolTip("How often the sort is saved, to be offered after a crash");
  for (const interval_entry& entry : intervals) list->addItem(entry.label);
  return list;
}

// No setting of the session: the platform's store keeps it, as it keeps the places of windows.
QCheckBox* research_box() {
  auto* box = new QCheckBox("Research tools in the menus");
  box->setObjectName("research_tools");
  box->setToolTip(
      "Show the entries that few laboratories need: spectra, distributions, exports of features "
      "and noise, import of .ptcs files");
  box->setChecked(wants(program_option::research_tools));
  return box;
}

QCheckBox* traces_box() {
  auto* box = new QCheckBox("Show the traces of a recording that was opened");
  box->setObjectName("open_traces");
  box->setToolTip("The voltage record opens by itself when a recording has been read");
  box->setChecked(wants(program_option::open_traces));
  return box;
}

QLayout* binwidths_row(preferences_window& p) {
  auto* row = new QHBoxLayout;
  std::vector<number_field*> fields;
  for (int i = 0; i < 3; ++i) {
    fields.push_back(number_control(
        p.form, "correlogram_binwidths",
        {.step = 0.5, .unit = "ms", .tip = "Width of a bin of the three correlograms, ms"}, i));
    row->addWidget(fields.back());
  }
  row->addWidget(new QLabel("ms"));
  auto* column = new QVBoxLayout;
  column->addLayout(row);
  column->addWidget(words_line(fields));
  return column;
}

QWidget* program_page(preferences_window& p) {
  auto* form = new QFormLayout;
  form->addRow(logical_control(p.form, "sticky_parameters", "Sticky Parameters",
                               "Start with the settings of the dialogs as they were at exit"));
  form->addRow(logical_control(p.form, "multi_threaded", "Multi-threaded code",
                               "Use all processors; the results are the same without"));
  form->addRow(logical_control(p.form, "treat_as_continuous",
                               "treat event based recording as continuous",
                               "Lay stored events out on one time axis, with blanks between "
                               "them; takes more memory"));
  p.log_file = logical_control(p.form, "log_file_enabled", "Save log file",
                               "Write the messages to a text file beside each recording");
  form->addRow(p.log_file);
  form->addRow(logical_control(p.form, "verbose_log", "Verbose output to run log",
                               "Write details of each stage to the run log window"));
  form->addRow(logical_control(p.form, "tell_new_cluster",
                               "tell user when a new cluster is manually created",
                               "Show a box whenever a cluster is made by hand"));
  form->addRow(p.open_traces = traces_box());
  form->addRow(p.research_tools = research_box());
  form->addRow("Save autorecover information", p.autorecover = autorecover_list());
  form->addRow("Auto/cross-correlogram binwidths", binwidths_row(p));
  auto* page = new QWidget;
  page->setLayout(form);
  return page;
}

// The colour is the dialog's own until "OK" or "Apply", as everything else here.
void edit_colour(const shared_window& p, int entry) {
  auto* chooser = new QColorDialog(colour_of(p->colours[entry]), p->dialog);
  chooser->setObjectName("choose_colour");
  QObject::connect(chooser, &QColorDialog::colorSelected, p->dialog, [p, entry](QColor colour) {
    p->colours[entry] = word_of(colour);
    show_colour(p->colour_buttons[entry], word_of(colour));
  });
  open_dialog(p->w, chooser);
}

QGroupBox* colours_box(const shared_window& p) {
  auto* grid = new QGridLayout;
  for (int i = 0; i < 10; ++i) {
    auto* button = new QPushButton("Edit");
    button->setObjectName(QString("subcluster_colours_%1").arg(i + 1));
    button->setToolTip("Choose this colour");
    p->colour_buttons << button;
    // The last colour marks what is going to be deleted.
    const QString label = i == 9 ? QString("Delete colour") : QString::number(i + 1);
    const int row = i % 5, column = i < 5 ? 0 : 2;
    grid->addWidget(new QLabel(label), row, column);
    grid->addWidget(button, row, column + 1);
    QObject::connect(button, &QPushButton::clicked, p->dialog, [p, i] { edit_colour(p, i); });
  }
  return titled_box("Sub-cluster colours", grid);
}

QGroupBox* sizes_box(const shared_window& p) {
  auto* row = new QHBoxLayout;
  p->window_list = new QComboBox;
  p->window_list->setObjectName("window_list");
  p->window_list->setToolTip("The window whose size is set");
  for (const char* name : sized_windows) p->window_list->addItem(name);
  p->width = free_number(p->dialog, "window_width", 100, 10000,
                         {.step = 10, .tip = "Width of its drawing area, pixels"});
  p->height = free_number(p->dialog, "window_height", 100, 10000,
                          {.step = 10, .tip = "Height of its drawing area, pixels"});
  row->addWidget(new QLabel("Make"));
  row->addWidget(p->window_list, 1);
  row->addWidget(new QLabel("window ="));
  row->addWidget(p->width);
  row->addWidget(new QLabel("x"));
  row->addWidget(p->height);
  row->addWidget(new QLabel("pixels"));
  const auto keep = [p] {
    p->sizes[p->window_list->currentIndex()] = {static_cast<int>(p->width->value()),
                                                static_cast<int>(p->height->value())};
  };
  QObject::connect(p->width, &QDoubleSpinBox::valueChanged, p->dialog, keep);
  QObject::connect(p->height, &QDoubleSpinBox::valueChanged, p->dialog, keep);
  QObject::connect(p->window_list, &QComboBox::currentIndexChanged, p->dialog,
                   [p](int entry) { show_size(*p, entry); });
  auto* column = new QVBoxLayout;
  column->addLayout(row);
  column->addWidget(words_line({p->width, p->height}));
  return titled_box("Window sizes", column);
}

QWidget* windows_page(const shared_window& p) {
  auto* looks = new QFormLayout;
  p->theme = new QComboBox;
  p->theme->setObjectName("theme");
  p->theme->addItems({"as the platform", "light", "dark"});
  p->theme->setToolTip("Colours of windows and dialogs");
  looks->addRow("Theme", p->theme);
  p->pictures = new QComboBox;
  p->pictures->setObjectName("picture_theme");
  p->pictures->addItems({"as the theme", "light", "dark"});
  p->pictures->setToolTip("Background of traces and graphs; paper stays white");
  looks->addRow("Pictures", p->pictures);
  p->keep_peaks = new QCheckBox("peak-keeping traces");
  p->keep_peaks->setObjectName("vd_keep_peaks");
  p->keep_peaks->setToolTip(
      "In the voltage record, draw the smallest and the largest sample of each pixel column, "
      "so that no spike is lost when zoomed out; beyond 256 samples to a column always");
  looks->addRow(p->keep_peaks);
  auto* layout = new QVBoxLayout;
  layout->addLayout(looks);
  layout->addWidget(sizes_box(p));
  layout->addWidget(colours_box(p));
  layout->addStretch();
  auto* page = new QWidget;
  page->setLayout(layout);
  return page;
}

QDialogButtonBox* buttons(const shared_window& p) {
  auto* box = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel |
                                   QDialogButtonBox::Apply);
  QPushButton* defaults = box->addButton("Default", QDialogButtonBox::ResetRole);
  defaults->setObjectName("default");
  box->button(QDialogButtonBox::Ok)->setObjectName("ok");
  box->button(QDialogButtonBox::Cancel)->setObjectName("cancel");
  box->button(QDialogButtonBox::Apply)->setObjectName("apply");
  QObject::connect(defaults, &QPushButton::clicked, p->dialog, [p] { restore_defaults(*p); });
  QObject::connect(box->button(QDialogButtonBox::Apply), &QPushButton::clicked, p->dialog, [p] {
    if (apply(*p)) refresh_graphs(p->w);
  });
  QObject::connect(box, &QDialogButtonBox::accepted, p->dialog, [p] {
    if (!apply(*p)) return;
    p->dialog->accept();
    refresh_graphs(p->w);
  });
  QObject::connect(box, &QDialogButtonBox::rejected, p->dialog, &QDialog::reject);
  QObject::connect(p->dialog, &QDialog::rejected, p->dialog, [p] { give_back(*p); });
  return box;
}

}  // namespace

void preferences_command(workstation& w) {
  auto* dialog = new QDialog(w.frame);
  dialog->setObjectName("preferences_dialog");
  dialog->setWindowTitle("Preferences");
  const auto p = std::make_shared<preferences_window>(w, dialog);
  p->before = w.session.preferences;
  auto* pages = new QTabWidget;
  pages->setObjectName("pages");
  pages->setUsesScrollButtons(false);
  pages->addTab(program_page(*p), "Program");
  pages->addTab(windows_page(p), "Windows");
  pages->addTab(scales_page(*p), "Scales");
  auto* layout = new QVBoxLayout(dialog);
  layout->addWidget(pages);
  layout->addWidget(buttons(p));
  load(*p, w.session);
  // The dialog's own connections keep p alive until it is destroyed.
  open_dialog(w, dialog);
}

}  // namespace kestrelvane
