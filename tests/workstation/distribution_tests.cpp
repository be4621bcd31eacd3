// The dialogs of amplitudes and of heights after intervals, driven as a user would.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFileDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QTableView>
#include <algorithm>
#include <cmath>

#include "analysis/interval_heights.h"
#include "analysis/unit_quality.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/program_options.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/analysis_windows.h"

namespace kestrelvane::test {
namespace {

struct full_workstation : sorted_workstation {
  explicit full_workstation(const std::string& home) : sorted_workstation(home) {
    keep_wish(program_option::research_tools, true);
    show_full_entries(shell);
  }
  ~full_workstation() { keep_wish(program_option::research_tools, false); }
  graph_data shown(graph_kind kind) const {
    const graph_window* window = graph_of(shell, kind);
    EXPECT_NE(window, nullptr);
    return window == nullptr ? graph_data{} : window->surface()->graph();
  }
};

TEST(AmplitudeDialog, EveryRowIsCountedOrRefused) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("amplitude_distribution");
  QDialog* dialog = w.dialog("amplitude_dialog");
  ASSERT_NE(dialog, nullptr);
  EXPECT_EQ(dialog->windowTitle(), "Event amplitude distribution analysis");
  auto* source = w.control<QComboBox>(dialog, "ea_source");
  ASSERT_EQ(source->count(), 14);
  for (int row = 0; row < source->count(); ++row) {
    source->setCurrentIndex(row);
    w.told.clear();
    w.press(dialog, "graph");
    w.settle();
    const bool refused = row + 1 == ea_event_free || row + 1 == ea_lfp;
    EXPECT_EQ(w.told.size(), refused ? 1 : 0) << row;
    if (refused) continue;
    EXPECT_EQ(w.shell.amplitudes->analysis.request.ea_source, row + 1);
    EXPECT_GT(w.shell.amplitudes->analysis.values.histogram.n_values, 0) << row;
    EXPECT_FALSE(w.shown(graph_kind::amplitude_distribution).series[0].x.empty()) << row;
  }
  EXPECT_NE(w.text(dialog, "q_variability"), "-") << "figures of the unit";
  EXPECT_EQ(w.text(dialog, "linear_flank_left"), "-");
}

// All that a dialog says: titles, labels, buttons, and the lines of its lists.
QStringList words_of(const QDialog* dialog) {
  QStringList words = {dialog->windowTitle()};
  for (const QLabel* label : dialog->findChildren<QLabel*>()) words << label->text();
  for (const QAbstractButton* b : dialog->findChildren<QAbstractButton*>()) words << b->text();
  for (const QGroupBox* box : dialog->findChildren<QGroupBox*>()) words << box->title();
  for (const QComboBox* list : dialog->findChildren<QComboBox*>()) {
    for (int row = 0; row < list->count(); ++row) words << list->itemText(row);
  }
  return words;
}

// What users know these dialogs by, and what is written of them elsewhere.
TEST(AnalysisDialogs, SayWhatTheyAreKnownBy) {
  const temporary_directory home;
  full_workstation w(home.path);
  const struct {
    const char *entry, *dialog;
    QStringList words;
  } known[] = {
      {"amplitude_distribution",
       "amplitude_dialog",
       {"raw voltage values",
        "peak/trough values",
        "peak/trough sharpness",
        "dv/dt",
        "peak-trough height",
        "detected events",
        "event free sections",
        "sorted unit",
        "distribution test",
        "LFP values if present",
        "Deviations from template",
        "Template deviation vs time",
        "Event sub-event distribution",
        "Spike peak",
        "binary=",
        "all channels",
        "or select channel",
        "masked",
        "correct integer truncation error",
        "log scaling",
        "fit double Gaussian",
        "add event distribution",
        "Use only",
        "Unit",
        "Graph",
        "Read",
        "Gaussian sigma",
        "Shoulder temps: L",
        "Shoulder points: L",
        "sigma",
        "shoulder counts: L",
        "Linear flank fits: L",
        "% non-Gaussian",
        "GOF value (%)",
        "ISI test (R)",
        "Q variability",
        "Ch 1 2x Gauss",
        "Ch1 Gauss",
        "KS test",
        "Export",
        "Deviation measures",
        "Flank residuals",
        "Gaussian residuals",
        "Matched channel and units"}},
      {"export_spikes",
       "export_dialog",
       {"Export spike files", "Source file name:", "Data format", ".csv file (.csv)",
        "unit numbered *_#.txt files", "Plexon (.plx)", "Neuralynx (.ntt)", "Neuroscope (.evt)",
        "Blackrock (.nev)", "Tarvik (.ptcs)", ".tsf file (.tsf)", "# of clusters",
        "# of duplicates", "Remove duplicates within clusters before export",
        "Save work file after export", "Save comments in .txt file", "Exported file name:"}},
      {"isi_height",
       "interval_heights_dialog",
       {"Within unit dependence", "Cross unit dependence", "Unit A", "Unit B", "Display",
        "# spikes=", "npts=", "t test p value=", "dt="}},
      {"correlograms",
       "correlation_dialog",
       {"Cross-correlate spike trains", "Units", "and", "bin width", "Spikes", "First unit",
        "Second unit", "Autocorrelation", "Print values", "Done"}},
      {"channel_check",
       "channel_check_dialog",
       {"Channel Check", "mask", "include all channels including masked ones", "show channel #s",
        "all channels or", "just channel"}}};
  for (const auto& [entry, name, words] : known) {
    // The check wants eight channels.
    if (QString(entry) == "channel_check") {
      start_operation(
          w.shell, [](session_state& s) { make_busy_recording(s, 9, 60000, 5); }, nullptr);
      w.settle();
    }
    w.choose_entry(entry);
    w.settle();
    QDialog* dialog = w.dialog(name);
    ASSERT_NE(dialog, nullptr) << name;
    const QStringList said = words_of(dialog);
    for (const QString& word : words) {
      EXPECT_TRUE(said.contains(word)) << name << ": " << word.toStdString();
    }
    dialog->close();
    w.settle();
  }
}

TEST(AmplitudeDialog, ChoicesFollowTheRowAndReachTheGraph) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("amplitude_distribution");
  QDialog* dialog = w.dialog("amplitude_dialog");
  auto* channel = w.control<number_field>(dialog, "channel");
  auto* unit = w.control<number_field>(dialog, "unit");
  EXPECT_TRUE(channel->isEnabled());
  EXPECT_FALSE(unit->isEnabled());
  w.control<QComboBox>(dialog, "ea_source")->setCurrentIndex(ea_unit - 1);
  EXPECT_FALSE(channel->isEnabled());
  EXPECT_TRUE(unit->isEnabled());
  w.control<QComboBox>(dialog, "ea_source")->setCurrentIndex(ea_raw - 1);
  w.set_number(dialog, "ea_bin_width", 4);
  const double scale = w.session->recording.vscale_HP;
  EXPECT_EQ(w.text(dialog, "bin_width_uv"), QString::number(4 * scale, 'f', 3) + " µV");
  w.tick(dialog, "all_channels", true);
  w.tick(dialog, "add_events", true);
  w.press(dialog, "graph");
  w.settle();
  graph_data graph = w.shown(graph_kind::amplitude_distribution);
  EXPECT_EQ(graph.labels[label_subtitle], "raw voltage values, all channels");
  EXPECT_EQ(w.shell.amplitudes->analysis.values.histogram.n_values,
            4 * std::int64_t{w.session->recording.n_samples});
  w.tick(dialog, "log_scaling", true);
  EXPECT_EQ(w.shown(graph_kind::amplitude_distribution).labels[label_y_axis], "log10 of counts");
  // The file lies where the user says.
  const QString path = QString::fromStdString(home.file("out_gsr.dat"));
  w.control<QRadioButton>(dialog, "gaussian_residuals")->setChecked(true);
  w.press(dialog, "export");
  w.settle(true, {path});
  EXPECT_TRUE(QFile::exists(path));
  EXPECT_TRUE(w.told.contains("Done it"));
}

