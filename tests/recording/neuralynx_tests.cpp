// Neuralynx: continuous and tetrode files, the tetrode writer, and files that lie.
#include "recording/formats/neuralynx/neuralynx.h"

#include <gtest/gtest.h>

#include "operations/open_recording.h"
#include "results/exports.h"
#include "support/fixture_files.h"
#include "support/full_device.h"
#include "support/neuralynx_fixture.h"
#include "support/samples.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct neuralynx_test : testing::Test {
  temporary_directory folder;
  small_session session;

  recording_store& recording() { return session->recording; }
  event_table& events() { return session->events; }

  // Any case of the extension; the code decides.
  bool open_path(const std::string& path, std::int32_t code) {
    session.user.boxes.clear();
    session.user.lines.clear();
    return open_recording_worker(*session, {path, code});
  }
  bool open_ncs(const std::vector<ncs_fixture_record>& records,
                const std::vector<std::string>& lines = ncs_header_lines()) {
    return open_bytes(ncs_bytes(neuralynx_header(lines), records), file_type_ncs);
  }
  bool open_ntt(const std::vector<ntt_fixture_record>& records,
                const std::vector<std::string>& lines = ntt_header_lines()) {
    return open_bytes(ntt_bytes(neuralynx_header(lines), records), file_type_ntt);
  }
  bool open_bytes(const std::vector<char>& bytes, std::int32_t code) {
    const std::string path = folder.file(code == file_type_ncs ? "rec.ncs" : "rec.ntt");
    write_bytes(path, bytes);
    return open_path(path, code);
  }
  void expect_empty() {
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_EQ(events().n_events, 0);
    EXPECT_EQ(recording().ntt_record_count, 0);
    EXPECT_EQ(check_session(*session), "");
  }
};

