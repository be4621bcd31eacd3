// Shapes drawn with the mouse in the windows of a cluster, and what the pointer tells.
#include <QCheckBox>
#include <QComboBox>
#include <QMouseEvent>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <random>

#include "clustering/membership.h"
#include "clustering/principal_components.h"
#include "review/cluster_marks.h"
#include "review/event_reading.h"
#include "workstation/dialogs/review_parts.h"
#include "workstation/dialogs/setting_controls.h"
#include "workstation/operation.h"
#include "workstation/sorted_workstation.h"
#include "workstation/windows/cluster_displays.h"
#include "workstation/windows/cluster_windows.h"

namespace kestrelvane::test {
namespace {

void send(QWidget* to, QEvent::Type type, QPoint at, Qt::MouseButton button,
          Qt::MouseButtons buttons) {
  QMouseEvent event(type, at, to->mapToGlobal(at), button, buttons, Qt::NoModifier);
  QApplication::sendEvent(to, &event);
}

struct drawing_workstation : sorted_workstation {
  QDialog* view = nullptr;
  explicit drawing_workstation(const std::string& home) : sorted_workstation(home) {}

  void open() {
    choose_entry("view_clusters");
    view = dialog("view_clusters_dialog");
    settle();
  }
  graph_surface* surface(graph_kind kind) {
    graph_window* window = graph_of(shell, kind);
    EXPECT_NE(window, nullptr);
    return window->surface();
  }
  cluster_displays& displays() { return *shell.cluster_windows; }
  shape_hand& hand() { return displays().hand; }

  void press_at(graph_kind kind, QPoint at) {
    send(surface(kind), QEvent::MouseButtonPress, at, Qt::LeftButton, Qt::LeftButton);
  }
  void move_to(graph_kind kind, QPoint at) {
    send(surface(kind), QEvent::MouseMove, at, Qt::NoButton, Qt::LeftButton);
  }
  void release_at(graph_kind kind, QPoint at) {
    send(surface(kind), QEvent::MouseButtonRelease, at, Qt::LeftButton, Qt::NoButton);
    settle();
  }
  void draw(graph_kind kind, const QList<QPoint>& way) {
    press_at(kind, way.first());
    for (const QPoint& at : way) move_to(kind, at);
    release_at(kind, way.last());
  }
  // Corners of the middle part of a plane, so many hundredths of it from its rim.
  QList<QPoint> corners(const drawn_graph& plane, int rim) {
    const QRectF box = plane.inside;
    const QRect r = box.adjusted(box.width() * rim / 100, box.height() * rim / 100,
                                 -box.width() * rim / 100, -box.height() * rim / 100)
                        .toRect();
    return {r.topLeft(), r.topRight(), r.bottomRight(), r.bottomLeft()};
  }
  const drawn_graph& components() { return displays().component_points.plane; }

  std::vector<std::int32_t> list() { return list_cluster_events(*session, current()); }
  std::int32_t current() const { return session->clusters.current_cluster; }
  std::vector<std::int32_t> labelled(std::int16_t label) {
    std::vector<std::int32_t> found;
    for (const std::int32_t e : list()) {
      if (session->events.event_subcluster[e] == label) found.push_back(e);
    }
    return found;
  }
  // Those that the shape holds, by the places that the engine knows.
  template <typename Holds>
  std::vector<std::int32_t> held(mark_plane plane, Holds&& holds) {
    const std::vector<shape_point> places = events_in_plane(*session, plane);
    std::vector<std::int32_t> found;
    for (std::size_t i = 0; i < places.size(); ++i) {
      if (holds(places[i])) found.push_back(list()[i]);
    }
    return found;
  }
};

TEST(ShapeTools, AnEllipseIsDrawnAdjustedKeptAndDropped) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  constexpr graph_kind kind = graph_kind::principal_components;
  w.press(w.view, "ellipse");
  EXPECT_TRUE(w.control<QPushButton>(w.view, "ellipse")->isChecked());
  EXPECT_EQ(w.surface(kind)->cursor().shape(), Qt::CrossCursor);

