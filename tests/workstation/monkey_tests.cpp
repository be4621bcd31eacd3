// A user who presses, types, drags and closes at random, over small recordings and files
// that are none. Whatever comes of it, the program goes on and the session is in order.
//
// What the monkey does follows from its seed and the number of the step alone: before each step
// it waits until nothing moves any more, operations are stopped at a poll that is counted and not
// at a moment, and each step draws its own numbers. So a seed that fails fails again, also with
// steps left out, and the shortest sequence that still fails is what is told. Each run is a
// process of its own, since what is looked for may end it.
#include <unistd.h>

#include <QAbstractItemView>
#include <QAction>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDropEvent>
#include <QLineEdit>
#include <QMdiSubWindow>
#include <QMimeData>
#include <QPushButton>
#include <QScrollBar>
#include <QSlider>
#include <QSpinBox>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
#include <QWheelEvent>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <sstream>
#include <utility>

#include "operations/autosort.h"
#include "operations/open_recording.h"
#include "session/settings_files.h"
#include "support/child_process.h"
#include "support/fixture_files.h"
#include "synthesis/test_recording.h"
#include "workstation/commands/menu_table.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/driven_workstation.h"
#include "workstation/interface_desk.h"
#include "workstation/operation.h"
#include "workstation/program_options.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"

namespace kestrelvane::test {
namespace {

constexpr int steps_per_seed = 150;
constexpr int steps_to_rest = 30;
constexpr unsigned most_seconds = 180;  // of a run, on a machine that has other things to do

// Entries and buttons that start other programs or wait for a printer.
const QStringList out_of_bounds = {"getting_started", "system_info", "print"};

QString qt(const std::string& text) { return QString::fromStdString(text); }

// What gets a user further; pressed and chosen more often than the rest.
const QStringList purposeful = {"autosort",
                                "event_detection",
                                "realign",
                                "transform_filter",
                                "make_status_lists",
                                "voltage_record",
                                "convert_channels",
                                "recalculate_templates",
                                "export_spikes",
                                "save_work_file",
                                "open_work_file",
                                "start",
                                "do_it",
                                "begin",
                                "save_as",
                                "unmask_all",
                                "restore_defaults",
                                "realign_all_events",
                                "realign_all_templates",
                                "guided_merge",
                                "view_clusters",
                                "compare_pairs",
                                "post_processing",
                                "manage_clusters",
                                "history",
                                "correlograms",
                                "isi_height",
                                "acf_time",
                                "amplitude_distribution",
                                "sorted_waveforms",
                                "channel_check",
                                "hp_spectrum",
                                "report",
                                "test_decisions",
                                "sorting_statistics",
                                "merge",
                                "split",
                                "mark",
                                "next",
                                "plot",
                                "undo_events",
                                "undo_all",
                                "resume",
                                "interrupt",
                                "pause"};

// Files of every sort: recordings large and tiny, text under a recording's name, nothing.
struct random_files {
  temporary_directory data;
  QStringList paths;

