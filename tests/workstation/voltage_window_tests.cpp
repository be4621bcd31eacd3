// The voltage record's window and dialog, and what every graph window can do.
#include <gmock/gmock.h>
#include <QAction>

#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QLabel>
#include <QMdiArea>
#include <QPainter>
#include <QPicture>
#include <QPlainTextEdit>
#include <QRadioButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSlider>
#include <QStatusBar>
#include <QTest>
#include <QVBoxLayout>
#include <QWheelEvent>

#include "signal/display_scale.h"
#include "support/full_device.h"
#include "workstation/commands/commands.h"
#include "workstation/dialogs/dialog_parts.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/driven_workstation.h"
#include "workstation/windows/graph_windows.h"
#include "workstation/windows/voltage_window.h"

namespace kestrelvane::test {
namespace {

// A recording on show, with the dialog open.
struct voltage_on_show {
  temporary_directory home, data;
  driven_workstation w{home.path, make_small_recording(data)};
  QDialog* dialog = nullptr;

  voltage_on_show() {
    w.choose_entry("voltage_record");
    dialog = w.dialog("voltage_dialog");
  }
  graph_surface* surface() { return w.shell.graphs[0]->surface(); }
  voltage_view& view() { return w.session->view; }
  void turn(int notches, Qt::KeyboardModifiers keys) {
    QWheelEvent event(QPointF(200, 200), surface()->mapToGlobal(QPointF(200, 200)), {},
                      QPoint(0, 120 * notches), Qt::NoButton, keys, Qt::NoScrollPhase, false);
    QApplication::sendEvent(surface(), &event);
  }
};

TEST(VoltageWindow, FillsTheFrameUntilThePreferencesSayOtherwise) {
  voltage_on_show v;
  graph_window* window = v.w.shell.graphs[0];
  EXPECT_EQ(window->windowTitle(), "Event display");
  const QSize area = v.w.shell.frame->area()->viewport()->size();
  EXPECT_EQ(window->width(), area.width());
  EXPECT_EQ(window->height(), v.w.shell.run_log->parentWidget()->y()) << "down to the run log";
  EXPECT_EQ(v.view().vd_width, v.surface()->width());
  keep_window_sizes(v.w.shell);
  const std::int32_t* size = v.w.session->preferences.voltage_window_size;
  EXPECT_EQ(QSize(size[0], size[1]), QSize(790, 600)) << "the next frame is filled, too";
  // It goes with the frame, until the user takes it in hand.
  main_frame* frame = v.w.shell.frame;
  frame->resize(frame->size() + QSize(200, 150));
  QApplication::processEvents();
  EXPECT_EQ(window->size(), QSize(area.width() + 200, v.w.shell.run_log->parentWidget()->y()));
  window->resize(500, 400);
  frame->resize(frame->size() - QSize(200, 150));
  QApplication::processEvents();
  EXPECT_EQ(window->size(), QSize(500, 400));
  // At a size that the user has chosen it is made, and made again.
  v.w.session->preferences.voltage_window_size[0] = 700;
  v.w.choose_entry("voltage_record");
  EXPECT_EQ(v.surface()->size(), QSize(700, 600));
  window->resize(500, 400);
  v.w.choose_entry("voltage_record");
  EXPECT_EQ(v.surface()->size(), QSize(700, 600));
  keep_window_sizes(v.w.shell);
  EXPECT_EQ(size[0], 700);
}

TEST(VoltageWindow, WheelAndKeysMoveZoomAndScale) {
  voltage_on_show v;
  v.view().vd_first_sample = 20000;
  v.turn(-1, Qt::NoModifier);
  const std::int32_t moved = v.view().vd_first_sample;
  EXPECT_GT(moved, 20000);
  v.turn(1, Qt::NoModifier);
  EXPECT_EQ(v.view().vd_first_sample, 20000);
  const float time = v.w.session->display.vd_time_scale;
  v.turn(1, Qt::ControlModifier);
  EXPECT_GT(v.w.session->display.vd_time_scale, time);
  const float voltage = v.w.session->display.vd_voltage_scale;
  v.turn(1, Qt::ShiftModifier);
  EXPECT_GT(v.w.session->display.vd_voltage_scale, voltage);
  const std::int32_t before = v.view().vd_first_sample;
  QTest::keyClick(v.surface(), Qt::Key_PageDown);
  EXPECT_GT(v.view().vd_first_sample, before);
  QTest::keyClick(v.surface(), Qt::Key_Home);
  EXPECT_EQ(v.view().vd_first_sample, 1);
}

TEST(VoltageWindow, PointingReadsOut) {
  voltage_on_show v;
  QTest::mouseMove(v.surface(), QPoint(300, 40));
  QTest::mouseClick(v.surface(), Qt::LeftButton, {}, QPoint(300, 40));
  EXPECT_TRUE(v.w.shell.voltage->shows_reading);
  const QImage with = v.surface()->picture();
  v.w.shell.voltage->shows_reading = false;
  EXPECT_NE(with, v.surface()->picture());
}

TEST(VoltageDialog, ControlsMoveTheViewAndFollowIt) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  display_settings& d = w.session->display;
  w.control<number_field>(v.dialog, "vd_time_scale_step")->setValue(1005);
  EXPECT_EQ(d.vd_time_scale, time_scale_at(1005));
  w.set_number(v.dialog, "vd_voltage_scale", 0.35);
  EXPECT_EQ(d.vd_voltage_scale, 0.35f);
  EXPECT_EQ(w.control<number_field>(v.dialog, "vd_voltage_scale_step")->value(),
            position_of_voltage_scale(0.35f));
  w.control<number_field>(v.dialog, "vd_channel_spacing")->setValue(64);
  EXPECT_EQ(d.vd_channel_spacing, 64);
  w.control<QSlider>(v.dialog, "vd_slider_position")->setValue(135);
  const std::int32_t middle = v.view().vd_first_sample;
  EXPECT_NEAR(middle, w.session->recording.n_samples / 2, w.session->recording.n_samples / 100);
  w.press(v.dialog, "move_coarse_on");
  EXPECT_GT(v.view().vd_first_sample, middle);
  w.press(v.dialog, "move_fine_back");
  EXPECT_FALSE(w.control<QLabel>(v.dialog, "position_minutes")->text().isEmpty());
  w.set_number(v.dialog, "index", 5000);
  w.press(v.dialog, "go_to_index");
  EXPECT_EQ(v.view().vd_first_sample, 5000 - v.view().vd_lead_samples);
  w.control<QScrollBar>(v.dialog, "vd_first_channel")->setValue(3);
  EXPECT_EQ(v.view().vd_first_channel, 3);
  w.tick(v.dialog, "vd_grey_scale", true);
  EXPECT_TRUE(v.view().vd_grey_scale);
  for (const char* box : {"vd_show_events", "vd_cluster_colours", "vd_cluster_numbers",
                          "vd_msec_grid", "vd_reverse_contrast", "vd_show_template_channel"}) {
    const QImage before = v.surface()->picture();
    auto* tick = w.control<QCheckBox>(v.dialog, box);
    tick->click();
    tick->click();
    EXPECT_EQ(v.surface()->picture(), before) << box;
  }
  EXPECT_FALSE(w.control<QCheckBox>(v.dialog, "vd_show_proto_events")->isEnabled());
}

TEST(VoltageDialog, JumpsToEventsAndRingsThem) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  w.choose_entry("event_detection");
  QDialog* detection = w.dialog("event_detection_dialog");
  w.settle();
  w.press(detection, "start");
  w.settle();
  w.press(detection, "done");
  w.settle();
  const event_table& events = w.session->events;
  ASSERT_GT(events.n_events, 10);
  w.choose_entry("voltage_record");  // a new dialog, over the events
  v.dialog = w.dialog("voltage_dialog");
  EXPECT_TRUE(w.control<QCheckBox>(v.dialog, "vd_show_proto_events")->isEnabled());
  w.set_number(v.dialog, "event", 7);
  w.press(v.dialog, "go_to_event");
  EXPECT_EQ(v.view().vd_first_sample, std::max(events.event_time[7] - v.view().vd_lead_samples, 1));
  w.set_number(v.dialog, "channel", events.event_channel[7]);
  w.press(v.dialog, "go_to_channel");
  EXPECT_TRUE(v.view().vd_highlight_on);
  const int reached = static_cast<int>(w.control<number_field>(v.dialog, "event")->value());
  EXPECT_GT(reached, 7);
  EXPECT_EQ(events.event_channel[reached], events.event_channel[7]);
}

