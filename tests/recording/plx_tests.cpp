// Plexon: continuous, event-based and tetrode files, and files that lie.
#include "recording/formats/plexon/plx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "operations/open_recording.h"
#include "support/fixture_files.h"
#include "support/plx_fixture.h"
#include "support/reader_test.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct plx_test : testing::Test {
  temporary_directory folder;
  small_session session;

  recording_store& recording() { return session->recording; }
  event_table& events() { return session->events; }

  bool open_bytes(const std::vector<char>& bytes) {
    write_bytes(folder.file("rec.plx"), bytes);
    session.user.boxes.clear();
    session.user.lines.clear();
    session.user.default_answer = true;
    return read_recording(*session, folder.file("rec.plx"));
  }
  bool open(const plx_fixture& f, std::int32_t mapped = 8) {
    if (mapped > 0) write_bytes(folder.file("electrode.cfg"), straight_config(mapped));
    return open_bytes(plx_bytes(f));
  }
  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_EQ(events().n_events, 0);
    EXPECT_EQ(session->clusters.n_clusters, 0);
    EXPECT_EQ(check_session(*session), "");
  }
  std::vector<std::int32_t> clusters() {
    return {events().event_cluster.first(), events().event_cluster.first() + events().n_events};
  }
  std::vector<std::int32_t> times() {
    return {events().event_time.first(), events().event_time.first() + events().n_events};
  }
  std::vector<std::int16_t> samples(std::int32_t channel, std::int32_t first, std::int32_t n) {
    const std::int16_t* v = recording().vd.channel(channel) + first;
    return {v, v + n};
  }
};

// --- continuous

TEST_F(plx_test, continuous_samples_stand_at_their_time_stamps) {
  plx_fixture f = continuous_plx(3, 4, 120);
  for (plx_fixture_block& b : f.blocks) {
    if (b.time >= 240) b.time += 1000;  // a pause
  }
  f.last_timestamp = 1480;
  // Spikes: sorted, on a channel that is not mapped, above the highest spike channel.
  f.channels = {{1, 1, 2}, {2, 1, 0}, {3, 1, 1}};
  f.blocks.push_back({4, 5, 257, 1, {}});
  f.blocks.push_back({1, 100, 1, 2, ramp(1, 32)});
  f.blocks.push_back({1, 110, 3, 1, ramp(1, 32)});
  f.blocks.push_back({1, 120, 1, 1, ramp(1, 30)});
  f.blocks.push_back({1, 130, 2, 0, ramp(1, 30)});
  f.blocks.push_back({1, 140, 9, 1, ramp(1, 30)});
  f.blocks.push_back({1, 150, 257, 1, ramp(1, 30)});
  f.blocks.push_back({1, 0, 1, 1, ramp(1, 30)});      // before the first sample
  f.blocks.push_back({1, 99999, 1, 1, ramp(1, 30)});  // behind the last
  f.blocks.push_back({7, 3, 1, 1, ramp(1, 4)});
  ASSERT_TRUE(open(f));
  EXPECT_TRUE(recording().is_continuous);
  EXPECT_EQ(recording().n_channels, 3);
  EXPECT_EQ(recording().n_samples, 1480);
  EXPECT_EQ(recording().max_vd_samples, 11480);
  EXPECT_EQ(recording().sampling_frequency, 20000);
  EXPECT_EQ(recording().chan_y[3], 150);
  EXPECT_EQ(recording().plx_path, folder.file("rec.plx"));
  for (std::int32_t c = 1; c <= 3; ++c) {
    const std::int16_t* v = recording().vd.channel(c);
    for (std::int32_t t = 1; t <= 240; ++t) ASSERT_EQ(v[t], plx_fixture_sample(c, t)) << t;
    for (std::int32_t t = 241; t <= 1240; ++t) ASSERT_EQ(v[t], 0) << t;
    ASSERT_EQ(v[1241], plx_fixture_sample(c, 241));
    EXPECT_EQ(v[0], 0);
    EXPECT_EQ(v[1481], 0);
  }
  EXPECT_EQ(times(), (std::vector<std::int32_t>{100, 110, 120, 130}));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{2, 3, 1, 0}));
  EXPECT_EQ(session->clusters.n_clusters, 3);
  EXPECT_EQ(session->clusters.current_cluster, 1);
  for (const char* line : {"Estimating recording duration ...",
                           "Data trodalness 1= 1",
                           "Electrode type = 10",
                           "Reading PLX File Version (105)",
                           "Recording Date (d/m/y): 22/2/2010",
                           "Recording started at (h:m:s) 20:05:57",
                           " ADFrequency 20000",
                           " WaveformFreq 20000",
                           " NumpointsWave 8",
                           " NumpointsPreThr 3",
                           " LastTimeStamp 1480",
                           "made for a test",
                           "3 DSP Channels",
                           "2 sorted units on channel 1",
                           "1 sorted unit on channel 3",
                           "1 Event Channels",
                           "3 Slow Channels",
                           "Reading continuous A/D records",
                           "Spike block length change",
                           "Bad data, datatype= 7",
                           "2 events outside the recording were left out",
                           "3 clusters in the file",
                           "Allocating memory for 11480 voltage samples"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, continuous_channels_go_where_the_configuration_says) {
  const plx_fixture f = continuous_plx(2, 2, 10);
  const std::string swapped = "Swapped\n1 2 0 100\n2 1 0 0\n";
  write_bytes(folder.file("rec.cfg"), {swapped.begin(), swapped.end()});
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().vd.channel(2)[1], plx_fixture_sample(1, 1));
  EXPECT_EQ(recording().vd.channel(1)[20], plx_fixture_sample(2, 20));
  // One that maps none of the channels finds no samples.
  const std::string other = "Other\n7 1 0 0\n";
  write_bytes(folder.file("rec.cfg"), {other.begin(), other.end()});
  EXPECT_FALSE(open(f));
  EXPECT_TRUE(session.user.told("No samples were found for the channels of the configuration",
                                "Can't read file"));
  expect_empty();
}

