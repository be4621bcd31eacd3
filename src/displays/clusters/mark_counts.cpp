#include "displays/clusters/mark_counts.h"

#include <QPaintEngine>
#include <QTransform>
#include <algorithm>
#include <cmath>

namespace kestrelvane {

namespace {

// Opacity by count, 0..255: a table, since most pixels hold few.
struct opacity_scale {
  double least, per_log;
  opacity_scale(double least_opacity, std::uint64_t most)
      : least(least_opacity),
        per_log((1 - least_opacity) / std::max(std::log(static_cast<double>(most)), 1e-9)) {}
  int of(std::uint64_t count) const {
    const double opacity = least + per_log * std::log(static_cast<double>(count));
    return static_cast<int>(std::lround(255 * std::clamp(opacity, 0.0, 1.0)));
  }
};

QRgb mixed_pixel(const mark_counts& counts, const std::vector<QRgb>& colours, std::size_t pixel,
                 std::uint64_t total, int opacity) {
  std::uint64_t red = 0, green = 0, blue = 0;
  for (std::size_t k = 0; k < counts.layers.size(); ++k) {
    const std::uint64_t n = counts.layers[k].counts[pixel];
    red += n * static_cast<std::uint64_t>(qRed(colours[k]));
    green += n * static_cast<std::uint64_t>(qGreen(colours[k]));
    blue += n * static_cast<std::uint64_t>(qBlue(colours[k]));
  }
  return qPremultiply(qRgba(static_cast<int>(red / total), static_cast<int>(green / total),
                            static_cast<int>(blue / total), opacity));
}

}  // namespace

mark_counts make_mark_counts(std::int32_t width, std::int32_t height) {
  mark_counts counts;
  counts.width = std::max(width, 1);
  counts.height = std::max(height, 1);
  return counts;
}

std::uint32_t* counts_of_mark(mark_counts& counts, std::int16_t mark) {
  const auto at = std::lower_bound(
      counts.layers.begin(), counts.layers.end(), mark,
      [](const mark_counts::layer& layer, std::int16_t m) { return layer.mark < m; });
  if (at != counts.layers.end() && at->mark == mark) return at->counts.data();
  const auto n = static_cast<std::size_t>(counts.width) * static_cast<std::size_t>(counts.height);
  const auto made = counts.layers.insert(at, {mark, std::vector<std::uint32_t>(n)});
  return made->counts.data();
}

std::int64_t count_line(const mark_counts& counts, std::uint32_t* layer, const line_point* points,
                        std::int32_t n) {
  std::int64_t n_pixels = 0;
  walk_line(counts.width, counts.height, points, n,
            [&](std::int32_t x, std::int32_t from, std::int32_t to) {
              std::uint32_t* at = layer + static_cast<std::int64_t>(from) * counts.width + x;
              for (std::int32_t y = from; y <= to; ++y, at += counts.width) ++*at;
              n_pixels += to - from + 1;
            });
  return n_pixels;
}

QImage image_of_counts(const mark_counts& counts, const cluster_theme& theme,
                       double least_opacity) {
  QImage image(counts.width, counts.height, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  std::vector<QRgb> colours;
  for (const mark_counts::layer& layer : counts.layers) {
    colours.push_back(colour_of_mark(theme, layer.mark).rgb());
  }
  const auto n = static_cast<std::size_t>(counts.width) * static_cast<std::size_t>(counts.height);
  std::vector<std::uint32_t> totals(counts.layers.empty() ? 0 : n);
  for (const mark_counts::layer& layer : counts.layers) {
    for (std::size_t i = 0; i < n; ++i) totals[i] += layer.counts[i];
  }
  const std::uint32_t most = totals.empty() ? 0 : *std::max_element(totals.begin(), totals.end());
  const opacity_scale scale(least_opacity, std::max<std::uint32_t>(most, 2));
  std::vector<int> few(256);
  for (std::size_t c = 1; c < few.size(); ++c) few[c] = scale.of(c);
  auto* pixels = reinterpret_cast<QRgb*>(image.bits());
  for (std::size_t i = 0; i < totals.size(); ++i) {
    const std::uint32_t total = totals[i];
    if (total == 0) continue;
    const int opacity = total < few.size() ? few[total] : scale.of(total);
    pixels[i] = mixed_pixel(counts, colours, i, total, opacity);
  }
  return image;
}

pixel_device device_of(const QPainter& painter) {
  const QTransform device = painter.deviceTransform();
  if (painter.paintEngine()->type() != QPaintEngine::Raster ||
      device.type() > QTransform::TxScale) {
    return {};
  }
  return {true, std::max(device.m11(), 0.1)};
}

}  // namespace kestrelvane