  const QList<QPoint> corner = w.corners(w.components(), 25);
  w.draw(kind, {corner[0], QPoint((corner[0] + corner[2]) / 2), corner[2]});
  const cluster_ellipse_record& ellipse = w.session->clusters.cluster_ellipse[w.current()];
  const auto inside = [&](shape_point p) { return ellipse_holds(ellipse, p); };
  const QPointF a = value_at(w.components(), corner[0]), b = value_at(w.components(), corner[2]);
  EXPECT_NEAR(ellipse.centre_x, (a.x() + b.x()) / 2, 1e-4 * std::abs(b.x() - a.x()));
  EXPECT_NEAR(2 * ellipse.semi_axis_1, std::hypot(b.x() - a.x(), b.y() - a.y()), 1e-3);
  EXPECT_EQ(w.labelled(1), w.held(mark_plane::components, inside));
  EXPECT_GT(w.labelled(1).size(), 0u);
  EXPECT_EQ(w.text(w.view, "size_1").toInt(), static_cast<int>(w.labelled(1).size()));

  // Pulled in by its end: only what it holds now is marked, and other labels are as they were.
  const std::size_t before = w.labelled(1).size();
  const QPoint middle = (corner[0] + corner[2]) / 2;
  w.draw(kind, {corner[2], (corner[2] + middle) / 2});
  EXPECT_LT(w.labelled(1).size(), before);
  EXPECT_EQ(w.labelled(1), w.held(mark_plane::components, inside));
  const std::vector<std::int32_t> kept = w.labelled(1);

  // Given up with the button down; the second Escape puts the tool down, the third closes.
  const cluster_ellipse_record drawn = ellipse;
  w.press_at(kind, middle);
  w.move_to(kind, corner[1]);
  QTest::keyClick(w.surface(kind), Qt::Key_Escape);
  w.release_at(kind, corner[1]);
  EXPECT_EQ(w.labelled(1), kept);
  EXPECT_EQ(ellipse.centre_x, drawn.centre_x);
  EXPECT_EQ(w.hand().tool, shape_tool::ellipse);
  QTest::keyClick(w.view, Qt::Key_Escape);
  EXPECT_EQ(w.hand().tool, shape_tool::none);
  EXPECT_FALSE(w.control<QPushButton>(w.view, "ellipse")->isChecked());
  EXPECT_EQ(w.surface(kind)->cursor().shape(), Qt::OpenHandCursor);

  // One that is there marks as soon as the tool is taken up.
  w.press(w.view, "unmark");
  w.settle();
  EXPECT_TRUE(w.labelled(1).empty());
  w.press(w.view, "ellipse");
  w.settle();
  EXPECT_EQ(w.labelled(1), kept);
  // An edit makes other components, in which it means nothing.
  w.press(w.view, "realign");
  w.settle();
  EXPECT_EQ(ellipse.semi_axis_1, 0.0f);
  EXPECT_EQ(check_session(*w.session), "");
  QTest::keyClick(w.view, Qt::Key_Escape);
  EXPECT_TRUE(wait_until(
      [&] { return w.shell.frame->findChild<QDialog*>("view_clusters_dialog") == nullptr; }));
}

// Components that come out otherwise, as for more points, are another plane.
TEST(ShapeTools, AnEllipseGoesWithTheComponentsItWasDrawnOver) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  w.press(w.view, "ellipse");
  const QList<QPoint> corner = w.corners(w.components(), 30);
  w.draw(graph_kind::principal_components, {corner[0], corner[2]});
  const cluster_ellipse_record& ellipse = w.session->clusters.cluster_ellipse[w.current()];
  refresh_windows(w.shell);
  EXPECT_GT(ellipse.semi_axis_1, 0.0f) << "the same values";
  choose_cluster(w.shell, 3);
  EXPECT_EQ(w.hand().tool, shape_tool::none) << "of another cluster";
  EXPECT_EQ(graph_of(w.shell, graph_kind::cluster_waveforms)->windowTitle(), "Cluster 3 waveforms");
  choose_cluster(w.shell, 2);
  EXPECT_GT(ellipse.semi_axis_1, 0.0f);
  w.session->strategy.pc_point_limit = 7;
  refresh_windows(w.shell);
  EXPECT_EQ(ellipse.semi_axis_1, 0.0f);
}