TEST(VoltageDialog, WaitsForTheWorkerAndGoesWithItsRecording) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  // Return in a field is that field's, not the dialog's.
  auto* index = w.control<number_field>(v.dialog, "index");
  index->selectAll();
  QTest::keyClicks(index, "70000");
  QTest::keyClick(index, Qt::Key_Return);
  EXPECT_EQ(v.view().vd_first_sample, 70000 - v.view().vd_lead_samples);
  EXPECT_TRUE(v.dialog->isVisible());
  bool enabled = true;
  start_operation(
      w.shell, [](session_state&) {}, nullptr);
  enabled = v.dialog->isEnabled();
  w.settle();
  EXPECT_FALSE(enabled) << "it writes what the worker reads";
  EXPECT_TRUE(v.dialog->isEnabled());
  const QPointer<graph_window> first = w.shell.graphs[0];
  w.choose_entry("open_recording");
  w.settle(true, {QString::fromStdString(v.data.file("small.tsf"))});
  w.close_messages();
  EXPECT_GT(w.session->recording.n_samples, 0);
  ASSERT_FALSE(w.shell.graphs[0].isNull());
  EXPECT_NE(w.shell.graphs[0], first) << "another recording, another window";
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("voltage_dialog"), nullptr);
}

TEST(GraphWindow, ARectangleGoesToTheClipboard) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  auto* copy = w.shell.frame->findChild<QAction*>("button_40007");
  EXPECT_FALSE(copy->isEnabled());
  QApplication::clipboard()->clear();
  const auto drag = [&](QPoint from, QPoint to) {
    w.choose_entry("button_40004");
    QTest::mousePress(v.surface(), Qt::LeftButton, {}, from);
    QTest::mouseMove(v.surface(), to);
    QTest::mouseRelease(v.surface(), Qt::LeftButton, {}, to);
  };
  const auto last_line = [&] {
    const auto& log = w.session->log;
    return std::string(log.log_lines[log.n_log_lines].view());
  };
  drag(QPoint(50, 60), QPoint(50, 60));
  EXPECT_EQ(last_line(), "Selecting ...");
  EXPECT_FALSE(copy->isEnabled()) << "a rectangle of no size";
  drag(QPoint(150, 160), QPoint(50, 60));
  ASSERT_TRUE(copy->isEnabled());
  w.choose_entry("button_40007");
  EXPECT_EQ(QApplication::clipboard()->image().size(), QSize(100, 100));
  EXPECT_EQ(last_line(), "selection copied to clipboard");
  EXPECT_FALSE(copy->isEnabled());
  // The window has gone with its rectangle.
  drag(QPoint(150, 160), QPoint(50, 60));
  delete w.shell.graphs[0];
  QApplication::clipboard()->clear();
  copy_selection_command(w.shell);
  EXPECT_EQ(last_line(), "copy failed");
  EXPECT_TRUE(QApplication::clipboard()->image().isNull());
}