TEST_F(plx_test, a_configuration_is_needed_except_for_tetrodes) {
  session.user
      .answers["Cannot find a default electrode configuration file: choose a specific one?"] =
      false;
  EXPECT_FALSE(open(continuous_plx(2, 2, 10), 0));
  EXPECT_TRUE(session.user.told("Cannot find electrode configuration file, aborting read",
                                "Open a recording file"));
  // What a user without a dialog can do about it.
  EXPECT_TRUE(session.user.logged("Looked beside the recording for rec.cfg, electrode.cfg, "));
  EXPECT_TRUE(session.user.logged("--config"));
  expect_empty();
  const std::string twice = "Bad\n1 1 0 0\n2 1 0 0\n";
  write_bytes(folder.file("rec.cfg"), {twice.begin(), twice.end()});
  EXPECT_FALSE(open(continuous_plx(2, 2, 10), 0));
  EXPECT_TRUE(session.user.logged("Channel map error in config file"));
  expect_empty();
  plx_fixture tetrode = continuous_plx(4, 2, 10);
  tetrode.trodalness = 4;
  EXPECT_TRUE(open(tetrode, 0));
  EXPECT_EQ(recording().electrode_type, electrode_tetrode);
  EXPECT_EQ(recording().n_tetrodes, 1);
  EXPECT_EQ(recording().vd.channel(4)[20], plx_fixture_sample(4, 20));
}

TEST_F(plx_test, continuous_scale_follows_the_version) {
  struct scale_case {
    std::int32_t version, gain, preamp, bits;
    double uv;
  };
  // 5 V over half the range of the samples, over the gains.
  for (const scale_case& s :
       {scale_case{101, 2, 500, 12, 5e6 / (2 * 2048000.0)},
        scale_case{102, 2, 500, 12, 5e6 / (2048.0 * 2 * 500)},
        scale_case{103, 2, 500, 16, 5e6 / (32768.0 * 2 * 500)},
        scale_case{106, 1, 1000, 12, 5e6 / (2048.0 * 1000)}, scale_case{105, 1, 1000, 32, 0.0075},
        scale_case{105, 0, 1000, 16, 0.0075}}) {
    plx_fixture f = continuous_plx(1, 1, 10);
    f.version = s.version;
    f.slow_bits = s.bits;
    f.slow[0].gain = s.gain;
    f.slow[0].preamp_gain = s.preamp;
    ASSERT_TRUE(open(f)) << s.version;
    EXPECT_FLOAT_EQ(recording().vscale_HP, static_cast<float>(s.uv)) << s.version;
    EXPECT_TRUE(session.user.logged("Version#= " + std::to_string(s.version) + "; vscale_HP = "));
  }
}

