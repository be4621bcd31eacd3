// Ratios of the product's loops to a yardstick, measured side by side in one run.
//
// The two forms of a pair run in turn, several times over, and the best time of
// each counts, so that whatever else the machine does meets both alike. Results
// of the two are compared, too: a fast form that differs is reported, not timed.
//
//   kestrelvane-benchmarks [RECORDING.tsf]     the recording for the reading rate;
//                                              without it that line is left out
//   kestrelvane-benchmarks formats             reading of the acquisition formats alone
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "clustering/clustering_runs.h"
#include "clustering/gradient_ascent.h"
#include "clustering/membership.h"
#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "detection/sample_test.h"
#include "filter_ratios.h"
#include "format_ratios.h"
#include "hdf_ratios.h"
#include "numerics/parallel.h"
#include "recording/formats/tsf.h"
#include "side_by_side.h"
#include "signal/noise.h"
#include "sorting/pair_measures.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// ---------------------------------------------------------------- reading

void benchmark_reading(const std::string& path) {
  small_session session;
  std::vector<char> buffer(1 << 20);
  const auto plain_read = [&] {
    const int file = open(path.c_str(), O_RDONLY);
    while (read(file, buffer.data(), buffer.size()) > 0) {
    }
    close(file);
  };
  plain_read();  // into the page cache
  for (const int threads : {1, 2}) {
    use_threads(*session, threads);
    const best_times times = time_side_by_side(5, plain_read, [&] {
      read_tsf(*session, {path});
      session->recording.n_samples = 0;
    });
    report(fmt::format("plain read / read_tsf, {} thread(s)", threads), times, true);
  }
}

// ---------------------------------------------------------------- sample scan

void benchmark_scan() {
  small_session session;
  make_busy_recording(*session, 16, 5000000, 3);
  compute_noise(*session);
  const std::size_t bytes = std::size_t{2} * 16 * 5000000;
  std::vector<char> copy(bytes, 1);
  std::vector<trigger> found;
  for (const int threads : {1, 2}) {
    use_threads(*session, threads);
    const best_times times = time_side_by_side(
        7,
        [&] {
          for (int c = 1; c <= 16; ++c) {
            std::memcpy(copy.data() + std::size_t{10000000} * (c - 1),
                        session->recording.vd.channel(c), 10000000);
          }
        },
        [&] {
          scan_stretch stretch;
          while (next_stretch(*session, stretch)) {
            find_triggers(*session, stretch.first, stretch.last, false, found);
          }
        });
    report(fmt::format("memcpy / sample scan, {} thread(s)", threads), times, true);
  }
}

// ---------------------------------------------------------------- clustering

void benchmark_gradient_ascent() {
  small_session session;
  struct size {
    int n, rounds;
    std::vector<int> stages;
  };
  for (const size& s : {size{5000, 3, {1, 4, 8, 12}}, {20000, 1, {4, 12}}, {100000, 1, {12}}}) {
    for (const int dimensions : {2, 3}) {
      const gac_points points = make_clouds(s.n, dimensions, 5);
      const auto plain = std::make_unique<gac_tables>(), fast = std::make_unique<gac_tables>();
      use_threads(*session, 1);
      const best_times times = time_side_by_side(
          s.rounds,
          [&] {
            for (const int stage : s.stages) plain_gac_stage(*session, points, stage, *plain);
          },
          [&] {
            for (const int stage : s.stages)
              gac_stage(gac_parameters_of(*session), points, stage, *fast);
          });
      bool same = true;
      for (const int stage : s.stages) {
        same = same && plain->stage_labels[stage] == fast->stage_labels[stage];
      }
      report(fmt::format("clustering plain / fast, {} points, {} dimensions", s.n, dimensions),
             times, same);
      // The ladder as a run climbs it, its stages side by side.
      const auto run = [&](int threads) {
        use_threads(*session, threads);
        const auto tables = std::make_unique<gac_tables>();
        gac_run(gac_parameters_of(*session), points, *tables);
      };
      report(fmt::format("ladder 1 / 2 threads, {} points, {} dimensions", s.n, dimensions),
             time_side_by_side(
                 2, [&] { run(1); }, [&] { run(2); }),
             true);
    }
  }
}

// ---------------------------------------------------------------- pairs and templates

