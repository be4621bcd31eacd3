// Jacobi rotations of sixteen matrices side by side, one to a lane.
//
// Each lane goes through the operations of the plain form on its own matrix; where
// its matrix needs no rotation at a place, the old values are put back. So lanes
// differ in their angles, their thresholds and in when they end, but in no bit.
#include <vector>

#include "numerics/jacobi.h"
#include "numerics/simd.h"

// Vectors are passed between routines that are always inlined, never through the
// calling convention that this warning is about.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace kestrelvane {

namespace {

constexpr std::int32_t max_sweeps = 50;

#define LANES_INLINE inline __attribute__((always_inline))

LANES_INLINE float_lanes select(const int_lanes& mask, const float_lanes& yes,
                                const float_lanes& no) {
  return (float_lanes)((mask & (int_lanes)yes) | (~mask & (int_lanes)no));
}

LANES_INLINE float_lanes magnitude(const float_lanes& x) {
  return (float_lanes)((int_lanes)x & 0x7fffffff);
}

LANES_INLINE float_lanes square_root(const float_lanes& x) {
  float_lanes root;
  for (int i = 0; i < n_lanes; ++i) root[i] = __builtin_sqrtf(x[i]);
  return root;
}

LANES_INLINE bool any(const int_lanes& mask) {
  std::int32_t bits = 0;
  for (int i = 0; i < n_lanes; ++i) bits |= mask[i];
  return bits != 0;
}

// Sixteen matrices of order n; an element is the sixteen of them.
struct lane_matrices {
  std::int32_t n;
  float_lanes* a;        // (i, k) at a[i * n + k], above the diagonal
  float_lanes* vectors;  // component k of vector i at vectors[i * n + k]
  float_lanes *d, *b, *z;
  int_lanes n_rotations;
};

struct lane_turn {
  int_lanes mask;  // lanes that turn
  float_lanes s, tau;
};

LANES_INLINE void turn_pair(float_lanes& first, float_lanes& second, const lane_turn& turn) {
  const float_lanes g = first;
  const float_lanes h = second;
  first = select(turn.mask, g - turn.s * (h + g * turn.tau), g);
  second = select(turn.mask, h + turn.s * (g - h * turn.tau), h);
}

LANES_INLINE void rotate(lane_matrices& m, std::int32_t p, std::int32_t q, std::int32_t sweep,
                         const float_lanes& threshold, const int_lanes& active) {
  const std::int32_t n = m.n;
  float_lanes& place = m.a[p * n + q];
  const float_lanes element = place;
  const float_lanes g = 100.0f * magnitude(element);
  int_lanes negligible = {};
  if (sweep > 4) {
    negligible = active & (magnitude(m.d[p]) + g == magnitude(m.d[p])) &
                 (magnitude(m.d[q]) + g == magnitude(m.d[q]));
  }
  lane_turn turn;
  turn.mask = active & ~negligible & (magnitude(element) > threshold);
  place = select(negligible | turn.mask, float_lanes{}, element);
  if (!any(turn.mask)) return;
  const float_lanes difference = m.d[q] - m.d[p];
  const float_lanes theta = 0.5f * difference / element;
  const float_lanes size = 1.0f / (magnitude(theta) + square_root(1.0f + theta * theta));
  const float_lanes t = select(magnitude(difference) + g == magnitude(difference),
                               element / difference, select(theta < 0.0f, -size, size));
  const float_lanes c = 1.0f / square_root(1.0f + t * t);
  turn.s = t * c;
  turn.tau = turn.s / (1.0f + c);
  const float_lanes h = t * element;
  m.z[p] = select(turn.mask, m.z[p] - h, m.z[p]);
  m.z[q] = select(turn.mask, m.z[q] + h, m.z[q]);
  m.d[p] = select(turn.mask, m.d[p] - h, m.d[p]);
  m.d[q] = select(turn.mask, m.d[q] + h, m.d[q]);
  for (std::int32_t j = 0; j < p; ++j) turn_pair(m.a[j * n + p], m.a[j * n + q], turn);
  for (std::int32_t j = p + 1; j < q; ++j) turn_pair(m.a[p * n + j], m.a[j * n + q], turn);
  for (std::int32_t j = q + 1; j < n; ++j) turn_pair(m.a[p * n + j], m.a[q * n + j], turn);
  for (std::int32_t j = 0; j < n; ++j) turn_pair(m.vectors[p * n + j], m.vectors[q * n + j], turn);
  m.n_rotations -= turn.mask;  // a set mask is -1
}

// Leaves in unfinished the lanes that have not become diagonal.
KESTRELVANE_CLONES void sweep_lanes(lane_matrices& m, int_lanes& unfinished) {
  const std::int32_t n = m.n;
  int_lanes active = unfinished;
  for (std::int32_t sweep = 1; sweep <= max_sweeps; ++sweep) {
    float_lanes sum = {};
    for (std::int32_t p = 0; p < n - 1; ++p) {
      for (std::int32_t q = p + 1; q < n; ++q) sum += magnitude(m.a[p * n + q]);
    }
    active &= (sum != 0.0f);
    if (!any(active)) break;
    float_lanes threshold = {};
    if (sweep < 4) threshold = 0.2f * sum / static_cast<float>(n * n);
    for (std::int32_t p = 0; p < n - 1; ++p) {
      for (std::int32_t q = p + 1; q < n; ++q) rotate(m, p, q, sweep, threshold, active);
    }
    for (std::int32_t p = 0; p < n; ++p) {
      m.b[p] = select(active, m.b[p] + m.z[p], m.b[p]);
      m.d[p] = select(active, m.b[p], m.d[p]);
      m.z[p] = float_lanes{};
    }
  }
  unfinished = active;
}

void decompose_lanes(eigen_task* tasks, std::int32_t n_tasks, std::int32_t n, std::int32_t stride,
                     std::vector<float>& work, const failure_log& log) {
  const std::int64_t square = std::int64_t{n} * n;
  work.assign(static_cast<std::size_t>((2 * square + 3 * n) * n_lanes), 0.0f);
  auto* first = reinterpret_cast<float_lanes*>(work.data());
  lane_matrices m{n,
                  first,
                  first + square,
                  first + 2 * square,
                  first + 2 * square + n,
                  first + 2 * square + 2 * n,
                  int_lanes{}};
  // A lane without a task stays a matrix of zeros, which is done at once.
  int_lanes unfinished = {};
  for (std::int32_t lane = 0; lane < n_tasks; ++lane) {
    unfinished[lane] = -1;
    for (std::int32_t i = 0; i < n; ++i) {
      const float* row = tasks[lane].a + std::int64_t{i} * stride;
      for (std::int32_t k = i + 1; k < n; ++k) m.a[i * n + k][lane] = row[k];
      m.d[i][lane] = m.b[i][lane] = row[i];
      m.vectors[i * n + i][lane] = 1.0f;
    }
  }
  sweep_lanes(m, unfinished);
  for (std::int32_t lane = 0; lane < n_tasks; ++lane) {
    eigen_task& task = tasks[lane];
    task.n_rotations = m.n_rotations[lane];
    task.done = unfinished[lane] == 0;
    for (std::int32_t i = 0; i < n; ++i) {
      task.eigenvalues[i] = m.d[i][lane];
      float* vector = task.vectors + std::int64_t{i} * stride;
      for (std::int32_t k = 0; k < n; ++k) vector[k] = m.vectors[i * n + k][lane];
    }
    if (task.done) {
      sort_eigenvectors(n, stride, task.eigenvalues, task.vectors);
    } else {
      report_too_many_iterations(n, task.n_rotations, log);
    }
  }
}

// Narrower registers would hold a group of lanes in pieces and lose the gain.
bool has_wide_registers() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(__clang__)
  return false;
#else
  return __builtin_cpu_supports("avx512f") != 0;
#endif
}

}  // namespace

void eigen_decomposition_many(eigen_task* tasks, std::int32_t n_tasks, std::int32_t n,
                              std::int32_t stride, const failure_log& log) {
  // A few matrices go faster one after another than in lanes mostly empty.
  constexpr std::int32_t fewest_in_lanes = 5;
  const bool wide = has_wide_registers();
  std::vector<float> work;
  for (std::int32_t first = 0; first < n_tasks; first += n_lanes) {
    const std::int32_t group = n_tasks - first < n_lanes ? n_tasks - first : n_lanes;
    if (wide && group >= fewest_in_lanes) {
      decompose_lanes(tasks + first, group, n, stride, work, log);
      continue;
    }
    for (std::int32_t i = first; i < first + group; ++i) {
      tasks[i].done = eigen_decomposition(tasks[i].a, n, stride, tasks[i].eigenvalues,
                                          tasks[i].vectors, tasks[i].n_rotations, log);
    }
  }
}

}  // namespace kestrelvane
