#include "signal/blanking.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "recording/site_tables.h"
#include "session/settings_table.h"
#include "signal/channel_faults.h"
#include "signal/filter_chain.h"
#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;

constexpr std::int32_t frequency = 20000;

// Noise of about 20 bits on every channel.
void add_noise(session_state& session, std::uint32_t seed) {
  recording_store& r = session.recording;
  test::vector_random random(seed);
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      int sum = 0;
      for (int k = 0; k < 4; ++k) sum += static_cast<int>((random.next() >> 16) % 35) - 17;
      r.vd.channel(c)[t] = static_cast<std::int16_t>(sum);
    }
  }
}

void add_burst(session_state& session, std::int32_t first_channel, std::int32_t last_channel,
               std::int32_t from, std::int32_t to, int size) {
  for (std::int32_t c = first_channel; c <= last_channel; ++c) {
    for (std::int32_t t = from; t <= to; ++t) {
      session.recording.vd.channel(c)[t] = static_cast<std::int16_t>((t + c) % 3 == 0 ? size : 5);
    }
  }
}

std::vector<std::pair<int, int>> spans_of(const std::vector<blanked_stretch>& list,
                                          std::int32_t channel) {
  std::vector<std::pair<int, int>> spans;
  for (const blanked_stretch& s : list) {
    if (s.channel == channel) spans.emplace_back(s.first, s.last);
  }
  return spans;
}

// Sample by sample, as the rule is worded.
std::vector<bool> plainly_blanked(const session_state& session) {
  const recording_store& r = session.recording;
  const std::int32_t reach = frequency / 10000, margin = 3 * frequency / 1000;
  std::vector<bool> blanked(r.n_samples + 1, false);
  const auto height = [&](std::int32_t c, std::int32_t t) {
    int largest = 0;
    for (int s = std::max(1, t - reach); s <= std::min(r.n_samples, t + reach); ++s) {
      largest = std::max(largest, std::abs(int{r.vd.channel(c)[s]}));
    }
    return static_cast<float>(largest) / r.chan_noise[c];
  };
  std::vector<bool> crowded(r.n_samples + 1, false), local(r.n_samples + 1, false);
  for (std::int32_t t = 1; t <= r.n_samples; ++t) {
    int n = 0, used = 0, centre = 0, n_far = 0, far_beyond = 0;
    float highest = 0;
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      if (r.chan_mask[c]) continue;
      ++used;
      const float h = height(c, t);
      n += h > 5;
      if (h > highest) highest = h, centre = c;
    }
    if (2 * n < used || n < 8) continue;
    crowded[t] = true;
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      if (r.chan_mask[c] || r.distance(centre, c) <= 120) continue;
      ++n_far;
      far_beyond += height(c, t) > 5;
    }
    local[t] = n_far > 0 && 2 * far_beyond < n_far;
  }
  const int ms = frequency / 1000;
  for (int t = 1; t <= r.n_samples; ++t) {
    int n_lasting = 0;
    for (int k = -10; k < 10; ++k) {
      bool any = false;
      for (int s = t + k * ms; s < t + (k + 1) * ms; ++s) {
        any = any || (s >= 1 && s <= r.n_samples && crowded[s]);
      }
      n_lasting += any;
    }
    if (!crowded[t] || (local[t] && n_lasting < 12)) continue;
    for (int s = std::max(1, t - margin); s <= std::min(r.n_samples, t + margin); ++s) {
      blanked[s] = true;
    }
  }
  return blanked;
}

