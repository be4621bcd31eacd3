// Correlograms by known numbers and against a plain count of every pair.
#include "analysis/correlograms.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <sstream>

#include "analysis/correlogram_grid.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct correlogram_test : ::testing::Test {
  small_session session;

  correlogram_test() {
    make_recording(*session, 2, 100000, 20000);
    session->review.correlogram_bin_ms = 1.0f;
  }
  // Spikes at the given samples, of the given units, in this order in the table.
  void put_spikes(const std::vector<std::pair<int, int>>& spikes) {
    event_table& events = session->events;
    events.n_events = 0;
    session->clusters.n_clusters = 0;
    for (const auto& [time, unit] : spikes) {
      const std::int32_t e = ++events.n_events;
      events.event_time[e] = time;
      events.event_channel[e] = 1;
      events.event_cluster[e] = unit;
      session->clusters.n_clusters = std::max(session->clusters.n_clusters, unit);
    }
  }
  void put_random_spikes(int n, int units, int span, std::uint32_t seed) {
    vector_random random{seed};
    std::vector<std::pair<int, int>> spikes;
    for (int i = 0; i < n; ++i) {
      const int time = 1000 + static_cast<int>(static_cast<std::int64_t>(i) * span / n);
      // Some lie before the one in front of them.
      spikes.push_back({time + static_cast<int>((random.next() >> 16) % 60),
                        1 + static_cast<int>((random.next() >> 16) % units)});
    }
    put_spikes(spikes);
  }
  std::int32_t total(const correlogram& c) {
    return std::accumulate(c.counts.begin(), c.counts.end(), 0);
  }
};

using bin_list = decltype(correlogram::counts);

// Every reference against every later event of the table, as the method is told.
correlogram plain_correlogram(const session_state& s, std::int32_t a, std::int32_t b, float width) {
  correlogram result;
  std::vector<std::int32_t> list;
  for (const std::int32_t unit : {a, b}) {
    for (std::int32_t e = 1; e <= s.events.n_events; ++e) {
      if (s.events.event_cluster[e] == unit) list.push_back(e);
    }
  }
  const std::size_t n_a = static_cast<std::size_t>(std::count(
      s.events.event_cluster.first(), s.events.event_cluster.first() + s.events.n_events, a));
  const std::size_t stride = list.size() / 20000 + 1;
  for (std::size_t i = 0; i < list.size(); i += stride) {
    const std::int32_t reference = list[i];
    const bool of_a = i < n_a;
    for (std::int32_t e = reference + 1; e <= s.events.n_events; ++e) {
      if (s.events.event_cluster[e] != (of_a ? b : a)) continue;
      const std::int32_t samples = s.events.event_time[e] - s.events.event_time[reference];
      const float dt = static_cast<float>(of_a ? samples : -samples) * 1000.0f /
                       static_cast<float>(s.recording.sampling_frequency);
      const auto bin = static_cast<std::int32_t>((std::fabs(dt) + width / 2) / width);
      if (bin <= 50) ++result.count(dt < 0 ? -bin : bin);
    }
  }
  return result;
}

TEST_F(correlogram_test, a_pair_of_spikes_counts_where_it_lies) {
  put_spikes({{1000, 1}, {1008, 1}});  // 0.4 ms
  correlogram result = correlogram_counts(*session, 1, 1);
  EXPECT_EQ(result.count(0), 2);
  EXPECT_EQ(total(result), 2);
  put_spikes({{1000, 1}, {1012, 1}});  // 0.6 ms
  result = correlogram_counts(*session, 1, 1);
  EXPECT_EQ(result.count(1), 1);
  EXPECT_EQ(result.count(-1), 1);
  EXPECT_EQ(total(result), 2);
  // b after a is positive, whichever comes first in the table; 50.45 ms are within reach.
  put_spikes({{2000, 1}, {2009, 2}, {1991, 2}, {3009, 2}, {3010, 2}});
  result = correlogram_counts(*session, 1, 2);
  EXPECT_EQ(result.count(0), 2);
  EXPECT_EQ(result.count(50), 1);
  EXPECT_EQ(total(result), 3);
  put_spikes({{2000, 2}, {2040, 1}});
  EXPECT_EQ(correlogram_counts(*session, 1, 2).count(-2), 1);
  // A unit without spikes, and one that is not there.
  EXPECT_EQ(total(correlogram_counts(*session, 1, 1)), 0);
  EXPECT_EQ(total(correlogram_counts(*session, 1, 9)), 0);
}

