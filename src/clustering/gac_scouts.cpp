#include "clustering/gac_scouts.h"

#include <algorithm>
#include <cmath>

namespace kestrelvane {

void start_scouts(const gac_columns& points, gac_scouts& scouts) {
  const std::int32_t n = points.n;
  scouts.n_scouts = n;
  scouts.position = points;
  scouts.identity.resize(n);
  for (std::int32_t k = 0; k < n; ++k) scouts.identity[k] = k;
  scouts.stopped.assign(n, 0);
  scouts.stall.assign(n, 0);
  scouts.frozen.assign(n, 0);
  scouts.parent.assign(n, -1);
}

// ---------------------------------------------------------------- stepping

namespace {

void count_tiny_step(const gac_step_settings& settings, gac_scouts& scouts, std::int32_t k) {
  ++scouts.stall[k];
  // The limit itself is still a step; it stops with the one after it.
  if (scouts.stall[k] > settings.stall_limit) scouts.stopped[k] = 1;
}

// Moves a scout by what it gathered.
void move_scout(const gac_step_settings& settings, gac_scouts& scouts, std::int32_t k,
                const gac_sums& sums) {
  // Nothing near has any weight, so there is no slope to climb. With every q-th point as a source
  // that happens to a scout that started far out.
  if (!(sums.weight > 0.0)) {
    scouts.stopped[k] = 1;
    return;
  }
  const auto f = static_cast<float>(static_cast<double>(settings.gain) / sums.weight);
  double length_squared = 0.0;
  bool moved = false;
  for (std::int32_t c = 0; c < scouts.position.dimensions; ++c) {
    float& position = scouts.position.column(c)[k];
    const auto delta = static_cast<float>(sums.moment[c] * static_cast<double>(f));
    const float old = position;
    position = old + delta;
    moved = moved || position != old;
    length_squared += static_cast<double>(delta * delta);
  }
  const bool tiny = std::sqrt(length_squared) < static_cast<double>(settings.stop_step);
  scouts.frozen[k] = moved ? 0 : tiny ? 2 : 1;
  if (tiny) count_tiny_step(settings, scouts, k);
}

// Four scouts at a time, as the kernel takes them.
void step_batch(const gac_columns& sources, const gac_step_settings& settings, gac_scouts& scouts,
                const std::int32_t* batch, std::int32_t n) {
  const std::int32_t dimensions = sources.dimensions;
  float positions[4 * gac_dimension_limit] = {};
  for (std::int32_t k = 0; k < n; ++k) {
    for (std::int32_t c = 0; c < dimensions; ++c) {
      positions[k * dimensions + c] = scouts.position.column(c)[batch[k]];
    }
  }
  gac_sums sums[4];
  gac_gather(sources, settings.kernel, positions, n, scouts.scratch, sums);
  for (std::int32_t k = 0; k < n; ++k) move_scout(settings, scouts, batch[k], sums[k]);
}

}  // namespace

std::int32_t step_scouts(const gac_columns& sources, const gac_step_settings& settings,
                         gac_scouts& scouts) {
  std::vector<std::int32_t> going;
  for (std::int32_t k = 0; k < scouts.n_scouts; ++k) {
    if (scouts.stopped[k]) continue;
    if (scouts.frozen[k] == 0) {
      going.push_back(k);
    } else if (scouts.frozen[k] == 2) {
      // It would take the same tiny step again, which counts though it is not computed.
      count_tiny_step(settings, scouts, k);
    }
  }
  const auto n = static_cast<std::int32_t>(going.size());
  for (std::int32_t first = 0; first < n; first += 4) {
    step_batch(sources, settings, scouts, going.data() + first, std::min(4, n - first));
  }
  // One that is frozen by a step that was not tiny goes on counting as going: far out, a step may
  // be too short for 32 bits to move it. Such a stage ends with max_iterations.
  std::int32_t still_going = 0;
  for (std::int32_t k = 0; k < scouts.n_scouts; ++k) still_going += scouts.stopped[k] == 0;
  return still_going;
}

// ---------------------------------------------------------------- merging

namespace {

// Far from every scout: where a removed scout waits for the compaction.
constexpr float removed_position = 3.0e18f;

bool is_removed(const gac_scouts& scouts, std::int32_t k) {
  return scouts.position.column(0)[k] == removed_position;
}

void remove_scout(gac_scouts& scouts, std::int32_t removed, std::int32_t into) {
  scouts.parent[scouts.identity[removed]] = scouts.identity[into];
  scouts.position.column(0)[removed] = removed_position;
}

void copy_position(const gac_scouts& scouts, std::int32_t k, float* position) {
  for (std::int32_t c = 0; c < scouts.position.dimensions; ++c) {
    position[c] = scouts.position.column(c)[k];
  }
}

// Few scouts: each merge acts at once, and the scout that would move into the
// place of the one merged is passed over for this i.
void merge_at_once(float h, gac_scouts& scouts) {
  const std::int32_t last = scouts.n_scouts - 1;
  float position[gac_dimension_limit];
  for (std::int32_t i = 0; i < last; ++i) {
    if (is_removed(scouts, i)) continue;
    copy_position(scouts, i, position);
    std::int32_t j = gac_find_near(scouts.position, i + 1, last, position, h);
    while (j <= last) {
      remove_scout(scouts, j, i);
      ++j;
      while (j <= last && is_removed(scouts, j)) ++j;
      j = gac_find_near(scouts.position, j + 1, last, position, h);
    }
  }
}

// Scouts by cells of the merge radius in the first two components, as chains.
struct scout_grid {
  double scale;
  std::uint32_t mask;
  std::vector<std::int32_t> head, next;
};

std::int64_t cell_of(const scout_grid& grid, float x) {
  return static_cast<std::int64_t>(std::floor(static_cast<double>(x) * grid.scale));
}

std::uint32_t chain_of(const scout_grid& grid, std::int64_t cell_x, std::int64_t cell_y) {
  // Chains may hold several cells. Every candidate is tested, and one that has gone is passed over,
  // so that a collision costs time alone.
  const auto key = static_cast<std::uint64_t>(cell_x) * 0x9e3779b97f4a7c15u ^
                   static_cast<std::uint64_t>(cell_y) * 0xc2b2ae3d27d4eb4fu;
  return static_cast<std::uint32_t>(key >> 32) & grid.mask;
}

float second_component(const gac_scouts& scouts, std::int32_t k) {
  return scouts.position.dimensions > 1 ? scouts.position.column(1)[k] : 0.0f;
}

scout_grid make_grid(float h, const gac_scouts& scouts) {
  scout_grid grid;
  // A little wider than the radius, so that rounding never puts scouts that are
  // near each other two cells apart.
  grid.scale = 1.0 / (static_cast<double>(h) * 1.001);
  std::uint32_t size = 1;
  while (size < static_cast<std::uint32_t>(scouts.n_scouts)) size *= 2;
  grid.mask = size - 1;
  grid.head.assign(size, -1);
  grid.next.assign(scouts.n_scouts, -1);
  for (std::int32_t k = scouts.n_scouts - 1; k >= 0; --k) {
    const std::uint32_t chain = chain_of(grid, cell_of(grid, scouts.position.column(0)[k]),
                                         cell_of(grid, second_component(scouts, k)));
    grid.next[k] = grid.head[chain];
    grid.head[chain] = k;
  }
  return grid;
}

bool is_near(const gac_scouts& scouts, std::int32_t i, std::int32_t j, float h) {
  float squared = 0.0f;
  for (std::int32_t c = 0; c < scouts.position.dimensions; ++c) {
    const float difference = scouts.position.column(c)[i] - scouts.position.column(c)[j];
    if (c < 2 && !(std::fabs(difference) < h)) return false;
    squared += difference * difference;
  }
  return squared < h * h;
}

// Many scouts: every scout near i goes, whatever the order it is met in, so the
// search may go cell by cell.
void merge_by_cells(float h, gac_scouts& scouts) {
  const scout_grid grid = make_grid(h, scouts);
  for (std::int32_t i = 0; i < scouts.n_scouts - 1; ++i) {
    if (is_removed(scouts, i)) continue;
    const std::int64_t cell_x = cell_of(grid, scouts.position.column(0)[i]);
    const std::int64_t cell_y = cell_of(grid, second_component(scouts, i));
    for (std::int64_t y = cell_y - 1; y <= cell_y + 1; ++y) {
      for (std::int64_t x = cell_x - 1; x <= cell_x + 1; ++x) {
        for (std::int32_t j = grid.head[chain_of(grid, x, y)]; j >= 0; j = grid.next[j]) {
          if (j > i && !is_removed(scouts, j) && is_near(scouts, i, j, h)) {
            remove_scout(scouts, j, i);
          }
        }
      }
    }
  }
}

void compact_scouts(gac_scouts& scouts) {
  std::int32_t kept = 0;
  for (std::int32_t k = 0; k < scouts.n_scouts; ++k) {
    if (is_removed(scouts, k)) continue;
    if (kept != k) {
      for (std::int32_t c = 0; c < scouts.position.dimensions; ++c) {
        scouts.position.column(c)[kept] = scouts.position.column(c)[k];
      }
      scouts.identity[kept] = scouts.identity[k];
      scouts.stopped[kept] = scouts.stopped[k];
      scouts.stall[kept] = scouts.stall[k];
      scouts.frozen[kept] = scouts.frozen[k];
    }
    ++kept;
  }
  scouts.n_scouts = kept;
}

}  // namespace

void merge_scouts(float h, gac_scouts& scouts) {
  if (scouts.n_scouts <= gac_immediate_merge_limit) {
    merge_at_once(h, scouts);
  } else {
    merge_by_cells(h, scouts);
  }
  compact_scouts(scouts);
}

}  // namespace kestrelvane
