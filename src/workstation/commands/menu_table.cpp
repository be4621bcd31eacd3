#include "workstation/commands/menu_table.h"

#include <QAction>
#include <QFileInfo>
#include <QMenuBar>
#include <QStatusBar>
#include <QToolBar>
#include <algorithm>

#include "recording/recent_files.h"
#include "workstation/commands/commands.h"
#include "workstation/frame.h"
#include "workstation/program_options.h"
#include "workstation/themes.h"
#include "workstation/workstation.h"

namespace kestrelvane {

namespace {

constexpr bool both = false, full = true, separator = true, none = false;

// clang-format off
constexpr menu_row rows[] = {
  // menu, entry, name, shortcut, hint, full, separator before, operation
  {"&File", "&Open a recording file", "open_recording", "Ctrl+O",
   "Choose a recording and read it into memory", both, none, open_recording_command},
  {"&File", "Open &work file", "open_work_file", "Ctrl+Shift+O",
   "Read a saved sort over the recording in memory", both, none, open_work_file_command},
  {"&File", "&Earlier states", "earlier_states", "",
   "Sorts of earlier sessions that ended in a crash or were not asked for at the start", both, none,
   earlier_states_command},
  {"&File", "&Close", "close_recording", "Ctrl+W",
   "Forget the recording, its events and clusters", both, none, close_recording_command},
  {"&File", "&Save work file", "save_work_file", "Ctrl+S",
   "Write events, clusters and settings to a file", both, none, save_work_file_command},
  {"&File", "Save &bitmap", "save_bitmap", "Ctrl+B",
   "Save the active graph window as a picture", both, none, save_bitmap_command},
  {"&File", "&Print", "print", "Ctrl+P",
   "Print the active graph window", both, separator, print_command},
  {"&File", "Pre&ferences", "preferences", "Ctrl+,",
   "How the program looks and behaves", both, separator, preferences_command},

  {"&View", "&Messages", "messages", "Ctrl+M",
   "What the program has said about its progress", both, none, messages_command},
  {"&View", "&Acquisition properties", "acquisition_properties", "Ctrl+I",
   "What the recording holds: channels, sites, rate, scale", both, none,
   acquisition_properties_command},
  {"&View", "&Voltage record", "voltage_record", "Ctrl+R",
   "The traces of the recording with events and clusters", both, none, voltage_record_command},
  {"&View", "&HP spectrum", "hp_spectrum", "",
   "Power of the channels against frequency; cursor keys go through the channels", full, none, hp_spectrum_command},
  {"&View", "&Template image", "template_image", "",
   "The template of the current cluster as an image of channels and time", full, none, template_image_command},
  {"&View", "Sorted &waveforms", "sorted_waveforms", "",
   "Waveforms of sorted clusters", both, none, sorted_waveforms_command},
  {"&View", "&Sorting statistics", "sorting_statistics", "Ctrl+T",
   "One line for every cluster", both, none, sorting_summary_command},

  {"&Pre-process", "&Transform/filter", "transform_filter", "Ctrl+F",
   "Filter the samples in memory", both, none, filter_command},
  {"&Pre-process", "&Channel check", "channel_check", "",
   "Look for faulty channels, by the correlation of their background", both, none,
   channel_check_command},
  {"&Pre-process", "&Event detection", "event_detection", "Ctrl+D",
   "Noise, thresholds and the detection of spikes", both, none, event_detection_command},

  {"&Sort", "&Autosort", "autosort", "Ctrl+Shift+A",
   "From samples to units, without further attention", both, none, autosort_command},
  {"&Sort", "&Guided merge/split", "guided_merge", "Ctrl+G",
   "Go through the pairs that are not distinct", both, none, guided_merge_command},
  {"&Sort", "&Convert channels to clusters", "convert_channels", "",
   "One cluster for every channel", both, none, convert_channels_command},
  {"&Sort", "&Make status &lists", "make_status_lists", "Ctrl+L",
   "Compare all pairs of clusters anew; forgets the marks of the user", both, none,
   status_lists_command},
  {"&Sort", "S&trategy", "strategy", "Ctrl+Shift+T",
   "Settings of templates, clustering, splitting and merging", both, none, strategy_command},
  {"&Sort", "Export feature matrices", "feature_export", "",
   "Write the principal components of every cluster", full, none, feature_matrices_command},

  {"&Review", "&View, clean and split clusters", "view_clusters", "",
   "Look at one cluster and mend it", both, none, view_clusters_command},
  {"&Review", "&Compare cluster pairs", "compare_pairs", "",
   "Look at two clusters side by side", both, none, compare_pairs_command},
  {"&Review", "&Auto/cross-correlation", "correlograms", "",
   "Auto- and cross-correlograms", both, none, correlation_command},
  {"&Review", "ISI p&lot", "isi_plot", "",
   "Intervals between the spikes of the current cluster", both, none, interval_plot_command},
  {"&Review", "Spike trai&n cross correlograms", "spike_trains", "",
   "The current cluster against those that lie nearest to it", both, none,
   train_correlograms_command},
  {"&Review", "&Overlap diagnostics", "overlap_diagnostics", "",
   "Why two clusters overlap as much as they do: the pair on show, or the current cluster and the "
   "one it overlaps most", both, none, overlap_command},
  {"&Review", "&Realign", "realign", "",
   "Move templates or events to a common point", both, none, realign_command},
  {"&Review", "Recalculate &templates", "recalculate_templates", "",
   "Average the waveforms of every cluster anew", both, none, recalculate_templates_command},
  {"&Review", "&Spatio-temporal spike view", "spike_view", "",
   "Spikes in space and time", both, none, spike_view_command},
  {"&Review", "&Post-processing", "post_processing", "",
   "Clean up and recover lost events", both, none, post_process_command},
  {"&Review", "&History", "history", "Ctrl+H",
   "The edits of the review, and the way back to any of them", both, none, history_command},
  {"&Review", "&Test decisions", "test_decisions", "",
   "What Autosort would do now with each pair of clusters, and why", full, none,
   test_decisions_command},
  {"&Review", "&Manage clusters", "manage_clusters", "",
   "Figures, deletion and order of clusters", full, none, manage_clusters_command},
  {"&Review", "&ISI Height plot", "isi_height", "",
   "Height of spikes against the interval before them", full, none, interval_heights_command},
  {"&Review", "&Autocorrelation vs time plot", "acf_time", "",
   "Autocorrelograms of successive stretches of the recording", full, none, autocorrelation_time_command},

  {"&Export", "&Sorted spike files", "export_spikes", "Ctrl+E",
   "Write the sorted spikes for other tools", both, none, export_command},
  {"&Export", "&Import events from ptcs file", "ptcs_import", "",
   "Replace events and clusters by the units of a file", full, none, import_ptcs_command},
  {"&Export", "&Export event noise for covariance matrices", "event_noise", "",
   "Write the noise round the events of every cluster, and its covariance", full, none,
   event_noise_command},
  {"&Export", "&Make test waveform", "test_waveform", "",
   "Make a recording with known units, and see how the sort of one scores", full, none,
   test_waveform_command},
  {"&Export", "E&vent amplitude distribution", "amplitude_distribution", "",
   "Distribution of the heights of events and of noise", full, none,
   amplitude_distribution_command},
  {"&Export", "Export LFP values as .tsf file", "lfp_export", "",
   "Write the local field potentials as a recording", full, none, lfp_export_command},
  {"&Export", "&Report", "report", "",
   "Write a page with the units, their pictures and figures", both, none, report_command},

  {"&Windows", "&Cascade", "cascade", "",
   "Lay the graph windows over each other", both, none, cascade_command},
  {"&Windows", "&Auto-arrange", "auto_arrange", "",
   "Put the windows back in their places", both, none, auto_arrange_command},

  {"&Help", "&Getting started", "getting_started", "F1",
   "From installation to exported units, in the browser", both, none, getting_started_command},
  {"&Help", "&About", "about", "", "Version, limits and resources", both, none, about_command},
};

constexpr toolbar_row buttons[] = {
  // identifier, tool-tip, icon, menu entry, operation of its own
  {40002, "Open a work file", "open-work", "open_work_file", nullptr},
  {40003, "Save work file", "save-work", "save_work_file", nullptr},
  {40004, "Select rectangle", "select", "", select_rectangle_command},
  {40006, "Open a data file", "open-data", "open_recording", nullptr},
  {40007, "Copy to clipboard", "copy", "", copy_selection_command},
  {40008, "Pre-process and filter", "filter", "transform_filter", nullptr},
  {40010, "Check channel integrity", "channels", "channel_check", nullptr},
  {40012, "Sort", "sort", "autosort", nullptr},
  {40013, "Event detection", "detect", "event_detection", nullptr},
  {40014, "Guided merge and split", "merge", "guided_merge", nullptr},
  {40016, "View sorted waveforms, clean and split clusters", "clusters", "view_clusters",
   nullptr},
  {40018, "Compare cluster pairs", "compare", "compare_pairs", nullptr},
  {40021, "Post-processing: clean and recover lost events", "post", "post_processing", nullptr},
  {40022, "Save or export sorted data", "export", "export_spikes", nullptr},
};

constexpr int order[] = {40006, 40002, 40003, 40004, 40007, 40008, 40010,
                         40013, 40012, 40014, 40016, 40018, 40021, 40022};

// Where a group of buttons ends.
constexpr int group_ends[] = {40003, 40007, 40013, 40021};
// clang-format on

constexpr const char* recent_property = "recent_entry";

QMenu* menu_of(QMenuBar* bar, const char* label) {
  // The name without the access key, by which tests and later rows find the menu.
  const QString name = QString(label).remove('&').toLower().replace('-', '_') + "_menu";
  if (auto* menu = bar->findChild<QMenu*>(name)) return menu;
  QMenu* menu = bar->addMenu(label);
  menu->setObjectName(name);
  menu->setToolTipsVisible(true);
  return menu;
}

QAction* add_entry(workstation& w, QMenu* menu, const menu_row& row) {
  if (row.separator_before) menu->addSeparator();
  QAction* action = menu->addAction(row.label);
  action->setObjectName(row.name);
  action->setShortcut(QKeySequence(row.shortcut));
  action->setStatusTip(row.hint);
  action->setProperty("waits", true);
  QObject::connect(action, &QAction::triggered, w.frame, [&w, run = row.run] { run(w); });
  return action;
}

void add_exit(workstation& w, QMenu* menu) {
  QAction* before = menu->addSeparator();
  // Recent files are put in front of it.
  before->setObjectName("exit_separator");
  QAction* action = menu->addAction("E&xit");
  action->setObjectName("exit");
  action->setShortcut(QKeySequence("Ctrl+Q"));
  action->setStatusTip("Leave the program; it offers to keep the state");
  QObject::connect(action, &QAction::triggered, w.frame, [&w] { exit_command(w); });
}

// The number of an entry as its label and access key give it.
QString recent_number(int entry) {
  return entry < 9 ? QString("&%1: ").arg(entry + 1) : QString("1&0: ");
}

const toolbar_row* button_of(int identifier) {
  const auto* found = std::find_if(std::begin(buttons), std::end(buttons),
                                   [&](const auto& row) { return row.identifier == identifier; });
  return found == std::end(buttons) ? nullptr : found;
}

QAction* own_action(workstation& w, const toolbar_row& row) {
  auto* action = new QAction(w.frame);
  action->setProperty("waits", true);
  QObject::connect(action, &QAction::triggered, w.frame, [&w, run = row.run] { run(w); });
  return action;
}

// A button is an action of its own that triggers the menu entry it stands for, since its
// tool-tip and name differ from the entry's.
QAction* toolbar_action(workstation& w, const toolbar_row& row) {
  QAction* action = nullptr;
  if (row.run != nullptr) {
    action = own_action(w, row);
  } else {
    action = new QAction(w.frame);
    action->setProperty("waits", true);
    action->setProperty("stands_for", row.action);
    auto* entry = w.frame->findChild<QAction*>(row.action);
    QObject::connect(action, &QAction::triggered, entry, &QAction::trigger);
  }
  action->setObjectName(QString("button_%1").arg(row.identifier));
  action->setText(row.tool_tip);
  action->setToolTip(row.tool_tip);
  action->setStatusTip(row.tool_tip);
  action->setIcon(line_icon(row.icon));
  return action;
}

void build_toolbar(workstation& w) {
  QToolBar* bar = w.frame->addToolBar("Tools");
  bar->setObjectName("tool_bar");
  bar->setMovable(false);
  bar->setIconSize(QSize(22, 22));
  for (const int identifier : order) {
    bar->addAction(toolbar_action(w, *button_of(identifier)));
    if (std::find(std::begin(group_ends), std::end(group_ends), identifier) !=
        std::end(group_ends)) {
      bar->addSeparator();
    }
  }
  // Something must be selected before it can be copied.
  auto* copy = w.frame->findChild<QAction*>("button_40007");
  copy->setProperty("waits", false);
  copy->setEnabled(false);
}

}  // namespace

std::span<const menu_row> menu_table() { return rows; }
std::span<const toolbar_row> toolbar_table() { return buttons; }
std::span<const int> toolbar_order() { return order; }

void build_menus(workstation& w) {
  QMenuBar* bar = w.frame->menuBar();
  for (const menu_row& row : rows) {
    add_entry(w, menu_of(bar, row.menu), row);
  }
  add_exit(w, menu_of(bar, "&File"));
  show_full_entries(w);
  rebuild_recent_menu(w);
  build_toolbar(w);
}

void show_full_entries(workstation& w) {
  const bool shown = !w.session.log.short_menu || wants(program_option::research_tools);
  for (const menu_row& row : rows) {
    // Hidden and not taken out: buttons of the toolbar refer to the entries.
    if (row.full) w.frame->findChild<QAction*>(row.name)->setVisible(shown);
  }
}

void rebuild_recent_menu(workstation& w) {
  QMenu* menu = menu_of(w.frame->menuBar(), "&File");
  const QList<QAction*> actions = menu->actions();
  for (QAction* action : actions) {
    if (action->property(recent_property).isValid()) delete action;
  }
  QAction* before = menu->findChild<QAction*>("exit_separator");
  const recent_files recent = read_recent_files(w.session);
  for (int entry = 0; entry < static_cast<int>(recent.paths.size()); ++entry) {
    const QString path = QString::fromStdString(recent.paths[entry]);
    // An ampersand of the path would be taken for an access key.
    auto* action = new QAction(recent_number(entry) + QString(path).replace('&', "&&"), menu);
    action->setObjectName(QString("recent_%1").arg(entry + 1));
    action->setProperty(recent_property, entry);
    action->setProperty("waits", true);
    action->setStatusTip("Open " + path);
    QObject::connect(action, &QAction::triggered, w.frame,
                     [&w, entry] { open_recent_command(w, entry); });
    if (entry == 0) {
      QAction* line = menu->insertSeparator(before);
      // Marked like the entries, so that it goes with them when the list is made anew.
      line->setProperty(recent_property, -1);
    }
    menu->insertAction(before, action);
    settle_action(w, action);
  }
}

}  // namespace kestrelvane