TEST(ShapeTools, WindowsOverWaveformsAreAddedUp) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  constexpr graph_kind kind = graph_kind::cluster_waveforms;
  QTest::keyClick(w.surface(kind), Qt::Key_W);
  EXPECT_EQ(w.hand().tool, shape_tool::windows);
  EXPECT_TRUE(w.control<QPushButton>(w.view, "windows")->isChecked());
  EXPECT_EQ(w.displays().single.view.mode, waveform_mode::events) << "something to draw round";
  // Copies: each marking makes another picture.
  const waveform_layout layout = w.displays().single.picture.layout;
  const waveform_set set = w.displays().single.picture.sets[0];
  const auto trough = std::min_element(set.mean.begin(), set.mean.begin() + layout.n_points);
  const waveform_panel panel = layout.panels[0];
  // A window below the trough of the template, which some waveforms reach.
  const auto place = [&](int points, float uv) {
    const auto p = static_cast<float>(trough - set.mean.begin()) + static_cast<float>(points);
    return QPointF(panel.x + layout.step * p, panel.y - layout.pixels_per_uv * (*trough + uv))
        .toPoint();
  };
  w.draw(kind, {place(-1, -2), place(1, -30)});
  ASSERT_EQ(w.hand().windows.size(), 1u);
  const waveform_window first = w.hand().windows[0];
  EXPECT_EQ(first.channel, panel.channel);
  const auto misses = [&](const waveform_window& of) {
    std::vector<std::int32_t> found;
    for (const std::int32_t e : w.list()) {
      float v[waveform_room];
      read_event_waveform(*w.session, e, of.channel, v);
      bool crosses = false;
      for (std::int32_t p = of.first_point - 1; p < of.last_point; ++p) {
        const auto side = [&](float uv) { return uv < of.low_uv ? -1 : uv > of.high_uv ? 1 : 0; };
        crosses |= side(v[p]) == 0;
        if (p + 1 < of.last_point) crosses |= side(v[p]) * side(v[p + 1]) < 0;
      }
      if (!crosses) found.push_back(e);
    }
    return found;
  };
  EXPECT_EQ(w.labelled(1), misses(first));
  EXPECT_FALSE(w.labelled(1).empty());
  EXPECT_LT(w.labelled(1).size(), w.list().size());
  // A second one, which nobody passes: the tool is still in the hand.
  w.draw(kind, {place(-3, 900), place(3, 800)});
  EXPECT_EQ(w.hand().windows.size(), 2u);
  EXPECT_EQ(w.labelled(1), w.list());
  // A press that does not move draws nothing.
  w.draw(kind, {place(0, 0)});
  EXPECT_EQ(w.hand().windows.size(), 2u);
  w.press(w.view, "unmark");
  w.settle();
  EXPECT_EQ(w.hand().tool, shape_tool::none) << "another tool ends it";
}

