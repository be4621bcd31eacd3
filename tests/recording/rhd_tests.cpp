// Intan .rhd: versions, what a block holds besides the amplifiers, and files that lie.
#include "recording/formats/intan/rhd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>

#include "operations/open_recording.h"
#include "support/fixture_files.h"
#include "support/reader_test.h"
#include "support/rhd_fixture.h"
#include "support/samples.h"

namespace kestrelvane::test {
namespace {

struct rhd_test : reader_test {
  rhd_test() : reader_test("rec.rhd") {}

  void expect_samples(std::int32_t n_channels, std::int32_t n_samples) {
    ASSERT_EQ(recording().n_channels, n_channels);
    ASSERT_EQ(recording().n_samples, n_samples);
    for (std::int32_t c = 1; c <= n_channels; ++c) {
      const std::int16_t* v = recording().vd.channel(c);
      for (std::int32_t t = 1; t <= n_samples; ++t) {
        ASSERT_EQ(v[t], rhd_sample(c, t)) << c << " " << t;
      }
      EXPECT_EQ(v[n_samples + 1], 0);
    }
    EXPECT_EQ(check_session(*session), "");
  }
};

const std::vector<rhd_group> all_kinds = {{true, {{0}, {0, false}, {1}, {1, false}, {0}, {2}}},
                                          {false, {{0}, {0}}},
                                          {true, {}},
                                          {true, {{3}, {3}, {0}, {4}, {4}, {9}, {-1}}}};

TEST_F(rhd_test, every_version_reads) {
  for (const auto& [major, minor] : std::vector<std::pair<int, int>>{
           {1, 0}, {1, 1}, {1, 2}, {1, 3}, {1, 5}, {2, 0}, {3, 0}, {3, 3}}) {
    rhd_fixture f;
    f.major = major;
    f.minor = minor;
    f.groups = all_kinds;
    f.n_temperature = 10 * major + minor >= 11 ? 2 : 0;
    ASSERT_TRUE(open(rhd_bytes(f))) << major << "." << minor;
    expect_samples(3, 3 * rhd_block_samples(f));
    EXPECT_TRUE(
        session.user.logged("RHD Version=" + std::to_string(major) + "." + std::to_string(minor)));
    EXPECT_EQ(recording().sampling_frequency, 20000);
    EXPECT_EQ(recording().vscale_HP, 0.195f);
    EXPECT_TRUE(recording().is_continuous);
    EXPECT_EQ(recording().chan_y[3], 200);
  }
  for (const char* line :
       {"Reading INTAN RHD2000 data file (.rhd)", "User comment 2: second",
        "# of signal groups = 4", "Reading waveforms, please wait ...", "Expected end of file",
        "Voltage scaling (uV/bit) = 0.195", "Number of channels in file = 3",
        "Number of channels read = 3", "NB these will not support proper sorting",
        "Allocating memory for 384 voltage samples"}) {
    EXPECT_TRUE(session.user.logged(line)) << line;
  }
}

TEST_F(rhd_test, digital_words_stand_once_unless_the_sample_numbers_say_otherwise) {
  rhd_fixture f;
  f.groups = {{true, {{0}, {0}, {4}, {5}}}};
  for (const std::int32_t words : {1, 2}) {
    f.digital_words = words;
    ASSERT_TRUE(open(rhd_bytes(f)));
    expect_samples(2, 180);
    EXPECT_EQ(session.user.logged("stand in stretches of their own"), words == 2);
  }
  // One block tells nothing.
  f.n_blocks = 1;
  f.digital_words = 1;
  ASSERT_TRUE(open(rhd_bytes(f)));
  expect_samples(2, 60);
}

TEST_F(rhd_test, a_configuration_maps_channels) {
  const std::string config =
      "Probe\n1 2 0 0\n2 7 0 40\n3 1 0 80\n4 3 0 0\n5 4 0 0\n6 5 0 0\n7 6 0 0\n";
  write_bytes(folder.file("electrode.cfg"), {config.begin(), config.end()});
  rhd_fixture f;
  f.groups = {{true, {{0}, {0}, {0}}}};
  ASSERT_TRUE(open(rhd_bytes(f)));
  ASSERT_EQ(recording().n_channels, 3);
  for (std::int32_t t = 1; t <= recording().n_samples; ++t) {
    EXPECT_EQ(recording().vd.channel(1)[t], rhd_sample(3, t));
    EXPECT_EQ(recording().vd.channel(2)[t], rhd_sample(1, t));
    EXPECT_EQ(recording().vd.channel(3)[t], 0);  // the second goes to a channel that is not there
  }
  EXPECT_FALSE(session.user.logged("missing config file"));
}

TEST_F(rhd_test, many_blocks_read_alike_on_all_threads) {
  rhd_fixture f;
  f.major = 3;
  f.groups = {{true, std::vector<rhd_channel>(40, rhd_channel{0})}};
  f.n_blocks = 301;  // several groups of blocks, the last one short
  const std::vector<char> bytes = rhd_bytes(f);
  for (const std::int32_t threads : {1, 2, 5}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    ASSERT_TRUE(open(bytes));
    expect_samples(40, 301 * 128);
  }
}

// --- files that lie

TEST_F(rhd_test, a_cut_block_is_left_out_and_a_cut_header_refused) {
  for (const std::int32_t major : {1, 3}) {
    rhd_fixture f;
    f.major = major;
    f.n_temperature = major == 3 ? 1 : 0;
    f.groups = all_kinds;
    const std::vector<char> bytes = rhd_bytes(f);
    const std::vector<std::size_t> boundaries = rhd_boundaries(f);
    const std::size_t first_end = boundaries.back();
    for (const std::size_t boundary : boundaries) {
      for (std::size_t n = boundary - 1; n <= boundary + 1; ++n) {
        const bool opened = open({bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)});
        ASSERT_EQ(opened, n >= first_end) << n;
        if (opened) {
          expect_samples(3, rhd_block_samples(f));
        } else {
          expect_empty();
        }
      }
    }
    // Behind the sample numbers a block is missed, in front of them the file just ends.
    const std::size_t numbers = 4 * static_cast<std::size_t>(rhd_block_samples(f));
    for (const std::size_t rest : {std::size_t{0}, numbers - 1, numbers}) {
      const auto n = static_cast<std::ptrdiff_t>(first_end + rest);
      ASSERT_TRUE(open({bytes.begin(), bytes.begin() + n}));
      EXPECT_EQ(session.user.logged("Expected end of file"), rest < numbers);
      EXPECT_EQ(session.user.logged("Error or end of file"), rest == numbers);
    }
  }
}

TEST_F(rhd_test, files_without_samples_are_refused) {
  rhd_fixture f;
  f.n_blocks = 0;
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.logged("The file has a header but no samples"));
  expect_empty();
  f.n_blocks = 2;
  f.groups = {{true, {{0, false}, {1}}}, {false, {{0}}}};
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.told("# of channels in file is 0", "Can't read file"));
  expect_empty();
}

