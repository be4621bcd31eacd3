// Faulty channels: planted ones in recordings with known units, and the numbers behind them.
#include "signal/channel_check.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "analysis/channel_check_graphs.h"
#include "recording/site_tables.h"
#include "support/reader_test.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

using testing::Contains;
using testing::HasSubstr;

// Noise of its own on every channel, and some that all share with those beside them.
void fill_with_noise(session_state& session, unsigned seed) {
  recording_store& r = session.recording;
  std::mt19937 random(seed);
  std::normal_distribution<float> noise(0, 20);
  std::vector<float> shared(static_cast<std::size_t>(r.n_channels) + 2);
  for (std::int32_t t = 1; t <= r.n_samples; ++t) {
    for (float& value : shared) value = noise(random);
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      const float v = noise(random) + shared[c - 1] + shared[c] + shared[c + 1];
      r.vd.channel(c)[t] = static_cast<std::int16_t>(std::lround(v));
    }
  }
}

channel_check checked(const session_state& session, bool use_masked = false) {
  channel_check check;
  EXPECT_TRUE(compute_pair_correlations(session, check));
  judge_channels(session, check, use_masked);
  return check;
}

std::vector<std::string> texts_of(const channel_check& check) {
  std::vector<std::string> texts;
  for (const channel_problem& problem : check.problem_list) texts.push_back(problem.text);
  return texts;
}

bool selects(const channel_check& check, std::int32_t channel, channel_fault fault) {
  return std::any_of(
      check.problem_list.begin(), check.problem_list.end(),
      [&](const channel_problem& p) { return p.channel == channel && p.fault == fault; });
}

bool is_borne_out(const channel_check& check, std::int32_t channel, channel_fault fault) {
  return std::any_of(check.problem_list.begin(), check.problem_list.end(),
                     [&](const channel_problem& p) {
                       return p.channel == channel && p.fault == fault && p.borne_out;
                     });
}

// The lines once more, step by step and in 64 bits, from the correlations and the curve.
struct plain_line {
  std::string text;
  std::int32_t channel;
};
std::vector<plain_line> plain_lines(const session_state& session, const channel_check& check) {
  const recording_store& r = session.recording;
  std::vector<plain_line> lines;
  struct deviating {
    std::int32_t channel;
    double rms, net;
  };
  std::vector<deviating> channels;
  for (const channel_pair& p : check.channel_pairs) {
    if (r.chan_mask[p.a] || r.chan_mask[p.b] || !(p.r > 0.8f)) continue;
    lines.push_back({fmt::format("Channels {} {} may be shorted; r={:.2f}", p.a, p.b, p.r), p.a});
  }
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    double n = 0, sum = 0, squares = 0;
    for (const channel_pair& p : check.channel_pairs) {
      if (r.chan_mask[p.a] || r.chan_mask[p.b] || (p.a != c && p.b != c)) continue;
      const double power = check.p[2] * std::pow(double{r.distance(p.a, p.b)}, check.p[3]);
      const double e = p.r - (1 + check.p[1] * power) / (1 + power);
      n += 1, sum += e, squares += e * e;
    }
    if (n > 0) channels.push_back({c, std::sqrt(squares / n), sum / n});
  }
  for (double deviating::*value : {&deviating::rms, &deviating::net}) {
    double mean = 0, squares = 0;
    for (const deviating& c : channels) mean += c.*value / static_cast<double>(channels.size());
    for (const deviating& c : channels) squares += (c.*value - mean) * (c.*value - mean);
    const double sd = std::sqrt(squares / static_cast<double>(channels.size()));
    for (deviating& c : channels) c.*value = (c.*value - mean) / sd;
  }
  std::stable_sort(channels.begin(), channels.end(),
                   [](const deviating& a, const deviating& b) { return a.rms > b.rms; });
  for (const deviating& c : channels) {
    if (c.net < -2.5) {
      lines.push_back({fmt::format("Channel {} may need masking; abs dev={:.2f}", c.channel, c.net),
                       c.channel});
    } else if (std::fabs(c.rms) > 2.5) {
      lines.push_back(
          {fmt::format("Channel {} may be mislocalised; deviation={:.2f}", c.channel, c.rms),
           c.channel});
    }
  }
  return lines;
}