QFileDialog* shown_file_dialog() {
  QFileDialog* found = nullptr;
  wait_until([&] {
    for (QWidget* window : QApplication::topLevelWidgets()) {
      if (window->isVisible() && found == nullptr) found = qobject_cast<QFileDialog*>(window);
    }
    return found != nullptr;
  });
  EXPECT_NE(found, nullptr);
  return found;
}

// Scripts of laboratories look for files by these names.
TEST(ExportedFiles, AreOfferedUnderTheNamesThatTheyAreKnownBy) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.session->recording.recording_path = home.file("night.tsf");
  w.choose_entry("amplitude_distribution");
  w.settle();
  QDialog* dialog = w.dialog("amplitude_dialog");
  w.press(dialog, "graph");
  w.settle();
  const std::pair<const char*, const char*> endings[] = {{"deviation_measures", "_tfr.dat"},
                                                         {"flank_residuals", "R.dat"},
                                                         {"gaussian_residuals", "_gsr.dat"},
                                                         {"matched_channel_units", "_mcu.dat"}};
  for (const auto& [choice, ending] : endings) {
    w.control<QRadioButton>(dialog, choice)->setChecked(true);
    w.press(dialog, "export");
    QFileDialog* files = shown_file_dialog();
    ASSERT_NE(files, nullptr) << choice;
    EXPECT_EQ(files->findChild<QLineEdit*>("fileNameEdit")->text(), QString("night") + ending);
    w.settle();
  }
  w.press(dialog, "done");
  w.settle();
  w.choose_entry("export_spikes");
  w.settle();
  dialog = w.dialog("export_dialog");
  const std::pair<const char*, const char*> filters[] = {
      {"csv", "Comma separated text file (*.CSV)"}, {"txt", "One file per unit (*.TXT)"}};
  for (const auto& [format, filter] : filters) {
    auto* list = w.control<QComboBox>(dialog, "data_format");
    list->setCurrentIndex(list->findData(format));
    w.press(dialog, "save_as");
    QFileDialog* files = shown_file_dialog();
    ASSERT_NE(files, nullptr) << format;
    EXPECT_EQ(files->selectedNameFilter(), filter);
    w.settle();
  }
  w.press(dialog, "done");
}