TEST_F(plx_test, time_stamps_tick_at_the_rate_of_the_header) {
  plx_fixture f = continuous_plx(1, 3, 100);
  f.ad_frequency = 40000;
  f.slow[0].ad_freq = 1000;
  for (plx_fixture_block& b : f.blocks) b.time *= 40;
  f.last_timestamp = 300 * 40;
  f.channels[0].n_units = 1;
  f.blocks.push_back({1, 40 * 50 + 39, 1, 1, ramp(1, 8)});
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().sampling_frequency, 1000);
  EXPECT_EQ(recording().n_samples, 300);
  EXPECT_EQ(recording().max_vd_samples, 10300);
  EXPECT_EQ(recording().vd.channel(1)[300], plx_fixture_sample(1, 300));
  EXPECT_EQ(times(), std::vector<std::int32_t>{50});
  EXPECT_TRUE(session.user.logged("There is one cluster in the file"));
}

// Channels 1 and 2 at 20 kHz, 3 and 4 at 1 kHz, and a spike on channel 2.
plx_fixture two_rate_plx() {
  plx_fixture f = continuous_plx(4, 2, 100);
  std::erase_if(f.blocks, [](const plx_fixture_block& b) { return b.channel > 1 && b.time > 0; });
  for (const std::size_t c : {2, 3}) f.slow[c].ad_freq = 1000;
  f.blocks.push_back({1, 60, 2, 1, ramp(1, 8)});
  return f;
}

TEST_F(plx_test, the_rate_is_that_of_the_channels_that_were_recorded) {
  plx_fixture f = two_rate_plx();
  std::erase_if(f.blocks, [](const plx_fixture_block& b) { return b.type == 5 && b.channel > 1; });
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().sampling_frequency, 20000);
  EXPECT_EQ(samples(1, 1, 3),
            (std::vector<std::int16_t>{plx_fixture_sample(1, 1), plx_fixture_sample(1, 2),
                                       plx_fixture_sample(1, 3)}));
  EXPECT_TRUE(session.user.questions.empty());
  EXPECT_EQ(times(), std::vector<std::int32_t>{60});
}

TEST_F(plx_test, of_several_rates_one_is_chosen_and_the_others_are_left_out) {
  const plx_fixture f = two_rate_plx();
  const std::string fast = "Read 2 slow channels at 20000 Hz?",
                    slow = "Read 2 slow channels at 1000 Hz?";
  session.user.answers[fast] = false;
  ASSERT_TRUE(open(f));
  EXPECT_TRUE(session.user.asked(slow, "Choose a stream"));
  EXPECT_EQ(recording().sampling_frequency, 1000);
  EXPECT_EQ(recording().n_samples, 100);
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_EQ(recording().vd.channel(1)[5], 0);
  EXPECT_EQ(recording().vd.channel(3)[5], plx_fixture_sample(3, 5));
  EXPECT_TRUE(session.user.logged("Stream 1: 2 slow channels at 20000 Hz"));
  EXPECT_TRUE(session.user.logged("Left out: 2 slow channels at 20000 Hz"));
  EXPECT_EQ(events().n_events, 0);  // the spike is on a channel that is not read

  session.user.answers[slow] = false;
  EXPECT_FALSE(open(f));
  EXPECT_TRUE(session.user.logged("No stream was chosen"));
  expect_empty();

  const std::string path = folder.file("rec.plx");
  session.user.questions.clear();
  for (const auto& [stream, rate] : std::vector<std::pair<std::string, std::int32_t>>{
           {"20000", 20000}, {"1", 20000}, {"1000", 1000}, {"2", 1000}, {"3", 0}}) {
    EXPECT_EQ(open_recording_worker(*session, {path, file_type_plx, {}, stream}), rate > 0);
    EXPECT_EQ(recording().sampling_frequency, rate) << stream;
  }
  EXPECT_TRUE(session.user.questions.empty());
  EXPECT_TRUE(session.user.told("There is no stream 3"));

  // Written again with other voltages, the channels that were left out keep theirs.
  ASSERT_TRUE(open_recording_worker(*session, {path, file_type_plx, {}, "20000"}));
  EXPECT_EQ(times(), std::vector<std::int32_t>{60});
  recording().vd.channel(1)[5] = -77;
  const std::string copy = folder.file("copy.plx");
  ASSERT_TRUE(rewrite_plx(*session, path, copy, true));
  ASSERT_TRUE(open_recording_worker(*session, {copy, file_type_plx, {}, "20000"}));
  EXPECT_EQ(recording().vd.channel(1)[5], -77);
  ASSERT_TRUE(open_recording_worker(*session, {copy, file_type_plx, {}, "1000"}));
  EXPECT_EQ(recording().vd.channel(4)[100], plx_fixture_sample(4, 100));
}