void benchmark_pairs_and_templates() {
  small_session session;
  make_busy_recording(*session, 16, 3000000, 7);
  session->lists.template_shift_on = true;
  use_threads(*session, 1);
  realign_all_clusters(*session);
  const std::int32_t n = session->clusters.n_clusters;

  std::vector<float> plain_values, fast_values;
  const auto overlaps = [&](std::vector<float>& values, auto&& overlap) {
    values.clear();
    for (std::int32_t b = 2; b <= 7; ++b) {
      const pair_shift shift = template_shift(*session, 1, b, 1000, 900);
      values.push_back(overlap(*session, 1, b, n + 1, shift));
    }
  };
  best_times times = time_side_by_side(
      3, [&] { overlaps(plain_values, plain_cluster_overlap); },
      [&] { overlaps(fast_values, cluster_overlap); });
  report("cluster overlap plain / fast", times, plain_values == fast_values);

  std::vector<float> mean, sd;
  times = time_side_by_side(
      3,
      [&] {
        for (std::int32_t c = 1; c <= n; ++c) plain_template_values(*session, c, mean, sd);
      },
      [&] {
        for (std::int32_t c = 1; c <= n; ++c) calculate_template_values(*session, c);
      });
  report("templates plain / fast", times,
         std::memcmp(session->templates.mean(n, 1) + 1, mean.data(),
                     sizeof(float) * session->templates.template_points) == 0);

  // Each form starts from the same event times.
  const std::size_t bytes = sizeof(std::int32_t) * session->events.n_events;
  std::vector<std::int32_t> time(session->events.n_events), plain_time = time;
  std::vector<float> fraction(session->events.n_events);
  std::memcpy(time.data(), session->events.event_time.first(), bytes);
  std::memcpy(fraction.data(), session->events.event_shift.first(), bytes);
  const auto restore = [&] {
    std::memcpy(session->events.event_time.first(), time.data(), bytes);
    std::memcpy(session->events.event_shift.first(), fraction.data(), bytes);
  };
  for (const bool multiplicative : {true, false}) {
    session->strategy.multiplicative_matching = multiplicative;
    times = time_side_by_side(
        3,
        [&] {
          restore();
          for (std::int32_t c = 1; c <= n; ++c) plain_align_events(*session, c);
          std::memcpy(plain_time.data(), session->events.event_time.first(), bytes);
        },
        [&] {
          restore();
          for (std::int32_t c = 1; c <= n; ++c) align_events(*session, c, multiplicative);
        });
    report(
        fmt::format("event alignment plain / fast, {}", multiplicative ? "multiplicative" : "rms"),
        times, std::memcmp(plain_time.data(), session->events.event_time.first(), bytes) == 0);
  }
}

// A long probe, of which one cluster's events leave nothing in the cache for the next.
void benchmark_all_templates() {
  small_session session;
  make_busy_recording(*session, 128, 1500000, 7);
  use_threads(*session, 1);
  const std::int32_t n = session->clusters.n_clusters;
  const auto mean_of_last = [&] {
    const float* mean = session->templates.mean(n, 128) + 1;
    return std::vector<float>(mean, mean + session->templates.template_points);
  };
  std::vector<float> by_cluster, by_channel;
  const best_times times = time_side_by_side(
      3,
      [&] {
        const standing_events standing(*session);
        for (std::int32_t c = 1; c <= n; ++c) calculate_template(*session, c);
        by_cluster = mean_of_last();
      },
      [&] {
        calculate_all_templates(*session);
        by_channel = mean_of_last();
      });
  report(fmt::format("{} templates on 128 channels, by cluster / by channel", n), times,
         by_cluster == by_channel);
}

}  // namespace
}  // namespace kestrelvane::test

int main(int argc, char** argv) {
  using namespace kestrelvane::test;
  kestrelvane::flush_denormals();
  fmt::print("{:<52} {:>13} {:>13}   ratio\n", "first / second", "first", "second");
  if (argc > 1 && std::string(argv[1]) == "formats") {
    benchmark_formats();
    benchmark_hdf();
    return 0;
  }
  if (argc > 1) benchmark_reading(argv[1]);
  benchmark_formats();
  benchmark_hdf();
  benchmark_scan();
  benchmark_filters();
  benchmark_pairs_and_templates();
  benchmark_all_templates();
  if (argc < 3) benchmark_gradient_ascent();
}