TEST_F(rhd_test, impossible_headers_are_refused) {
  rhd_fixture f;
  const std::vector<char> good = rhd_bytes(f);
  // The magic, and lengths of the first note: 4 GB, more than the file, negative.
  for (const auto& [offset, value] : std::vector<std::pair<std::size_t, std::int32_t>>{
           {0, static_cast<std::int32_t>(0xD69127AC)}, {48, -2}, {48, 0x7FFFFFFF}, {48, 100'000}}) {
    EXPECT_FALSE(open(with_i32(good, offset, value))) << offset << " " << value;
    expect_empty();
  }
  for (const float rate : {0.0f, -1.0f, 2e6f, std::numeric_limits<float>::infinity(),
                           std::numeric_limits<float>::quiet_NaN()}) {
    EXPECT_FALSE(open(with_f32(good, 8, rate))) << rate;
    expect_empty();
  }
  // Counts of groups and of the first group's channels.
  const std::vector<std::size_t> boundaries = rhd_boundaries(f);
  for (const std::size_t offset : {boundaries[2] - 2, boundaries[2] + 24}) {
    for (const std::int16_t count : {std::int16_t{-1}, std::int16_t{0}, std::int16_t{32767}}) {
      std::vector<char> bytes = good;
      std::memcpy(bytes.data() + offset, &count, 2);
      EXPECT_FALSE(open(bytes)) << offset << " " << count;
      expect_empty();
    }
  }
  f.groups = {{true, std::vector<rhd_channel>(4097, rhd_channel{0})}};
  f.n_blocks = 1;
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.told("# of channels in file exceeds upper limit of 4096"));
  expect_empty();
  // A negative count of sensors takes no bytes away.
  f = {};
  f.major = 2;
  f.n_temperature = -9;
  f.groups = {{true, {{0}}}};
  std::vector<char> bytes = rhd_bytes(f);
  ASSERT_TRUE(open(bytes));
  expect_samples(1, 384);
}

// --- samples beside the header

// Of channels 1 to n_channels side by side.
std::vector<char> signal_file(std::int32_t n_channels, std::int32_t n_samples) {
  byte_sink out;
  for (std::int32_t t = 1; t <= n_samples; ++t) {
    for (std::int32_t c = 1; c <= n_channels; ++c) out.i16(rhd_sample(c, t));
  }
  return out.bytes;
}

std::vector<char> channel_file(std::int32_t channel, std::int32_t n_samples) {
  byte_sink out;
  for (std::int32_t t = 1; t <= n_samples; ++t) out.i16(rhd_sample(channel, t));
  return out.bytes;
}

TEST_F(rhd_test, samples_in_a_file_of_their_own) {
  rhd_fixture f;
  f.major = 3;
  f.n_blocks = 0;
  write_bytes(folder.file("amplifier.dat"), signal_file(2, 1001));
  ASSERT_TRUE(open(rhd_bytes(f)));
  expect_samples(2, 1001);
  EXPECT_EQ(recording().sampling_frequency, 20000);
  EXPECT_EQ(recording().vscale_HP, 0.195f);
  EXPECT_TRUE(session.user.logged("Samples of all channels are in amplifier.dat"));
  EXPECT_TRUE(session.user.logged("Expected end of file"));

  // A time point that is cut off is none.
  std::vector<char> cut = signal_file(2, 300);
  cut.pop_back();
  write_bytes(folder.file("amplifier.dat"), cut);
  ASSERT_TRUE(open(rhd_bytes(f)));
  expect_samples(2, 299);
  EXPECT_TRUE(session.user.logged("Error or end of file"));

  write_bytes(folder.file("amplifier.dat"), {});
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.told("# of samples in file is 0"));
  expect_empty();

  // A file that has its samples needs no other.
  f.n_blocks = 3;
  ASSERT_TRUE(open(rhd_bytes(f)));
  expect_samples(2, 384);
}