TEST_F(plx_test, time_stamps_have_more_than_32_bits) {
  plx_fixture f;
  f.ad_frequency = 1'000'000;
  f.waveform_freq = 1000;
  session->preferences.treat_as_continuous = true;
  const std::int64_t late = (std::int64_t{1} << 32) + 5000;
  f.blocks.push_back({1, late - 1'000'000, 1, 1, ramp(1, 8)});
  f.blocks.push_back({1, late, 1, 1, ramp(1, 8)});
  ASSERT_TRUE(open(f));
  EXPECT_EQ(times(), (std::vector<std::int32_t>{4, 1004}));
  EXPECT_EQ(recording().first_timestamp, late - 1'000'000);
}

TEST_F(plx_test, a_last_time_stamp_that_says_nothing_is_made_good) {
  for (const double stated : {0.0, -5.0, 1e300, 0.0 / 0.0}) {
    plx_fixture f = continuous_plx(1, 3, 100);
    f.last_timestamp = stated;
    ASSERT_TRUE(open(f)) << stated;
    EXPECT_EQ(recording().n_samples, 300);
    EXPECT_EQ(recording().max_vd_samples, 10300);
    EXPECT_TRUE(session.user.logged("the samples end at 300"));
  }
  // One that is too early ends the read.
  plx_fixture f = continuous_plx(1, 200, 100);
  f.last_timestamp = 50;
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().n_samples, 10050);
}

TEST_F(plx_test, foreign_files_count_slow_channels_from_1) {
  plx_fixture f = continuous_plx(2, 2, 10);
  f.version = 200;
  for (plx_fixture_slow& s : f.slow) ++s.channel;
  for (plx_fixture_block& b : f.blocks) ++b.channel;
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().vd.channel(2)[20], plx_fixture_sample(2, 20));
  EXPECT_TRUE(session.user.logged("Slow channels are numbered from 1 in this file"));
}

TEST_F(plx_test, more_units_than_the_headers_tell_keep_their_own_clusters) {
  plx_fixture f = continuous_plx(2, 2, 100);
  f.blocks.push_back({1, 50, 1, 2, ramp(1, 8)});
  f.blocks.push_back({1, 60, 2, 1, ramp(1, 8)});
  ASSERT_TRUE(open(f));
  // Unit 1 of channel 1 has no event.
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{1, 2}));
  EXPECT_TRUE(session.user.logged("deleting cluster 1"));
  EXPECT_TRUE(session.user.logged("Some channels have more units than their headers tell of"));
}

TEST_F(plx_test, clusters_beyond_the_limit_leave_their_events_unclustered) {
  session->max_clusters = 3;
  plx_fixture f = continuous_plx(1, 2, 100);
  for (const std::int32_t unit : {30, 10, 20, 40, 32767, -1}) {
    f.blocks.push_back({1, 20, 1, unit, ramp(1, 8)});
  }
  ASSERT_TRUE(open(f));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{3, 1, 2, 0, 0, 0}));
  EXPECT_EQ(session->clusters.n_clusters, 3);
  EXPECT_EQ(check_session(*session), "");
}

// --- event-based

// Three records of channel 1 and one of channel 2, with words 100 * number and on.
plx_fixture event_file() {
  plx_fixture f;
  f.blocks = {{1, 20000, 2, 1, ramp(1, 8)}, {4, 20010, 257, 9, {}}, {1, 20020, 1, 0, ramp(2, 8)},
              {4, 20020, 2, 9, {}},         {4, 20025, 258, 9, {}}, {1, 40000, 1, 3, ramp(3, 8)},
              {1, 40000, 3, 1, ramp(9, 8)}, {5, 40000, 1, 0, {}},   {1, 60000, 1, 1, ramp(4, 8)}};
  return f;
}