TEST(ShapeTools, RectangleAndLassoAndTheLabelChosen) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  ASSERT_TRUE(QTest::qWaitForWindowActive(w.view));
  constexpr graph_kind kind = graph_kind::amplitude_vs_time;
  EXPECT_EQ(graph_of(w.shell, kind), nullptr);
  w.press(w.view, "rectangle");
  ASSERT_NE(graph_of(w.shell, kind), nullptr) << "there is a window to draw in";
  EXPECT_TRUE(w.control<QCheckBox>(w.view, "show_vs_time")->isChecked());
  const drawn_graph& plane = w.displays().height_points.plane;
  // Upwards and to the left is a rectangle as well.
  const QPoint a = pixel_of(plane, plane.view.x_to * 0.7, plane.view.y_to).toPoint();
  const QPoint b = pixel_of(plane, plane.view.x_to * 0.2, 0).toPoint();
  const shape_point p = plane_place(plane, a), q = plane_place(plane, b);
  const auto in_rectangle = [&](shape_point at) { return rectangle_holds(p, q, at); };
  w.draw(kind, {a, b});
  EXPECT_EQ(w.labelled(1), w.held(mark_plane::heights, in_rectangle));
  EXPECT_FALSE(w.labelled(1).empty());
  EXPECT_EQ(w.hand().tool, shape_tool::none) << "one at a time";
  const std::size_t n_first = w.labelled(1).size();

  // The lasso gives the label chosen by its digit, whatever the events had; "none" takes it away.
  QTest::keyClick(w.view, Qt::Key_2);
  QTest::keyClick(w.view, Qt::Key_K);
  EXPECT_EQ(w.hand().tool, shape_tool::lasso);
  const QList<QPoint> ring = w.corners(w.components(), 30);
  shape_polygon path;
  for (const QPoint at : ring) path.push_back(plane_place(w.components(), at));
  const auto in_ring = [&](shape_point at) { return polygon_holds(path, at); };
  const std::vector<std::int32_t> inside = w.held(mark_plane::components, in_ring);
  w.draw(graph_kind::principal_components, ring);
  EXPECT_EQ(w.labelled(2), inside);
  EXPECT_EQ(w.text(w.view, "message"), QString("%1 events with label 2").arg(inside.size()));
  EXPECT_LT(w.labelled(1).size(), n_first);
  QTest::keyClick(w.view, Qt::Key_0);
  QTest::keyClick(w.view, Qt::Key_K);
  w.draw(graph_kind::principal_components, ring);
  EXPECT_TRUE(w.labelled(2).empty());

  // In a plane that has no name, as that of turned components, by what is seen.
  w.press(w.view, "unmark");
  w.settle();
  w.displays().components.dimensions = {2, 1, 3};
  w.surface(graph_kind::principal_components)->redraw();
  QTest::keyClick(w.view, Qt::Key_1);
  QTest::keyClick(w.view, Qt::Key_K);
  const QList<QPoint> turned = w.corners(w.components(), 20);
  path.clear();
  for (const QPoint at : turned) {
    const shape_point of = plane_place(w.components(), at);
    path.push_back({of.y, of.x});
  }
  w.draw(graph_kind::principal_components, turned);
  EXPECT_EQ(w.labelled(1), w.held(mark_plane::components, in_ring));
  EXPECT_FALSE(w.labelled(1).empty());
  auto* measure = w.control<QComboBox>(w.view, "height_measure");
  measure->setCurrentIndex(2);
  emit measure->activated(2);
  EXPECT_EQ(w.surface(kind)->parentWidget()->windowTitle(), "PC2 vs time for cluster 2");
  w.press(w.view, "unmark");
  w.settle();
  w.press(w.view, "rectangle");
  const drawn_graph in_time = w.displays().height_points.plane;
  const QList<QPoint> half = w.corners(in_time, 30);
  const shape_point from = plane_place(in_time, half[0]), to = plane_place(in_time, half[2]);
  w.draw(kind, {half[0], half[2]});
  std::vector<std::int32_t> seen;
  const std::vector<shape_point> places = events_in_plane(*w.session, mark_plane::components);
  for (std::size_t i = 0; i < places.size(); ++i) {
    const std::int32_t e = w.list()[i];
    const shape_point at = {event_minutes(*w.session, e), places[i].y};
    if (rectangle_holds(from, to, at)) seen.push_back(e);
  }
  EXPECT_EQ(w.labelled(1), seen);
  EXPECT_FALSE(w.labelled(1).empty());
  EXPECT_LT(w.labelled(1).size(), w.list().size());
  EXPECT_EQ(check_session(*w.session), "");
}

// Without the dialog the windows' own keys draw, too; with two clusters on show there is no one
// cluster to mark.
TEST(ShapeTools, KeysOfTheWindowsAlone) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.choose_entry("sorted_waveforms");
  constexpr graph_kind kind = graph_kind::principal_components;
  QTest::keyClick(w.surface(kind), Qt::Key_W);
  EXPECT_EQ(w.hand().tool, shape_tool::none) << "windows are drawn over waveforms";
  QTest::keyClick(w.surface(kind), Qt::Key_K);
  w.draw(kind, w.corners(w.components(), 20));
  EXPECT_FALSE(w.labelled(1).empty());
  show_pair_windows(w.shell, 2, 3);
  QTest::keyClick(w.surface(kind), Qt::Key_E);
  EXPECT_EQ(w.hand().tool, shape_tool::none);
  forget_pair(w.shell);
  // A drag without a tool does what it did.
  const graph_view range = w.displays().components.range;
  w.draw(kind, w.corners(w.components(), 20));
  EXPECT_NE(w.displays().components.range, range);
}

