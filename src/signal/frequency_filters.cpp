#include "signal/frequency_filters.h"

#include <fmt/format.h>
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "numerics/parallel.h"
#include "numerics/simd.h"
#include "numerics/spectral_filter.h"
#include "session/run_log.h"
#include "signal/noise.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t half_points = spectral_points / 2;
constexpr std::int32_t taper_length = 64;
// With 65 shared samples the falling and the rising ramp add to 1 at each of them.
constexpr std::int32_t overlap_length = taper_length + 1;
// What the count of passes divides by; segments advance by one sample less.
constexpr std::int32_t pass_length = spectral_points - taper_length;
constexpr double points_in_khz = 1000.0 * spectral_points;

// ---------------------------------------------------------------- segments

// Samples start + 1 .. start + length of the recording.
struct segment {
  std::int32_t start = 0;
  std::int32_t length = 0;
};

segment first_segment(std::int32_t n_samples) { return {0, std::min(spectral_points, n_samples)}; }

segment next_segment(segment s, std::int32_t n_samples) {
  const std::int32_t start = s.start + s.length - overlap_length;
  return {start, std::min(spectral_points, n_samples - start)};
}

std::int32_t passes_over(std::int32_t n_samples) {
  return n_samples <= 0 ? 0 : n_samples / pass_length + 1;
}

// A channel on its way through its segments. The samples that a segment shares with the
// next one are put by before the output is written over them.
struct segment_channel {
  std::int16_t* samples = nullptr;  // [t] is the sample at time index t; null: no channel
  std::int16_t shared[overlap_length] = {};
};

KESTRELVANE_CLONES void copy_as_float(float* out, const std::int16_t* v, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) out[i] = static_cast<float>(v[i]);
}

// Ramps from 0 at the two ends of a segment.
void taper(float* x, std::int32_t length) {
  for (std::int32_t j = 0; j < std::min(taper_length, length); ++j) {
    // A last segment may be shorter than its two ramps, which then overlap.
    const float ramp = static_cast<float>(j) / taper_length;
    x[spectral_place(j)] *= ramp;
    x[spectral_place(length - 1 - j)] *= ramp;
  }
}

// body(place, first, n) for each row of the transform that holds some of points first .. last - 1.
template <typename Body>
void for_each_row(std::int32_t first, std::int32_t last, Body&& body) {
  while (first < last) {
    const std::int32_t n = std::min(spectral_row - first % spectral_row, last - first);
    body(spectral_place(first), first, n);
    first += n;
  }
}

void clear_from(float* x, std::int32_t first) {
  for_each_row(first, spectral_points, [&](std::size_t place, std::int32_t, std::int32_t n) {
    std::memset(x + place, 0, sizeof(float) * static_cast<std::size_t>(n));
  });
}

// Fills one array of the transform, 0 after the segment.
void load_segment(float* x, segment_channel& channel, segment s) {
  if (channel.samples == nullptr) {
    clear_from(x, 0);
    return;
  }
  const std::int16_t* v = channel.samples + s.start + 1;
  for_each_row(0, s.length, [&](std::size_t place, std::int32_t first, std::int32_t n) {
    copy_as_float(x + place, v + first, n);
  });
  static_assert(overlap_length <= spectral_row);
  if (s.start > 0) copy_as_float(x, channel.shared, std::min(overlap_length, s.length));
  // A last segment of the overlap alone has nothing to pass on.
  if (s.length > overlap_length) {
    std::memcpy(channel.shared, v + s.length - overlap_length, sizeof channel.shared);
  }
  taper(x, s.length);
  clear_from(x, s.length);
}

// ---------------------------------------------------------------- rounding

// A whole number as two bytes: what does not fit wraps. Beyond 32 bits the processor
// answers with its largest negative number, of which 0 is left.
using round_routine = void (*)(std::int16_t* out, const float* x, std::int32_t n);

__m128i wrapped(__m128i whole) { return _mm_srai_epi32(_mm_slli_epi32(whole, 16), 16); }

