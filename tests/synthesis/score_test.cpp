#include "synthesis/score.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <numeric>

#include "support/child_process.h"
#include "support/small_session.h"
#include "synthesis/test_recording.h"

namespace kestrelvane {
namespace {

void write_text_file(const std::string& path, const std::string& text) {
  test::write_bytes(path, {text.begin(), text.end()});
}

TEST(CountMatches, EachSpikeOnce) {
  const double w = match_window_s;
  EXPECT_EQ(count_matches({}, {1}, w), 0);
  EXPECT_EQ(count_matches({1, 2, 3}, {1.0004, 2.0005, 2.9996}, w), 2);
  EXPECT_EQ(count_matches({1, 1.0002}, {1.0001}, w), 1);
  // Nearest first would leave the last pair of these without a partner.
  EXPECT_EQ(count_matches({1, 1.0003}, {1.0002, 1.0006}, w), 2);
}

TEST(BestAssignment, LargestSumNotLargestFirst) {
  using columns = std::vector<std::int32_t>;
  // 0.9 + 0.1 is less than 0.8 + 0.7.
  EXPECT_EQ(best_assignment({0.9, 0.8, 0.7, 0.1}, 2, 2), (columns{1, 0}));
  EXPECT_EQ(best_assignment({0.9, 0.8, 0.7, 0.1, 0.5, 0.6}, 3, 2), (columns{1, 0, -1}));
  EXPECT_EQ(best_assignment({0.9, 0, 0.7, 0.8, 0, 0.1}, 2, 3), (columns{2, 0}));
  EXPECT_EQ(best_assignment({0, 0, 0, 0.5}, 2, 2), (columns{-1, 1}));
  EXPECT_EQ(best_assignment({}, 2, 0), (columns{-1, -1}));
}

TEST(BestAssignment, AsGoodAsEveryPermutation) {
  test::vector_random random(3);
  for (int round = 0; round < 60; ++round) {
    const int n = 2 + round % 5;
    std::vector<double> gains(n * n);
    for (double& g : gains) g = static_cast<double>((random.next() >> 16) % 20) / 20;
    std::vector<int> order(n);
    std::iota(order.begin(), order.end(), 0);
    double best = 0;
    do {
      double sum = 0;
      for (int i = 0; i < n; ++i) sum += gains[i * n + order[i]];
      best = std::max(best, sum);
    } while (std::next_permutation(order.begin(), order.end()));
    double sum = 0;
    std::vector<bool> used(n, false);
    const std::vector<std::int32_t> found = best_assignment(gains, n, n);
    for (int i = 0; i < n; ++i) {
      if (found[i] < 0) continue;
      EXPECT_FALSE(used[found[i]]);
      used[found[i]] = true;
      sum += gains[i * n + found[i]];
    }
    EXPECT_NEAR(sum, best, 1e-12);
  }
}

// Unit 1 found whole but for one spike, with two of others'; unit 2 split in two;
// unit 3 missed; one sorted unit of noise.
TEST(Score, HandMadeSort) {
  test::temporary_directory dir;
  std::string truth = "time_s,unit,channel\n", sorted;
  const auto line = [](double t, int unit, int channel) {
    char text[64];
    std::snprintf(text, sizeof text, "%12.5f,%4d,%4d\n", t, unit, channel);
    return std::string(text);
  };
  for (int i = 0; i < 10; ++i) truth += line(1 + i, 1, 5), truth += line(1.5 + i, 2, 7);
  for (int i = 0; i < 4; ++i) truth += line(20 + i, 3, 2);
  for (int i = 0; i < 9; ++i) sorted += line(1.00039 + i, 4, 5);
  sorted += line(30, 4, 5) + line(31, 4, 5);
  for (int i = 0; i < 6; ++i) sorted += line(1.5 + i, 2, 7);
  for (int i = 6; i < 10; ++i) sorted += line(1.5 + i, 3, 7);
  sorted += line(40, 1, 1);
  write_text_file(dir.file("a.truth.csv"), truth);
  write_text_file(dir.file("a.units.csv"),
                  "unit,x_um,y_um,amplitude_uv,rate_hz\n1,0,0,80.5,2\n3,0,0,44,0.5\n");
  write_text_file(dir.file("sorted.csv"), sorted);
  sort_score score;
  std::string problem;
  ASSERT_TRUE(score_files(dir.file("sorted.csv"), dir.file("a.truth.csv"), score, problem));
  ASSERT_EQ(score.units.size(), 3u);
  const unit_score& first = score.units[0];
  EXPECT_EQ(first.sorted_unit, 4);
  EXPECT_EQ(first.n_matches, 9);
  EXPECT_DOUBLE_EQ(first.accuracy, 9.0 / 12);
  EXPECT_DOUBLE_EQ(first.precision, 9.0 / 11);
  EXPECT_DOUBLE_EQ(first.recall, 0.9);
  EXPECT_EQ(first.amplitude_uv, 80.5);
  EXPECT_EQ(score.units[1].sorted_unit, 2);
  EXPECT_EQ(score.units[1].channel, 7);
  EXPECT_DOUBLE_EQ(score.units[1].accuracy, 0.6);
  EXPECT_EQ(score.units[2].sorted_unit, -1);
  EXPECT_EQ(score.n_above_half, 2);
  EXPECT_EQ(score.n_above_four_fifths, 0);
  EXPECT_EQ(score.n_sorted_units, 4);
  EXPECT_EQ(score.n_extra_units, 2);

  const nlohmann::json json = score_json(score);
  EXPECT_EQ(json["units"][0]["sorted_unit"], 4);
  EXPECT_TRUE(json["units"][2]["sorted_unit"].is_null());
  EXPECT_EQ(json["above_0.5"], 2);
  const std::string table = score_table(score);
  EXPECT_NE(table.find("    3       2       -"), std::string::npos) << table;
  EXPECT_NE(table.find("3 planted units: 0 with accuracy 0.8 or better, 2 with 0.5"),
            std::string::npos);
}

// Units at 10, 9.99, 7, 6.9 and an unknown number of times the noise; the second and
// fourth are missed.
TEST(Score, BandsOfAmplitudeOverNoise) {
  sort_score score;
  for (const double amplitude : {50.0, 49.95, 35.0, 34.5, 0.0}) {
    unit_score u;
    u.unit = static_cast<std::int32_t>(score.units.size());
    u.amplitude_uv = amplitude;
    u.accuracy = u.unit % 2 == 0 ? 0.8 : 0.79;
    score.units.push_back(u);
  }
  EXPECT_TRUE(count_in_bands(score).empty());
  score.noise_uv = 5;
  EXPECT_TRUE(count_in_bands(score).empty()) << "no amplitudes";
  EXPECT_EQ(score_table(score).find("noise"), std::string::npos);
  EXPECT_FALSE(score_json(score).contains("bands"));

  score.has_amplitudes = true;
  const std::vector<score_band> bands = count_in_bands(score);
  ASSERT_EQ(bands.size(), 3u);
  const std::pair<int, int> expected[] = {{1, 1}, {2, 1}, {1, 0}};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(bands[i].n_units, expected[i].first) << i;
    EXPECT_EQ(bands[i].n_above_four_fifths, expected[i].second) << i;
  }
  const std::string table = score_table(score);
  EXPECT_NE(table.find("10 or more times above the noise: 1 of 1 units with accuracy 0.8 or "
                       "better\n7 to 10 times: 1 of 2\nbelow 7 times: 0 of 1\n"),
            std::string::npos)
      << table;
  EXPECT_NE(table.find("    9.99     0.790"), std::string::npos) << table;
  score.units[3].amplitude_uv = 0;
  EXPECT_EQ(score_table(score).find("below 7"), std::string::npos);
  score.units[3].amplitude_uv = 34.5;
  const nlohmann::json json = score_json(score);
  EXPECT_EQ(json["noise_uv"], 5);
  EXPECT_EQ(json["units"][2]["amplitude_over_noise"], 7);
  EXPECT_EQ(json["bands"][1]["units"], 2);
  EXPECT_TRUE(json["bands"][0]["to"].is_null());
}

// Four planted units of 20 spikes. Sorted: 0 has most of unit 0, 1 the rest of it; 2 is units
// 1 and 2 together; 3 and 4 are nobody's, the second too small to be held against the sort.
TEST(Score, UnitsThatAreNobodysPartner) {
  spike_list truth, sorted;
  const auto put = [](spike_list& list, std::int32_t unit, double from, int n) {
    for (int i = 0; i < n; ++i) list.spikes.push_back({from + 0.01 * i, unit, 1});
  };
  for (std::int32_t u = 0; u < 4; ++u) put(truth, u, u, 20);
  put(sorted, 0, 0, 15);
  put(sorted, 1, 0.15, 5);
  put(sorted, 2, 1, 20), put(sorted, 2, 2, 12);
  put(sorted, 3, 5, 10);
  put(sorted, 4, 6, 9);
  sort_score score = score_sort(sorted, truth);
  EXPECT_EQ(score.n_false_units, 1);
  EXPECT_EQ(score.n_redundant_units, 1) << "5 of 20 spikes agree to a quarter";
  EXPECT_EQ(score.n_overmerged_units, 1) << "20 of 32, and 12 of 40";
  EXPECT_EQ(score.n_extra_units, 3);
  EXPECT_EQ(score_json(score)["overmerged_units"], 1);
  for (unit_score& u : score.units) u.snr = 4 + u.unit;
  score.units[1].accuracy = 0.8;
  score.min_snr = 5;
  EXPECT_EQ(count_above_snr(score).n_units, 3);
  EXPECT_EQ(count_above_snr(score).n_above_four_fifths, 1);
}

TEST(Score, NoiseIsTheMedianOfChannelsInUse) {
  test::small_session session;
  test::make_recording(*session, 5, 1000, 25000, 0.5f);
  for (std::int32_t c = 1; c <= 5; ++c)
    session->recording.chan_noise[c] = static_cast<float>(c * c);
  EXPECT_DOUBLE_EQ(median_noise_uv(*session), 4.5);
  session->recording.chan_mask[1] = true;
  EXPECT_DOUBLE_EQ(median_noise_uv(*session), 6.25);
  for (std::int32_t c = 1; c <= 5; ++c) session->recording.chan_mask[c] = true;
  EXPECT_EQ(median_noise_uv(*session), 0);
}

// The verb as a process: noise given, noise measured, and what it cannot do.
TEST(Score, NoiseOfTheCommandLine) {
  test::temporary_directory dir;
  const std::string tsf = dir.file("m.tsf"), truth = dir.file("m.truth.csv");
  test_recording_options options;
  options.electrode = test_electrode::tetrode;
  options.n_channels = 4;
  options.minutes = 0.1;
  options.n_units = 2;
  options.amplitude_min_uv = 100;
  std::string problem;
  ASSERT_TRUE(make_test_recording(options, tsf, {}, problem)) << problem;
  const auto run = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {"score", truth, truth});
    return test::run_process(KESTRELVANE_BATCH, words);
  };
  const test::process_result measured = run({"--recording", tsf, "--json"});
  ASSERT_EQ(measured.status, 0) << measured.err;
  EXPECT_EQ(measured.err, "");
  const nlohmann::json json = nlohmann::json::parse(measured.out);
  EXPECT_NEAR(json["noise_uv"], options.noise_uv, 1.0);
  EXPECT_EQ(json["bands"][0]["above_0.8"], 2);
  const test::process_result given = run({"--noise", "2000"});
  EXPECT_NE(given.out.find("below 7 times: 2 of 2"), std::string::npos) << given.out;
  EXPECT_EQ(run({"--noise", "0"}).status, 2);
  EXPECT_EQ(run({"--noise", "-5"}).status, 2);
  EXPECT_EQ(run({"--noise", "5", "--recording", tsf}).status, 2);
  EXPECT_EQ(run({"--recording", dir.file("none.tsf")}).status, 1);
  std::filesystem::remove(dir.file("m.units.csv"));
  EXPECT_EQ(run({}).status, 0);
  const test::process_result unknown = run({"--noise", "5"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.err.find("No amplitudes are known"), std::string::npos);
}