TEST_F(rhd_test, samples_in_a_file_for_each_channel) {
  rhd_fixture f;  // its second channel, A-001, is disabled
  f.n_blocks = 0;
  const std::int32_t n = (1 << 21) + 7;  // more than one piece
  write_bytes(folder.file("amp-A-000.dat"), channel_file(1, n));
  write_bytes(folder.file("amp-A-002.dat"), channel_file(2, n + 5));
  for (const std::int32_t threads : {1, 3}) {
    set_thread_count(*session, threads);
    session->preferences.multi_threaded = threads > 1;
    ASSERT_TRUE(open(rhd_bytes(f)));
    expect_samples(2, n);
    EXPECT_TRUE(session.user.logged("Samples are in a file for each channel"));
    EXPECT_TRUE(session.user.logged("2097159 to 2097164 samples: 2097159 are read of each"));
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = 1;
    EXPECT_FALSE(open(rhd_bytes(f)));
    EXPECT_TRUE(session.user.logged("Reading interrupted"));
    expect_empty();
    session->operation.interrupt_at_poll = -1;
  }
  // A folder stands for the header in it.
  write_bytes(folder.file("info.rhd"), rhd_bytes(f));
  ASSERT_TRUE(open_recording(*session, folder.path));
  EXPECT_EQ(recording().recording_path, folder.file("info.rhd"));

  const std::string config = "Probe\n1 2 0 0\n2 1 0 40\n";
  write_bytes(folder.file("electrode.cfg"), {config.begin(), config.end()});
  ASSERT_TRUE(open(rhd_bytes(f)));
  EXPECT_EQ(recording().vd.channel(2)[9], rhd_sample(1, 9));
  EXPECT_EQ(recording().vd.channel(1)[n], rhd_sample(2, n));

  write_bytes(folder.file("amp-A-002.dat"), {1});
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.told("A file of a channel has no samples"));
  std::filesystem::remove(folder.file("amp-A-002.dat"));
  EXPECT_FALSE(open(rhd_bytes(f)));
  EXPECT_TRUE(session.user.logged("amp-A-002.dat"));
  expect_empty();
}

TEST_F(rhd_test, an_interrupted_read_leaves_an_empty_session) {
  session->operation.interrupt_at_poll = 1;
  EXPECT_FALSE(open(rhd_bytes({})));
  EXPECT_TRUE(session.user.logged("Reading interrupted"));
  expect_empty();
}

// --- a real recording

TEST_F(rhd_test, a_real_recording_reads_as_others_read_it) {
  const std::string file = sample_path("intan/derived/fps_repacked_v3.3.rhd");
  if (file.empty()) GTEST_SKIP() << "no real recordings on this machine";
  ASSERT_TRUE(open_recording(*session, file));
  EXPECT_EQ(recording().n_channels, 64);
  EXPECT_EQ(recording().n_samples, 24320);
  EXPECT_EQ(recording().sampling_frequency, 30000);
  const std::vector<int> first = {32582, 32562, 32561, 32623, 32592};
  for (std::size_t t = 0; t < first.size(); ++t) {
    EXPECT_EQ(recording().vd.channel(1)[t + 1] + 32768, first[t]);
  }
  // The recording that this file was made of, with one file for each kind of signal.
  const std::string header = sample_path("intan/intan_fps_test_231117_052500/info.rhd");
  if (header.empty()) return;
  small_session other;
  ASSERT_TRUE(open_recording(*other, header));
  ASSERT_EQ(other->recording.n_samples, recording().n_samples);
  ASSERT_EQ(other->recording.n_channels, 64);
  for (std::int32_t c = 1; c <= 64; ++c) {
    const std::int16_t* v = recording().vd.channel(c) + 1;
    EXPECT_TRUE(std::equal(v, v + 24320, other->recording.vd.channel(c) + 1)) << c;
  }
}

}  // namespace
}  // namespace kestrelvane::test