// To the nearest, halves as the processor rounds.
void round_nearest(std::int16_t* out, const float* x, std::int32_t n) {
  std::int32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    const __m128i low = wrapped(_mm_cvtps_epi32(_mm_loadu_ps(x + i)));
    const __m128i high = wrapped(_mm_cvtps_epi32(_mm_loadu_ps(x + i + 4)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm_packs_epi32(low, high));
  }
  for (; i < n; ++i) out[i] = static_cast<std::int16_t>(_mm_cvtss_si32(_mm_set_ss(x[i])));
}

// Halves away from zero.
void round_away(std::int16_t* out, const float* x, std::int32_t n) {
  for (std::int32_t i = 0; i < n; ++i) {
    const float moved = x[i] > 0.0f ? x[i] + 0.5f : x[i] - 0.5f;
    out[i] = static_cast<std::int16_t>(_mm_cvttss_si32(_mm_set_ss(moved)));
  }
}

// Writes the output of a segment: added where the one before it fades out.
void store_segment(segment_channel& channel, const float* x, segment s, round_routine round) {
  if (channel.samples == nullptr) return;
  std::int16_t* v = channel.samples + s.start + 1;
  // The last of the shared samples is the new segment's alone: the old one was tapered to 0.
  const std::int32_t n_added = s.start > 0 ? std::min(taper_length, s.length) : 0;
  std::int16_t rounded[taper_length];
  round(rounded, x, n_added);
  // Both halves of the cross-fade are rounded by themselves.
  for (std::int32_t i = 0; i < n_added; ++i) v[i] = static_cast<std::int16_t>(v[i] + rounded[i]);
  for_each_row(n_added, s.length, [&](std::size_t place, std::int32_t first, std::int32_t n) {
    round(v + first, x + place, n);
  });
}

// One or two channels through all their segments. finished() counts a segment.
template <typename Finished>
void filter_segments(segment_channel re, segment_channel im, std::int32_t n_samples,
                     std::int32_t n_passes, spectral_buffer& buffer, round_routine round,
                     const spectral_factors& factors, Finished&& finished) {
  segment s = first_segment(n_samples);
  for (std::int32_t pass = 0; pass < n_passes; ++pass) {
    load_segment(buffer.re, re, s);
    load_segment(buffer.im, im, s);
    filter_spectrum(buffer, factors);
    store_segment(re, buffer.re, s, round);
    store_segment(im, buffer.im, s, round);
    s = next_segment(s, n_samples);
    finished();
  }
}

// x to the power of 2 n, by multiplications: the same on every machine.
double even_power(double x, std::int32_t n) {
  double power = 1.0;
  for (std::int32_t i = 0; i < n; ++i) power *= x * x;
  return power;
}

// ---------------------------------------------------------------- workers

bool report_no_memory(const session_state& session) {
  tell(session, "Not enough memory for filtering", "Problem");
  return false;
}

// No more than there are items to work on.
std::size_t buffers_for(std::int32_t n_threads, std::int32_t n_items) {
  return static_cast<std::size_t>(std::max(std::min(n_threads, n_items), 1));
}

bool allocate_all(const session_state& session, std::vector<spectral_buffer>& buffers) {
  for (spectral_buffer& buffer : buffers) {
    if (!buffer.allocate()) return report_no_memory(session);
  }
  return true;
}

segment_channel channel_or_none(recording_store& r, std::int32_t channel) {
  return {channel <= r.n_channels ? r.vd.channel(channel) : nullptr, {}};
}

