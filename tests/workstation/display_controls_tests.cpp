// What the dialogs of pairs do with the windows beside them: scales, positions, which windows
// there are and where they stand, and how the controls follow the mouse.
#include <QCheckBox>
#include <QComboBox>
#include <QMdiArea>
#include <QRadioButton>
#include <QScreen>
#include <QScrollBar>
#include <QSettings>
#include <QSlider>
#include <QTest>
#include <QWheelEvent>
#include <random>
#include <set>

#include "sorting/status_lists.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/operation.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"
#include "workstation/windows/correlogram_window.h"

namespace kestrelvane::test {
namespace {

struct displaying_workstation : sorted_workstation {
  explicit displaying_workstation(const std::string& home, std::int32_t dimensions = 2)
      : sorted_workstation(home) {
    session->strategy.overlap_threshold = -5.0f;
    session->strategy.correlation_threshold = -2.0f;
    session->strategy.pca_dimensions = dimensions;
    session->review.show_correlograms = false;
    start_operation(
        shell, [](session_state& s) { build_status_lists(s); }, nullptr);
    settle();
    shell.frame->resize(1280, 760);
  }
  QDialog* begin(const char* entry, const char* name) {
    choose_entry(entry);
    QDialog* opened = dialog(name);
    settle();
    return opened;
  }
  QDialog* guide() { return begin("guided_merge", "guided_merge_dialog"); }
  QDialog* compare() { return begin("compare_pairs", "compare_pairs_dialog"); }
  const cluster_displays& shown() const { return *shell.cluster_windows; }
  const waveform_layout& layout() const { return shown().pair.picture.layout; }
  bool is_open(graph_kind kind) const {
    const graph_window* window = graph_of(shell, kind);
    return window != nullptr && !window->isHidden();
  }
  QRect place(graph_kind kind) const {
    const graph_window* window = graph_of(shell, kind);
    return window == nullptr ? QRect() : window->geometry();
  }
};

constexpr graph_kind tiled[] = {graph_kind::waveform_comparison, graph_kind::principal_components,
                                graph_kind::correlograms, graph_kind::amplitude_vs_time};

TEST(DisplayControls, GuidedMergeScalesAndPagesItsWaveforms) {
  const temporary_directory home;
  displaying_workstation w(home.path);
  QDialog* dialog = w.guide();
  ASSERT_NE(dialog, nullptr);
  auto* gain = w.control<QScrollBar>(dialog, "voltage_gain");
  const float scale = w.layout().pixels_per_uv;
  EXPECT_EQ(w.text(dialog, "voltage_scale"), QString("%1 pixels/µV").arg(scale, 0, 'g', 3));
  // Up is larger; sixteen steps are a factor of two.
  gain->setValue(gain->value() - 16);
  EXPECT_FLOAT_EQ(w.layout().pixels_per_uv, 2 * scale);
  EXPECT_EQ(w.text(dialog, "voltage_scale"), QString("%1 pixels/µV").arg(2 * scale, 0, 'g', 3));
  const int before = gain->value();
  graph_surface* surface = graph_of(w.shell, graph_kind::waveform_comparison)->surface();
  const QPointF middle = surface->rect().center();
  QWheelEvent wheel(middle, surface->mapToGlobal(middle), {}, QPoint(0, -240), Qt::NoButton, {},
                    Qt::NoScrollPhase, false);
  QApplication::sendEvent(surface, &wheel);
  EXPECT_GT(gain->value(), before) << "the bar follows the wheel";

  auto* position = w.control<QScrollBar>(dialog, "first_item");
  w.control<QRadioButton>(dialog, "templates")->click();
  EXPECT_FALSE(position->isEnabled()) << "templates have no events to go through";
  w.control<QRadioButton>(dialog, "waveforms")->click();
  w.set_number(dialog, "n_waveforms", 20);
  std::int32_t most = 0;
  for (const waveform_set& set : w.shown().pair.picture.sets) most = std::max(most, set.n_labelled);
  ASSERT_GT(most, 40);
  EXPECT_EQ(position->maximum(), most - 19);
  position->setValue(21);
  EXPECT_EQ(w.shown().pair.view.first_item, 21);
  QTest::keyClick(surface, Qt::Key_Home);
  EXPECT_EQ(position->value(), 1) << "and the keys";
  w.press(dialog, "finish");
  w.settle();
}

TEST(DisplayControls, WindowsOfThePairComeAndGoAndStandBesideEachOther) {
  const temporary_directory home;
  displaying_workstation w(home.path);
  QDialog* dialog = w.guide();
  ASSERT_NE(dialog, nullptr);
  const auto [a, b] = std::pair(w.shown().a, w.shown().b);
  w.control<QComboBox>(dialog, "time_measure")->setCurrentIndex(0);
  w.tick(dialog, "show_times", true);
  w.tick(dialog, "show_correlograms", true);
  graph_window* times = graph_of(w.shell, graph_kind::amplitude_vs_time);
  ASSERT_NE(times, nullptr);
  EXPECT_TRUE(times->windowTitle().startsWith(QString("P-P Height (%1 on channel").arg(a)));
  w.control<QComboBox>(dialog, "time_measure")->setCurrentIndex(1);
  EXPECT_EQ(times->windowTitle(), QString("PC1 vs time for clusters %1 and %2").arg(a).arg(b));
  for (const graph_kind one : tiled) {
    EXPECT_TRUE(w.place(one).isValid());
    EXPECT_GT(w.place(one).height(), 100);
    EXPECT_LE(w.place(one).right(), w.shell.frame->area()->viewport()->width());
    for (const graph_kind other : tiled) {
      EXPECT_TRUE(one == other || !w.place(one).intersects(w.place(other)));
    }
  }
  const int split_height = w.place(graph_kind::principal_components).height();
  w.press(dialog, "swap_display");
  EXPECT_EQ(w.shown().pair.view.clusters, (std::vector<std::int32_t>{b, a}));
  EXPECT_EQ(w.shell.correlograms->a, b);
  // Colours go with the units and not with their places: a's events carry label 1.
  EXPECT_EQ(w.shell.correlograms->mark_first, 2);
  EXPECT_EQ(w.shell.correlograms->mark_second, 1);
  EXPECT_EQ(times->windowTitle(), QString("PC1 vs time for clusters %1 and %2").arg(b).arg(a));
  w.tick(dialog, "show_times", false);
  graph_of(w.shell, graph_kind::correlograms)->close();
  EXPECT_FALSE(w.control<QCheckBox>(dialog, "show_correlograms")->isChecked())
      << "closed by its cross, it does not come back";
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  // A panel of the neighbours that is pressed opens it, too.
  w.session->clusters.current_cluster = a;
  w.choose_entry("spike_trains");
  ASSERT_NE(graph_of(w.shell, graph_kind::spike_trains), nullptr);
  graph_surface* trains = graph_of(w.shell, graph_kind::spike_trains)->surface();
  w.settle();
  // In a low window the nearest stands beside the unit's own, in a narrow one below it.
  for (const QPoint at : {QPoint(trains->width() - 9, 9), QPoint(9, trains->height() - 9)}) {
    if (!w.is_open(graph_kind::correlograms)) QTest::mouseClick(trains, Qt::LeftButton, {}, at);
  }
  EXPECT_TRUE(w.is_open(graph_kind::correlograms));
  EXPECT_TRUE(w.control<QCheckBox>(dialog, "show_correlograms")->isChecked());
  graph_of(w.shell, graph_kind::spike_trains)->close();
  graph_of(w.shell, graph_kind::correlograms)->close();
  w.settle();
  w.press(dialog, "distinct");
  w.settle();
  EXPECT_FALSE(w.is_open(graph_kind::amplitude_vs_time));
  EXPECT_FALSE(w.is_open(graph_kind::correlograms));
  EXPECT_GT(w.place(graph_kind::principal_components).height(), 2 * split_height)
      << "what they leave free is taken";
  w.press(dialog, "finish");
  w.settle();
}

TEST(DisplayControls, ComparisonZoomsMovesAndTurns) {
  const temporary_directory home;
  displaying_workstation w(home.path, 3);
  QDialog* dialog = w.compare();
  ASSERT_NE(dialog, nullptr);
  const waveform_layout before = w.layout();
  w.control<QSlider>(dialog, "zoom")->setValue(16);
  EXPECT_FLOAT_EQ(w.layout().step, 2 * before.step);
  EXPECT_FLOAT_EQ(w.layout().pixels_per_uv, 2 * before.pixels_per_uv);
  EXPECT_FLOAT_EQ(w.layout().panels[0].y, before.panels[0].y) << "the centre channel stays";
  const auto distance = [](const waveform_layout& of) { return of.panels[1].y - of.panels[0].y; };
  EXPECT_FLOAT_EQ(distance(w.layout()), 2 * distance(before));
  w.control<QSlider>(dialog, "offset")->setValue(50);
  EXPECT_FLOAT_EQ(w.layout().panels[0].y,
                  before.panels[0].y - 0.5f * static_cast<float>(w.shown().pair.view.height));
  w.set_number(dialog, "pixels_per_uv", 0.25);
  EXPECT_NEAR(w.layout().pixels_per_uv, 0.25, 1e-6);
  const QImage banded = graph_of(w.shell, graph_kind::waveform_comparison)->surface()->picture();
  w.tick(dialog, "error_bars", false);
  EXPECT_NE(graph_of(w.shell, graph_kind::waveform_comparison)->surface()->picture(), banded);

  auto* rotate = w.control<QSlider>(dialog, "rotate");
  ASSERT_TRUE(rotate->isEnabled());
  rotate->setValue(30);
  EXPECT_EQ(w.shown().components.turn, 30);
  // 200 positions from 0.25 to 10.
  w.control<QSlider>(dialog, "pc_display_scale")->setValue(100);
  EXPECT_FLOAT_EQ(w.session->preferences.pc_display_scale, 5.125f);
  EXPECT_FALSE(w.control<QCheckBox>(dialog, "autoscale")->isChecked());
  EXPECT_NEAR(
      (w.shown().component_points.plane.view.x_to - w.shown().component_points.plane.view.x_from) *
          5.125,
      w.shown().components.width, 1e-3);
  w.tick(dialog, "autoscale", true);
  EXPECT_TRUE(w.shown().components.autoscale);
  w.press(dialog, "ok");
}

// Whatever is turned, ticked and decided in whatever order: the sort stays whole, and the windows
// show the pair of the dialog.
TEST(DisplayControls, AnyOrderOfThemAndOfDecisionsLeavesAWholeSort) {
  const temporary_directory home;
  displaying_workstation w(home.path, 3);
  QDialog* dialog = w.compare();
  ASSERT_NE(dialog, nullptr);
  std::mt19937 random(7);
  const auto any = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  for (int step = 0; step < 120; ++step) {
    const QList<QAbstractSlider*> sliders = dialog->findChildren<QAbstractSlider*>();
    const QList<QAbstractButton*> buttons = dialog->findChildren<QAbstractButton*>();
    QAbstractSlider* slider = sliders[any(static_cast<int>(sliders.size()))];
    slider->setValue(slider->minimum() + any(1 + slider->maximum() - slider->minimum()));
    QAbstractButton* button = buttons[any(static_cast<int>(buttons.size()))];
    const QString name = button->objectName();
    // Two clusters are to be left, and the dialog open.
    const bool goes = name == "ok" || name.startsWith("merge") || name == "key_page";
    if (!goes && !name.isEmpty()) button->click();
    w.settle(true);
    for (const char* answer : {"revert", "leave"}) {
      auto* split = w.shell.frame->findChild<QDialog*>("pair_split_dialog");
      if (split != nullptr) w.press(split, answer);
      w.settle();
    }
    ASSERT_EQ(check_session(*w.session), "") << name.toStdString() << " at " << step;
    const review_place& place = w.session->reviewed;
    const std::set<std::int32_t> pair = {place.compare_a, place.compare_b};
    ASSERT_EQ((std::set<std::int32_t>{w.shown().a, w.shown().b}), pair) << name.toStdString();
  }
  w.press(dialog, "ok");
}

// ---------------------------------------------------------------- places

TEST(KeptPlaces, WhatTheUserHasMovedComesBackUntilItIsArranged) {
  const temporary_directory home;
  displaying_workstation w(home.path);
  const auto wait_for_rest = [] { QTest::qWait(400); };
  QDialog* dialog = w.guide();
  ASSERT_NE(dialog, nullptr);
  wait_for_rest();
  const QRect computed = w.place(graph_kind::waveform_comparison);
  const QRect tile = w.place(graph_kind::principal_components);
  const QRect moved(7, 9, 310, 240);
  graph_of(w.shell, graph_kind::waveform_comparison)->setGeometry(moved);
  const QPoint dialog_place = dialog->pos() + QPoint(-30, 5);
  dialog->move(dialog_place);
  w.press(dialog, "finish");
  w.settle();

  // Another dialog has its own places.
  dialog = w.compare();
  EXPECT_NE(w.place(graph_kind::waveform_comparison), moved);
  EXPECT_NE(dialog->pos(), dialog_place);
  w.press(dialog, "ok");
  w.settle();
  dialog = w.guide();
  EXPECT_EQ(dialog->pos(), dialog_place);
  EXPECT_EQ(w.place(graph_kind::waveform_comparison), moved);
  EXPECT_NE(w.place(graph_kind::principal_components), moved);
  // What comes beside it leaves alone what the user moves now.
  const QRect again(20, 30, 300, 230);
  graph_of(w.shell, graph_kind::waveform_comparison)->setGeometry(again);
  w.tick(dialog, "show_correlograms", true);
  EXPECT_EQ(w.place(graph_kind::waveform_comparison), again);
  w.tick(dialog, "show_correlograms", false);

  w.choose_entry("auto_arrange");
  wait_for_rest();
  EXPECT_EQ(w.place(graph_kind::waveform_comparison), computed);
  EXPECT_EQ(w.place(graph_kind::principal_components), tile);
  w.press(dialog, "finish");
  w.settle();
  dialog = w.guide();
  EXPECT_NE(dialog->pos(), dialog_place);
  EXPECT_EQ(w.place(graph_kind::waveform_comparison), computed);
  w.press(dialog, "finish");
  w.settle();
}

TEST(KeptPlaces, PlacesOfAnotherScreenAreComputedAnew) {
  const temporary_directory home;
  displaying_workstation w(home.path);
  const QRect far(5000, 4000, 440, 600);
  QSettings store;
  store.setValue("places/compare_pairs_dialog/compare_pairs_dialog", far);
  store.setValue("places/compare_pairs_dialog/components_window", far);
  QDialog* dialog = w.compare();
  ASSERT_NE(dialog, nullptr);
  EXPECT_TRUE(dialog->screen()->availableGeometry().contains(dialog->pos()));
  EXPECT_TRUE(w.shell.frame->area()->viewport()->rect().intersects(
      w.place(graph_kind::principal_components)));
  w.press(dialog, "ok");
  store.remove("places");
}

TEST(KeptPlaces, WideFramesHaveTheWindowsSideBySide) {
  const temporary_directory home;
  displaying_workstation w(home.path);
  QDialog* dialog = w.guide();
  ASSERT_NE(dialog, nullptr);
  w.tick(dialog, "show_times", true);
  w.tick(dialog, "show_correlograms", true);
  // A screen with room for it.
  dialog->move(w.shell.frame->area()->mapToGlobal(QPoint(840, 0)));
  tile_cluster_windows(w.shell, dialog);
  const QRect waveforms = w.place(graph_kind::waveform_comparison);
  EXPECT_GT(waveforms.width(), 440);
  EXPECT_EQ(waveforms.height(), w.shell.frame->area()->viewport()->height());
  for (const graph_kind kind : tiled) {
    EXPECT_LE(w.place(kind).right(), 840);
    EXPECT_TRUE(kind == tiled[0] || w.place(kind).left() >= waveforms.right()) << w.place(kind).x();
  }
  EXPECT_GE(w.place(graph_kind::amplitude_vs_time).top(),
            w.place(graph_kind::correlograms).bottom());
  w.press(dialog, "finish");
  w.settle();
  QSettings().remove("places");
}

}  // namespace
}  // namespace kestrelvane::test
