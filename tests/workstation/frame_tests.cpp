// The frame: menus, tool bar, boxes, remembered places.
#include <gmock/gmock.h>

#include <QAction>
#include <QComboBox>
#include <QDropEvent>
#include <QFile>
#include <QFileInfo>
#include <QLineEdit>
#include <QMdiArea>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProcess>
#include <QTextBrowser>
#include <QToolBar>

#include "recording/recent_files.h"
#include "workstation/commands/menu_table.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

std::vector<std::string> labels_of(const QMenu* menu) {
  std::vector<std::string> labels;
  const QList<QAction*> actions = menu->actions();
  for (const QAction* action : actions) {
    if (!action->isVisible()) continue;
    labels.push_back(action->isSeparator() ? "-" : action->text().toStdString());
  }
  return labels;
}

TEST(Frame, MenusInTheirOrder) {
  const temporary_directory home;
  driven_workstation w(home.path);
  std::vector<std::string> menus;
  const QList<QAction*> tops = w.shell.frame->menuBar()->actions();
  for (const QAction* top : tops) menus.push_back(top->text().toStdString());
  EXPECT_THAT(menus, ElementsAre("&File", "&View", "&Pre-process", "&Sort", "&Review", "&Export",
                                 "&Windows", "&Help"));
  EXPECT_THAT(labels_of(tops[0]->menu()),
              ElementsAre("&Open a recording file", "Open &work file", "&Earlier states", "&Close",
                          "&Save work file", "Save &bitmap", "-", "&Print", "-", "Pre&ferences",
                          "-", "E&xit"));
  EXPECT_THAT(labels_of(tops[1]->menu()),
              ElementsAre("&Messages", "&Acquisition properties", "&Voltage record",
                          "Sorted &waveforms", "&Sorting statistics"));
  EXPECT_THAT(labels_of(tops[4]->menu()),
              ElementsAre("&View, clean and split clusters", "&Compare cluster pairs",
                          "&Auto/cross-correlation", "ISI p&lot", "Spike trai&n cross correlograms",
                          "&Overlap diagnostics", "&Realign", "Recalculate &templates",
                          "&Spatio-temporal spike view", "&Post-processing", "&History"));
  EXPECT_THAT(labels_of(tops[2]->menu()),
              ElementsAre("&Transform/filter", "&Channel check", "&Event detection"));
  EXPECT_THAT(labels_of(tops[3]->menu()),
              ElementsAre("&Autosort", "&Guided merge/split", "&Convert channels to clusters",
                          "&Make status &lists", "S&trategy"));
  EXPECT_THAT(labels_of(tops[5]->menu()), ElementsAre("&Sorted spike files", "&Report"));
  EXPECT_THAT(labels_of(tops[6]->menu()), ElementsAre("&Cascade", "&Auto-arrange"));
  EXPECT_THAT(labels_of(tops[7]->menu()), ElementsAre("&Getting started", "&About"));
  EXPECT_EQ(w.shell.frame->windowTitle(), "Kestrelvane");
  EXPECT_THAT(w.shell.run_log->toPlainText().toStdString(),
              ::testing::StartsWith("This is Kestrelvane version 5.00   working with "));
}

TEST(Frame, TheFullMenuIsReachedByItsFlag) {
  EXPECT_EQ(std::count_if(menu_table().begin(), menu_table().end(),
                          [](const menu_row& row) { return row.full; }),
            12);
  for (const menu_row& row : menu_table()) EXPECT_NE(row.run, nullptr) << row.label;
  small_session s;
  s->log.short_menu = false;
  workstation shell(*s);
  const auto frame = std::make_unique<main_frame>(shell);
  shell.frame = frame.get();
  build_menus(shell);
  const QList<QAction*> tops = frame->menuBar()->actions();
  EXPECT_THAT(labels_of(tops[1]->menu()),
              ElementsAre("&Messages", "&Acquisition properties", "&Voltage record", "&HP spectrum",
                          "&Template image", "Sorted &waveforms", "&Sorting statistics"));
  EXPECT_THAT(labels_of(tops[3]->menu()), Contains("Export feature matrices"));
  EXPECT_THAT(
      labels_of(tops[5]->menu()),
      ElementsAre("&Sorted spike files", "&Import events from ptcs file",
                  "&Export event noise for covariance matrices", "&Make test waveform",
                  "E&vent amplitude distribution", "Export LFP values as .tsf file", "&Report"));
}