  random_files() {
    paths << qt(make_small_recording(data, "small.tsf"));
    std::filesystem::copy(data.file("small.tsf"), data.file("again.tsf"));
    paths << qt(data.file("again.tsf"));
    for (const auto& [n_channels, n_samples] : {std::pair{1, 1}, {1, 60}, {3, 1000}, {9, 1506}}) {
      tsf_fixture tiny;
      tiny.n_channels = n_channels;
      tiny.n_samples = n_samples;
      add(std::to_string(n_channels) + "x" + std::to_string(n_samples) + ".tsf", tsf_bytes(tiny));
    }
    const std::string nonsense = "not what its name says, and shorter than any header";
    for (const char* name : {"a.tsf", "a.bin", "a.nev", "a.ns5", "a.ncs", "a.ntt", "a.mcd", "a.wrk",
                             "a.rhd", "a.plx2", "a.raw", "a.txt", "a.csv", "a"}) {
      add(name, {nonsense.begin(), nonsense.end()});
    }
    paths << qt(data.file("new.wrk")) << qt(data.file("new.csv")) << qt(data.file("new.png"))
          << qt(data.file("no such directory/file.tsf")) << qt(data.path);
  }
  // As many as the channel check wants, with neighbours that are hard to tell apart.
  std::string make_eight_channels() {
    test_recording_options options;
    options.electrode = test_electrode::polytrode;
    options.n_channels = 8;
    options.minutes = 0.15;
    options.n_units = 8;
    options.median_rate = 15;
    options.amplitude_min_uv = 60;
    options.seed = 7;
    std::string problem;
    const std::string path = data.file("eight.tsf");
    EXPECT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
    paths << qt(path);
    return path;
  }
  void add(const std::string& name, const std::vector<char>& bytes) {
    write_bytes(data.file(name), bytes);
    paths << qt(data.file(name));
  }
};

// A dialog that waits to be answered: over the frame, or beside its windows.
QWidget* shown_dialog(driven_workstation& w) {
  QWidget* modal = QApplication::activeModalWidget();
  return modal != nullptr ? modal : dialog_beside(w.shell);
}

// Of two steps of one seed, and of one step of two seeds, other numbers.
std::mt19937 numbers_of_step(unsigned seed, int step) {
  std::seed_seq mixed{seed, static_cast<unsigned>(step)};
  return std::mt19937(mixed);
}

struct monkey {
  unsigned seed;
  std::mt19937 random;
  temporary_directory home;
  random_files files;
  std::unique_ptr<driven_workstation> w = std::make_unique<driven_workstation>(home.path);
  std::string did;  // in this step, for who reads of it

  explicit monkey(unsigned of) : seed(of), random(numbers_of_step(of, 0)) {
    keep_wish(program_option::research_tools, !one_in(3));
    show_full_entries(w->shell);
    if (!one_in(4)) sort_first();
  }

  // Most of the tools look at a sort.
  void sort_first() {
    const std::string path = files.make_eight_channels();
    start_operation(
        w->shell,
        [path](session_state& s) {
          open_recording(s, path);
          s.strategy.min_cluster_size = 10;
          s.strategy.merge_split_pairs = false;  // what is undecided is left to the review
          autosort(s);
        },
        nullptr);
    w->settle(true);
    w->close_messages();
  }

  void note(const QString& what, const QObject* with, const QObject* in = nullptr) {
    did = qPrintable(what + ' ' + (with != nullptr ? with->objectName() : QString()) +
                     (in != nullptr ? " in " + in->objectName() : QString()));
  }

  int below(int n) { return static_cast<int>(random() % static_cast<unsigned>(std::max(n, 1))); }
  bool one_in(int n) { return below(n) == 0; }
  template <typename List>
  auto one_of(const List& list) {
    return list[below(static_cast<int>(list.size()))];
  }
  QPoint somewhere(const QWidget* in) { return {below(in->width()), below(in->height())}; }

  QString nonsense_number() {
    static const QStringList texts = {"",           "-1",
                                      "0",          "1",
                                      "2",          "17",
                                      "1e300",      "-1e9",
                                      "nan",        "inf",
                                      "x",          "0.5",
                                      "3.25",       "100",
                                      "4096",       "-0",
                                      "1e-9",       "..",
                                      "+",          "0x10",
                                      "2147483648", "99999999999999999"};
    return one_of(texts);
  }

