// Movement of the tissue: found in spikes whose depths are known, and taken out of samples whose
// field is.
#include "signal/tissue_motion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "recording/site_tables.h"
#include "signal/filter_chain.h"
#include "signal/noise.h"
#include "support/small_session.h"

namespace kestrelvane {
namespace {

using test::make_recording;
using test::small_session;
using test::use_threads;

constexpr std::int32_t frequency = 10'000;
constexpr double noise_bits = 10;

double part_of(test::vector_random& random) {
  return static_cast<double>(random.next() >> 8) / static_cast<double>(1 << 23);
}

double bell(test::vector_random& random) {
  double sum = -6;
  for (int i = 0; i < 12; ++i) sum += part_of(random);
  return sum;
}

// Two staggered columns, rows 20 µm apart, noise on all sites.
void make_probe(session_state& session, std::int32_t n_channels, std::int32_t seconds,
                std::int32_t pitch = 20) {
  make_recording(session, n_channels, seconds * frequency, frequency);
  recording_store& r = session.recording;
  test::vector_random random(5);
  for (std::int32_t c = 1; c <= n_channels; ++c) {
    constexpr std::int16_t columns[4] = {43, 11, 59, 27};
    r.chan_x[c] = columns[(c - 1) % 4];
    r.chan_y[c] = static_cast<std::int16_t>(pitch * ((c - 1) / 2));
    for (std::int32_t t = 1; t <= r.n_samples; ++t) {
      r.vd.channel(c)[t] = static_cast<std::int16_t>(std::lround(noise_bits * bell(random)));
    }
  }
  build_site_tables(session);
  session.detection.noise_method = 2;
  compute_noise(session);
}

struct source {
  double x, y, z, size;  // µm; bits at 20 µm
};

// A trough of 1 ms, its size falling with the square of the distance.
void plant(session_state& session, const source& from, double shift_um, std::int32_t time) {
  recording_store& r = session.recording;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    const double dx = r.chan_x[c] - from.x, dy = r.chan_y[c] - from.y - shift_um;
    const double size = from.size * 400 / (dx * dx + dy * dy + from.z * from.z);
    for (std::int32_t k = -8; k <= 8; ++k) {
      std::int16_t& v = r.vd.channel(c)[time + k];
      v = static_cast<std::int16_t>(std::lround(v - size * std::exp(-k * k / 12.0)));
    }
  }
}

TEST(SpikePlaces, ArisesWhereTheSourceIs) {
  small_session s;
  make_probe(*s, 32, 3);
  std::vector<double> planted;
  for (std::int32_t i = 0; i < 20; ++i) {
    const double y = 60 + 9.7 * i;
    plant(*s, {30.0 + i % 3, y, 15.0 + i % 5, 250}, 0, 800 + 1400 * i);
    planted.push_back(y);
  }
  const std::vector<spike_place> found = find_spike_places(*s);
  ASSERT_EQ(found.size(), planted.size());
  double square = 0;
  for (std::size_t i = 0; i < planted.size(); ++i) {
    EXPECT_NEAR(found[i].time, 800 + 1400 * static_cast<int>(i), 1);
    EXPECT_NEAR(found[i].depth, planted[i], 8);
    square += std::pow(static_cast<double>(found[i].depth) - planted[i], 2) / 20;
  }
  EXPECT_LT(std::sqrt(square), 4);
  // The same on any number of threads, and none on a channel that is masked.
  use_threads(*s, 3);
  const std::vector<spike_place> threaded = find_spike_places(*s);
  ASSERT_EQ(threaded.size(), found.size());
  for (std::size_t i = 0; i < found.size(); ++i) EXPECT_EQ(threaded[i].depth, found[i].depth);
  for (std::int32_t c = 1; c <= 32; ++c) s->recording.chan_mask[c] = true;
  EXPECT_TRUE(find_spike_places(*s).empty());
}

// Twenty cells, one after the other, the tissue so far up. Current that has gone in at one place
// comes out at another: no point source fits them.
void make_sources(session_state& session, double shift_um) {
  make_probe(session, 32, 3);
  for (std::int32_t i = 0; i < 20; ++i) {
    const double x = 20.0 + 2 * (i % 15), y = 60 + 9.7 * i, z = 24.0 + i % 5;
    plant(session, {x, y, z, 500}, shift_um, 800 + 1400 * i);
    plant(session, {x, y + 40, z + 20, -500}, shift_um, 800 + 1400 * i);
  }
}

TEST(SpikePlaces, AreThoseOfStillTissueWhenItsWayIsKnown) {
  constexpr std::int32_t way = 14;
  small_session still, gone;
  make_sources(*still, 0);
  make_sources(*gone, way);
  const std::vector<spike_place> home = find_spike_places(*still), seen = find_spike_places(*gone);
  ASSERT_EQ(home.size(), 20u);
  ASSERT_EQ(seen.size(), 20u);
  const std::vector<std::int32_t> ways(seen.size(), way);
  const std::vector<spike_place> again = place_again(*gone, seen, ways);
  const auto error_of = [&](const std::vector<spike_place>& places) {
    double square = 0;
    for (std::size_t i = 0; i < home.size(); ++i) {
      const auto off = static_cast<double>(places[i].depth - home[i].depth) - way;
      square += off * off / static_cast<double>(home.size());
    }
    return std::sqrt(square);
  };
  EXPECT_LT(error_of(again), error_of(seen));
  EXPECT_LT(error_of(again), 1.5);
  use_threads(*gone, 3);
  const std::vector<spike_place> threaded = place_again(*gone, seen, ways);
  for (std::size_t i = 0; i < again.size(); ++i) {
    EXPECT_EQ(threaded[i].depth, again[i].depth);
    EXPECT_EQ(threaded[i].across, again[i].across);
  }
  EXPECT_TRUE(place_again(*gone, {}, {}).empty());
}

struct seen_cell {
  double depth, height, across;
  double from = 0, to = 1e9;  // s, between which it fires
};

std::vector<seen_cell> cells_of(test::vector_random& random, int n) {
  std::vector<seen_cell> cells;
  for (int i = 0; i < n; ++i) {
    cells.push_back({330 * part_of(random), 7 + 20 * part_of(random), 70 * part_of(random)});
  }
  return cells;
}

// Each spike of a cell drawn by lot, seen with an error of some µm; none where that one is silent.
template <typename Way>
std::vector<spike_place> spikes_of(const std::vector<seen_cell>& cells, double seconds,
                                   double per_second, Way&& way) {
  test::vector_random random(17);
  std::vector<spike_place> out;
  const auto n = static_cast<int>(seconds * per_second);
  for (int i = 0; i < n; ++i) {
    const double t = seconds * i / n;
    const seen_cell& cell = cells[random.next() % cells.size()];
    if (t < cell.from || t >= cell.to) continue;
    out.push_back({1 + static_cast<std::int32_t>(t * frequency),
                   static_cast<float>(cell.depth + way(t) + 4 * bell(random)),
                   static_cast<float>(cell.height * (1 + 0.06 * bell(random))),
                   static_cast<float>(cell.across + 3 * bell(random))});
  }
  return out;
}

// Largest error but for one in twenty, the constant taken out.
template <typename Way>
double error_of(const tissue_motion& motion, double seconds, Way&& way) {
  std::vector<double> off;
  double mean = 0;
  for (double t = 0.5; t < seconds; ++t) {
    off.push_back(motion_at(motion, t) - way(t));
    mean += off.back() / seconds;
  }
  for (double& x : off) x = std::fabs(x - mean);
  std::sort(off.begin(), off.end());
  return off[off.size() * 19 / 20];
}

TEST(TissueMotion, IsFoundSlowFastAndSudden) {
  constexpr double seconds = 120;
  test::vector_random random(11);
  const std::vector<seen_cell> cells = cells_of(random, 25);
  const auto measured = [&](auto way, double rate) {
    return measure_motion(spikes_of(cells, seconds, rate, way),
                          static_cast<std::int64_t>(seconds * frequency), frequency, 1);
  };
  const auto still = [](double) { return 0.0; };
  const auto slow = [](double t) { return 30 * t / 120; };
  const auto fast = [](double t) { return 10 * std::sin(2 * std::numbers::pi * t / 20); };
  const auto jump = [](double t) { return t < 53 ? 0.0 : 40.0; };
  EXPECT_FALSE(measured(still, 150).moved);
  EXPECT_LT(measured(still, 150).range, 3);
  EXPECT_FALSE(measured(still, 15).moved) << "of few spikes";
  for (const double rate : {150.0, 15.0}) {
    const tissue_motion m = measured(slow, rate);
    EXPECT_TRUE(m.moved) << rate;
    EXPECT_LT(error_of(m, seconds, slow), 2.5) << rate;
  }
  EXPECT_TRUE(measured(fast, 150).moved);
  EXPECT_LT(error_of(measured(fast, 150), seconds, fast), 2.5);
  EXPECT_TRUE(measured(jump, 150).moved);
  EXPECT_LT(error_of(measured(jump, 150), seconds, jump), 2.5);
  EXPECT_NEAR(measured(jump, 150).range, 40, 3);
}

// Most cells make way for one of their own kind farther up while the tissue goes down, or stays: to
// all spikes together it looks as if it went up.
TEST(TissueMotion, IsThatOfCellsThatStayAndNotOfThoseThatTakeOver) {
  constexpr double seconds = 160;
  const auto down = [](double t) { return -20 * t / seconds; };
  const auto still = [](double) { return 0.0; };
  for (const std::uint32_t seed : {31u, 32u, 33u}) {
    test::vector_random random(seed);
    std::vector<seen_cell> cells = cells_of(random, 15);
    for (std::size_t i = 0; i < 10; ++i) {
      cells[i].to = seconds * (0.35 + 0.3 * part_of(random));
      cells.push_back(cells[i]);
      cells.back().depth += 20;
      cells.back().from = cells[i].to;
      cells.back().to = seconds;
    }
    const auto measured = [&](auto way) {
      return measure_motion(spikes_of(cells, seconds, 250, way),
                            static_cast<std::int64_t>(seconds * frequency), frequency, 1);
    };
    EXPECT_TRUE(measured(down).moved) << seed;
    EXPECT_LT(error_of(measured(down), seconds, down), 3) << seed;
    EXPECT_FALSE(measured(still).moved) << seed;
  }
}

TEST(TissueMotion, IsNoneOfNothing) {
  EXPECT_TRUE(measure_motion({}, 100'000, frequency, 1).um.empty());
  EXPECT_EQ(motion_at({}, 3), 0);
  const std::vector<spike_place> one{{5000, 100, 9, 30}};
  EXPECT_FALSE(measure_motion(one, 300'000, frequency, 1).moved);
  // Noise that passes the level anywhere, rarely and often.
  for (const double rate : {1.5, 15.0, 150.0}) {
    test::vector_random random(3);
    std::vector<spike_place> noise;
    for (int i = 0; i < 160 * rate; ++i) {
      noise.push_back({1 + static_cast<std::int32_t>(i * frequency / rate),
                       static_cast<float>(330 * part_of(random)),
                       static_cast<float>(6 + part_of(random)),
                       static_cast<float>(70 * part_of(random))});
    }
    EXPECT_FALSE(measure_motion(noise, 160 * frequency, frequency, 1).moved) << rate;
  }
  // On a line between places, and the outermost beyond them.
  tissue_motion m;
  m.bin_s = 2;
  m.um = {0, 4};
  EXPECT_EQ(motion_at(m, 0.2), 0);
  EXPECT_DOUBLE_EQ(motion_at(m, 2), 2);
  EXPECT_EQ(motion_at(m, 9), 4);
}

TEST(TissueMotion, NeedsSitesThatLieClose) {
  small_session s;
  EXPECT_FALSE(can_follow_motion(*s));
  make_probe(*s, 32, 1);
  EXPECT_TRUE(can_follow_motion(*s));
  s->recording.is_continuous = false;
  EXPECT_FALSE(can_follow_motion(*s));
  small_session wide, few;
  make_probe(*wide, 32, 1, 50);
  EXPECT_FALSE(can_follow_motion(*wide));
  make_probe(*few, 12, 1);
  EXPECT_FALSE(can_follow_motion(*few));
}

// Twelve cells, the tissue 30 µm higher from half time on.
void make_jump(session_state& session) {
  constexpr std::int32_t seconds = 40;
  make_probe(session, 32, seconds);
  test::vector_random random(23);
  std::vector<source> cells;
  for (int i = 0; i < 12; ++i) {
    cells.push_back(
        {15 + 40 * part_of(random), 30 + 22.0 * i, 24 + 8 * part_of(random), 300 + 20.0 * i});
  }
  for (std::int32_t i = 0; i < seconds * 100 - 1; ++i) {
    const std::int32_t t = 60 + 100 * i;
    plant(session, cells[static_cast<std::size_t>(i) % 12], t < 20 * frequency ? 0 : 30, t);
  }
  compute_noise(session);
}

// The trough of each channel in the mean over cells' spikes of one half, in bits.
std::vector<double> profile(const session_state& session, std::int32_t from_s, std::int32_t to_s) {
  const recording_store& r = session.recording;
  std::vector<double> out;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    double sum = 0;
    for (std::int32_t t = from_s * frequency + 60; t < to_s * frequency; t += 100) {
      sum -= r.vd.channel(c)[t];
    }
    out.push_back(sum / (100.0 * (to_s - from_s)));
  }
  return out;
}

double difference(const std::vector<double>& a, const std::vector<double>& b) {
  double square = 0, all = 0;
  // Not the ends: there is nothing to read beyond them.
  for (std::size_t i = 4; i + 4 < a.size(); ++i) {
    square += (a[i] - b[i]) * (a[i] - b[i]);
    all += a[i] * a[i];
  }
  return std::sqrt(square / all);
}

TEST(TissueMotion, ChannelsFollowTheTissueInTheSameBitsEachTime) {
  small_session s;
  make_jump(*s);
  const double before = difference(profile(*s, 2, 18), profile(*s, 22, 38));
  s->recording.chan_mask[9] = true;
  const std::vector<std::int16_t> masked(s->recording.vd.channel(9) + 1,
                                         s->recording.vd.channel(9) + 1 + s->recording.n_samples);
  s->filter.do_correct_motion = true;
  ASSERT_TRUE(run_filter_steps(*s));
  EXPECT_NEAR(s->recording.motion.range, 30, 1.5);
  EXPECT_TRUE(s->recording.motion.corrected);
  EXPECT_TRUE(s.user.logged("moves by "));
  EXPECT_LT(difference(profile(*s, 2, 18), profile(*s, 22, 38)), 0.4 * before);
  EXPECT_TRUE(std::equal(masked.begin(), masked.end(), s->recording.vd.channel(9) + 1));

  // A work file has the history alone.
  small_session again;
  make_jump(*again);
  use_threads(*again, 3);
  again->recording.chan_mask[9] = true;
  again->filter_history = s->filter_history;
  ASSERT_TRUE(repeat_filtering(*again));
  for (std::int32_t c = 1; c <= 32; ++c) {
    const std::int16_t* v = s->recording.vd.channel(c) + 1;
    ASSERT_TRUE(std::equal(v, v + s->recording.n_samples, again->recording.vd.channel(c) + 1)) << c;
  }
}

TEST(TissueMotion, LeavesStillTissueAsItIs) {
  small_session s;
  make_probe(*s, 32, 20);
  test::vector_random random(29);
  for (std::int32_t i = 0; i < 1999; ++i) {
    const auto cell = random.next() % 12;
    plant(*s, {20.0 + cell, 30.0 + 22 * cell, 15, 250}, 0, 60 + 100 * i);
  }
  const std::vector<std::int16_t> before(s->recording.vd.channel(5) + 1,
                                         s->recording.vd.channel(5) + 1 + s->recording.n_samples);
  s->filter.do_correct_motion = true;
  ASSERT_TRUE(run_filter_steps(*s));
  EXPECT_FALSE(s->recording.motion.corrected);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), s->recording.vd.channel(5) + 1));
}

}  // namespace
}  // namespace kestrelvane