TEST(Frame, ResearchToolsShowAtOnceAndInTheNextRun) {
  const temporary_directory home;
  const auto shown = [](driven_workstation& w) {
    return w.shell.frame->findChild<QAction*>("ptcs_import")->isVisible();
  };
  const auto choose = [](driven_workstation& w, bool wanted) {
    w.choose_entry("preferences");
    QDialog* dialog = w.dialog("preferences_dialog");
    w.tick(dialog, "research_tools", wanted);
    w.press(dialog, "ok");
    w.settle();
  };
  {
    driven_workstation w(home.path);
    EXPECT_FALSE(shown(w));
    choose(w, true);
    EXPECT_TRUE(shown(w));
    EXPECT_TRUE(w.shell.session.log.short_menu) << "which decides of more than the menus";
  }
  driven_workstation again(home.path);
  EXPECT_TRUE(shown(again));
  choose(again, false);
  EXPECT_FALSE(shown(again));
}

TEST(Frame, ToolBarInItsOrderWithItsTips) {
  const temporary_directory home;
  driven_workstation w(home.path);
  std::vector<std::string> tips;
  const QList<QAction*> actions = w.shell.frame->findChild<QToolBar*>("tool_bar")->actions();
  for (const QAction* action : actions) {
    if (action->isSeparator()) continue;
    tips.push_back(action->toolTip().toStdString());
    EXPECT_FALSE(action->icon().pixmap(22, 22).toImage().isNull()) << tips.back();
  }
  EXPECT_THAT(
      tips,
      ElementsAre("Open a data file", "Open a work file", "Save work file", "Select rectangle",
                  "Copy to clipboard", "Pre-process and filter", "Check channel integrity",
                  "Event detection", "Sort", "Guided merge and split",
                  "View sorted waveforms, clean and split clusters", "Compare cluster pairs",
                  "Post-processing: clean and recover lost events", "Save or export sorted data"));
}

TEST(Frame, ToolButtonsDoWhatTheirEntriesDo) {
  const temporary_directory home;
  driven_workstation w(home.path);
  const QString no_recording = "No recording data in memory";
  const std::pair<int, QString> answers[] = {
      {40002, no_recording}, {40003, no_recording}, {40004, "No graph window is open"},
      {40008, no_recording}, {40010, no_recording}, {40012, no_recording},
      {40013, no_recording}, {40014, no_recording}, {40016, no_recording},
      {40018, no_recording}, {40021, no_recording}, {40022, no_recording}};
  for (const auto& [identifier, words] : answers) {
    w.told.clear();
    w.choose_entry(qPrintable(QString("button_%1").arg(identifier)));
    w.settle();
    EXPECT_EQ(w.told, QStringList(words)) << identifier;
  }
}

TEST(Frame, TheOpenDialogOffersEveryFormatAndAllOfThemFirst) {
  const temporary_directory home;
  driven_workstation w(home.path);
  const auto filters = [&](const char* entry) {
    w.choose_entry(entry);
    auto* files = w.shell.frame->findChild<QFileDialog*>("choose_file");
    QStringList all = files->nameFilters();
    w.settle();
    wait_until([&] { return w.shell.frame->findChild<QFileDialog*>("choose_file") == nullptr; });
    return all;
  };
  const QStringList first = filters("button_40006");
  ASSERT_EQ(first.size(), 1 + 16 + 1);
  EXPECT_TRUE(first[0].startsWith("All recordings (*.srf *.SRF *.ntt ")) << first[0].toStdString();
  for (const char* pattern : {"*.nwb", "*.hdf5", "*.h5", "*.ns1", "*.ns9", "*.oebin", "*.PLX"}) {
    EXPECT_EQ(first[0].count(QString(pattern) + ' ') + first[0].count(QString(pattern) + ')'), 1)
        << pattern;
  }
  const char* order[] = {"All recordings",
                         "Surf files",
                         "Neuralynx single tetrode",
                         "Neuralynx",
                         "PRF files",
                         "Plexon",
                         "Neuroscope",
                         "TSF format",
                         "Multi Channel Systems",
                         "Multi Channel Systems HDF5",
                         "Neurodata Without Borders",
                         "Blackrock",
                         "Blackrock extended",
                         "INTAN",
                         "Neuropixels SpikeGLX",
                         "Plexon PL2",
                         "Open Ephys binary",
                         "All files"};
  for (int i = 0; i < 18; ++i) EXPECT_TRUE(first[i].startsWith(order[i])) << order[i];
  // What the list shows: each pattern once.
  w.choose_entry("open_recording");
  const auto* shown =
      w.shell.frame->findChild<QFileDialog*>("choose_file")->findChild<QComboBox*>("fileTypeCombo");
  EXPECT_EQ(shown->currentText().trimmed(), "All recordings");
  EXPECT_EQ(shown->itemText(5).trimmed(), "Plexon (*.PLX)");
  EXPECT_EQ(shown->itemText(11).trimmed(), "Blackrock(*.NEV)");
  EXPECT_EQ(shown->itemText(12).trimmed(), "Blackrock extended(*.NSx)");
  w.settle();
}

