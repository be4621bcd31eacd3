// Plexon files written: new ones, and an opened one again with other units.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "operations/open_recording.h"
#include "recording/formats/plexon/plx.h"
#include "results/exports.h"
#include "session/template_window.h"
#include "support/full_device.h"
#include "support/plx_fixture.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

template <typename T>
T field(const std::vector<char>& bytes, std::size_t offset) {
  T v{};
  if (offset + sizeof v <= bytes.size()) std::memcpy(&v, bytes.data() + offset, sizeof v);
  return v;
}

struct written_block {
  std::int32_t type;
  std::int64_t time;
  std::int32_t channel, unit, waveforms;
  std::vector<std::int16_t> words;
};

// The blocks of a file from an offset on; the last must end where the file does.
std::vector<written_block> blocks_of(const std::vector<char>& bytes, std::size_t at) {
  std::vector<written_block> blocks;
  while (at + 16 <= bytes.size()) {
    written_block b{field<std::int16_t>(bytes, at),
                    (std::int64_t{field<std::uint16_t>(bytes, at + 2)} << 32) +
                        field<std::uint32_t>(bytes, at + 4),
                    field<std::int16_t>(bytes, at + 8),
                    field<std::int16_t>(bytes, at + 10),
                    field<std::int16_t>(bytes, at + 12),
                    {}};
    const std::int32_t n = field<std::int16_t>(bytes, at + 14);
    for (std::int32_t k = 0; k < n * b.waveforms; ++k) {
      b.words.push_back(field<std::int16_t>(bytes, at + 16 + 2 * static_cast<std::size_t>(k)));
    }
    at += 16 + 2 * b.words.size();
    blocks.push_back(b);
  }
  EXPECT_EQ(at, bytes.size());
  return blocks;
}

struct plx_writer_test : testing::Test {
  temporary_directory folder;
  small_session session;
  std::string path = folder.file("rec.plx");
  const std::string question = "Overwrite voltage records with new ones?";

  recording_store& recording() { return session->recording; }
  event_table& events() { return session->events; }

  plx_writer_test() {
    write_bytes(folder.file("electrode.cfg"), straight_config(8));
    session.user.default_answer = true;
  }
  bool open(const plx_fixture& f) {
    write_bytes(path, plx_bytes(f));
    return open_recording(*session, path);
  }
  void set_event(std::int32_t i, std::int32_t time, std::int32_t channel, std::int32_t cluster) {
    events().event_time[i] = time;
    events().event_channel[i] = channel;
    events().event_cluster[i] = cluster;
    events().n_events = std::max(events().n_events, i);
    session->clusters.n_clusters = std::max(session->clusters.n_clusters, cluster);
  }
  void set_centre(std::int32_t cluster, std::int32_t channel) {
    session->templates.template_n_channels[cluster] = 1;
    session->templates.channels(cluster)[1] = channel;
  }
  bool save(const std::string& to, bool overwrite) {
    session.user.answers[question] = overwrite;
    return export_sorted_spikes(*session, *find_export_format("plx"), to, {});
  }
  std::vector<std::int32_t> clusters() {
    return {events().event_cluster.first(), events().event_cluster.first() + events().n_events};
  }
};

// --- new files

