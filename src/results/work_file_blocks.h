// Templates between memory and file.
//
// In memory a template is one block, [cluster][channel][point]; in the file the
// cluster is fastest, then the channel, then the point. Planes of one point each
// are gathered or scattered several at a time, so that both sides move in runs.
#pragma once

#include <cstdint>
#include <vector>

#include "results/work_file_rows.h"

namespace kestrelvane {

struct template_planes {
  std::int32_t n_clusters = 0, n_channels = 0, n_points = 0;
  std::int64_t channel_stride = 0, cluster_stride = 0;  // in memory, floats
  std::int32_t chunk = 1;                               // planes moved at a time
  std::vector<float> buffer;                            // chunk planes in file order

  std::size_t plane_size() const {
    return static_cast<std::size_t>(n_clusters) * static_cast<std::size_t>(n_channels);
  }
};

// The geometry of a transfer, its buffer of about 16 MB at most (one plane at least).
template_planes template_planes_of(const session_state& session, const work_file_counts& counts);

// Planes first .. first + n - 1 (points from 1) into the buffer, or out of it.
// blocks is base() of template_mean or template_sd.
void gather_planes(template_planes& planes, const float* blocks, std::int32_t first,
                   std::int32_t n);
void scatter_planes(const template_planes& planes, float* blocks, std::int32_t first,
                    std::int32_t n);

}  // namespace kestrelvane
