// The table of windows, graphs in a window, and drawing while a worker has the session.
#include <gmock/gmock.h>

#include <QAction>
#include <QElapsedTimer>
#include <QMdiArea>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QWheelEvent>
#include <atomic>
#include <cmath>
#include <set>

#include "displays/display_fonts.h"
#include "session/long_operation.h"
#include "session/run_log.h"
#include "session/user_interface.h"
#include "workstation/commands/commands.h"
#include "workstation/driven_workstation.h"
#include "workstation/interface_desk.h"
#include "workstation/windows/graph_plot.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"
#include "workstation/windows/window_table.h"

namespace kestrelvane::test {
namespace {

void turn(QWidget* surface, int notches, Qt::KeyboardModifiers keys = Qt::NoModifier,
          QPointF at = QPointF(200, 200)) {
  QWheelEvent event(at, surface->mapToGlobal(at), {}, QPoint(0, 120 * notches), Qt::NoButton, keys,
                    Qt::NoScrollPhase, false);
  QApplication::sendEvent(surface, &event);
}

struct recording_on_show {
  temporary_directory home, data;
  driven_workstation w{home.path, make_small_recording(data)};

  recording_on_show() {
    w.choose_entry("voltage_record");
    w.session->view.vd_first_sample = 20000;
    redraw_voltage_display(w.shell);
  }
  ~recording_on_show() { w.settle(); }
  graph_surface* surface() { return graph_of(w.shell, graph_kind::voltage_record)->surface(); }
  QImage picture() { return surface()->picture(); }
  bool start(session_routine routine) {
    return start_operation(w.shell, std::move(routine), nullptr);
  }
};

// Every sample of the first channel in sort order: a level line at that height.
void set_level(session_state& session, int bits) {
  recording_store& r = session.recording;
  std::int16_t* samples = r.vd.channel(r.chan_sort_order[1]);
  for (std::int32_t t = 19000; t < 24000; ++t) samples[t] = static_cast<std::int16_t>(bits);
}

void pause_now(session_state& session) {
  session.operation.pause_requested = true;
  pause_point(session);
}

TEST(WindowTable, EveryRowIsInItsPlaceAndReadable) {
  std::set<std::string> names;
  std::set<int> sizes, origins;
  for (int kind = 0; kind < window_count; ++kind) {
    const window_row& row = window_row_of(static_cast<graph_kind>(kind));
    EXPECT_EQ(static_cast<int>(row.kind), kind) << row.title;
    EXPECT_TRUE(names.insert(row.object_name).second) << row.object_name;
    font_description font;
    EXPECT_TRUE(row.font == nullptr || parse_font(row.font, font)) << row.font;
    EXPECT_TRUE(row.size_slot == no_slot || sizes.insert(row.size_slot).second);
    EXPECT_TRUE(row.origin_slot == no_slot || origins.insert(row.origin_slot).second);
  }
  EXPECT_EQ(window_count, 18);
  EXPECT_EQ(origins.size(), 6u) << "every place of the preferences has its window";
}

TEST(WindowTable, WindowsOpenOnceStandInTheirPlacesAndKeepThem) {
  const temporary_directory home;
  driven_workstation w(home.path);
  preferences_record& p = w.session->preferences;
  p.window_size[4] = 333;  // of the principal components
  p.window_size[5] = 222;
  for (int i = 0; i < window_count - 1; ++i) {
    const auto kind = static_cast<graph_kind>(i);
    graph_window* window = open_graph(w.shell, kind);
    EXPECT_EQ(window->windowTitle(), window_row_of(kind).title);
    EXPECT_EQ(w.shell.frame->area()->activeSubWindow(), window);
    EXPECT_EQ(open_graph(w.shell, kind, window->surface()->size()), window) << "used again";
  }
  graph_window* components = graph_of(w.shell, graph_kind::principal_components);
  EXPECT_EQ(components->surface()->size(), QSize(333, 222));
  const QImage blank = components->surface()->picture();
  EXPECT_EQ(blank.pixelColor(100, 100), Qt::white) << "no routine yet";
  EXPECT_EQ(open_graph(w.shell, graph_kind::principal_components, QSize(300, 200), "PC 7"),
            components);
  EXPECT_EQ(components->surface()->size(), QSize(300, 200));
  EXPECT_EQ(components->windowTitle(), "PC 7");

  const auto autopositioned = [&] {
    const run_log_table& log = w.session->log;
    int n = 0;
    for (std::int32_t i = 1; i <= log.n_log_lines; ++i) {
      n += std::string_view(log.log_lines[i].view()).starts_with("Autopositioning SAT window");
    }
    return n;
  };
  const int before = autopositioned();
  w.choose_entry("auto_arrange");
  EXPECT_EQ(autopositioned(), before + 1);
  std::set<std::pair<int, int>> places;
  for (int i = 0; i < window_count - 1; ++i) {
    const graph_window* window = graph_of(w.shell, static_cast<graph_kind>(i));
    places.insert({window->x(), window->y()});
    const int slot = window_row_of(static_cast<graph_kind>(i)).origin_slot;
    if (slot == no_slot) continue;
    EXPECT_EQ(window->pos(), QPoint(p.window_origin[2 * slot], p.window_origin[2 * slot + 1]));
  }
  EXPECT_GE(places.size(), 11u) << "hardly one hides another";
  components->move(44, 55);
  w.leave(false);
  driven_workstation next(home.path);
  EXPECT_EQ(next.session->preferences.window_origin[2 * slot_principal_components], 44);
  EXPECT_EQ(next.session->preferences.window_size[4], 300);
  open_graph(next.shell, graph_kind::principal_components);
  EXPECT_EQ(graph_of(next.shell, graph_kind::principal_components)->pos(), QPoint(44, 55));
}

// A graph of one line, as a window to come may show it.
struct plotted {
  temporary_directory home;
  driven_workstation w{home.path};
  std::shared_ptr<graph_plot> plot = std::make_shared<graph_plot>();
  int gathered = 0;
  std::unique_ptr<graph_surface> surface;