  void type_into(QWidget* field) {
    QTest::keyClick(field, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(field, nonsense_number());
    if (one_in(2)) QTest::keyClick(field, one_in(2) ? Qt::Key_Tab : Qt::Key_Return);
  }

  void use(QWidget* control) {
    note("use", control, control->window());
    if (auto* button = qobject_cast<QAbstractButton*>(control)) {
      button->click();
    } else if (auto* box = qobject_cast<QAbstractSpinBox*>(control)) {
      one_in(3) ? box->stepBy(below(7) - 3) : type_into(box);
    } else if (auto* list = qobject_cast<QComboBox*>(control)) {
      list->setCurrentIndex(below(list->count()));
    } else if (auto* bar = qobject_cast<QAbstractSlider*>(control)) {
      bar->setValue(bar->minimum() + below(bar->maximum() - bar->minimum() + 1));
    } else if (auto* table = qobject_cast<QAbstractItemView*>(control)) {
      const QAbstractItemModel* model = table->model();
      if (model == nullptr || model->rowCount() == 0) return;
      const QModelIndex cell = model->index(below(model->rowCount()), below(model->columnCount()));
      table->scrollTo(cell);
      QTest::mouseClick(table->viewport(), Qt::LeftButton,
                        one_in(3) ? Qt::ControlModifier : Qt::NoModifier,
                        table->visualRect(cell).center());
    }
  }

  void use_something_in(QWidget* window) {
    QList<QWidget*> controls, better;
    const QList<QWidget*> all = window->findChildren<QWidget*>();
    for (QWidget* widget : all) {
      const bool usable =
          qobject_cast<QAbstractButton*>(widget) || qobject_cast<QAbstractSpinBox*>(widget) ||
          qobject_cast<QComboBox*>(widget) || qobject_cast<QAbstractSlider*>(widget) ||
          qobject_cast<QAbstractItemView*>(widget);
      if (usable && widget->isEnabled() && widget->window() == window &&
          !out_of_bounds.contains(widget->objectName())) {
        controls << widget;
        if (purposeful.contains(widget->objectName())) better << widget;
      }
    }
    if (!better.isEmpty() && one_in(3)) {
      use(one_of(better));
    } else if (!controls.isEmpty()) {
      use(one_of(controls));
    }
  }

  void use_dialog(QWidget* window) {
    if (auto* pages = window->findChild<QTabWidget*>("pages")) {
      pages->setCurrentIndex(below(pages->count()));
    }
    note("close or type at", window);
    if (one_in(25)) {
      QTest::keyClick(window, Qt::Key_Escape);
    } else if (one_in(20)) {
      QTest::keyClick(window, static_cast<Qt::Key>(Qt::Key_A + below(26)));
    } else if (one_in(25)) {
      window->close();
    } else {
      use_something_in(window);
    }
  }

  void answer(QMessageBox* box) {
    // Without the names of this run's folders, by which alone two runs would differ.
    const QString text =
        box->text().replace(qt(files.data.path), "data").replace(qt(home.path), "home");
    note("answer \"" + text.left(50) + '"', box);
    if (one_in(4)) {
      box->close();
    } else {
      one_of(box->buttons())->click();
    }
  }

  void answer(QFileDialog* dialog) {
    note("choose a file", dialog);
    if (one_in(3)) return dialog->reject();
    // Its own question about a file that is there, or is none, waits inside accept.
    QTimer asked;
    QObject::connect(&asked, &QTimer::timeout, dialog, [this, dialog] {
      if (auto* box = dialog->findChild<QMessageBox*>()) one_of(box->buttons())->click();
    });
    asked.start(1);
    dialog->findChild<QLineEdit*>("fileNameEdit")->setText(one_of(files.paths));
    QMetaObject::invokeMethod(dialog, "accept");
  }

  void trigger_entry() {
    QList<QAction*> possible, better;
    const QList<QAction*> all = w->shell.frame->findChildren<QAction*>();
    for (QAction* action : all) {
      if (!action->isEnabled() || action->objectName().isEmpty()) continue;
      if (action->isSeparator() || out_of_bounds.contains(action->objectName())) continue;
      if (action->objectName() == "exit" && !one_in(4)) continue;
      if (action->objectName() == "close_recording" && !one_in(4)) continue;
      possible << action;
      if (purposeful.contains(action->objectName())) better << action;
    }
    QList<QAction*>& from = !better.isEmpty() && one_in(2) ? better : possible;
    if (from.isEmpty()) return;
    QAction* entry = one_of(from);
    note("entry", entry);
    entry->trigger();
  }

  void drop_file() {
    note("drop a file", nullptr);
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(one_in(2) ? files.paths.first() : one_of(files.paths))});
    QWidget* frame = w->shell.frame;
    QDragEnterEvent enter(QPoint(50, 200), Qt::CopyAction, &mime, Qt::LeftButton, {});
    if (frame->acceptDrops()) QApplication::sendEvent(frame, &enter);
    QDropEvent fall(QPointF(50, 200), Qt::CopyAction, &mime, Qt::LeftButton, {});
    if (frame->acceptDrops() && enter.isAccepted()) QApplication::sendEvent(frame, &fall);
  }

