#include "signal/noise_covariance.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <mutex>

#include "numerics/parallel.h"
#include "numerics/simd.h"

namespace kestrelvane {

namespace {

using spectrum = std::vector<std::complex<float>>;

// Real and imaginary parts apart, as many bins at a time as a register has lanes.
struct split_spectrum {
  std::vector<float> re, im;
};

// Zeros on end for so long are a stretch without data.
constexpr float silence_ms = 0.5f;
// Fewer pairs of clean samples at a lag tell nothing of it.
constexpr float fewest_pairs = 500.0f;

// The next length that the library is quick with: 2, 3 and 5 are its only factors.
std::int32_t quick_length(std::int32_t n) {
  for (;; ++n) {
    std::int32_t rest = n;
    for (const std::int32_t factor : {2, 3, 5}) {
      while (rest % factor == 0) rest /= factor;
    }
    if (rest == 1 && n % 2 == 0) return n;
  }
}

// A real transform under plans that come from a formula and use no vector units: the same
// bits on every processor.
class real_transform {
 public:
  explicit real_transform(std::int32_t n) : n_(n) {
    constexpr unsigned flags = FFTW_ESTIMATE | FFTW_NO_SIMD | FFTW_UNALIGNED;
    std::vector<float> x(static_cast<std::size_t>(n));
    spectrum y(static_cast<std::size_t>(n) / 2 + 1);
    forward_ = fftwf_plan_dft_r2c_1d(n, x.data(), bins(y), flags);
    backward_ = fftwf_plan_dft_c2r_1d(n, bins(y), x.data(), flags);
  }
  real_transform(const real_transform&) = delete;
  real_transform& operator=(const real_transform&) = delete;
  ~real_transform() {
    fftwf_destroy_plan(forward_);
    fftwf_destroy_plan(backward_);
  }
  std::int32_t length() const { return n_; }
  std::size_t n_bins() const { return static_cast<std::size_t>(n_) / 2 + 1; }
  // Both may be called from any thread; backward destroys its input and scales by the length.
  void forward(std::vector<float>& x, spectrum& y) const {
    fftwf_execute_dft_r2c(forward_, x.data(), bins(y));
  }
  void backward(spectrum& y, std::vector<float>& x) const {
    fftwf_execute_dft_c2r(backward_, bins(y), x.data());
  }

