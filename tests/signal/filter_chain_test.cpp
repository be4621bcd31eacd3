// The chain as a whole: its order, its history, its flags, its replay and its end.
#include "signal/filter_chain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;
using testing::ElementsAre;

struct filter_chain_test : testing::Test {
  small_session s;
  struct post {
    std::int32_t value, range;
  };
  std::vector<post> bar;

  filter_chain_test() {
    s->preferences.multi_threaded = false;
    s->ui.progress = [](void*, meter which, std::int32_t value, std::int32_t range) {
      if (which == meter::filtering) watched->bar.push_back({value, range});
    };
    watched = this;
    record(4, 5000);
  }
  ~filter_chain_test() override { watched = nullptr; }

  // A recording with a slow wave, noise and an offset.
  void record(std::int32_t n_channels, std::int32_t n_samples) {
    make_recording(*s, n_channels, n_samples, 25000, 0.5f);
    recording_store& r = s->recording;
    r.recording_filtered = r.means_zeroed = r.common_mean_removed = r.temporal_smoothed = false;
    s->filter_history.n_entries = 0;
    test::vector_random random(29);
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      for (std::int32_t t = 1; t <= n_samples; ++t) {
        r.vd.channel(c)[t] = static_cast<std::int16_t>(100 * c + 300 * std::sin(t * 0.003 * c) +
                                                       (random.next() >> 16) % 200);
      }
    }
  }
  std::vector<std::int16_t> all_samples() const {
    const recording_store& r = s.state->recording;
    std::vector<std::int16_t> all;
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      all.insert(all.end(), r.vd.channel(c) + 1, r.vd.channel(c) + 1 + r.n_samples);
    }
    return all;
  }
  std::vector<std::int32_t> codes() const {
    const filter_history_table& h = s.state->filter_history;
    return {h.code + 1, h.code + 1 + h.n_entries};
  }
  void tick_all() {
    filter_settings& f = s->filter;
    f.do_channel_means = f.do_common_mean = f.do_spatial_smooth = f.do_temporal_smooth = true;
    f.do_phase_correction = f.do_high_pass = f.do_notch = f.do_compressive = true;
  }
  // Presses Interrupt as soon as a line with this text is logged or shown.
  void interrupt_at(const std::string& text) {
    s.user.on_status = [this, text](const std::string& shown) {
      if (shown.find(text) != std::string::npos) s->operation.filtering_interrupted = true;
    };
  }

  static filter_chain_test* watched;
};
filter_chain_test* filter_chain_test::watched = nullptr;

TEST_F(filter_chain_test, order_history_and_boxes) {
  tick_all();
  s->recording.chan_mask[2] = true;
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_THAT(codes(), ElementsAre(1, 2, 3, 4, 7, 5, 6, 8));
  const filter_history_table& h = s->filter_history;
  EXPECT_EQ(h.param1[5], 0);
  EXPECT_EQ(h.param2[5], 200);
  EXPECT_EQ(h.param1[6], 0.5f);
  EXPECT_EQ(h.param2[6], 4);
  EXPECT_EQ(h.param1[8], 150);
  EXPECT_TRUE(s.user.told("Finished transforming", "Done!"));

  // Smoothing stays ticked, the others have to be ticked afresh.
  const filter_settings& f = s->filter;
  EXPECT_TRUE(f.do_spatial_smooth && f.do_temporal_smooth);
  EXPECT_FALSE(f.do_channel_means || f.do_common_mean || f.do_phase_correction || f.do_high_pass ||
               f.do_notch || f.do_compressive);
  const recording_store& r = s->recording;
  EXPECT_TRUE(r.means_zeroed && r.common_mean_removed && r.temporal_smoothed);
  EXPECT_TRUE(r.recording_filtered);

  // Noise is that of the filtered samples.
  std::vector<float> noise(r.chan_noise.first(), r.chan_noise.first() + 4);
  compute_noise(*s);
  EXPECT_EQ(noise, std::vector<float>(r.chan_noise.first(), r.chan_noise.first() + 4));

  // The bar: six steps of a unit per channel, two of a hundred, two units at the end.
  ASSERT_FALSE(bar.empty());
  for (std::size_t i = 1; i < bar.size(); ++i) EXPECT_GE(bar[i].value, bar[i - 1].value);
  EXPECT_EQ(bar.back().value, bar.back().range);
  EXPECT_EQ(bar.back().range % (6 * 4 + 2 * 100 + 2), 0);
}