  plotted() {
    plot->numbers = [this](session_state&) {
      ++gathered;
      graph_data graph;
      for (int i = 0; i <= 100; ++i) {
        graph.series[0].x.push_back(static_cast<float>(i));
        graph.series[0].y.push_back(static_cast<float>(i % 10));
      }
      return graph;
    };
    surface = std::make_unique<graph_surface>(w.shell, plot_routines(w.shell, plot));
    surface->resize(400, 300);
    surface->redraw();
  }
  void drag(QPoint from, QPoint to, Qt::KeyboardModifiers keys) {
    QTest::mousePress(surface.get(), Qt::LeftButton, keys, from);
    QTest::mouseMove(surface.get(), (from + to) / 2);
    QTest::mouseMove(surface.get(), to);
    QTest::mouseRelease(surface.get(), Qt::LeftButton, keys, to);
  }
};

TEST(GraphPlot, ZoomsMovesAndShowsTheWholeAgain) {
  plotted p;
  const graph_view whole = p.plot->drawn.view;
  const QImage picture = p.surface->picture();
  EXPECT_EQ(whole, whole_view(p.plot->graph));
  turn(p.surface.get(), 3);
  EXPECT_LT(p.plot->drawn.view.x_to - p.plot->drawn.view.x_from, 0.6 * (whole.x_to - whole.x_from));
  EXPECT_NE(p.surface->picture(), picture);
  turn(p.surface.get(), -3);
  EXPECT_NEAR(p.plot->drawn.view.x_from, whole.x_from, 1e-9);
  turn(p.surface.get(), 1, Qt::ControlModifier);
  EXPECT_NEAR(p.plot->drawn.view.y_to, whole.y_to, 1e-9);
  EXPECT_LT(p.plot->drawn.view.x_to, whole.x_to);

  QTest::mouseDClick(p.surface.get(), Qt::LeftButton, {}, QPoint(200, 150));
  EXPECT_EQ(p.surface->picture(), picture);
  const QPointF value = value_at(p.plot->drawn, QPointF(150, 100));
  p.drag(QPoint(150, 100), QPoint(190, 130), Qt::NoModifier);
  const QPointF moved = pixel_of(p.plot->drawn, value.x(), value.y());
  EXPECT_NEAR(moved.x(), 190, 1.5);
  EXPECT_NEAR(moved.y(), 130, 1.5);
  QTest::mouseDClick(p.surface.get(), Qt::LeftButton, {}, QPoint(200, 150));
  const QPointF a = value_at(p.plot->drawn, QPointF(100, 200));
  const QPointF b = value_at(p.plot->drawn, QPointF(200, 100));
  p.drag(QPoint(200, 100), QPoint(100, 200), Qt::ShiftModifier);
  EXPECT_NEAR(p.plot->drawn.view.x_from, a.x(), 1e-6 + std::abs(b.x() - a.x()) / 50);
  EXPECT_NEAR(p.plot->drawn.view.y_to, b.y(), 1e-6 + std::abs(b.y() - a.y()) / 50);
  EXPECT_FALSE(p.surface->has_selection()) << "it was for the zoom";
  EXPECT_EQ(p.gathered, 1) << "all from the same numbers";
}

TEST(GraphPlot, ZoomsWhileAWorkerHasTheSessionAndFollowsTheTheme) {
  plotted p;
  std::atomic<bool> began = false, over = false;
  ASSERT_TRUE(start_operation(
      p.w.shell,
      [&](session_state&) {
        began = true;
        while (!over) QThread::msleep(1);
      },
      nullptr));
  while (!began) QThread::msleep(1);  // until then the gate is free
  const QImage before = p.surface->picture();
  turn(p.surface.get(), 2);
  const QImage zoomed = p.surface->picture();
  EXPECT_NE(zoomed, before);
  p.surface->redraw();
  EXPECT_EQ(p.gathered, 1) << "the session is the worker's";
  over = true;
  p.w.settle();
  const QPalette light = QApplication::palette();
  QPalette dark = light;
  dark.setColor(QPalette::Base, QColor(10, 20, 30));
  dark.setColor(QPalette::Text, Qt::white);
  QApplication::setPalette(dark);
  QApplication::processEvents();
  EXPECT_EQ(p.surface->picture().pixelColor(2, 2), QColor(10, 20, 30));
  QApplication::setPalette(light);
}

TEST(DrawingInAPause, WindowsFollowScrollAndResize) {
  recording_on_show v;
  driven_workstation& w = v.w;
  std::atomic<bool> resumed = false, over = false;
  const QImage before = v.picture();
  ASSERT_TRUE(v.start([&](session_state& session) {
    set_level(session, 500);
    pause_now(session);
    resumed = true;
    while (!over) QThread::msleep(1);
  }));
  EXPECT_FALSE(w.shell.voltage->dialog->isEnabled());
  ASSERT_TRUE(wait_until([&] { return w.shell.paused; }));
  EXPECT_NE(v.picture(), before) << "what the worker did before it paused";
  EXPECT_TRUE(w.shell.voltage->dialog->isEnabled());
  // The same picture as without an operation.
  graph_window* window = graph_of(w.shell, graph_kind::voltage_record);
  window->resize(window->width() + 120, window->height() + 30);
  QApplication::processEvents();
  const QImage resized = v.picture();
  EXPECT_EQ(resized.size(), v.surface()->size());
  turn(v.surface(), -1);
  EXPECT_GT(w.session->view.vd_first_sample, 20000);
  EXPECT_NE(v.picture(), resized);
  turn(v.surface(), 1);
  EXPECT_EQ(v.picture(), resized);
  QTest::keyClick(v.surface(), Qt::Key_PageDown);
  EXPECT_NE(v.picture(), resized);
  QTest::keyClick(v.surface(), Qt::Key_PageUp);

  w.shell.desk->resume();
  EXPECT_FALSE(w.shell.voltage->dialog->isEnabled()) << "before the worker moves";
  ASSERT_TRUE(wait_until([&] { return resumed.load(); }));
  const std::int32_t first = w.session->view.vd_first_sample;
  turn(v.surface(), -1);
  EXPECT_EQ(w.session->view.vd_first_sample, first) << "the worker has the session";
  over = true;
  w.settle();
  EXPECT_TRUE(w.shell.voltage->dialog->isEnabled());
  redraw_voltage_display(w.shell);
  EXPECT_EQ(v.picture(), resized) << "drawn in the pause as ever";
}

TEST(DrawingInAPause, WaitsForASaveWithoutWaiting) {
  recording_on_show v;
  driven_workstation& w = v.w;
  std::atomic<bool> began = false, saving = false, saved = false;
  const QImage before = v.picture();
  ASSERT_TRUE(v.start([&](session_state& session) {
    began = true;
    set_level(session, 500);
    pause_now(session);
  }));
  while (!began) QThread::msleep(1);
  // As the recovery timer does, the saver takes the gate that the pause sets free.
  std::thread saver([&] {
    const session_hold hold(*w.session);
    saving = true;
    while (!saved) QThread::msleep(1);
  });
  while (!saving) QThread::msleep(1);
  ASSERT_TRUE(wait_until([&] { return w.shell.paused; }));
  QElapsedTimer clock;
  clock.start();
  refresh_windows(w.shell);
  turn(v.surface(), -1);
  EXPECT_LT(clock.elapsed(), 50);
  EXPECT_EQ(v.picture(), before);
  saved = true;
  EXPECT_TRUE(wait_until([&] { return v.picture() != before; })) << "drawn when it is through";
  saver.join();
  w.shell.desk->resume();
}

TEST(DrawingAtARefresh, ThePictureFollowsARunningOperation) {
  recording_on_show v;
  const auto picture_of = [&](int bits) {
    set_level(*v.w.session, bits);
    v.surface()->redraw();
    return v.picture();
  };
  const QImage at_once = picture_of(300), at_a_poll = picture_of(-300), at_the_end = picture_of(0);
  ASSERT_TRUE(at_once != at_a_poll && at_a_poll != at_the_end && at_the_end != at_once);
  QTest::qWait(500);  // since the refresh of the open
  std::atomic<int> step = 0;
  ASSERT_TRUE(v.start([&](session_state& session) {
    set_level(session, 300);
    refresh_displays(session);
    // On a busy machine this thread may have given up waiting before the other one came.
    while (step < 1) {
      QThread::msleep(20);
      refresh_displays(session);
    }
    // The second comes too soon after the first, and is made up for at a poll.
    for (const int bits : {100, -300}) {
      set_level(session, bits);
      refresh_displays(session);
    }
    while (step < 2) autosort_interrupted(session);
    for (const int bits : {600, 0}) {
      set_level(session, bits);
      refresh_displays(session);
    }
  }));
  EXPECT_TRUE(wait_until([&] { return v.picture() == at_once; }));
  step = 1;
  EXPECT_TRUE(wait_until([&] { return v.picture() == at_a_poll; }));
  EXPECT_TRUE(v.w.shell.worker.running);
  step = 2;
  v.w.settle();
  EXPECT_EQ(v.picture(), at_the_end);
}

TEST(DrawingAtARefresh, AFastWorkerIsHardlySlowed) {
  recording_on_show v;
  int drawn = 0;
  QObject::connect(v.w.shell.desk, &interface_desk::refresh_requested, v.surface(),
                   [&drawn] { ++drawn; });
  std::atomic<int> refreshes = 0;
  ASSERT_TRUE(v.start([&](session_state& session) {
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 1500) {
      refresh_displays(session);
      autosort_interrupted(session);
      ++refreshes;
    }
  }));
  v.w.settle();
  EXPECT_GE(drawn, 2);
  EXPECT_LE(drawn, 11) << "150 ms apart";
  EXPECT_GT(refreshes, 20'000);
}

// Whoever holds up the interface thread may wait for this very worker.
TEST(DrawingAtARefresh, ABusyInterfaceThreadHoldsNobody) {
  recording_on_show v;
  std::atomic<bool> through = false;
  ASSERT_TRUE(v.start([&](session_state& session) {
    for (int i = 0; i < 20; ++i) {
      refresh_displays(session);
      QThread::msleep(1);
    }
    through = true;
  }));
  QElapsedTimer clock;
  clock.start();
  while (!through && clock.elapsed() < 5000) QThread::msleep(1);  // and no event is handled
  EXPECT_TRUE(through);
  EXPECT_LT(clock.elapsed(), 1000) << "the bound, once";
}

TEST(DrawingAtARefresh, WindowsCloseAndProgramsEndMeanwhile) {
  for (const bool ends : {false, true}) {
    recording_on_show v;
    std::atomic<bool> over = false;
    ASSERT_TRUE(v.start([&](session_state& session) {
      while (!over && !autosort_interrupted(session)) refresh_displays(session);
    }));
    for (int i = 0; i < 10; ++i) QApplication::processEvents(QEventLoop::AllEvents, 20);
    if (ends) {
      join_worker(v.w.shell);  // this thread handles nothing more
    } else {
      graph_of(v.w.shell, graph_kind::voltage_record)->close();
      v.w.shell.frame->close();
      for (int i = 0; i < 10; ++i) QApplication::processEvents(QEventLoop::AllEvents, 20);
      EXPECT_FALSE(v.w.shell.leaving) << "an operation runs";
    }
    over = true;
    v.w.settle();
  }
  // A worker at a pause point, and nobody left to resume it.
  recording_on_show v;
  ASSERT_TRUE(v.start([&](session_state& session) { pause_now(session); }));
  join_worker(v.w.shell);
}

TEST(OperationDialog, LeavesTheFrameToTheUserWhileTheWorkerPauses) {
  recording_on_show v;
  auto* dialog = new operation_dialog(v.w.shell, "test_dialog", "Test");
  open_dialog(v.w.shell, dialog);
  dialog->run([](session_state& session) { pause_now(session); }, nullptr);
  EXPECT_TRUE(dialog->isModal());
  ASSERT_TRUE(wait_until([&] { return v.w.shell.paused; }));
  EXPECT_TRUE(dialog->isVisible() && !dialog->isModal());
  v.w.shell.desk->resume();
  EXPECT_TRUE(dialog->isVisible() && dialog->isModal());
  v.w.settle();
  dialog->close();
}

}  // namespace
}  // namespace kestrelvane::test