 private:
  static fftwf_complex* bins(spectrum& y) { return reinterpret_cast<fftwf_complex*>(y.data()); }
  std::int32_t n_;
  fftwf_plan forward_, backward_;
};

// Where the stretches begin: evenly over the recording, fewer in a short one.
std::vector<std::int64_t> stretch_starts(const session_state& session, std::int32_t length) {
  const std::int64_t room = std::int64_t{session.recording.n_samples} - length;
  if (room < 0) return {1};
  const std::int64_t n = std::clamp<std::int64_t>(room / length + 1, 1, noise_stretches);
  std::vector<std::int64_t> starts;
  for (std::int64_t k = 0; k < n; ++k) starts.push_back(1 + (n == 1 ? 0 : room * k / (n - 1)));
  return starts;
}

// What a channel's stretches hold: clean samples in units of its noise as spectra, and the runs of
// clean samples, as the places where each begins and, next to it, ends.
struct channel_spectra {
  std::vector<split_spectrum> samples;
  std::vector<std::vector<std::int32_t>> clean;
};

// Lowers `clean` round each sample that is beyond the clip, and where there are no data.
void mark_clean(const std::vector<float>& x, float rate_khz, std::vector<float>& clean) {
  const auto n = static_cast<std::int32_t>(x.size());
  const auto guard = static_cast<std::int32_t>(std::ceil(noise_guard_ms * rate_khz));
  const auto silence = static_cast<std::int32_t>(std::ceil(silence_ms * rate_khz));
  std::fill(clean.begin(), clean.end(), 1.0f);
  const auto lower = [&](std::int32_t from, std::int32_t to) {
    for (std::int32_t t = std::max(0, from); t <= std::min(n - 1, to); ++t) clean[t] = 0.0f;
  };
  std::int32_t n_zeros = 0;
  for (std::int32_t t = 0; t < n; ++t) {
    if (std::fabs(x[t]) > noise_clip) lower(t - guard, t + guard);
    n_zeros = x[t] == 0.0f ? n_zeros + 1 : 0;
    if (n_zeros >= silence) lower(t - n_zeros + 1, t);
  }
}

std::vector<std::int32_t> find_runs(const std::vector<float>& clean) {
  std::vector<std::int32_t> edges;
  const auto n = static_cast<std::int32_t>(clean.size());
  for (std::int32_t t = 0; t < n; ++t) {
    if (clean[t] != (t > 0 ? clean[t - 1] : 0.0f)) edges.push_back(t);
  }
  if (edges.size() % 2 != 0) edges.push_back(n);
  return edges;
}

channel_spectra read_channel(const session_state& session, std::int32_t channel,
                             const std::vector<std::int64_t>& starts, std::int32_t length,
                             const real_transform& transform) {
  const recording_store& r = session.recording;
  const std::int16_t* v = r.vd.channel(channel);
  const float one_over_noise = 1.0f / r.chan_noise[channel];
  channel_spectra out;
  std::vector<float> stretch(static_cast<std::size_t>(length)), clean(stretch.size());
  std::vector<float> x(static_cast<std::size_t>(transform.length()));
  spectrum bins(transform.n_bins());
  for (const std::int64_t start : starts) {
    for (std::int32_t t = 0; t < length; ++t) {
      const std::int64_t at = start + t;
      stretch[t] = at <= r.n_samples ? static_cast<float>(v[at]) * one_over_noise : 0.0f;
    }
    mark_clean(stretch, static_cast<float>(r.sampling_frequency) / 1000.0f, clean);
    std::fill(x.begin(), x.end(), 0.0f);
    for (std::int32_t t = 0; t < length; ++t) x[t] = stretch[t] * clean[t];
    transform.forward(x, bins);
    split_spectrum& kept = out.samples.emplace_back();
    kept.re.reserve(bins.size());
    kept.im.reserve(bins.size());
    for (const std::complex<float>& bin : bins) {
      kept.re.push_back(bin.real());
      kept.im.push_back(bin.imag());
    }
    out.clean.push_back(find_runs(clean));
  }
  return out;
}

// Adds the conjugate of a times b.
KESTRELVANE_CLONES void add_products(const float* a_re, const float* a_im, const float* b_re,
                                     const float* b_im, std::size_t n, float* __restrict re,
                                     float* __restrict im) {
  for (std::size_t k = 0; k < n; ++k) {
    re[k] += a_re[k] * b_re[k] + a_im[k] * b_im[k];
    im[k] += a_re[k] * b_im[k] - a_im[k] * b_re[k];
  }
}

// The correlation of two channels summed over the stretches, at all lags, scaled by the length.
void correlate(const channel_spectra& a, const channel_spectra& b, const real_transform& transform,
               std::vector<float>& out) {
  const std::size_t n = transform.n_bins();
  std::vector<float> re(n), im(n);
  for (std::size_t s = 0; s < a.samples.size(); ++s) {
    add_products(a.samples[s].re.data(), a.samples[s].im.data(), b.samples[s].re.data(),
                 b.samples[s].im.data(), n, re.data(), im.data());
  }
  spectrum product(n);
  for (std::size_t k = 0; k < n; ++k) product[k] = {re[k], im[k]};
  transform.backward(product, out);
}

// Samples t that are clean in one channel and, k later, in the other.
std::int32_t count_shared(const std::vector<std::int32_t>& a, const std::vector<std::int32_t>& b,
                          std::int32_t k) {
  std::int32_t count = 0;
  for (std::size_t i = 0, j = 0; i < a.size() && j < b.size();) {
    const std::int32_t from = std::max(a[i], b[j] - k), to = std::min(a[i + 1], b[j + 1] - k);
    count += std::max(0, to - from);
    a[i + 1] < b[j + 1] - k ? i += 2 : j += 2;
  }
  return count;
}

// The pairs of clean samples at the lags -(points - 1) .. points - 1. Over the lags the count is
// piecewise linear, and bends by one where an edge of one channel meets an edge of the other: up
// where a beginning meets an end, down where like meets like. So all counts follow from two of them
// and from the pairs of edges that are so near, which are few.
std::vector<std::int32_t> count_pairs(const channel_spectra& a, const channel_spectra& b,
                                      std::int32_t points) {
  const std::int32_t least = 1 - points;
  std::vector<std::int32_t> counts(static_cast<std::size_t>(2 * points - 1)), bends(counts.size());
  for (std::size_t s = 0; s < a.clean.size(); ++s) {
    const std::vector<std::int32_t>& edges = a.clean[s];
    const std::vector<std::int32_t>& others = b.clean[s];
    counts[0] += count_shared(edges, others, least);
    if (points > 1) counts[1] += count_shared(edges, others, least + 1);
    std::size_t from = 0;
    for (std::size_t i = 0; i < edges.size(); ++i) {
      while (from < others.size() && others[from] - edges[i] < least) ++from;
      for (std::size_t j = from; j < others.size() && others[j] - edges[i] < points; ++j) {
        bends[others[j] - edges[i] - least] += (i + j) % 2 == 0 ? -1 : 1;
      }
    }
  }
  for (std::size_t k = 2; k < counts.size(); ++k) {
    counts[k] = 2 * counts[k - 1] - counts[k - 2] + bends[k - 1];
  }
  return counts;
}

struct pair_of_channels {
  std::int32_t i, j;  // i <= j
};

std::vector<pair_of_channels> near_pairs(const session_state& session,
                                         const std::vector<std::int32_t>& channels) {
  std::vector<pair_of_channels> pairs;
  for (std::size_t a = 0; a < channels.size(); ++a) {
    for (std::size_t b = a; b < channels.size(); ++b) {
      const bool near =
          a == b || session.recording.distance(channels[a], channels[b]) <= noise_covariance_um;
      if (near) pairs.push_back({channels[a], channels[b]});
    }
  }
  return pairs;
}

// Means over pairs of clean samples for the lags of one pair, in both orders.
struct lag_maker {
  const std::vector<channel_spectra>& spectra;
  const real_transform& transform;
  noise_covariance& out;