TEST_F(plx_writer_test, export_has_every_field_in_its_place) {
  make_recording(*session, 2, 240, 30000, 0.5f);
  recording().file_type = file_type_tsf;
  const std::int32_t date[] = {2024, 11, 5}, time[] = {7, 30, 21};
  std::copy_n(date, 3, recording().record_date);
  std::copy_n(time, 3, recording().record_time);
  for (std::int32_t c = 1; c <= 2; ++c) {
    for (std::int32_t t = 1; t <= 240; ++t) {
      recording().vd.channel(c)[t] = static_cast<std::int16_t>(1000 * c + t);
    }
  }
  recording().chan_x[2] = -28;
  set_event(1, 5, 1, 0);
  set_event(2, 100, 1, 3);
  set_event(3, 120, 1, 0);
  set_event(4, 235, 2, 1);
  set_event(5, 130, 2, 2);
  set_centre(1, 2);
  set_centre(2, 1);
  set_centre(3, 2);
  ASSERT_TRUE(save(path, false));
  EXPECT_TRUE(session.user.told("Creating new Plexon file", "Export data"));
  EXPECT_TRUE(session.user.told("Plexon recording data saved", "Export data"));
  EXPECT_FALSE(session.user.asked(question, "Save plexon file options"));

  const std::vector<char> bytes = read_bytes(path);
  EXPECT_EQ(field<std::uint32_t>(bytes, 0), 0x58454C50u);
  EXPECT_STREQ(bytes.data() + 8, "Plexon file exported by Kestrelvane");
  const std::pair<std::size_t, std::int32_t> words[] = {
      {4, 105},  {136, 30000}, {140, 2},  {144, 0},  {148, 2}, {152, 26}, {156, 24},   {160, 2024},
      {164, 11}, {168, 5},     {172, 21}, {176, 30}, {180, 7}, {184, 0},  {188, 30000}};
  for (const auto& [at, v] : words) EXPECT_EQ(field<std::int32_t>(bytes, at), v) << at;
  EXPECT_EQ(field<double>(bytes, 192), 240.0);
  const std::uint8_t trodes[] = {1, 1, 16, 16};
  for (std::size_t k = 0; k < 4; ++k) EXPECT_EQ(field<std::uint8_t>(bytes, 200 + k), trodes[k]);
  EXPECT_EQ(field<std::uint16_t>(bytes, 204), 3000);
  EXPECT_EQ(field<std::uint16_t>(bytes, 206), 5000);
  EXPECT_EQ(field<std::uint16_t>(bytes, 208), 500);
  const auto count = [&](std::size_t table, std::size_t channel, std::size_t unit) {
    return field<std::int32_t>(bytes, table + 4 * (5 * channel + unit));
  };
  for (const std::size_t table : {std::size_t{256}, std::size_t{2856}}) {
    EXPECT_EQ(count(table, 2, 1), 1);
    EXPECT_EQ(count(table, 2, 2), 1);
    EXPECT_EQ(count(table, 1, 1), 1);
    EXPECT_EQ(count(table, 1, 0), 0);
  }

  const std::size_t dsp = 7504 + 1020, slow = 7504 + 2 * 1020 + 296;
  EXPECT_STREQ(bytes.data() + dsp, "sig002");
  EXPECT_STREQ(bytes.data() + dsp + 32, "sig002");
  const std::pair<std::size_t, std::int32_t> dsp_words[] = {{64, 2}, {68, 100}, {72, 2},   {76, 2},
                                                            {80, 5}, {84, 4},   {88, 122}, {92, 1},
                                                            {96, 2}, {760, 26}};
  for (const auto& [at, v] : dsp_words) EXPECT_EQ(field<std::int32_t>(bytes, dsp + at), v) << at;
  EXPECT_STREQ(bytes.data() + slow, "sig002");
  EXPECT_STREQ(bytes.data() + slow + 56, "XPOS=-28  YPOS=40");
  // 5000 * 1000 / (0.5 * 32768) = 305.18
  const std::pair<std::size_t, std::int32_t> slow_words[] = {{32, 1}, {36, 30000}, {40, 305},
                                                             {44, 1}, {48, 1},     {52, 2}};
  for (const auto& [at, v] : slow_words) EXPECT_EQ(field<std::int32_t>(bytes, slow + at), v) << at;

  const std::vector<written_block> blocks = blocks_of(bytes, 7504 + 2 * (1020 + 296));
  ASSERT_EQ(blocks.size(), 6u + 5u);
  // Two rounds, and an empty one.
  for (std::size_t k = 0; k < 6; ++k) {
    const written_block& b = blocks[k];
    EXPECT_EQ(b.type, 5);
    EXPECT_EQ(b.time, static_cast<std::int64_t>(k / 2 * 120));
    EXPECT_EQ(b.channel, static_cast<std::int32_t>(k % 2));
    ASSERT_EQ(b.words.size(), k < 4 ? 120u : 0u);
    if (k < 4) {
      EXPECT_EQ(b.words[0], 1000 * (b.channel + 1) + b.time + 1);
    }
  }
  // Unclustered events keep the unit of the event before them.
  const std::int32_t units[] = {0, 2, 2, 1, 1}, channels[] = {1, 2, 1, 2, 1};
  for (std::size_t k = 0; k < 5; ++k) {
    const written_block& b = blocks[6 + k];
    EXPECT_EQ(b.type, 1);
    EXPECT_EQ(b.time, events().event_time[static_cast<std::int64_t>(k) + 1]);
    EXPECT_EQ(b.channel, channels[k]) << k;
    EXPECT_EQ(b.unit, units[k]) << k;
    ASSERT_EQ(b.words.size(), 26u);
  }
  EXPECT_EQ(blocks[6].words[7], 0);     // time index 0
  EXPECT_EQ(blocks[6].words[8], 1001);  // time index 1
  EXPECT_EQ(blocks[7].words[0], 2088);
  EXPECT_EQ(blocks[7].words[25], 2113);
  EXPECT_EQ(blocks[9].words[25], 0);  // behind the end
}

