#include "displays/graph_series_plot.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "displays/display_colours.h"
#include "displays/display_fonts.h"
#include "displays/point_labels.h"

namespace kestrelvane {

namespace {

constexpr std::size_t label_limit = 500;    // points with a label; more are a blot
constexpr std::size_t large_cloud = 5'000;  // points drawn as squares, without smoothing
constexpr double point_size = 5, small_point_size = 2.5;

// The points of a series that can be drawn, in an order that the library keeps.
struct plotted_points {
  QVector<double> x, y, error, extra;
  bool ascending = true;  // x
};

// Infinite values are as good as none: both leave a gap.
double finite_or_gap(double value) { return std::isfinite(value) ? value : std::nan(""); }

std::vector<std::size_t> drawn_order(const graph_series& series, bool may_sort) {
  std::vector<std::size_t> order(series.x.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  // A place that is no number cannot be shown at all, and is no gap either.
  std::erase_if(order, [&](std::size_t i) { return !std::isfinite(series.x[i]); });
  if (may_sort) {
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return series.x[a] < series.x[b]; });
  }
  return order;
}

plotted_points points_of(const graph_series& series, bool may_sort) {
  plotted_points points;
  for (const std::size_t i : drawn_order(series, may_sort)) {
    // Equal places are still in order.
    if (!points.x.isEmpty() && series.x[i] < points.x.back()) points.ascending = false;
    points.x.push_back(series.x[i]);
    points.y.push_back(finite_or_gap(value_or_zero(series.y, i)));
    points.error.push_back(finite_or_gap(value_or_zero(series.third, i)));
    if (series.extra.size() == series.x.size()) {
      points.extra.push_back(finite_or_gap(series.extra[i]));
    }
  }
  return points;
}

// Two widths of a logical pixel are enough for the eye where every point is one of thousands,
// and a square of them is drawn ten times as fast as a disc.
QCPScatterStyle dots(const QColor& colour, std::size_t n) {
  const bool few = n <= large_cloud;
  QCPScatterStyle style(few ? QCPScatterStyle::ssCircle : QCPScatterStyle::ssSquare,
                        few ? point_size : small_point_size);
  style.setPen(QPen(Qt::NoPen));
  style.setBrush(colour);
  return style;
}

QPen line_pen(const QColor& colour, Qt::PenStyle style = Qt::SolidLine) {
  return QPen(colour, 1.2, style, Qt::FlatCap, Qt::BevelJoin);
}

// A line that turns back is a curve for the library, and has its points in their own order.
QCPAbstractPlottable* put_line(QCustomPlot& plot, const plotted_points& points, const QPen& pen) {
  if (points.ascending) {
    QCPGraph* line = plot.addGraph();
    line->setData(points.x, points.y, true);
    line->setPen(pen);
    return line;
  }
  auto* curve = new QCPCurve(plot.xAxis, plot.yAxis);
  QVector<double> order(points.x.size());
  std::iota(order.begin(), order.end(), 0.0);
  curve->setData(order, points.x, points.y, true);
  curve->setPen(pen);
  return curve;
}

void put_dots_on(QCPAbstractPlottable* line, const QCPScatterStyle& style) {
  // Both kinds of line are asked, since they have no common form for it.
  if (auto* graph = qobject_cast<QCPGraph*>(line)) graph->setScatterStyle(style);
  if (auto* curve = qobject_cast<QCPCurve*>(line)) curve->setScatterStyle(style);
}

QCPAbstractPlottable* put_dots(QCustomPlot& plot, const plotted_points& points,
                               const QColor& colour) {
  QCPGraph* cloud = plot.addGraph();
  cloud->setData(points.x, points.y, true);
  cloud->setLineStyle(QCPGraph::lsNone);
  cloud->setPen(QPen(colour));
  cloud->setScatterStyle(dots(colour, static_cast<std::size_t>(points.x.size())));
  cloud->setAntialiasedScatters(points.x.size() <= static_cast<qsizetype>(large_cloud));
  return cloud;
}

// Hollow, a little larger than a dot, so that the two are told apart without their colours.
QCPAbstractPlottable* put_rings(QCustomPlot& plot, const plotted_points& points,
                                const QColor& colour) {
  QCPAbstractPlottable* cloud = put_dots(plot, points, colour);
  QCPScatterStyle style(QCPScatterStyle::ssCircle, point_size + 3);
  style.setPen(QPen(colour, 1.5));
  style.setBrush(Qt::NoBrush);
  put_dots_on(cloud, style);
  return cloud;
}

QCPAbstractPlottable* put_steps(QCustomPlot& plot, const plotted_points& points,
                                const QColor& colour) {
  QCPGraph* steps = plot.addGraph();
  steps->setData(points.x, points.y, true);
  steps->setLineStyle(QCPGraph::lsStepCenter);
  steps->setPen(line_pen(colour));
  steps->setAntialiased(false);
  return steps;
}

QCPAbstractPlottable* put_bars(QCustomPlot& plot, const plotted_points& points,
                               const QColor& colour) {
  auto* bars = new QCPBars(plot.xAxis, plot.yAxis);
  QVector<double> x, y;
  for (qsizetype i = 0; i < points.x.size(); ++i) {
    x.push_back(points.x[i]);
    // A bar that is no number is as high as none, so that error bars keep their places.
    y.push_back(std::isnan(points.y[i]) ? 0.0 : points.y[i]);
  }
  bars->setData(x, y, true);
  bars->setPen(Qt::NoPen);
  bars->setBrush(colour);
  bars->setAntialiased(false);
  return bars;
}

QCPAbstractPlottable* put_form(QCustomPlot& plot, const plotted_points& points, graph_form form,
                               const QColor& colour) {
  switch (form) {
    case form_points:
      return put_dots(plot, points, colour);
    case form_rings:
      return put_rings(plot, points, colour);
    case form_bars:
      return put_bars(plot, points, colour);
    case form_steps:
      return put_steps(plot, points, colour);
    case form_lines_and_points: {
      QCPAbstractPlottable* line = put_line(plot, points, line_pen(colour));
      put_dots_on(line, dots(colour, static_cast<std::size_t>(points.x.size())));
      return line;
    }
    default:
      return put_line(plot, points, line_pen(colour));
  }
}

void put_error_bars(QCustomPlot& plot, QCPAbstractPlottable* of, const QVector<double>& errors,
                    const QColor& colour) {
  auto* bars = new QCPErrorBars(plot.xAxis, plot.yAxis);
  bars->removeFromLegend();
  bars->setErrorType(QCPErrorBars::etValueError);
  bars->setDataPlottable(of);
  bars->setData(errors);
  bars->setPen(QPen(colour, 1));
  bars->setAntialiased(false);
  bars->setSymbolGap(0);
}

// The labels of the points of one series. They are placed when they are drawn: only then is known
// how many pixels lie between two points.
class point_labels : public QCPAbstractItem {
 public:
  point_labels(QCustomPlot* plot, const graph_series& series, const QColor& colour)
      : QCPAbstractItem(plot), font_(graph_font("", small_font)), colour_(colour) {
    // Of a large cloud labels keep off its first points alone, or finding places would take long.
    for (std::size_t i = 0; i < std::min(series.x.size(), label_limit); ++i) {
      const double x = series.x[i], y = value_or_zero(series.y, i);
      if (!std::isfinite(x) || !std::isfinite(y)) continue;
      const bool named = i < series.point_text.size();
      places_.emplace_back(x, y);
      texts_.push_back(named ? QString::fromStdString(series.point_text[i]) : QString());
    }
  }
  double selectTest(const QPointF&, bool, QVariant*) const override { return -1; }