TEST(ShapeTools, WaveformsOfTheLabelsChosen) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  const waveform_window_state& state = w.displays().single;
  const auto shown = [&] { return state.picture.sets[0].n_labelled; };
  const int n = static_cast<int>(w.list().size());
  std::int16_t label = 0;
  for (const std::int32_t e : w.list()) {
    w.session->events.event_subcluster[e] = label;
    label = label == 6 ? 0 : static_cast<std::int16_t>(label + 1);
  }
  refresh_windows(w.shell);
  EXPECT_EQ(shown(), n);
  w.tick(w.view, "show_1", false);
  EXPECT_FALSE(w.control<QCheckBox>(w.view, "view_all")->isChecked());
  EXPECT_TRUE(w.control<QCheckBox>(w.view, "or_select")->isChecked());
  EXPECT_EQ(shown(), n - static_cast<int>(w.labelled(1).size()));
  EXPECT_EQ(state.view.mode, waveform_mode::events);
  for (const char* box : {"show_0", "show_2", "show_3", "show_4"}) w.tick(w.view, box, false);
  EXPECT_EQ(shown(), static_cast<int>(w.labelled(5).size() + w.labelled(6).size())) << "others";
  w.tick(w.view, "show_others", false);
  EXPECT_EQ(shown(), 0);
  w.tick(w.view, "view_all", true);
  EXPECT_FALSE(w.control<QCheckBox>(w.view, "or_select")->isChecked());
  EXPECT_EQ(shown(), n);

  // The position goes through the set, and follows the keys of the window.
  auto* bar = w.control<QScrollBar>(w.view, "sw_first_item");
  w.set_number(w.view, "n_waveforms", 10);
  EXPECT_EQ(state.picture.events.size(), 10u);
  bar->setValue(21);
  EXPECT_EQ(state.picture.events[0], w.list()[20]);
  QTest::keyClick(w.surface(graph_kind::cluster_waveforms), Qt::Key_PageDown);
  EXPECT_EQ(bar->value(), 31);
  EXPECT_EQ(bar->maximum(), n - 9);
  auto* mode = w.control<QComboBox>(w.view, "waveform_mode");
  mode->setCurrentIndex(1);
  emit mode->activated(1);
  EXPECT_EQ(state.view.mode, waveform_mode::density);
  EXPECT_FALSE(bar->isEnabled()) << "a density has all of them";
  w.press(w.view, "done");
  w.settle();
  EXPECT_TRUE(state.view.labels.empty());
}

TEST(ShapeTools, ThePointerTellsWhatItIsOver) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.choose_entry("sorted_waveforms");
  w.choose_entry("spike_view");
  open_graph(w.shell, graph_kind::amplitude_vs_time);
  open_graph(w.shell, graph_kind::template_image);
  cluster_displays& d = w.displays();
  const auto words_at = [&](graph_kind kind, QPointF at) {
    send(w.surface(kind), QEvent::MouseMove, at.toPoint(), Qt::NoButton, Qt::NoButton);
    return d.pointer && d.pointer->kind == kind ? d.pointer->words : QString();
  };
  const auto event_in = [](const QString& words) {
    return words.section("event ", 1).section(',', 0, 0).toInt();
  };
  // Over the point of an event: that one, or one drawn over it in the same place.
  const auto expect_near = [&](graph_kind kind, const drawn_graph& plane, shape_point p,
                               std::span<const shape_point> points,
                               const std::vector<std::int32_t>& events) {
    const QPointF at = pixel_of(plane, p.x, p.y);
    const std::int32_t event = event_in(words_at(kind, at));
    const auto i = std::find(events.begin(), events.end(), event) - events.begin();
    ASSERT_LT(i, std::ssize(events));
    const shape_point found = points[static_cast<std::size_t>(i)];
    EXPECT_LT((pixel_of(plane, found.x, found.y) - at).manhattanLength(), 3);
  };
  const component_picture& c = d.component_points;
  expect_near(graph_kind::principal_components, c.plane, c.points[4], c.points, c.values->events);
  const height_picture& h = d.height_points;
  expect_near(graph_kind::amplitude_vs_time, h.plane, h.points[9], h.points, h.events);
  EXPECT_TRUE(d.pointer->words.contains("height "));
  const spike_picture& s = d.spike_points;
  expect_near(graph_kind::spike_view, s.plane, s.points.back(), s.points, s.events);
  EXPECT_TRUE(d.pointer->words.contains("cluster 2"));
  EXPECT_EQ(words_at(graph_kind::spike_view, {1, 1}), "") << "beside the plane";

  // Of waveforms the channel and the voltage, also between them.
  const waveform_panel& panel = d.single.picture.layout.panels[0];
  const QPoint zero = QPointF(panel.x + d.single.picture.layout.step, panel.y).toPoint();
  EXPECT_TRUE(words_at(graph_kind::cluster_waveforms, zero)
                  .startsWith(QString("channel %1, ").arg(panel.channel)));
  const QImage with_words = w.surface(graph_kind::cluster_waveforms)->picture();
  QEvent leave(QEvent::Leave);
  QApplication::sendEvent(w.surface(graph_kind::cluster_waveforms), &leave);
  EXPECT_FALSE(d.pointer.has_value());
  EXPECT_NE(w.surface(graph_kind::cluster_waveforms)->picture(), with_words);
  const QPointF inside(w.surface(graph_kind::template_image)->rect().center());
  EXPECT_TRUE(words_at(graph_kind::template_image, inside).contains("µV"));
  QTest::keyClick(w.surface(graph_kind::template_image), Qt::Key_V);
  EXPECT_EQ(d.image.values, template_values::sd);
}