TEST_F(plx_writer_test, an_export_is_read_back) {
  make_recording(*session, 3, 1000, 25000, 0.25f);
  recording().file_type = file_type_tsf;
  vector_random random(3);
  for (std::int32_t c = 1; c <= 3; ++c) {
    for (std::int32_t t = 1; t <= 1000; ++t) {
      recording().vd.channel(c)[t] = static_cast<std::int16_t>(random.next() >> 8);
    }
  }
  const std::vector<std::int16_t> before(recording().vd.channel(2) + 1,
                                         recording().vd.channel(2) + 1001);
  // Clusters in the order of their channels keep their numbers.
  set_event(1, 100, 1, 1);
  set_event(2, 200, 2, 3);
  set_event(3, 300, 1, 2);
  set_event(4, 400, 3, 4);
  for (std::int32_t c = 1; c <= 4; ++c) set_centre(c, c <= 2 ? 1 : c - 1);
  ASSERT_TRUE(export_plx(*session, path));
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().n_samples, 1000);
  EXPECT_EQ(recording().sampling_frequency, 25000);
  EXPECT_NEAR(recording().vscale_HP, 0.25f, 0.25f / 610);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), recording().vd.channel(2) + 1));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{1, 3, 2, 4}));
  EXPECT_EQ(events().event_time[4], 400);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_writer_test, an_export_that_fails_costs_the_new_file_only) {
  make_recording(*session, 2, 1000);
  recording().file_type = file_type_tsf;
  ASSERT_TRUE(save(path, false));
  const std::vector<char> before = read_bytes(path);
  {
    const full_device full;
    EXPECT_FALSE(save(path, false));
  }
  EXPECT_TRUE(session.user.logged("Error opening unit 20"));
  EXPECT_EQ(read_bytes(path), before);
  EXPECT_FALSE(save(folder.file("absent/a.plx"), false));
}

// --- event-based files again

plx_fixture event_file() {
  plx_fixture f;
  f.channels = {{1, 1, 9}, {2, 1, 9}, {3, 1, 9}};
  f.blocks = {{1, 20000, 2, 1, ramp(1, 8)},   {4, 20010, 257, 9, {}},  {1, 20020, 1, 2, ramp(2, 8)},
              {1, 30000, 1, 1, ramp(3, 200)}, {4, 30010, 2, 3, {}},    {1, 40000, 2, 1, ramp(4, 8)},
              {1, 50000, 1, 1, ramp(5, 8)},   {9, 1, 2, 3, ramp(1, 3)}};
  return f;
}