TEST(GraphWindow, APictureThatIsTooLargeIsNotCopied) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer ends a process that asks for so much";
#endif
  voltage_on_show v;
  graph_window* window = graph_of(v.w.shell, graph_kind::voltage_record);
  // A thousand terabytes are more than a process can address.
  window->resize(16'000'000, 16'000'000);
  v.w.choose_entry("button_40004");
  QTest::mousePress(v.surface(), Qt::LeftButton, {}, QPoint(50, 60));
  QTest::mouseMove(v.surface(), QPoint(150, 160));
  QTest::mouseRelease(v.surface(), Qt::LeftButton, {}, QPoint(150, 160));
  QApplication::clipboard()->clear();
  v.w.choose_entry("button_40007");
  v.w.settle();
  EXPECT_TRUE(v.w.told.contains("Not enough memory for buffer"));
  EXPECT_TRUE(QApplication::clipboard()->image().isNull());
}

TEST(GraphWindow, SavesWhatItShowsAsNumbers) {
  voltage_on_show v;
  v.view().vd_first_sample = 1001;
  v.w.session->display.vd_time_scale = 2;
  const graph_data graph = v.surface()->graph();
  const std::vector<float>& x = graph.series[3].x;
  ASSERT_GT(x.size(), 300u);
  EXPECT_FLOAT_EQ(x.front(), 1001 * 1000.0f / 25000);
  const std::int32_t channel = v.w.session->recording.chan_sort_order[4];
  EXPECT_EQ(graph.series[3].y[7],
            v.w.session->recording.vd.channel(channel)[1008] * v.w.session->recording.vscale_HP);
  EXPECT_TRUE(graph.series[4].x.empty()) << "four channels";
  save_graph_command(v.w.shell);
  QStringList offered;
  EXPECT_TRUE(wait_until([&] {
    for (const QWidget* window : QApplication::topLevelWidgets()) {
      const auto* files = qobject_cast<const QFileDialog*>(window);
      if (files != nullptr && files->isVisible()) offered = files->nameFilters();
    }
    return !offered.isEmpty();
  }));
  EXPECT_TRUE(offered.value(0).startsWith("Graph files(*.GRA)"));
  EXPECT_TRUE(offered.value(2).startsWith("All files(*.*)"));
  const std::string path = v.data.file("view.gra");
  v.w.settle(true, {QString::fromStdString(path)});
  EXPECT_TRUE(v.w.told.contains("Graph saved successfully"));
  const std::vector<char> bytes = read_bytes(path);
  ASSERT_GT(bytes.size(), 2u);
  EXPECT_EQ(static_cast<signed char>(bytes[0]), -23);
  EXPECT_EQ(static_cast<signed char>(bytes[1]), -1);
}