// Every pair of channels through the gains.
bool filter_pairs(session_state& session, filter_progress& progress,
                  const std::vector<float>& gains) {
  recording_store& r = session.recording;
  const std::int32_t n_threads = threads_now(session);
  // An odd last channel travels alone, with zeros as the imaginary part.
  const std::int32_t n_pairs = (r.n_channels + 1) / 2;
  const std::int32_t n_passes = passes_over(r.n_samples);
  if (n_passes == 0) return true;
  std::vector<spectral_buffer> buffers(buffers_for(n_threads, n_pairs));
  if (!allocate_all(session, buffers)) return false;
  const spectral_factors factors = real_factors(gains);
  set_parts(progress, std::int64_t{n_pairs} * n_passes);
  parallel_for_dealt(n_threads, 1, n_pairs, [&](std::int64_t pair, std::int32_t rank) {
    const auto first = static_cast<std::int32_t>(2 * pair - 1);
    filter_segments(channel_or_none(r, first), channel_or_none(r, first + 1), r.n_samples, n_passes,
                    buffers[rank], round_nearest, factors, [&] { finish_part(progress, rank); });
  });
  return true;
}

// ---------------------------------------------------------------- phase

// The upper half is the conjugate of the lower, so that the output stays real.
spectral_factors phase_factors(std::int32_t f0_bin, float degrees_per_decade) {
  std::vector<float> cosine(half_points + 1, 1.0f), sine(half_points + 1, 0.0f);
  const double radians_per_decade = double{degrees_per_decade} * M_PI / 180.0;
  // Bins 0 and N/2 stay: a turned phase there would not be that of a real signal.
  for (std::int32_t k = 1; k < half_points; ++k) {
    const double angle = std::log10(static_cast<double>(k) / f0_bin) * radians_per_decade;
    cosine[k] = static_cast<float>(std::cos(angle));
    sine[k] = static_cast<float>(std::sin(angle));
  }
  return complex_factors(cosine, sine);
}

// Every channel by itself.
bool turn_channels(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  const filter_settings& f = session.filter;
  if (r.n_samples <= 0) return true;
  // This count has always been taken in 32 bits.
  const auto n_passes =
      static_cast<std::int32_t>(static_cast<float>(r.n_samples) / pass_length + 1.0f);
  const std::int32_t n_threads = threads_now(session);
  std::vector<spectral_buffer> buffers(buffers_for(n_threads, r.n_channels));
  if (!allocate_all(session, buffers)) return false;
  // At least the first bin: angles are counted from the logarithm of k over it.
  const std::int32_t f0_bin = std::max(bin_of_frequency(f.phase_f0_khz, r.sampling_frequency), 1);
  const spectral_factors factors = phase_factors(f0_bin, f.phase_shift_degs_per_decade);
  set_parts(progress, std::int64_t{r.n_channels} * n_passes);
  parallel_for_dealt(n_threads, 1, r.n_channels, [&](std::int64_t c, std::int32_t rank) {
    filter_segments(channel_or_none(r, static_cast<std::int32_t>(c)), {}, r.n_samples, n_passes,
                    buffers[rank], round_away, factors, [&] { finish_part(progress, rank); });
  });
  return true;
}

// ---------------------------------------------------------------- 1/f

std::vector<float> one_over_f_gains() {
  std::vector<float> gains(half_points + 1);
  for (std::int32_t k = 1; k < half_points - 1; ++k) {
    gains[k] = static_cast<float>(std::sqrt(100.0 / k));
  }
  gains[0] = gains[half_points] = 0.0f;
  gains[half_points - 1] = 0.013810679f;
  return gains;
}

// Standard deviation of samples 3,000,000 to 20,000,000, of all of a shorter recording.
double settled_deviation(const std::vector<float>& x) {
  const std::size_t n = x.size();
  const std::size_t first = n > 3'000'001 ? 2'999'999 : 0;
  const std::size_t last = std::min<std::size_t>(n, 20'000'000);
  double sum = 0.0, squares = 0.0;
  for (std::size_t i = first; i < last; ++i) sum += double{x[i]};
  const auto count = static_cast<double>(last - first);
  const double mean = sum / count;
  for (std::size_t i = first; i < last; ++i) squares += (x[i] - mean) * (x[i] - mean);
  return count > 1.0 ? std::sqrt(squares / (count - 1.0)) : 0.0;
}

