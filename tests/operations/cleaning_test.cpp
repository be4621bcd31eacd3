// What Autosort cleans before it looks for events: by settings, by preset, with questions.
#include "operations/cleaning.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "operations/autosort.h"
#include "session/presets.h"
#include "signal/noise.h"
#include "sorting/unit_table.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr std::int32_t n_channels = 20, n_samples = 200'000;

struct cleaning_test : testing::Test {
  small_session session;

  // Spikes on twenty channels, one of them five times as noisy, and two jolts.
  void SetUp() override {
    make_busy_recording(*session, n_channels, n_samples, 17);
    recording_store& r = session->recording;
    r.high_pass_offered = true;
    for (std::int32_t t = 1; t <= n_samples; ++t) {
      std::int16_t& v = r.vd.channel(7)[t];
      v = static_cast<std::int16_t>(6 * v);
    }
    for (const std::int32_t first : {50'000, 120'000}) {
      for (std::int32_t c = 1; c <= n_channels; ++c) {
        for (std::int32_t t = first; t < first + 500; ++t) {
          r.vd.channel(c)[t] = static_cast<std::int16_t>(t % 2 == 0 ? 3000 : -3000);
        }
      }
    }
    compute_noise(*session);
  }
  // The same signal on all channels, as strong as their own.
  void add_common_noise() {
    recording_store& r = session->recording;
    vector_random random(3);
    const auto size = static_cast<int>(4 * r.chan_noise[1]);
    for (std::int32_t t = 1; t <= n_samples; ++t) {
      const int common =
          static_cast<int>((random.next() >> 8) % static_cast<unsigned>(size)) - size / 2;
      for (std::int32_t c = 1; c <= n_channels; ++c) {
        r.vd.channel(c)[t] = static_cast<std::int16_t>(r.vd.channel(c)[t] + common);
      }
    }
    compute_noise(*session);
  }
};

TEST_F(cleaning_test, nothing_is_done_that_is_not_set) {
  const std::int16_t before = session->recording.vd.channel(3)[50'100];
  EXPECT_TRUE(clean_recording(*session));
  session->autosort.preset = find_preset("Standard");
  EXPECT_TRUE(clean_recording(*session));
  EXPECT_EQ(session->recording.vd.channel(3)[50'100], before);
  EXPECT_FALSE(session->recording.chan_mask[7]);
  EXPECT_EQ(session->filter_history.n_entries, 0);
  EXPECT_TRUE(session.user.stages.empty());
  EXPECT_TRUE(session.user.questions.empty());
}

TEST_F(cleaning_test, masks_are_those_of_the_last_sort) {
  session->cleaning.mask_bad_channels = true;
  session->recording.chan_mask[2] = true;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_TRUE(session->recording.chan_mask[7]);
  EXPECT_TRUE(session.user.logged("Channels masked for this sort by their noise: 7 ("));
  session->recording.chan_noise[7] = session->recording.chan_noise[1];
  session->recording.chan_noise[9] = 0;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_FALSE(session->recording.chan_mask[7]);
  EXPECT_TRUE(session->recording.chan_mask[9]);
  session->cleaning.mask_bad_channels = false;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_FALSE(session->recording.chan_mask[9]);
  EXPECT_TRUE(session->recording.chan_mask[2]) << "of the user";
}

TEST_F(cleaning_test, a_sort_blanks_and_counts_no_time_where_it_has) {
  session->cleaning.blank_artefacts = session->cleaning.mask_bad_channels = true;
  session->filter.do_notch = true;
  ASSERT_TRUE(autosort(*session));
  EXPECT_EQ(check_session(*session), "");
  EXPECT_TRUE(session->filter.do_notch) << "the ticks of the filter dialog are its own";
  const recording_store& r = session->recording;
  EXPECT_EQ(r.vd.channel(3)[50'100], 0);
  ASSERT_EQ(r.blanked.size(), 2u);
  EXPECT_TRUE(session.user.logged(" in 2 stretches"));
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    for (const blanked_stretch& s : r.blanked) {
      EXPECT_FALSE(session->events.event_time[e] >= s.first &&
                   session->events.event_time[e] <= s.last);
    }
  }
  double blanked = 0;
  for (const blanked_stretch& s : r.blanked) blanked += s.last - s.first + 1;
  const double seconds = (n_samples - blanked) / r.sampling_frequency;
  for (const unit_row& unit : make_unit_table(*session)) {
    EXPECT_NEAR(unit.rate, unit.n_events / seconds, 0.01 * unit.rate);
  }
}

TEST_F(cleaning_test, common_noise_is_taken_out_or_asked_about) {
  ASSERT_TRUE(clean_recording(*session));
  add_common_noise();
  // Sensitive leaves it, and asks.
  session->autosort.preset = find_preset("Sensitive");
  ASSERT_TRUE(clean_recording(*session));
  ASSERT_EQ(session.user.questions.size(), 1u);
  EXPECT_THAT(session.user.questions[0].text, testing::HasSubstr("mean of all channels"));
  EXPECT_FALSE(session->recording.common_mean_removed);
  session->cleaning.remove_common_noise = true;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_EQ(session.user.questions.size(), 1u);
  EXPECT_TRUE(session->recording.common_mean_removed);
  // Once is enough.
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_EQ(session->filter_history.n_entries, 1);
}

TEST_F(cleaning_test, single_channels_are_blanked_on_request) {
  session->cleaning.blank_artefacts = true;
  session->autosort.preset = find_preset("Thorough");
  recording_store& r = session->recording;
  for (std::int32_t t = 150'000; t < 152'000; ++t) {
    r.vd.channel(5)[t] = static_cast<std::int16_t>(t % 2 == 0 ? 2000 : -2000);
  }
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_NE(r.vd.channel(5)[151'000], 0);
  ASSERT_EQ(session.user.questions.size(), 1u);
  session.user.default_answer = true;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_EQ(r.vd.channel(5)[151'000], 0);
  EXPECT_TRUE(session.user.logged("Blanked artefacts on 1 single channels"));
  // A tetrode has no crowd of channels: there the step is all there is, and is not asked about.
  SetUp();
  session->filter_history.n_entries = 0;
  const std::size_t n_questions = session.user.questions.size();
  for (std::int32_t c = 5; c <= n_channels; ++c) r.chan_mask[c] = true;
  ASSERT_TRUE(clean_recording(*session));
  EXPECT_EQ(session.user.questions.size(), n_questions);
  EXPECT_EQ(r.vd.channel(3)[50'100], 0);
  EXPECT_EQ(session->filter_history.n_entries, 1);
  EXPECT_EQ(session->filter_history.code[1], 11);
}

}  // namespace
}  // namespace kestrelvane::test
