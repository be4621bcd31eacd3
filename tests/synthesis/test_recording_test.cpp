#include "synthesis/test_recording.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>

#include "numerics/portable_math.h"
#include "support/small_session.h"
#include "synthesis/random_stream.h"
#include "synthesis/score.h"

namespace kestrelvane {
namespace {

using test::read_bytes;
using test::temporary_directory;

TEST(RandomStream, PortableFunctionsAndMoments) {
  for (double x = 1e-12; x < 1e12; x *= 1.7) {
    EXPECT_NEAR(portable_log(x), std::log(x), 1e-14 * (1 + std::fabs(std::log(x))));
  }
  for (double x = -600; x < 600; x += 7.3) {
    EXPECT_NEAR(portable_exp(x) / std::exp(x), 1, 1e-13) << x;
  }
  EXPECT_EQ(portable_exp(-1e9), 0);
  random_stream random(1, 2, 3);
  double sum = 0, squares = 0, waits = 0;
  const int n = 200000;
  for (int i = 0; i < n; ++i) {
    const double v = random.normal();
    sum += v, squares += v * v, waits += random.exponential(4);
  }
  EXPECT_NEAR(sum / n, 0, 0.01);
  EXPECT_NEAR(squares / n, 1, 0.015);
  EXPECT_NEAR(waits / n, 4, 0.05);
  // Streams are told apart by each of their numbers.
  const std::uint64_t word = random_stream(1, 2, 3).next();
  EXPECT_NE(word, random_stream(2, 2, 3).next());
  EXPECT_NE(word, random_stream(1, 3, 3).next());
  EXPECT_NE(word, random_stream(1, 2, 4).next());
}

struct made_recording {
  std::int32_t rate = 0, n_channels = 0, n_samples = 0;
  float vscale = 0;
  std::vector<std::int16_t> x, y;
  std::vector<std::vector<std::int16_t>> samples;
  spike_list truth;

