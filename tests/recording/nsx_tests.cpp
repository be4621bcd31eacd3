// Blackrock .nsx: packets on the time axis, scales, and files that lie.
#include "recording/formats/blackrock/nsx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "operations/open_recording.h"
#include "support/blackrock_fixture.h"
#include "support/fixture_files.h"
#include "support/reader_test.h"
#include "support/samples.h"

namespace kestrelvane::test {
namespace {

struct nsx_test : reader_test {
  nsx_test() : reader_test("rec.ns5") {}

  // Points q, q + 1, ... of the file stand at first .. last on every channel; around
  // them there is nothing.
  void expect_stretch(std::int64_t first, std::int64_t last, std::int64_t q) {
    for (std::int32_t c = 1; c <= recording().n_channels; ++c) {
      const std::int16_t* v = recording().vd.channel(c);
      for (std::int64_t t = first; t <= last; ++t) {
        ASSERT_EQ(v[t], nsx_sample(c, q + t - first)) << c << " " << t;
      }
    }
  }
  void expect_silence(std::int64_t first, std::int64_t last) {
    for (std::int32_t c = 1; c <= recording().n_channels; ++c) {
      const std::int16_t* v = recording().vd.channel(c);
      for (std::int64_t t = first; t <= last; ++t) ASSERT_EQ(v[t], 0) << c << " " << t;
    }
  }
};

TEST_F(nsx_test, versions_with_packets_read_alike) {
  for (const char* magic : {"NEURALCD", "BRSMPGRP"}) {
    nsx_fixture f;
    f.magic = magic;
    ASSERT_TRUE(open(nsx_bytes(f)));
    EXPECT_EQ(recording().n_channels, 3);
    EXPECT_EQ(recording().n_samples, 20);
    EXPECT_EQ(recording().sampling_frequency, 30000);
    EXPECT_EQ(recording().vscale_HP, 0.25f);
    EXPECT_TRUE(recording().is_continuous);
    EXPECT_EQ(recording().record_date[1], 3);
    EXPECT_EQ(recording().chan_y[3], 200);
    expect_stretch(1, 20, 0);
    expect_silence(21, 1020);
    EXPECT_EQ(session->events.n_events, 0);
    EXPECT_EQ(check_session(*session), "");
  }
  for (const char* line : {"30 kS/s", "Opening Blackrock Microsystems Extended .NSx file",
                           "Warning: missing config file: assigning default channel positions",
                           "NB these will not support proper sorting"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
}

TEST_F(nsx_test, packets_go_to_the_time_of_their_stamps) {
  nsx_fixture f;
  f.period = 15;  // 2 kHz; 15 counts to a point
  f.stretches = {{114014, 10, -1}, {114015 + 450, 5, -1}};
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().n_samples, 7631 + 5);
  expect_silence(1, 7600);
  expect_stretch(7601, 7610, 0);
  expect_silence(7611, 7631);
  expect_stretch(7632, 7636, 10);
  EXPECT_FALSE(session.user.logged("run back"));
}

TEST_F(nsx_test, stamps_that_run_back_follow_the_samples_before_them) {
  nsx_fixture f;
  // A reset clock, then two packets that overlap, and a gap that is still a gap.
  f.stretches = {{100, 10, -1}, {0, 5, -1}, {113, 4, -1}, {130, 3, -1}};
  ASSERT_TRUE(open(nsx_bytes(f)));
  expect_stretch(101, 110, 0);
  expect_stretch(111, 115, 10);
  expect_stretch(116, 119, 15);
  expect_silence(120, 130);
  expect_stretch(131, 133, 19);
  EXPECT_EQ(recording().n_samples, 133);
  EXPECT_TRUE(session.user.logged("the time stamps of 2 packets run back"));
}

TEST_F(nsx_test, packets_of_one_point_on_a_clock_of_day) {
  for (const std::int32_t threads : {1, 3}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    nsx_fixture f;
    f.magic = "BRSMPGRP";
    f.resolution = 1'000'000'000;
    // A clock that is 50 ppm fast and trembles; a point is missing, then a hundred.
    std::uint64_t stamp = 1'700'000'000'000'000'000u;
    f.stretches.clear();
    for (std::int32_t k = 0; k < 6000; ++k) {
      if (k == 2500) stamp += 33'335;
      if (k == 4000) stamp += 100 * 33'335;
      f.stretches.push_back({stamp + static_cast<std::uint64_t>(k % 7 * 900), 1, -1});
      stamp += 33'335;
    }
    ASSERT_TRUE(open(nsx_bytes(f)));
    expect_stretch(1, 2500, 0);
    expect_silence(2501, 2501);
    expect_stretch(2502, 4001, 2500);
    expect_silence(4002, 4101);
    expect_stretch(4102, 6101, 4000);
    EXPECT_EQ(recording().n_samples, 6101);
    EXPECT_TRUE(session.user.logged("times count from 1700000000000000000"));
    EXPECT_FALSE(session.user.logged("run back"));
    // The same with a packet of several points among them, and one that ends the file early.
    f.stretches[3000].n_points = 4;
    f.stretches.resize(3001);
    f.stretches[3000].stated = 5;
    ASSERT_TRUE(open(nsx_bytes(f)));
    EXPECT_EQ(recording().n_samples, 3005);
    expect_stretch(2502, 3005, 2500);
    EXPECT_TRUE(session.user.logged("A packet of 5 points is cut by the end of the file"));
  }
}

TEST_F(nsx_test, many_packets_in_blocks_read_alike_on_all_threads) {
  nsx_fixture f;
  f.channels.resize(20, {.id = 1});
  std::uint64_t stamp = 0;
  f.stretches.clear();
  // Short ones, and one of more than a block.
  for (const std::int64_t n : {3, 1, 1, 1, 40000, 2, 1, 500}) {
    f.stretches.push_back({stamp, n, -1});
    stamp += static_cast<std::uint64_t>(n) + 11;
  }
  for (const std::int32_t threads : {1, 2, 5}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    ASSERT_TRUE(open(nsx_bytes(f)));
    std::int64_t q = 0;
    for (const nsx_stretch& s : f.stretches) {
      const auto first = static_cast<std::int64_t>(s.stamp) + 1;
      expect_stretch(first, first + s.n_points - 1, q);
      expect_silence(first + s.n_points, first + s.n_points + 10);
      q += s.n_points;
    }
  }
}

TEST_F(nsx_test, counts_that_are_not_stated_or_not_true) {
  nsx_fixture f;
  // An empty packet in between; the last one never closed.
  f.stretches = {{0, 10, -1}, {50, 0, 0}, {60, 3, -1}, {70, 8, 0}};
  ASSERT_TRUE(open(nsx_bytes(f)));
  expect_stretch(1, 10, 0);
  expect_stretch(61, 63, 10);
  expect_stretch(71, 78, 13);
  EXPECT_EQ(recording().n_samples, 78);
  EXPECT_TRUE(session.user.logged("The last packet does not state its points"));
  f.stretches = {{0, 10, 0x7FFFFFFF}};
  f.tail_bytes = 5;  // not a whole point
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().n_samples, 10);
  EXPECT_TRUE(session.user.logged("is cut by the end of the file"));
  // What follows the packets is none.
  f.stretches = {{0, 10, -1}};
  f.tail_bytes = 200;
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().n_samples, 10);
  EXPECT_TRUE(session.user.logged("200 bytes behind the last packet were not read"));
}

TEST_F(nsx_test, channels_of_other_scales_are_rescaled) {
  nsx_fixture f;
  f.channels = {{.id = 1},                                              // 0.25 µV
                {.id = 2, .bits = 32000, .analog = 4800},               // 0.15
                {.id = 3, .bits = 32000, .analog = 80, .units = "mV"},  // 2.5
                {.id = 4, .bits = 0, .analog = 100}};                   // none
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().vscale_HP, 0.25f);
  std::int32_t n_limited = 0;
  for (std::int64_t t = 1; t <= 20; ++t) {
    EXPECT_EQ(recording().vd.channel(1)[t], nsx_sample(1, t - 1));
    const double second = nsx_sample(2, t - 1) * 0.6;
    EXPECT_EQ(recording().vd.channel(2)[t], static_cast<std::int16_t>(second)) << second;
    EXPECT_EQ(recording().vd.channel(3)[t], 10 * nsx_sample(3, t - 1));
    EXPECT_EQ(recording().vd.channel(4)[t], nsx_sample(4, t - 1));
  }
  EXPECT_TRUE(session.user.logged("1 channels have no voltage scaling"));
  EXPECT_FALSE(session.user.logged("limited"));
  f.channels[2].analog = 800;
  ASSERT_TRUE(open(nsx_bytes(f)));
  for (std::int64_t t = 1; t <= 20; ++t) {
    const std::int32_t wide = 100 * nsx_sample(3, t - 1);
    const std::int32_t limited = std::clamp(wide, -32768, 32767);
    EXPECT_EQ(recording().vd.channel(3)[t], limited);
    n_limited += wide != limited;
  }
  EXPECT_TRUE(
      session.user.logged("Warning: " + std::to_string(n_limited) + " samples were limited"));
  f.channels[0].bits = 0;
  EXPECT_FALSE(open(nsx_bytes(f)));
  EXPECT_TRUE(session.user.logged("Error opening Blackrock Microsystems NSx file (Utah array)"));
  EXPECT_TRUE(session.user.told("Error reading .nsx file", "Open a recording file"));
  expect_empty();
}

