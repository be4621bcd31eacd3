// The template pass on planted recordings: small ones, whose every spike is known.
#include "sorting/template_pass.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "clustering/templates.h"
#include "recording/site_tables.h"
#include "signal/noise.h"
#include "signal/tissue_motion.h"
#include "sorting/hand_overs.h"
#include "sorting/matched_trains.h"
#include "sorting/noise_tail.h"
#include "sorting/tracked_units.h"
#include "sorting/undo_state.h"
#include "sorting/unit_joins.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;
using test::use_threads;

constexpr double noise_bits = 20;

double bell(test::vector_random& random) {
  double sum = 0;
  for (int i = 0; i < 12; ++i) {
    sum += static_cast<double>(random.next() >> 8) / static_cast<double>(1 << 23) - 0.5;
  }
  return sum;
}

// A cell: a trough and what follows it, largest on one site and falling to the sides.
struct planted_cell {
  std::int32_t channel;
  double size;          // bits
  double width = 4;     // samples
  double reach = 0.45;  // of the size, one site further
  double at(std::int32_t c, double t) const {
    const double here = size * std::pow(reach, std::abs(c - channel));
    return here * (0.45 * std::exp(-std::pow((t - 2.5 * width) / (2 * width), 2)) -
                   std::exp(-std::pow(t / width, 2)));
  }
};

struct planted_spike {
  double time;
  std::int32_t cell;  // from 0
};

struct planted_session {
  small_session s;
  std::vector<planted_spike> spikes;

  planted_session(std::int32_t n_channels, std::int32_t seconds, std::uint32_t seed) {
    make_recording(*s, n_channels, seconds * 25'000);
    s->detection.noise_method = 2;
    test::vector_random random(seed);
    recording_store& r = s->recording;
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      for (std::int32_t t = 1; t <= r.n_samples; ++t) {
        r.vd.channel(c)[t] = static_cast<std::int16_t>(std::lround(noise_bits * bell(random)));
      }
    }
    compute_noise(*s);
    s->matching.template_pass = true;
  }
  void plant(const planted_cell& cell, double time, std::int32_t number) {
    recording_store& r = s->recording;
    for (std::int32_t c = 1; c <= r.n_channels; ++c) {
      for (auto t = static_cast<std::int32_t>(time) - 30; t < time + 60; ++t) {
        if (t < 1 || t > r.n_samples) continue;
        std::int16_t& v = r.vd.channel(c)[t];
        v = static_cast<std::int16_t>(std::lround(v + cell.at(c, t - time)));
      }
    }
    spikes.push_back({time, number});
  }
  // A sort that has every `each`-th spike of a cell in the cluster that cluster_of names.
  template <typename Cluster>
  void sort_known(std::int32_t each, Cluster&& cluster_of) {
    event_table& e = s->events;
    std::sort(spikes.begin(), spikes.end(),
              [](const auto& a, const auto& b) { return a.time < b.time; });
    std::int32_t n_clusters = 0;
    for (std::size_t i = 0; i < spikes.size(); ++i) {
      if (i % static_cast<std::size_t>(each) != 0) continue;
      const std::int32_t n = ++e.n_events;
      e.event_time[n] = static_cast<std::int32_t>(spikes[i].time);
      e.event_shift[n] = static_cast<float>(spikes[i].time - e.event_time[n]);
      e.event_detected_time[n] = e.event_time[n];
      e.event_channel[n] = 1;
      e.event_cluster[n] = cluster_of(spikes[i]);
      n_clusters = std::max(n_clusters, e.event_cluster[n]);
    }
    s->clusters.n_clusters = n_clusters;
    s->clusters.current_cluster = 1;
    calculate_all_templates(*s);
  }
};

// Of the planted spikes of a cell those that a cluster has within 0.1 ms.
double part_found(const planted_session& p, std::int32_t cell, std::int32_t cluster) {
  const event_table& e = p.s.state->events;
  double n = 0, found = 0;
  for (const planted_spike& spike : p.spikes) {
    if (spike.cell != cell) continue;
    ++n;
    for (std::int32_t i = 1; i <= e.n_events; ++i) {
      const double t = e.event_time[i] + static_cast<double>(e.event_shift[i]);
      if (e.event_cluster[i] == cluster && std::fabs(t - spike.time) <= 2.5) {
        ++found;
        break;
      }
    }
  }
  return found / n;
}

double regular(std::int32_t i, double step, test::vector_random& random) {
  return 3000 + i * step + 0.4 * step * bell(random) / 4;
}

