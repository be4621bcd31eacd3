#include "filter_ratios.h"

#include <fmt/format.h>

#include <cstring>
#include <deque>
#include <vector>

#include "numerics/parallel.h"
#include "numerics/spectral_filter.h"
#include "side_by_side.h"
#include "signal/frequency_filters.h"
#include "signal/time_filters.h"
#include "support/library_transform.h"
#include "support/small_session.h"

namespace kestrelvane::test {

namespace {

template <typename Step>
void run_step(session_state& session, Step&& step) {
  filter_progress progress{session};
  progress.range = 100;
  begin_filter_step(progress, "", 100);
  step(session, progress);
}

void fill(session_state& session) {
  vector_random random(7);
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      r.vd.channel(c)[t] = static_cast<std::int16_t>(random.next() % 401 - 200);
    }
  }
}

// As many transforms as the step needs for its pairs and passes, on as many threads, by the
// library; then the step.
void benchmark_spectrum(std::int32_t n_threads) {
  constexpr std::int32_t n_pairs = 4, n_passes = 3;
  small_session session;
  make_recording(*session, 2 * n_pairs, n_passes * ((1 << 20) - 64) - 1);
  fill(*session);
  use_threads(*session, n_threads);
  const std::vector<float> gains((1 << 19) + 1, 1.0f);
  std::deque<library_filter> library;
  for (std::int32_t t = 0; t < n_threads; ++t) library.emplace_back(gains);
  const auto bare = [&] {
    parallel_for_dealt(n_threads, 1, n_pairs * n_passes, [&](std::int64_t, std::int32_t rank) {
      library[static_cast<std::size_t>(rank)].run();
    });
  };
  session->filter.bw_f0_khz = 0.5f;
  report(fmt::format("library transforms / Butterworth step, {} thread(s)", n_threads),
         time_side_by_side(5, bare, [&] { run_step(*session, butterworth_filter); }), true);
}

// A pair of channels and 2^20 samples: transforms and factors alone, at each vector width.
void benchmark_pair() {
  const std::vector<float> gains((1 << 19) + 1, 1.0f);
  library_filter library(gains);
  const spectral_factors factors = real_factors(gains);
  spectral_buffer buffer;
  if (!buffer.allocate()) return;
  std::fill_n(buffer.re, spectral_place(spectral_points - 1) + 1, 1.0f);
  std::fill_n(buffer.im, spectral_place(spectral_points - 1) + 1, -1.0f);
  for (const std::int32_t lanes : {4, 8, 16}) {
    if (lanes > spectral_lanes()) continue;
    report(fmt::format("library / spectral filter, 2^20 points, {} lanes", lanes),
           time_side_by_side(
               10, [&] { library.run(); }, [&] { filter_spectrum(buffer, factors, lanes); }),
           true);
  }
}

void benchmark_samples(std::int32_t n_channels, std::int32_t n_samples, std::int32_t n_threads) {
  small_session session;
  make_recording(*session, n_channels, n_samples);
  fill(*session);
  use_threads(*session, n_threads);
  session->filter.smooth_radius_um = 50;
  const std::size_t bytes = sizeof(std::int16_t) * static_cast<std::size_t>(n_samples);
  std::vector<char> copy(bytes * static_cast<std::size_t>(n_channels), 1);
  const auto plain_copy = [&] {
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      std::memcpy(copy.data() + bytes * static_cast<std::size_t>(c - 1),
                  session->recording.vd.channel(c) + 1, bytes);
    }
  };
  const std::pair<const char*, void (*)(session_state&, filter_progress&)> steps[] = {
      {"channel means", zero_channel_means},
      {"common mean", remove_common_mean},
      {"1:2:1", temporal_smooth},
      {"spatial smooth, 7 sites", spatial_smooth},
      {"compression", compressive_transform}};
  for (const auto& [name, step] : steps) {
    const best_times times =
        time_side_by_side(5, plain_copy, [&, run = step] { run_step(*session, run); });
    report(fmt::format("memcpy / {}, {} channels, {} thread(s)", name, n_channels, n_threads),
           times, true);
  }
}

}  // namespace

void benchmark_filters() {
  benchmark_pair();
  for (const std::int32_t n_threads : {1, 2, 4}) benchmark_spectrum(n_threads);
  benchmark_samples(32, 3'000'000, 1);
  benchmark_samples(32, 3'000'000, 2);
  benchmark_samples(384, 250'000, 1);
}

}  // namespace kestrelvane::test