void expect_plain_lines(const session_state& session, const channel_check& check) {
  const std::vector<plain_line> plain = plain_lines(session, check);
  EXPECT_EQ(check.n_found, static_cast<std::int32_t>(plain.size()));
  ASSERT_EQ(check.problem_list.size(), std::min(plain.size(), channel_problem_limit));
  for (std::size_t i = 0; i < check.problem_list.size(); ++i) {
    EXPECT_EQ(check.problem_list[i].text, plain[i].text);
    EXPECT_EQ(check.problem_list[i].channel, plain[i].channel);
  }
}

// The measure pair by pair and term by term.
float plain_correlation(const session_state& session, const channel_check& check,
                        const channel_pair& pair) {
  const std::int16_t *va = session.recording.vd.channel(pair.a),
                     *vb = session.recording.vd.channel(pair.b);
  float ma = 0, mb = 0, k = 0;
  for (const std::int32_t t : check.times) {
    k += 1;
    ma += (static_cast<float>(va[t]) - ma) / k;
    mb = ma + (static_cast<float>(vb[t]) - mb) / k;
  }
  float ab = 0, aa = 0, bb = 0;
  for (const std::int32_t t : check.times) {
    const float a = static_cast<float>(va[t]) - ma, b = static_cast<float>(vb[t]) - mb;
    ab += a * b;
    aa += a * a;
    bb += b * b;
  }
  return aa == 0 || bb == 0 ? 1 : ab / std::sqrt(aa * bb);
}