// Every setting of the display changes its picture, also while the window is open.
TEST(ShapeTools, SettingsOfTheWaveformsAreSeen) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  display_settings& s = w.session->display;
  s.sw_show_templates = false;
  s.sw_autoscale = false;
  s.sw_show_channels = 4;
  w.choose_entry("sorted_waveforms");
  graph_surface* surface = w.surface(graph_kind::cluster_waveforms);
  const auto is_seen = [&](auto& setting, auto value) {
    const QImage before = surface->picture();
    const auto kept = setting;
    setting = value;
    surface->redraw();
    const bool changed = surface->picture() != before;
    setting = kept;
    surface->redraw();
    return changed && surface->picture() == before;
  };
  EXPECT_TRUE(is_seen(s.sw_autoscale, true));
  EXPECT_TRUE(is_seen(s.sw_time_scale, 60.0f));
  EXPECT_TRUE(is_seen(s.sw_voltage_scale, 0.8f));
  EXPECT_TRUE(is_seen(s.sw_channel_spacing, 1.5f));
  EXPECT_TRUE(is_seen(s.sw_first_item, 20));
  EXPECT_TRUE(is_seen(s.sw_line_thickness, 3));
  EXPECT_TRUE(is_seen(s.sw_voltage_axis, 50));
  EXPECT_TRUE(is_seen(s.sw_show_channels, 2));
  EXPECT_TRUE(is_seen(s.sw_show_axes, false));
  EXPECT_TRUE(is_seen(s.sw_show_channel_numbers, false));
  EXPECT_TRUE(is_seen(s.sw_show_templates, true));
  EXPECT_TRUE(is_seen(s.sw_show_cluster_numbers, false));
  EXPECT_TRUE(is_seen(s.sw_white_background, false));
  s.sw_autoscale = true;
  surface->redraw();
  EXPECT_TRUE(is_seen(s.sw_show_channels, 2)) << "with autoscale, too";
  // The window's own keys for marks.
  for (const int key : {Qt::Key_C, Qt::Key_Y, Qt::Key_T}) {
    const QImage before = surface->picture();
    QTest::keyClick(surface, static_cast<Qt::Key>(key));
    EXPECT_NE(surface->picture(), before) << key;
  }
}