  void play_with_graph(graph_window* window) {
    note("play with", window);
    QWidget* surface = window->surface();
    const auto keys = one_of(
        std::vector<Qt::KeyboardModifiers>{Qt::NoModifier, Qt::ControlModifier, Qt::ShiftModifier});
    QWheelEvent wheel(QPointF(somewhere(surface)), QPointF(), {}, QPoint(0, 120 * (below(9) - 4)),
                      Qt::NoButton, keys, Qt::NoScrollPhase, false);
    switch (below(8)) {
      case 0:
        return window->resize(below(3000), below(2000));
      case 1:
        return static_cast<void>(one_in(5) && window->close());
      case 2:
        return QTest::mouseClick(surface, Qt::LeftButton, {}, somewhere(surface));
      case 3:
        return QTest::mouseDClick(surface, Qt::LeftButton, {}, somewhere(surface));
      case 4:
        return QTest::keyClick(surface, static_cast<Qt::Key>(Qt::Key_Home + below(8)));
      case 5:
        QTest::mousePress(surface, Qt::LeftButton, {}, somewhere(surface));
        QTest::mouseMove(surface, somewhere(surface));
        return QTest::mouseRelease(surface, Qt::LeftButton, {}, somewhere(surface));
      default:
        QApplication::sendEvent(surface, &wheel);
    }
  }

  // A worker may be reading one; what it has so far is its own.
  bool has_recording() const {
    return w->shell.worker.running || w->session->recording.n_samples > 0;
  }

  void use_frame() {
    workstation& shell = w->shell;
    note("frame", nullptr);
    const QPointer<graph_window> graph = shell.graphs[below(static_cast<int>(graph_kind::count))];
    QDialog* voltage = shell.voltage ? shell.voltage->dialog.data() : nullptr;
    if (graph && one_in(3)) {
      play_with_graph(graph);
    } else if (voltage != nullptr && voltage->isEnabled() && one_in(2)) {
      use_dialog(voltage);
    } else if (one_in(12)) {
      shell.frame->resize(below(2500), below(1500));
    } else if (one_in(w->session->clusters.n_clusters > 0 ? 100 : has_recording() ? 30 : 2)) {
      drop_file();
    } else if (one_in(40)) {
      shell.frame->close();
    } else {
      trigger_entry();
    }
  }

  // Where a user can act: the modal window in front, or else anything; most often a dialog that
  // stands beside the windows.
  void act() {
    QWidget* modal = QApplication::activeModalWidget();
    if (auto* box = qobject_cast<QMessageBox*>(modal)) {
      answer(box);
    } else if (auto* choice = qobject_cast<QFileDialog*>(modal)) {
      answer(choice);
    } else if (auto* colours = qobject_cast<QColorDialog*>(modal)) {
      one_in(2) ? colours->accept() : colours->reject();
    } else if (modal != nullptr) {
      use_dialog(modal);
    } else if (QDialog* beside = dialog_beside(w->shell); beside != nullptr && !one_in(4)) {
      use_dialog(beside);
    } else {
      use_frame();
    }
  }

  // Whoever moves next is the user: no operation runs, or it waits for an answer.
  bool user_is_next() const {
    if (!w->shell.worker.running || w->shell.paused) return true;
    QWidget* modal = QApplication::activeModalWidget();
    return qobject_cast<QMessageBox*>(modal) != nullptr ||
           qobject_cast<QFileDialog*>(modal) != nullptr;
  }