TEST_F(neuralynx_test, ncs_channels_share_a_file_and_pauses_close_up) {
  // Channel 12 pauses for a second; its second record is short. Channel 11 has no record.
  ASSERT_TRUE(open_ncs({{5'000'000'000'000'000, 10, 0},
                        {5'000'000'000'000'000, 12, 1000},
                        {5'000'000'000'016'000, 10, 600, 300},
                        {5'000'000'001'000'000, 12, 3000, 100},
                        {5'000'000'001'004'000, 12, 4000}}));
  EXPECT_EQ(recording().n_channels, 3);
  // 1004 ms at 32 kHz are more than the fullest channel has.
  EXPECT_EQ(recording().n_samples, 512 + 100 + 512 + 10512);
  EXPECT_EQ(recording().sampling_frequency, 32000);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.03f);
  EXPECT_EQ(recording().electrode_type, electrode_tetrode);
  EXPECT_TRUE(recording().is_continuous);
  const std::int16_t* a = recording().vd.channel(1);
  const std::int16_t* b = recording().vd.channel(2);
  const std::int16_t* c = recording().vd.channel(3);
  EXPECT_EQ(a[1], 0);
  EXPECT_EQ(a[512], 511);
  EXPECT_EQ(a[513], 600);
  EXPECT_EQ(a[812], 899);
  EXPECT_EQ(a[813], 0);  // the rest of a short record is junk
  EXPECT_EQ(b[1], 0);
  EXPECT_EQ(c[512], 1511);
  EXPECT_EQ(c[513], 3000);
  EXPECT_EQ(c[613], 4000);
  EXPECT_TRUE(session.user.logged("allocating 11636 3"));
  // From 16 ms on, when the record ends; the next stamp is within rounding of the 100 samples.
  EXPECT_TRUE(session.user.logged("Pause of 0.984 s after 0.016 s on channel 3"));
  EXPECT_TRUE(session.user.logged("Warning: a pause, 0.984 s in all"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(neuralynx_test, ncs_pauses_are_told_one_by_one) {
  // A second, a record that begins 0.9 ms late, a clock that goes back, and half a minute.
  ASSERT_TRUE(open_ncs({{0, 7, 0},
                        {1'016'000, 7, 1},
                        {1'032'900, 7, 2},
                        {1'000'000, 7, 3, 256},
                        {31'008'000, 7, 4}}));
  EXPECT_TRUE(session.user.logged("Pause of 1 s after 0.016 s on channel 1"));
  EXPECT_TRUE(session.user.logged("Pause of 30 s after 0.056 s on channel 1"));
  EXPECT_FALSE(session.user.logged("after 0.032 s"));
  EXPECT_FALSE(session.user.logged("after 0.048 s"));
  EXPECT_TRUE(session.user.logged(
      "Warning: 2 pauses, 31 s in all, closed up: later times are early by as much"));

  ASSERT_TRUE(open_ncs({{0, 7, 0}, {16'000, 7, 1}}));
  EXPECT_FALSE(session.user.logged("ause"));
}

TEST_F(neuralynx_test, ncs_length_is_that_of_the_time_span_where_it_is_shorter) {
  ASSERT_TRUE(open_ncs({{1000, 3, 0}, {9000, 3, 512}}));
  EXPECT_EQ(recording().n_samples, 8000 * 32000 / 1'000'000 + 10512);
  EXPECT_EQ(recording().n_channels, 1);
  EXPECT_EQ(recording().electrode_type, electrode_polytrode);
  EXPECT_EQ(recording().vd.channel(1)[1024], 1023);
}

TEST_F(neuralynx_test, ncs_may_begin_and_end_on_one_of_its_channels) {
  ASSERT_TRUE(open_ncs({{0, 1, 0}, {0, 2, 1000}, {16000, 2, 2000, 7}, {16000, 1, 3000}}));
  EXPECT_EQ(recording().n_channels, 2);
  EXPECT_EQ(recording().n_samples, 512 + 10512);
  EXPECT_EQ(recording().vd.channel(1)[513], 3000);
  EXPECT_EQ(recording().vd.channel(2)[519], 2006);
  EXPECT_EQ(recording().vd.channel(2)[520], 0);
}

TEST_F(neuralynx_test, headers_of_all_versions_are_understood) {
  // Tabs in front of keys and behind them, a rate with decimals, no empty line.
  ASSERT_TRUE(
      open_ncs({{0, 1, 5, 512, 1017}},
               {"######## Neuralynx Data File Header", "\t-SamplingFrequency\t1017.375000",
                "\t-ADBitVolts\t7.73E-8", "\t-InputInverted\tTrue", "-DspFilterDelay_\xB5s 4"}));
  EXPECT_EQ(recording().sampling_frequency, 1017);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.0773f);
  EXPECT_EQ(recording().vd.channel(1)[1], 5);
  EXPECT_TRUE(session.user.logged("vscale_HP= 0.0773"));
  EXPECT_TRUE(session.user.logged("Input was inverted"));
  EXPECT_TRUE(session.user.logged("-DspFilterDelay_\xC2\xB5s 4"));

  // The copy of the header ends at an empty line; keys behind it count all the same.
  ASSERT_TRUE(open_ncs({{0, 1, 5}}));
  EXPECT_TRUE(session.user.logged("## File made for a test"));
  EXPECT_FALSE(session.user.logged("-RecordSize"));
  EXPECT_FALSE(session.user.logged("Input was inverted"));

  std::vector<std::string> lines = ncs_header_lines();
  lines.back() = "-ADBitVolts 0.00002";
  ASSERT_TRUE(open_ncs({{0, 1, 5}}, lines));
  EXPECT_EQ(recording().vscale_HP, 0.05f);
  lines.back() = "-ADBitVolts lost";
  ASSERT_TRUE(open_ncs({{0, 1, 5}}, lines));
  EXPECT_TRUE(session.user.logged("Error decoding header"));
  EXPECT_EQ(recording().vscale_HP, 1.0f);
}

TEST_F(neuralynx_test, ncs_rate_comes_from_the_first_record_or_else_the_header) {
  ASSERT_TRUE(open_ncs({{0, 1, 5, 512, 30000}, {0, 1, 5, 512, 1}}));
  EXPECT_EQ(recording().sampling_frequency, 30000);
  ASSERT_TRUE(open_ncs({{0, 1, 5, 512, 0}}));
  EXPECT_EQ(recording().sampling_frequency, 32000);
  EXPECT_TRUE(session.user.logged("The records have no sampling frequency"));
}

TEST_F(neuralynx_test, ncs_is_the_same_on_any_number_of_threads) {
  std::vector<ncs_fixture_record> records;
  for (std::uint32_t i = 0; i < 2500; ++i) {
    records.push_back({16000ull * i, i % 2, static_cast<std::int32_t>(i), 512 - i % 7});
  }
  std::vector<std::int16_t> first;
  for (const std::int32_t n : {1, 3}) {
    session->n_threads = n;
    ASSERT_TRUE(open_ncs(records));
    std::vector<std::int16_t> all;
    for (std::int32_t c = 1; c <= 2; ++c) {
      const std::int16_t* v = recording().vd.channel(c);
      all.insert(all.end(), v, v + recording().n_samples + 1);
    }
    if (first.empty()) first = all;
    EXPECT_EQ(all, first);
  }
  EXPECT_EQ(recording().vd.channel(2)[1], 1);
  EXPECT_EQ(recording().vd.channel(2)[512], 3);  // 511 samples of record 1 came before
}

TEST_F(neuralynx_test, ncs_files_that_lie_leave_an_empty_session) {
  const std::vector<char> good =
      ncs_bytes(neuralynx_header(ncs_header_lines()), {{0, 1, 5}, {16000, 1, 6}});
  for (const std::size_t n : {0, 5, 16383, 16384, 16385, 16384 + 1043}) {
    EXPECT_FALSE(
        open_bytes({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(n)}, file_type_ncs))
        << n;
    EXPECT_TRUE(session.user.told("Error reading .ncs file", "Open a recording file"));
    expect_empty();
  }
  // A part of a record at the end is left, with a word.
  ASSERT_TRUE(open_bytes({good.begin(), good.end() - 1}, file_type_ncs));
  EXPECT_EQ(recording().n_samples, 10512);
  EXPECT_EQ(recording().vd.channel(1)[512], 516);
  EXPECT_EQ(recording().vd.channel(1)[513], 0);
  EXPECT_TRUE(session.user.logged("Early end to file"));

  EXPECT_FALSE(open_ncs({{0, 1, 5}, {0, 4097, 5}}));
  EXPECT_TRUE(
      session.user.told("# of channels in file exceeds upper limit of 4096", "Can't read file"));
  expect_empty();
  EXPECT_FALSE(open_ncs({{0, 0, 5}, {0, 0xFFFFFFFFu, 5}}));
  expect_empty();
  EXPECT_FALSE(open_ncs({{0, 1, 5, 512, 0}}, {"-SamplingFrequency -5"}));
  EXPECT_TRUE(session.user.told("Sampling frequency in file is -5 Hz", "Can't read file"));
  EXPECT_FALSE(open_ncs({{0, 1, 5}}, {"-ADBitVolts -1e-7"}));
  expect_empty();

  // Stamps from end to end of their range, and more samples than a record holds.
  ASSERT_TRUE(open_ncs({{0, 1, 5, 0xFFFFFFFFu}, {~0ull, 1, 6, 512}}));
  EXPECT_EQ(recording().n_samples, 1024 + 10512);
  EXPECT_TRUE(session.user.logged("1 records tell of more than 512 samples"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(neuralynx_test, reading_can_be_interrupted) {
  session->operation.interrupt_at_poll = session->operation.polls + 1;
  EXPECT_FALSE(open_ncs({{0, 1, 5}}));
  EXPECT_TRUE(session.user.logged("Reading interrupted"));
  expect_empty();
  session->operation.interrupt_at_poll = session->operation.polls + 1;
  session->preferences.treat_as_continuous = true;
  EXPECT_FALSE(open_ntt({{0}}));
  EXPECT_TRUE(session.user.logged("Reading interrupted"));
  expect_empty();
  // What the file would have demanded of settings is not done.
  EXPECT_EQ(session->strategy.template_window_end_ms, 0.8f);
  EXPECT_TRUE(session->preferences.treat_as_continuous);
}

TEST_F(neuralynx_test, ntt_records_become_events_of_four_channels) {
  session->preferences.treat_as_continuous = true;
  ASSERT_TRUE(open_ntt({{7'000'000, 0, 1, {3}},
                        {7'000'500, 2, 2, {4, 2}},  // a tie
                        {7'002'000, 1, 3, {4}, -800},
                        {7'003'000, 4000, 4, {}},
                        {7'004'000, 1, 5, {4}, -800}}));
  EXPECT_TRUE(
      session.user.logged("Turning off option to 'treat_event_based_recording_as_continuous'"));
  EXPECT_FALSE(session->preferences.treat_as_continuous);
  EXPECT_FALSE(recording().is_continuous);
  EXPECT_EQ(recording().n_channels, 4);
  EXPECT_EQ(recording().n_tetrodes, 1);
  EXPECT_EQ(recording().electrode_type, electrode_tetrode);
  EXPECT_EQ(recording().samples_per_event, 32);
  EXPECT_FLOAT_EQ(recording().vscale_HP, 0.25f);
  EXPECT_EQ(recording().n_samples, 100 + 4 * 64 + 31);
  EXPECT_EQ(recording().first_timestamp, 7'000'000);
  EXPECT_EQ(recording().timestamp(1, 1), 0);
  EXPECT_EQ(recording().timestamp(3, 1), 2000);
  EXPECT_EQ(recording().record_unit(2, 1), 2);
  EXPECT_EQ(recording().tetrode_event_count[1], 5);
  ASSERT_EQ(events().n_events, 5);
  const std::vector<std::int32_t> channels{3, 2, 4, 1, 4}, clusters{0, 2, 1, 0, 1};
  for (std::int32_t i = 1; i <= 5; ++i) {
    EXPECT_EQ(events().event_time[i], 116 + 64 * (i - 1));
    EXPECT_EQ(events().event_channel[i], channels[static_cast<std::size_t>(i - 1)]) << i;
    EXPECT_EQ(events().event_cluster[i], clusters[static_cast<std::size_t>(i - 1)]) << i;
    for (std::int32_t k = 0; k < 8; ++k) {
      EXPECT_EQ(recording().ntt_features[8 * (i - 1) + k + 1], ntt_fixture_feature({0, 0, i}, k));
    }
  }
  EXPECT_EQ(session->clusters.n_clusters, 2);
  EXPECT_EQ(session->clusters.current_cluster, 1);
  EXPECT_EQ(recording().vd.channel(4)[100 + 2 * 64 + 8], 300 + 40 + 8 - 800);
  EXPECT_EQ(recording().vd.channel(1)[100 + 64 + 32], 0);
  EXPECT_EQ(session->templates.centre_channel(1), 4);
  EXPECT_EQ(session->strategy.template_window_end_ms, 0.64f);
  EXPECT_FLOAT_EQ(recording().duration_mins, 4.0f / 60000.0f);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(neuralynx_test, ntt_waveform_length_is_32_or_absent) {
  std::vector<std::string> lines = ntt_header_lines();
  for (const auto& [line, word] :
       {std::pair{"-WaveformLength 64", "Unsupported waveform length= 64"},
        std::pair{"-WaveformLength ?", "Error decoding header"}}) {
    lines.back() = line;
    EXPECT_FALSE(open_ntt({{0}}, lines));
    EXPECT_TRUE(session.user.logged(word));
    EXPECT_TRUE(
        session.user.told("This record length currently unsupported", "Unsupported file format"));
    EXPECT_TRUE(session.user.told("Error reading .ntt file", "Open a recording file"));
    expect_empty();
  }
  lines.pop_back();
  EXPECT_TRUE(open_ntt({{0}}, lines));
  EXPECT_EQ(events().n_events, 1);
  EXPECT_FALSE(open_ntt({{0}}, {"-ADBitVolts 0.0000001"}));
  EXPECT_TRUE(session.user.told("Sampling frequency in file is 0 Hz", "Can't read file"));
  EXPECT_FALSE(open_ntt({}));
  expect_empty();
}

TEST_F(neuralynx_test, ntt_is_written_back_as_it_was) {
  std::vector<ntt_fixture_record> records;
  for (std::uint32_t i = 0; i < 40; ++i) {
    records.push_back({90'000'000 + 700 * i, 1 + i % 3, static_cast<std::int32_t>(i), {1}});
  }
  records[5].time_us = 12;  // stamps need not ascend
  const std::string header = neuralynx_header(ntt_header_lines());
  std::vector<char> original = ntt_bytes(header, records);
  ASSERT_TRUE(open_bytes(original, file_type_ntt));
  const std::string copy = folder.file("copy.ntt");
  ASSERT_TRUE(export_sorted_spikes(*session, *find_export_format("ntt"), copy, {}));
  EXPECT_TRUE(session.user.told("Neuralynx .NTT recording data saved", "Export sorted data"));
  // Only the acquisition numbers differ: they tell the event's channel.
  for (std::size_t r = 0; r < records.size(); ++r) {
    original = with_i32(original, 16384 + 304 * r + 8, 1);
  }
  EXPECT_EQ(read_bytes(copy), original);

  // Event 1 moves by a whole record, 2 loses its cluster, 3 changes it and a second event
  // comes into its record, 4 stands on the edge.
  events().event_time[1] += 32;
  events().event_cluster[2] = 0;
  events().event_cluster[3] = 2;
  events().event_time[4] = 100 + 3 * 64;
  events().event_time[40] = events().event_time[3] + 4;
  recording().vd.channel(2)[100 + 4] = -77;
  ASSERT_TRUE(write_ntt(*session, copy));
  ASSERT_TRUE(open_path(copy, file_type_ntt));
  const std::vector<std::int32_t> clusters{0, 0, 2, 0, 2};
  for (std::int32_t i = 1; i <= 5; ++i) {
    EXPECT_EQ(events().event_cluster[i], clusters[static_cast<std::size_t>(i - 1)]) << i;
  }
  EXPECT_EQ(events().event_cluster[40], 0);
  EXPECT_EQ(events().event_cluster[39], 3);
  EXPECT_EQ(recording().vd.channel(2)[100 + 4], -77);
}

TEST_F(neuralynx_test, only_tetrode_data_can_be_written_as_such) {
  ASSERT_TRUE(open_ncs({{0, 1, 5}}));
  EXPECT_FALSE(export_is_possible(*session, *find_export_format("ntt")));
  EXPECT_TRUE(session.user.told("No Neuralynx data in memory", "Can't save data"));

  ASSERT_TRUE(open_ntt({{0, 1}}));
  const std::string path = folder.file("rec.ntt");
  const std::vector<char> before = read_bytes(path);
  {
    const full_device full;
    EXPECT_FALSE(write_ntt(*session, path));
  }
  EXPECT_TRUE(session.user.told("Error saving Neuralynx .ntt data " + path + ": File too large",
                                "Export sorted data"));
  EXPECT_EQ(read_bytes(path), before);
}

// --- real files

struct real_ncs {
  const char* path;
  std::int32_t rate;
  double vscale;
  std::int32_t valid_samples;
  std::vector<std::int16_t> first;
};

TEST_F(neuralynx_test, real_continuous_files) {
  const real_ncs files[] = {
      {"BML/original_data/CSC1_trunc.Ncs", 24000, 0.0773, 4608, {28, 27, -2, -31, -41}},
      {"BML_unfilledsplit/original_data/unfilledSplitRecords.Ncs",
       29411,
       0.152587890625,
       1332,
       {-5617, -5554}},
      {"Cheetah_v4.0.2/original_data/CSC14_trunc.Ncs", 27789, 0.24426, 5120, {-306, -331}},
      {"Cheetah_v5.4.0/original_data/CSC5_trunc.Ncs", 1017, 0.0153, 3584, {-3829, -2637}},
      {"Cheetah_v5.5.1/original_data/Tet3a.ncs", 32000, 0.0305185, 1705984, {-4552, -4957}},
      {"Cheetah_v5.7.4/original_data/CSC1.ncs",
       32000,
       0.030517578125,
       1395036,
       {-519, -283, -37, -26, -165}},
      {"mne/LAHC1.ncs", 2000, 0.30517578125, 11691, {-3851, -1196}},
      {"mne/LAHCu1.ncs", 32000, 0.030517578125, 187071, {}},
  };
  std::int32_t n_found = 0;
  for (const real_ncs& f : files) {
    const std::string path = sample_path(std::string("neuralynx/") + f.path);
    if (path.empty()) continue;
    ++n_found;
    ASSERT_TRUE(open_path(path, file_type_ncs)) << path;
    EXPECT_EQ(recording().n_channels, 1);
    EXPECT_EQ(recording().sampling_frequency, f.rate);
    EXPECT_FLOAT_EQ(recording().vscale_HP, static_cast<float>(f.vscale));
    EXPECT_LE(recording().n_samples, f.valid_samples + 10512) << path;
    const std::int16_t* v = recording().vd.channel(1);
    for (std::size_t k = 0; k < f.first.size(); ++k) EXPECT_EQ(v[k + 1], f.first[k]) << path;
    std::int32_t last = recording().n_samples;
    while (last > 0 && v[last] == 0) --last;
    // A few of the last samples may be zero of their own.
    EXPECT_NEAR(last, f.valid_samples, 3) << path;
    EXPECT_EQ(session.user.logged("ause of 203.835 s after 39.968 s"),
              path.find("Tet3a") != std::string::npos);
    EXPECT_EQ(check_session(*session), "");
  }
  if (n_found == 0) GTEST_SKIP();
}

TEST_F(neuralynx_test, real_tetrode_files) {
  struct real_ntt {
    const char* path;
    std::int32_t n_records;
    std::vector<std::int16_t> first;
  };
  const real_ntt files[] = {
      {"Cheetah_v5.6.3/original_data/TT1.ntt", 5699, {-849, -1809, -2723, -2338}},
      {"mobeets_ntt/Sample1.ntt", 9796, {}},
  };
  std::int32_t n_found = 0;
  for (const real_ntt& f : files) {
    const std::string path = sample_path(std::string("neuralynx/") + f.path);
    if (path.empty()) continue;
    ++n_found;
    ASSERT_TRUE(open_path(path, file_type_ntt)) << path;
    EXPECT_EQ(events().n_events, f.n_records);
    for (std::size_t k = 0; k < f.first.size(); ++k) {
      EXPECT_EQ(recording().vd.channel(1)[100 + k], f.first[k]);
    }
    // Written back and read again: all but the acquisition numbers is as it was.
    const std::string copy = folder.file("copy.ntt");
    ASSERT_TRUE(write_ntt(*session, copy));
    std::vector<char> a = read_bytes(path), b = read_bytes(copy);
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t at = 16384; at < a.size(); at += 304) {
      std::fill_n(a.begin() + static_cast<std::ptrdiff_t>(at) + 8, 4, '\0');
      std::fill_n(b.begin() + static_cast<std::ptrdiff_t>(at) + 8, 4, '\0');
    }
    EXPECT_EQ(a, b);
  }
  if (n_found == 0) GTEST_SKIP();
}

}  // namespace
}  // namespace kestrelvane::test
