// --filter of the batch command: its words, its order, and what it does to a recording.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "files/input_file.h"
#include "operations/open_recording.h"
#include "operations/planned_filters.h"
#include "recording/formats/tsf.h"
#include "session/settings_files.h"
#include "support/child_process.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::vector<std::int32_t> codes(const session_state& session) {
  const filter_history_table& h = session.filter_history;
  return {h.code + 1, h.code + 1 + h.n_entries};
}

TEST(filter_option, is_refused_in_words_when_it_is_none) {
  for (const std::vector<std::string>& bad :
       std::vector<std::vector<std::string>>{{""},
                                             {"mean"},
                                             {"notch:60"},
                                             {"spatial"},
                                             {"spatial:"},
                                             {"spatial:wide"},
                                             {"spatial:0"},
                                             {"spatial:nan"},
                                             {"highpass:0.5"},
                                             {"highpass:0.5:4:1"},
                                             {"highpass:0.5:2.5"},
                                             {"highpass:0.5:11"},
                                             {"highpass:0.01:4"},
                                             {"lowpass:1e99:4"},
                                             {"phase:2:201"},
                                             {"compressive:-5"},
                                             {"auto:0.5"},
                                             {"highpass:0.3:4", "auto"},
                                             {"auto", "notch", "lowpass:5:2"},
                                             {"notch", "means", "notch"},
                                             {"lowpass:3:4", "lowpass:3:4"}}) {
    std::vector<planned_filter> filters;
    std::string problem;
    EXPECT_FALSE(parse_filters(bad, filters, problem)) << bad.back();
    EXPECT_THAT(problem, HasSubstr("--filter " + bad.back() + ": "));
  }
}

TEST(filter_option, chains_keep_their_order_whatever_the_command_line_says) {
  small_session s;
  make_recording(*s, 2, 3000);
  // Left over from an old work file: not asked for, not done.
  s->filter.do_common_mean = true;
  std::vector<planned_filter> filters;
  std::string problem;
  ASSERT_TRUE(parse_filters({"compressive:90", "notch", "phase:1.5:-20", "highpass:0.8:3",
                             "temporal", "spatial:60", "means"},
                            filters, problem))
      << problem;
  ASSERT_TRUE(run_planned_filters(*s, filters));
  EXPECT_THAT(codes(*s), ElementsAre(1, 3, 4, 7, 5, 6, 8));
  EXPECT_EQ(s->filter_history.param1[5], 0.8f);
  EXPECT_EQ(s->filter_history.param2[5], 3);
  EXPECT_EQ(s->filter_history.param1[7], 90);
  EXPECT_EQ(s->filter.phase_f0_khz, 1.5f);
  EXPECT_TRUE(s.user.logged("Spatial smooth done with radius 60"));
  EXPECT_FALSE(s->filter.do_temporal_smooth);

  // A low pass goes with the high pass, whichever is named first.
  s->filter_history.n_entries = 0;
  filters.clear();
  ASSERT_TRUE(
      parse_filters({"notch", "lowpass:5:2", "highpass:0.3:4", "temporal"}, filters, problem));
  ASSERT_TRUE(run_planned_filters(*s, filters));
  EXPECT_THAT(codes(*s), ElementsAre(4, 5, -5, 6));
  EXPECT_EQ(s->filter_history.param1[2], 0.3f);
  EXPECT_EQ(s->filter_history.param1[3], 5);
  EXPECT_TRUE(is_of_same_walk(s->filter_history, 3));
  EXPECT_TRUE(s.user.logged("High-pass filtering done with f0=0.3 and 4 poles"));
  EXPECT_TRUE(s.user.logged("Low-pass filtering done with f0=5 and 2 poles"));
}

struct filter_command_test : testing::Test {
  temporary_directory directory;
  std::string tsf = directory.file("raw.tsf");

  process_result run(std::vector<std::string> arguments) const {
    return run_process(KESTRELVANE_BATCH, arguments);
  }
  void SetUp() override {
    ASSERT_EQ(run({"make-test", tsf, "--channels", "4", "--electrode", "tetrode", "--minutes",
                   "0.1", "--units", "2", "--amplitude-min", "150", "--seed", "5", "--quiet"})
                  .status,
              0);
  }
};