TEST(TemplatePass, FindsOverlappingSpikesAndThoseThatDetectionMissed) {
  planted_session p(8, 40, 11);
  const planted_cell cells[] = {{3, 220}, {4, 160, 5}};
  test::vector_random random(3);
  for (std::int32_t i = 0; i < 300; ++i) {
    const double t = regular(i, 3300, random);
    p.plant(cells[0], t, 0);
    p.plant(cells[1], t + 1500, 1);
    // Every third pair lies 0 to 1 ms apart.
    if (i % 3 == 0) p.plant(cells[1], t + i / 3 % 26, 2);
  }
  p.sort_known(2, [](const planted_spike& spike) { return std::min(spike.cell, 1) + 1; });
  ASSERT_EQ(run_template_pass(*p.s), template_pass_end::done);
  ASSERT_EQ(p.s->clusters.n_clusters, 2);
  EXPECT_GE(part_found(p, 0, 1), 0.97);
  EXPECT_GE(part_found(p, 1, 2), 0.97);
  EXPECT_GE(part_found(p, 2, 2), 0.9) << "of overlapping ones";
  EXPECT_EQ(check_session(*p.s), "");
  // Large as planted, within the spread of their noise.
  double sum = 0, n = 0;
  for (std::int32_t e = 1; e <= p.s->events.n_events; ++e) {
    if (p.s->events.event_cluster[e] != 1) continue;
    sum += static_cast<double>(p.s->events.event_amplitude[e]);
    ++n;
  }
  EXPECT_NEAR(sum / n, 1.0, 0.03);
  // And the sort before it can be had back.
  const std::int32_t n_events = p.s->events.n_events;
  ASSERT_TRUE(restore_undo_state(*p.s, undo_owner::template_pass));
  EXPECT_LT(p.s->events.n_events, n_events);
  EXPECT_EQ(p.s->events.event_amplitude[1], 0);
}

TEST(TemplatePass, NoiseIsNoUnitHalvesAreOneAndTwoStayTwo) {
  planted_session p(8, 60, 12);
  // Two of one shape at distance 6: 36 times the noise, squared, by their sizes on one site more.
  const planted_cell cells[] = {{2, 200}, {6, 200}, {6, 200, 4, 0.62}};
  test::vector_random random(4);
  for (std::int32_t i = 0; i < 400; ++i) {
    p.plant(cells[0], regular(i, 3600, random), 0);
    p.plant(cells[1], regular(i, 3600, random) + 900, 1);
    p.plant(cells[2], regular(i, 3600, random) + 1900, 2);
    p.spikes.push_back({static_cast<double>(random.next() % 1'400'000) + 100, 3});  // of nothing
  }
  const double middle = 30 * 25'000;
  p.sort_known(1, [middle](const planted_spike& spike) {
    // The first cell in two halves, 1 and 2; the others 3 and 4; noise 5.
    return spike.cell == 0 ? (spike.time < middle ? 1 : 2) : spike.cell + 2;
  });
  ASSERT_EQ(run_template_pass(*p.s), template_pass_end::done);
  ASSERT_EQ(p.s->clusters.n_clusters, 3);
  for (std::int32_t cell = 0; cell < 3; ++cell) {
    EXPECT_GE(part_found(p, cell, cell + 1), 0.95) << cell;
  }
}