TEST_F(correlogram_test, as_the_plain_form_at_any_number_of_threads) {
  for (const int n : {900, 30000, 70000}) {
    put_random_spikes(n, n < 1000 ? 3 : 2, n == 70000 ? 8000000 : 90000 * (n / 900), 7);
    for (const float width : {0.2f, 1.0f, 3.0f}) {
      if (n > 1000 && width != 1.0f) continue;
      session->review.correlogram_bin_ms = width;
      for (const auto& [a, b] : {std::pair{1, 1}, {1, 2}, {2, 1}}) {
        use_threads(*session, 1);
        const correlogram result = correlogram_counts(*session, a, b);
        if (n < 40000) {
          EXPECT_EQ(result.counts, plain_correlogram(*session, a, b, width).counts);
        }
        EXPECT_GT(total(result), 0);
        use_threads(*session, 3);
        EXPECT_EQ(correlogram_counts(*session, a, b).counts, result.counts);
      }
    }
  }
  EXPECT_EQ(correlogram_counts(*session, 1, 2).stride, 4) << "70,000 spikes";
}

TEST_F(correlogram_test, ordered_trains_are_the_plain_form_too) {
  vector_random random{17};
  for (const int n : {1, 2, 5, 4000, 21000}) {
    for (const bool ordered_table : {true, false}) {
      std::vector<std::pair<int, int>> spikes;
      int time = 1000;
      for (int i = 0; i < n; ++i) {
        // Some at one time, of one unit or of two.
        time += static_cast<int>((random.next() >> 16) % (n > 5000 ? 9 : 40));
        spikes.push_back({time, 1 + static_cast<int>((random.next() >> 16) % 3 == 0)});
      }
      // In a table that lists one unit after the other each train by itself is in order.
      if (!ordered_table) {
        std::stable_sort(spikes.begin(), spikes.end(),
                         [](const auto& x, const auto& y) { return x.second < y.second; });
      }
      put_spikes(spikes);
      session->clusters.n_clusters = 2;
      for (const auto& [a, b] : {std::pair{1, 1}, {1, 2}, {2, 1}, {2, 2}}) {
        const bin_list plain = plain_correlogram(*session, a, b, 1.0f).counts;
        for (const int threads : {1, 3}) {
          use_threads(*session, threads);
          EXPECT_EQ(correlogram_counts(*session, a, b).counts, plain) << n << ": " << a << b;
        }
        const std::vector<spike_train> trains = get_spike_trains(*session, {1, 2});
        const auto at = [](int unit) { return static_cast<std::size_t>(unit - 1); };
        EXPECT_EQ(correlograms_of_pairs(*session, trains, {{0, 1}, {at(a), at(b)}}, 1.0f)[1].counts,
                  plain);
      }
      if (n > 5000 && !ordered_table) break;
    }
  }
}

// Units of very different size, so that strides differ by pair; events out of order; pairs asked
// for from either side, some left out, and autocorrelograms among them.
TEST_F(correlogram_test, many_pairs_at_once_are_the_plain_form_too) {
  vector_random random{23};
  for (const int jitter : {1, 90, 4000}) {
    std::vector<std::pair<int, int>> spikes;
    for (int i = 0; i < 60'000; ++i) {
      const int unit = (random.next() >> 16) % 2 == 0 ? 1 : 2 + (random.next() >> 16) % 9;
      spikes.push_back({1000 + 30 * i + static_cast<int>((random.next() >> 12) % jitter), unit});
    }
    put_spikes(spikes);
    const std::vector<spike_train> trains =
        get_spike_trains(*session, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 99});
    std::vector<train_pair> pairs;
    for (std::size_t a = 0; a < trains.size(); ++a) {
      for (std::size_t b = a; b < trains.size(); ++b) {
        if (a + b == 7) continue;
        pairs.push_back((a + b) % 3 == 0 ? train_pair{b, a} : train_pair{a, b});
      }
    }
    std::vector<correlogram> first;
    for (const int threads : {1, 3}) {
      use_threads(*session, threads);
      const std::vector<correlogram> all = correlograms_of_pairs(*session, trains, pairs, 0.4f);
      for (std::size_t i = 0; i < pairs.size(); ++i) {
        const spike_train &a = trains[pairs[i].a], &b = trains[pairs[i].b];
        ASSERT_EQ(all[i].counts, correlogram_counts(*session, a, b, 0.4f).counts)
            << a.unit << " " << b.unit;
        if (i % 11 == 1 && threads == 1 && jitter < 100) {
          ASSERT_EQ(all[i].counts, plain_correlogram(*session, a.unit, b.unit, 0.4f).counts);
        }
      }
      EXPECT_EQ(all[1].stride, 2);
    }
  }
}

