#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>

#include "support/child_process.h"
#include "support/small_session.h"
#include "synthesis/family_plan.h"
#include "synthesis/family_recording.h"
#include "synthesis/random_stream.h"
#include "synthesis/score.h"

namespace kestrelvane {
namespace {

using test::read_bytes;
using test::temporary_directory;

family_options options_of(const char* name, double seconds) {
  family_options options;
  find_family(name)->set(options);
  options.seconds = seconds;
  return options;
}

struct made_channels {
  std::vector<std::vector<double>> microvolts;
  spike_list truth;

  double rms(std::size_t c) const {
    double squares = 0;
    for (const double v : microvolts[c]) squares += v * v;
    return std::sqrt(squares / static_cast<double>(microvolts[c].size()));
  }
  // Like the noise of a channel, spikes left out.
  double median_noise(std::size_t c) const {
    std::vector<double> heights;
    for (const double v : microvolts[c]) heights.push_back(std::fabs(v));
    const auto middle = heights.begin() + static_cast<std::ptrdiff_t>(heights.size() / 2);
    std::nth_element(heights.begin(), middle, heights.end());
    return *middle / 0.6745;
  }
  double correlation(std::size_t a, std::size_t b) const {
    double products = 0;
    for (std::size_t i = 0; i < microvolts[a].size(); ++i) {
      products += microvolts[a][i] * microvolts[b][i];
    }
    return products / static_cast<double>(microvolts[a].size()) / rms(a) / rms(b);
  }
};

made_channels make(const family_options& options, std::int64_t seed, std::int32_t n_threads = 2) {
  temporary_directory dir;
  std::string problem;
  EXPECT_TRUE(make_family_recording(options, seed, n_threads, dir.file("f.tsf"), {}, problem))
      << problem;
  const std::vector<char> bytes = read_bytes(dir.file("f.tsf"));
  std::int32_t head[4];
  std::memcpy(head, bytes.data() + 16, 16);
  made_channels made;
  const std::size_t n = head[3];
  for (std::int32_t c = 0; c < head[2]; ++c) {
    std::vector<std::int16_t> bits(n);
    std::memcpy(bits.data(), bytes.data() + 36 + 8 * head[2] + 2 * n * c, 2 * n);
    made.microvolts.emplace_back();
    for (const std::int16_t v : bits) made.microvolts.back().push_back(0.25 * v);
  }
  EXPECT_TRUE(read_spike_list(dir.file("f.truth.csv"), made.truth, problem)) << problem;
  return made;
}

TEST(CellModel, CurrentsAddUpToNothing) {
  for (std::uint64_t k = 0; k < 10; ++k) {
    random_stream random(1, 2, k);
    cell_model cell = random_cell(random);
    cell.strength = 1e4;
    const cell_currents currents = make_currents(cell, 0, 30000);
    for (std::int32_t i = 0; i < currents.n; ++i) {
      double sum = 0, largest = 0;
      for (std::int32_t c = 0; c < n_compartments; ++c) {
        const double v = currents.row(17)[c * currents.n + i];
        sum += v;
        largest = std::max(largest, std::fabs(v));
      }
      EXPECT_NEAR(sum, 0, 1e-6 + 1e-6 * largest);
    }
    // Far from all of it twice the distance leaves less than half: poles of both signs.
    const std::vector<current_set> trace = trace_currents(cell);
    const double near = find_peak(cell, trace, {4000, 0}).height;
    const double far = find_peak(cell, trace, {8000, 0}).height;
    EXPECT_LT(far, 0.35 * near);
    EXPECT_GT(find_peak(cell, trace, {20, 0}).height, 10 * near);
  }
}

TEST(FamilyPlan, EveryFamilyIsWhatItsRowSays) {
  std::set<std::string> names;
  for (const recording_family& family : recording_families()) {
    SCOPED_TRACE(family.name);
    EXPECT_TRUE(names.insert(family.name).second);
    family_options options = options_of(family.name, 20);
    options.hash_per_channel = 0;
    options.n_channels = std::min(options.n_channels, 32);
    const family_plan plan = plan_family(options, 5, 2);
    ASSERT_EQ(plan.units.size(), static_cast<std::size_t>(options.n_units));
    const double steps_per_ms = 0.001 * options.sampling_frequency * sub_sample_steps;
    for (std::size_t u = 0; u < plan.units.size(); ++u) {
      const family_unit& unit = plan.units[u];
      ASSERT_GE(unit.best_channel, 1);
      EXPECT_EQ(plan.states[unit.best_channel - 1], channel_state::good);
      const site_position& site = plan.sites[unit.best_channel - 1];
      const spike_peak peak = find_peak(unit.cell, trace_currents(unit.cell), site);
      EXPECT_NEAR(peak.height / plan.noise_uv[unit.best_channel - 1], unit.snr, 1e-3 * unit.snr);
      // The second of two that are alike is as large as the first, wherever it stands.
      if (options.pairs != pair_kind::alike && options.pairs != pair_kind::relay) {
        EXPECT_GE(unit.snr, options.snr_min * 0.999);
        EXPECT_LE(unit.snr, options.snr_max * 1.001);
      }
      const double least = std::min(1.8, unit.firing.refractory_ms) * steps_per_ms;
      const std::vector<planted_spike>& spikes = plan.spikes[u];
      for (std::size_t i = 1; i < spikes.size(); ++i) {
        ASSERT_GE(static_cast<double>(spikes[i].time - spikes[i - 1].time), least - 2);
      }
    }
  }
  EXPECT_EQ(find_family("spoon"), nullptr);
}

TEST(FamilyPlan, PairsAreWhatTheyAreToEachOther) {
  const family_plan relays = plan_family(options_of("relays", 60), 3, 2);
  for (std::size_t u = 0; u < 20; u += 2) {
    const cell_model &a = relays.units[u].cell, &b = relays.units[u + 1].cell;
    EXPECT_EQ(a.x, b.x);
    EXPECT_NEAR(std::fabs(a.y - b.y), 20, 1e-9);
    EXPECT_EQ(a.strength, b.strength);
    EXPECT_EQ(relays.currents[u].heights, relays.currents[u + 1].heights);
    EXPECT_LE(relays.spikes[u].back().time, relays.spikes[u + 1].front().time);
  }
  const family_plan overlaps = plan_family(options_of("overlaps", 60), 3, 2);
  const double steps_per_ms = 30 * sub_sample_steps;
  for (std::size_t u = 0; u < 24; u += 2) {
    std::size_t n_together = 0;
    for (const planted_spike& s : overlaps.spikes[u]) {
      n_together +=
          std::any_of(overlaps.spikes[u + 1].begin(), overlaps.spikes[u + 1].end(),
                      [&](const planted_spike& o) {
                        return std::fabs(static_cast<double>(o.time - s.time)) <= steps_per_ms;
                      });
    }
    const auto n = static_cast<double>(overlaps.spikes[u].size());
    EXPECT_NEAR(static_cast<double>(n_together) / n, 0.3, 3 * std::sqrt(0.21 / n) + 0.04) << u;
  }
}

TEST(FamilyPlan, TissueMoves) {
  const auto shift = [](const char* name, double part) {
    const family_options options = options_of(name, 100);
    family_plan plan;
    plan.options = options;
    return tissue_shift(plan, static_cast<std::int64_t>(part * 100 * 30000 * sub_sample_steps));
  };
  EXPECT_EQ(shift("standard", 0.3), 0);
  EXPECT_NEAR(shift("slow-drift", 0), -15, 1e-9);
  EXPECT_NEAR(shift("slow-drift", 1), 15, 1e-9);
  EXPECT_EQ(shift("jump-20", 0.49), -10);
  EXPECT_EQ(shift("jump-20", 0.51), 10);
  EXPECT_NEAR(shift("fast-movement", 0.05), 10, 1e-6);
  EXPECT_NEAR(shift("fast-movement", 0.15), -10, 1e-6);
}

TEST(FamilyRecording, SpikesStandWhereTheTruthSays) {
  // A jump with the second half seen alone: what was planted 20 µm on is seen there.
  for (const char* name : {"standard", "jump-40"}) {
    family_options options = options_of(name, 30);
    options.n_units = 8;
    const made_channels made = make(options, 11);
    const family_plan plan = plan_family(options, 11, 1);
    for (std::int32_t u = 0; u < 8; ++u) {
      const std::int32_t c = plan.units[u].best_channel - 1;
      const double shift = 0.5 * options.jump_um;
      const compartment_gains gains = gains_at(plan.units[u].cell, plan.sites[c], shift);
      const cell_currents& currents = plan.currents[u];
      std::vector<float> expected(currents.n, 0.0f);
      draw_potential(currents, gains, 1, 0, expected.data());
      double sum = 0, sizes = 0;
      int n = 0;
      for (const planted_spike& s : plan.spikes[u]) {
        if (s.time < plan.n_samples * std::int64_t{sub_sample_steps} / 2) continue;
        sum += made.microvolts[c][(s.time + sub_sample_steps / 2) / sub_sample_steps - 1];
        sizes += double{s.size};
        ++n;
      }
      ASSERT_GT(n, 5);
      // Half a sample off the top is a few per cent; other units' spikes add some noise.
      const double height = double{expected[currents.before]} * sizes / n;
      EXPECT_NEAR(sum / n, height, 0.06 * std::fabs(height) + 5 * 9 / std::sqrt(n)) << name << u;
    }
  }
}

TEST(FamilyRecording, NoiseIsSharedByNeighbours) {
  family_options options = options_of("noise", 20);
  const made_channels made = make(options, 7);
  const family_plan plan = plan_family(options, 7, 1);
  for (std::size_t c = 0; c < 32; ++c) EXPECT_NEAR(made.rms(c) / plan.noise_uv[c], 1, 0.05) << c;
  EXPECT_GT(made.correlation(10, 11), 0.2);
  EXPECT_LT(std::fabs(made.correlation(0, 31)), 0.02);
  // Not white: a sample tells of the next but one.
  double products = 0;
  for (std::size_t i = 2; i < made.microvolts[5].size(); ++i) {
    products += made.microvolts[5][i] * made.microvolts[5][i - 2];
  }
  const double lag = products / static_cast<double>(made.microvolts[5].size());
  EXPECT_GT(lag / made.rms(5) / made.rms(5), 0.15);
}

TEST(FamilyRecording, DisturbancesAreWhereTheyBelong) {
  const auto channels = [](const char* name) {
    family_options options = options_of(name, 8);
    options.n_units = 0;
    return make(options, 2);
  };
  const made_channels still = channels("standard");
  const made_channels half = channels("half-movement");
  EXPECT_EQ(half.microvolts[20], still.microvolts[20]);
  EXPECT_GT(half.rms(3), 2 * still.rms(3));
  const made_channels hum = channels("hum"), common = channels("common-noise");
  EXPECT_GT(hum.correlation(0, 31), 0.5);
  EXPECT_GT(common.correlation(0, 31), 0.45);
  const made_channels bad = channels("bad-channels");
  int n_noisy = 0, n_dead = 0;
  for (std::size_t c = 0; c < 32; ++c) {
    const double ratio = bad.median_noise(c) / still.median_noise(c);
    n_noisy += ratio > 4, n_dead += ratio < 0.2;
  }
  EXPECT_EQ(n_noisy, 2);
  EXPECT_EQ(n_dead, 2);
  family_options clipped = options_of("saturation", 8);
  const made_channels saturated = make(clipped, 2);
  double highest = 0;
  for (const auto& channel : saturated.microvolts) {
    for (const double v : channel) highest = std::max(highest, std::fabs(v));
  }
  EXPECT_EQ(highest, 80);
}

TEST(FamilyRecording, SameBytesAtAnyThreadCount) {
  temporary_directory dir;
  family_options options = options_of("movement", 4);
  options.drift_um = 10;
  std::vector<std::vector<char>> bytes;
  for (const std::int32_t n_threads : {1, 2, 7}) {
    std::string problem;
    const std::string path = dir.file(fmt::format("{}.tsf", n_threads));
    ASSERT_TRUE(make_family_recording(options, 3, n_threads, path, {}, problem)) << problem;
    bytes.push_back(read_bytes(path));
  }
  EXPECT_EQ(bytes[0], bytes[1]);
  EXPECT_EQ(bytes[0], bytes[2]);
}

// The verb as a process: the list, a family, its SNRs in the score, and what is refused.
TEST(FamilyRecording, OfTheCommandLine) {
  temporary_directory dir;
  const auto run = [](const std::vector<std::string>& words) {
    return test::run_process(KESTRELVANE_BATCH, words);
  };
  EXPECT_NE(run({"make-test", "--families"}).out.find("\ntetrode "), std::string::npos);
  const std::string tsf = dir.file("t.tsf"), truth = dir.file("t.truth.csv");
  ASSERT_EQ(run({"make-test", tsf, "--family", "tetrode", "--minutes", "0.05", "--quiet"}).status,
            0);
  const test::process_result scored = run({"score", truth, truth, "--min-snr", "3.5"});
  EXPECT_NE(scored.out.find("0 false units, 0 redundant, 0 over-merged\nSNR 3.5 or more: "),
            std::string::npos)
      << scored.out;
  EXPECT_EQ(run({"score", truth, truth, "--min-snr", "-1"}).status, 2);
  EXPECT_EQ(run({"make-test"}).status, 2);
  EXPECT_EQ(run({"make-test", tsf, "--family", "spoon"}).status, 2);
  EXPECT_EQ(run({"make-test", tsf, "--family", "tetrode", "--minutes", "0"}).status, 1);
}

}  // namespace
}  // namespace kestrelvane