TEST(Frame, TheFilterThatWasChosenNamesTheFormat) {
  const temporary_directory home, data;
  driven_workstation w(home.path);
  make_small_recording(data, "small.data");
  w.choose_entry("open_recording");
  auto* files = w.shell.frame->findChild<QFileDialog*>("choose_file");
  files->selectNameFilter(files->nameFilters().filter("TSF format").value(0));
  files->findChild<QLineEdit*>("fileNameEdit")
      ->setText(QString::fromStdString(data.file("small.data")));
  QMetaObject::invokeMethod(files, "accept");
  w.settle();
  w.close_messages();
  EXPECT_GT(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.session->recording.file_type, file_type_tsf);
}

TEST(Frame, WithoutARecordingOperationsSayWhatIsMissing) {
  const temporary_directory home;
  driven_workstation w(home.path);
  for (const char* entry :
       {"open_work_file", "save_work_file", "voltage_record", "transform_filter", "channel_check",
        "event_detection", "autosort", "export_spikes", "guided_merge", "correlograms",
        "post_processing", "sorted_waveforms", "spike_view", "view_clusters", "compare_pairs",
        "report"}) {
    w.told.clear();
    w.choose_entry(entry);
    w.settle();
    EXPECT_EQ(w.told, QStringList("No recording data in memory")) << entry;
  }
}

TEST(Frame, RecentRecordingsAreNumberedAndOpen) {
  const temporary_directory home;
  const std::string path = make_small_recording(home);
  {
    recent_files recent;
    for (int i = 1; i <= 9; ++i) recent.paths.push_back(home.file("gone_" + std::to_string(i)));
    recent.paths.push_back(path);
    session_state session;
    session.home_directory = home.path;
    ASSERT_TRUE(write_recent_files(session, recent));
  }
  driven_workstation w(home.path);
  auto* tenth = w.shell.frame->findChild<QAction*>("recent_10");
  ASSERT_NE(tenth, nullptr);
  EXPECT_EQ(tenth->text().toStdString(), "1&0: " + path);
  EXPECT_TRUE(w.shell.frame->findChild<QAction*>("recent_9")->text().startsWith("&9: "));

  w.choose_entry("recent_1");
  w.settle();
  EXPECT_EQ(w.told, QStringList(QString::fromStdString("Can't find file " + home.file("gone_1"))));
  EXPECT_EQ(w.session->recording.n_samples, 0);

  w.choose_entry("recent_10");
  w.settle();
  w.close_messages();
  EXPECT_GT(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.shell.frame->windowTitle(), "Kestrelvane  -  small.tsf");
  EXPECT_EQ(w.shell.frame->findChild<QAction*>("recent_1")->text().toStdString(), "&1: " + path);
  EXPECT_EQ(w.shell.frame->findChild<QAction*>("recent_11"), nullptr);

  // Closing asks first.
  w.choose_entry("close_recording");
  w.settle(false);
  EXPECT_GT(w.session->recording.n_samples, 0);
  w.choose_entry("close_recording");
  w.settle(true);
  EXPECT_EQ(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.session->recording.recording_path, "No data file");
  EXPECT_EQ(w.shell.frame->windowTitle(), "Kestrelvane");
}