TEST_F(plx_writer_test, a_rewrite_without_changes_keeps_all_but_the_counts_of_units) {
  const plx_fixture f = event_file();
  ASSERT_TRUE(open(f));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{3, 2, 1, 3, 1}));
  for (std::int32_t c = 1; c <= 3; ++c) set_centre(c, c == 3 ? 2 : 1);
  ASSERT_TRUE(save(folder.file("copy.plx"), false));
  EXPECT_TRUE(session.user.asked(question, "Save plexon file options"));
  EXPECT_TRUE(session.user.logged("Cluster to unit number 1 2 2"));
  EXPECT_TRUE(session.user.logged("Making cluster map for event based recording"));
  EXPECT_TRUE(session.user.logged("Finished Making map"));
  plx_fixture expected = f;
  expected.channels[0].n_units = 2;
  expected.channels[1].n_units = 1;
  expected.channels[2].n_units = 0;
  EXPECT_EQ(read_bytes(folder.file("copy.plx")), plx_bytes(expected));
  // The voltages are the same in memory.
  ASSERT_TRUE(save(folder.file("copy.plx"), true));
  EXPECT_EQ(read_bytes(folder.file("copy.plx")), plx_bytes(expected));
}

TEST_F(plx_writer_test, a_rewrite_takes_units_and_voltages_of_the_session) {
  for (const bool at_time : {false, true}) {
    session->preferences.treat_as_continuous = at_time;
    for (const bool overwrite : {false, true}) {
      plx_fixture f = event_file();
      f.blocks[3].words.resize(8);
      ASSERT_TRUE(open(f));
      for (std::int32_t c = 1; c <= 3; ++c) set_centre(c, c == 3 ? 2 : 1);
      // The record at 30000 loses its cluster, the one at 40000 gets that of channel 1.
      std::int32_t third = 0, fourth = 0;
      for (std::int32_t i = 1; i <= events().n_events; ++i) {
        if (i == 3) third = i;
        if (i == 4) fourth = i;
      }
      events().event_cluster[third] = 0;
      events().event_cluster[fourth] = 2;
      const std::int32_t at = events().event_time[third];
      recording().vd.channel(1)[at] = -9;
      ASSERT_TRUE(save(path, overwrite));
      EXPECT_EQ(session.user.logged("Making timestamp_cluster_map2"), at_time);
      EXPECT_EQ(session.user.logged("Records per channel"), at_time);
      EXPECT_EQ(session.user.logged("Unexpected zero in timestamp_map, m= 1"), at_time);
      const std::vector<written_block> blocks = blocks_of(read_bytes(path), plx_blocks_offset(f));
      const std::int32_t units[] = {1, 9, 2, 0, 3, 2, 1, 3};
      ASSERT_EQ(blocks.size(), 8u);
      for (std::size_t k = 0; k < 8; ++k) {
        EXPECT_EQ(blocks[k].unit, units[k]) << k << at_time;
        EXPECT_EQ(blocks[k].time, f.blocks[k].time);
        std::vector<std::int16_t> words = f.blocks[k].words;
        if (k == 3 && overwrite) words[4] = -9;
        EXPECT_EQ(blocks[k].words, words) << k;
      }
      EXPECT_FALSE(std::filesystem::exists(folder.file("rec.___tmp")));
    }
  }
}

TEST_F(plx_writer_test, tetrodes_are_numbered_together) {
  plx_fixture f = tetrode_plx(2);
  add_tetrode_record(f, 1000, 2, 1);
  add_tetrode_record(f, 2000, 1, 1);
  add_tetrode_record(f, 3000, 2, 2);
  ASSERT_TRUE(open(f));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{2, 1, 3}));
  set_centre(1, 2);
  set_centre(2, 8);
  set_centre(3, 5);
  events().event_cluster[1] = 3;
  events().event_cluster[3] = 2;
  ASSERT_TRUE(save(path, true));
  for (std::size_t c = 0; c < 8; ++c) f.channels[c].n_units = c < 4 ? 1 : 2;
  for (std::size_t k = 0; k < 4; ++k) {
    f.blocks[k].unit = 2;
    f.blocks[8 + k].unit = 1;
  }
  EXPECT_EQ(read_bytes(path), plx_bytes(f));
}