TEST_F(filter_chain_test, replay_gives_the_samples_of_the_chain) {
  tick_all();
  s->filter.smooth_radius_um = 35;
  s->filter.bw_f0_khz = 0.8f;
  s->filter.bw_poles = 3;
  s->filter.compressive_75pct_uv = 90;
  s->filter.phase_shift_degs_per_decade = -45;
  ASSERT_TRUE(run_filter_chain(*s));
  s->filter.do_spatial_smooth = s->filter.do_temporal_smooth = false;
  s->filter.do_high_pass = s->filter.make_low_pass = true;
  s->filter.bw_f0_khz = 4;
  ASSERT_TRUE(run_filter_chain(*s));
  const auto filtered = all_samples();
  const filter_history_table history = s->filter_history;
  EXPECT_EQ(codes().back(), -5);

  for (const int threads : {1, 2, 7}) {
    record(4, 5000);
    s->filter_history = history;
    s->filter.bw_poles = 9;
    s->filter.compressive_75pct_uv = 1;
    s->filter.phase_shift_degs_per_decade = 10;
    s->n_threads = threads;
    s->preferences.multi_threaded = threads > 1;
    s.user.lines.clear();
    ASSERT_TRUE(repeat_filtering(*s));
    EXPECT_TRUE(all_samples() == filtered) << threads;
  }
  const recording_store& r = s->recording;
  EXPECT_TRUE(r.means_zeroed && r.common_mean_removed && r.recording_filtered);
  EXPECT_EQ(s->filter_history.n_entries, 9);
  EXPECT_EQ(s->filter.compressive_75pct_uv, 90);
  EXPECT_FALSE(s->filter.do_high_pass || s->filter.make_low_pass);
  EXPECT_TRUE(s.user.told("Finished filtering!"));
  std::vector<std::string> said;
  for (const std::string& line : s.user.lines) {
    if (line.find("- ") < 2) said.push_back(line);
  }
  EXPECT_THAT(said, ElementsAre(" - making channel means zero", " - removing common mean",
                                " - doing spatial smooth", " - doing 1:2:1 temporal smooth",
                                " - applying phase rotation",
                                " - applying high pass filter with 3 poles and f0=0.8",
                                " - applying 60 Hz notch filter",
                                "- applying compressive transform", " - applying low pass filter"));
}

TEST_F(filter_chain_test, high_and_low_pass_together_are_one_walk) {
  const auto tick = [&](float f0_khz, std::int32_t poles, bool low_pass) {
    s->filter.do_high_pass = true;
    s->filter.make_low_pass = low_pass;
    s->filter.bw_f0_khz = f0_khz;
    s->filter.bw_poles = poles;
  };
  tick(0.3f, 3, false);
  ASSERT_TRUE(run_filter_chain(*s));
  tick(6, 2, true);
  ASSERT_TRUE(run_filter_chain(*s));
  const auto twice = all_samples();
  const filter_history_table two_walks = s->filter_history;

  record(4, 5000);
  s->filter.do_notch = true;
  tick(0.3f, 3, false);
  s->filter.do_low_pass_too = true;
  s->filter.low_pass_f0_khz = 6;
  s->filter.low_pass_poles = 2;
  interrupt_at("band-pass");
  EXPECT_FALSE(run_filter_chain(*s));
  s.user.on_status = nullptr;
  set_interrupts(s->operation, false);
  const auto once = all_samples();
  std::size_t n_other = 0;
  for (std::size_t i = 0; i < once.size(); ++i) {
    // At the ends of a channel two walks fade in and out twice.
    if (i % 5000 < 100 || i % 5000 >= 4900) continue;
    ASSERT_LE(std::abs(once[i] - twice[i]), 1) << i;
    n_other += once[i] != twice[i] ? 1 : 0;
  }
  EXPECT_GT(n_other, 0u) << "two walks round twice";
  EXPECT_THAT(codes(), ElementsAre(5, -5));
  EXPECT_TRUE(s.user.logged("Low-pass filtering done with f0=6 and 2 poles"));
  EXPECT_EQ(s->filter.bw_f0_khz, 6);
  EXPECT_FALSE(s->filter.do_high_pass || s->filter.do_low_pass_too);

  // A replay walks as often as the history says.
  const filter_history_table one_walk = s->filter_history;
  const filter_history_table* const histories[] = {&one_walk, &two_walks};
  for (const filter_history_table* history : histories) {
    record(4, 5000);
    s->filter_history = *history;
    s.user.lines.clear();
    ASSERT_TRUE(repeat_filtering(*s));
    EXPECT_TRUE(all_samples() == (history == &one_walk ? once : twice));
    EXPECT_TRUE(s.user.logged(" - applying high pass filter with 3 poles and f0=0.3"));
    EXPECT_TRUE(s.user.logged(" - applying low pass filter"));
    EXPECT_EQ(s->filter.bw_poles, 2);
    EXPECT_EQ(bar.back().value, bar.back().range);
  }

  // A mark without its high pass, or with one that makes no sense, is a low pass by itself.
  record(4, 5000);
  s->filter_history = one_walk;
  s->filter_history.param1[1] = -1;
  EXPECT_FALSE(repeat_filtering(*s));
  const auto low_alone = all_samples();
  record(4, 5000);
  s->filter_history = two_walks;
  s->filter_history.code[1] = 17;
  EXPECT_FALSE(repeat_filtering(*s));
  EXPECT_TRUE(all_samples() == low_alone);
}