TEST_F(filter_command_test, convert_writes_the_filtered_recording) {
  const std::string out = directory.file("out.tsf");
  const process_result result =
      run({"convert", tsf, out, "--filter", "highpass:0.5:4", "--filter", "common-mean"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("High-pass filtering done with f0=0.5 and 4 poles"));
  EXPECT_THAT(result.err, HasSubstr("Done!: Finished transforming"));

  small_session raw, converted;
  ASSERT_TRUE(open_recording(*raw, tsf));
  ASSERT_TRUE(open_recording(*converted, out));
  std::vector<planned_filter> filters;
  std::string problem;
  ASSERT_TRUE(parse_filters({"common-mean", "highpass:0.5:4"}, filters, problem));
  ASSERT_TRUE(run_planned_filters(*raw, filters));
  for (std::int32_t c = 1; c <= 4; ++c) {
    const std::int16_t* a = raw->recording.vd.channel(c) + 1;
    const std::int16_t* b = converted->recording.vd.channel(c) + 1;
    EXPECT_TRUE(std::equal(a, a + raw->recording.n_samples, b)) << c;
  }
}

// What a preset sets is what its words set one by one; the command line comes on top of it.
TEST_F(filter_command_test, a_preset_is_its_filters_and_settings) {
  const std::string a = directory.file("a.csv"), b = directory.file("b.csv");
  const std::string report = directory.file("r.json"), work = directory.file("w.wrk");
  ASSERT_EQ(run({"sort", tsf, "--preset", "sensitive", "--export", "csv=" + a, "--report", report,
                 "--save-work", work, "--home", directory.path})
                .status,
            0);
  ASSERT_EQ(run({"sort", tsf, "--filter", "highpass:0.3:2", "--filter", "lowpass:6:2", "--set",
                 "detection_method=2", "--set", "variable_multiplier=5", "--set",
                 "use_lockout=true", "--set", "lockout_ms=0.3", "--export", "csv=" + b})
                .status,
            0);
  EXPECT_GT(test::read_bytes(a).size(), 100u);
  EXPECT_EQ(test::read_bytes(a), test::read_bytes(b));
  const auto told = nlohmann::json::parse(test::read_bytes(report));
  EXPECT_EQ(told["preset"]["name"], "Sensitive");
  EXPECT_EQ(told["filters"].size(), 2u);
  EXPECT_EQ(told["settings"]["detection_method"], 2);

  // Nothing of it is stored, and the samples of its work file go through no filter twice.
  small_session kept;
  kept->home_directory = directory.path;
  read_settings_files(*kept);
  EXPECT_EQ(kept->detection.detection_method, method_dynamic_multiphasic);
  EXPECT_EQ(kept->filter.bw_f0_khz, 0.5f);
  const process_result again = run({"sort", tsf, "--work", work, "--preset", "Sensitive", "--set",
                                    "variable_multiplier=6", "--report", report});
  ASSERT_EQ(again.status, 0) << again.err;
  const auto second = nlohmann::json::parse(test::read_bytes(report));
  EXPECT_EQ(second["filters"].size(), 2u);
  EXPECT_EQ(second["settings"]["variable_multiplier"], 6);
  EXPECT_EQ(second["settings"]["use_lockout"], true);

  ASSERT_EQ(run({"sort", tsf, "--preset", "Sensitive", "--filter", "highpass:0.5:4", "--report",
                 report, "--quiet"})
                .status,
            0);
  const auto filters = nlohmann::json::parse(test::read_bytes(report))["filters"];
  ASSERT_EQ(filters.size(), 2u);
  EXPECT_EQ(filters[0]["param1"], 0.5);
  EXPECT_EQ(run({"sort", tsf, "--preset", "Senseless"}).status, 2);
  EXPECT_EQ(run({"sort", tsf, "--preset", "Sensitive", "--filter", "auto"}).status, 2);
}

TEST_F(filter_command_test, an_unfiltered_recording_is_told_of_and_filtered_on_request) {
  small_session broad;
  ASSERT_TRUE(open_recording(*broad, tsf));
  recording_store& r = broad->recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      std::int16_t& v = r.vd.channel(c)[t];
      v = static_cast<std::int16_t>(v + 4000 * std::sin(0.003 * t + c));
    }
  }
  const std::string slow = directory.file("slow.tsf"), report = directory.file("r.json");
  ASSERT_TRUE(write_tsf(*broad, slow));
  const std::string words = "looks unfiltered: --filter auto high passes it first";
  const auto n_filters = [&] {
    const std::vector<char> bytes = read_bytes(report);
    return nlohmann::json::parse(bytes.begin(), bytes.end())["filters"].size();
  };
  // No spike stands five times above such noise. Told also where questions are answered with
  // yes: it is none.
  process_result result = run({"detect", slow, "--quiet", "--answer", "yes"});
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(result.err, HasSubstr("slow.tsf " + words));
  EXPECT_THAT(result.err, HasSubstr("No events detected: use lower threshold"));

  result = run({"detect", slow, "--filter", "auto", "--filter", "means", "--report", report});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, testing::Not(HasSubstr(words)));
  EXPECT_THAT(result.err, HasSubstr("High-pass filtering done with f0=0.5 and 4 poles"));
  EXPECT_EQ(n_filters(), 2u);

  // Nothing to do for one that has been.
  result = run({"detect", tsf, "--filter", "auto", "--report", report});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, testing::Not(HasSubstr("High-pass")));
  EXPECT_EQ(n_filters(), 0u);
}