TEST_F(plx_writer_test, what_was_not_read_is_written_without_units) {
  plx_fixture f = tetrode_plx(2);
  add_tetrode_record(f, 1000, 1, 1);
  add_tetrode_record(f, 2000, 1, 1);
  f.blocks[5].channel = 0;
  add_tetrode_record(f, 3000, 1, 1);
  ASSERT_TRUE(open(f));
  ASSERT_EQ(events().n_events, 1);
  ASSERT_TRUE(save(path, true));
  const std::vector<written_block> blocks = blocks_of(read_bytes(path), plx_blocks_offset(f));
  ASSERT_EQ(blocks.size(), 12u);
  for (std::size_t k = 0; k < 12; ++k) {
    EXPECT_EQ(blocks[k].unit, k < 4 ? 1 : 0) << k;
    EXPECT_EQ(blocks[k].words, f.blocks[k].words);
  }
}

// --- continuous files again

TEST_F(plx_writer_test, a_continuous_rewrite_appends_the_spikes) {
  plx_fixture f = continuous_plx(2, 3, 100);
  f.blocks.insert(f.blocks.begin() + 2, {1, 20, 1, 1, ramp(1, 8)});
  f.blocks.insert(f.blocks.begin() + 4, {4, 30, 257, 7, {}});
  f.channels[0].n_units = 1;
  const std::string swapped = "Swapped\n1 2 0 100\n2 1 0 0\n";
  write_bytes(folder.file("rec.cfg"), {swapped.begin(), swapped.end()});
  for (const bool overwrite : {false, true}) {
    ASSERT_TRUE(open(f));
    ASSERT_EQ(events().n_events, 1);
    EXPECT_EQ(events().event_channel[1], 2);
    set_event(2, 150, 1, 2);
    set_event(3, 160, 2, 0);
    set_centre(1, 2);
    set_centre(2, 1);
    recording().vd.channel(1)[150] = -5;
    ASSERT_TRUE(save(folder.file("copy.plx"), overwrite));
    EXPECT_TRUE(session.user.logged("Writing spike data records for continuous data"));
    const std::vector<char> bytes = read_bytes(folder.file("copy.plx"));
    EXPECT_EQ(field<std::int32_t>(bytes, 7504 + 96), 1);
    EXPECT_EQ(field<std::int32_t>(bytes, 7504 + 1020 + 96), 1);
    const std::vector<written_block> blocks = blocks_of(bytes, plx_blocks_offset(f));
    ASSERT_EQ(blocks.size(), 7u + 3u);
    EXPECT_EQ(blocks[3].type, 4);
    // Time index 150 is the sample 49 of the second round, file channel 2.
    EXPECT_EQ(blocks[4].channel, 1);
    EXPECT_EQ(blocks[4].words[49], overwrite ? -5 : plx_fixture_sample(2, 150));
    const std::int32_t times[] = {20, 150, 160}, channels[] = {1, 2, 1}, units[] = {1, 1, 0};
    // The window of 0.8 ms on either side.
    for (std::size_t k = 0; k < 3; ++k) {
      const written_block& b = blocks[7 + k];
      EXPECT_EQ(b.type, 1);
      EXPECT_EQ(b.time, times[k]);
      EXPECT_EQ(b.channel, channels[k]);
      EXPECT_EQ(b.unit, units[k]);
      EXPECT_EQ(b.words.size(), 33u);
    }
    EXPECT_EQ(blocks[8].words[16], -5);
    EXPECT_EQ(blocks[8].words[0], plx_fixture_sample(2, 134));
  }
  ASSERT_TRUE(open_recording(*session, folder.file("copy.plx")));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{1, 2, 0}));  // now channel for channel
}

