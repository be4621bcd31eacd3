#include "numerics/jacobi.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "numerics/simd.h"
#include "numerics/sort.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t max_sweeps = 50;
constexpr std::int32_t stack_order = 128;  // largest n whose work space is on the stack

// The rows are of one call and no other thread knows them: to have the thread sanitizer look at
// each of their lanes takes nine tenths of a sort there and could find nothing. What comes from
// the caller and what goes to it is looked at.
#define KESTRELVANE_OWN_ROWS __attribute__((no_sanitize("thread")))

// The symmetric matrix in full, each row followed by the matching eigenvector, so
// that one rotation is two contiguous rows turned against each other:
// row(q)[j] is element (q, j), row(q)[half + k] component k of eigenvector q.
// The diagonal lives in d; what stands in its place here means nothing.
struct work_rows {
  float* first;
  std::int32_t half;  // n in whole lanes

  KESTRELVANE_INTO_CALLER float* row(std::int32_t q) const {
    return first + std::int64_t{q} * 2 * half;
  }
};

// Turns lanes [begin, end) of row p against those of row q.
KESTRELVANE_OWN_ROWS KESTRELVANE_INTO_CALLER void turn(float* row_p, float* row_q,
                                                       std::int32_t begin, std::int32_t end,
                                                       float s, float tau) {
  for (std::int32_t j = begin; j < end; j += n_lanes) {
    float_lanes& at_p = *reinterpret_cast<float_lanes*>(row_p + j);
    float_lanes& at_q = *reinterpret_cast<float_lanes*>(row_q + j);
    const float_lanes g = at_p;
    const float_lanes h = at_q;
    at_p = g - s * (h + g * tau);
    at_q = h + s * (g - h * tau);
  }
}

KESTRELVANE_OWN_ROWS inline float sum_above_diagonal(const work_rows& w, std::int32_t n) {
  float sum = 0.0f;
  for (std::int32_t p = 0; p < n - 1; ++p) {
    const float* row = w.row(p);
    for (std::int32_t q = p + 1; q < n; ++q) sum += std::fabs(row[q]);
  }
  return sum;
}

// A sum of magnitudes is 0 only if each is: from the fourth sweep on, when the
// sum is not needed as a threshold, one element that is not settles it.
KESTRELVANE_OWN_ROWS inline bool is_diagonal(const work_rows& w, std::int32_t n) {
  for (std::int32_t p = 0; p < n - 1; ++p) {
    const float* row = w.row(p);
    for (std::int32_t q = p + 1; q < n; ++q) {
      if (row[q] != 0.0f) return false;
    }
  }
  return true;
}

// All rotations of row p. The next angle waits for row p beyond the diagonal, so
// that part is turned first and the rest of the rows while the angle is worked
// out. Of rows still to come, q's new elements are copied across the diagonal at
// once; the rest of the square is mirrored at the end.
KESTRELVANE_OWN_ROWS KESTRELVANE_INTO_CALLER std::int32_t sweep_row(const work_rows& w,
                                                                    std::int32_t n, std::int32_t p,
                                                                    std::int32_t sweep,
                                                                    float threshold, float* d,
                                                                    float* z) {
  float* row_p = w.row(p);
  const std::int32_t begin = (p + 1) / n_lanes * n_lanes;
  std::int32_t n_turns = 0;
  for (std::int32_t q = p + 1; q < n; ++q) {
    const float element = row_p[q];
    const float magnitude = std::fabs(element);
    const float g = 100.0f * magnitude;
    // After four sweeps: too small to change either element of the diagonal.
    if (sweep > 4 && std::fabs(d[p]) + g == std::fabs(d[p]) &&
        std::fabs(d[q]) + g == std::fabs(d[q])) {
      row_p[q] = 0.0f;
      continue;
    }
    if (!(magnitude > threshold)) continue;
    const float difference = d[q] - d[p];
    float t;
    // The square of theta would leave 32 bits; t is then half its inverse.
    if (std::fabs(difference) + g == std::fabs(difference)) {
      t = element / difference;
    } else {
      const float theta = 0.5f * difference / element;
      t = 1.0f / (std::fabs(theta) + std::sqrt(1.0f + theta * theta));
      if (theta < 0.0f) t = -t;
    }
    const float c = 1.0f / std::sqrt(1.0f + t * t);
    const float s = t * c;
    const float tau = s / (1.0f + c);
    const float h = t * element;
    z[p] -= h;
    z[q] += h;
    d[p] -= h;
    d[q] += h;
    float* row_q = w.row(q);
    turn(row_p, row_q, begin, 2 * w.half, s, tau);
    turn(row_p, row_q, 0, begin, s, tau);
    row_p[q] = 0.0f;
    for (std::int32_t j = q + 1; j < n; ++j) w.row(j)[q] = row_q[j];
    ++n_turns;
  }
  for (std::int32_t q = p + 1; q < n; ++q) w.row(q)[p] = row_p[q];
  if (n_turns == 0) return 0;
  for (std::int32_t q = p + 2; q < n; ++q) {
    const float* row_q = w.row(q);
    for (std::int32_t j = p + 1; j < q; ++j) w.row(j)[q] = row_q[j];
  }
  return n_turns;
}