TEST_F(filter_chain_test, a_notch_alone_leaves_its_unused_slots_in_the_settings) {
  s->filter_history.n_entries = 1;
  s->filter_history.code[1] = 6;
  s->filter_history.param1[1] = 7.5f;
  s->filter_history.param2[1] = 2;
  EXPECT_TRUE(repeat_filtering(*s));
  EXPECT_EQ(s->filter.bw_f0_khz, 7.5f);
  EXPECT_EQ(s->filter.bw_poles, 2);
}

TEST_F(filter_chain_test, means_are_not_taken_twice) {
  s->filter.do_channel_means = s->filter.do_common_mean = true;
  ASSERT_TRUE(run_filter_chain(*s));
  const auto once = all_samples();
  s->filter.do_channel_means = s->filter.do_common_mean = true;
  ASSERT_TRUE(run_filter_chain(*s));
  EXPECT_TRUE(all_samples() == once);
  EXPECT_THAT(codes(), ElementsAre(1, 2));
  EXPECT_FALSE(s->filter.do_common_mean || s->filter.do_channel_means);
}

TEST_F(filter_chain_test, the_one_over_f_filter_takes_the_place_of_the_butterworth_filter) {
  s->filter.do_high_pass = s->filter.do_one_over_f = true;
  ASSERT_TRUE(run_filter_chain(*s));
  EXPECT_THAT(codes(), ElementsAre(9));
  EXPECT_FALSE(s->filter.do_one_over_f);
}

TEST_F(filter_chain_test, sample_and_hold_is_only_told) {
  s->filter.do_sample_hold = true;
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_FALSE(s.user.told("S&H correction already done"));
  s->recording.sample_hold_done = true;
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_TRUE(s.user.told("S&H correction already done", "NB "));
  EXPECT_FALSE(s->filter.do_sample_hold);
}

TEST_F(filter_chain_test, the_fifty_first_operation_is_done_but_not_listed) {
  s->filter_history.n_entries = 50;
  for (int i = 1; i <= 50; ++i) s->filter_history.code[i] = 4;
  s->filter.do_channel_means = true;
  const auto before = all_samples();
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_EQ(s->filter_history.n_entries, 50);
  EXPECT_EQ(s->filter_history.code[50], 4);
  EXPECT_FALSE(all_samples() == before);
  EXPECT_EQ(check_session(*s), "");
}