TEST(Score, PerfectEmptyAndBadFiles) {
  test::temporary_directory dir;
  write_text_file(dir.file("t.csv"), "0.5,0,1\r\n1.5,0,1\r\n\r\n2.5,7,1");
  write_text_file(dir.file("empty.csv"), "");
  sort_score score;
  std::string problem;
  ASSERT_TRUE(score_files(dir.file("t.csv"), dir.file("t.csv"), score, problem));
  EXPECT_EQ(score.n_above_four_fifths, 2);
  EXPECT_EQ(score.units[0].sorted_unit, 0);
  EXPECT_EQ(score.units[1].accuracy, 1);
  ASSERT_TRUE(score_files(dir.file("empty.csv"), dir.file("t.csv"), score, problem));
  EXPECT_EQ(score.units[0].accuracy, 0);
  ASSERT_TRUE(score_files(dir.file("t.csv"), dir.file("empty.csv"), score, problem));
  EXPECT_EQ(score.n_extra_units, 2);
  EXPECT_FALSE(score_files(dir.file("t.csv"), dir.file("none.csv"), score, problem));
  EXPECT_NE(problem.find("cannot read "), std::string::npos);
  for (const char* bad :
       {"1.0,2,3\n1.5;2;3\n", "1,2\nnan,1\n", "1,2\n1,-4\n", "a,b\nc,d\n", "1\n"}) {
    write_text_file(dir.file("bad.csv"), bad);
    EXPECT_FALSE(score_files(dir.file("bad.csv"), dir.file("t.csv"), score, problem)) << bad;
    EXPECT_NE(problem.find(", line "), std::string::npos);
  }
}

}  // namespace
}  // namespace kestrelvane