// What the pass over all events cannot hold is left to the form pair by pair.
TEST_F(correlogram_test, the_grid_takes_what_is_there_once) {
  put_random_spikes(4000, 8, 400'000, 5);
  std::vector<spike_train> trains = get_spike_trains(*session, {1, 2, 3, 4, 5, 6, 7, 8});
  std::vector<std::int8_t> bins(20 * 51);
  for (std::size_t i = 0; i < bins.size(); ++i) bins[i] = static_cast<std::int8_t>((i + 10) / 20);
  std::vector<train_pair> pairs;
  for (std::size_t a = 0; a < 8; ++a) {
    for (std::size_t b = a + 1; b < 8; ++b) pairs.push_back({a, b});
  }
  const auto takes = [&] {
    std::vector<correlogram> results;
    for (const auto& [a, b] : pairs) {
      correlogram result;
      result.a = trains[a].unit;
      result.b = trains[b].unit;
      result.n_a = static_cast<std::int32_t>(trains[a].times.size());
      result.n_b = static_cast<std::int32_t>(trains[b].times.size());
      results.push_back(result);
    }
    const bool taken = count_correlogram_grid(1, trains, pairs, bins, results);
    if (!taken) {
      for (const correlogram& result : results) EXPECT_EQ(total(result), 0);
    } else {
      EXPECT_EQ(results[3].counts, correlogram_counts(*session, 1, 5).counts);
    }
    return taken;
  };
  EXPECT_TRUE(takes());
  pairs.push_back({1, 0});
  EXPECT_FALSE(takes()) << "a pair from both sides";
  pairs.pop_back();
  trains[7] = trains[6];
  trains[7].unit = 8;
  EXPECT_FALSE(takes()) << "one train under two numbers";
  trains[7] = get_spike_train(*session, 8);
  bins.assign(200'000, 1);
  EXPECT_FALSE(takes()) << "each event within reach of all others";
}

TEST_F(correlogram_test, trains_gathered_together_are_those_gathered_alone) {
  put_random_spikes(3000, 5, 90000, 11);
  session->events.event_cluster[17] = -1;  // during a removal pass
  session->events.event_cluster[18] = 0;
  const std::vector<std::int32_t> units = {4, 9, 1, 5};
  const std::vector<spike_train> together = get_spike_trains(*session, units);
  ASSERT_EQ(together.size(), units.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    const spike_train alone = get_spike_train(*session, units[i]);
    EXPECT_EQ(together[i].unit, units[i]);
    EXPECT_EQ(together[i].events, alone.events);
    EXPECT_EQ(together[i].times, alone.times);
  }
  EXPECT_TRUE(together[1].events.empty()) << "no cluster";
}

TEST_F(correlogram_test, mirror_images) {
  put_random_spikes(3000, 2, 90000, 3);
  const correlogram ab = correlogram_counts(*session, 1, 2),
                    ba = correlogram_counts(*session, 2, 1);
  const correlogram aa = correlogram_counts(*session, 1, 1);
  for (std::int32_t bin = -50; bin <= 50; ++bin) {
    EXPECT_EQ(ab.count(bin), ba.count(-bin));
    EXPECT_EQ(aa.count(bin), aa.count(-bin));
  }
  // Independent trains fill the bins evenly, at the count that is told.
  session->recording.duration_mins = 90000.0f / 20000 / 60;
  const correlogram again = correlogram_counts(*session, 1, 2);
  EXPECT_NEAR(total(again) / 101.0, expected_count(again), 0.05 * expected_count(again));
  EXPECT_NEAR(count_as_rate(again, expected_count(again)), again.n_b / 4.5, 1e-3);
}

TEST_F(correlogram_test, stored_records_have_their_stamps) {
  recording_store& r = session->recording;
  r.is_continuous = false;
  r.samples_per_event = 32;
  r.electrode_type = electrode_polytrode;
  r.records_per_unit = 10;
  r.event_timestamp.reserve(100);
  const auto time_of = [](int record) { return (record - 1) * 64 + 100; };
  put_spikes({{time_of(1), 1}, {time_of(2), 1}, {time_of(3), 2}, {time_of(4), 1}});
  r.timestamp(1, 1) = 100'000;
  r.timestamp(2, 1) = 100'400;
  r.timestamp(3, 1) = 102'000;
  r.timestamp(4, 1) = 100'400;  // a second record with the same stamp
  const correlogram ab = correlogram_counts(*session, 1, 2);
  EXPECT_EQ(ab.count(2), 3) << "the sign is that of continuous recordings";
  EXPECT_EQ(total(ab), 3);
  const correlogram aa = correlogram_counts(*session, 1, 1);
  EXPECT_EQ(aa.count(0), 4) << "the two with one stamp do not count";
  EXPECT_EQ(total(aa), 4);
  EXPECT_FALSE(session.user.logged("Events out of order"));
  r.timestamp(4, 1) = 100'200;
  correlogram_counts(*session, 1, 1);
  EXPECT_TRUE(session.user.logged("Events out of order"));
  session->preferences.treat_as_continuous = true;
  EXPECT_EQ(correlogram_counts(*session, 1, 2).count(3), 1) << "64 samples at 20 kHz";
}

TEST_F(correlogram_test, widths_of_the_slider) {
  // 20 samples to the ms.
  EXPECT_FLOAT_EQ(bin_width_of_slider(*session, 1), 0.05f);
  EXPECT_FLOAT_EQ(bin_width_of_slider(*session, 19), 0.95f);
  EXPECT_FLOAT_EQ(bin_width_of_slider(*session, 20), 1.0f);
  EXPECT_FLOAT_EQ(bin_width_of_slider(*session, 21), 2.0f);
  EXPECT_EQ(bin_slider_limit(*session), 119);
  EXPECT_FLOAT_EQ(bin_width_of_slider(*session, 500), 100.0f);
  for (const std::int32_t p : {1, 7, 19, 20, 21, 119}) {
    EXPECT_EQ(slider_of_bin_width(*session, bin_width_of_slider(*session, p)), p);
  }
  float* presets = session->preferences.correlogram_binwidths;
  EXPECT_EQ(next_preset_width(*session, presets[0]), presets[1]);
  EXPECT_EQ(next_preset_width(*session, presets[2]), presets[0]);
  EXPECT_EQ(next_preset_width(*session, 0.123f), presets[0]);
}

TEST_F(correlogram_test, the_dialog_prints_what_it_shows) {
  train_correlation result;
  small_session empty;
  EXPECT_FALSE(correlate_trains(*empty, 1, 2, result));
  EXPECT_TRUE(empty.user.told("No recording data in memory", "Error "));
  put_random_spikes(40000, 2, 90000, 11);
  ASSERT_TRUE(correlate_trains(*session, 1, 2, result));
  EXPECT_EQ(result.n_first + result.n_second, 40000);
  print_train_correlation(*session, result);
  EXPECT_TRUE(session.user.logged("Units 1 and 2 cross-correlation, 1.000 ms bins"));
  EXPECT_TRUE(session.user.logged("Unit 2 autocorrelation"));
  // 101 counts of each of the three, in full lines.
  std::vector<std::string> counts;
  for (const std::string& line : session.user.lines) {
    if (line.find_first_not_of("0123456789 ") != std::string::npos) continue;
    EXPECT_LE(line.size(), 100u);
    std::istringstream words(line);
    for (std::string word; words >> word;) counts.push_back(word);
  }
  ASSERT_EQ(counts.size(), 303u);
  EXPECT_EQ(counts[202 + 50], std::to_string(result.cross.count(0)));
  const graph_data graph = make_correlogram_graph(result.cross);
  EXPECT_EQ(graph.labels[label_y_axis], "Counts per bin");
  EXPECT_EQ(graph.series[0].x.front(), -50.0f);
  EXPECT_EQ(graph.series[0].y[50], static_cast<float>(result.cross.count(0)));
  EXPECT_EQ(graph.series[4].x[0], 2.0f);
}

TEST_F(correlogram_test, intervals_and_violations) {
  put_spikes({{1000, 1}, {1010, 1}, {1040, 1}, {1100, 1}, {1080, 1}, {5000, 1}, {1041, 2}});
  // Sorted: 0.5, 1.5, 2, 1 and 195 ms.
  const interval_histogram h = count_intervals(*session, get_spike_train(*session, 1), 1.0f, 10);
  EXPECT_EQ(h.n_intervals, 5);
  EXPECT_EQ(h.below_1_ms, 1);
  EXPECT_EQ(h.below_2_ms, 3);
  EXPECT_EQ(h.counts, (std::vector<std::int32_t>{1, 2, 1, 0, 0, 0, 0, 0, 0, 0}));
  const graph_data graph = make_interval_graph(h);
  EXPECT_EQ(graph.series[0].y[1], 2.0f);
  EXPECT_EQ(graph.series[2].x[0], 2.0f) << "the refractory line";
  session->review.correlogram_bin_ms = 0.2f;
  EXPECT_EQ(count_intervals(*session, 1).counts.size(), 500u) << "100 ms";
  EXPECT_EQ(count_intervals(*session, 1).counts[2], 1) << "0.5 ms";
  session->review.correlogram_bin_ms = 50;
  EXPECT_EQ(count_intervals(*session, 1).counts.size(), 100u);
  session->review.correlogram_bin_ms = 0.001f;
  EXPECT_EQ(count_intervals(*session, 1).counts.size(), 2000u);
  EXPECT_EQ(count_intervals(*session, 7).n_intervals, 0);
  const std::vector<double> percent = refractory_violations(*session);
  ASSERT_GE(percent.size(), 3u);
  EXPECT_EQ(percent[1], 60);
  EXPECT_EQ(percent[2], 0) << "a single spike";
}

}  // namespace
}  // namespace kestrelvane::test