TEST(channel_check, correlations_are_those_of_the_plain_form_at_any_number_of_threads) {
  small_session session;
  make_recording(*session, 40, 30'000);
  fill_with_noise(*session, 5);
  session->recording.chan_mask[3] = true;  // takes part in the correlations all the same
  const channel_check check = checked(*session);
  EXPECT_EQ(check.times.size(), 10'000u);
  // Sites 40 µm apart, less than 750 µm: 18 steps at most.
  EXPECT_EQ(check.channel_pairs.size(), 40u * 18 - 18 * 19 / 2);
  for (std::size_t i = 0; i < check.channel_pairs.size(); i += 7) {
    const channel_pair& pair = check.channel_pairs[i];
    ASSERT_EQ(pair.r, plain_correlation(*session, check, pair)) << pair.a << " " << pair.b;
  }
  // Two of three parts of the variance are shared with the next one.
  EXPECT_NEAR(check.channel_pairs[0].r, 0.5f, 0.03f);
  use_threads(*session, 3);
  const channel_check threaded = checked(*session);
  EXPECT_EQ(threaded.times, check.times);
  for (std::size_t i = 0; i < check.channel_pairs.size(); ++i) {
    ASSERT_EQ(threaded.channel_pairs[i].r, check.channel_pairs[i].r);
    ASSERT_EQ(threaded.channel_pairs[i].background_r, check.channel_pairs[i].background_r);
  }
  session->operation.autosort_interrupt = true;
  channel_check cut_short;
  EXPECT_FALSE(compute_pair_correlations(*session, cut_short));
}

TEST(channel_check, z_scores_and_order_follow_from_the_pairs) {
  small_session session;
  make_recording(*session, 12, 15'000);
  fill_with_noise(*session, 9);
  const channel_check check = checked(*session);
  ASSERT_EQ(check.channels.size(), 12u);
  float sum = 0, squares = 0;
  for (std::size_t i = 0; i < check.channels.size(); ++i) {
    sum += check.channels[i].signed_deviation;
    squares += check.channels[i].signed_deviation * check.channels[i].signed_deviation;
    if (i > 0) {
      EXPECT_LE(check.channels[i].rms_deviation, check.channels[i - 1].rms_deviation);
    }
  }
  EXPECT_NEAR(sum, 0, 1e-4);
  EXPECT_NEAR(squares, 12, 1e-3);
  EXPECT_NEAR(expected_correlation(check, 0), 1, 1e-6);
  EXPECT_EQ(find_checked_channel(check, 13), nullptr);
  EXPECT_EQ(find_checked_channel(check, 7)->channel, 7);
}

TEST(channel_check, what_it_needs_is_said) {
  small_session session;
  const auto last_box = [&] { return session.user.boxes.back().text; };
  EXPECT_FALSE(can_check_channels(*session));
  EXPECT_EQ(last_box(), "No recording data in memory");
  make_recording(*session, 9, 1000);
  EXPECT_TRUE(can_check_channels(*session));
  session->recording.chan_mask[4] = true;
  EXPECT_TRUE(can_check_channels(*session)) << "eight are enough";
  session->recording.chan_mask[5] = true;
  EXPECT_FALSE(can_check_channels(*session));
  EXPECT_EQ(last_box(), "Not enough unmasked channels to support cross-correlation analysis");
  session->recording.chan_mask.clear();
  session->recording.is_continuous = false;
  EXPECT_FALSE(can_check_channels(*session));
  EXPECT_EQ(last_box(), "Channel check not valid for non-continuous data");
  EXPECT_EQ(session.user.boxes.back().title, "Error ");
  session->preferences.treat_as_continuous = true;
  EXPECT_TRUE(can_check_channels(*session));
}

TEST(channel_check, the_cut_off_keeps_to_ten_thousand_pairs) {
  small_session session;
  const auto crowd = [&](std::int32_t n, std::int32_t pitch) {
    make_recording(*session, n, 400);
    fill_with_noise(*session, 2);
    for (std::int32_t c = 1; c <= n; ++c) {
      session->recording.chan_x[c] = 0;
      session->recording.chan_y[c] = static_cast<std::int16_t>(pitch * c);
    }
    build_site_tables(*session);
    session.user.lines.clear();
    return checked(*session);
  };
  EXPECT_EQ(crowd(141, 1).check_cutoff_um, 750);
  EXPECT_THAT(session.user.lines, testing::Not(Contains(HasSubstr("cutoff"))));
  // All 142 * 141 / 2 = 10,011 pairs lie within 141 µm.
  const channel_check dense = crowd(142, 1);
  EXPECT_LT(dense.check_cutoff_um, 142);
  EXPECT_LT(dense.channel_pairs.size(), 10'000u);
  EXPECT_THAT(session.user.lines, Contains(HasSubstr("Channel check cutoff distance =")));
  EXPECT_EQ(crowd(142, 20).check_cutoff_um, 750) << "far enough apart as it is";
  // All in one place: no distance parts them.
  const channel_check heap = crowd(150, 0);
  EXPECT_EQ(heap.check_cutoff_um, 1);
  EXPECT_EQ(heap.channel_pairs.size(), 10'000u);
}

TEST(channel_check, times_come_from_channels_that_say_something) {
  small_session session;
  make_recording(*session, 8, 12'000);
  fill_with_noise(*session, 3);
  recording_store& r = session->recording;
  std::fill_n(r.vd.channel(1) + 1, 100, 0);
  std::fill_n(r.vd.channel(2) + 1, 100, 0);
  r.vd.channel(1)[150] = -32768;
  channel_check check = checked(*session);
  ASSERT_EQ(check.times.size(), 10'000u);
  EXPECT_EQ(check.times.front(), 101);
  EXPECT_EQ(check.times[49], 151) << "where samples are missing is no time";
  EXPECT_TRUE(std::is_sorted(check.times.begin(), check.times.end()));
  for (const std::int32_t n : {12'000, 40'000}) {
    make_recording(*session, 8, n);
    fill_with_noise(*session, 3);
    std::fill_n(r.vd.channel(1) + 1, n, 0);
    std::fill_n(r.vd.channel(2) + 1, n, -32768);
    session.user.lines.clear();
    check = checked(*session);
    EXPECT_EQ(check.times.size(), 10'000u);
    EXPECT_EQ(check.silent, (std::vector<std::int32_t>{1, 2}));
    EXPECT_THAT(session.user.lines, Contains(HasSubstr("taken from channels 3 and 4")));
    EXPECT_EQ(channels_to_mask(check), (std::vector<std::int32_t>{1, 2}));
  }
  make_recording(*session, 8, 40'000);  // nothing but zeros
  check = checked(*session);
  EXPECT_TRUE(check.times.empty());
  EXPECT_EQ(check.problem_list.size(), channel_problem_limit);
  EXPECT_EQ(check.problem_list[0].text, "Channels 1 2 may be shorted; r=1.00");
}

TEST(channel_check, masked_channels_take_part_when_they_are_asked_for) {
  small_session session;
  make_recording(*session, 16, 15'000);
  fill_with_noise(*session, 8);
  recording_store& r = session->recording;
  std::copy_n(r.vd.channel(5) + 1, r.n_samples, r.vd.channel(9) + 1);
  EXPECT_THAT(texts_of(checked(*session)), Contains("Channels 5 9 may be shorted; r=1.00"));
  r.chan_mask[9] = true;
  channel_check check = checked(*session);
  EXPECT_THAT(texts_of(check), testing::Not(Contains(HasSubstr("shorted"))));
  EXPECT_EQ(find_checked_channel(check, 9), nullptr);
  judge_channels(*session, check, true);
  EXPECT_THAT(texts_of(check), Contains("Channels 5 9 may be shorted; r=1.00"));
  EXPECT_TRUE(selects(check, 5, channel_fault::shorted));
  graph_data graph = make_deviation_graph(*session, check, true);
  EXPECT_EQ(graph.series[0].x.size(), 15u);
  EXPECT_EQ(graph.title, "single channel net deviations");
  EXPECT_EQ(graph.labels[label_x_axis], "RMS channel deviation");
  EXPECT_EQ(graph.labels[label_y_axis], "Signed deviation");
  EXPECT_EQ(graph.series[1].point_text, (std::vector<std::string>{"9"}));
  EXPECT_EQ(look_of_series(graph, 1).form, form_rings);
  graph = make_distance_graph(*session, check, false, 0);
  EXPECT_EQ(graph.series[0].x.size(), 15u * 14 / 2);
  graph = make_distance_graph(*session, check, true, 4);
  EXPECT_EQ(graph.series[0].x.size(), 15u);
  EXPECT_EQ(graph.series[1].y.front(), 1) << "the curve begins at 1";
  EXPECT_EQ(graph.title, "correlation vs distance");
  EXPECT_EQ(graph.labels[label_x_axis], "Channel separation (microns)");
  // One that stands alone has no pairs.
  r.chan_y[16] = 5000;
  build_site_tables(*session);
  session.user.lines.clear();
  EXPECT_EQ(find_checked_channel(checked(*session), 16), nullptr);
  EXPECT_THAT(session.user.lines, Contains("npts=0 when nchan=16"));
  // What has been read meanwhile has fewer channels.
  make_recording(*session, 4, 1000);
  make_deviation_graph(*session, check, true);
  EXPECT_THAT(session.user.lines, Contains(HasSubstr("Check channels error in channel list ")));
}

// Pairs that large units make alike fill the list before it comes to a channel without connection.
TEST(channel_check, what_the_list_has_no_room_for_is_counted_and_masked) {
  small_session session;
  make_recording(*session, 24, 1000);
  channel_check check;
  for (std::int32_t a = 1; a <= 24; ++a) {
    for (std::int32_t b = a + 1; b <= 24; ++b) {
      const bool open_wire = a == 20 || b == 20;
      const float r = open_wire ? 0.0f : 0.3f;
      const bool of_one_unit = b == a + 1 && !open_wire && a <= 17;
      check.channel_pairs.push_back({a, b, of_one_unit ? 0.85f : r, r});
    }
  }
  judge_channels(*session, check, false);
  EXPECT_EQ(check.problem_list.size(), channel_problem_limit);
  for (std::int32_t i = 0; i < 16; ++i) {
    const channel_problem& p = check.problem_list[i];
    EXPECT_EQ(p.text, fmt::format("Channels {} {} may be shorted; r=0.85", i + 1, i + 2));
    EXPECT_FALSE(p.borne_out);
  }
  EXPECT_EQ(channels_to_mask(check), std::vector<std::int32_t>{20});
  EXPECT_EQ(count_problems(check),
            "1 borne out by the background, 17 by the spikes alone; the first 16 are listed");
  judge_channels(*session, check, false);
  EXPECT_EQ(check.n_found, 18) << "not twice as many when judged anew";
}

// Recordings with planted units, which have spikes on neighbouring channels.
struct planted_faults : testing::TestWithParam<std::pair<test_electrode, std::int32_t>> {
  temporary_directory folder;
  small_session session;
  std::mt19937 random{11};

  recording_store& open(std::int64_t seed) {
    test_recording_options options;
    options.electrode = GetParam().first;
    options.n_channels = GetParam().second;
    options.minutes = 0.3;
    options.n_units = 12;
    options.seed = seed;
    options.n_threads = 2;
    const std::string path = folder.file("planted.tsf");
    std::string problem;
    session.user.default_answer = true;
    EXPECT_TRUE(make_test_recording(options, path, {}, problem)) << problem;
    EXPECT_TRUE(read_recording(*session, path));
    return session->recording;
  }
  // Gives each sample of a channel another value.
  void change(std::int32_t channel, const std::function<float(float sample)>& value) {
    std::int16_t* v = session->recording.vd.channel(channel);
    for (std::int32_t t = 1; t <= session->recording.n_samples; ++t) {
      v[t] = static_cast<std::int16_t>(std::lround(value(v[t])));
    }
  }
  float noise() { return std::normal_distribution<float>()(random); }
};

TEST_P(planted_faults, each_is_named_and_borne_out) {
  for (const std::int64_t seed : {2, 3}) {
    recording_store& r = open(seed);
    const std::int32_t c = 10, far = c + r.n_channels / 2;
    const std::vector<std::int16_t> kept(r.vd.channel(c) + 1, r.vd.channel(c) + 1 + r.n_samples);
    const std::vector<std::int16_t> beside(r.vd.channel(c + 1) + 1,
                                           r.vd.channel(c + 1) + 1 + r.n_samples);
    const auto put_back = [&] {
      std::copy(kept.begin(), kept.end(), r.vd.channel(c) + 1);
      std::copy(beside.begin(), beside.end(), r.vd.channel(c + 1) + 1);
    };
    // Two sites on one wire, each with an amplifier of its own.
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      const float both = 0.5f * static_cast<float>(kept[t - 1] + beside[t - 1]);
      for (const std::int32_t wire : {c, c + 1}) {
        r.vd.channel(wire)[t] = static_cast<std::int16_t>(std::lround(both + 3 * noise()));
      }
    }
    channel_check check = checked(*session);
    EXPECT_TRUE(is_borne_out(check, c, channel_fault::shorted));
    EXPECT_THAT(texts_of(check), Contains(HasSubstr("Channels 10 11 may be shorted; r=0.9")));
    expect_plain_lines(*session, check);
    put_back();
    change(c, [](float) { return 0.0f; });
    check = checked(*session);
    EXPECT_TRUE(is_borne_out(check, c, channel_fault::shorted));
    EXPECT_EQ(check.problem_list.size(), channel_problem_limit);
    EXPECT_THAT(count_problems(check), HasSubstr("; the first 16 are listed"));
    for (const channel_pair& pair : check.channel_pairs) {
      if (pair.a == c || pair.b == c) {
        EXPECT_EQ(pair.r, 1) << pair.a << " " << pair.b;
      }
    }
    EXPECT_EQ(channels_to_mask(check), std::vector<std::int32_t>{c});
    // Not connected: the noise of its amplifier alone.
    change(c, [&](float) { return 8 * noise(); });
    check = checked(*session);
    EXPECT_TRUE(is_borne_out(check, c, channel_fault::needs_masking));
    EXPECT_THAT(texts_of(check), Contains(HasSubstr("Channel 10 may need masking; abs dev=-")));
    EXPECT_EQ(channels_to_mask(check), std::vector<std::int32_t>{c});
    expect_plain_lines(*session, check);
    put_back();
    const float three_times = 3 * r.chan_noise[c];
    change(c, [&](float v) { return v + three_times * noise(); });
    EXPECT_TRUE(is_borne_out(checked(*session), c, channel_fault::needs_masking));
    put_back();
    // Two sites exchanged in the electrode file; on few channels one of them may hide the other.
    std::swap(r.chan_x[c], r.chan_x[far]);
    std::swap(r.chan_y[c], r.chan_y[far]);
    build_site_tables(*session);
    check = checked(*session);
    EXPECT_GT(check.n_borne_out, 0);
    for (const channel_problem& p : check.problem_list) {
      if (!p.borne_out) continue;
      EXPECT_TRUE(p.channel == c || p.channel == far) << p.text;
      EXPECT_THAT(p.text, testing::AnyOf(HasSubstr(" may be mislocalised; deviation="),
                                         HasSubstr(" may need masking; abs dev=")));
    }
  }
}

TEST_P(planted_faults, of_sound_channels_the_spikes_alone_say_something) {
  std::int32_t n_found = 0, n_borne_out = 0;
  for (std::int64_t seed = 1; seed <= 10; ++seed) {  // with each of two probes
    open(seed);
    const channel_check check = checked(*session);
    expect_plain_lines(*session, check);
    EXPECT_THAT(channels_to_mask(check), testing::IsEmpty());
    n_found += check.n_found;
    n_borne_out += check.n_borne_out;
    for (const channel_problem& p : check.problem_list) {
      EXPECT_THAT(judgement_of(p), testing::StartsWith(p.borne_out ? "The background alone says"
                                                                   : "Only the spikes say so: "));
    }
  }
  EXPECT_GT(n_found, 0);
  EXPECT_EQ(n_borne_out, 0);
}

INSTANTIATE_TEST_SUITE_P(probes, planted_faults,
                         testing::Values(std::pair{test_electrode::polytrode, 32},
                                         std::pair{test_electrode::neuropixels, 64}));

}  // namespace
}  // namespace kestrelvane::test