 protected:
  void draw(QCPPainter* painter) override {
    painter->setFont(font_);
    painter->setPen(QPen(colour_));
    const QFontMetricsF metrics(font_);
    // Height of figures, not of a line: labels may stand that much closer.
    const double height = metrics.capHeight() + 2;
    std::vector<labelled_point> points;
    for (std::size_t i = 0; i < places_.size(); ++i) {
      const QPointF at(parentPlot()->xAxis->coordToPixel(places_[i].x()),
                       parentPlot()->yAxis->coordToPixel(places_[i].y()));
      // A point that a zoom has left outside takes its label along.
      const bool shown = !texts_[i].isEmpty() && QRectF(clipRect()).contains(at);
      const double width = shown ? metrics.horizontalAdvance(texts_[i]) + 2 : 0;
      points.push_back({at, point_size / 2, QSizeF(width, height)});
    }
    const std::vector<QRectF> rects = place_labels(points, clipRect());
    for (std::size_t i = 0; i < rects.size(); ++i) {
      if (rects[i].isEmpty()) continue;
      painter->drawText(QPointF(rects[i].left() + 1, rects[i].bottom() - 1), texts_[i]);
    }
  }

 private:
  QFont font_;
  QColor colour_;
  std::vector<QPointF> places_;
  std::vector<QString> texts_;
};

void put_point_labels(QCustomPlot& plot, const graph_series& series, const graph_style& style) {
  // Beyond the limit labels hide each other and the points.
  if (series.point_text.empty() || series.point_text.size() > label_limit) return;
  // The plot owns it.
  new point_labels(&plot, series, style.text);
}

void put_one_series(QCustomPlot& plot, const graph_data& graph, std::size_t s,
                    const graph_style& style) {
  const graph_series& series = graph.series[s];
  const series_look look = look_of_series(graph, s);
  const QColor colour = series_colour(graph, s, style);
  // Lines join points as they come; other forms do not care.
  const bool in_order = look.form == form_lines || look.form == form_lines_and_points;
  const plotted_points points = points_of(series, !in_order);
  QCPAbstractPlottable* plotted = put_form(plot, points, look.form, colour);
  const QString name = QString::fromStdString(graph.labels[label_legend + s]);
  plotted->setName(name);
  if (name.isEmpty()) plotted->removeFromLegend();
  if (look.error_bars) {
    // On a bar they would vanish in its own colour.
    const QColor on_top = look.form == form_bars ? style.text : colour;
    put_error_bars(plot, plotted, points.error, on_top);
  }
  if (!points.extra.isEmpty()) {
    // The fit has no bars and no dots of its own.
    const plotted_points fit = {points.x, points.extra, {}, {}, points.ascending};
    put_line(plot, fit, line_pen(style.text, Qt::DashLine))->removeFromLegend();
  }
  put_point_labels(plot, series, style);
}

// Several series of bars stand side by side in the room of one.
void share_bar_width(QCustomPlot& plot, const graph_data& graph) {
  QList<QCPBars*> bars;
  for (int i = 0; i < plot.plottableCount(); ++i) {
    if (auto* found = qobject_cast<QCPBars*>(plot.plottable(i))) bars.push_back(found);
  }
  double width = std::numeric_limits<double>::infinity();
  for (std::size_t s = 0; s < graph_series_limit; ++s) {
    const bool drawn = look_of_series(graph, s).form == form_bars && !graph.series[s].x.empty();
    if (drawn) width = std::min(width, bar_width(graph.series[s]));
  }
  // Alone, it touches its neighbours, as bins do.
  if (bars.size() == 1) bars.first()->setWidth(width);
  if (bars.size() < 2) return;
  auto* group = new QCPBarsGroup(&plot);
  group->setSpacingType(QCPBarsGroup::stPlotCoords);
  group->setSpacing(0);
  for (QCPBars* one : bars) {
    // A tenth of the room stays free between the groups.
    one->setWidth(0.9 * width / static_cast<double>(bars.size()));
    one->setBarsGroup(group);
  }
}

QCPColorGradient gradient_of(std::int32_t colours, const graph_style& style) {
  QCPColorGradient gradient(colours == colours_grey ? QCPColorGradient::gpGrayscale
                                                    : QCPColorGradient::gpThermal);
  if (colours == colours_polar) {
    gradient.setColorStops({{0.0, QColor(0x1f, 0x5f, 0xb5)},
                            {0.5, QColor(0xf4, 0xf4, 0xf4)},
                            {1.0, QColor(0xc2, 0x2a, 0x35)}});
  }
  // A cell that is no number is a hole.
  gradient.setNanHandling(QCPColorGradient::nhNanColor);
  gradient.setNanColor(style.background);
  return gradient;
}

// The cells into the map's own order, which is ascending in both directions. The library
// spans its first and last centres and adds half a cell; a single row or column is
// given twice, half as high or wide.
void fill_map(QCPColorMapData& map, const graph_data& graph) {
  const graph_series& cells = graph.series[0];
  const int rows = graph.axis_style[style_image_rows];
  const int columns = graph.axis_style[style_image_columns];
  const double x0 = cells.x.front(), x1 = cells.x.back();
  const double y0 = value_or_zero(cells.y, 0), y1 = value_or_zero(cells.y, cells.x.size() - 1);
  const int wide = std::max(columns, 2), high = std::max(rows, 2);
  map.setSize(wide, high);
  map.setKeyRange(columns > 1 ? QCPRange(x0, x1) : QCPRange(x0 - 0.25, x0 + 0.25));
  map.setValueRange(rows > 1 ? QCPRange(y0, y1) : QCPRange(y0 - 0.25, y0 + 0.25));
  // Cells may be given in either direction; the map wants them rising.
  for (int key = 0; key < wide; ++key) {
    for (int value = 0; value < high; ++value) {
      const int column = columns > 1 ? (x0 < x1 ? key : columns - 1 - key) : 0;
      const int row = rows > 1 ? (y0 < y1 ? value : rows - 1 - value) : 0;
      const auto i = static_cast<std::size_t>(row) * static_cast<std::size_t>(columns) +
                     static_cast<std::size_t>(column);
      map.setCell(key, value, finite_or_gap(value_or_zero(cells.third, i)));
    }
  }
}

QCPRange colour_range(const graph_data& graph) {
  double least = std::numeric_limits<double>::infinity(), greatest = -least;
  const graph_series& cells = graph.series[0];
  for (std::size_t i = 0; i < cells.x.size(); ++i) {
    const double value = value_or_zero(cells.third, i);
    if (!std::isfinite(value)) continue;
    least = std::min(least, value);
    greatest = std::max(greatest, value);
  }
  // Nothing to show is shown on a scale of its own.
  if (least > greatest) return QCPRange(0, 1);
  // 0 must stand in the middle of the colours.
  if (graph.axis_style[style_of_colours] == colours_polar) {
    greatest = std::max(std::abs(least), std::abs(greatest));
    least = -greatest;
  }
  return least < greatest ? QCPRange(least, greatest) : QCPRange(least - 0.5, greatest + 0.5);
}

}  // namespace

QFont graph_font(const std::string& name, const char* otherwise) {
  font_description description;
  if (!parse_font(name, description)) parse_font(otherwise, description);
  return make_font(description);
}

void put_series(QCustomPlot& plot, const graph_data& graph, const graph_style& style) {
  // The image is drawn before, and below, the series.
  for (std::size_t s = has_image(graph) ? 1 : 0; s < graph_series_limit; ++s) {
    if (!graph.series[s].x.empty()) put_one_series(plot, graph, s, style);
  }
  share_bar_width(plot, graph);
}

QCPColorScale* put_image_map(QCustomPlot& plot, const graph_data& graph, const graph_style& style) {
  auto* map = new QCPColorMap(plot.xAxis, plot.yAxis);
  map->removeFromLegend();
  map->setInterpolate(false);
  map->setTightBoundary(false);
  fill_map(*map->data(), graph);
  auto* scale = new QCPColorScale(&plot);
  scale->setType(QCPAxis::atRight);
  scale->setBarWidth(14);
  map->setColorScale(scale);
  map->setGradient(gradient_of(graph.axis_style[style_of_colours], style));
  map->setDataRange(colour_range(graph));
  return scale;
}

}  // namespace kestrelvane