TEST(Frame, ADroppedRecordingIsOpened) {
  const temporary_directory home, data;
  const std::string path = make_small_recording(data);
  driven_workstation w(home.path);
  const auto drop = [&](const QList<QUrl>& urls) {
    QMimeData files;
    files.setUrls(urls);
    QDragEnterEvent enter(QPoint(50, 200), Qt::CopyAction, &files, Qt::LeftButton, {});
    QApplication::sendEvent(w.shell.frame, &enter);
    QDropEvent fall(QPointF(50, 200), Qt::CopyAction, &files, Qt::LeftButton, {});
    if (enter.isAccepted()) QApplication::sendEvent(w.shell.frame, &fall);
    w.settle();
    w.close_messages();
  };
  drop({QUrl("http://example.com/a.tsf")});
  drop({QUrl::fromLocalFile(QString::fromStdString(data.file("notes.doc")))});
  EXPECT_EQ(w.session->recording.n_samples, 0);
  EXPECT_EQ(w.told, QStringList("Unrecognised file type"));
  drop({QUrl::fromLocalFile(QString::fromStdString(path))});
  EXPECT_EQ(w.session->recording.recording_path, path);
  // Another one over it asks first.
  drop({QUrl::fromLocalFile(QString::fromStdString(path))});
  EXPECT_TRUE(w.asked.last().startsWith("The new file will overwrite existing data"));
}

// Programs in a folder of their own, which is the whole search path for as long as this lives.
struct search_path {
  temporary_directory folder;
  QByteArray before = qgetenv("PATH");
  search_path() { qputenv("PATH", folder.path.c_str()); }
  ~search_path() { qputenv("PATH", before); }
  void add(const char* name, const std::string& script) {
    const QString path = QString::fromStdString(folder.file(name));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(("#!/bin/sh\n" + script + "\n").c_str());
    file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
  }
};

TEST(Frame, HelpIsShownByTheBrowserOrElseByOurOwnWindow) {
  const temporary_directory home;
  driven_workstation w(home.path);
  // It stands beside the program, one folder up from its tests, where it could be made.
  if (!QFileInfo::exists(QCoreApplication::applicationDirPath() + "/../kv_getting_started.htm")) {
    GTEST_SKIP() << "the page was not built";
  }
  search_path programs;
  const QString seen = QString::fromStdString(programs.folder.file("seen"));
  programs.add("firefox", "echo \"$1\" > '" + seen.toStdString() + "'");
  programs.add("xdg-open", "exit 3");  // as it does where it knows no browser
  w.choose_entry("getting_started");
  EXPECT_TRUE(wait_until([&] { return QFileInfo(seen).size() > 10; }, 5000));
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("help_dialog"), nullptr);
  QFile::remove(seen);
  programs.add("firefox", "exit 1");
  w.choose_entry("getting_started");
  QDialog* own = w.dialog("help_dialog");
  ASSERT_NE(own, nullptr);
  EXPECT_FALSE(own->isModal());
  EXPECT_TRUE(w.control<QTextBrowser>(own, "page")->toPlainText().contains("Kestrelvane"));
  w.press(own, "close");
}

// Started as a user would, in an environment without any display.
TEST(Program, AnswersWithoutADisplay) {
  const QString program = QCoreApplication::applicationDirPath() + "/../kestrelvane";
  for (const char* asked : {"--version", "-v", "--help", "-h"}) {
    QProcess process;
    QProcessEnvironment bare = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) bare.remove(name);
    process.setProcessEnvironment(bare);
    process.start(program, {asked});
    ASSERT_TRUE(process.waitForFinished()) << asked;
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit) << asked;
    EXPECT_EQ(process.exitCode(), 0) << asked;
    const QString said = process.readAllStandardOutput();
    EXPECT_TRUE(said.contains("estrelvane")) << asked << said.toStdString();
    EXPECT_EQ(said.contains("--show-voltage"), QString(asked).contains('h')) << asked;
  }
}

}  // namespace
}  // namespace kestrelvane::test
