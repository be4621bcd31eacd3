// How long the analysis of a large sort takes: the channel check and the power spectrum of 384
// channels, the figures of quality, the correlograms of all pairs and the report of 200 units.
//
// The spectrum is told as a ratio, too: bare transforms of as many stretches against it.
//
//   kestrelvane-analysis-benchmark
//
// Each on one thread and on two; seconds by the clock, and processor seconds of all threads.
#include <fftw3.h>
#include <fmt/format.h>
#include <time.h>

#include <QApplication>
#include <complex>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "analysis/correlograms.h"
#include "analysis/power_spectrum.h"
#include "analysis/unit_quality.h"
#include "clustering/templates.h"
#include "displays/report/unit_report.h"
#include "numerics/parallel.h"
#include "planted_events.h"
#include "recording/site_tables.h"
#include "side_by_side.h"
#include "signal/channel_check.h"
#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

double process_seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void time_on_threads(session_state& session, const std::string& name,
                     const std::function<void()>& body) {
  for (const std::int32_t n : {1, 2}) {
    use_threads(session, n);
    const double before = process_seconds();
    const double clock = seconds(body);
    fmt::print("{:<48} {} thr. {:>8.2f} s {:>8.2f} s of processors\n", name, n, clock,
               process_seconds() - before);
    std::fflush(stdout);
  }
}

// Noise of about 10 bits rms that neighbours share in part.
void fill_recording(session_state& session) {
  recording_store& r = session.recording;
  vector_random random(1);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    std::int16_t* v = r.vd.channel(c);
    const std::int16_t* before = c > 1 ? r.vd.channel(c - 1) : v;
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      const std::uint32_t bits = random.next() >> 8;
      const int own = static_cast<int>((bits & 15) + (bits >> 4 & 15)) - 15;
      v[t] = static_cast<std::int16_t>(own + (c > 1 ? before[t] / 2 : 0));
    }
  }
}

// As many as the spectrum takes, without anything round them.
double time_bare_transforms(const session_state& session) {
  constexpr std::int32_t n_points = 4096, n_stretches = 400;
  std::vector<float> x(n_points, 1.0f);
  std::vector<std::complex<float>> y(n_points / 2 + 1);
  const fftwf_plan plan =
      fftwf_plan_dft_r2c_1d(n_points, x.data(), reinterpret_cast<fftwf_complex*>(y.data()),
                            FFTW_ESTIMATE | FFTW_NO_SIMD | FFTW_UNALIGNED);
  const std::int64_t room = session.recording.n_samples - n_points;
  const std::int64_t n = std::min<std::int64_t>(n_stretches, room / (n_points / 2) + 1);
  const double before = process_seconds();
  for (std::int64_t i = 0; i < n * session.recording.n_channels; ++i) fftwf_execute(plan);
  const double took = process_seconds() - before;
  fftwf_destroy_plan(plan);
  return took;
}

void time_probe() {
  small_session session;
  make_recording(*session, 384, 30 * 30'000, 30'000, 0.25f);
  fill_recording(*session);
  time_on_threads(*session, "channel check, 384 channels", [&] {
    channel_check check;
    if (compute_pair_correlations(*session, check)) judge_channels(*session, check, false);
  });
  time_on_threads(*session, "power spectrum, 384 channels, 30 s",
                  [&] { measure_power_spectrum(*session); });
  use_threads(*session, 1);
  measure_power_spectrum(*session);
  const double before = process_seconds();
  measure_power_spectrum(*session);
  const double spectrum = process_seconds() - before;
  const double bare = time_bare_transforms(*session);
  fmt::print("{:<48} {:.2f} s, of the spectrum {:.2f} s: x {:.2f}\n", "bare transforms, 1 thread",
             bare, spectrum, bare / spectrum);
}

void correlate_all(const session_state& session) {
  std::vector<std::int32_t> units;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) units.push_back(c);
  const std::vector<spike_train> trains = get_spike_trains(session, units);
  std::vector<train_pair> pairs;
  for (std::size_t a = 0; a < trains.size(); ++a) {
    for (std::size_t b = a; b < trains.size(); ++b) pairs.push_back({a, b});
  }
  correlograms_of_pairs(session, trains, pairs, 0.5f);
}

void time_units(std::int32_t n_events, std::int32_t n_units) {
  small_session session;
  make_recording(*session, 32, 600 * 25'000, 25'000, 0.25f);
  fill_recording(*session);
  // Heights vary a little.
  plant_events(*session, {n_events, n_units, 2, 4, [n_units](vector_random& random) {
                            return static_cast<std::int32_t>((random.next() >> 8) % n_units) + 1;
                          }});
  use_threads(*session, 2);
  compute_noise(*session);
  calculate_all_templates(*session);
  for (std::int32_t c = 1; c <= n_units; ++c) calculate_template_centre(*session, c);
  const std::string of = fmt::format("{} units, {} events", n_units, n_events);
  time_on_threads(*session, "correlograms of all pairs, " + of, [&] { correlate_all(*session); });
  time_on_threads(*session, "quality, " + of, [&] { measure_quality(*session); });
  const temporary_directory folder;
  time_on_threads(*session, "report, " + of,
                  [&] { write_unit_report(*session, report_path(folder.path)); });
}

}  // namespace
}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  const QApplication application(argc, argv);
  kestrelvane::flush_denormals();
  kestrelvane::test::time_probe();
  kestrelvane::test::time_units(2'000'000, 200);
  kestrelvane::test::time_units(100'000, 100);
}
