// Templates and alignment against known numbers.
#include "clustering/templates.h"
#include "session/template_window.h"

#include <gtest/gtest.h>

#include <vector>

#include "clustering/principal_components.h"
#include "clustering/realignment.h"
#include "session/pair_index.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// Puts events into cluster 1, all on channel 1.
void put_events(session_state& session, const std::vector<int>& times,
                const std::vector<float>& shifts) {
  session.events.n_events = static_cast<std::int32_t>(times.size());
  for (std::int32_t e = 1; e <= session.events.n_events; ++e) {
    session.events.event_time[e] = times[e - 1];
    session.events.event_shift[e] = shifts[e - 1];
    session.events.event_channel[e] = 1;
    session.events.event_cluster[e] = 1;
  }
  session.clusters.n_clusters = 1;
  session.clusters.current_cluster = 1;
}

void put_random_channel(session_state& session) {
  vector_random random(3);
  for (int t = 1; t <= 900; ++t) {
    session.recording.vd.channel(1)[t] =
        static_cast<std::int16_t>(static_cast<int>((random.next() >> 16) % 201) - 100);
  }
}

TEST(templates, integer_accumulators) {
  small_session session;
  make_recording(*session, 1, 900, 25000, 0.25f);
  put_random_channel(*session);
  EXPECT_EQ(session->recording.vd.channel(1)[1], -41);
  EXPECT_EQ(session->recording.vd.channel(1)[6], 18);
  put_events(*session, {100, 250, 400, 555, 700}, {0.0f, 0.35f, 0.95f, -0.2f, 1.0f});
  calculate_template(*session, 1);
  EXPECT_EQ(session->templates.template_points, 41);
  struct known {
    int point;
    std::uint32_t mean, sd;
  };
  for (const auto& [p, mean, sd] : {known{1, 0xC019999A, 0x42A45909},
                                    {2, 0xC1233333, 0x427E27E6},
                                    {20, 0xC2140000, 0x4242B324},
                                    {21, 0xC159999A, 0x42252E5E},
                                    {22, 0xC1C66666, 0x4285D004},
                                    {41, 0xC1100000, 0x4235D899}}) {
    EXPECT_EQ(session->templates.mean(1, 1)[p], bits(mean)) << p;
    EXPECT_EQ(session->templates.sd(1, 1)[p], bits(sd)) << p;
  }
  put_events(*session, {100}, {0.35f});
  calculate_template(*session, 1);
  EXPECT_EQ(session->templates.mean(1, 1)[21], -24.0f);
  EXPECT_EQ(session->templates.sd(1, 1)[21], 32.0f);
}

TEST(templates, points_follow_window_and_rate) {
  small_session session;
  make_recording(*session, 1, 400);
  for (const auto& [rate, points] :
       {std::pair{25000, 41}, {30000, 49}, {20000, 33}, {24414, 39}, {100000, 151}}) {
    session->recording.sampling_frequency = rate;
    compute_template_points(*session);
    EXPECT_EQ(session->templates.template_points, points) << rate;
  }
}

TEST(templates, a_wide_window_is_shortened_with_a_word) {
  small_session session;
  make_recording(*session, 1, 400, 200000);
  EXPECT_TRUE(shorten_spike_window(*session));
  EXPECT_TRUE(session.user.told("The spike temporal window was shortened to prevent overflow"));
  EXPECT_FLOAT_EQ(session->strategy.template_window_start_ms, -0.375f);
  EXPECT_FLOAT_EQ(session->strategy.template_window_end_ms, 0.37f);
  EXPECT_FALSE(shorten_spike_window(*session));
}

TEST(templates, thinning_takes_events_evenly) {
  struct known {
    int n, at_3, at_101, at_199, at_200;
  };
  for (const auto& k : {known{200, 3, 101, 199, 200},
                        {201, 3, 101, 199, 200},
                        {333, 4, 167, 330, 332},
                        {1001, 11, 501, 991, 996}}) {
    std::vector<std::int32_t> list(k.n);
    for (int i = 0; i < k.n; ++i) list[i] = i + 1;
    EXPECT_EQ(thin_event_list(list, 200), 200);
    EXPECT_EQ(list[0], 1);
    EXPECT_EQ(list[2], k.at_3);
    EXPECT_EQ(list[100], k.at_101);
    EXPECT_EQ(list[198], k.at_199);
    EXPECT_EQ(list[199], k.at_200);
  }
}

TEST(templates, channels_need_height_quality_and_nearness) {
  small_session session;
  make_recording(*session, 8, 400);  // 40 µm apart
  session->clusters.n_clusters = 1;
  template_table& templates = session->templates;
  const auto put = [&](int channel, float height, float sd) {
    for (int p = 1; p <= 41; ++p) templates.sd(1, channel)[p] = sd;
    templates.mean(1, channel)[10] = -height;
  };
  put(1, 100, 10);   // centre
  put(2, 20, 9.9f);  // exactly the first threshold, above the second
  put(3, 20, 10);    // exactly the second threshold
  put(4, 19, 1);     // too low
  put(5, 90, 0);     // no s.d.
  put(7, 90, 1);     // 240 µm away
  put(8, 99, 1);     // 280 µm away
  get_template_channels(*session, 1);
  const std::int32_t* channels = templates.channels(1);
  EXPECT_EQ(std::vector<int>(channels + 1, channels + 1 + templates.template_n_channels[1]),
            (std::vector<int>{1, 2, 7}));
  session->recording.chan_mask[1] = true;
  get_template_channels(*session, 1);
  EXPECT_EQ(channels[1], 8);
  get_template_channels(*session, 2);
  EXPECT_TRUE(session.user.logged("*********Error calling get_template_channels ************"));
  EXPECT_EQ(templates.template_n_channels[2], 1);
  EXPECT_EQ(templates.centre_channel(2), 1);
}