  bool come_to_a_halt() {
    const bool halted = wait_until([this] { return user_is_next(); }, 60'000);
    // What an operation's end has queued queues more: windows, then their pictures.
    for (int i = 0; i < 10; ++i) {
      QApplication::processEvents();
      QApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return halted;
  }

  void step(int number) {
    random = numbers_of_step(seed, number);
    did.clear();
    long_operation_flags& operation = w->session->operation;
    // One in four is stopped soon; the others late, for what is set may be for days of work.
    operation.interrupt_at_poll = operation.polls + (one_in(4) ? 1 + below(300) : 4000);
    act();
    std::printf("step %d: %s\n", number, did.c_str());
    std::fflush(stdout);
    ASSERT_TRUE(come_to_a_halt()) << "an operation does not end, step " << number;
    if (w->shell.leaving) start_again();
    if (number % steps_to_rest == 0) check_at_rest(number);
  }

  void start_again() {
    const std::string argument = one_in(3) ? one_of(files.paths).toStdString() : "";
    w.reset();
    w = std::make_unique<driven_workstation>(home.path, argument, one_in(2));
  }

  // Waits for what runs and closes what is open, as a patient user does.
  bool come_to_rest() {
    workstation& shell = w->shell;
    QStringList none;
    return wait_until(
        [&] {
          if (w->answer_box(true, none)) return false;
          if (shell.leaving) return true;
          if (shell.paused) shell.desk->resume();
          if (shell.worker.running) return false;
          QWidget* modal = shown_dialog(*w);
          if (modal != nullptr) modal->close();
          return modal == nullptr;
        },
        60'000);
  }

  void check_at_rest(int number) {
    if (!come_to_rest()) {
      const QWidget* modal = QApplication::activeModalWidget();
      FAIL() << "after step " << number << ", running " << w->shell.worker.running << ", leaving "
             << w->shell.leaving << ", in front "
             << (modal != nullptr ? modal->objectName().toStdString() : "nothing");
    }
    if (w->shell.leaving) return start_again();
    ASSERT_EQ(check_session(*w->session), "") << "after step " << number;
    bool turns = false;
    QTimer::singleShot(0, w->shell.frame, [&] { turns = true; });
    ASSERT_TRUE(wait_until([&] { return turns; }));
  }
};

// "SEED:3,5,8": the steps that are taken.
constexpr const char* plan_name = "KESTRELVANE_MONKEY_PLAN";

std::string plan_text(unsigned seed, const std::vector<int>& steps) {
  std::string text = std::to_string(seed) + ':';
  for (const int number : steps) text += std::to_string(number) + ',';
  return text;
}

// Run by the tests below, in a process of its own.
TEST(MonkeyPlan, DISABLED_TakesTheStepsOfItsPlan) {
  const QStringList plan = QString(qgetenv(plan_name)).split(':');
  ASSERT_EQ(plan.size(), 2);
  alarm(most_seconds);
  monkey m(plan[0].toUInt());
  int last = 0;
  for (const QString& number : plan[1].split(',', Qt::SkipEmptyParts)) {
    last = number.toInt();
    ASSERT_NO_FATAL_FAILURE(m.step(last));
    if (HasFailure()) return;
  }
  m.check_at_rest(last);
}

process_result take_steps(unsigned seed, const std::vector<int>& steps) {
  return run_process(
      "/usr/bin/env",
      {std::string(plan_name) + '=' + plan_text(seed, steps), "QT_QPA_PLATFORM=offscreen",
       QApplication::applicationFilePath().toStdString(), "--gtest_filter=MonkeyPlan.DISABLED_*",
       "--gtest_also_run_disabled_tests"});
}

// The lines that tell of steps.
std::string steps_of(const process_result& run) {
  std::istringstream in(run.out);
  std::string steps;
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("step ")) steps += line + '\n';
  }
  return steps;
}

// Leaves out ever smaller parts for as long as the rest still fails. The bound is that of a test
// that somebody waits for; what is then left may not be the shortest.
void shorten(std::vector<int>& steps, const std::function<bool(const std::vector<int>&)>& fails) {
  constexpr int most_runs = 60;
  int n_runs = 0;
  for (std::size_t part = steps.size() / 2; part > 0; part /= 2) {
    for (std::size_t at = 0; at < steps.size() && n_runs < most_runs; ++n_runs) {
      std::vector<int> fewer = steps;
      const auto from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
      fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(part, steps.size() - at)));
      if (fails(fewer)) {
        steps = fewer;
      } else {
        at += part;
      }
    }
  }
}