TEST(AmplitudeDialog, StopEndsOneRunAlone) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("amplitude_distribution");
  QDialog* dialog = w.dialog("amplitude_dialog");
  // Raised as "Stop" does, at the first poll.
  w.session->operation.interrupt_at_poll = w.session->operation.polls + 1;
  w.press(dialog, "graph");
  w.settle();
  EXPECT_EQ(w.shell.amplitudes, nullptr) << "nothing was counted to its end";
  w.session->operation.interrupt_at_poll = -1;
  w.press(dialog, "graph");
  w.settle();
  ASSERT_NE(w.shell.amplitudes, nullptr);
  EXPECT_GT(w.shell.amplitudes->analysis.values.histogram.n_values, 0);
}

TEST(AmplitudeDialog, TagsAndTestDataChangeWhatIsCounted) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("amplitude_distribution");
  QDialog* dialog = w.dialog("amplitude_dialog");
  const QString tags = QString::fromStdString(home.file("tags.txt"));
  QFile file(tags);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write("0 0.5 rest\n1 1.25 run\n");
  file.close();
  EXPECT_FALSE(dialog->findChild<QWidget*>("use_only")->isEnabled());
  w.press(dialog, "read_tags");
  w.settle(true, {tags});
  EXPECT_EQ(w.text(dialog, "n_tagged"), "2 read");
  auto* tag = w.control<QComboBox>(dialog, "tag");
  ASSERT_EQ(tag->count(), 2);
  EXPECT_EQ(tag->itemText(1), "run (1)");
  tag->setCurrentIndex(1);
  w.tick(dialog, "use_only", true);
  w.press(dialog, "graph");
  w.settle();
  EXPECT_EQ(w.shell.amplitudes->analysis.values.histogram.n_values,
            w.session->recording.sampling_frequency / 4);
  w.tick(dialog, "use_only", false);
  const std::int16_t before = w.session->recording.vd.channel(1)[5000];
  w.press(dialog, "one_gaussian");
  w.settle(false);
  EXPECT_EQ(w.asked.size(), 1);
  EXPECT_FALSE(w.session->recording.recording_filtered) << "No leaves all as it is";
  EXPECT_EQ(w.session->recording.vd.channel(1)[5000], before);
  w.press(dialog, "one_gaussian");
  w.settle(true);
  EXPECT_TRUE(w.session->recording.recording_filtered);
  w.press(dialog, "graph");
  w.settle();
  EXPECT_NEAR(w.shell.amplitudes->analysis.figures.sigma_uv, 10, 0.3);
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(IntervalHeightsDialog, WithinAUnitAndAfterAnother) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("isi_height");
  w.settle();
  QDialog* dialog = w.dialog("interval_heights_dialog");
  ASSERT_NE(dialog, nullptr);
  const interval_heights own =
      measure_interval_heights(*w.session, 2, 2, interval_heights_reach_ms);
  EXPECT_EQ(w.text(dialog, "spikes_a"), QString::number(own.n_spikes));
  EXPECT_EQ(w.text(dialog, "n_points"), QString::number(own.ms.size()));
  EXPECT_EQ(graph_of(w.shell, graph_kind::interval_heights)->windowTitle(),
            "ISI dependence Unit 2");
  w.set_number(dialog, "unit_b", 3);
  w.set_number(dialog, "longest_ms", 50);
  w.press(dialog, "display_cross");
  w.settle();
  const interval_heights cross = measure_interval_heights(*w.session, 3, 2, 50);
  EXPECT_EQ(w.text(dialog, "spikes_b"), QString::number(cross.n_spikes));
  EXPECT_EQ(w.text(dialog, "dt_ms"), QString::number(double{cross.dt_ms}, 'f', 3) + " ms");
  EXPECT_EQ(w.shown(graph_kind::interval_heights).series[0].y, cross.uv);
  EXPECT_EQ(graph_of(w.shell, graph_kind::interval_heights)->windowTitle(), "ISI co-dependence");
  w.press(dialog, "done");
}