TEST_F(nsx_test, a_configuration_maps_channels) {
  const std::string config = "Array\n1 2 0 0\n3 1 0 400\n4 3 0 800\n";
  write_bytes(folder.file("electrode.cfg"), {config.begin(), config.end()});
  nsx_fixture f;
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().n_channels, 3);
  for (std::int64_t t = 1; t <= 20; ++t) {
    EXPECT_EQ(recording().vd.channel(1)[t], nsx_sample(3, t - 1));
    EXPECT_EQ(recording().vd.channel(2)[t], nsx_sample(1, t - 1));
    EXPECT_EQ(recording().vd.channel(3)[t], 0);
  }
  EXPECT_EQ(recording().chan_y[1], 400);
  EXPECT_FALSE(session.user.logged("missing config file"));
}

TEST_F(nsx_test, version_2_1_has_a_header_of_its_own) {
  nsx_fixture f;
  f.magic = "NEURALSG";
  f.period = 30;
  f.channels = {{.id = 3}, {.id = 129}, {.id = 4}};
  f.tail_bytes = 1;
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().n_samples, 20);
  EXPECT_EQ(recording().sampling_frequency, 1000);
  EXPECT_EQ(recording().vscale_HP, 1.0f);
  expect_stretch(1, 20, 0);
  EXPECT_TRUE(session.user.logged("The voltage scaling is not known: 1 uV/bit is assumed"));
  // The scales stand in the .nev file; that of analogue inputs is too large for its field.
  nev_fixture scales;
  scales.electrodes = {{3, 500}, {129, 21516}};
  write_bytes(folder.file("rec.nev"), nev_bytes(scales));
  ASSERT_TRUE(open(nsx_bytes(f)));
  EXPECT_TRUE(session.user.logged("Voltage scaling taken from rec.nev"));
  EXPECT_EQ(recording().vscale_HP, 0.5f);
  for (std::int64_t t = 1; t <= 20; ++t) {
    const double wide = nsx_sample(2, t - 1) * 152.592547 / 0.5;
    EXPECT_EQ(recording().vd.channel(2)[t], std::clamp(std::trunc(wide), -32768.0, 32767.0));
    EXPECT_EQ(recording().vd.channel(3)[t], nsx_sample(3, t - 1));
  }
}