TEST(realignment, shift_of_a_time_and_fraction) {
  struct known {
    int time;
    float fraction, shift;
    int new_time;
    std::uint32_t new_fraction;
  };
  for (const auto& k : {known{1000, 0.25f, 0.5f, 1000, 0x3F400000},
                        {1000, 0.75f, 0.5f, 1001, 0x3E800000},
                        {1000, 0.5f, 0.5f, 1000, 0x3F800000},
                        {1000, 0.0f, -0.3f, 999, 0x3F333400},
                        {1000, 0.9f, -3.25f, 997, 0x3F266666},
                        {123456, 0.1f, 7.7f, 123463, 0x3F4CCD9A},
                        {1000, 0.0f, 0.0f, 1000, 0x00000000}}) {
    std::int32_t time = k.time;
    float fraction = k.fraction;
    apply_event_shift(time, fraction, k.shift);
    EXPECT_EQ(time, k.new_time);
    EXPECT_EQ(fraction, bits(k.new_fraction));
  }
}

// One spike on one channel, and a template equal to vd(-1..39).
void put_spike(session_state& session) {
  make_recording(session, 1, 400, 25000, 0.25f);
  put_samples(session, 1, 11, {0,  -3, 2,  5,  -1, -10, -40, -95, -120, -118, -80, -20, 15, 40, 52,
                               50, 41, 30, 18, 9,  4,   1,   0,   -2,   1,    0,   3,   -1, 2,  0});
  session.clusters.n_clusters = 1;
  session.templates.template_n_channels[1] = 1;
  session.templates.channels(1)[1] = 1;
  for (int p = 1; p <= 41; ++p) {
    session.templates.mean(1, 1)[p] = session.recording.vd.channel(1)[p - 2];
  }
}

TEST(realignment, template_shift_by_mode) {
  const std::uint32_t known[] = {0x40C00000, 0x00000000, 0x00000000, 0x40649248, 0xC0855554,
                                 0x40000000, 0xC0000000, 0x3FC04600, 0x3F6F2960};
  for (int mode = 1; mode <= 9; ++mode) {
    small_session session;
    put_spike(*session);
    session->strategy.template_align_mode = mode;
    EXPECT_EQ(template_align_shift(*session, 1), bits(known[mode - 1])) << mode;
  }
}

TEST(realignment, one_call_of_each_matching_routine) {
  struct known {
    int time;
    float shift;
    std::uint32_t mult_returned, rms_returned;
  };
  for (const auto& k : {known{19, 0.0f, 0xBDCEDBD0, 0x3D4C775A},
                        {22, 0.3f, 0xC059AA12, 0xC0500156},
                        {17, 0.95f, 0x3F72F153, 0x3F8CCA22}}) {
    small_session session;
    put_spike(*session);
    put_events(*session, {k.time}, {k.shift});
    EXPECT_EQ(align_event_multiplicative(*session, 1, 1, 12), bits(k.mult_returned));
    EXPECT_EQ(session->events.event_time[1], 18);
    EXPECT_EQ(session->events.event_shift[1], bits(0x3F662486));
    put_events(*session, {k.time}, {k.shift});
    EXPECT_EQ(align_event_rms(*session, 1, 1, 12), bits(k.rms_returned));
    EXPECT_EQ(session->events.event_time[1], 19);
    EXPECT_EQ(session->events.event_shift[1], bits(0x3D4C775A));
  }
}

TEST(pairs, numbering_and_samples) {
  struct known {
    int n, a, b, k;
  };
  for (const auto& p : {known{2, 1, 2, 1},
                        {3, 1, 3, 2},
                        {3, 2, 3, 3},
                        {5, 2, 4, 6},
                        {17, 9, 12, 103},
                        {4000, 3999, 4000, 7998000}}) {
    EXPECT_EQ(pair_index(p.n, p.a, p.b), p.k);
    EXPECT_EQ(pair_from_index(p.n, p.k).a, p.a);
    EXPECT_EQ(pair_from_index(p.n, p.k).b, p.b);
  }
  for (const std::int32_t n : {2, 3, 4, 50, 4000}) {
    for (std::int32_t a = 1, k = 0; a < n; ++a) {
      for (std::int32_t b = a + 1; b <= n; ++b) {
        const cluster_pair pair = pair_from_index(n, ++k);
        ASSERT_TRUE(pair.a == a && pair.b == b) << n << ' ' << k;
      }
    }
  }
  const int samples[][4] = {{510, 1530, 500, 1500},   {5, 100000, 5, 1995},
                            {15, 100000, 10, 1990},   {100000, 15, 1990, 10},
                            {1000, 1000, 1000, 1000}, {1001, 1000, 1000, 999},
                            {30, 3000, 19, 1980}};
  for (const auto& s : samples) {
    EXPECT_EQ(proportional_sample(s[0], s[1]).n_a, s[2]);
    EXPECT_EQ(proportional_sample(s[0], s[1]).n_b, s[3]);
  }
  const int members[][2] = {{1, 1}, {2, 2}, {3, 4}, {500, 764}, {1000, 1529}};
  for (const auto& m : members) EXPECT_EQ(stride_member(m[0], 1530, 1000), m[1]);
}

}  // namespace
}  // namespace kestrelvane::test