// Start other programs, wait for a printer, or end this one.
const QStringList out_of_bounds = {"getting_started", "system_info", "print", "exit"};

int n_graphs(const driven_workstation& w) {
  return static_cast<int>(std::count_if(std::begin(w.shell.graphs), std::end(w.shell.graphs),
                                        [](const auto& window) { return !window.isNull(); }));
}

// What a user would notice of an entry: a dialog, a box, a question, a window, a line of the log.
bool answers(driven_workstation& w, const char* entry) {
  const auto said = [&] { return w.told.size() + w.asked.size() + w.session->log.n_log_lines; };
  const auto n_dialogs = [] {
    const QWidgetList all = QApplication::topLevelWidgets();
    return std::count_if(all.begin(), all.end(), [](const QWidget* window) {
      return window->isVisible() && qobject_cast<const QDialog*>(window) != nullptr;
    });
  };
  EXPECT_EQ(n_dialogs(), 0) << "nothing is left of the entry before";
  const auto before = said();
  const int windows = n_graphs(w);
  const auto samples = w.session->recording.n_samples;
  w.choose_entry(entry);
  QApplication::processEvents();
  bool seen = w.shell.worker.running || n_dialogs() > 0;
  w.settle();
  seen |= said() != before || n_graphs(w) != windows || w.session->recording.n_samples != samples;
  for (QDialog* dialog : w.shell.frame->findChildren<QDialog*>()) {
    if (dialog->isVisible()) dialog->close();
  }
  w.settle();
  return seen;
}