  void make(pair_of_channels pair, float* forward, float* backward) const {
    std::vector<float> sums(static_cast<std::size_t>(transform.length()));
    const channel_spectra& a = spectra[pair.i];
    const channel_spectra& b = spectra[pair.j];
    correlate(a, b, transform, sums);
    const std::vector<std::int32_t> counts = count_pairs(a, b, out.points);
    const float scale = 1.0f / static_cast<float>(transform.length());
    for (std::int32_t k = 1 - out.points; k < out.points; ++k) {
      const std::int32_t at = k < 0 ? k + transform.length() : k;
      const auto n = static_cast<float>(counts[k + out.points - 1]);
      const float mean = n < fewest_pairs ? 0.0f : sums[at] * scale / n;
      forward[k + out.points - 1] = mean;
      backward[out.points - 1 - k] = mean;
    }
  }
};

// All lags, a few channels along the probe at a time: their spectra, and those of the channels near
// them that come later, are all that is held. Those of a long probe are 75 MB together.
class lag_sweep {
 public:
  lag_sweep(const session_state& session, const std::vector<pair_of_channels>& pairs,
            const lag_maker& maker, std::vector<channel_spectra>& spectra)
      : session_(session), pairs_(pairs), maker_(maker), spectra_(spectra) {}

  void run(const std::vector<std::int32_t>& channels, const std::vector<std::int64_t>& starts,
           std::int32_t length) {
    order_channels(channels);
    constexpr std::int32_t at_once = 24;
    const auto n = static_cast<std::int32_t>(order_.size());
    for (std::int32_t first = 0; first < n; first += at_once) {
      const std::int32_t end = std::min(first + at_once, n);
      std::vector<std::int32_t> mine;
      for (std::int32_t p = 0; p < static_cast<std::int32_t>(pairs_.size()); ++p) {
        const std::int32_t earlier = std::min(rank_[pairs_[p].i], rank_[pairs_[p].j]);
        if (earlier >= first && earlier < end) mine.push_back(p);
      }
      read_missing(mine, starts, length);
      make_lags(mine);
      // Every pair of theirs has been made, with those before and with those behind.
      for (std::int32_t k = first; k < end; ++k) spectra_[order_[k]] = {};
    }
  }

 private:
  void order_channels(const std::vector<std::int32_t>& channels) {
    order_ = channels;
    const recording_store& r = session_.recording;
    std::stable_sort(order_.begin(), order_.end(),
                     [&](std::int32_t a, std::int32_t b) { return r.chan_y[a] < r.chan_y[b]; });
    rank_.assign(static_cast<std::size_t>(r.n_channels) + 1, 0);
    for (std::size_t k = 0; k < order_.size(); ++k) {
      rank_[order_[k]] = static_cast<std::int32_t>(k);
    }
  }

