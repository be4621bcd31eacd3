// The quality of units by numbers worked by hand, by planted faults, and at several threads.
#include "analysis/unit_quality.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <random>

#include "analysis/amplitude_figures.h"
#include "analysis/isolation_figures.h"
#include "analysis/train_figures.h"
#include "clustering/realignment.h"
#include "results/quality_csv.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

// ---------------------------------------------------------------- trains

TEST(train_figures, presence_counts_stretches_with_a_spike) {
  EXPECT_EQ(count_stretches(30), 10);
  EXPECT_EQ(count_stretches(3599), 59);
  EXPECT_EQ(count_stretches(0), 0);
  // Ten stretches of 20 s: 0, 1, 3 and the last, in which the rim of the recording counts.
  EXPECT_EQ(presence_ratio(std::vector<double>{1, 2, 21, 79, 200}, 200), 0.4);
  // Without data in 20..40 and most of 60..80 eight stretches are left; a gap of 9 s leaves its.
  const std::vector<time_span> gaps{{19, 41}, {61, 72}, {151, 160}};
  EXPECT_EQ(presence_ratio(std::vector<double>{1, 2, 21, 79, 200}, 200, gaps), 0.25);
  EXPECT_TRUE(std::isnan(presence_ratio({}, 0)));
  EXPECT_EQ(presence_ratio({}, 200), 0);
}

