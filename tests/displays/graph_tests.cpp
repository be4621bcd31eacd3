// Graphs: where values stand in the picture, what it shows of them, and odd data.
#include <gtest/gtest.h>

#include <QApplication>
#include <QByteArray>
#include <QImage>
#include <QLineF>
#include <QPainter>
#include <QPalette>
#include <algorithm>
#include <cmath>

#include "displays/graph.h"
#include "displays/point_labels.h"
#include "support/fixture_files.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr float no_number = std::numeric_limits<float>::quiet_NaN();
constexpr QSize size(480, 320);

// What the libraries warn about while a test runs.
struct warnings {
  static inline QStringList heard;
  QtMessageHandler before;
  warnings() {
    heard.clear();
    before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { heard << text; });
  }
  ~warnings() { qInstallMessageHandler(before); }
};

struct graph_picture {
  drawn_graph drawn;
  QImage image;
  double ratio;

  explicit graph_picture(const graph_data& graph, const graph_style& style = paper_style(),
                         double scale = 1.0, QSize of = size)
      : image((QSizeF(of) * scale).toSize(), QImage::Format_RGB32), ratio(scale) {
    image.fill(Qt::magenta);
    image.setDevicePixelRatio(scale);
    QPainter painter(&image);
    drawn = paint_graph(graph, style, whole_view(graph), painter, of);
  }
  QColor at(QPointF place) const { return image.pixelColor((place * ratio).toPoint()); }
  QColor at(double x, double y) const { return at(pixel_of(drawn, x, y)); }
  QColor beside(double x, double y, QPointF by) const { return at(pixel_of(drawn, x, y) + by); }
  int count(const QColor& colour, QRect where) const {
    int n = 0;
    where = where.intersected(image.rect());
    for (int y = where.top(); y <= where.bottom(); ++y) {
      for (int x = where.left(); x <= where.right(); ++x) n += image.pixelColor(x, y) == colour;
    }
    return n;
  }
  // Whether a line of the colour passes within a pixel.
  bool passes(const QColor& colour, double x, double y) const {
    const QPoint place = (pixel_of(drawn, x, y) * ratio).toPoint();
    for (int i = 0; i < 9; ++i) {
      const QColor found = image.pixelColor(place + QPoint(i % 3 - 1, i / 3 - 1));
      const int off = std::abs(found.red() - colour.red()) +
                      std::abs(found.green() - colour.green()) +
                      std::abs(found.blue() - colour.blue());
      if (off < 200) return true;
    }
    return false;
  }
  int count(const QColor& colour) const { return count(colour, image.rect()); }
};

const QColor red(255, 0, 0), blue(0, 0, 255);
series_look coloured(const QColor& colour, graph_form form = form_unset, bool error_bars = false) {
  return {form, error_bars, true,
          static_cast<std::uint32_t>(colour.red() | colour.green() << 8 | colour.blue() << 16)};
}

TEST(graph_drawing, bars_stand_where_the_axes_say) {
  graph_data graph;
  graph.kind = form_bars;
  graph.series[0] = {{0, 2, 4, 6}, {5, -3, no_number, 8}, {}, {}, {}};
  graph.series_style[0] = pack_series_look(coloured(red));
  for (const double scale : {1.0, 2.0}) {
    const graph_picture picture(graph, paper_style(), scale);
    EXPECT_EQ(picture.drawn.view.x_from, -1) << "half a bar beyond the first";
    EXPECT_EQ(picture.drawn.view.x_to, 7);
    EXPECT_EQ(picture.at(0.9, 4.8), red);
    EXPECT_EQ(picture.at(0.9, 5.2), Qt::white);
    EXPECT_EQ(picture.at(1.1, 4.8), Qt::white);
    EXPECT_EQ(picture.at(1.5, -2.8), red);
    EXPECT_EQ(picture.at(1.5, -3.2), Qt::white);
    EXPECT_EQ(picture.at(4, 0.5), Qt::white) << "no number, no bar";
    EXPECT_EQ(picture.at(6.9, 7.8), red);
  }
  // A second series shares the room.
  graph.series[1] = graph.series[0];
  graph.series_style[1] = pack_series_look(coloured(blue));
  const graph_picture two(graph);
  EXPECT_EQ(two.at(-0.4, 3), red);
  EXPECT_EQ(two.at(0.4, 3), blue);
}