  void read_missing(const std::vector<std::int32_t>& mine, const std::vector<std::int64_t>& starts,
                    std::int32_t length) {
    std::vector<char> needed(spectra_.size(), 0);
    for (const std::int32_t p : mine) needed[pairs_[p].i] = needed[pairs_[p].j] = 1;
    std::vector<std::int32_t> missing;
    for (const std::int32_t c : order_) {
      if (needed[c] && spectra_[c].samples.empty()) missing.push_back(c);
    }
    parallel_for_dealt(threads_now(session_), 0, static_cast<std::int64_t>(missing.size()) - 1,
                       [&](std::int64_t i, std::int32_t) {
                         spectra_[missing[i]] =
                             read_channel(session_, missing[i], starts, length, maker_.transform);
                       });
  }

  void make_lags(const std::vector<std::int32_t>& mine) {
    noise_covariance& out = maker_.out;
    parallel_for_dealt(threads_now(session_), 0, static_cast<std::int64_t>(mine.size()) - 1,
                       [&](std::int64_t k, std::int32_t) {
                         const auto p = static_cast<std::size_t>(mine[k]);
                         float* lags = out.lags.data() + 2 * p * out.stride();
                         maker_.make(pairs_[p], lags, lags + out.stride());
                       });
  }

  const session_state& session_;
  const std::vector<pair_of_channels>& pairs_;
  const lag_maker& maker_;
  std::vector<channel_spectra>& spectra_;
  std::vector<std::int32_t> order_;  // channels from one end of the probe to the other
  std::vector<std::int32_t> rank_;   // of a channel in that order
};

// From units of chan_noise to those of the clean samples' own deviation.
void normalise(noise_covariance& c, const session_state& session,
               const std::vector<std::int32_t>& channels) {
  std::vector<float> scale(static_cast<std::size_t>(c.n_channels) + 1);
  for (const std::int32_t i : channels) {
    const float variance = c.of(i, i)[c.points - 1];
    // A channel of which nothing was clean keeps the noise that was measured elsewhere.
    scale[i] = variance > 0.0f ? 1.0f / std::sqrt(variance) : 1.0f;
    c.sigma[i] = session.recording.chan_noise[i] / scale[i];
  }
  for (const std::int32_t i : channels) {
    for (const std::int32_t j : channels) {
      const float* row = c.of(i, j);
      if (row == nullptr) continue;
      float* lags = c.lags.data() + (row - c.lags.data());
      for (std::int32_t k = 0; k < 2 * c.points - 1; ++k) lags[k] *= scale[i] * scale[j];
    }
  }
}

// The planner is for one thread at a time.
std::mutex planner;

}  // namespace

noise_covariance measure_noise_covariance(const session_state& session, std::int32_t points) {
  const recording_store& r = session.recording;
  const std::int32_t length = noise_stretch_samples + points;
  std::vector<std::int32_t> channels;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    if (!r.chan_mask[c] && r.chan_noise[c] > 0.0f) channels.push_back(c);
  }
  noise_covariance out;
  out.points = points;
  out.n_channels = r.n_channels;
  out.sigma.assign(static_cast<std::size_t>(r.n_channels) + 1, 0.0f);
  out.place.assign(static_cast<std::size_t>(r.n_channels) * static_cast<std::size_t>(r.n_channels),
                   -1);
  const std::lock_guard<std::mutex> alone(planner);
  const real_transform transform(quick_length(length + points));
  const std::vector<std::int64_t> starts = stretch_starts(session, length);
  std::vector<channel_spectra> spectra(static_cast<std::size_t>(r.n_channels) + 1);
  const std::vector<pair_of_channels> pairs = near_pairs(session, channels);
  out.lags.assign(2 * pairs.size() * out.stride(), 0.0f);
  const auto n = static_cast<std::size_t>(r.n_channels);
  for (std::size_t p = 0; p < pairs.size(); ++p) {
    const auto i = static_cast<std::size_t>(pairs[p].i - 1);
    const auto j = static_cast<std::size_t>(pairs[p].j - 1);
    out.place[j * n + i] = static_cast<std::int32_t>(2 * p + 1);
    out.place[i * n + j] = static_cast<std::int32_t>(2 * p);
  }
  const lag_maker maker{spectra, transform, out};
  lag_sweep(session, pairs, maker, spectra).run(channels, starts, length);
  normalise(out, session, channels);
  return out;
}

}  // namespace kestrelvane