  double microvolts(std::int32_t channel, std::int64_t i) const {
    return samples[channel - 1][i] * vscale;
  }
  double median_noise(std::int32_t channel) const {
    std::vector<int> magnitudes;
    for (const std::int16_t v : samples[channel - 1]) magnitudes.push_back(std::abs(v));
    auto middle = magnitudes.begin() + static_cast<std::ptrdiff_t>(magnitudes.size() / 2);
    std::nth_element(magnitudes.begin(), middle, magnitudes.end());
    return *middle * double{vscale} / 0.6745;
  }
};

made_recording make(const test_recording_options& options, const std::string& path) {
  std::string problem;
  EXPECT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
  const std::vector<char> bytes = read_bytes(path);
  made_recording made;
  EXPECT_EQ(std::string(bytes.data(), 16), "Test spike file ");
  std::int32_t head[4];
  std::memcpy(head, bytes.data() + 16, 16);
  std::memcpy(&made.vscale, bytes.data() + 32, 4);
  EXPECT_EQ(head[0], 1002);
  made.rate = head[1], made.n_channels = head[2], made.n_samples = head[3];
  const std::size_t table = 36, first = table + std::size_t{8} * made.n_channels;
  const std::size_t per_channel = std::size_t{2} * made.n_samples;
  EXPECT_EQ(bytes.size(), first + per_channel * made.n_channels + 4);
  for (std::int32_t c = 0; c < made.n_channels; ++c) {
    std::int16_t position[2];
    std::memcpy(position, bytes.data() + table + std::size_t{8} * c, 4);
    made.x.push_back(position[0]), made.y.push_back(position[1]);
    made.samples.emplace_back(made.n_samples);
    std::memcpy(made.samples.back().data(), bytes.data() + first + per_channel * c, per_channel);
  }
  std::string words;
  EXPECT_TRUE(read_spike_list(path_stem(path) + ".truth.csv", made.truth, words)) << words;
  return made;
}

test_recording_options small_options() {
  test_recording_options options;
  options.n_channels = 8;
  options.minutes = 0.5;
  options.n_units = 6;
  return options;
}

TEST(TestRecording, SameSeedSameBytesAtAnyThreadCount) {
  temporary_directory dir;
  test_recording_options options = small_options();
  options.minutes = 0.05;
  options.drift_um = 40;
  const auto files = [&](const char* name) {
    std::string problem;
    EXPECT_TRUE(make_test_recording(options, dir.file(name), {}, problem));
    std::vector<std::vector<char>> contents;
    for (const char* ending : {".tsf", ".truth.csv", ".units.csv"}) {
      contents.push_back(read_bytes(path_stem(dir.file(name)) + ending));
    }
    return contents;
  };
  const auto first = files("a.tsf");
  EXPECT_EQ(files("b.tsf"), first);
  options.n_threads = 3;
  EXPECT_EQ(files("c.tsf"), first);
  options.seed = 2;
  const auto other = files("d.tsf");
  EXPECT_NE(other[0], first[0]);
  EXPECT_NE(other[1], first[1]);
}

TEST(TestRecording, TrainsKeepRatesAndRefractoryPeriods) {
  test_recording_options options;
  options.minutes = 20;
  options.n_units = 60;
  const auto sites = electrode_sites(options.electrode, options.n_channels);
  const auto units = plan_units(options, sites);
  const auto trains = plan_spikes(options, units);
  ASSERT_EQ(units.size(), 60u);
  std::vector<double> rates;
  double log_amplitude = 0;
  for (std::size_t u = 0; u < units.size(); ++u) {
    const double steps_per_ms = 25.0 * sub_sample_steps;
    std::int64_t least = INT64_MAX;
    bool fractional = false;
    double mean_size = 0;
    for (std::size_t i = 0; i < trains[u].size(); ++i) {
      if (i > 0) least = std::min(least, trains[u][i].time - trains[u][i - 1].time);
      fractional |= trains[u][i].time % sub_sample_steps != 0;
      mean_size += trains[u][i].size / static_cast<double>(trains[u].size());
    }
    EXPECT_GE(static_cast<double>(least), units[u].firing.refractory_ms * steps_per_ms);
    EXPECT_TRUE(fractional);
    EXPECT_GT(mean_size, 0.9);
    EXPECT_LT(mean_size, 1.05);
    EXPECT_GE(trains[u].front().time, sub_sample_steps);
    EXPECT_LE(trains[u].back().time, std::int64_t{count_test_samples(options)} * sub_sample_steps);
    const double rate = static_cast<double>(trains[u].size()) / 1200;
    EXPECT_NEAR(rate, units[u].firing.rate, 6 * std::sqrt(units[u].firing.rate / 1200));
    EXPECT_GE(units[u].firing.rate, 0.5);
    rates.push_back(rate);
    log_amplitude += std::log(units[u].amplitude_uv) / 60;
    for (std::size_t o = 0; o < u; ++o) {
      EXPECT_GE(
          std::hypot(units[u].x - units[o].x, units[u].y - units[o].y, units[u].z - units[o].z),
          15);
    }
  }
  std::sort(rates.begin(), rates.end());
  EXPECT_GT(rates[30], 2);
  EXPECT_LT(rates[30], 6);
  EXPECT_GT(rates[59], 8);  // a few fire much more than most
  EXPECT_NEAR(log_amplitude, std::log(100), 0.3);
}

// Mean waveforms at the times of the truth: troughs where and as deep as planted,
// smaller with distance, from 0.2 to 0.8 ms from trough to peak.
TEST(TestRecording, SpikesStandWhereTheTruthSays) {
  temporary_directory dir;
  test_recording_options options = small_options();
  options.minutes = 2;
  const made_recording made = make(options, dir.file("a.tsf"));
  const auto units = plan_units(options, electrode_sites(options.electrode, 8));
  const std::vector<char> bytes = read_bytes(dir.file("a.units.csv"));
  const std::string text(bytes.begin(), bytes.end());
  std::map<std::int32_t, std::vector<double>> times;
  std::map<std::int32_t, std::int32_t> channels;
  for (const auto& s : made.truth.spikes) {
    times[s.unit].push_back(s.time);
    channels[s.unit] = s.channel;
  }
  ASSERT_EQ(times.size(), 6u);
  for (const auto& [unit, of_unit] : times) {
    const std::int32_t best = channels[unit];
    EXPECT_EQ(best, units[unit - 1].best_channel);
    std::vector<std::vector<double>> mean(8, std::vector<double>(60, 0.0));
    for (const double t : of_unit) {
      const std::int64_t at = std::llround(t * 25000) - 1;  // sample 1 is the first
      for (std::int32_t c = 1; c <= 8; ++c) {
        for (int i = 0; i < 60; ++i) {
          mean[c - 1][i] += made.microvolts(c, at - 20 + i) / static_cast<double>(of_unit.size());
        }
      }
    }
    const std::vector<double>& shape = mean[best - 1];
    const auto trough = std::min_element(shape.begin(), shape.end());
    EXPECT_EQ(trough - shape.begin(), 20);
    const auto peak = std::max_element(trough, shape.end());
    const double rise_ms = static_cast<double>(peak - trough) / 25;
    EXPECT_GE(rise_ms, 0.19);
    EXPECT_LE(rise_ms, 0.9);
    const auto line = text.find(fmt::format("\n{},", unit));
    double x, y, amplitude;
    ASSERT_EQ(std::sscanf(text.c_str() + line, "\n%*d,%lf,%lf,%lf", &x, &y, &amplitude), 3);
    EXPECT_NEAR(-*trough, amplitude, 0.12 * amplitude);
    for (std::int32_t c = 1; c <= 8; ++c) {
      const double depth = -*std::min_element(mean[c - 1].begin(), mean[c - 1].end());
      EXPECT_LT(depth, -*trough + 1);
      const double away = std::hypot(made.x[c - 1] - x, made.y[c - 1] - y);
      EXPECT_LT(depth, away > 150 ? 0.2 * amplitude + 3 : amplitude * 1.2);
    }
  }
}

TEST(TestRecording, NoiseIsColouredSharedAndOfTheSizeAskedFor) {
  temporary_directory dir;
  test_recording_options options = small_options();
  options.n_units = 0;
  options.electrode = test_electrode::linear;
  const made_recording made = make(options, dir.file("a.tsf"));
  EXPECT_TRUE(made.truth.spikes.empty());
  const auto correlation = [&](std::int32_t a, std::int32_t b, int lag) {
    double product = 0, aa = 0, bb = 0;
    for (std::int32_t i = lag; i < made.n_samples; ++i) {
      const double v = made.samples[a - 1][i], w = made.samples[b - 1][i - lag];
      product += v * w, aa += v * v, bb += w * w;
    }
    return product / std::sqrt(aa * bb);
  };
  for (std::int32_t c = 1; c <= 8; ++c) {
    EXPECT_GT(made.median_noise(c), 0.82 * 5.5);
    EXPECT_LT(made.median_noise(c), 1.15 * 5.5);
    double squares = 0, fourth = 0, mean = 0;
    for (const std::int16_t v : made.samples[c - 1]) {
      mean += v;
      squares += double{1} * v * v;
      fourth += double{1} * v * v * v * v;
    }
    const double variance = squares / made.n_samples;
    EXPECT_NEAR(std::sqrt(variance) * made.vscale, 5.5, 0.18 * 5.5);
    EXPECT_LT(std::fabs(mean / made.n_samples), 0.15 * std::sqrt(variance));
    const double kurtosis = fourth / made.n_samples / (variance * variance);
    EXPECT_GT(kurtosis, 2.9);  // normal, but for the spikes of far units
    EXPECT_LT(kurtosis, 4);
  }
  EXPECT_GT(correlation(3, 3, 1), 0.5);
  EXPECT_LT(std::fabs(correlation(3, 3, 40)), 0.1);
  EXPECT_GT(correlation(3, 4, 0), 0.15);
  EXPECT_LT(correlation(3, 4, 0), 0.7);
  EXPECT_LT(correlation(1, 8, 0), 0.15);
}

TEST(TestRecording, DriftAndGain) {
  temporary_directory dir;
  test_recording_options options = small_options();
  options.n_units = 0;
  options.gain_change = -0.5;
  const made_recording quiet = make(options, dir.file("gain.tsf"));
  double early = 0, late = 0;
  const std::int32_t tenth = quiet.n_samples / 10;
  for (std::int32_t i = 0; i < tenth; ++i) {
    early += std::fabs(quiet.microvolts(2, i));
    late += std::fabs(quiet.microvolts(2, quiet.n_samples - 1 - i));
  }
  EXPECT_NEAR(late / early, 0.525 / 0.975, 0.03);

  options = small_options();
  const auto sites = electrode_sites(options.electrode, 8);
  planted_unit unit = plan_units(options, sites)[0];
  EXPECT_EQ(relative_size(unit, sites, unit.best_channel, 0), 1);
  EXPECT_LT(relative_size(unit, sites, unit.best_channel, 60), 0.6);
}

TEST(TestRecording, Electrodes) {
  temporary_directory dir;
  for (const char* name : {"tetrode", "polytrode", "linear", "utah", "neuropixels"}) {
    test_recording_options options;
    ASSERT_TRUE(electrode_from_name(name, options.electrode)) << name;
    options.n_channels = 16;
    options.minutes = 0.02;
    options.n_units = 3;
    options.sampling_frequency = 30000;
    const made_recording made = make(options, dir.file(fmt::format("{}.tsf", name)));
    EXPECT_EQ(made.n_channels, 16);
    EXPECT_EQ(made.n_samples, 36000);
    EXPECT_EQ(made.rate, 30000);
    for (int a = 0; a < 16; ++a) {
      for (int b = 0; b < a; ++b) {
        EXPECT_GE(std::hypot(made.x[a] - made.x[b], made.y[a] - made.y[b]), 20);
      }
    }
  }
  test_electrode none;
  EXPECT_FALSE(electrode_from_name("Polytrode", none));
  EXPECT_EQ(electrode_names(), "tetrode, polytrode, linear, utah, neuropixels");
}

TEST(TestRecording, OverlapsAreAsManyAsAskedFor) {
  test_recording_options options;
  options.n_units = 8;
  const std::vector<site_position> sites = electrode_sites(options.electrode, options.n_channels);
  const std::vector<planted_unit> units = plan_units(options, sites);
  const auto plain = plan_spikes(options, units);
  options.overlap = 0.4;
  const auto trains = plan_spikes(options, units);
  EXPECT_EQ(trains[0].size(), plain[0].size()) << "nobody comes before it";
  const double per_ms = 0.001 * options.sampling_frequency * sub_sample_steps;
  for (std::size_t u = 1; u < units.size(); ++u) {
    std::size_t nearest = 0;
    const auto distance = [&](std::size_t v) {
      return std::hypot(units[u].x - units[v].x, units[u].y - units[v].y);
    };
    for (std::size_t v = 1; v < u; ++v) {
      if (distance(v) < distance(nearest)) nearest = v;
    }
    int n_near = 0;
    for (const planted_spike& spike : trains[nearest]) {
      const auto at = std::lower_bound(
          trains[u].begin(), trains[u].end(), static_cast<double>(spike.time) - 0.5 * per_ms,
          [](const planted_spike& s, double time) { return static_cast<double>(s.time) < time; });
      n_near += at != trains[u].end() && static_cast<double>(at->time - spike.time) <= 0.5 * per_ms;
    }
    const auto n = static_cast<double>(trains[nearest].size());
    // Bursts bring spikes that would come too soon after another; chance brings some more.
    EXPECT_NEAR(n_near / n, 0.4, 0.09) << u;
    for (std::size_t i = 1; i < trains[u].size(); ++i) {
      ASSERT_GE(static_cast<double>(trains[u][i].time - trains[u][i - 1].time),
                units[u].firing.refractory_ms * per_ms - 1);
    }
  }
}

TEST(TestRecording, BadOptionsAndPathsAreTold) {
  const auto problem_of = [](auto&& change) {
    test_recording_options options;
    change(options);
    return validate_test_recording(options);
  };
  using o = test_recording_options;
  EXPECT_EQ(problem_of([](o&) {}), "");
  EXPECT_NE(problem_of([](o& t) { t.n_channels = 0; }), "");
  EXPECT_NE(problem_of([](o& t) { t.n_channels = 4096; }), "");  // longer than positions hold
  EXPECT_EQ(problem_of([](o& t) { t.n_channels = 384, t.electrode = test_electrode::neuropixels; }),
            "");
  EXPECT_NE(problem_of([](o& t) { t.minutes = 0; }), "");
  EXPECT_NE(problem_of([](o& t) { t.minutes = std::nan(""); }), "");
  EXPECT_NE(problem_of([](o& t) { t.minutes = 1e9; }), "");
  EXPECT_NE(problem_of([](o& t) { t.sampling_frequency = -1; }), "");
  EXPECT_NE(problem_of([](o& t) { t.n_units = 4000; }), "");
  EXPECT_NE(problem_of([](o& t) { t.amplitude_min_uv = 300; }), "");
  EXPECT_NE(problem_of([](o& t) { t.noise_uv = -1; }), "");
  EXPECT_NE(problem_of([](o& t) { t.median_rate = 0; }), "");
  EXPECT_NE(problem_of([](o& t) { t.gain_change = -1; }), "");
  EXPECT_NE(problem_of([](o& t) { t.overlap = 1; }), "");

  temporary_directory dir;
  test_recording_options options = small_options();
  options.minutes = 0.02;
  std::string problem;
  const std::string path = dir.file("no/such/folder.tsf");
  EXPECT_FALSE(make_test_recording(options, path, {}, problem));
  EXPECT_EQ(problem, "cannot write " + path + ": No such file or directory");
  EXPECT_EQ(path_stem("a.b/c"), "a.b/c");
  EXPECT_EQ(path_stem("a.b/c.d.tsf"), "a.b/c.d");

  std::vector<int> reports;
  options.noise_uv = 0;
  EXPECT_TRUE(make_test_recording(
      options, dir.file("a.tsf"),
      [&](int per_cent) {
        reports.push_back(per_cent);
        return true;
      },
      problem));
  EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
  EXPECT_EQ(reports.back(), 100);
  // Stopped on its way it leaves nothing.
  EXPECT_FALSE(make_test_recording(
      options, dir.file("b.tsf"), [](int per_cent) { return per_cent < 30; }, problem));
  EXPECT_EQ(problem, making_stopped);
  for (const auto& entry : std::filesystem::directory_iterator(dir.path)) {
    EXPECT_EQ(entry.path().filename().string()[0], 'a') << entry.path();
  }
}

}  // namespace
}  // namespace kestrelvane
