#include "displays/clusters/template_image.h"

#include <algorithm>
#include <cmath>

#include "displays/clusters/plane_axes.h"

namespace kestrelvane {

namespace {

constexpr double bar_room = 74;  // at the right, for the colour bar and its numbers

QRectF image_box(std::int32_t width, std::int32_t height) {
  return QRectF(52, 24, std::max(width - 52 - bar_room, 1.0), std::max(height - 62.0, 1.0));
}

// Rows round the centre channel, as many as are asked for, where there are so many.
void choose_rows(const session_state& session, const template_image_view& view,
                 template_image_picture& picture) {
  const recording_store& r = session.recording;
  const std::int32_t centre = session.templates.centre_channel(view.cluster);
  std::int32_t middle = 1;
  for (std::int32_t k = 1; k <= r.n_channels; ++k) {
    // Rows are in the order of the probe and not of channel numbers, which wander over it.
    if (r.chan_sort_order[k] == centre) middle = k;
  }
  const auto box = image_box(view.width, view.height);
  // A row needs a pixel, or it would hide its neighbour.
  std::int32_t n = view.n_rows > 0 ? view.n_rows : static_cast<std::int32_t>(box.height());
  n = std::clamp(n, 1, r.n_channels);
  const std::int32_t first = std::clamp(middle - n / 2, 1, r.n_channels - n + 1);
  for (std::int32_t k = first; k < first + n; ++k) {
    picture.channels.push_back(r.chan_sort_order[k]);
  }
  picture.centre_row = middle - first;
}

QImage make_image(const template_image_picture& picture, const cluster_theme& theme) {
  const auto n_rows = static_cast<int>(picture.channels.size());
  QImage image(picture.n_points, n_rows, QImage::Format_RGB32);
  const float* value = picture.values.data();
  for (int row = 0; row < n_rows; ++row) {
    auto* line = reinterpret_cast<QRgb*>(image.scanLine(row));
    for (int p = 0; p < picture.n_points; ++p) {
      line[p] = colour_of_voltage(*value++ / picture.limit_uv, theme).rgb();
    }
  }
  return image;
}

void paint_colour_bar(QPainter& painter, const template_image_picture& picture,
                      const template_image_view& view, const QRectF& box,
                      const cluster_theme& theme) {
  const bool both_signs = view.values == template_values::mean;
  const QRectF bar(box.right() + 14, box.top(), 14, box.height());
  constexpr int n_steps = 128;
  QImage scale(1, n_steps, QImage::Format_RGB32);
  for (int i = 0; i < n_steps; ++i) {
    // Rows of an image run downwards, the scale upwards.
    const float up = 1 - static_cast<float>(i) / (n_steps - 1);
    scale.setPixelColor(0, i, colour_of_voltage(both_signs ? 2 * up - 1 : up, theme));
  }
  painter.drawImage(bar, scale);
  painter.setPen(QPen(theme.axes, 1));
  painter.drawRect(bar);
  painter.setPen(theme.text);
  const double middle = painter.fontMetrics().ascent() / 2.0 - 1;
  const double limit = picture.limit_uv;
  const double step = round_step(both_signs ? 2 * limit : limit, 6);
  for (double v = both_signs ? -std::floor(limit / step) * step : 0; v <= limit; v += step) {
    const double up = both_signs ? 0.5 + 0.5 * v / limit : v / limit;
    painter.drawText(QPointF(bar.right() + 4, bar.bottom() - up * bar.height() + middle),
                     QString::number(std::abs(v) < step * 1e-6 ? 0 : v, 'g', 4));
  }
  painter.drawText(QPointF(bar.left(), bar.top() - 6), "µV");
}

void paint_row_numbers(QPainter& painter, const template_image_picture& picture, const QRectF& box,
                       const cluster_theme& theme) {
  const QFontMetricsF metrics = painter.fontMetrics();
  const auto n = static_cast<double>(picture.channels.size());
  const double row = box.height() / n;
  // Every k-th, so that numbers do not run into each other; the centre's always.
  const auto apart = static_cast<std::int32_t>(std::ceil((metrics.height() + 1) / row));
  for (std::int32_t i = 0; i < static_cast<std::int32_t>(n); ++i) {
    const std::int32_t off = std::abs(i - picture.centre_row);
    if (off % apart != 0) continue;
    const QString text = QString::number(picture.channels[static_cast<std::size_t>(i)]);
    painter.setPen(off == 0 ? theme.selected : theme.text);
    painter.drawText(QPointF(box.left() - 5 - metrics.horizontalAdvance(text),
                             box.top() + (i + 0.5) * row + metrics.ascent() / 2 - 1),
                     text);
  }
}

}  // namespace

QColor colour_of_voltage(float part, const cluster_theme& theme) {
  const QColor below(0x21, 0x66, 0xc4), above(0xd0, 0x30, 0x27);
  const double held = std::clamp(static_cast<double>(part), -1.0, 1.0);
  // The root makes small voltages seen, which spread over many channels.
  const double strength = std::pow(std::abs(held), 0.7);
  return mix_colours(theme.background, held < 0 ? below : above, strength);
}

void prepare_template_image(const session_state& session, const template_image_view& view,
                            template_image_picture& picture) {
  picture = {};
  picture.width = view.width;
  picture.height = view.height;
  const template_table& t = session.templates;
  if (view.cluster < 1 || view.cluster > session.clusters.n_clusters) return;
  if (t.template_n_channels[view.cluster] < 1 || t.template_points < 1) return;
  picture.cluster = view.cluster;
  picture.n_points = t.template_points;
  const float ms = 1000.0f / static_cast<float>(std::max(session.recording.sampling_frequency, 1));
  picture.first_ms = static_cast<float>(t.first_sample) * ms;
  picture.step_ms = ms;
  choose_rows(session, view, picture);
  float most = 0;
  for (const std::int32_t channel : picture.channels) {
    const float* values = view.values == template_values::mean ? t.mean(view.cluster, channel)
                                                               : t.sd(view.cluster, channel);
    for (std::int32_t p = 1; p <= picture.n_points; ++p) {
      picture.values.push_back(values[p] * session.recording.vscale_HP);
      most = std::max(most, std::abs(picture.values.back()));
    }
  }
  // A scale about 0, equal on both sides: the background then stands for 0 µV.
  if (most > 0) picture.limit_uv = most;
}

void paint_template_image(QPainter& painter, const template_image_picture& picture,
                          const template_image_view& view, const cluster_theme& theme) {
  const QRectF box = image_box(view.width, view.height);
  painter.save();
  if (picture.cluster > 0) {
    const graph_view shown = {
        picture.first_ms,
        picture.first_ms + picture.step_ms * static_cast<float>(picture.n_points - 1), 0, 1};
    drawn_graph plane;
    plane.inside = box;
    plane.view = shown;
    plane_labels labels;
    labels.title = QString(view.values == template_values::mean ? "Template of cluster %1"
                                                                : "Template s.d. of cluster %1")
                       .arg(picture.cluster);
    labels.x = "ms from the aligned time";
    labels.y = "channel";
    labels.y_numbers = false;
    paint_plane(painter, QRectF(0, 0, view.width, view.height), plane, labels, theme);
    painter.drawImage(box, make_image(picture, theme));
    painter.setPen(QPen(theme.axes, 1));
    painter.drawRect(box);
    use_small_font(painter);
    paint_row_numbers(painter, picture, box, theme);
    paint_colour_bar(painter, picture, view, box, theme);
  } else {
    painter.fillRect(QRectF(0, 0, view.width, view.height), theme.background);
  }
  painter.restore();
}

template_reading read_template_image(const template_image_picture& picture, QPointF pixel) {
  const QRectF box = image_box(picture.width, picture.height);
  if (picture.cluster == 0 || !box.contains(pixel)) return {};
  const auto n_rows = static_cast<std::int32_t>(picture.channels.size());
  const auto row = std::min(
      n_rows - 1, static_cast<std::int32_t>((pixel.y() - box.top()) / box.height() * n_rows));
  const auto p = std::min(
      picture.n_points - 1,
      static_cast<std::int32_t>((pixel.x() - box.left()) / box.width() * picture.n_points));
  return {picture.channels[static_cast<std::size_t>(row)],
          picture.first_ms + picture.step_ms * static_cast<float>(p),
          picture.values[static_cast<std::size_t>(row * picture.n_points + p)]};
}

QString template_words(const template_image_picture& picture, QPointF pixel) {
  const template_reading reading = read_template_image(picture, pixel);
  if (reading.channel == 0) return {};
  return QString("channel %1, %2 ms, %3 µV")
      .arg(reading.channel)
      .arg(double{reading.ms}, 0, 'f', 2)
      .arg(double{reading.microvolts}, 0, 'f', 1);
}

}  // namespace kestrelvane