TEST(GraphWindow, SavesItsPictureAndArranges) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  const QString path = QString::fromStdString(v.data.file("picture.png"));
  w.choose_entry("save_bitmap");
  w.settle(true, {path});
  EXPECT_EQ(QImage(path).size(), v.surface()->picture().size());
  {
    const full_device full;
    const QString other = QString::fromStdString(v.data.file("other.png"));
    w.choose_entry("save_bitmap");
    w.settle(true, {other});
    EXPECT_EQ(w.told.value(0), "Failed to save file " + other + ": File too large");
  }
  EXPECT_THAT(partial_files(v.data.file("other.png")), testing::IsEmpty());
  w.shell.graphs[0]->move(200, 100);
  w.choose_entry("auto_arrange");
  EXPECT_EQ(w.shell.graphs[0]->pos(), QPoint(0, 0));
  w.choose_entry("cascade");
  EXPECT_EQ(w.shell.graphs[0]->pos(), QPoint(0, 0));
  // Where the user leaves it, the next run finds it.
  w.shell.graphs[0]->move(30, 40);
  w.leave(false);
  driven_workstation next(v.home.path);
  EXPECT_EQ(next.session->preferences.window_origin[10], 30);
  EXPECT_EQ(next.session->preferences.window_origin[11], 40);
}

