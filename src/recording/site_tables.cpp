#include "recording/site_tables.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>
#include <vector>

#include "session/neighbour_list.h"

namespace kestrelvane {

namespace {

constexpr float neighbour_factor = 1.2f;
constexpr float sparse_distance = 100.0f;          // µm; sites this far apart have no neighbours
constexpr float utah_neighbour_distance = 250.0f;  // µm
constexpr std::int32_t level_pitch = 100'000;

float* distance_row(recording_store& r, std::int32_t channel) {
  return r.site_distance.base() + std::int64_t{channel - 1} * channel_limit;
}

void fill_distances(recording_store& r) {
  r.site_distance.clear();
  for (std::int32_t a = 1; a <= r.n_channels; ++a) {
    float* row = distance_row(r, a);
    for (std::int32_t b = 1; b <= r.n_channels; ++b) {
      const auto dx = static_cast<float>(r.chan_x[a] - r.chan_x[b]);
      const auto dy = static_cast<float>(r.chan_y[a] - r.chan_y[b]);
      row[b] = std::sqrt(dx * dx + dy * dy);
    }
  }
}

float nearest_distance(const recording_store& r, std::int32_t channel) {
  float nearest = INFINITY;
  for (std::int32_t b = 1; b <= r.n_channels; ++b) {
    if (b != channel) nearest = std::min(nearest, r.distance(channel, b));
  }
  return nearest;
}

void fill_neighbours(recording_store& r) {
  r.site_neighbours.clear();
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    std::int32_t* list = r.neighbours(c);
    const float nearest = nearest_distance(r, c);
    // Negated, so that a single channel, with nothing near, has none either.
    if (!(nearest < sparse_distance)) continue;
    const float reach = r.electrode_type == electrode_utah_array ? utah_neighbour_distance
                                                                 : neighbour_factor * nearest;
    for (std::int32_t b = 1; b <= r.n_channels; ++b) {
      // Strictly nearer than the reach.
      if (b != c && r.distance(c, b) < reach) list[++list[0]] = b;
    }
  }
}

}  // namespace

void build_site_tables(session_state& session) {
  fill_distances(session.recording);
  fill_neighbours(session.recording);
  build_neighbour_list(session);
  compute_site_bounds(session);
}

void compute_site_pitch(session_state& session) {
  recording_store& r = session.recording;
  r.site_pitch = 0;
  if (r.n_channels < 2) return;
  std::vector<std::int32_t> rows(r.chan_y.first(), r.chan_y.first() + r.n_channels);
  std::sort(rows.begin(), rows.end());
  // Stays when all rows are level.
  r.site_pitch = level_pitch;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const std::int32_t step = rows[i] - rows[i - 1];
    if (step > 0) r.site_pitch = std::min(r.site_pitch, step);
  }
}

void compute_site_bounds(session_state& session) {
  recording_store& r = session.recording;
  r.site_x_min = r.site_x_max = r.n_channels > 0 ? r.chan_x[1] : 0;
  r.site_y_min = r.site_y_max = r.n_channels > 0 ? r.chan_y[1] : 0;
  for (std::int32_t c = 2; c <= r.n_channels; ++c) {
    r.site_x_min = std::min<std::int32_t>(r.site_x_min, r.chan_x[c]);
    r.site_x_max = std::max<std::int32_t>(r.site_x_max, r.chan_x[c]);
    r.site_y_min = std::min<std::int32_t>(r.site_y_min, r.chan_y[c]);
    r.site_y_max = std::max<std::int32_t>(r.site_y_max, r.chan_y[c]);
  }
}

void sort_channels(session_state& session, float scan_angle) {
  recording_store& r = session.recording;
  const float angle = scan_angle * std::numbers::pi_v<float> / 180.0f;
  // In 64 bits and rounded, so that the order is the same on every machine.
  const auto along_x = static_cast<float>(std::cos(static_cast<double>(angle)));
  const auto along_y = static_cast<float>(std::sin(static_cast<double>(angle)));
  std::vector<float> projection(r.n_channels + 1);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    projection[c] =
        static_cast<float>(r.chan_x[c]) * along_x + static_cast<float>(r.chan_y[c]) * along_y;
  }
  // First by number, so that equal projections keep it.
  order_channels_linearly(session);
  std::stable_sort(r.chan_sort_order.first(), r.chan_sort_order.first() + r.n_channels,
                   [&](std::int32_t a, std::int32_t b) { return projection[a] < projection[b]; });
}

void order_channels_linearly(session_state& session) {
  recording_store& r = session.recording;
  std::iota(r.chan_sort_order.first(), r.chan_sort_order.first() + r.n_channels, 1);
}

}  // namespace kestrelvane
