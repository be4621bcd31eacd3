#include "displays/clusters/mark_counts.h"

#include <QPaintEngine>
#include <QTransform>
#include <algorithm>
#include <cmath>

namespace kestrelvane {

namespace {

// The part of a line that lies in one column of pixels: a run from one y to the other.
void count_run(const mark_counts& counts, std::uint32_t* layer, std::int32_t x, float a, float b) {
  if (x < 0 || x >= counts.width || !(a == a) || !(b == b)) return;
  const float limit = static_cast<float>(counts.height);
  const auto [low, high] = std::minmax(a, b);
  if (high < 0 || low >= limit) return;
  const auto from = static_cast<std::int32_t>(std::max(low, 0.0f));
  const auto to = static_cast<std::int32_t>(std::min(high, limit - 1));
  std::uint32_t* at = layer + static_cast<std::int64_t>(from) * counts.width + x;
  for (std::int32_t y = from; y <= to; ++y, at += counts.width) ++*at;
}

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

void count_line(const mark_counts& counts, std::uint32_t* layer, const line_point* points,
                std::int32_t n) {
  for (std::int32_t i = 0; i + 1 < n; ++i) {
    const line_point a = points[i], b = points[i + 1];
    const auto first = static_cast<std::int32_t>(a.x), last = static_cast<std::int32_t>(b.x);
    if (last <= first) {
      count_run(counts, layer, first, a.y, b.y);
      continue;
    }
    // Each column from where the line enters to where it leaves; the last column belongs to
    // the next piece, so that it counts once.
    const float slope = (b.y - a.y) / (b.x - a.x);
    float enter = a.y;
    for (std::int32_t x = first; x < last; ++x) {
      const float leave = a.y + slope * (static_cast<float>(x + 1) - a.x);
      count_run(counts, layer, x, enter, leave);
      enter = leave;
    }
  }
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
  std::vector<std::uint64_t> totals(counts.layers.empty() ? 0 : n);
  for (const mark_counts::layer& layer : counts.layers) {
    for (std::size_t i = 0; i < n; ++i) totals[i] += layer.counts[i];
  }
  const std::uint64_t most = totals.empty() ? 0 : *std::max_element(totals.begin(), totals.end());
  const opacity_scale scale(least_opacity, std::max<std::uint64_t>(most, 2));
  std::vector<int> few(256);
  for (std::size_t c = 1; c < few.size(); ++c) few[c] = scale.of(c);
  auto* pixels = reinterpret_cast<QRgb*>(image.bits());
  for (std::size_t i = 0; i < totals.size(); ++i) {
    const std::uint64_t total = totals[i];
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