TEST(VoltageDialog, TheKeyboardBelongsToTheTraces) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  v.view().vd_first_sample = 20000;
  QWidget* focus = v.dialog->focusWidget();
  ASSERT_TRUE(focus == nullptr || focus == v.dialog) << "no field has the cursor at first";
  const auto moved = [&](QWidget* where, Qt::Key key) {
    const std::int32_t before = v.view().vd_first_sample;
    QTest::keyClick(where, key);
    return v.view().vd_first_sample - before;
  };
  EXPECT_EQ(moved(v.dialog, Qt::Key_PageDown), 250);
  EXPECT_EQ(moved(v.dialog, Qt::Key_Left), -15);
  auto* box = w.control<QCheckBox>(v.dialog, "vd_msec_grid");
  box->setFocus();
  EXPECT_EQ(moved(box, Qt::Key_Right), 15) << "and not to the next box";
  // The slider keeps its keys, and is not stuck.
  auto* slider = w.control<QSlider>(v.dialog, "vd_slider_position");
  slider->setFocus();
  for (int i = 0; i < 5; ++i) {
    const int before = slider->value();
    EXPECT_GT(moved(slider, Qt::Key_Right), 500) << i;
    EXPECT_GT(slider->value(), before);
  }
  // In a field the cursor moves, and Return gives the keys back.
  auto* spacing = w.control<number_field>(v.dialog, "vd_channel_spacing");
  spacing->setFocus();
  EXPECT_EQ(moved(spacing, Qt::Key_Home), 0);
  EXPECT_EQ(moved(spacing, Qt::Key_Left), 0);
  spacing->selectAll();
  QTest::keyClicks(spacing, "31");
  QTest::keyClick(spacing, Qt::Key_Return);
  EXPECT_EQ(w.session->display.vd_channel_spacing, 31);
  EXPECT_LT(moved(v.dialog, Qt::Key_Home), 0);
  EXPECT_EQ(v.view().vd_first_sample, 1);
}

TEST(VoltageDialog, FieldsFollowTheWheelAtOnceAndTakeSaneScales) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  auto* time = w.control<number_field>(v.dialog, "vd_time_scale");
  time->setFocus();
  v.turn(-5, Qt::ControlModifier);
  EXPECT_EQ(time->value(), 0.5) << "also with the cursor in it";
  for (int i = 0; i < 300; ++i) time->stepDown();
  const float least =
      static_cast<float>(v.view().vd_width) / static_cast<float>(w.session->recording.n_samples);
  EXPECT_NEAR(w.session->display.vd_time_scale, least, 1e-6f) << "the whole recording";
  time->selectAll();
  QTest::keyClicks(time, "0.000001");
  EXPECT_NEAR(w.session->display.vd_time_scale, least, 1e-6f);
  EXPECT_TRUE(time->problem()->text().startsWith("from ")) << "in words";
  auto* step = w.control<number_field>(v.dialog, "vd_time_scale_step");
  step->selectAll();
  QTest::keyClicks(step, "9999");
  EXPECT_TRUE(step->problem()->text().startsWith("from ")) << "and is not cut to 999";
  EXPECT_EQ(step->text(), "9999");
  // The arrows of the spinner go on from wherever the scale is.
  w.session->display.vd_voltage_scale = voltage_scale_at(40);
  redraw_voltage_display(w.shell);
  auto* steps = w.control<number_field>(v.dialog, "vd_voltage_scale_step");
  for (int i = 1; i <= 30; ++i) {
    steps->stepUp();
    EXPECT_EQ(w.session->display.vd_voltage_scale, voltage_scale_at(40 + i));
  }
}

TEST(VoltageDialog, WordsOfRefusalMoveNothing) {
  voltage_on_show v;
  const auto places = [&] {
    QList<QRect> all;
    const QList<QWidget*> widgets = v.dialog->findChildren<QWidget*>();
    for (const QWidget* widget : widgets) {
      const bool words = qobject_cast<const QLabel*>(widget) != nullptr;
      if (!words) all << QRect(widget->mapTo(v.dialog, QPoint(0, 0)), widget->size());
    }
    return all;
  };
  QApplication::processEvents();
  const QList<QRect> before = places();
  const QSize size = v.dialog->size();
  for (const char* name :
       {"vd_voltage_scale", "vd_time_scale_step", "vd_channel_spacing", "index", "channel"}) {
    auto* field = v.w.control<number_field>(v.dialog, name);
    field->selectAll();
    QTest::keyClicks(field, "99999999");
    EXPECT_TRUE(field->refused()) << name;
    QApplication::processEvents();
    EXPECT_TRUE(field->problem()->isVisible()) << name;
    EXPECT_GE(field->problem()->width(),
              field->problem()->fontMetrics().horizontalAdvance(field->problem()->text()))
        << name << ": " << field->problem()->text().toStdString();
    EXPECT_EQ(places(), before) << name;
    EXPECT_EQ(v.dialog->size(), size) << name;
    QTest::keyClick(field, Qt::Key_Tab);
  }
}