// --- files that lie

TEST_F(nsx_test, cut_files_are_read_as_far_as_they_go_or_refused) {
  for (const char* magic : {"NEURALCD", "BRSMPGRP", "NEURALSG"}) {
    nsx_fixture f;
    f.magic = magic;
    f.stretches = {{0, 6, -1}, {20, 6, -1}};
    const std::vector<char> bytes = nsx_bytes(f);
    const bool is_old = f.magic == "NEURALSG";
    const std::size_t data = is_old ? 32 + 4 * 3 : 314 + 66 * 3;
    const std::size_t head = is_old ? 0 : f.magic == "BRSMPGRP" ? 13 : 9;
    for (std::size_t n = 0; n < bytes.size(); n += n + 30 < data ? 29 : 1) {
      const bool opened = open({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)});
      ASSERT_EQ(opened, n >= data + head + 6) << magic << " " << n;
      if (opened) {
        EXPECT_EQ(check_session(*session), "");
      } else {
        expect_empty();
        ASSERT_TRUE(session.user.told("Error reading .nsx file")) << n;
      }
    }
  }
}

TEST_F(nsx_test, impossible_headers_are_refused) {
  const nsx_fixture f;
  const std::vector<char> good = nsx_bytes(f);
  const std::vector<std::pair<std::size_t, std::vector<std::int32_t>>> bad = {
      {286, {0, -1, 30001}},        // period
      {290, {0}},                   // resolution
      {310, {0, -1, 4097, 1000}}};  // channels
  for (const auto& [offset, values] : bad) {
    for (const std::int32_t value : values) {
      EXPECT_FALSE(open(with_i32(good, offset, value))) << offset << " " << value;
      expect_empty();
    }
  }
  // The place of the data follows from the channels unless the header has room to spare.
  for (const std::int32_t stated : {0, -1, 400, 1 << 30}) {
    ASSERT_TRUE(open(with_i32(good, 10, stated))) << stated;
    EXPECT_TRUE(session.user.logged("Size of headers in file is"));
    expect_stretch(1, 20, 0);
  }
  std::vector<char> longer = with_i32(good, 10, 314 + 66 * 3 + 10);
  longer.insert(longer.begin() + 314 + 66 * 3, 10, 'x');
  ASSERT_TRUE(open(longer));
  expect_stretch(1, 20, 0);
  std::vector<char> other = good;
  other[7] = 'X';
  EXPECT_FALSE(open(other));
  nsx_fixture late;
  late.magic = "BRSMPGRP";
  late.stretches = {{~std::uint64_t{0}, 5, -1}};
  EXPECT_FALSE(open(nsx_bytes(late)));
  expect_empty();
  nsx_fixture old;
  old.magic = "NEURALSG";
  for (const std::int32_t n : {0, -1, 4097, 1000}) {
    EXPECT_FALSE(open(with_i32(nsx_bytes(old), 28, n))) << n;
    expect_empty();
  }
}