// Components that take long come over several turns of the event loop: the same values, of the
// cluster that is on show at last, whatever happens in between.
TEST(ShapeTools, LargeClustersComeInTurns) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  start_operation(
      w.shell,
      [](session_state& s) {
        constexpr std::int32_t n = 600'000, n_small = 300;
        const std::int32_t n_before = s.events.n_events;
        for (std::int32_t e = n; e >= 1; --e) {
          const std::int32_t of = (e - 1) % n_before + 1;
          s.events.event_time[e] = s.events.event_time[of];
          s.events.event_detected_time[e] = s.events.event_time[of];
          s.events.event_shift[e] = s.events.event_shift[of];
          s.events.event_channel[e] = s.events.event_channel[of];
          s.events.event_cluster[e] = e <= n_small ? 1 : 2;
        }
        s.events.n_events = n;
        s.clusters.n_clusters = 2;
        s.clusters.current_cluster = 1;
        recalculate_all_templates(s);
      },
      nullptr);
  w.settle();
  gac_points whole;
  cluster_pc_values(*w.session, 2, whole);
  w.choose_entry("sorted_waveforms");
  cluster_displays& d = w.displays();
  EXPECT_TRUE(values_are_of(w.shell, 1)) << "few events, at once";
  const auto arrives = [&] { return wait_until([&] { return values_are_of(w.shell, 2); }); };
  choose_cluster(w.shell, 2);
  EXPECT_FALSE(values_are_of(w.shell, 2));
  EXPECT_EQ(d.values.clusters, std::vector<std::int32_t>{1}) << "the earlier picture stays";
  // Nothing can be drawn round points that are not there yet.
  QTest::keyClick(w.surface(graph_kind::principal_components), Qt::Key_K);
  w.press_at(graph_kind::principal_components, {100, 100});
  EXPECT_FALSE(w.hand().drawing);
  w.release_at(graph_kind::principal_components, {100, 100});
  ASSERT_TRUE(arrives());
  EXPECT_EQ(d.values.values, whole.values);
  EXPECT_EQ(d.component_points.points.size(), d.values.events.size()) << "and has been drawn";
  // Another cluster, an operation and a change of settings in between.
  refresh_windows(w.shell);
  choose_cluster(w.shell, 1);
  EXPECT_TRUE(values_are_of(w.shell, 1));
  choose_cluster(w.shell, 2);
  start_operation(
      w.shell, [](session_state& s) { s.strategy.pc_point_limit = 9; },
      [&w] { refresh_windows(w.shell); });
  w.settle();
  ASSERT_TRUE(arrives());
  cluster_pc_values(*w.session, 2, whole);
  EXPECT_EQ(d.values.values, whole.values);
}

// Whatever is drawn and edited, in whichever order.
TEST(ShapeTools, RandomShapesAndEditsLeaveASessionInOrder) {
  const temporary_directory home;
  drawing_workstation w(home.path);
  w.open();
  w.tick(w.view, "show_vs_time", true);
  std::mt19937 random(3);
  const QStringList tools = {"windows", "ellipse", "rectangle", "lasso"};
  const QStringList edits = {"split_1", "delete_1", "unmark", "invert", "undo", "split_2"};
  const graph_kind kinds[] = {graph_kind::cluster_waveforms, graph_kind::principal_components,
                              graph_kind::amplitude_vs_time, graph_kind::principal_components};
  for (int step = 0; step < 60 && w.session->clusters.n_clusters > 0; ++step) {
    const auto t = static_cast<std::size_t>(random() % 4);
    w.press(w.view, tools[static_cast<qsizetype>(t)].toUtf8());
    w.settle();
    const QSize size = w.surface(kinds[t])->size();
    QList<QPoint> way;
    for (std::size_t i = 0; i < 2 + random() % 6; ++i) {
      way << QPoint(static_cast<int>(random() % static_cast<unsigned>(size.width())),
                    static_cast<int>(random() % static_cast<unsigned>(size.height())));
    }
    w.draw(kinds[t], way);
    // Without a tool in the hand it would be for the dialog.
    const bool holds = w.hand().tool != shape_tool::none;
    if (step % 7 == 3 && holds) QTest::keyClick(w.surface(kinds[t]), Qt::Key_Escape);
    const label_sizes labels = count_labels(*w.session);
    EXPECT_EQ(w.text(w.view, "size_1").toInt(), labels.size[1]) << step;
    const QString& edit = edits[static_cast<qsizetype>(random() % 6)];
    if (w.control<QPushButton>(w.view, edit.toUtf8())->isEnabled()) {
      w.press(w.view, edit.toUtf8());
      w.settle(true);
    }
    ASSERT_EQ(check_session(*w.session), "") << step;
  }
}

}  // namespace
}  // namespace kestrelvane::test