TEST_F(plx_writer_test, stored_spikes_stay_or_go_with_the_users_word) {
  plx_fixture f = continuous_plx(2, 3, 100);
  // Program channel 1 is sorted and 2 masked; 7 and 300 have no place in the recording.
  for (const std::int32_t channel : {1, 2, 7, 300, 1}) {
    f.blocks.insert(f.blocks.begin() + 3, {1, 20 + channel, channel, 1, ramp(channel, 64)});
  }
  f.channels[0].n_units = f.channels[1].n_units = 1;
  f.channels.push_back({7, 1, 4});
  ASSERT_TRUE(open(f));
  recording().chan_mask[2] = true;
  events().n_events = 0;
  set_event(1, 150, 1, 1);
  session->clusters.n_clusters = 1;
  set_centre(1, 1);
  const std::string copy = folder.file("copy.plx");
  session.user.default_answer = false;
  EXPECT_FALSE(save(copy, true));
  EXPECT_FALSE(std::filesystem::exists(copy));
  const std::string counts = "2 spikes stored in the file, 1 events of this sort";
  EXPECT_TRUE(session.user.logged("Sorted channels: " + counts));
  EXPECT_TRUE(session.user.logged("3 spikes of channels that were not sorted stay as they are"));
  EXPECT_THAT(session.user.questions.back().text, testing::HasSubstr(counts));

  session.user.default_answer = true;
  ASSERT_TRUE(save(copy, false));
  const std::vector<char> bytes = read_bytes(copy);
  std::vector<std::int32_t> channels;
  for (const written_block& b : blocks_of(bytes, plx_blocks_offset(f))) {
    if (b.type != 1) continue;
    channels.push_back(b.channel);
    if (b.channel == 1) continue;
    EXPECT_EQ(b.words, ramp(b.channel, 64));
    EXPECT_EQ(b.unit, 1);
  }
  EXPECT_EQ(channels, (std::vector<std::int32_t>{300, 7, 2, 1}));
  const std::int32_t units[] = {1, 1, 4};
  for (std::size_t c = 0; c < 3; ++c)
    EXPECT_EQ(field<std::int32_t>(bytes, 7504 + 1020 * c + 96), units[c]);
}

TEST_F(plx_writer_test, records_of_channels_without_a_place_keep_their_units) {
  plx_fixture f = event_file();
  const std::string first_only = "First\n1 1 0 0\n";
  write_bytes(folder.file("rec.cfg"), {first_only.begin(), first_only.end()});
  ASSERT_TRUE(open(f));
  for (std::int32_t c = 1; c <= session->clusters.n_clusters; ++c) set_centre(c, 1);
  std::fill_n(events().event_cluster.first(), events().n_events, 0);
  ASSERT_TRUE(save(path, false));
  const std::vector<written_block> blocks = blocks_of(read_bytes(path), plx_blocks_offset(f));
  for (std::size_t k = 0; k < blocks.size(); ++k) {
    const bool sorted = blocks[k].type == 1 && blocks[k].channel == 1;
    EXPECT_EQ(blocks[k].unit, sorted ? 0 : f.blocks[k].unit) << k;
  }
}

TEST_F(plx_writer_test, appended_spikes_have_128_words_at_most_and_follow_a_cut_block) {
  plx_fixture f = continuous_plx(1, 3, 100);
  ASSERT_TRUE(open(f));
  std::vector<char> bytes = plx_bytes(f);
  bytes.resize(bytes.size() - 51);
  write_bytes(path, bytes);
  ASSERT_TRUE(open_recording(*session, path));
  session->strategy.template_window_start_ms = -3.0f;
  session->strategy.template_window_end_ms = 4.0f;
  compute_template_points(*session);
  set_event(1, 150, 1, 1);
  set_centre(1, 1);
  ASSERT_TRUE(save(path, false));
  const std::vector<written_block> blocks = blocks_of(read_bytes(path), plx_blocks_offset(f));
  ASSERT_EQ(blocks.size(), 4u);
  EXPECT_EQ(blocks[2].words.size(), 74u);
  EXPECT_EQ(blocks[3].words.size(), 128u);
  EXPECT_EQ(blocks[3].words[60], plx_fixture_sample(1, 150));
}