TEST_F(nsx_test, an_interrupted_read_leaves_an_empty_session) {
  for (const std::int64_t poll : {1, 2}) {
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = poll;
    EXPECT_FALSE(open(nsx_bytes({})));
    EXPECT_TRUE(session.user.logged("Reading interrupted"));
    EXPECT_FALSE(session.user.logged("Error"));
    expect_empty();
  }
}

// --- real recordings

struct real_nsx {
  const char* path;
  std::int32_t n_channels, rate, n_samples, first_index;
  float scale;
  std::vector<int> first;  // of channel 1
};

TEST_F(nsx_test, real_recordings_read_as_others_read_them) {
  const real_nsx samples[] = {
      {"blackrock/blackrock_2_1/l101210-001.ns2",
       6,
       1000,
       3641,
       1,
       152.592547f,
       {137, 125, 110, 105, 102}},
      {"blackrock/segment/PauseCorrect/pause_correct.ns2",
       16,
       1000,
       35008,
       1,
       152.5925f,
       {20701, 20713, 20728, 20708, 20673}},
      {"blackrock/mne_nsx/Test_anonymized.ns3",
       5,
       2000,
       7700,
       7601,
       0.25f,
       {-11, -18, -14, -41, -50}},
      {"blackrock/mne_nsx/test_NEURALCD_raw.ns3", 128, 2000, 100, 1, 610.3516f, {1, 1, 1}},
      {"blackrock/mne_nsx/test_BRSMPGRP_raw.ns3", 128, 2000, 300, 1, 610.3516f, {1, 1, 1}},
  };
  std::int32_t n_found = 0;
  for (const real_nsx& sample : samples) {
    const std::string file = sample_path(sample.path);
    if (file.empty()) continue;
    ++n_found;
    ASSERT_TRUE(open_recording(*session, file)) << sample.path;
    EXPECT_EQ(recording().n_channels, sample.n_channels) << sample.path;
    EXPECT_EQ(recording().sampling_frequency, sample.rate);
    EXPECT_EQ(recording().n_samples, sample.n_samples) << sample.path;
    EXPECT_NEAR(recording().vscale_HP, sample.scale, 1e-3);
    const std::int16_t* v = recording().vd.channel(1) + sample.first_index;
    EXPECT_EQ(std::vector<int>(v, v + sample.first.size()), sample.first) << sample.path;
    EXPECT_EQ(v[-1], 0);
  }
  if (n_found == 0) GTEST_SKIP() << "no real recordings on this machine";
}

}  // namespace
}  // namespace kestrelvane::test