// The channel in µV through its segments into out, in place of vd.
template <typename Finished>
void shape_channel(const session_state& session, std::int32_t channel,
                   const spectral_factors& factors, spectral_buffer& buffer,
                   std::vector<float>& out, Finished&& finished) {
  const recording_store& r = session.recording;
  std::fill(out.begin(), out.end(), 0.0f);
  segment s = first_segment(r.n_samples);
  for (std::int32_t pass = 0; pass < passes_over(r.n_samples); ++pass) {
    const std::int16_t* const v = r.vd.channel(channel) + s.start + 1;
    for_each_row(0, s.length, [&](std::size_t place, std::int32_t first, std::int32_t n) {
      copy_as_float(buffer.re + place, v + first, n);
      for (std::int32_t i = 0; i < n; ++i) buffer.re[place + i] *= r.vscale_HP;
    });
    taper(buffer.re, s.length);
    clear_from(buffer.re, s.length);
    clear_from(buffer.im, 0);
    filter_spectrum(buffer, factors);
    float* const x = out.data() + s.start;
    const std::int32_t n_added = s.start > 0 ? std::min(taper_length, s.length) : 0;
    for (std::int32_t i = 0; i < s.length; ++i) {
      x[i] = buffer.re[spectral_place(i)] + (i < n_added ? x[i] : 0.0f);
    }
    s = next_segment(s, r.n_samples);
    finished();
  }
}

// Brings the channel to its old noise; what overflows is reported and wraps.
void store_shaped(session_state& session, std::int32_t channel, std::vector<float>& x) {
  recording_store& r = session.recording;
  const double deviation = settled_deviation(x);
  const float noise_uv = r.chan_noise[channel] * r.vscale_HP;
  // A channel that does not move becomes 0 throughout.
  const float factor = deviation > 0.0 ? noise_uv / static_cast<float>(deviation) : 0.0f;
  for (std::size_t i = 0; i < x.size(); ++i) {
    x[i] = x[i] * factor / r.vscale_HP;
    if (std::fabs(x[i]) <= 32767.0f) continue;
    write_run_log_window(session, fmt::format("2 byte overflow {} {}", i + 1, x[i]));
  }
  round_nearest(r.vd.channel(channel) + 1, x.data(), r.n_samples);
}

bool shape_channels(session_state& session, filter_progress& progress) {
  recording_store& r = session.recording;
  if (r.n_samples <= 0) return true;
  spectral_buffer buffer;
  // Asked before the arrays below are made, which would end the program where there is no room.
  if (!memory_can_hold(std::int64_t{4} * r.n_samples) || !buffer.allocate()) {
    return report_no_memory(session);
  }
  // This is the noise that each channel gets again; after the first step it could not be measured.
  compute_noise(session);
  const spectral_factors factors = real_factors(one_over_f_gains());
  std::vector<float> shaped(static_cast<std::size_t>(r.n_samples));
  set_parts(progress, std::int64_t{r.n_channels} * passes_over(r.n_samples));
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    shape_channel(session, c, factors, buffer, shaped, [&] { finish_part(progress, 0); });
    store_shaped(session, c, shaped);
  }
  return true;
}

// ---------------------------------------------------------------- Butterworth

std::vector<float> gains_of_corner(const session_state& session, float f0_khz, std::int32_t poles,
                                   bool low_pass) {
  const std::int32_t cutoff = bin_of_frequency(f0_khz, session.recording.sampling_frequency);
  return butterworth_gains(cutoff, poles, low_pass);
}

void log_butterworth(session_state& session, float f0_khz, std::int32_t poles, bool low_pass) {
  log_message(session, fmt::format("{} filtering done with f0={} and {} poles",
                                   low_pass ? "Low-pass" : "High-pass", f0_khz, poles));
}

}  // namespace