TEST(graph_drawing, points_lines_and_steps_pass_through_their_values) {
  graph_data graph;
  graph.series[0] = {{1, 2, 3, 4, 5}, {1, 4, 2, no_number, 3}, {}, {}, {}};
  graph.series_style[0] = pack_series_look(coloured(red, form_points));
  const graph_picture points(graph);
  for (const int i : {0, 1, 2, 4}) {
    EXPECT_EQ(points.at(graph.series[0].x[i], graph.series[0].y[i]), red) << i;
    EXPECT_EQ(points.beside(graph.series[0].x[i], graph.series[0].y[i], {5, 0}), Qt::white);
  }
  EXPECT_EQ(points.at(1.5, 2.5), Qt::white);

  graph.series_style[0] = pack_series_look(coloured(red, form_lines));
  const graph_picture lines(graph);
  EXPECT_TRUE(lines.passes(red, 2.5, 3));
  EXPECT_FALSE(lines.passes(red, 4, 2.5)) << "a gap";
  graph.series_style[0] = pack_series_look(coloured(red, form_steps));
  const graph_picture steps(graph);
  EXPECT_TRUE(steps.passes(red, 2.3, 4) && steps.passes(red, 1.5, 3));
  EXPECT_FALSE(steps.passes(red, 2.7, 3.4));

  // Out of order: a line goes from point to point as they come, and points stand anyway.
  graph.series[0] = {{5, 1, 3}, {0, 0, 4}, {}, {}, {}};
  graph.series_style[0] = pack_series_look(coloured(red, form_lines));
  const graph_picture triangle(graph);
  EXPECT_TRUE(triangle.passes(red, 2, 2) && triangle.passes(red, 3, 0));
  EXPECT_FALSE(triangle.passes(red, 4, 2)) << "not closed";
  // A reversed axis counts the other way.
  graph.axis_style[style_of_x_axis] = axis_reversed;
  graph.series_style[0] = pack_series_look(coloured(red, form_points));
  const graph_picture reversed(graph);
  EXPECT_LT(pixel_of(reversed.drawn, 5, 0).x(), pixel_of(reversed.drawn, 1, 0).x());
  EXPECT_EQ(reversed.at(5, 0), red);
}

TEST(graph_drawing, error_bars_reach_as_far_as_the_third_value) {
  graph_data graph;
  graph.series[0] = {{3, 1, 2}, {4, 2, 3}, {0.5f, 2, 1}, {}, {}};  // not in order of x
  graph.series_style[0] = pack_series_look(coloured(red, form_points, true));
  const graph_picture picture(graph);
  EXPECT_LT(picture.drawn.view.y_from, 0) << "they are in view";
  const auto marked = [&](double x, double y) {
    return picture.count(
               red, QRect(pixel_of(picture.drawn, x, y).toPoint() - QPoint(1, 1), QSize(3, 3))) > 0;
  };
  EXPECT_TRUE(marked(1, 0.2) && marked(1, 3.8));
  EXPECT_TRUE(marked(3, 4.4) && !marked(3, 4.8));
  EXPECT_TRUE(marked(2, 2.2) && !marked(2, 1.5));
  graph.series_style[0] = pack_series_look(coloured(red, form_points));
  EXPECT_LT(graph_picture(graph).count(red), picture.count(red));
}