TEST(Pictures, AreAsDarkAsTheirThemeButForPaper) {
  voltage_on_show v;
  driven_workstation& w = v.w;
  const auto choose = [&](int windows, int pictures) {
    w.choose_entry("preferences");
    QDialog* dialog = w.dialog("preferences_dialog");
    w.control<QComboBox>(dialog, "theme")->setCurrentIndex(windows);
    w.control<QComboBox>(dialog, "picture_theme")->setCurrentIndex(pictures);
    w.press(dialog, "ok");
    w.settle();
  };
  const auto corner = [&] { return v.surface()->picture().pixelColor(2, 30); };
  constexpr int light = 1, dark = 2, as_theme = 0;
  choose(light, as_theme);
  EXPECT_EQ(corner(), Qt::white);
  choose(dark, as_theme);
  EXPECT_EQ(corner(), Qt::black);
  EXPECT_TRUE(w.control<QCheckBox>(v.dialog, "vd_reverse_contrast")->isChecked());
  choose(dark, light);
  EXPECT_EQ(corner(), Qt::white);
  choose(light, dark);
  EXPECT_EQ(corner(), Qt::black);
  QPicture paper;
  QPainter painter(&paper);
  v.surface()->paint_vector(painter, v.surface()->size());
  painter.end();
  EXPECT_TRUE(v.view().vd_reverse_contrast);
  QImage page(v.surface()->size(), QImage::Format_RGB32);
  QPainter on_page(&page);
  on_page.drawPicture(0, 0, paper);
  on_page.end();
  EXPECT_EQ(page.pixelColor(2, 30), Qt::white);
  // Turned by hand it stays so while pictures stay as dark as they are.
  w.tick(v.dialog, "vd_reverse_contrast", false);
  choose(light, dark);
  EXPECT_EQ(corner(), Qt::white);
  choose(as_theme, as_theme);
}

TEST(SmallScreens, TheFrameBeginsWithItsStatusLineInSight) {
  const temporary_directory home;
  driven_workstation w(home.path);
  const QSize room = screen_room(w.shell.frame);
  ASSERT_LT(room.width(), 1180) << "the screen of these tests is a small one";
  EXPECT_LE(w.shell.frame->width(), room.width());
  EXPECT_LE(w.shell.frame->height(), room.height());
  EXPECT_TRUE(w.shell.frame->statusBar()->isVisible());
}

TEST(SmallScreens, DialogsScrollAboveTheirButtons) {
  QDialog tall;
  auto* column = new QVBoxLayout(&tall);
  auto* page = new QLabel("tall");
  page->setMinimumSize(300, 5000);
  auto* words = new QLabel("words");
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
  column->addWidget(page);
  column->addWidget(words);
  column->addWidget(buttons);
  const QSize room = screen_room(&tall);
  fit_to_screen(&tall);
  tall.show();
  QApplication::processEvents();
  EXPECT_LE(tall.height(), room.height());
  for (const QWidget* kept : {static_cast<QWidget*>(words), static_cast<QWidget*>(buttons)}) {
    EXPECT_TRUE(tall.rect().contains(QRect(kept->pos(), kept->size())));
    EXPECT_EQ(kept->parentWidget(), &tall);
  }
  EXPECT_EQ(page->height(), 5000) << "whole, behind a scroll bar";
  // One that fits is left as it is.
  QDialog small;
  auto* rows = new QVBoxLayout(&small);
  rows->addWidget(new QLabel("small"));
  fit_to_screen(&small);
  EXPECT_EQ(small.findChild<QScrollArea*>("page_area"), nullptr);
}

}  // namespace
}  // namespace kestrelvane::test
