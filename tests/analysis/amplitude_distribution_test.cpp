// Histograms of amplitudes by known numbers, and what is fitted to them.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <numeric>

#include "analysis/amplitude_fits.h"
#include "numerics/table.h"
#include "signal/filter_chain.h"
#include "sorting/realign_steps.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

std::int64_t sum_of(const ea_histogram& h) {
  return std::accumulate(h.counts.begin(), h.counts.end(), std::int64_t{0});
}

struct amplitude_test : ::testing::Test {
  small_session session;
  amplitude_request request;
  amplitude_values values;

  amplitude_test() { make_recording(*session, 3, 4000, 20000, 0.5f); }
  ea_histogram count(std::int32_t source) {
    request.ea_source = source;
    EXPECT_TRUE(analyse_dataset(*session, request, values));
    return values.histogram;
  }
  void put_event(std::int32_t time, std::int32_t channel, std::int32_t cluster = 0) {
    event_table& events = session->events;
    const std::int32_t e = ++events.n_events;
    events.event_time[e] = time;
    events.event_channel[e] = channel;
    events.event_cluster[e] = cluster;
  }
};

TEST(AmplitudeBins, EvenOnesAreWholeAndOddOnesNearest) {
  EXPECT_EQ(ea_bin(-1, 2), -1);
  EXPECT_EQ(ea_bin(0, 2), 0);
  EXPECT_EQ(ea_bin(1, 2), 0);
  EXPECT_EQ(ea_bin(-2, 2), -1);
  EXPECT_EQ(ea_bin(-3, 2), -2);
  for (std::int32_t v = -50; v <= 50; ++v) {
    for (const std::int32_t w : {4, 6}) {
      EXPECT_EQ(ea_bin(v, w), static_cast<std::int32_t>(std::floor(static_cast<double>(v) / w)));
    }
    for (const std::int32_t w : {1, 3, 7}) {
      EXPECT_EQ(ea_bin(v, w), std::lround(static_cast<double>(v) / w)) << v << " " << w;
    }
  }
  ea_histogram h;
  h.width = 4;
  EXPECT_EQ(h.position(3), 13.5f);
  h.width = 3;
  EXPECT_EQ(h.position(-2), -6.0f);
}

TEST_F(amplitude_test, EachRowCountsItsMeasureOfTheSamples) {
  // One trough and one peak between zeros: 0 -8 -8 5 9 0.
  put_samples(*session, 2, 100, {-8, -8, 5, 9});
  request.channel = 2;
  ea_histogram h = count(ea_raw);
  EXPECT_EQ(h.n_values, 4000);
  EXPECT_EQ(h.count(-8), 2);
  EXPECT_EQ(h.count(9), 1);
  EXPECT_EQ(h.count(0), 3996);
  EXPECT_EQ(h.microvolts(9), 4.5f);
  h = count(ea_extrema);
  EXPECT_EQ(h.count(-8), 1) << "a plateau at its first sample";
  EXPECT_EQ(h.count(9), 1);
  EXPECT_EQ(h.count(0), 1) << "where the peak has come down";
  EXPECT_EQ(h.n_values, 3);
  h = count(ea_sharpness);
  EXPECT_EQ(h.count(8), 1);
  EXPECT_EQ(h.count(5 + 0 - 18), 1);
  h = count(ea_slope);
  EXPECT_EQ(h.n_values, 3999);
  EXPECT_EQ(h.count(-8), 1);
  EXPECT_EQ(h.count(13), 1);
  EXPECT_EQ(h.count(-9), 1);
  session->detection.window_samples = 2;
  h = count(ea_peak_to_trough);
  EXPECT_EQ(h.count(13), 1) << "the rise from -8 to 5, two samples on";
  EXPECT_EQ(h.count(-9), 1);
  EXPECT_EQ(h.n_values, 2) << "no swing is not counted";
  EXPECT_TRUE(session.user.logged("Analysing dataset"));
  EXPECT_TRUE(session.user.logged("Sample limits = 1 4000"));
  EXPECT_TRUE(session.user.logged("max_ea_bins= 2000"));
  EXPECT_TRUE(session.user.logged("n_samples in histogram= "));
}

