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
    // Logarithmic: counts span four decades, and a single event shall be seen beside the crowd.
    const double opacity = least + per_log * std::log(static_cast<double>(count));
    return static_cast<int>(std::lround(255 * std::clamp(opacity, 0.0, 1.0)));
  }
};

// The counts of all marks together, row by row, and which layers have any in a row: most rows
// hold few of them, and looking at the others is what takes time.
struct count_sums {
  std::vector<std::uint32_t> totals;
  std::vector<std::vector<std::uint8_t>> layers;  // by row
  std::uint32_t most = 0;
};

count_sums sum_counts(const mark_counts& counts) {
  const auto width = static_cast<std::size_t>(counts.width);
  const auto height = static_cast<std::size_t>(counts.height);
  count_sums sums = {std::vector<std::uint32_t>(width * height),
                     std::vector<std::vector<std::uint8_t>>(height), 0};
  for (std::size_t y = 0; y < height; ++y) {
    std::uint32_t* total = sums.totals.data() + y * width;
    for (std::size_t k = 0; k < counts.layers.size(); ++k) {
      const std::uint32_t* count = counts.layers[k].counts.data() + y * width;
      std::uint32_t any = 0;
      // Without a branch, so that it runs in wide lanes.
      for (std::size_t x = 0; x < width; ++x) any |= count[x];
      if (any == 0) continue;
      sums.layers[y].push_back(static_cast<std::uint8_t>(k));
      for (std::size_t x = 0; x < width; ++x) total[x] += count[x];
    }
    if (!sums.layers[y].empty())
      sums.most = std::max(sums.most, *std::max_element(total, total + width));
  }
  return sums;
}

QRgb mixed_pixel(const mark_counts& counts, const std::vector<std::uint8_t>& layers,
                 const std::vector<QRgb>& colours, std::size_t pixel, std::uint64_t total,
                 int opacity) {
  std::uint64_t red = 0, green = 0, blue = 0;
  for (const std::uint8_t k : layers) {
    // The mean colour of the events in the pixel, each with one vote; 64 bits hold any sum of them.
    const std::uint64_t n = counts.layers[k].counts[pixel];
    red += n * static_cast<std::uint64_t>(qRed(colours[k]));
    green += n * static_cast<std::uint64_t>(qGreen(colours[k]));
    blue += n * static_cast<std::uint64_t>(qBlue(colours[k]));
  }
  return qPremultiply(qRgba(static_cast<int>(red / total), static_cast<int>(green / total),
                            static_cast<int>(blue / total), opacity));
}

}  // namespace

double counted_ratio(double device_ratio) {
  return device_ratio / std::max(1.0, std::floor(device_ratio));
}

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
  const count_sums sums = sum_counts(counts);
  // Two at least: with single events alone the logarithm of the most would be 0.
  const opacity_scale scale(least_opacity, std::max<std::uint32_t>(sums.most, 2));
  std::vector<int> few(256);
  for (std::size_t c = 1; c < few.size(); ++c) few[c] = scale.of(c);
  const auto width = static_cast<std::size_t>(counts.width);
  for (std::size_t y = 0; y < sums.layers.size(); ++y) {
    if (sums.layers[y].empty()) continue;
    auto* pixels = reinterpret_cast<QRgb*>(image.scanLine(static_cast<int>(y)));
    for (std::size_t x = 0; x < width; ++x) {
      const std::uint32_t total = sums.totals[y * width + x];
      if (total == 0) continue;
      const int opacity = total < few.size() ? few[total] : scale.of(total);
      pixels[x] = mixed_pixel(counts, sums.layers[y], colours, y * width + x, total, opacity);
    }
  }
  return image;
}

pixel_device device_of(const QPainter& painter) {
  const QTransform device = painter.deviceTransform();
  // On paper and in vector files pixels have no meaning, and a turned one no rows.
  if (painter.paintEngine()->type() != QPaintEngine::Raster ||
      device.type() > QTransform::TxScale) {
    return {};
  }
  return {true, std::max(device.m11(), 0.1)};
}

}  // namespace kestrelvane
