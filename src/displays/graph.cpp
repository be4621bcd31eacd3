#include "displays/graph.h"

#include <QFontMetricsF>
#include <QImage>
#include <QPaintEngine>
#include <QPalette>
#include <QPicture>
#include <algorithm>
#include <cmath>

#include "displays/display_colours.h"
#include "displays/graph_series_plot.h"
#include "displays/picture_file.h"

namespace kestrelvane {

namespace {

constexpr const char* title_font = "t'Arial'h18w0b";
constexpr const char* subtitle_font = "t'Arial'h15w0";

// A line of text over the axes, or over the whole picture where it is longer; cut where
// that ends.
class text_line : public QCPTextElement {
 public:
  text_line(QCustomPlot* plot, const std::string& text, const QFont& font)
      : QCPTextElement(plot, QString::fromStdString(text), font) {
    const int height = static_cast<int>(std::ceil(QFontMetricsF(font).height()));
    setMinimumSize(1, height + 2);
    setMaximumSize(QWIDGETSIZE_MAX, height + 2);
  }

 protected:
  void draw(QCPPainter* painter) override {
    painter->setFont(font());
    painter->setPen(QPen(textColor()));
    const QFontMetricsF metrics(font());
    QRect room = rect();
    if (metrics.horizontalAdvance(text()) > room.width()) {
      const QRect whole = parentPlot()->viewport();
      room.setLeft(whole.left() + 4);
      room.setRight(whole.right() - 4);
    }
    const QString shown = metrics.elidedText(text(), Qt::ElideRight, room.width());
    painter->drawText(room, Qt::AlignCenter | Qt::TextDontClip, shown);
  }
};

QColor mix(const QColor& a, const QColor& b, double of_b) {
  const auto channel = [&](int from, int to) {
    return static_cast<int>(std::lround(from + of_b * (to - from)));
  };
  return QColor(channel(a.red(), b.red()), channel(a.green(), b.green()),
                channel(a.blue(), b.blue()));
}

graph_style style_for(const graph_data& graph, const graph_style& style) {
  // Only then has the graph colours of its own.
  if (graph.frame_style != frame_own_colours) return style;
  const auto colour = [&](std::size_t i) {
    return colour_of_word(static_cast<std::uint32_t>(graph.colours[i]));
  };
  return {colour(0), colour(1), colour(2)};
}

QString title_of(const graph_data& graph, std::size_t axis) {
  const std::string& unit = graph.units[axis];
  const std::string& title = graph.labels[label_x_axis + axis];
  return QString::fromStdString(title + (unit.empty() ? "" : " (" + unit + ")"));
}

// As many digits as tell neighbouring divisions apart, six at least.
int digits_for(const QCPRange& range) {
  const double largest = std::max(std::abs(range.lower), std::abs(range.upper));
  return std::clamp(static_cast<int>(std::ceil(std::log10(largest / range.size()))) + 3, 6, 12);
}

void dress_axis(QCPAxis* axis, const graph_style& style, const QFont& font) {
  for (const auto set : {&QCPAxis::setBasePen, &QCPAxis::setTickPen, &QCPAxis::setSubTickPen}) {
    (axis->*set)(QPen(style.axes, 1));
  }
  axis->setTickLabelFont(font);
  axis->setLabelFont(font);
  axis->setTickLabelColor(style.text);
  axis->setLabelColor(style.text);
}

void put_axis(QCPAxis* axis, const graph_data& graph, const graph_style& style, bool is_x) {
  const std::array<std::int32_t, 2>& divisions = is_x ? graph.x_divisions : graph.y_divisions;
  dress_axis(axis, style, graph_font(is_x ? graph.x_font : graph.y_font, small_font));
  axis->setLabel(title_of(graph, is_x ? 0 : 1));
  const std::int32_t flags = graph.axis_style[is_x ? style_of_x_axis : style_of_y_axis];
  axis->setRangeReversed((flags & axis_reversed) != 0);
  axis->grid()->setVisible((flags & axis_grid) != 0);
  axis->grid()->setPen(QPen(mix(style.background, style.axes, 0.2), 1));
  axis->grid()->setZeroLinePen(QPen(mix(style.background, style.axes, 0.4), 1));
  // A hundred are a grey bar, whatever was asked for.
  if (divisions[0] > 0) axis->ticker()->setTickCount(std::min(divisions[0], 100));
  // One division within another is none.
  axis->setSubTicks(divisions[1] != 1);
  axis->setNumberPrecision(digits_for(axis->range()));
}

// Texts in the place of numbers; across where they would not fit side by side.
void put_tick_texts(QCPAxis* axis, const std::vector<std::string>& texts,
                    const std::vector<double>& places, double length) {
  const QSharedPointer<QCPAxisTickerText> ticker(new QCPAxisTickerText);
  const QFontMetricsF metrics(axis->tickLabelFont());
  double needed = 0;
  for (std::size_t i = 0; i < std::min(texts.size(), places.size()); ++i) {
    // Beyond this a text is cut, or the axis would push the graph out of the picture.
    const QString text = metrics.elidedText(QString::fromStdString(texts[i]), Qt::ElideRight, 160);
    ticker->addTick(places[i], text);
    needed += metrics.horizontalAdvance(text) + 8;
  }
  axis->setTicker(ticker);
  axis->setSubTicks(false);
  const bool crowded = axis->axisType() == QCPAxis::atBottom && needed > length;
  if (crowded) axis->setTickLabelRotation(-45);
}

std::vector<double> places_of(const std::vector<float>& values, std::size_t step, std::size_t n) {
  std::vector<double> places;
  for (std::size_t i = 0; i < n && i * step < values.size(); ++i) {
    places.push_back(values[i * step]);
  }
  return places;
}

void put_labels_of_points(QCustomPlot& plot, const graph_data& graph) {
  const graph_series& first = graph.series[0];
  const std::size_t n_columns = graph.column_labels.size(), n_rows = graph.row_labels.size();
  if (n_columns > 0) {
    put_tick_texts(plot.xAxis, graph.column_labels, places_of(first.x, 1, n_columns),
                   // The vertical axis and its numbers take the rest.
                   plot.viewport().width() - 60);
  }
  if (n_rows > 0 && has_image(graph)) {
    const auto step = static_cast<std::size_t>(graph.axis_style[style_image_columns]);
    put_tick_texts(plot.yAxis, graph.row_labels, places_of(first.y, step, n_rows), 0);
  }
}

void put_frame(QCustomPlot& plot, const graph_data& graph, const graph_style& style,
               const graph_view& view) {
  plot.setBackground(style.background);
  plot.axisRect()->setMinimumSize(20, 20);
  // Room for most numbers, so that the axis stays where it is while a graph is moved.
  plot.axisRect()->setMinimumMargins(QMargins(std::min(56, plot.viewport().width() / 6), 0, 12, 0));
  plot.axisRect()->setupFullAxesBox(false);
  for (QCPAxis* axis : {plot.xAxis2, plot.yAxis2}) {
    dress_axis(axis, style, graph_font("", small_font));
    axis->setTicks(false);
    axis->setTickLabels(false);
  }
  plot.xAxis->setRange(view.x_from, view.x_to);
  plot.yAxis->setRange(view.y_from, view.y_to);
  put_axis(plot.xAxis, graph, style, true);
  put_axis(plot.yAxis, graph, style, false);
  put_labels_of_points(plot, graph);
}

// Title and subtitle above, remark below; each in a row of its own.
void put_texts(QCustomPlot& plot, const graph_data& graph, const graph_style& style) {
  QCPLayoutGrid* rows = plot.plotLayout();
  rows->setRowSpacing(2);
  const auto put = [&](int row, const std::string& text, const char* font) {
    if (text.empty()) return;
    if (row == 0) rows->insertRow(0);
    auto* line = new text_line(&plot, text, graph_font("", font));
    line->setTextColor(style.text);
    rows->addElement(row == 0 ? 0 : rows->rowCount(), 0, line);
  };
  // Each is put in front of what is there, so that the title ends above the subtitle.
  put(0, graph.labels[label_subtitle], subtitle_font);
  put(0, graph.title, title_font);
  put(-1, graph.remark, small_font);
}

// The row in which the axes stand, below title and subtitle.
int row_of_axes(const QCustomPlot& plot) {
  for (int row = 0; row < plot.plotLayout()->rowCount(); ++row) {
    if (plot.plotLayout()->element(row, 0) == plot.axisRect()) return row;
  }
  return 0;
}

void put_colour_scale(QCustomPlot& plot, QCPColorScale* scale, const graph_data& graph,
                      const graph_style& style) {
  plot.plotLayout()->addElement(row_of_axes(plot), 1, scale);
  scale->setLabel(title_of(graph, 2));
  dress_axis(scale->axis(), style, graph_font("", small_font));
  // Scale and axes begin and end at the same height.
  auto* margins = new QCPMarginGroup(&plot);
  plot.axisRect()->setMarginGroup(QCP::msBottom | QCP::msTop, margins);
  scale->setMarginGroup(QCP::msBottom | QCP::msTop, margins);
}

void move_legend_beside(QCustomPlot& plot) {
  auto* column = new QCPLayoutGrid;
  plot.axisRect()->insetLayout()->take(plot.legend);
  column->addElement(0, 0, plot.legend);
  // Takes up what the legend leaves below it.
  column->addElement(1, 0, new QCPLayoutElement(&plot));
  column->setRowStretchFactor(0, 0.001);
  column->setMargins(QMargins(4, 8, 8, 8));
  QCPLayoutGrid* whole = plot.plotLayout();
  const int place = whole->columnCount();
  whole->addElement(row_of_axes(plot), place, column);
  whole->setColumnStretchFactor(place, 0.001);
}

// Up to four entries stand inside the axes, more beside them; a legend for which there is
// hardly room is left out.
void put_legend(QCustomPlot& plot, const graph_data& graph, const graph_style& style) {
  QCPLegend* legend = plot.legend;
  const int n = legend->itemCount();
  const std::int32_t wanted = graph.axis_style[style_of_legend];
  // By itself a legend is shown where there is something to tell apart.
  const bool shown = wanted == legend_shown ? n > 0 : wanted != legend_hidden && n > 1;
  legend->setFont(graph_font("", small_font));
  legend->setTextColor(style.text);
  legend->setBorderPen(QPen(mix(style.background, style.axes, 0.4)));
  QColor ground = style.background;
  ground.setAlpha(210);
  legend->setBrush(ground);
  const QFontMetricsF metrics(legend->font());
  double width = 0;
  for (int i = 0; i < plot.plottableCount(); ++i) {
    QCPAbstractPlottable* series = plot.plottable(i);
    series->setName(metrics.elidedText(series->name(), Qt::ElideRight, 220));
    width = std::max(width, metrics.horizontalAdvance(series->name()) + 70);
  }
  const QRect room = plot.viewport();
  const bool fits = width < room.width() / 2.0 && n * (metrics.height() + 6) < room.height() * 0.8;
  legend->setVisible(shown && fits);
  // After its size is known, and only when it is to be seen at all.
  if (shown && fits && n > 4) move_legend_beside(plot);
}

// Asked of the axes, whose first and last pixels are their own affair.
drawn_graph as_drawn(const QCustomPlot& plot, const graph_view& view) {
  const QCPAxis &x = *plot.xAxis, &y = *plot.yAxis;
  const QPointF first(x.coordToPixel(view.x_from), y.coordToPixel(view.y_from));
  const QPointF last(x.coordToPixel(view.x_to), y.coordToPixel(view.y_to));
  return {QRectF(first, last).normalized(), view, x.rangeReversed(), y.rangeReversed()};
}

bool is_raster(const QPainter& painter) {
  return painter.paintEngine()->type() == QPaintEngine::Raster;
}

// The library wants a painter of its own kind: over a raster it gets an image of the same
// resolution, on any other device its strokes are taken down and played again.
void paint_plot(QCustomPlot& plot, QPainter& painter, QSize size) {
  if (!is_raster(painter)) {
    // A recording of strokes keeps them sharp at every size.
    QPicture strokes;
    QCPPainter writer(&strokes);
    writer.setMode(QCPPainter::pmVectorized);
    writer.setMode(QCPPainter::pmNoCaching);
    plot.toPainter(&writer, size.width(), size.height());
    writer.end();
    // They are played at the same size in inches, where everything else counts in pixels.
    const double same_pixels =
        double(strokes.logicalDpiX()) / std::max(painter.device()->logicalDpiX(), 1);
    painter.save();
    painter.scale(same_pixels, same_pixels);
    painter.drawPicture(0, 0, strokes);
    painter.restore();
    return;
  }
  const double ratio = painter.deviceTransform().m11();
  QImage image((QSizeF(size) * ratio).toSize(), QImage::Format_ARGB32_Premultiplied);
  if (image.isNull()) return;  // no memory for one so large
  image.setDevicePixelRatio(ratio);
  QCPPainter writer(&image);
  writer.setMode(QCPPainter::pmNoCaching);
  plot.toPainter(&writer, size.width(), size.height());
  writer.end();
  painter.drawImage(QPoint(0, 0), image);
}

}  // namespace

graph_style paper_style() { return {Qt::white, Qt::black, Qt::black}; }
graph_style dark_style() { return {Qt::black, QColor(0xd0, 0xd0, 0xd0), Qt::white}; }

graph_style style_of(const QPalette& palette) {
  const QColor ground = palette.color(QPalette::Base), text = palette.color(QPalette::Text);
  return {ground, mix(text, ground, 0.2), text};
}

QColor series_colour(const graph_data& graph, std::size_t series, const graph_style& style) {
  static constexpr QRgb colours[graph_series_limit] = {0x1f6fb5, 0xd1495b, 0x2e8b57, 0xe08e1b,
                                                       0x7b52ab, 0x0097a7, 0x8c564b, 0xc2458f,
                                                       0x7a8a1e, 0x6b7785};
  const series_look look = look_of_series(graph, series);
  const QColor colour = look.own_colour ? colour_of_word(look.colour) : QColor(colours[series]);
  const int contrast = std::abs(qGray(colour.rgb()) - qGray(style.background.rgb()));
  // Of 255: a line must stand off its ground, light or dark, and keep its hue as far as it can.
  return contrast < 50 ? mix(colour, style.text, 0.5) : colour;
}

void put_graph(QCustomPlot& plot, const graph_data& graph, const graph_style& style,
               const graph_view& view) {
  const graph_style used = style_for(graph, style);
  // Frame and texts first: the series are drawn into what is left.
  put_frame(plot, graph, used, view);
  put_texts(plot, graph, used);
  if (has_image(graph)) {
    put_colour_scale(plot, put_image_map(plot, graph, used), graph, used);
  }
  // Hidden until it has its entries, which are made with the series.
  plot.setAutoAddPlottableToLegend(true);
  put_series(plot, graph, used);
  put_legend(plot, graph, used);
}

drawn_graph paint_graph(const graph_data& graph, const graph_style& style, const graph_view& view,
                        QPainter& painter, QSize size) {
  QCustomPlot plot;
  plot.setViewport(QRect(QPoint(0, 0), size));
  put_graph(plot, graph, style, view);
  paint_plot(plot, painter, size);
  return as_drawn(plot, view);
}

bool write_graph_picture(const graph_data& graph, const graph_style& style, const std::string& path,
                         QSize size) {
  return write_picture(path, size, [&](QPainter& painter) {
    paint_graph(graph, style, whole_view(graph), painter, size);
  });
}

}  // namespace kestrelvane