TEST_F(filter_command_test, a_saved_sort_repeats_its_filters_or_forgets_them) {
  const std::string work = directory.file("a.wrk"), report = directory.file("r.json");
  const auto told = [&] {
    const std::vector<char> bytes = read_bytes(report);
    return nlohmann::json::parse(bytes.begin(), bytes.end());
  };
  ASSERT_EQ(run({"detect", tsf, "--filter", "highpass:0.6:4", "--save-work", work, "--report",
                 report, "--quiet"})
                .status,
            0);
  ASSERT_EQ(told()["filters"].size(), 1u);
  EXPECT_EQ(told()["filters"][0]["code"], 5);
  EXPECT_EQ(told()["filters"][0]["param1"], 0.6);

  const std::vector<std::string> again{"detect",   tsf,    "--work",   work,
                                       "--report", report, "--filter", "temporal"};
  process_result result = run(again);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr("Repeat previous filtering? No"));
  EXPECT_EQ(told()["filters"].size(), 1u);
  EXPECT_EQ(told()["filters"][0]["code"], 4);

  std::vector<std::string> with_yes = again;
  with_yes.insert(with_yes.end(), {"--answer", "yes"});
  result = run(with_yes);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.err, HasSubstr(" - applying high pass filter with 4 poles and f0=0.6"));
  EXPECT_THAT(result.err, HasSubstr("Finished filtering!"));
  EXPECT_EQ(told()["filters"].size(), 2u);
  EXPECT_EQ(told()["filters"][1]["code"], 4);
}

TEST_F(filter_command_test, a_corner_that_is_too_high_stops_both_chains_before_they_begin) {
  small_session raw;
  ASSERT_TRUE(open_recording(*raw, tsf));
  const std::int16_t* v = raw->recording.vd.channel(1) + 1;
  const std::vector<std::int16_t> before(v, v + raw->recording.n_samples);
  std::vector<planned_filter> filters;
  std::string problem;
  ASSERT_TRUE(parse_filters({"means", "highpass:0.5:4", "lowpass:50:4"}, filters, problem));
  EXPECT_FALSE(run_planned_filters(*raw, filters));
  EXPECT_TRUE(std::equal(before.begin(), before.end(), v));

  const std::string out = directory.file("none.tsf");
  const process_result result = run({"convert", tsf, out, "--filter", "highpass:50:4"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("A corner of 50 kHz is not possible"));
  EXPECT_FALSE(file_exists(out));
}

TEST_F(filter_command_test, bad_words_are_refused_before_anything_is_opened) {
  for (const std::string verb : {"info", "sort", "detect", "export", "convert"}) {
    std::vector<std::string> arguments{verb, directory.file("absent.tsf"), "--filter",
                                       "highpass:fast:4"};
    if (verb == "convert") arguments.push_back(directory.file("out.tsf"));
    if (verb == "export") arguments.insert(arguments.end(), {"--work", "w", "--export", "csv=c"});
    const process_result result = run(arguments);
    EXPECT_EQ(result.status, 2) << verb;
    EXPECT_THAT(result.err, HasSubstr("\"fast\" is not a number from 0.1 to 3200")) << verb;
  }
}

}  // namespace
}  // namespace kestrelvane::test