// The sweeps. True when the matrix has become diagonal.
KESTRELVANE_OWN_ROWS KESTRELVANE_CLONES bool sweep_until_diagonal(const work_rows& w,
                                                                  std::int32_t n, float* d,
                                                                  float* b, float* z,
                                                                  std::int32_t& n_rotations) {
  for (std::int32_t sweep = 1; sweep <= max_sweeps; ++sweep) {
    float threshold = 0.0f;
    if (sweep < 4) {
      const float sum = sum_above_diagonal(w, n);
      if (sum == 0.0f) return true;
      threshold = 0.2f * sum / static_cast<float>(n * n);
    } else if (is_diagonal(w, n)) {
      return true;
    }
    for (std::int32_t p = 0; p < n - 1; ++p) {
      n_rotations += sweep_row(w, n, p, sweep, threshold, d, z);
    }
    // The part of the rows before the diagonal is what was turned last; the next
    // sweep reads the part behind it.
    for (std::int32_t q = 1; q < n; ++q) {
      const float* row_q = w.row(q);
      for (std::int32_t j = 0; j < q; ++j) w.row(j)[q] = row_q[j];
    }
    // The diagonal from before the sweep, and the sum of the small changes: added one by one they
    // would lose more to rounding.
    for (std::int32_t p = 0; p < n; ++p) {
      b[p] += z[p];
      d[p] = b[p];
      z[p] = 0.0f;
    }
  }
  return false;
}

void fill_rows(const work_rows& w, const float* a, std::int32_t n, std::int32_t stride) {
  for (std::int32_t i = 0; i < n; ++i) {
    float* row = w.row(i);
    for (std::int32_t j = 0; j < 2 * w.half; ++j) row[j] = 0.0f;
    // Only the half above the diagonal of the caller's matrix is read.
    for (std::int32_t j = 0; j < i; ++j) row[j] = a[std::int64_t{j} * stride + i];
    for (std::int32_t j = i + 1; j < n; ++j) row[j] = a[std::int64_t{i} * stride + j];
    row[w.half + i] = 1.0f;
  }
}

bool jacobi_in(float* rows, float* scratch, const float* a, std::int32_t n, std::int32_t stride,
               float* eigenvalues, float* vectors, std::int32_t& n_rotations) {
  const work_rows w{rows, whole_lanes(n)};
  float* b = scratch;
  float* z = scratch + n;
  fill_rows(w, a, n, stride);
  for (std::int32_t i = 0; i < n; ++i) {
    b[i] = eigenvalues[i] = a[std::int64_t{i} * stride + i];
    z[i] = 0.0f;
  }
  const bool done = sweep_until_diagonal(w, n, eigenvalues, b, z, n_rotations);
  for (std::int32_t i = 0; i < n; ++i) {
    const float* vector = w.row(i) + w.half;
    for (std::int32_t k = 0; k < n; ++k) vectors[std::int64_t{i} * stride + k] = vector[k];
  }
  return done;
}

// The line of a failed jacobi.
void report_too_many_iterations(std::int32_t n, std::int32_t n_rotations, const failure_log& log) {
  log("Too many iterations in routine Jacobi; " + std::to_string(n) + " " +
      std::to_string(n_rotations));
}

void sort_eigenvectors(std::int32_t n, std::int32_t stride, float* eigenvalues, float* vectors) {
  std::vector<float> keys(n);
  std::vector<std::int32_t> order(n);
  // By magnitude: the sign of an eigenvalue does not tell how much it matters.
  for (std::int32_t i = 0; i < n; ++i) keys[i] = -std::fabs(eigenvalues[i]);
  index_sort(n, keys.data(), order.data());
  const std::vector<float> values(eigenvalues, eigenvalues + n);
  std::vector<float> unsorted(static_cast<std::size_t>(n) * n);
  for (std::int32_t i = 0; i < n; ++i) {
    std::copy_n(vectors + std::int64_t{i} * stride, n, unsorted.data() + std::int64_t{i} * n);
  }
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t from = order[i] - 1;
    eigenvalues[i] = values[from];
    std::copy_n(unsorted.data() + std::int64_t{from} * n, n, vectors + std::int64_t{i} * stride);
  }
}

}  // namespace

bool jacobi(const float* a, std::int32_t n, std::int32_t stride, float* eigenvalues, float* vectors,
            std::int32_t& n_rotations, const failure_log& log) {
  n_rotations = 0;
  if (n <= 0) return true;
  bool done;
  if (n <= stack_order) {
    alignas(64) float rows[2 * stack_order * stack_order];
    float scratch[2 * stack_order];
    done = jacobi_in(rows, scratch, a, n, stride, eigenvalues, vectors, n_rotations);
  } else {
    std::vector<float> rows(2 * static_cast<std::size_t>(n) * whole_lanes(n));
    std::vector<float> scratch(2 * static_cast<std::size_t>(n));
    done = jacobi_in(rows.data(), scratch.data(), a, n, stride, eigenvalues, vectors, n_rotations);
  }
  if (!done) report_too_many_iterations(n, n_rotations, log);
  return done;
}

bool eigen_decomposition(const float* a, std::int32_t n, std::int32_t stride, float* eigenvalues,
                         float* vectors, std::int32_t& n_rotations, const failure_log& log) {
  if (!jacobi(a, n, stride, eigenvalues, vectors, n_rotations, log)) return false;
  sort_eigenvectors(n, stride, eigenvalues, vectors);
  return true;
}

}  // namespace kestrelvane