TEST(graph_drawing, a_legend_comes_with_the_second_series) {
  graph_data graph;
  graph.kind = form_bars;
  for (std::size_t s = 0; s < graph_series_limit; ++s) {
    graph.labels[label_legend + s] = "series " + std::to_string(s);
    graph.series_style[s] = pack_series_look(coloured(red));
  }
  graph.series[0] = {{1, 2}, {1, 1}, {}, {}, {}};
  graph.y_range = {0, 10};
  const auto in_legend = [](const graph_picture& p) {
    return p.count(red, QRect(QPoint(size.width() / 2, 0), QSize(size.width() / 2, 100)));
  };
  EXPECT_EQ(in_legend(graph_picture(graph)), 0);
  graph.axis_style[style_of_legend] = legend_shown;
  EXPECT_GT(in_legend(graph_picture(graph)), 50);
  graph.axis_style[style_of_legend] = legend_as_needed;
  graph.series[1] = graph.series[0];
  const int two = in_legend(graph_picture(graph));
  EXPECT_GT(two, 100);
  graph.axis_style[style_of_legend] = legend_hidden;
  EXPECT_EQ(in_legend(graph_picture(graph)), 0);
  // Many stand beside the axes, which make room for them.
  graph.axis_style[style_of_legend] = legend_as_needed;
  const double width = graph_picture(graph).drawn.inside.width();
  for (std::size_t s = 2; s < graph_series_limit; ++s) graph.series[s] = graph.series[0];
  const graph_picture ten(graph);
  EXPECT_LT(ten.drawn.inside.width(), width - 60);
  EXPECT_GT(ten.count(red, QRect(static_cast<int>(ten.drawn.inside.right()) + 5, 0, 200, 320)),
            10 * 50);
}

TEST(graph_drawing, an_image_has_its_cells_and_its_scale) {
  graph_data graph;
  graph.axis_style[style_of_colours] = colours_grey;
  put_image(graph, {2, 3, 0, 10, 100, -50}, {0, 1, 2, 3, no_number, 5});
  const graph_picture picture(graph);
  EXPECT_EQ(picture.drawn.view, (graph_view{-5, 25, 25, 125}));
  EXPECT_EQ(picture.at(0, 100), Qt::black);
  EXPECT_EQ(picture.at(20, 50), Qt::white);
  EXPECT_EQ(picture.at(10, 50), Qt::white) << "no number shows the paper";
  EXPECT_NEAR(picture.at(0, 50).lightness(), 153, 2);
  EXPECT_NEAR(picture.at(18, 80).lightness(), 102, 2);
  // The scale beside it runs from black to white.
  const int x = static_cast<int>(picture.drawn.inside.right()) + 25;
  EXPECT_LT(picture.at(QPointF(x, picture.drawn.inside.bottom() - 4)).lightness(), 20);
  EXPECT_GT(picture.at(QPointF(x, picture.drawn.inside.top() + 4)).lightness(), 235);
  put_image(graph, {1, 1, 7, 1, 7, 1}, {4});
  EXPECT_EQ(whole_view(graph), (graph_view{6.5, 7.5, 6.5, 7.5}));
  EXPECT_NEAR(graph_picture(graph).at(7.4, 6.6).lightness(), 127, 2) << "one cell fills it";
}

TEST(graph_drawing, themes_and_texts) {
  graph_data graph;
  graph.title = "title";
  graph.series[0] = {{1, 2}, {1, 2}, {}, {"here", ""}, {}};
  graph.series_style[0] = pack_series_look(coloured(Qt::black, form_points));
  EXPECT_NE(series_colour(graph, 0, dark_style()), Qt::black) << "unseen on black";
  EXPECT_EQ(series_colour(graph, 0, paper_style()), Qt::black);
  EXPECT_EQ(graph_picture(graph, dark_style()).at(QPointF(2, 2)), Qt::black);
  QPalette palette;
  palette.setColor(QPalette::Base, QColor(1, 2, 3));
  EXPECT_EQ(graph_picture(graph, style_of(palette)).at(QPointF(2, 2)), QColor(1, 2, 3));
  const graph_picture titled(graph);
  graph.title.clear();
  const graph_picture plain(graph);
  EXPECT_GT(titled.drawn.inside.top(), plain.drawn.inside.top() + 10) << "a title takes a row";
  // The label stands over its point.
  const QPoint above = pixel_of(plain.drawn, 1, 1).toPoint() - QPoint(12, 20);
  EXPECT_LT(plain.count(Qt::white, QRect(above, QSize(24, 14))), 24 * 14 - 40);
  EXPECT_EQ(plain.beside(2, 2, {0, -10}), Qt::white);
  graph.frame_style = frame_own_colours;
  graph.colours = {0x0000FF, 0, 0};
  EXPECT_EQ(graph_picture(graph).at(QPointF(2, 2)), red);
}