TEST_F(amplitude_test, MasksTagsAndChannelsChooseTheSamples) {
  put_samples(*session, 1, 1, std::vector<int>(4000, 3));
  put_samples(*session, 2, 1, std::vector<int>(4000, 7));
  session->recording.chan_mask[3] = true;
  const std::int32_t window = session->templates.template_points;
  put_event(1000, 2);
  put_event(1000 + window / 2, 2);
  put_event(2000, 1);
  request.channel = 2;
  ea_histogram h = count(ea_events);
  EXPECT_EQ(h.n_values, window + window / 2) << "windows that overlap count once";
  EXPECT_EQ(h.count(7), h.n_values);
  EXPECT_TRUE(session.user.logged("Getting mask"));
  EXPECT_TRUE(session.user.logged("Finished Getting mask"));
  request.masked = true;
  EXPECT_EQ(count(ea_raw).n_values, 4000 - window - window / 2);
  request.masked = false;
  request.all_channels = true;
  h = count(ea_raw);
  EXPECT_EQ(h.n_values, 8000) << "two of three channels";
  EXPECT_EQ(h.count(3), 4000);
  // 20 samples a millisecond: the second stretch ends beyond the recording.
  request.use_only = {{0, 0.01, "a"}, {0.005, 0.02, "a"}, {0.15, 9, "a"}};
  EXPECT_EQ(count(ea_raw).n_values, 2 * (400 + 1000));
  const std::int64_t before = values.histogram.count(3);
  use_threads(*session, 3);
  EXPECT_EQ(count(ea_raw).count(3), before);
  // Half of the zeros of channel 1 go.
  request = {};
  put_samples(*session, 1, 1, std::vector<int>(1001, 0));
  request.correct_truncation = true;
  EXPECT_EQ(count(ea_raw).count(0), 501);
  EXPECT_EQ(sum_of(values.histogram), values.histogram.n_values);
  request.add_events = true;
  count(ea_raw);
  EXPECT_EQ(values.events.count(3), 1) << "the event of channel 1 alone";
}

TEST_F(amplitude_test, WhatIsNotThereIsSaid) {
  const auto refused = [&](std::int32_t source) {
    request.ea_source = source;
    return !analyse_dataset(*session, request, values);
  };
  EXPECT_TRUE(refused(ea_event_free));
  EXPECT_TRUE(refused(ea_lfp));
  lfp_store& lfp = session->recording.stimulus.lfp;
  lfp.samples = {{}, {4, 4, -2}};
  lfp.n_lfp_samples = 3;
  lfp.vscale_LFP = 2;
  EXPECT_EQ(count(ea_lfp).count(4), 2) << "the first channel that was recorded";
  EXPECT_EQ(values.histogram.microvolts(4), 8.0f);
  request.channel = 11;
  EXPECT_TRUE(refused(ea_lfp));
  EXPECT_TRUE(session.user.told("There are no LFP values in memory"));
  EXPECT_TRUE(session.user.told("Can't analyse"));
  // As many windows of events as no desktop holds; refused before one of them is looked at.
  session->events.n_events = std::numeric_limits<std::int32_t>::max();
  if (!memory_can_hold(std::int64_t{16} * session->events.n_events)) {
    EXPECT_TRUE(refused(ea_events));
    EXPECT_TRUE(session.user.told("Cannot allocate memory for used_sample array"));
  }
  session->events.n_events = 0;
  EXPECT_EQ(count(ea_unit).n_values, 0) << "no clusters: empty, without a word";
  const ea_histogram h = count(ea_formula);
  EXPECT_EQ(h.count(0), 20300);
}