TEST(TemplatePass, FollowsAUnitThatMovesFromSiteToSite) {
  planted_session p(8, 80, 13);
  test::vector_random random(6);
  for (std::int32_t i = 0; i < 700; ++i) {
    const double t = regular(i, 2800, random);
    // From site 3 to site 4 and a half, its size on each following a bell of distance.
    const double place = 3 + 1.5 * t / (80 * 25'000.0);
    for (std::int32_t c = 1; c <= 8; ++c) {
      const double size = 260 * std::exp(-std::pow((c - place) / 1.1, 2));
      p.plant({c, size, 4, 0}, t, c == 1 ? 0 : -1);
    }
  }
  std::erase_if(p.spikes, [](const planted_spike& s) { return s.cell < 0; });
  // The sort knows the first quarter alone.
  p.sort_known(1, [](const planted_spike& spike) { return spike.time < 500'000 ? 1 : 0; });
  ASSERT_EQ(run_template_pass(*p.s), template_pass_end::done);
  ASSERT_EQ(p.s->clusters.n_clusters, 1);
  EXPECT_GE(part_found(p, 0, 1), 0.95);
}

// All in cluster 1; the second cell by `later` behind the first. Clusters that came out.
std::int32_t clusters_of_mixture(const planted_cell& a, const planted_cell& b, double later,
                                 bool in_turn = false, bool still = false) {
  planted_session p(8, 60, 31);
  if (still) {
    p.s->recording.motion.bin_s = 1;
    p.s->recording.motion.um.assign(60, 0.0f);
  }
  test::vector_random random(7);
  for (std::int32_t i = 0; i < 400; ++i) {
    const double t = regular(i, 3600, random);
    if (!in_turn || i < 200) p.plant(a, t, 0);
    // In bursts, at one distance; else anywhere.
    if (!in_turn || i >= 200)
      p.plant(b, later > 0 ? t + later : regular(i, 3600, random) + 1700, 1);
  }
  p.sort_known(1, [](const planted_spike&) { return 1; });
  EXPECT_EQ(run_template_pass(*p.s), template_pass_end::done);
  EXPECT_EQ(check_session(*p.s), "");
  if (p.s->clusters.n_clusters == 2) {
    const bool order = part_found(p, 0, 1) > part_found(p, 0, 2);
    EXPECT_GE(part_found(p, 0, order ? 1 : 2), 0.95);
    EXPECT_GE(part_found(p, 1, order ? 2 : 1), 0.95);
  }
  return p.s->clusters.n_clusters;
}

TEST(TemplatePass, TellsTwoNeuronsInOneClusterApartButNotOneThatVaries) {
  const planted_cell cell{4, 130}, other{4, 130, 4, 0.74}, smaller{4, 100};
  EXPECT_EQ(clusters_of_mixture(cell, other, 0), 2) << "two places";
  EXPECT_EQ(clusters_of_mixture(cell, smaller, 0), 1) << "two sizes";
  EXPECT_EQ(clusters_of_mixture(cell, other, 150), 1) << "the second spike of a burst";
  EXPECT_EQ(clusters_of_mixture(cell, other, 0, true), 1) << "one moment and then the other";
  const planted_cell unlike{5, 130, 4, 0.74};
  EXPECT_EQ(clusters_of_mixture(cell, unlike, 0, true), 1) << "nobody knows how the tissue moved";
  EXPECT_EQ(clusters_of_mixture(cell, unlike, 0, true, true), 2) << "too unlike, in still tissue";
  EXPECT_EQ(clusters_of_mixture(cell, other, 0, true, true), 1) << "alike, and in one place";
}

// Clusters that come of one in which a cell falls silent at half of the time and its like awakes
// two sites further, both too small to be told apart spike by spike.
std::int32_t clusters_of_small_ones(const std::vector<float>& tissue) {
  planted_session p(12, 120, 33);
  for (std::int32_t c = 1; c <= 12; ++c) {
    p.s->recording.chan_y[c] = static_cast<std::int16_t>(10 * (c - 1));
  }
  build_site_tables(*p.s);
  p.s->recording.motion.bin_s = 1;
  p.s->recording.motion.um = tissue;
  test::vector_random random(9);
  for (std::int32_t i = 0; i < 1000; ++i) {
    p.plant({i < 500 ? 5 : 7, 75, 4, 0.8}, regular(i, 2900, random), i < 500 ? 0 : 1);
  }
  p.sort_known(1, [](const planted_spike&) { return 1; });
  EXPECT_EQ(run_template_pass(*p.s), template_pass_end::done);
  if (p.s->clusters.n_clusters == 2) {
    EXPECT_GE(part_found(p, 0, 1) + part_found(p, 0, 2), 0.8);
    EXPECT_LE(std::min(part_found(p, 0, 1), part_found(p, 0, 2)), 0.05);
  }
  return p.s->clusters.n_clusters;
}

TEST(TemplatePass, SeesANeighbourTakeTheTurnOfASmallUnit) {
  std::vector<float> leap(120);
  std::fill(leap.begin() + 60, leap.end(), 20.0f);
  EXPECT_EQ(clusters_of_small_ones(std::vector<float>(120)), 2);
  EXPECT_EQ(clusters_of_small_ones(leap), 1);
}

// Clusters that come of two, one before 60 s and one after, whose cells' shapes are 0.7 alike.
std::int32_t clusters_about_a_leap(const std::vector<float>& tissue) {
  planted_session p(12, 120, 35);
  p.s->recording.motion.bin_s = 1;
  p.s->recording.motion.um = tissue;
  test::vector_random random(10);
  for (std::int32_t i = 0; i < 800; ++i) {
    const bool first = i < 400;
    p.plant({6, 180, 4, first ? 0.3 : 0.75}, regular(i, 3700, random), first ? 0 : 1);
  }
  const double leap = 60 * 25'000;
  p.sort_known(1, [leap](const planted_spike& spike) { return spike.time < leap ? 1 : 2; });
  EXPECT_EQ(run_template_pass(*p.s), template_pass_end::done);
  return p.s->clusters.n_clusters;
}

TEST(TemplatePass, JoinsWhatALeapOfTheTissueLeavesOver) {
  std::vector<float> leap(120);
  std::fill(leap.begin() + 60, leap.end(), 20.0f);
  EXPECT_EQ(clusters_about_a_leap(leap), 1);
  EXPECT_EQ(clusters_about_a_leap(std::vector<float>(120)), 2);
}

// Most of a cluster is noise that detection took for spikes; the mean of all says nothing.
TEST(TemplatePass, StartsFromTheSpikesThatStandOutOfAClusterOfNoise) {
  planted_session p(8, 60, 34);
  test::vector_random random(11);
  for (std::int32_t i = 0; i < 300; ++i) {
    p.plant({4, 150}, regular(i, 4600, random), 0);
    for (int k = 0; k < 3; ++k) {
      p.spikes.push_back({static_cast<double>(random.next() % 1'400'000) + 100, 1});
    }
  }
  p.sort_known(1, [](const planted_spike&) { return 1; });
  ASSERT_EQ(run_template_pass(*p.s), template_pass_end::done);
  ASSERT_EQ(p.s->clusters.n_clusters, 1);
  EXPECT_GE(part_found(p, 0, 1), 0.95);
  const event_table& e = p.s->events;
  std::int32_t n = 0;
  for (std::int32_t i = 1; i <= e.n_events; ++i) n += e.event_cluster[i] == 1;
  EXPECT_LE(n, 330);
}

// ---------------------------------------------------------------- sameness, interruption

struct sort_bytes {
  std::vector<std::int32_t> words;
  std::vector<float> values;
  bool operator==(const sort_bytes&) const = default;
};
sort_bytes bytes_of(const session_state& session) {
  sort_bytes out;
  const event_table& e = session.events;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    out.words.insert(out.words.end(), {e.event_time[i], e.event_channel[i], e.event_cluster[i]});
    out.values.insert(out.values.end(), {e.event_shift[i], e.event_amplitude[i], e.event_gain[i]});
  }
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    const float* mean = session.templates.mean(c, 3);
    out.values.insert(out.values.end(), mean + 1, mean + 1 + session.templates.template_points);
  }
  return out;
}

planted_session* make_pair_session() {
  auto* p = new planted_session(8, 30, 14);
  test::vector_random random(8);
  for (std::int32_t i = 0; i < 250; ++i) {
    p->plant({3, 180}, regular(i, 2900, random), 0);
    p->plant({5, 140, 5}, regular(i, 2900, random) + 30, 1);
  }
  p->sort_known(1, [](const planted_spike& spike) { return spike.cell + 1; });
  return p;
}

TEST(TemplatePass, GivesTheSameBitsAtAnyThreadCount) {
  sort_bytes first;
  for (const std::int32_t n : {1, 2, 7}) {
    const std::unique_ptr<planted_session> p(make_pair_session());
    use_threads(*p->s, n);
    ASSERT_EQ(run_template_pass(*p->s), template_pass_end::done);
    if (n == 1) first = bytes_of(*p->s);
    EXPECT_EQ(bytes_of(*p->s), first) << n;
  }
}

TEST(TemplatePass, InterruptedAtAnyPollLeavesTheSortAsItWas) {
  const std::unique_ptr<planted_session> p(make_pair_session());
  const sort_bytes before = bytes_of(*p->s);
  for (std::int64_t poll = 1;; ++poll) {
    long_operation_flags& flags = p->s->operation;
    set_interrupts(flags, false);
    flags.polls = 0;
    flags.interrupt_at_poll = poll;
    const template_pass_end end = run_template_pass(*p->s);
    ASSERT_EQ(check_session(*p->s), "");
    if (end == template_pass_end::done) break;
    EXPECT_EQ(end, template_pass_end::interrupted);
    EXPECT_EQ(bytes_of(*p->s), before) << poll;
    ASSERT_LT(poll, 100);
  }
}

TEST(TemplatePass, SearchesTheRecordingToItsEnd) {
  // A segment and two fifths of another.
  planted_session p(8, 14, 16);
  test::vector_random random(9);
  for (std::int32_t i = 0; i < 340; ++i) p.plant({4, 200}, regular(i, 1000, random), 0);
  p.sort_known(2, [](const planted_spike&) { return 1; });
  ASSERT_EQ(run_template_pass(*p.s), template_pass_end::done);
  ASSERT_EQ(p.s->clusters.n_clusters, 1);
  std::erase_if(p.spikes, [](const planted_spike& s) { return s.time < 255'000; });
  EXPECT_GE(part_found(p, 0, 1), 0.95);
}

TEST(TemplatePass, RefusesWhatItCannotSearch) {
  small_session s;
  EXPECT_EQ(run_template_pass(*s), template_pass_end::not_possible);
  make_recording(*s, 4, 1000);
  EXPECT_EQ(run_template_pass(*s), template_pass_end::not_possible);
  s->clusters.n_clusters = 1;
  s->recording.is_continuous = false;
  EXPECT_EQ(run_template_pass(*s), template_pass_end::not_possible);
}

// ---------------------------------------------------------------- parts

TEST(MatchedFilter, SolvesTheNoiseAndAnswersItsShapeWithItsEnergy) {
  planted_session p(6, 20, 15);
  const match_window window = window_for_matching(*p.s);
  EXPECT_EQ(window.before, 20);
  EXPECT_EQ(window.points, 50);
  const noise_covariance noise = measure_noise_covariance(*p.s, window.points);
  spike_shape shape;
  shape.count = 100;
  const planted_cell cell{3, 200};
  for (std::int32_t c = 1; c <= 6; ++c) {
    shape.channels.push_back(c);
    for (std::int32_t q = 0; q < window.points; ++q) {
      shape.values.push_back(static_cast<float>(cell.at(c, q - window.before) / noise_bits));
    }
  }
  unit_filter filter;
  filter.channels = filter.subtracted = shape.channels;
  make_filter(noise, shape, window, {}, filter);
  std::vector<float> back;
  multiply_by_noise(noise, filter.channels, filter.weights, back);
  const float* faded = filter.at_phase(0, window.points);
  double off = 0, all = 0;
  for (std::size_t i = 0; i < back.size(); ++i) {
    off += std::pow(static_cast<double>(back[i] - faded[i]), 2);
    all += std::pow(static_cast<double>(faded[i]), 2);
  }
  EXPECT_LT(std::sqrt(off / all), 2e-3);
  // White noise and the ridge: the energy of the shape over 1.1.
  EXPECT_NEAR(filter.energy, static_cast<double>(filter.square) / 1.1, 0.05 * filter.energy);

  // The shape alone, in the middle of nothing; scores against their plain sums.
  constexpr std::int32_t n = 300, front = 64;
  std::vector<std::vector<float>> rows(6, std::vector<float>(n + 4 * front));
  std::vector<const float*> x;
  for (std::size_t c = 0; c < 6; ++c) {
    for (std::int32_t q = 0; q < window.points; ++q) {
      rows[c][static_cast<std::size_t>(front + 150 - window.before + q)] =
          faded[c * static_cast<std::size_t>(window.points) + static_cast<std::size_t>(q)];
    }
    x.push_back(rows[c].data() + front);
  }
  std::vector<float> scores(n + 64), plain(n);
  score_stretch(filter, window, x, n, scores.data());
  for (std::int32_t t = 0; t < n; ++t) {
    float sum = 0;
    for (std::size_t r = 0; r < filter_rank; ++r) {
      for (std::int32_t q = 0; q < window.points; ++q) {
        float mixed = 0;
        for (std::size_t c = 0; c < 6; ++c) {
          mixed += filter.spatial[r * 6 + c] * x[c][t - window.before + q];
        }
        sum += filter.temporal[r * static_cast<std::size_t>(window.points) +
                               static_cast<std::size_t>(q)] *
               mixed;
      }
    }
    plain[static_cast<std::size_t>(t)] = sum;
  }
  scores.resize(n);
  EXPECT_EQ(scores, plain);
  EXPECT_EQ(std::max_element(plain.begin(), plain.end()) - plain.begin(), 150);
  EXPECT_NEAR(static_cast<double>(plain[150]), filter.energy, 1e-3 * filter.energy);
}

TEST(MatchedFilter, BelievesSmallSpikesOfUnitsThatStandOut) {
  const match_limits limits;
  // At E = 100 the score has a noise of a tenth of a spike's; 8 of it are more than 0.65.
  EXPECT_EQ(limits.least_amplitude_of(100), 0.65f);
  EXPECT_NEAR(limits.least_amplitude_of(200), 8 / std::sqrt(200.0), 1e-6);
  EXPECT_EQ(limits.least_amplitude_of(10'000), 0.5f);
  match_limits low;
  low.least_amplitude = 0.4f;
  EXPECT_EQ(low.least_amplitude_of(10'000), 0.4f) << "as set";
}

TEST(MatchedFilter, ReadsBetweenSamples) {
  std::vector<float> x(80), out(40);
  const auto wave = [](double t) { return std::sin(2 * std::numbers::pi * t * 4 / 25 + 0.3); };
  for (std::size_t t = 0; t < x.size(); ++t)
    x[t] = static_cast<float>(wave(static_cast<double>(t)));
  for (std::int32_t p = -match_half_phases; p <= match_half_phases; ++p) {
    shift_by_phase(x.data() + 20, p, 40, out.data());
    for (std::int32_t q = 0; q < 40; ++q) {
      EXPECT_NEAR(static_cast<double>(out[static_cast<std::size_t>(q)]), wave(20 + q + p / 8.0),
                  0.01)
          << p;
    }
  }
}

TEST(UnitJoins, CountsCrossingsAndFindsTheWayOfTheTissue) {
  // 25 samples to the ms: 13 to 50 apart cross, 12 and 51 do not.
  const std::vector<std::int32_t> a = {1000, 2000, 3000, 4000};
  const std::vector<std::int32_t> b = {1012, 2013, 2950, 4051};
  const train_crossing c = count_crossings(a, b, 250'000, 25'000);
  EXPECT_EQ(c.observed, 2);
  EXPECT_NEAR(c.expected, 16 * 2 * 1.5 / 10'000, 1e-9);
  EXPECT_TRUE(trains_cross({5, 2}));
  EXPECT_FALSE(trains_cross({4.9, 4}));
  EXPECT_FALSE(trains_cross({5, 1.9}));

  // Eight units that go along with a step of 8 µm, two of them seen on one side only.
  std::vector<tracked_unit> units(10);
  for (std::int32_t u = 0; u < 10; ++u) {
    units[u].filter.energy = 100;
    units[u].first_segment = u == 9 ? 3 : 0;
    for (std::int32_t s = units[u].first_segment; s < (u == 8 ? 3 : 6); ++s) {
      units[u].depths.push_back(static_cast<float>(100 * u) + (s >= 3 ? 8.0f : 0.0f));
    }
  }
  const std::vector<float> motion = find_motion(units, 6);
  EXPECT_EQ(motion, (std::vector<float>{0, 0, 0, 8, 8, 8}));
  EXPECT_EQ(home_depth(units[9], motion), 900);
}

// A cell as a column of sites reads it from a place, µm, on the channels from first to last.
spike_shape seen_from(const session_state& session, double place, std::int32_t first,
                      std::int32_t last) {
  spike_shape shape;
  for (std::int32_t c = first; c <= last; ++c) {
    const double off = (session.recording.chan_y[c] - place) / 35;
    const auto size = static_cast<float>(9 * std::exp(-0.5 * off * off));
    shape.channels.push_back(c);
    shape.values.insert(shape.values.end(), {-size, 0.4f * size});
  }
  return shape;
}

TEST(UnitJoins, NeighboursOfOneKindStandApart) {
  small_session p;
  make_recording(*p, 24, 100);
  for (std::int32_t c = 1; c <= 24; ++c) {
    p->recording.chan_y[c] = static_cast<std::int16_t>(20 * (c - 1));
  }
  tracking_rules rules;
  rules.window.points = 2;
  rules.half_ms = 0;
  const spike_shape cell = seen_from(*p, 220, 5, 20);
  const way_between up = find_way(*p, rules, cell, seen_from(*p, 250, 5, 20));
  const way_between down = find_way(*p, rules, cell, seen_from(*p, 190, 5, 20));
  EXPECT_NEAR(std::fabs(up.um), 30, 5);
  EXPECT_EQ(up.um, -down.um);
  EXPECT_TRUE(stand_apart(up, drifted_closer));
  // What a measure of movement that is off by 5 um leaves of one unit.
  EXPECT_FALSE(stand_apart(find_way(*p, rules, cell, seen_from(*p, 225, 5, 20)), 1));
  // Another waveform is nowhere much closer.
  spike_shape other = seen_from(*p, 250, 5, 20);
  for (std::size_t i = 0; i < other.values.size(); i += 2) other.values[i + 1] = -other.values[i];
  EXPECT_FALSE(stand_apart(find_way(*p, rules, cell, other), drifted_closer));
}

TEST(HandOvers, GoWithTheMovementOrNot) {
  recording_store r;
  r.sampling_frequency = 1000;
  const auto every_second = [](std::int32_t from, std::int32_t to) {
    std::vector<std::int32_t> times;
    for (std::int32_t s = from; s < to; ++s) times.push_back(1000 * s + 500);
    return times;
  };
  const auto goes_with_movement = [](const recording_store& of, const auto& earlier,
                                     const auto& later) {
    double turn_s = 0;
    const passage way = find_passage(of, earlier, later, turn_s);
    return way == passage::leap || way == passage::swing;
  };
  const std::vector<std::int32_t> before = every_second(0, 80), after = every_second(80, 160);
  EXPECT_FALSE(goes_with_movement(r, before, after)) << "nothing was measured";
  r.motion.bin_s = 1;
  // A leap of 20 µm at 80 s, and the same way in 160 s.
  std::vector<float> leap(160), slow(160), swing(160);
  std::vector<std::int32_t> low, high;
  for (std::int32_t s = 0; s < 160; ++s) {
    leap[s] = s < 80 ? 0.0f : 20.0f;
    slow[s] = 20.0f * static_cast<float>(s) / 160;
    swing[s] = 10 * std::sin(0.314f * static_cast<float>(s));
    (swing[s] < 0 ? low : high).push_back(1000 * s + 500);
  }
  r.motion.um = leap;
  EXPECT_TRUE(goes_with_movement(r, before, after));
  EXPECT_FALSE(goes_with_movement(r, every_second(0, 40), every_second(40, 160)))
      << "one gave way to the other while all stood still";
  EXPECT_FALSE(goes_with_movement(r, every_second(0, 77), every_second(83, 160)))
      << "after a gap in which anything may have happened";
  double turn_s = 0;
  r.motion.um = slow;
  EXPECT_FALSE(goes_with_movement(r, before, after));
  EXPECT_EQ(find_passage(r, before, after, turn_s), passage::none) << "from one second to the next";
  // From 76 to 84 s both are there: one unit that goes over into what it has become.
  std::vector<std::int32_t> fading = every_second(0, 76), rising = every_second(84, 160);
  for (std::int32_t s = 76; s < 84; ++s) {
    (s % 2 == 0 ? rising : fading).push_back(1000 * s + 500);
  }
  std::sort(rising.begin(), rising.end());
  EXPECT_EQ(find_passage(r, fading, rising, turn_s), passage::drift);
  EXPECT_NEAR(turn_s, 80, 4);
  EXPECT_FALSE(goes_with_movement(r, fading, rising));
  r.motion.um.assign(160, 5.0f);
  EXPECT_EQ(find_passage(r, fading, rising, turn_s), passage::none) << "nothing moved";
  r.motion.um = swing;
  EXPECT_TRUE(goes_with_movement(r, high, low));
  EXPECT_FALSE(goes_with_movement(r, before, after));

  // Both are there in every stretch of 20 s, and never in one place.
  r.motion.corrected = true;
  tracked_unit up, down, all;
  for (std::int32_t s = 0; s < 160; ++s) {
    tracked_spike spike;
    spike.time = 1000 * s + 500;
    spike.segment = s / 20;
    (swing[s] < 0 ? down : up).spikes.push_back(spike);
    all.spikes.push_back(spike);
  }
  EXPECT_GT(overlap_in_time(up, down, 8), 0.9);
  EXPECT_LT(overlap_in_place(r.motion, 1000, up, down), 0.2);
  EXPECT_TRUE(fire_in_turn(r, up, down, 8));
  EXPECT_FALSE(fire_in_turn(r, up, all, 8));
  r.motion.corrected = false;
  EXPECT_FALSE(fire_in_turn(r, up, down, 8)) << "where channels stay, place says nothing";
}

TEST(HandOvers, ComparesOnTheSitesThatSawBoth) {
  small_session p;
  make_recording(*p, 24, 100);
  recording_store& r = p->recording;
  for (std::int32_t c = 1; c <= 24; ++c) {
    r.chan_x[c] = 0;
    r.chan_y[c] = static_cast<std::int16_t>(20 * c);
    r.chan_noise[c] = 1;
  }
  EXPECT_TRUE(reads_tissue(r, 1, 20));
  EXPECT_FALSE(reads_tissue(r, 1, -20)) << "below the lowest site";
  tracking_rules rules;
  rules.window.points = 2;
  rules.half_ms = 0;
  // Largest at the end of the probe, and what is left of it when the tissue has gone by a site.
  const spike_shape whole{{1, 2, 3}, {-9, 4, -6, 2, -3, 1}, 1};
  const spike_shape rest{{1, 2, 3}, {0, 0, -6, 2, -3, 1}, 1};
  EXPECT_NEAR(likeness_where_seen(r, rules, whole, 0, rest, -20), 1, 1e-6);
  EXPECT_LT(likeness_where_seen(r, rules, whole, 0, rest, 0), 0.75);
  const spike_shape small{{1, 2, 3}, {0, 0, -2, 0.7f, -1, 0.3f}, 1};
  EXPECT_EQ(likeness_where_seen(r, rules, whole, 0, small, -20), 0) << "of another size";
  const spike_shape hidden{{1, 2}, {-9, 4, -1, 0}, 1};
  EXPECT_EQ(likeness_where_seen(r, rules, hidden, 0, rest, -20), 0) << "next to nothing is seen";
}

TEST(MatchedTrains, CollisionsOfTwoQuickTrainsAreASum) {
  // Two units on eight channels, and one that is mostly their sum.
  std::vector<tracked_unit> units(3);
  for (std::int32_t c = 1; c <= 8; ++c) {
    for (tracked_unit& unit : units) {
      unit.shape.channels.push_back(c);
      unit.filter.subtracted.push_back(c);
    }
    const float a = c <= 4 ? 5.0f : 0.0f, b = 5.0f - a;
    const auto wiggle = [&](float h) { return std::vector<float>{0, 0, -h, h / 2, 0, 0}; };
    const auto add = [&](tracked_unit& unit, std::vector<float> v, float odd) {
      v[5] += odd;
      unit.shape.values.insert(unit.shape.values.end(), v.begin(), v.end());
    };
    add(units[0], wiggle(a), 0);
    add(units[1], wiggle(b), 0);
    add(units[2], wiggle(5), 1.8f);  // a tenth of its energy is neither's
  }
  tracking_rules rules;
  rules.window.points = 6;
  rules.half_ms = 13;
  units[0].spikes.resize(6000);
  units[1].spikes.resize(5000);
  units[2].spikes.resize(120);
  // They meet 6000 * 5000 * 26 / 4,000,000 = 195 times.
  std::int32_t first = -1, second = -1;
  EXPECT_TRUE(find_sum(rules, units, 4'000'000, 2, first, second));
  EXPECT_EQ(first + second, 1);
  EXPECT_FALSE(find_sum(rules, units, 6'000'000, 2, first, second)) << "130 meetings";
  units[2].spikes.resize(150);
  EXPECT_FALSE(find_sum(rules, units, 4'000'000, 2, first, second));
}

tracked_spike spike_at(std::int32_t time) {
  tracked_spike s;
  s.time = time;
  return s;
}

// Spikes every 1000 samples from the first on.
tracked_unit regular_unit(double energy, std::int32_t first, std::size_t n) {
  tracked_unit unit;
  for (std::size_t i = 0; i < n; ++i) {
    unit.spikes.push_back(spike_at(first + 1000 * static_cast<std::int32_t>(i)));
  }
  unit.energy_sum = energy * static_cast<double>(n);
  return unit;
}

TEST(MatchedTrains, SpikesAtOneLagAfterStrongerOnesAreLeftovers) {
  tracking_rules rules;
  rules.half_ms = 15;
  std::vector<tracked_unit> units = {regular_unit(400, 1000, 200), regular_unit(100, 1400, 160)};
  // The weak one has 40 more, 4 samples after a strong one, and 20 at lags all over 1 ms.
  for (std::int32_t i = 0; i < 40; ++i)
    units[1].spikes.push_back(spike_at(1004 + 3000 * i + i % 2));
  for (std::int32_t i = 0; i < 20; ++i) {
    units[1].spikes.push_back(spike_at(130'970 + 1000 * i + 3 * i));
  }
  units[1].energy_sum = 100 * 220;
  std::sort(units[1].spikes.begin(), units[1].spikes.end(),
            [](const tracked_spike& a, const tracked_spike& b) { return a.time < b.time; });
  const std::vector<char> left = find_leftovers(rules, units, 1);
  for (std::size_t i = 0; i < left.size(); ++i) {
    const std::int32_t after = (units[1].spikes[i].time - 1000) % 1000;
    if (units[1].spikes[i].time >= 130'000) break;
    EXPECT_EQ(left[i] != 0, after < 10) << i;
  }
  const auto n = std::count(left.begin(), left.end(), 1);
  EXPECT_GE(n, 40);
  EXPECT_LE(n, 44) << "few of those that were there by chance";
  const std::vector<char> strong = find_leftovers(rules, units, 0);
  EXPECT_EQ(std::count(strong.begin(), strong.end(), 1), 0) << "a strong one is nobody's leftover";

  // A partner that comes within a millisecond, at no lag of its own, stays.
  units[1] = regular_unit(100, 1400, 0);
  for (std::int32_t i = 0; i < 200; ++i) {
    units[1].spikes.push_back(spike_at(1000 * (i + 1) + i * 7 % 61 - 30));
  }
  units[1].energy_sum = 100 * 200;
  const std::vector<char> partner = find_leftovers(rules, units, 1);
  EXPECT_EQ(std::count(partner.begin(), partner.end(), 1), 0);
}

// So many spikes as a bell has round a middle, at ratios 0.01 apart.
void add_bell(tracked_unit& unit, double n, double middle, double width, double from) {
  for (double ratio = from; ratio < 2; ratio += 0.01) {
    const double z = (ratio - middle) / width;
    const auto here = std::lround(n * 0.01 / (2.5 * width) * std::exp(-0.5 * z * z));
    for (long i = 0; i < here; ++i) {
      tracked_spike s;
      s.ratio = static_cast<float>(ratio);
      unit.spikes.push_back(s);
      unit.energy_sum += 70;
    }
  }
}

TEST(MatchedTrains, NoiseEndsBelowTheSmallerOfTwoSizes) {
  constexpr double from = 0.555;
  const auto add_noise = [&](tracked_unit& unit) {
    for (int i = 0; i < 20; ++i) {
      for (long k = std::lround(60 * std::exp(-i * 0.01 / 0.035)); k > 0; --k) {
        tracked_spike s;
        s.ratio = static_cast<float>(from) + 0.01f * static_cast<float>(i);
        unit.spikes.push_back(s);
        unit.energy_sum += 70;
      }
    }
  };
  tracked_unit two_sizes;
  add_noise(two_sizes);
  add_bell(two_sizes, 400, 0.82, 0.12, from);
  add_bell(two_sizes, 400, 1.22, 0.14, from);
  const double end = find_noise_end(two_sizes, from, 1.0);
  EXPECT_GT(end, 0.59);
  EXPECT_LT(end, 0.70);
  // Without the smaller size the noise ends where the unit begins.
  tracked_unit one_size;
  add_noise(one_size);
  add_bell(one_size, 400, 1.05, 0.14, from);
  const double later = find_noise_end(one_size, from, 0.72);
  EXPECT_GT(later, end);
  EXPECT_LT(later, 0.80);
  // A unit that strong has no noise at half of its size.
  one_size.energy_sum *= 4;
  EXPECT_EQ(find_noise_end(one_size, from, 0.72), 0);
}

TEST(MatchedTrains, CutAtTheValleyAndLeaveOneOfTwo) {
  tracked_unit unit;
  unit.filter.energy = 100;
  // Noise falling from the threshold at 0.4, spikes round 1.
  const int counts[] = {60, 40, 20, 8, 2, 0, 0, 1, 4, 12, 30, 50, 60, 50, 30, 12, 4, 1};
  for (std::size_t i = 0; i < std::size(counts); ++i) {
    for (int k = 0; k < counts[i]; ++k) {
      tracked_spike s;
      s.ratio = 0.41f + 0.05f * static_cast<float>(i);
      unit.spikes.push_back(s);
      unit.energy_sum += 100;
    }
  }
  const score_cut cut = find_cut(unit, 0.4);
  EXPECT_GT(cut.ratio, 0.6);
  EXPECT_LT(cut.ratio, 0.8);
  EXPECT_LT(cut.valley, 0.1);
  for (tracked_spike& s : unit.spikes) s.ratio = 0.45f;
  EXPECT_EQ(find_cut(unit, 0.4).valley, 1) << "no spike of the unit's size";

  tracking_rules rules;
  rules.half_ms = 13;
  std::vector<tracked_spike> spikes(4);
  const std::int32_t times[] = {100, 110, 123, 140};
  const float gains[] = {3, 5, 4, 1};
  for (std::size_t i = 0; i < 4; ++i) {
    spikes[i].time = times[i];
    spikes[i].gain = gains[i];
  }
  remove_doubles(rules, spikes);
  ASSERT_EQ(spikes.size(), 3u);
  EXPECT_EQ(spikes[0].time, 110);
  EXPECT_EQ(spikes[1].time, 123);
}

}  // namespace
}  // namespace kestrelvane