TEST_F(plx_writer_test, a_rewrite_in_place_never_loses_the_file) {
  ASSERT_TRUE(open(event_file()));
  const std::vector<char> before = read_bytes(path);
  {
    const full_device full;
    EXPECT_FALSE(save(path, false));
  }
  EXPECT_TRUE(session.user.logged("Error opening unit 20"));
  EXPECT_EQ(read_bytes(path), before);
  EXPECT_FALSE(std::filesystem::exists(folder.file("rec.___tmp")));

  // What an earlier run has put aside is not written over.
  write_bytes(folder.file("rec.___tmp"), {'x'});
  EXPECT_FALSE(save(path, false));
  EXPECT_TRUE(session.user.logged("Can't rename file"));
  EXPECT_EQ(read_bytes(path), before);
  EXPECT_EQ(read_bytes(folder.file("rec.___tmp")).size(), 1u);
  std::filesystem::remove(folder.file("rec.___tmp"));

  // The same file by another name.
  std::filesystem::create_directory(folder.file("sub"));
  EXPECT_TRUE(save(folder.file("sub/../rec.plx"), false));
  EXPECT_TRUE(open_recording(*session, path));

  // The source is gone, or is something else by now.
  const std::string copy = folder.file("copy.plx");
  write_bytes(path, {'n', 'o'});
  EXPECT_FALSE(save(copy, false));
  EXPECT_FALSE(save(path, false));
  EXPECT_EQ(read_bytes(path).size(), 2u);
  std::filesystem::remove(path);
  EXPECT_FALSE(save(copy, false));
  EXPECT_FALSE(std::filesystem::exists(copy));
}

TEST_F(plx_writer_test, real_files_keep_their_bytes) {
  for (const auto& [name, n_mapped] :
       {std::pair{"plexon/File_plexon_1.plx", 4}, std::pair{"plexon/File_plexon_3.plx", 31}}) {
    const std::string sample = sample_path(name);
    if (sample.empty()) GTEST_SKIP();
    write_bytes(folder.file("rec.cfg"), straight_config(n_mapped));
    const std::vector<char> before = read_bytes(sample);
    write_bytes(path, before);
    ASSERT_TRUE(open_recording(*session, path));
    ASSERT_TRUE(save(path, true));
    std::vector<char> after = read_bytes(path);
    if (recording().is_continuous) {
      // The spikes of the one mapped channel stand behind all samples now, and those of the
      // others where they were.
      const auto n_headers = [&](std::size_t at) {
        return static_cast<std::size_t>(field<std::int32_t>(after, at));
      };
      const std::size_t blocks_at =
          7504 + 1020 * n_headers(140) + 296 * (n_headers(144) + n_headers(148));
      const std::vector<written_block> blocks = blocks_of(after, blocks_at);
      EXPECT_EQ(
          std::count_if(blocks.begin(), blocks.end(), [](const auto& b) { return b.type == 1; }),
          8351);
      ASSERT_TRUE(open_recording(*session, path));
      EXPECT_EQ(recording().n_samples, 600806);
      EXPECT_EQ(events().n_events, 701);
    } else {
      for (std::size_t c = 0; c < 4; ++c) {
        std::fill_n(after.begin() + 7504 + 1020 * static_cast<std::ptrdiff_t>(c) + 96, 4, '\0');
      }
      EXPECT_TRUE(after == before);
    }
  }
}

}  // namespace
}  // namespace kestrelvane::test