std::vector<int> first_steps(int n) {
  std::vector<int> steps(static_cast<std::size_t>(n));
  std::iota(steps.begin(), steps.end(), 1);
  return steps;
}

class Monkey : public testing::TestWithParam<unsigned> {};

TEST_P(Monkey, BreaksNothing) {
  const unsigned seed = GetParam();
  std::vector<int> steps = first_steps(steps_per_seed);
  process_result run = take_steps(seed, steps);
  if (run.status == 0) return;
  const int first_status = run.status;
  shorten(steps, [&](const std::vector<int>& fewer) {
    process_result shorter = take_steps(seed, fewer);
    if (shorter.status == 0) return false;
    run = std::move(shorter);
    return true;
  });
  ADD_FAILURE() << "seed " << seed << ", status " << first_status << "; of the shortest sequence "
                << run.status << "; " << plan_name << '=' << plan_text(seed, steps) << '\n'
                << run.out << run.err;
}

TEST(MonkeyPlan, AFailureIsToldByTheStepsThatItNeeds) {
  std::vector<int> steps = first_steps(steps_per_seed);
  int n_runs = 0;
  shorten(steps, [&](const std::vector<int>& taken) {
    ++n_runs;
    return std::find(taken.begin(), taken.end(), 17) != taken.end() &&
           std::find(taken.begin(), taken.end(), 92) != taken.end();
  });
  EXPECT_EQ(steps, (std::vector<int>{17, 92}));
  EXPECT_LE(n_runs, 60);
}

TEST(MonkeyPlan, ASeedDoesTheSameEachTime) {
  const std::vector<int> steps = first_steps(steps_per_seed);
  const std::string once = steps_of(take_steps(5, steps));
  EXPECT_EQ(std::count(once.begin(), once.end(), '\n'), steps_per_seed);
  EXPECT_EQ(steps_of(take_steps(5, steps)), once);
}

void write_random_bytes(const std::string& path, std::mt19937& random, std::size_t n) {
  std::vector<char> bytes(n);
  for (char& byte : bytes) byte = static_cast<char>(random());
  write_bytes(path, bytes);
}

void press_if_there(driven_workstation& w, QDialog* in, const char* button) {
  auto* found = in->findChild<QPushButton*>(button);
  if (found != nullptr && found->isEnabled()) found->click();
  w.settle(true);
}

// Every long operation and every view once, on whatever is in memory.
void use_everything(driven_workstation& w) {
  constexpr std::pair<const char*, const char*> dialogs[] = {
      {"acquisition_properties", "recalculate"},
      {"transform_filter", "do_it"},
      {"event_detection", "start"},
      {"autosort", "start"},
      {"make_status_lists", "begin"},
      {"realign", "realign_all_events"},
      {"sorting_statistics", "done"}};
  for (const auto& [entry, button] : dialogs) {
    w.choose_entry(entry);
    w.settle(true);
    const QPointer<QWidget> modal = shown_dialog(w);
    if (modal == nullptr) continue;  // it has said why not
    if (QString(entry) == "transform_filter") {
      const QList<QCheckBox*> steps = modal->findChildren<QCheckBox*>();
      // A filter by frequency takes a long transform for each channel, however short.
      const bool few = w.session->recording.n_channels <= 64;
      for (QCheckBox* step : steps) step->setChecked(few || step->objectName() == "do_common_mean");
    }
    press_if_there(w, qobject_cast<QDialog*>(modal.data()), button);
    if (modal && modal == shown_dialog(w)) modal->close();
    w.settle(true);
    EXPECT_EQ(shown_dialog(w), nullptr) << entry;
    EXPECT_EQ(check_session(*w.session), "") << entry;
  }
  w.choose_entry("voltage_record");
  for (const float scale : {1e-6f, 0.01f, 1.0f, 1e6f}) {
    w.session->display.vd_time_scale = scale;
    redraw_voltage_display(w.shell);
    for (const int key :
         {Qt::Key_Left, Qt::Key_End, Qt::Key_PageDown, Qt::Key_Down, Qt::Key_Home}) {
      QTest::keyClick(w.shell.graphs[0]->surface(), static_cast<Qt::Key>(key));
    }
    QApplication::processEvents();
  }
}

