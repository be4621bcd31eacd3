#include "results/work_file_blocks.h"

#include <algorithm>

namespace kestrelvane {

namespace {

constexpr std::size_t buffer_floats = 4u << 20;

// Clusters moved together: one cache line of the file's side.
constexpr std::int32_t tile = 16;

// Calls move(index in memory, index in buffer) for every value of n planes, in an
// order that walks both sides in short runs.
template <typename Move>
void walk_planes(const template_planes& planes, std::int32_t first, std::int32_t n, Move&& move) {
  const std::size_t plane = planes.plane_size();
  for (std::int32_t ch = 1; ch <= planes.n_channels; ++ch) {
    for (std::int32_t c0 = 1; c0 <= planes.n_clusters; c0 += tile) {
      const std::int32_t c_end = std::min(c0 + tile, planes.n_clusters + 1);
      for (std::int32_t p = 0; p < n; ++p) {
        std::size_t to = static_cast<std::size_t>(p) * plane +
                         static_cast<std::size_t>(ch - 1) * planes.n_clusters + (c0 - 1);
        std::int64_t from =
            (c0 - 1) * planes.cluster_stride + (ch - 1) * planes.channel_stride + first + p;
        for (std::int32_t c = c0; c < c_end; ++c) {
          move(from, to);
          from += planes.cluster_stride;
          ++to;
        }
      }
    }
  }
}

}  // namespace

template_planes template_planes_of(const session_state& session, const work_file_counts& counts) {
  template_planes planes;
  planes.n_clusters = static_cast<std::int32_t>(counts.of[per_cluster]);
  planes.n_channels = static_cast<std::int32_t>(counts.of[per_channel]);
  planes.n_points = static_cast<std::int32_t>(counts.of[per_point]);
  planes.channel_stride = session.templates.row;
  planes.cluster_stride =
      std::int64_t{session.templates.allocated_channels} * planes.channel_stride;
  // Without clusters a plane is empty; the division below must not mind.
  const std::size_t plane = std::max<std::size_t>(planes.plane_size(), 1);
  const std::size_t most = std::max<std::size_t>(buffer_floats / plane, 1);
  planes.chunk = static_cast<std::int32_t>(
      std::min<std::size_t>(most, static_cast<std::size_t>(std::max(planes.n_points, 1))));
  planes.buffer.resize(plane * static_cast<std::size_t>(planes.chunk));
  return planes;
}

void gather_planes(template_planes& planes, const float* blocks, std::int32_t first,
                   std::int32_t n) {
  float* buffer = planes.buffer.data();
  walk_planes(planes, first, n,
              [=](std::int64_t from, std::size_t to) { buffer[to] = blocks[from]; });
}

void scatter_planes(const template_planes& planes, float* blocks, std::int32_t first,
                    std::int32_t n) {
  const float* buffer = planes.buffer.data();
  walk_planes(planes, first, n,
              [=](std::int64_t from, std::size_t to) { blocks[from] = buffer[to]; });
}

}  // namespace kestrelvane