std::int32_t bin_of_frequency(float khz, std::int32_t sampling_frequency) {
  const float bin =
      khz * static_cast<float>(points_in_khz) / static_cast<float>(sampling_frequency);
  // A sampling frequency of 0 makes it infinite, which no whole number holds.
  constexpr float beyond_all_bins = 1e8f;
  // Not a number counts as 0.
  return bin > 0.0f ? static_cast<std::int32_t>(std::min(bin, beyond_all_bins)) : 0;
}

std::vector<float> butterworth_gains(std::int32_t cutoff_bin, std::int32_t poles, bool low_pass) {
  std::vector<float> gains(half_points + 1, 1.0f);
  const std::int64_t n_bins =
      // In 64 bits: ten times the highest bin that a cut-off may have is beyond 32.
      low_pass ? half_points : std::min<std::int64_t>(10 * std::int64_t{cutoff_bin}, half_points);
  for (std::int64_t k = 0; k < n_bins; ++k) {
    // Bin 0 by itself: with a cut-off of 0 it would be 0 / 0.
    const double x = k == 0 ? 0.0 : static_cast<double>(k) / cutoff_bin;
    const double low = std::sqrt(1.0 / (1.0 + even_power(x, poles)));
    gains[k] = static_cast<float>(low_pass ? low : 1.0 - low);
  }
  if (!low_pass) gains[0] = 0.0f;
  return gains;
}

std::vector<float> notch_gains(std::int32_t sampling_frequency) {
  std::vector<float> gains(half_points + 1, 1.0f);
  if (sampling_frequency <= 0) return gains;
  constexpr std::int32_t width = 2500;
  for (std::int32_t harmonic = 1; harmonic <= 4; ++harmonic) {
    // 240 times 2^20 still fits 32 bits.
    const std::int32_t centre = harmonic * 60 * spectral_points / sampling_frequency;
    const std::int32_t last = std::min(centre + width, spectral_points - 1);
    for (std::int32_t k = std::max(centre - width, 1); k <= last; ++k) {
      const double d = k - centre;
      // A bin above the middle is the mirror of one below.
      const auto bin = static_cast<std::size_t>(std::min(k, spectral_points - k));
      gains[bin] *= static_cast<float>(1.0 - std::exp(-d * d / 500000.0));
    }
  }
  return gains;
}

bool butterworth_filter(session_state& session, filter_progress& progress) {
  const filter_settings& f = session.filter;
  const auto gains = gains_of_corner(session, f.bw_f0_khz, f.bw_poles, f.make_low_pass);
  if (!filter_pairs(session, progress, gains)) return false;
  log_butterworth(session, f.bw_f0_khz, f.bw_poles, f.make_low_pass);
  return true;
}

bool band_pass_filter(session_state& session, filter_progress& progress) {
  const filter_settings& f = session.filter;
  auto gains = gains_of_corner(session, f.bw_f0_khz, f.bw_poles, false);
  const auto low = gains_of_corner(session, f.low_pass_f0_khz, f.low_pass_poles, true);
  for (std::size_t k = 0; k < gains.size(); ++k) gains[k] *= low[k];
  if (!filter_pairs(session, progress, gains)) return false;
  log_butterworth(session, f.bw_f0_khz, f.bw_poles, false);
  log_butterworth(session, f.low_pass_f0_khz, f.low_pass_poles, true);
  return true;
}

bool notch_filter(session_state& session, filter_progress& progress) {
  const auto gains = notch_gains(session.recording.sampling_frequency);
  if (!filter_pairs(session, progress, gains)) return false;
  log_message(session, "60 + 120 Hz notch filtering completed");
  return true;
}

bool phase_correct(session_state& session, filter_progress& progress) {
  if (!turn_channels(session, progress)) return false;
  // The shift is told in both places, as it always was.
  log_message(session,
              fmt::format("Hardware phase distortion corrected at f={0}KHz and {0} degs per decade",
                          session.filter.phase_shift_degs_per_decade));
  return true;
}

bool one_over_f_filter(session_state& session, filter_progress& progress) {
  if (!shape_channels(session, progress)) return false;
  log_message(session, "1/f filtering completed");
  return true;
}

}  // namespace kestrelvane