TEST(EventDetection, AMaskReachesTheTemplatesThatAreThere) {
  const temporary_directory home, data;
  driven_workstation w(home.path, make_small_recording(data));
  w.choose_entry("autosort");
  QDialog* sort = w.dialog("autosort_dialog");
  w.set_number(sort, "min_cluster_size", 20);
  w.press(sort, "start");
  w.settle();
  w.press(sort, "done");
  w.settle();
  ASSERT_GE(w.session->clusters.n_clusters, 2);
  w.choose_entry("event_detection");
  QDialog* dialog = w.dialog("event_detection_dialog");
  w.settle();
  w.control<QSlider>(dialog, "channel")->setValue(w.session->templates.centre_channel(1));
  w.tick(dialog, "mask_channel", true);
  EXPECT_NE(check_session(*w.session), "");
  dialog->close();
  w.settle();
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(SmallestAndWidest, EveryOperationOnRecordingsOfFewSamplesAndManyChannels) {
  const temporary_directory home, data;
  driven_workstation w(home.path);
  for (const auto& [n_channels, n_samples] :
       {std::pair{1, 1}, {1, 99}, {2, 1505}, {64, 1506}, {4096, 150}}) {
    tsf_fixture recording;
    recording.n_channels = n_channels;
    recording.n_samples = n_samples;
    const std::string path = data.file(std::to_string(n_channels) + ".tsf");
    write_bytes(path, tsf_bytes(recording));
    w.choose_entry("open_recording");
    w.settle(true, {qt(path)});
    w.close_messages();
    if (w.session->recording.n_samples == 0) continue;  // refused, in words
    SCOPED_TRACE(path);
    use_everything(w);
  }
}

TEST(DamagedState, RandomBytesInEveryStateFileStartAsANewInstallation) {
  const temporary_directory data;
  const std::string path = make_small_recording(data);
  for (unsigned seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    const temporary_directory home;
    std::mt19937 random(seed);
    for (const auto& [name, n] : {std::pair<const char*, std::size_t>{"kv_prefs.sav", 268},
                                  {"kv_parameters.sav", parameters_file_bytes},
                                  {"kv.ufl", 2568},
                                  {"kv_restart.sav", 5000},
                                  {"kv_autorecover.sav", 5000}}) {
      write_random_bytes(home.file(name), random, n);
    }
    driven_workstation w(home.path, seed % 2 == 0 ? path : "", true);
    EXPECT_LT(w.shell.frame->width(), 3000);
    if (seed % 2 != 0) {
      w.choose_entry("open_recording");
      w.settle(true, {qt(path)});
      w.close_messages();
    }
    ASSERT_GT(w.session->recording.n_samples, 0);
    use_everything(w);
    EXPECT_LT(w.shell.graphs[0]->width(), 3000);
  }
}

// Four in every run of the tests; for a night of them the variable says which, "FIRST:COUNT".
std::pair<unsigned, unsigned> wanted_seeds() {
  unsigned first = 1, count = 4;
  const char* wanted = std::getenv("KESTRELVANE_MONKEY_SEEDS");
  if (wanted != nullptr && std::sscanf(wanted, "%u:%u", &first, &count) == 1) {
    count = std::exchange(first, 1);
  }
  return {first, first + count};
}

INSTANTIATE_TEST_SUITE_P(Seeds, Monkey,
                         testing::Range(wanted_seeds().first, wanted_seeds().second));

}  // namespace
}  // namespace kestrelvane::test