TEST(train_figures, violations_and_what_they_say_by_hand) {
  // Of four spikes within 1.2 ms, all but the double at 0.3 ms: 0-0.8, 0-1.2, 0.3-1.2.
  const std::vector<double> times = {0.0100, 0.0103, 0.0108, 0.0112, 0.5, 0.502};
  const refractory_violations_count count = count_violations(times, {0.0015, 0.00051});
  EXPECT_EQ(count.successive, 0);
  EXPECT_EQ(count.pairs, 3);
  EXPECT_EQ(count_violations(times, {0.0015, 0}).successive, 3);
  EXPECT_EQ(count_violations(times, {0.0025, 0}).successive, 4);
  // 200 f (1 - f) for these: 18 of f = 0.1; more than 50 are beyond the equation.
  EXPECT_NEAR(contamination_by_intervals(18, 10'000, 1000, {}), 0.1, 1e-9);
  EXPECT_EQ(contamination_by_intervals(51, 10'000, 1000, {}), 0.5);
  // 1 - sqrt(1 - 19 / 100), the censored 10 s being out.
  EXPECT_NEAR(contamination_by_pairs(19, 10'000, 1010, {}), 0.1, 1e-9);
  EXPECT_EQ(contamination_by_pairs(101, 10'000, 1010, {}), 1);
  EXPECT_TRUE(std::isnan(contamination_by_pairs(0, 1, 1010, {})));
}

// A neuron that is refractory for 3 ms, and spikes of others at any time.
std::vector<double> make_train(double rate, double foreign_rate, double duration) {
  std::mt19937 random(5);
  std::exponential_distribution<double> own(rate), foreign(foreign_rate);
  std::vector<double> times;
  for (double t = own(random); t < duration; t += 0.003 + own(random)) times.push_back(t);
  for (double t = foreign(random); t < duration; t += foreign(random)) times.push_back(t);
  std::sort(times.begin(), times.end());
  return times;
}

TEST(train_figures, planted_foreign_spikes_come_back) {
  constexpr double duration = 3600;
  for (const double foreign : {0.5, 1.0, 3.0}) {
    const std::vector<double> times = make_train(20, foreign, duration);
    const auto n = static_cast<std::int32_t>(times.size());
    const refractory_violations_count count = count_violations(times, {});
    const double planted = foreign * duration / n;
    EXPECT_NEAR(contamination_by_intervals(count.successive, n, duration, {}), planted, 0.02);
    EXPECT_NEAR(contamination_by_pairs(count.pairs, n, duration, {}), planted, 0.02);
  }
  const std::vector<double> clean = make_train(20, 1e-9, duration);
  EXPECT_EQ(count_violations(clean, {}).pairs, 0);
}

TEST(train_figures, near_spikes_are_those_of_the_first_train) {
  const std::vector<double> a = {1, 2, 3, 4}, b = {0.9995, 1.0004, 2.002, 4};
  EXPECT_EQ(count_near_spikes(a, b, 0.001), 2);
  EXPECT_EQ(count_near_spikes(b, a, 0.001), 3);
  EXPECT_EQ(count_near_spikes(a, {}, 0.001), 0);
}

// ---------------------------------------------------------------- heights and places

TEST(amplitude_figures, what_the_threshold_has_cut_off_is_missing) {
  std::mt19937 random(8);
  std::normal_distribution<float> height(100, 10);
  std::vector<float> whole(50'000);
  for (float& h : whole) h = height(random);
  EXPECT_LT(cutoff_of_heights(whole), 0.005);
  // Of a Gaussian below one s.d. under its mean 15.9 %, below a half 30.9 %.
  for (const auto& [limit, missing] : {std::pair{90.0f, 0.159}, std::pair{95.0f, 0.309}}) {
    std::vector<float> cut;
    std::copy_if(whole.begin(), whole.end(), std::back_inserter(cut),
                 [limit = limit](float h) { return h >= limit; });
    // Where little of the near side is left, the most frequent height is a matter of chance.
    EXPECT_NEAR(cutoff_of_heights(cut), missing, 0.06);
  }
  // The half of it that is left has its most frequent height at the rim.
  std::vector<float> half;
  std::copy_if(whole.begin(), whole.end(), std::back_inserter(half),
               [](float h) { return h >= 100; });
  EXPECT_NEAR(cutoff_of_heights(half), 0.5, 0.03);
  EXPECT_TRUE(std::isnan(cutoff_of_heights(std::vector<float>(49, 1.0f))));
  EXPECT_TRUE(std::isnan(cutoff_of_heights(std::vector<float>(60, 1.0f))));
  const height_figures figures = judge_heights({40, 60, 50});
  EXPECT_EQ(figures.median, 50);
  EXPECT_NEAR(figures.variation, 0.2, 1e-9);
}

// Spikes of one unit on the two channels of a recording of 200 s, 40 µm apart.
struct place_test : ::testing::Test {
  small_session session;
  std::vector<std::int32_t> events;
  std::vector<double> times;

  place_test() {
    make_recording(*session, 2, 200'000, 1000, 0.5f);
    template_table& t = session->templates;
    session->clusters.n_clusters = 1;
    t.template_n_channels[1] = 2;
    t.channels(1)[1] = 1;
    t.channels(1)[2] = 2;
    for (std::int32_t p = 1; p <= t.template_points; ++p) t.mean(1, 1)[p] = 0;
    t.mean(1, 1)[1 - t.first_sample] = -50;  // at the aligned time
  }
  void put_spike(std::int32_t time, int first, int second) {
    put_samples(*session, 1, time, {-first});
    put_samples(*session, 2, time, {-second});
    const std::int32_t e = ++session->events.n_events;
    session->events.event_time[e] = time;
    session->events.event_cluster[e] = 1;
    events.push_back(e);
    times.push_back(time / 1000.0);
  }
};

TEST_F(place_test, heights_are_those_of_the_samples_in_the_direction_of_the_template) {
  put_spike(1000, 80, 10);
  put_spike(2000, 60, 90);
  EXPECT_EQ(measure_heights(*session, 1, events), (std::vector<float>{40, 30}));
  session->templates.mean(1, 1)[1 - session->templates.first_sample] = 50;
  EXPECT_EQ(measure_heights(*session, 1, events), (std::vector<float>{0, 0}));
}

TEST_F(place_test, drift_is_the_way_between_stretches) {
  // Squares of 30 and 10, then of 10 and 30: from 0.1 to 0.9 of the 40 µm.
  for (int i = 0; i < 12; ++i) put_spike(1000 + 100 * i, 30, 10);
  EXPECT_TRUE(std::isnan(measure_drift(*session, 1, events, times, 200)));
  for (int i = 0; i < 12; ++i) put_spike(150'000 + 100 * i, 10, 30);
  EXPECT_NEAR(measure_drift(*session, 1, events, times, 200), 32, 1e-4);
  // Nine in a stretch are too few to be heard.
  for (int i = 0; i < 9; ++i) put_spike(100'000 + 100 * i, 0, 30);
  EXPECT_NEAR(measure_drift(*session, 1, events, times, 200), 32, 1e-4);
}

// ---------------------------------------------------------------- isolation

feature_points cloud(std::uint32_t seed, int n, float x) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal;
  feature_points points{3, {}};
  for (int i = 0; i < n; ++i) {
    // Directions of unequal spread, which the distances take out.
    points.values.insert(points.values.end(),
                         {x + normal(random), 10 * normal(random), 0.2f * normal(random)});
  }
  return points;
}

TEST(isolation_figures, distances_and_ratios_by_hand) {
  EXPECT_EQ(
      isolation_distance(std::vector<double>{9, 1, 16, 4}, std::vector<double>{2, 2, 2, 2}, 5), 9);
  EXPECT_TRUE(std::isnan(isolation_distance(std::vector<double>{9}, std::vector<double>{2}, 5)));
  // In two dimensions the probability is exp(-d / 2).
  const std::vector<double> d = {2 * std::log(4.0), 2 * std::log(10.0), 1e9};
  EXPECT_NEAR(l_ratio(d, std::vector<double>{4, 5, 1}, 3, 2), (4 * 0.25 + 5 * 0.1) / 3, 1e-6);
  // A point that lies so many standard deviations from a cloud along each axis.
  const feature_points unit = cloud(1, 20'000, 0);
  const std::vector<double> far = mahalanobis_distances(unit, {3, {4, 0, 0, 0, 30, 0, 3, 0, 0.8f}});
  ASSERT_EQ(far.size(), 3u);
  EXPECT_NEAR(far[0], 16, 0.5);
  EXPECT_NEAR(far[1], 9, 0.5);
  EXPECT_NEAR(far[2], 25, 0.8);
  // Points in a plane have no covariance that could be inverted.
  feature_points flat = unit;
  for (std::size_t i = 2; i < flat.values.size(); i += 3) flat.values[i] = 1;
  EXPECT_TRUE(mahalanobis_distances(flat, unit).empty());
  EXPECT_TRUE(std::isnan(separate(flat, flat, 1, 1).d_prime));
}

TEST(isolation_figures, two_clouds_are_as_far_apart_as_they_were_put) {
  const feature_points unit = cloud(2, 20'000, 0);
  const separation four = separate(unit, cloud(3, 20'000, 4), 100, 100);
  EXPECT_NEAR(four.d_prime, 4, 0.05);
  // Integrals of p q / (p + q) of two Gaussians so far apart, worked out numerically.
  EXPECT_NEAR(four.overlap, 0.0343, 0.004);
  EXPECT_NEAR(separate(unit, cloud(4, 20'000, 2), 100, 300).overlap, 0.366, 0.01);
  EXPECT_LT(separate(unit, cloud(5, 20'000, 0), 100, 100).d_prime, 0.1);
}

TEST(isolation_figures, nearest_neighbours_are_ones_own_or_anybodys) {
  const neighbour_rates apart = nearest_neighbour_rates(cloud(2, 300, 0), cloud(3, 700, 100));
  EXPECT_EQ(apart.hit, 1);
  EXPECT_EQ(apart.miss, 0);
  const neighbour_rates mixed = nearest_neighbour_rates(cloud(2, 900, 0), cloud(3, 900, 0));
  EXPECT_NEAR(mixed.hit, 0.5, 0.05);
  EXPECT_NEAR(mixed.miss, 0.5, 0.05);
  EXPECT_TRUE(std::isnan(nearest_neighbour_rates(cloud(2, 19, 0), cloud(3, 90, 0)).hit));
}

// ---------------------------------------------------------------- a sort

struct quality_test : ::testing::Test {
  small_session session;

  quality_test() {
    make_busy_recording(*session, 4, 200'000, 17);
    realign_all_clusters(*session);
    for (std::int32_t c = 1; c <= 4; ++c) session->recording.chan_noise[c] = 24;
  }
};

// All bits, with those of what is no number.
std::vector<std::uint64_t> bits_of(const std::vector<unit_quality>& all) {
  std::vector<std::uint64_t> bits;
  for (const unit_quality& quality : all) {
    for (const quality_figure& figure : quality_figures()) {
      bits.push_back(std::bit_cast<std::uint64_t>(quality.*figure.value));
    }
  }
  return bits;
}

TEST_F(quality_test, the_same_bits_at_any_number_of_threads_and_for_a_unit_alone) {
  const std::vector<unit_quality> all = measure_quality(*session);
  ASSERT_EQ(all.size(), 6u);
  for (const std::int32_t threads : {2, 7}) {
    use_threads(*session, threads);
    EXPECT_EQ(bits_of(measure_quality(*session)), bits_of(all)) << threads;
  }
  EXPECT_EQ(bits_of(measure_quality(*session, {5, 99})), bits_of({all[4]}));
  ASSERT_EQ(check_session(*session), "");
  session->operation.autosort_interrupt = true;
  EXPECT_TRUE(measure_quality(*session).empty());
}

TEST_F(quality_test, units_that_were_put_apart_are_found_apart) {
  for (const unit_quality& quality : measure_quality(*session)) {
    EXPECT_GT(quality.hit, 0.9) << quality.unit;
    EXPECT_LT(quality.miss, 0.1) << quality.unit;
    EXPECT_GT(quality.d_prime, 4) << quality.unit;
    EXPECT_EQ(quality.presence, 1) << quality.unit;
    EXPECT_LT(quality.cutoff, 0.1) << quality.unit;
  }
  // Half of unit 1 given to a unit of its own: the two cannot be told apart.
  session->clusters.n_clusters = 7;
  std::int32_t i = 0;
  for (std::int32_t e = 1; e <= session->events.n_events; ++e) {
    if (session->events.event_cluster[e] == 1 && ++i % 2 == 0) session->events.event_cluster[e] = 7;
  }
  realign_all_clusters(*session);
  const unit_quality half = measure_quality(*session, {7}).front();
  EXPECT_EQ(half.nearest, 1);
  EXPECT_LT(half.d_prime, 1);
  EXPECT_NEAR(half.overlap, 0.5, 0.1);
  // Its other half is one of five neighbours, of which as many points enter as of the unit.
  EXPECT_LT(half.hit, 0.85);
}

TEST_F(quality_test, a_label_follows_from_the_limits) {
  unit_quality quality;
  quality.n_events = 1000;
  quality.snr = 10;
  quality.presence = 0.95;
  quality.contamination_pairs = 0.05;
  quality.cutoff = 0.02;
  EXPECT_EQ(suggest_label(*session, quality), unit_label::good);
  const auto with = [&](double unit_quality::*figure, double value) {
    unit_quality other = quality;
    other.*figure = value;
    return suggest_label(*session, other);
  };
  EXPECT_EQ(with(&unit_quality::contamination_pairs, 0.11), unit_label::multi_unit);
  EXPECT_EQ(with(&unit_quality::presence, 0.89), unit_label::multi_unit);
  EXPECT_EQ(with(&unit_quality::cutoff, std::nan("")), unit_label::multi_unit) << "not known";
  EXPECT_EQ(with(&unit_quality::snr, 7), unit_label::multi_unit);
  EXPECT_EQ(with(&unit_quality::snr, 3.9), unit_label::noise);
  EXPECT_EQ(with(&unit_quality::snr, std::nan("")), unit_label::good) << "has no say";
  EXPECT_EQ(with(&unit_quality::n_events, 29), unit_label::noise);
}

TEST_F(quality_test, the_file_has_a_line_for_each_unit) {
  const temporary_directory folder;
  session->clusters.cluster_label[2] = unit_label::good;
  ASSERT_TRUE(write_quality_csv(*session, folder.file("q.csv")));
  const std::vector<char> bytes = read_bytes(folder.file("q.csv"));
  const std::string text(bytes.begin(), bytes.end());
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 7);
  EXPECT_EQ(text.substr(0, 34), "unit,label,events,rate_hz,presence");
  EXPECT_NE(text.find("\n2,good,"), std::string::npos);
  // As many fields in each line, empty ones too.
  EXPECT_EQ(std::count(text.begin(), text.end(), ',') % 7, 0);
  session->templates.outdated.points = 3;
  EXPECT_FALSE(write_quality_csv(*session, folder.file("other.csv")));
}

}  // namespace
}  // namespace kestrelvane::test