TEST(point_labels, stand_above_and_make_way_for_each_other) {
  const QRectF inside(0, 0, 400, 300);
  constexpr QSizeF label(14, 12);
  const std::vector<QRectF> alone = place_labels({{QPointF(50, 50), 3, label}}, inside);
  EXPECT_EQ(alone[0], QRectF(43, 34, 14, 12)) << "a pixel above the disc";
  EXPECT_TRUE(place_labels({{QPointF(50, 50), 3, {}}}, inside)[0].isEmpty());
  // At the upper edge there is room below alone, and in the corner only on its inner side.
  const std::vector<QRectF> edge =
      place_labels({{QPointF(50, 4), 3, label}, {QPointF(396, 4), 3, label}}, inside);
  EXPECT_EQ(edge[0], QRectF(43, 8, 14, 12));
  EXPECT_EQ(edge[1], QRectF(378, 8, 14, 12));
  // Points 9 pixels apart, and pairs of them at one place: nothing covers anything.
  for (const bool pairs : {false, true}) {
    std::vector<labelled_point> points;
    for (int i = 0; i < 4; ++i) {
      const int step = pairs ? 40 * (i / 2) : 9 * i;
      points.push_back({QPointF(100 + step, 100 + step % 2), 2.5, label});
    }
    const std::vector<QRectF> places = place_labels(points, inside);
    for (std::size_t i = 0; i < places.size(); ++i) {
      for (std::size_t j = 0; j < places.size(); ++j) {
        EXPECT_TRUE(i == j || !places[i].intersects(places[j])) << pairs << i << j;
        EXPECT_FALSE(places[i].contains(points[j].at)) << pairs << i << j;
      }
      EXPECT_LT(QLineF(places[i].center(), points[i].at).length(), 16) << "beside its own point";
    }
  }
  // More than there are places for: each has one all the same.
  const std::vector<labelled_point> heap(12, {QPointF(100, 100), 2.5, label});
  for (const QRectF& place : place_labels(heap, inside)) EXPECT_FALSE(place.isEmpty());
}

// Nothing here has a right look; it has to have one, without a word from the library.
TEST(graph_drawing, odd_data_make_a_picture_without_complaint) {
  const warnings listening;
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<std::vector<float>> values = {{},
                                                  {3},
                                                  {no_number},
                                                  {inf, -inf},
                                                  {3, 3, 3},
                                                  {0},
                                                  {1e38f, -1e38f},
                                                  {1e-38f},
                                                  {5, 1, no_number}};
  for (const auto& x : values) {
    for (const auto& y : values) {
      for (int form = form_unset; form <= form_rings; ++form) {
        graph_data graph;
        graph.kind = form;
        graph.title = std::string(80, 'W');
        graph.labels[label_x_axis] = graph.labels[label_y_axis] = std::string(40, 'M');
        for (std::size_t s = 0; s < graph_series_limit; ++s) {
          graph.labels[label_legend + s] = std::string(40, 'Q');
          graph.series_style[s] = pack_series_look({form_unset, true});
          graph.series[s] = {x, y, y, {"text"}, x};
        }
        graph.column_labels = {std::string(40, 'C'), "b"};
        const graph_view view = whole_view(graph);
        EXPECT_LT(view.x_from, view.x_to);
        EXPECT_LT(view.y_from, view.y_to);
        const graph_picture picture(graph, paper_style(), 1.0, QSize(160, 120));
        EXPECT_EQ(picture.count(Qt::magenta), 0) << "all is painted";
      }
    }
  }
  for (const QSize tiny : {QSize(1, 1), QSize(9, 200), QSize(200, 9)}) {
    EXPECT_EQ(graph_picture({}, paper_style(), 1.0, tiny).count(Qt::magenta), 0);
  }
  EXPECT_EQ(warnings::heard, QStringList());
}

