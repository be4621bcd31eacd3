// The plain form of the Jacobi rotations: the upper triangle, element by element.
// The reference for the form that works on whole rows.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace kestrelvane::test {

struct plain_eigen {
  std::vector<float> values, vectors;  // component p of vector d at vectors[p * n + d]
  std::int32_t n_rotations = 0;
  bool done = false;
};

inline plain_eigen plain_jacobi(std::vector<float> a, std::int32_t n) {
  plain_eigen out;
  std::vector<float>& d = out.values;
  std::vector<float>& v = out.vectors;
  d.resize(n);
  v.assign(n * n, 0.0f);
  std::vector<float> b(n), z(n, 0.0f);
  for (std::int32_t i = 0; i < n; ++i) v[i * n + i] = 1.0f, b[i] = d[i] = a[i * n + i];
  float s = 0, tau = 0;
  const auto turn = [&](float& first, float& second) {
    const float g = first, h = second;
    first = g - s * (h + g * tau);
    second = h + s * (g - h * tau);
  };
  for (std::int32_t sweep = 1; sweep <= 50; ++sweep) {
    float sum = 0;
    for (std::int32_t p = 0; p < n - 1; ++p) {
      for (std::int32_t q = p + 1; q < n; ++q) sum += std::fabs(a[p * n + q]);
    }
    if (sum == 0.0f) {
      out.done = true;
      return out;
    }
    const float threshold = sweep < 4 ? 0.2f * sum / static_cast<float>(n * n) : 0.0f;
    for (std::int32_t p = 0; p < n - 1; ++p) {
      for (std::int32_t q = p + 1; q < n; ++q) {
        float& element = a[p * n + q];
        const float g = 100.0f * std::fabs(element);
        if (sweep > 4 && std::fabs(d[p]) + g == std::fabs(d[p]) &&
            std::fabs(d[q]) + g == std::fabs(d[q])) {
          element = 0.0f;
        } else if (std::fabs(element) > threshold) {
          float h = d[q] - d[p];
          float t;
          if (std::fabs(h) + g == std::fabs(h)) {
            t = element / h;
          } else {
            const float theta = 0.5f * h / element;
            t = 1.0f / (std::fabs(theta) + std::sqrt(1.0f + theta * theta));
            if (theta < 0.0f) t = -t;
          }
          const float c = 1.0f / std::sqrt(1.0f + t * t);
          s = t * c;
          tau = s / (1.0f + c);
          h = t * element;
          z[p] -= h, z[q] += h, d[p] -= h, d[q] += h;
          element = 0.0f;
          for (std::int32_t j = 0; j < p; ++j) turn(a[j * n + p], a[j * n + q]);
          for (std::int32_t j = p + 1; j < q; ++j) turn(a[p * n + j], a[j * n + q]);
          for (std::int32_t j = q + 1; j < n; ++j) turn(a[p * n + j], a[q * n + j]);
          for (std::int32_t j = 0; j < n; ++j) turn(v[j * n + p], v[j * n + q]);
          ++out.n_rotations;
        }
      }
    }
    for (std::int32_t p = 0; p < n; ++p) b[p] += z[p], d[p] = b[p], z[p] = 0.0f;
  }
  return out;
}

}  // namespace kestrelvane::test