TEST(Blanking, FindsWhatTheRuleSaysAtAnyThreadCount) {
  small_session session;
  // Longer than the stretch that is searched at a time, with a burst over its end.
  make_recording(*session, 16, 140'000, frequency);
  add_noise(*session, 3);
  add_burst(*session, 1, 16, 5, 30, 300);
  add_burst(*session, 3, 12, 65'500, 65'600, -300);
  add_burst(*session, 1, 8, 90'000, 90'001, 300);  // half of them, at one end
  add_burst(*session, 1, 8, 95'000, 95'600, 300);  // and for long
  add_burst(*session, 1, 7, 100'000, 100'300, 300);
  add_burst(*session, 1, 16, 139'990, 140'000, 250);
  session->recording.chan_mask[16] = true;
  compute_noise(*session);
  const std::vector<bool> expected = plainly_blanked(*session);
  EXPECT_GT(std::count(expected.begin(), expected.end(), true), 300);
  for (const std::int32_t n_threads : {1, 2, 7}) {
    test::use_threads(*session, n_threads);
    std::vector<bool> found(expected.size(), false);
    std::int32_t last = -1;
    for (const blanked_stretch& s : find_artefacts(*session)) {
      EXPECT_EQ(s.channel, 0);
      EXPECT_GT(s.first, last + 1) << "stretches are apart";
      last = s.last;
      for (std::int32_t t = s.first; t <= s.last; ++t) found[t] = true;
    }
    EXPECT_EQ(found, expected) << n_threads;
  }
  for (std::int32_t c = 8; c <= 16; ++c) session->recording.chan_mask[c] = true;
  EXPECT_TRUE(find_artefacts(*session).empty()) << "seven channels tell nothing";
}

TEST(Blanking, ABigSpikeIsNoArtefact) {
  small_session session;
  make_recording(*session, 16, 20'000, frequency);
  add_noise(*session, 4);
  // On half of the channels, 40 µm apart, but all of them near the largest.
  add_burst(*session, 5, 12, 10'000, 10'006, 200);
  for (std::int32_t c = 8; c <= 9; ++c) session->recording.vd.channel(c)[10'003] = -900;
  for (std::int32_t c = 1; c <= 16; ++c) {
    session->recording.chan_y[c] = static_cast<std::int16_t>(25 * c);
  }
  build_site_tables(*session);
  compute_noise(*session);
  EXPECT_TRUE(find_artefacts(*session).empty());
  // The same with the probe's other end in it.
  add_burst(*session, 14, 16, 10'000, 10'006, 200);
  add_burst(*session, 1, 2, 10'000, 10'006, 200);
  EXPECT_EQ(find_artefacts(*session).size(), 1u);
  // A burst of five big spikes is none either; what lasts for 30 ms is.
  for (int k = 0; k < 5; ++k) add_burst(*session, 5, 12, 5000 + 60 * k, 5006 + 60 * k, 200);
  EXPECT_EQ(find_artefacts(*session).size(), 1u);
  add_burst(*session, 5, 12, 15'000, 15'600, 200);
  EXPECT_EQ(find_artefacts(*session).size(), 2u);
}

TEST(Blanking, SingleChannelsByWindowsOfTenMilliseconds) {
  small_session session;
  make_recording(*session, 4, 20'000, frequency);
  add_noise(*session, 5);
  // The third window has just over a quarter of 200 samples, the sixth just under; the tenth
  // and eleventh touch.
  for (int i = 0; i < 51; ++i) session->recording.vd.channel(2)[401 + 3 * i] = 400;
  for (int i = 0; i < 49; ++i) session->recording.vd.channel(2)[1001 + 3 * i] = 400;
  add_burst(*session, 3, 3, 1801, 2200, 500);
  compute_noise(*session);
  const auto found = find_channel_artefacts(*session);
  EXPECT_EQ(spans_of(found, 2), (std::vector<std::pair<int, int>>{{301, 700}}));
  EXPECT_EQ(spans_of(found, 3), (std::vector<std::pair<int, int>>{{1701, 2300}}));
  EXPECT_EQ(found.size(), 2u);
}

TEST(Blanking, IsAStepOfTheHistoryThatCanBeRepeated) {
  small_session session;
  const auto record = [&] {
    make_recording(*session, 10, 30'000, frequency);
    add_noise(*session, 6);
    add_burst(*session, 1, 10, 12'000, 12'400, 300);
    add_burst(*session, 4, 4, 12'401, 14'400, 300);
    session->recording.chan_mask[10] = true;
  };
  record();
  session->filter.do_blank_artefacts = session->filter.do_blank_channels = true;
  ASSERT_TRUE(run_filter_steps(*session));
  ASSERT_EQ(session->filter_history.n_entries, 2);
  recording_store& r = session->recording;
  EXPECT_EQ(r.vd.channel(1)[12'000], 0);
  EXPECT_EQ(r.vd.channel(4)[14'300], 0);
  EXPECT_NE(r.vd.channel(10)[12'000], 0) << "masked";
  EXPECT_NEAR(blanked_seconds(*session, 1), (401 + 120) / 20000.0, 3e-3);
  EXPECT_NEAR(blanked_seconds(*session, 4), (2401 + 160) / 20000.0, 0.02) << "overlaps count once";
  const std::vector<std::int16_t> once(r.vd.channel(4), r.vd.channel(4) + 30'001);
  const std::size_t n = r.blanked.size();
  // Read again, the same steps leave the same.
  r.blanked.clear();
  record();
  ASSERT_TRUE(repeat_filtering(*session));
  EXPECT_TRUE(std::equal(once.begin(), once.end(), r.vd.channel(4)));
  EXPECT_EQ(r.blanked.size(), n);
  reset_session(*session);
  EXPECT_TRUE(session->recording.blanked.empty());
}

TEST(ChannelFaults, NoiseFarFromTheMedianIsBad) {
  small_session session;
  make_recording(*session, 9, 1000, frequency);
  float* noise = &session->recording.chan_noise[1];
  const float values[] = {10, 9, 11, 10, 25.1f, 2.9f, 24.9f, 10, 3.1f};
  std::copy(std::begin(values), std::end(values), noise);
  const auto bad = find_bad_channels(*session);
  ASSERT_EQ(bad.size(), 2u);
  EXPECT_EQ(bad[0].channel, 5);
  EXPECT_FLOAT_EQ(bad[0].ratio, 2.51f);
  EXPECT_EQ(bad[1].channel, 6);
  session->recording.chan_mask[5] = session->recording.chan_mask[1] = true;
  EXPECT_TRUE(find_bad_channels(*session).empty()) << "seven are too few";
}

TEST(ChannelFaults, CommonNoiseIsWhatTheMedianOverChannelsHas) {
  small_session session;
  make_recording(*session, 32, 40'000, frequency);
  add_noise(*session, 8);
  compute_noise(*session);
  // Of independent channels: 1.25 over the root of 32.
  EXPECT_NEAR(common_noise(*session), 0.22, 0.03);
  recording_store& r = session->recording;
  test::vector_random random(9);
  for (std::int32_t t = 1; t <= r.n_samples; ++t) {
    const int common = static_cast<int>((random.next() >> 16) % 140) - 70;
    for (std::int32_t c = 1; c <= 32; ++c) {
      r.vd.channel(c)[t] = static_cast<std::int16_t>(r.vd.channel(c)[t] + common);
    }
  }
  compute_noise(*session);
  // Half of an even spread to 70 lies within 35, which stands for a s.d. of 52; with their own
  // noise of 20 the channels have about as much.
  EXPECT_NEAR(common_noise(*session), 1, 0.05);
  // Stretches that were blanked tell nothing of it.
  const double before = common_noise(*session);
  for (std::int32_t c = 1; c <= 32; ++c) std::fill_n(r.vd.channel(c) + 1, 20'000, 0);
  EXPECT_NEAR(common_noise(*session), before, 0.02);
  for (std::int32_t c = 16; c <= 32; ++c) r.chan_mask[c] = true;
  EXPECT_EQ(common_noise(*session), 0) << "fifteen are too few";
}

}  // namespace
}  // namespace kestrelvane