TEST(graph_drawing, a_vector_picture_is_made_of_strokes) {
  const temporary_directory directory;
  graph_data graph;
  graph.title = "strokes";
  graph.kind = form_lines;
  for (int i = 0; i < 50; ++i) {
    graph.series[0].x.push_back(static_cast<float>(i));
    graph.series[0].y.push_back(static_cast<float>(i % 7));
  }
  const auto file = [&](const char* name) {
    EXPECT_TRUE(write_graph_picture(graph, paper_style(), directory.file(name), size)) << name;
    const std::vector<char> bytes = read_bytes(directory.file(name));
    return QByteArray(bytes.data(), static_cast<qsizetype>(bytes.size()));
  };
  const QByteArray svg = file("a.svg");
  EXPECT_FALSE(svg.contains("<image"));
  EXPECT_TRUE(svg.contains("strokes</text>"));
  EXPECT_TRUE(svg.contains("<polyline") || svg.contains("<path"));
  const QByteArray pdf = file("a.pdf");
  EXPECT_FALSE(pdf.contains("/Subtype /Image"));
  // Coordinates of the page, not of another resolution: 480 x 320 pixels are 360 x 240 points.
  EXPECT_TRUE(pdf.contains("/MediaBox [0 0 360"));
  const QByteArray png = file("a.png");
  EXPECT_EQ(QImage::fromData(png).size(), size);
  EXPECT_FALSE(write_graph_picture(graph, paper_style(), directory.file("a.bmp"), size));
  EXPECT_FALSE(write_graph_picture(graph, paper_style(), directory.file("no/a.png"), size));
}

TEST(graph_view, zooming_and_dragging_keep_what_is_under_the_pointer) {
  drawn_graph drawn{QRectF(50, 10, 400, 200), {-10, 30, 5, 105}, false, true};
  for (const bool reversed : {false, true}) {
    drawn.x_reversed = reversed;
    const QPointF at(150, 110), value = value_at(drawn, at);
    EXPECT_EQ(pixel_of(drawn, value.x(), value.y()), at);
    drawn_graph next = drawn;
    next.view = zoom_view(drawn, at, 2);
    EXPECT_DOUBLE_EQ(next.view.x_to - next.view.x_from, 20);
    EXPECT_NEAR(value_at(next, at).x(), value.x(), 1e-12);
    EXPECT_NEAR(value_at(next, at).y(), value.y(), 1e-12);
    next.view = drag_view(drawn, at, QPointF(200, 60));
    EXPECT_NEAR(value_at(next, QPointF(200, 60)).x(), value.x(), 1e-12);
    EXPECT_NEAR(value_at(next, QPointF(200, 60)).y(), value.y(), 1e-12);
    next.view = view_of_rectangle(drawn, QRectF(150, 60, 100, 50));
    EXPECT_EQ(pixel_of(next, value.x(), value.y()), next.inside.bottomLeft());
  }
  EXPECT_EQ(view_of_rectangle(drawn, QRectF(150, 60, 2, 50)), drawn.view) << "a click";
  // However long the wheel turns, there is something to show.
  for (const double factor : {2.0, 0.5}) {
    drawn_graph turned = drawn;
    for (int i = 0; i < 500; ++i) turned.view = zoom_view(turned, QPointF(101, 37), factor);
    EXPECT_LT(turned.view.x_from, turned.view.x_to);
    EXPECT_TRUE(std::isfinite(turned.view.x_to - turned.view.x_from));
  }
}

}  // namespace
}  // namespace kestrelvane::test