TEST_F(plx_test, records_get_slots_of_their_own) {
  ASSERT_TRUE(open(event_file()));
  EXPECT_FALSE(recording().is_continuous);
  EXPECT_EQ(recording().n_channels, 2);
  EXPECT_EQ(recording().samples_per_event, 8);
  EXPECT_EQ(samples(1, 100, 8), ramp(2, 8));
  EXPECT_EQ(samples(1, 116, 8), ramp(3, 8));
  EXPECT_EQ(samples(1, 132, 8), ramp(4, 8));
  EXPECT_EQ(samples(2, 100, 8), ramp(1, 8));
  EXPECT_EQ(samples(2, 116, 8), std::vector<std::int16_t>(8, 0));
  // The first record reaches to 208, which none of the later ones does.
  EXPECT_EQ(recording().n_samples, 208);
  EXPECT_EQ(recording().max_vd_samples, 8 * 4 + 8 + 100 + 10000);
  EXPECT_EQ(recording().first_timestamp, 1'000'000);
  EXPECT_EQ(recording().timestamp(1, 1), 1000);
  EXPECT_EQ(recording().timestamp(3, 1), 2'000'000);
  EXPECT_EQ(recording().timestamp(1, 2), 0);
  EXPECT_EQ(recording().record_unit(2, 1), 3);
  EXPECT_EQ(recording().channel_event_count[1], 3);
  EXPECT_FLOAT_EQ(recording().duration_mins, 2000.0f / 60000.0f);
  EXPECT_EQ(times(), (std::vector<std::int32_t>{104, 120, 136}));
  // Channel 1 has units 1 and 3, so that channel 2 begins at 4; cluster 2 is empty.
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{3, 2, 1}));
  for (const char* line :
       {"Finished scanning event file", "Reading event based A/D records",
        "Reading Event based recording data", "Unparsed records with channel and unit #s = 258 9",
        "Unparsed records with channel and unit #s = 3 1", "n_blocks in file = 9",
        "Types of block= 5 3 1", "4 spike waveforms read", "4 clusters in file",
        "Calculating templates ...", "deleting cluster 2", "3 clusters in the file"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
  EXPECT_FALSE(session.user.logged("#s = 257"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, records_stand_at_their_times_when_treated_as_continuous) {
  session->preferences.treat_as_continuous = true;
  ASSERT_TRUE(open(event_file()));
  // From the first record on; the sample of index 0 has no place.
  EXPECT_EQ(times(), (std::vector<std::int32_t>{4, 20004, 40004}));
  EXPECT_EQ(recording().vd.channel(2)[0], 0);
  EXPECT_EQ(recording().vd.channel(2)[1], 101);
  EXPECT_EQ(samples(1, 20, 8), ramp(2, 8));
  EXPECT_EQ(samples(1, 40000, 8), ramp(4, 8));
  EXPECT_EQ(recording().n_samples, 40108);
  EXPECT_EQ(recording().max_vd_samples, 70000);
  EXPECT_TRUE(session.user.logged("Reading Event based data as continuous record"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, spike_scale_follows_the_version) {
  struct scale_case {
    std::int32_t version, gain, preamp;
    double uv;
  };
  for (const scale_case& s : {scale_case{101, 1, 1000, 1.0}, scale_case{102, 20, 1000, 0.0},
                              scale_case{103, 20, 500, 3e6 / (2048.0 * 20 * 1000)},
                              scale_case{104, 20, 500, 3e6 / (2048.0 * 20 * 1000)},
                              scale_case{105, 20, 500, 3e6 / (2048.0 * 20 * 500)},
                              scale_case{106, 20, 1000, 0.0732421875}}) {
    plx_fixture f = event_file();
    f.version = s.version;
    f.preamp_gain = s.preamp;
    f.channels[0].gain = 77;
    f.channels[1].gain = s.gain;
    ASSERT_TRUE(open(f)) << s.version;
    EXPECT_FLOAT_EQ(recording().vscale_HP, static_cast<float>(s.uv)) << s.version;
  }
  EXPECT_FALSE(session.user.logged("Voltage scaling is 0"));
}

TEST_F(plx_test, waveforms_of_any_length_are_read) {
  // Longer than the header says, and longer than 256 bytes.
  plx_fixture f = event_file();
  f.blocks[2].words = ramp(5, 200);
  f.blocks[5].n_waveforms = 0;  // a time stamp alone, and no words follow it
  f.blocks[5].words.clear();
  ASSERT_TRUE(open(f));
  EXPECT_EQ(recording().samples_per_event, 200);
  EXPECT_EQ(samples(1, 100, 200), ramp(5, 200));
  EXPECT_EQ(samples(1, 100 + 400, 8), std::vector<std::int16_t>(8, 0));
  EXPECT_EQ(samples(1, 100 + 800, 8), ramp(4, 8));
  EXPECT_TRUE(session.user.logged("Waveforms have up to 200 samples, not 8"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, an_event_file_may_lack_its_rate_and_list_slow_channels) {
  plx_fixture f = event_file();
  f.waveform_freq = 0;
  f.slow = {{0}, {1}};
  f.slow_count = 0;
  f.blocks.erase(f.blocks.begin() + 7);  // the one slow block
  ASSERT_TRUE(open(f));
  EXPECT_FALSE(recording().is_continuous);
  EXPECT_EQ(recording().sampling_frequency, 20000);
  EXPECT_TRUE(session.user.logged("Using A/D Frequency as Waveform Frequency"));
  EXPECT_TRUE(session.user.logged("Slow channels are listed but none was recorded"));
  EXPECT_EQ(events().n_events, 3);
  // Without counts, blocks are what tells.
  f = continuous_plx(2, 2, 10);
  f.slow_count = 0;
  ASSERT_TRUE(open(f));
  EXPECT_TRUE(recording().is_continuous);
}

TEST_F(plx_test, a_file_without_units_has_no_clusters) {
  plx_fixture f = event_file();
  for (plx_fixture_block& b : f.blocks) b.unit = 0;
  ASSERT_TRUE(open(f));
  EXPECT_EQ(events().n_events, 0);
  EXPECT_TRUE(session.user.logged("There are no clusters in the file"));
  EXPECT_EQ(check_session(*session), "");
}

// --- tetrodes

TEST_F(plx_test, tetrode_records_share_their_slot) {
  plx_fixture f = tetrode_plx(2);
  add_tetrode_record(f, 1000, 2, 1);
  f.blocks.push_back({4, 1100, 1, 0, {}});
  add_tetrode_record(f, 2000, 1, 2);
  add_tetrode_record(f, 3000, 2, 0);
  add_tetrode_record(f, 4000, 2, 1);
  f.blocks.push_back({4, 4100, 300, 6, {}});
  ASSERT_TRUE(open(f, 0));
  EXPECT_EQ(recording().n_channels, 8);
  EXPECT_EQ(recording().n_tetrodes, 2);
  EXPECT_EQ(recording().electrode_type, electrode_tetrode);
  EXPECT_EQ(recording().tetrode_event_count[2], 3);
  EXPECT_EQ(recording().timestamp(1, 1), 50000);
  EXPECT_EQ(recording().timestamp(3, 2), 150000);
  for (std::int32_t c = 5; c <= 8; ++c) {
    EXPECT_EQ(samples(c, 132, 8), ramp(c, 8));
    EXPECT_EQ(samples(c - 4, 100, 8), ramp(c - 4, 8));
    EXPECT_EQ(samples(c - 4, 116, 8), std::vector<std::int16_t>(8, 0));
  }
  EXPECT_EQ(times(), (std::vector<std::int32_t>{104, 104, 136}));
  EXPECT_EQ(events().event_channel[1], 5);
  // Tetrode 1 has no unit 1: two clusters remain of three.
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{2, 1, 2}));
  EXPECT_TRUE(session.user.logged("Finished scanning event-based recording file"));
  EXPECT_TRUE(session.user.logged("Reading Event based tetrode data"));
  EXPECT_TRUE(session.user.logged("Unparsed data record with unit and channel #s = 6 300"));
  EXPECT_EQ(check_session(*session), "");

  session->preferences.treat_as_continuous = true;
  ASSERT_TRUE(open(f, 0));
  EXPECT_EQ(times(), (std::vector<std::int32_t>{4, 1004, 3004}));
  EXPECT_EQ(samples(8, 3000, 8), ramp(8, 8));
  EXPECT_TRUE(session.user.logged("Reading Event based tetrode data as continuous record"));
}

TEST_F(plx_test, tetrode_blocks_that_are_no_groups_end_the_read) {
  const auto with_block = [](std::int32_t channel, std::int32_t units) {
    plx_fixture f = tetrode_plx(2);
    add_tetrode_record(f, 1000, 1, 1);
    add_tetrode_record(f, 2000, 2, units);
    f.blocks[6].channel = channel;
    add_tetrode_record(f, 3000, 1, 1);
    return f;
  };
  ASSERT_TRUE(open(with_block(0, 1), 0));
  EXPECT_TRUE(session.user.logged("Error, records not grouped in blocks of 4 5 6 0 8"));
  EXPECT_EQ(events().n_events, 1);
  ASSERT_TRUE(open(with_block(3, 1), 0));
  EXPECT_TRUE(session.user.logged("Different tetrode values in same block"));
  EXPECT_EQ(events().n_events, 1);

  plx_fixture high = with_block(7, 1);
  for (std::size_t i = 4; i < 8; ++i) high.blocks[i].channel = 5000 + static_cast<int>(i);
  ASSERT_TRUE(open(high, 0));
  EXPECT_TRUE(session.user.logged(
      "? bad records with these unit and channel #s 1 5004 1 5005 1 5006 1 5007"));
  EXPECT_EQ(events().n_events, 1);

  // A whole group of other channels is passed over; a unit above 500 is none.
  plx_fixture other = with_block(7, 1);
  for (std::size_t i = 4; i < 8; ++i) other.blocks[i].channel = 40;
  ASSERT_TRUE(open(other, 0));
  EXPECT_EQ(events().n_events, 2);
  ASSERT_TRUE(open(with_block(7, 501), 0));
  EXPECT_EQ(clusters(), (std::vector<std::int32_t>{1, 0, 1}));

  // Cut inside a group.
  const plx_fixture whole = with_block(7, 1);
  std::vector<char> bytes = plx_bytes(whole);
  bytes.resize(bytes.size() - 40);
  ASSERT_TRUE(open_bytes(bytes));
  EXPECT_EQ(events().n_events, 2);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, tetrode_17_ends_the_read) {
  plx_fixture f = tetrode_plx(17);
  add_tetrode_record(f, 1000, 16, 1);
  add_tetrode_record(f, 2000, 17, 1);
  add_tetrode_record(f, 3000, 1, 1);
  ASSERT_TRUE(open(f, 0));
  EXPECT_EQ(events().n_events, 1);
  EXPECT_EQ(events().event_channel[1], 61);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, a_zero_spike_scale_of_a_tetrode_file_is_made_good) {
  plx_fixture f = tetrode_plx(1);
  add_tetrode_record(f, 1000, 1, 1);
  f.spike_mv = 0;
  ASSERT_TRUE(open(f, 0));
  EXPECT_EQ(recording().vscale_HP, 0.0075f);
}

// --- files that lie

TEST_F(plx_test, files_cut_anywhere_are_read_as_far_as_they_go) {
  plx_fixture f = continuous_plx(2, 3, 10);
  f.blocks.push_back({1, 10, 1, 1, ramp(1, 8)});
  const std::vector<char> bytes = plx_bytes(f);
  const std::size_t blocks_at = plx_blocks_offset(f);
  write_bytes(folder.file("electrode.cfg"), straight_config(2));
  for (std::size_t n = 0; n < blocks_at; n += n < 300 || n + 40 > blocks_at ? 1 : 97) {
    ASSERT_FALSE(open_bytes({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)}));
    EXPECT_TRUE(session.user.logged("Error reading Plexon data file"));
    expect_empty();
  }
  for (std::size_t n = blocks_at; n < bytes.size(); ++n) {
    const bool opened = open_bytes({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)});
    EXPECT_EQ(opened, n >= blocks_at + 18) << n;
    const auto size = static_cast<std::int32_t>(n - blocks_at);
    if (opened) {
      const std::int32_t round = size / 72;  // of two blocks
      EXPECT_GE(recording().n_samples, std::min(10 * round, 30)) << n;
    }
    EXPECT_EQ(check_session(*session), "");
  }
  EXPECT_TRUE(session.user.logged("Early end to file"));
}

TEST_F(plx_test, header_fields_that_lie_are_refused) {
  write_bytes(folder.file("electrode.cfg"), straight_config(8));
  constexpr std::size_t magic = 0, ad = 136, n_dsp = 140, n_events = 144, n_slow = 148,
                        points = 152, rate = 188;
  for (const bool continuous : {false, true}) {
    const std::vector<char> good = plx_bytes(continuous ? continuous_plx(2, 3, 10) : event_file());
    ASSERT_TRUE(open_bytes(good));
    for (const std::size_t field : {magic, ad, n_dsp, n_events, n_slow, points, rate}) {
      for (const std::int32_t v : {-1, 0, 5000, 2000000000, -2147483647}) {
        if (!open_bytes(with_i32(good, field, v))) expect_empty();
        EXPECT_EQ(check_session(*session), "") << field << " " << v;
        if (field == magic) {
          EXPECT_TRUE(session.user.logged("Error reading Plexon data file"));
        }
      }
    }
    EXPECT_FALSE(open_bytes(with_i32(good, ad, 2'000'000'000)));
    EXPECT_TRUE(
        session.user.told("Sampling frequency in file is 2000000000 Hz", "Can't read file"));
  }
  plx_fixture many;
  many.channels.resize(4097);
  EXPECT_FALSE(open(many));
  EXPECT_TRUE(
      session.user.told("# of channels in file exceeds upper limit of 4096", "Can't read file"));
  plx_fixture none;
  none.channels.clear();
  EXPECT_FALSE(open(none));
  plx_fixture negative = event_file();
  negative.channels[1].gain = -3;
  EXPECT_FALSE(open(negative));
  expect_empty();
}

TEST_F(plx_test, blocks_that_lie_do_no_harm) {
  for (const bool continuous : {false, true}) {
    for (const bool at_time : {false, true}) {
      session->preferences.treat_as_continuous = at_time;
      plx_fixture f = continuous ? continuous_plx(2, 3, 10) : event_file();
      const std::vector<char> good = plx_bytes(f);
      const std::size_t first = plx_blocks_offset(f);
      for (std::size_t field = 0; field < 16; field += 2) {
        for (const std::int32_t v : {-32768, -1, 0, 257, 4096, 5000, 32767}) {
          std::vector<char> bytes = good;
          const auto word = static_cast<std::int16_t>(v);
          std::memcpy(bytes.data() + first + field, &word, 2);
          if (!open_bytes(bytes)) expect_empty();
          EXPECT_EQ(check_session(*session), "") << field << " " << v;
        }
      }
    }
  }
}

TEST_F(plx_test, reading_can_be_interrupted_at_every_poll) {
  write_bytes(folder.file("electrode.cfg"), straight_config(8));
  plx_fixture walked = continuous_plx(2, 3, 10);
  walked.slow_count = 0;
  walked.last_timestamp = 0;
  plx_fixture tetrode = tetrode_plx(1);
  add_tetrode_record(tetrode, 1000, 1, 1);
  for (const plx_fixture& f : {walked, event_file(), tetrode}) {
    for (std::int64_t poll = 1;; ++poll) {
      session->operation.polls = 0;
      session->operation.interrupt_at_poll = poll;
      if (open_bytes(plx_bytes(f))) break;
      EXPECT_TRUE(session.user.logged("Reading interrupted"));
      expect_empty();
      ASSERT_LT(poll, 50);
    }
  }
}

// --- real files

TEST_F(plx_test, real_file_of_spikes) {
  const std::string path = sample_path("plexon/File_plexon_1.plx");
  if (path.empty()) GTEST_SKIP();
  write_bytes(folder.file("rec.cfg"), straight_config(4));
  ASSERT_TRUE(open_bytes(read_bytes(path)));
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_EQ(recording().sampling_frequency, 40000);
  EXPECT_EQ(recording().samples_per_event, 40);
  EXPECT_EQ(recording().vscale_HP, 1.0f);
  EXPECT_EQ(recording().channel_event_count[1], 5376);
  EXPECT_EQ(recording().channel_event_count[2], 8956);
  EXPECT_EQ(recording().channel_event_count[3], 6414);
  EXPECT_EQ(recording().channel_event_count[4], 3971);
  EXPECT_EQ(recording().first_timestamp + recording().timestamp(1, 1), 27500);  // 1100 ticks
  EXPECT_EQ(samples(1, 100, 4), (std::vector<std::int16_t>{-60, -13, 37, 138}));
  EXPECT_TRUE(session.user.logged("24717 spike waveforms read"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(plx_test, real_file_of_one_slow_channel) {
  const std::string path = sample_path("plexon/File_plexon_3.plx");
  if (path.empty()) GTEST_SKIP();
  write_bytes(folder.file("rec.cfg"), straight_config(31));
  ASSERT_TRUE(open_bytes(read_bytes(path)));
  EXPECT_EQ(recording().n_channels, 1);
  EXPECT_EQ(recording().sampling_frequency, 1000);
  EXPECT_EQ(recording().n_samples, 600806);
  EXPECT_EQ(samples(1, 1, 5), (std::vector<std::int16_t>{668, 625, 569, 482, 360}));
  EXPECT_EQ(events().n_events, 701);  // of channel 1
  EXPECT_EQ(check_session(*session), "");
}

}  // namespace
}  // namespace kestrelvane::test