// Empty, with a recording alone, and with a sort: no entry is without an answer, and none leaves
// anything behind.
TEST(FullMenu, EveryEntryAnswersWhateverIsInMemory) {
  // Windows are laid out anew: nothing is seen of that without one.
  const QStringList silent = {"cascade", "auto_arrange"};
  for (const char* state : {"empty", "recording", "sort"}) {
    const temporary_directory home;
    full_workstation w(home.path);
    if (QString(state) != "sort") w.choose_entry("close_recording");
    w.settle(true);
    if (QString(state) == "recording") {
      start_operation(
          w.shell, [](session_state& s) { make_recording(s, 4, 60000, 20000, 0.5f); }, nullptr);
      w.settle();
    }
    std::vector<const char*> entries;
    for (const menu_row& row : menu_table()) {
      if (!out_of_bounds.contains(row.name)) entries.push_back(row.name);
    }
    // What it takes away the others need.
    std::stable_partition(entries.begin(), entries.end(),
                          [](const char* name) { return QString(name) != "close_recording"; });
    ASSERT_GT(entries.size(), 40u);
    for (const char* entry : entries) {
      SCOPED_TRACE(std::string(state) + ": " + entry);
      const bool seen = answers(w, entry);
      EXPECT_TRUE(seen || silent.contains(entry));
      EXPECT_EQ(check_session(*w.session), "");
      EXPECT_EQ(w.told.filter("not available").size(), 0);
    }
  }
}

TEST(FullMenu, MatricesGoWhereTheUserSaysAndAbsentPotentialsAreSaid) {
  const temporary_directory home;
  full_workstation w(home.path);
  const std::pair<const char*, const char*> exports[] = {{"event_noise", "units.npy"},
                                                         {"feature_export", "clusters.npy"}};
  for (const auto& [entry, last] : exports) {
    const QString folder = QString::fromStdString(home.file(entry));
    w.told.clear();
    w.choose_entry(entry);
    w.settle(true, {folder});
    EXPECT_TRUE(QFile::exists(folder + '/' + last)) << entry;
    EXPECT_EQ(w.told.size(), 1) << entry;
  }
  w.told.clear();
  w.choose_entry("lfp_export");
  w.settle();
  EXPECT_EQ(w.told, QStringList{"There are no LFP values in memory"}) << "without a file dialog";
}

TEST(UnitList, QualityIsOnASwitchAndFollowsEdits) {
  const temporary_directory home;
  full_workstation w(home.path);
  w.choose_entry("manage_clusters");
  QDialog* dialog = w.dialog("manage_clusters_dialog");
  w.settle();
  const auto* table = w.control<QTableView>(dialog, "unit_table");
  const auto column = [&](const char* heading) {
    int at = 0;
    while (table->model()->headerData(at, Qt::Horizontal).toString() != heading) ++at;
    return at;
  };
  const int presence = column("Presence"), d_prime = column("d'");
  const auto matches = [&] {
    const std::vector<unit_quality> now = measure_quality(*w.session);
    EXPECT_EQ(static_cast<int>(now.size()), table->model()->rowCount());
    for (int row = 0; row < table->model()->rowCount(); ++row) {
      const auto unit = table->model()->index(row, 0).data().toUInt();
      const unit_quality& quality = now[unit - 1];
      EXPECT_EQ(table->model()->index(row, presence).data().toString(),
                QString::number(quality.presence, 'f', 2));
      if (std::isnan(quality.d_prime)) continue;
      EXPECT_EQ(table->model()->index(row, d_prime).data().toString(),
                QString::number(quality.d_prime, 'f', 2));
    }
  };
  // The switch is remembered; another test of this process may have left it on.
  w.tick(dialog, "unit_quality", false);
  w.settle();
  EXPECT_TRUE(table->isColumnHidden(presence));
  w.control<QCheckBox>(dialog, "unit_quality")->click();
  w.settle();
  EXPECT_FALSE(table->isColumnHidden(presence));
  matches();
  const std::int32_t before = w.session->clusters.n_clusters;
  w.press(dialog, "delete_cluster");
  w.settle(true);
  ASSERT_EQ(w.session->clusters.n_clusters, before - 1);
  matches();
  w.control<QCheckBox>(dialog, "unit_quality")->click();
  EXPECT_TRUE(table->isColumnHidden(presence));
}

}  // namespace
}  // namespace kestrelvane::test