TEST_F(amplitude_test, DeviationsAndPeaksOfAUnit) {
  small_session busy;
  make_busy_recording(*busy, 4, 60000, 17);
  recalculate_all_templates(*busy);
  const std::int32_t unit = 1, channel = busy->templates.centre_channel(unit);
  amplitude_request of{.ea_source = ea_deviations, .unit = unit};
  amplitude_values got;
  ASSERT_TRUE(analyse_dataset(*busy, of, got));
  EXPECT_EQ(got.channel, channel);
  ASSERT_GT(got.event_uv.size(), 10u);
  EXPECT_EQ(got.histogram.n_values,
            static_cast<std::int64_t>(got.event_uv.size()) * busy->templates.template_points);
  // The template is the mean of its events: what they deviate by cancels, but for a rounding.
  double sum = 0;
  for (const float uv : got.event_uv) sum += double{uv};
  EXPECT_LT(std::fabs(sum / static_cast<double>(got.event_uv.size())), 0.5);
  EXPECT_TRUE(std::is_sorted(got.minutes.begin(), got.minutes.end()));
  // Two labels in turn share them out.
  for (std::int32_t e = 1; e <= busy->events.n_events; ++e) {
    busy->events.event_subcluster[e] = e % 3 == 0 ? 2 : 1;
  }
  of.ea_source = ea_sub_events;
  amplitude_analysis split;
  ASSERT_TRUE(analyse_amplitudes(*busy, of, split));
  ASSERT_EQ(split.values.split_labels, (std::vector<std::int16_t>{1, 2}));
  EXPECT_EQ(split.values.split[0].n_values + split.values.split[1].n_values,
            got.histogram.n_values);
  EXPECT_TRUE(std::isfinite(split.figures.levene_p));
  EXPECT_TRUE(std::isfinite(split.figures.anova_p));
  EXPECT_TRUE(busy.user.logged("ANOVA, F, p="));
  EXPECT_TRUE(std::isfinite(split.figures.q_variability));
  of.ea_source = ea_spike_peak;
  ASSERT_TRUE(analyse_dataset(*busy, of, got));
  EXPECT_EQ(sum_of(got.histogram), static_cast<std::int64_t>(got.event_uv.size()));
}

// 20,000 counts and a sigma of 30 in the middle, exponential flanks of 300 and a length of 80.
TEST_F(amplitude_test, TheKnownSetComesBack) {
  request.ea_source = ea_formula;
  request.double_gaussian = true;
  amplitude_analysis a;
  ASSERT_TRUE(analyse_amplitudes(*session, request, a));
  // The flanks lift the core a little, too.
  EXPECT_NEAR(a.fits.core.s, 30, 1);
  EXPECT_NEAR(a.fits.core.m, 0, 0.2);
  EXPECT_NEAR(a.figures.sigma_uv, a.fits.core.s / 2, 1e-4);
  // 300 exp(-x / 80) is a tenth of all at 72 bits, a little further out by the lifted core; and
  // 10.5 at 268.
  EXPECT_NEAR(a.fits.right.shoulder, 76, 4);
  const auto excess = [&](std::int32_t bin) {
    const double z = (bin - double{a.fits.core.m}) / double{a.fits.core.s};
    return static_cast<double>(a.values.histogram.count(bin)) -
           double{a.fits.core.a} * std::exp(-z * z / 2);
  };
  const auto share = [&](std::int32_t bin) {
    return excess(bin) / static_cast<double>(a.values.histogram.count(bin));
  };
  EXPECT_LT(share(a.fits.right.shoulder - 1), 0.1);
  EXPECT_GE(share(a.fits.right.shoulder), 0.1);
  EXPECT_NEAR(a.fits.left.shoulder, -a.fits.right.shoulder, 1);
  EXPECT_EQ(a.fits.right.end, 269);
  EXPECT_NEAR(a.figures.temperature_right, a.fits.right.shoulder / double{a.fits.core.s}, 1e-4);
  // The line through the logarithms, by the text book.
  double n = 0, x = 0, y = 0, xx = 0, xy = 0;
  for (std::int32_t bin = a.fits.right.shoulder; bin <= a.fits.right.end; ++bin) {
    const double log_count = std::log(static_cast<double>(a.values.histogram.count(bin)));
    n += 1;
    x += bin;
    y += log_count;
    xx += bin * bin;
    xy += bin * log_count;
  }
  EXPECT_NEAR(a.fits.right.slope, (n * xy - x * y) / (n * xx - x * x), 1e-9);
  EXPECT_NEAR(a.fits.left.slope, -a.fits.right.slope, 0.001);
  EXPECT_NEAR(a.fits.right.slope, -1 / 80.0, 0.006) << "the Gaussian has not quite gone";
  EXPECT_LT(a.fits.right.correlation, -0.94);
  EXPECT_GT(a.fits.right.decay_rate, 1 / 80.0);
  double outside = 0;
  for (std::int32_t bin = -1000; bin <= 1000; ++bin) {
    if (bin <= a.fits.left.shoulder || bin >= a.fits.right.shoulder) outside += excess(bin);
  }
  EXPECT_NEAR(a.figures.non_gaussian,
              100 * outside / static_cast<double>(a.values.histogram.n_values), 0.006);
  EXPECT_GT(a.fits.second.s, 2 * a.fits.first.s);
  const auto heads = {"Fit values =",
                      "Fit values for DG =",
                      "shoulder points=",
                      "left shoulder slope, correlation=",
                      "right shoulder slope, correlation=",
                      "Linear fit to left flank =",
                      "Linear fit to right flank =",
                      " fitexy: slope, intercept=",
                      "left flank parabolic fit, L flank fit=",
                      "R flank parabolic fit, R flank fit=",
                      "bin limits are"};
  for (const char* head : heads) EXPECT_TRUE(session.user.logged(head)) << head;
  const graph_data graph = make_amplitude_graph(a, true);
  EXPECT_EQ(graph.labels[label_legend + 1], "Gaussian");
  EXPECT_EQ(graph.labels[label_legend + 4], "right flank");
  const auto middle =
      static_cast<std::size_t>(std::find(graph.series[0].x.begin(), graph.series[0].x.end(), 0.0f) -
                               graph.series[0].x.begin());
  EXPECT_NEAR(graph.series[0].y[middle], std::log10(20300.0f), 1e-5f);
}