TEST_F(filter_chain_test, interrupt_finishes_the_step_and_begins_no_other) {
  tick_all();
  interrupt_at("temporal smooth");
  EXPECT_FALSE(run_filter_chain(*s));
  EXPECT_THAT(codes(), ElementsAre(1, 2, 3, 4));
  EXPECT_TRUE(s.user.logged("Interrupted: finishing temporal smooth"));
  EXPECT_TRUE(s.user.logged("Filtering was stopped: 4 of 8 steps done"));
  EXPECT_FALSE(s.user.told("Finished transforming"));
  EXPECT_TRUE(s->recording.recording_filtered);
  EXPECT_TRUE(s->filter.do_notch) << "what was not begun stays ticked";
  EXPECT_FALSE(s->filter.do_common_mean);
  EXPECT_EQ(bar.back().value < bar.back().range, true);

  // The next run starts afresh and goes on where this one ended.
  s.user.on_status = nullptr;
  set_interrupts(s->operation, false);
  s->filter.do_spatial_smooth = s->filter.do_temporal_smooth = false;
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_THAT(codes(), ElementsAre(1, 2, 3, 4, 7, 5, 6, 8));

  // A replay that is stopped keeps what was done.
  const filter_history_table history = s->filter_history;
  record(4, 5000);
  s->filter_history = history;
  interrupt_at("common mean");
  EXPECT_FALSE(repeat_filtering(*s));
  EXPECT_THAT(codes(), ElementsAre(1, 2));
}

// The button is live before the worker has come to its first line.
TEST_F(filter_chain_test, a_press_right_after_the_start_counts) {
  tick_all();
  const auto before = all_samples();
  s->operation.filtering_interrupted = true;
  EXPECT_FALSE(run_filter_chain(*s));
  EXPECT_TRUE(codes().empty());
  EXPECT_TRUE(all_samples() == before);
}

TEST_F(filter_chain_test, entries_without_sense_are_left_out_in_words) {
  const auto before = all_samples();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float bad[][3] = {{17, 0, 0},     {5, nan, 4}, {5, 0.5, 1e30f}, {5, -1, 4},
                          {-5, 0.5, nan}, {8, 0, 0},   {8, nan, 0},     {7, 0, nan}};
  for (const auto& entry : bad) {
    const std::int32_t i = ++s->filter_history.n_entries;
    s->filter_history.code[i] = static_cast<std::int32_t>(entry[0]);
    s->filter_history.param1[i] = entry[1];
    s->filter_history.param2[i] = entry[2];
  }
  EXPECT_FALSE(repeat_filtering(*s));
  EXPECT_TRUE(all_samples() == before);
  EXPECT_TRUE(s.user.logged("Entry 1 of the filter history cannot be repeated"));
  EXPECT_TRUE(s.user.logged("Entry 8 of the filter history cannot be repeated"));
  EXPECT_FALSE(s->recording.recording_filtered);

  // A chain puts such settings right before it begins.
  s->filter.do_compressive = true;
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_EQ(s->filter.compressive_75pct_uv, 150);
}

TEST_F(filter_chain_test, a_corner_at_half_the_sampling_frequency_is_refused) {
  const auto before = all_samples();
  for (const bool low_pass : {false, true}) {
    for (const float f0_khz : {12.5f, 50.0f}) {
      tick_all();
      s->filter.make_low_pass = low_pass;
      s->filter.bw_f0_khz = f0_khz;
      EXPECT_FALSE(run_filter_chain(*s));
      EXPECT_TRUE(all_samples() == before);
      EXPECT_TRUE(codes().empty());
      EXPECT_TRUE(s->filter.do_channel_means && s->filter.do_high_pass);  // as they were ticked
      EXPECT_FALSE(s->recording.recording_filtered);
    }
  }
  EXPECT_TRUE(
      s.user.told("A corner of 50 kHz is not possible: with 25000 Hz it must be below "
                  "12.5 kHz, half the sampling frequency"));
  // That of a low pass beside a high pass is looked at as well.
  s->filter.make_low_pass = false;
  s->filter.do_high_pass = s->filter.do_low_pass_too = true;
  s->filter.bw_f0_khz = 0.5f;
  s->filter.low_pass_f0_khz = 12.5f;
  EXPECT_FALSE(run_filter_chain(*s));
  EXPECT_TRUE(codes().empty());
  s->filter.do_low_pass_too = false;
  // The corner of a filter that is not asked for is nobody's concern.
  s->filter.do_high_pass = false;
  EXPECT_TRUE(run_filter_chain(*s));
  s->filter.do_high_pass = true;
  s->filter.bw_f0_khz = 12.4f;
  EXPECT_TRUE(run_filter_chain(*s));
}

TEST_F(filter_chain_test, an_empty_recording_runs_through) {
  reset_session(*s);
  tick_all();
  EXPECT_TRUE(run_filter_chain(*s));
  EXPECT_TRUE(repeat_filtering(*s));
}

}  // namespace
}  // namespace kestrelvane
