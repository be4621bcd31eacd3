// The filters in their plainest form: one channel, one sample, one bin after the other,
// transforms in 64 bits. What the fast forms are compared with.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <numbers>
#include <vector>

namespace kestrelvane::test {

using samples = std::vector<std::int16_t>;  // [0] is the sample at time index 1
using spectrum = std::vector<std::complex<double>>;

// Sum over n of x[n] exp(-2 pi i k n / N), unscaled, by halves.
inline void plain_transform(spectrum& x) {
  const std::size_t n = x.size();
  for (std::size_t half = n / 2; half >= 1; half /= 2) {
    for (std::size_t j = 0; j < half; ++j) {
      const double angle = -std::numbers::pi * static_cast<double>(j) / static_cast<double>(half);
      const std::complex<double> twiddle(std::cos(angle), std::sin(angle));
      for (std::size_t i = j; i < n; i += 2 * half) {
        const std::complex<double> a = x[i], b = x[i + half];
        x[i] = a + b;
        x[i + half] = (a - b) * twiddle;
      }
    }
  }
  for (std::size_t i = 0, j = 0; i < n; ++i) {
    if (i < j) std::swap(x[i], x[j]);
    for (std::size_t bit = n / 2; ((j ^= bit) & bit) == 0 && bit > 0; bit /= 2) {
    }
  }
}

// A channel through overlapping, tapered segments of 2^20 samples. change() works on the
// spectrum, round() makes a whole number.
inline samples plain_segments(const samples& in, const std::function<void(spectrum&)>& change,
                              double (*round)(double)) {
  constexpr std::int64_t n = 1 << 20;
  const auto n_samples = static_cast<std::int64_t>(in.size());
  samples out = in;
  std::int64_t s = 0;
  for (std::int64_t pass = 0; pass < n_samples / 1048512 + 1; ++pass) {
    const std::int64_t length = std::min(n, n_samples - s);
    spectrum x(n);
    for (std::int64_t i = 0; i < length; ++i) {
      double v = in[s + i];
      if (i < 64) v *= static_cast<double>(i) / 64;
      if (length - 1 - i < 64) v *= static_cast<double>(length - 1 - i) / 64;
      x[i] = v;
    }
    plain_transform(x);
    change(x);
    for (auto& bin : x) bin = std::conj(bin);
    plain_transform(x);
    for (std::int64_t i = 0; i < length; ++i) {
      const auto value = static_cast<std::int64_t>(round(x[i].real() / n));
      const std::int64_t old = i < 64 && s > 0 ? out[s + i] : 0;
      out[s + i] = static_cast<std::int16_t>(value + old);
    }
    s += length - 65;
  }
  return out;
}

inline double low_pass_gain(double bin, double cutoff, int poles) {
  return std::sqrt(1 / (1 + std::pow(bin / cutoff, 2 * poles)));
}

inline samples plain_butterworth(const samples& in, int cutoff, int poles, bool low_pass) {
  const auto change = [=](spectrum& x) {
    const std::size_t n = x.size();
    const int last = low_pass ? 524288 : std::min(10 * cutoff, 524288);
    for (int i = 1; i <= last; ++i) {
      const double low = low_pass_gain(i - 1, cutoff, poles);
      x[i - 1] *= low_pass ? low : 1 - low;
      if (i > 1) x[n - (i - 1)] *= low_pass ? low : 1 - low;
    }
  };
  return plain_segments(in, change, [](double v) { return std::nearbyint(v); });
}

inline samples plain_notch(const samples& in, int sampling_frequency) {
  const auto change = [=](spectrum& x) {
    const int n = static_cast<int>(x.size());
    for (int h = 1; h <= 4; ++h) {
      const int centre = h * 62914560 / sampling_frequency;
      for (int k = std::max(centre - 2500, 1); k <= std::min(centre + 2500, n - 1); ++k) {
        const double gain = 1 - std::exp(-std::pow(k - centre, 2) / 500000);
        x[k] *= gain;
        if (k != n - k) x[n - k] *= gain;
      }
    }
  };
  return plain_segments(in, change, [](double v) { return std::nearbyint(v); });
}

inline samples plain_phase(const samples& in, int f0_bin, double degrees) {
  const auto change = [=](spectrum& x) {
    const std::size_t n = x.size();
    for (std::size_t k = 1; k < n / 2; ++k) {
      const double decades = std::log10(static_cast<double>(k) / f0_bin);
      x[k] *= std::polar(1.0, decades * degrees * std::numbers::pi / 180);
      x[n - k] = std::conj(x[k]);
    }
  };
  return plain_segments(in, change, [](double v) { return std::trunc(v + (v > 0 ? .5 : -.5)); });
}

// Over unmasked channels, sample by sample.
inline std::vector<samples> plain_common_mean(std::vector<samples> v,
                                              const std::vector<bool>& masked) {
  for (std::size_t t = 0; t < v[0].size(); ++t) {
    float sum = 0, n = 0;
    for (std::size_t c = 0; c < v.size(); ++c) {
      if (masked[c]) continue;
      sum += v[c][t];
      n += 1;
    }
    const float mean = sum / n;
    for (std::size_t c = 0; c < v.size(); ++c) {
      if (!masked[c]) v[c][t] = static_cast<std::int16_t>(std::lround(v[c][t] - mean));
    }
  }
  return v;
}

inline std::vector<samples> plain_spatial(const std::vector<samples>& v,
                                          const std::vector<bool>& masked, float spacing,
                                          float radius) {
  std::vector<samples> out = v;
  for (std::size_t t = 0; t < v[0].size(); ++t) {
    for (std::size_t c = 0; c < v.size(); ++c) {
      float sum = 0, weights = 0;
      for (std::size_t j = 0; j < v.size(); ++j) {
        const float d = spacing * std::fabs(static_cast<float>(c) - static_cast<float>(j));
        if (masked[c] || masked[j] || d >= 3 * radius) continue;
        const auto w = static_cast<float>(std::exp(-double{d} * d / (2.0 * radius * radius)));
        sum += w * v[j][t];
        weights += w;
      }
      if (masked[c]) continue;
      const float x = sum / weights;
      out[c][t] = static_cast<std::int16_t>(x > 0 ? x + 0.5f : x - 0.5f);
    }
  }
  return out;
}

// The whole allocated run of a channel, of which n_samples belong to the recording.
inline samples plain_temporal(const samples& v, std::size_t n_samples) {
  samples out = v;
  const auto at = [&](std::size_t t) { return t < v.size() ? v[t] : std::int16_t{0}; };
  const std::size_t last = (n_samples + 999) / 1000 * 1000;
  for (std::size_t t = 1; t <= last && t < v.size(); ++t) {
    const auto outer = static_cast<std::int16_t>(at(t - 1) + at(t + 1));
    out[t] = static_cast<std::int16_t>(outer / 4 + at(t) / 2);
  }
  return out;
}

}  // namespace kestrelvane::test