TEST_F(amplitude_test, APlainGaussianHasItsShouldersAtItsEnds) {
  ea_histogram h;
  for (std::int32_t bin = -60; bin <= 60; ++bin) {
    h.at(bin) = std::llround(50'000 * std::exp(-bin * bin / 288.0));
    h.n_values += h.at(bin);
  }
  std::int32_t last = 60;
  while (h.count(last) == 0) --last;
  const amplitude_fits fits = fit_amplitudes(*session, h, false);
  EXPECT_NEAR(fits.core.s, 12, 0.01);
  EXPECT_NEAR(fits.right.shoulder, last + 1, 2);
  EXPECT_EQ(fits.left.shoulder, -fits.right.shoulder);
  EXPECT_TRUE(session.user.logged("Too few points for left flank fit"));
  EXPECT_TRUE(session.user.logged("Too few points for right flank fit"));
  EXPECT_TRUE(session.user.logged("Not enough points for L flank fit"));
  EXPECT_TRUE(session.user.logged("Not enough points for R flank fit"));
  EXPECT_TRUE(std::isnan(fits.left.slope));
}

TEST_F(amplitude_test, AGaussianFarFrom0IsFittedWhole) {
  ea_histogram h;
  for (std::int32_t bin = -260; bin <= -140; ++bin) {
    h.at(bin) = std::llround(400 * std::exp(-(bin + 200) * (bin + 200) / 288.0));
  }
  curve_fit fit;
  const gaussian_core core = fit_gaussian_core(*session, h, fit);
  EXPECT_NEAR(core.m, -200, 0.1);
  EXPECT_NEAR(core.s, 12, 0.1);
}

// One bin says nothing of the width: the slopes of mean and sigma are 0 there.
TEST_F(amplitude_test, AFitThatFailsIsSaidAndItsLastValuesStand) {
  ea_histogram h;
  h.at(5) = h.n_values = 100;
  curve_fit fit;
  const gaussian_core core = fit_gaussian_core(*session, h, fit);
  EXPECT_TRUE(session.user.logged("LM error"));
  EXPECT_EQ(session.user.all_lines().find("Fit values"), std::string::npos) << "it has none";
  EXPECT_EQ(core.a, 100);
  EXPECT_EQ(core.m, h.position(5));
  EXPECT_EQ(core.s, 15);
}

TEST_F(amplitude_test, ConstantVoltagesFitNothing) {
  amplitude_analysis a;
  ASSERT_TRUE(analyse_amplitudes(*session, request, a));
  EXPECT_FALSE(a.fits.has_core);
  EXPECT_TRUE(std::isnan(a.figures.sigma_uv));
  EXPECT_FALSE(make_amplitude_graph(a, false).series[0].x.empty());
}

TEST_F(amplitude_test, TestDataHaveTheirSigma) {
  make_recording(*session, 2, 200'000, 20000, 0.5f);
  put_test_data(*session, test_data::gaussian);
  amplitude_analysis a;
  ASSERT_TRUE(analyse_amplitudes(*session, request, a));
  EXPECT_NEAR(a.figures.sigma_uv, 10, 0.15);
  EXPECT_TRUE(session->recording.recording_filtered);
  EXPECT_EQ(*std::max_element(session->recording.vd.channel(2),
                              session->recording.vd.channel(2) + 200'000),
            0);
  EXPECT_TRUE(session.user.logged("Gaussian noise with mean = 0 +- 10 uV put on channel 1"));
  const double plain = a.figures.non_gaussian;
  put_test_data(*session, test_data::exponential);
  ASSERT_TRUE(analyse_amplitudes(*session, request, a));
  EXPECT_GT(a.figures.non_gaussian, plain + 0.1) << "flanks have come";
  EXPECT_TRUE(session.user.logged("Exponential noise events added to channel 1"));
  EXPECT_FALSE(session.user.logged("Possible overflow"));
  session->recording.vscale_HP = 1e-4f;
  put_test_data(*session, test_data::exponential);
  EXPECT_TRUE(session.user.logged("Possible overflow"));
}

TEST_F(amplitude_test, TestDataAreRepeatedWithTheFilterHistory) {
  const auto make = [&] {
    make_recording(*session, 2, 50'000, 20000, 0.5f);
    std::int16_t* v = session->recording.vd.channel(1);
    for (std::int32_t t = 1; t <= 50'000; ++t) v[t] = static_cast<std::int16_t>(t % 7);
  };
  const auto samples = [&] {
    const std::int16_t* v = session->recording.vd.channel(1);
    return std::vector<std::int16_t>(v + 1, v + 50'001);
  };
  for (const test_data which :
       {test_data::second_gaussian, test_data::gaussian, test_data::exponential}) {
    make();
    session->filter_history.n_entries = 0;
    session->filter.do_temporal_smooth = true;
    ASSERT_TRUE(run_filter_steps(*session));
    put_test_data(*session, which);
    const std::vector<std::int16_t> put = samples();
    EXPECT_EQ(session->filter_history.n_entries, 2);
    make();
    EXPECT_NE(samples(), put);
    ASSERT_TRUE(repeat_filtering(*session));
    EXPECT_EQ(samples(), put) << static_cast<int>(which);
    EXPECT_TRUE(session.user.logged(" - test data: "));
    EXPECT_EQ(session->filter_history.n_entries, 2);
    session->filter.do_temporal_smooth = false;
  }
}

TEST_F(amplitude_test, TagsAndFiles) {
  const temporary_directory folder;
  std::ofstream(folder.file("tags.txt"))
      << "start end tag\n0 1.5 rest\n2,3,run more\n5 4 back\n7 8\n";
  std::vector<tagged_stretch> stretches;
  ASSERT_TRUE(read_tagged_stretches(folder.file("tags.txt"), stretches));
  ASSERT_EQ(stretches.size(), 3u);
  EXPECT_EQ(stretches[0].tag, "rest");
  EXPECT_EQ(stretches[1].to, 3);
  EXPECT_EQ(stretches[1].tag, "run");
  EXPECT_EQ(stretches[2].tag, "");
  EXPECT_FALSE(read_tagged_stretches(folder.file("none.txt"), stretches));

  small_session busy;
  make_busy_recording(*busy, 4, 60000, 17);
  recalculate_all_templates(*busy);
  amplitude_analysis a;
  ASSERT_TRUE(analyse_amplitudes(*busy, request, a));
  const auto n_lines = [&](amplitude_file which) {
    EXPECT_TRUE(write_amplitude_file(*busy, a, which, folder.file("out.dat")));
    const std::vector<char> bytes = read_bytes(folder.file("out.dat"));
    return std::count(bytes.begin(), bytes.end(), '\n');
  };
  EXPECT_EQ(n_lines(amplitude_file::measures), 1 + 4);
  EXPECT_EQ(n_lines(amplitude_file::channels_and_units), 1 + busy->clusters.n_clusters);
  const auto filled = std::count_if(a.values.histogram.counts.begin(),
                                    a.values.histogram.counts.end(), [](auto n) { return n > 0; });
  EXPECT_EQ(n_lines(amplitude_file::gaussian_residuals), 1 + filled);
  EXPECT_GT(n_lines(amplitude_file::flank_residuals), 2);
  EXPECT_TRUE(busy.user.told("Done it"));
  EXPECT_FALSE(write_amplitude_file(*busy, a, amplitude_file::measures, folder.file("no/way.dat")));
}

}  // namespace
}  // namespace kestrelvane::test
