// Multi Channel Systems .mcd through a library that the tests bring along.
#include "recording/formats/neuroshare.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "operations/open_recording.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

constexpr const char* whole_library = "/whole/nsMCDLibrary.so";

struct neuroshare_test : testing::Test {
  temporary_directory folder;
  std::string path = folder.file("rec.mcd");
  small_session session;

  neuroshare_test() {
    session.user.default_answer = true;
    place_library(whole_library, "nsMCDLibrary.so");
  }

  recording_request request;
  recording_store& recording() { return session->recording; }

  void place_library(const std::string& which, const std::string& name) {
    std::filesystem::copy_file(KESTRELVANE_NEUROSHARE_DOUBLES + which, folder.file(name));
  }

  // settings: lines of the double's file; as much behind them as the samples would take.
  bool open(const std::string& settings, std::size_t n_bytes = 40000) {
    std::string text = settings + "\n\n";
    text.resize(std::max(n_bytes, text.size()));
    write_bytes(path, {text.begin(), text.end()});
    session.user.boxes.clear();
    session.user.lines.clear();
    session.user.questions.clear();
    request.path = path;
    const auto prepared = prepare_open_recording(*session, request);
    return prepared && open_recording_worker(*session, *prepared);
  }

  void expect_refused(const std::string& settings, const std::string& text) {
    EXPECT_FALSE(open(settings)) << settings;
    EXPECT_TRUE(session.user.told(text)) << settings << session.user.all_lines();
    EXPECT_TRUE(session.user.logged(text)) << settings;
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(recording().n_channels, 0);
    EXPECT_EQ(check_session(*session), "");
  }

  // The samples of channel c of the file, in the given channel.
  void expect_samples(std::int32_t channel, std::int32_t c, std::int32_t n) {
    for (std::int32_t t = 1; t <= n; ++t) {
      ASSERT_EQ(recording().vd.channel(channel)[t], (c * 1000 + (t - 1) * 7) % 4001 - 2000) << t;
    }
    ASSERT_EQ(recording().vd.channel(channel)[n + 1], 0);
  }
};

TEST_F(neuroshare_test, electrode_streams_read_whatever_the_library_takes_sizes_to_be) {
  for (const char* settings : {"size=264", "size=272", "stream=1", "contiguous=4000000000"}) {
    ASSERT_TRUE(open(std::string("channels=3\n") + settings)) << settings;
    ASSERT_EQ(recording().n_channels, 3);
    ASSERT_EQ(recording().n_samples, 1000);
    for (std::int32_t c = 1; c <= 3; ++c) expect_samples(c, c, 1000);
    EXPECT_EQ(recording().sampling_frequency, 25000);
    EXPECT_FLOAT_EQ(recording().vscale_HP, 0.1f);
    EXPECT_TRUE(recording().is_continuous);
    EXPECT_TRUE(session.user.logged("Channel names: 21 22 23"));
    EXPECT_FALSE(session.user.logged("pauses"));
    EXPECT_EQ(check_session(*session), "");
  }
}

TEST_F(neuroshare_test, pauses_close_up_inside_a_piece_and_between_two) {
  for (const int pause : {600, 16384, 32767, 39999}) {
    ASSERT_TRUE(open("items=40000\nrate=1000\npause=" + std::to_string(pause), 200000)) << pause;
    expect_samples(1, 1, 40000);
    expect_samples(2, 2, 40000);
    const std::string after = fmt::format("{:.3f}", pause / 1000.0);
    EXPECT_TRUE(session.user.logged("pauses 1 times, first after " + after + " s"))
        << session.user.all_lines();
  }
}

TEST_F(neuroshare_test, uneven_channels_and_odd_values_are_told) {
  ASSERT_TRUE(open("odd=1"));
  EXPECT_EQ(recording().n_samples, 1000);
  expect_samples(2, 2, 500);
  EXPECT_TRUE(session.user.logged("Channels hold from 500 to 1000 samples"));
  ASSERT_TRUE(open("slow=1"));
  EXPECT_EQ(recording().n_channels, 1);
  EXPECT_TRUE(session.user.logged("1 channels of another sampling frequency"));
  ASSERT_TRUE(open("channels=1\nitems=1000\nloudness=100\nnan=4"));
  EXPECT_EQ(recording().vd.channel(1)[1], -32768);
  EXPECT_EQ(recording().vd.channel(1)[5], 0);
  EXPECT_TRUE(session.user.logged("samples were limited to 16 bits"));
  EXPECT_TRUE(session.user.logged("1 samples are not numbers"));
}

TEST_F(neuroshare_test, the_library_is_looked_for_under_both_names) {
  write_bytes(folder.file("nsMCDLibrary.so"), {'M', 'Z'});  // one of another system
  expect_refused("", "Can't find nsMCDLibrary64.dll");
  EXPECT_TRUE(session.user.told("Can't find nsMCDLibrary64.dll", "Missing dll"));
  place_library(whole_library, "nsMCDLibrary64.dll");
  EXPECT_TRUE(open(""));
  std::filesystem::remove(folder.file("nsMCDLibrary64.dll"));
  std::filesystem::remove(folder.file("nsMCDLibrary.so"));
  expect_refused("", "Can't find nsMCDLibrary64.dll");
  place_library("/incomplete/nsMCDLibrary.so", "nsMCDLibrary.so");
  expect_refused("", "Library functions missing in nsMCDLibrary64.dll");
  EXPECT_TRUE(session.user.told("Library functions missing in nsMCDLibrary64.dll", "Access error"));
}

TEST_F(neuroshare_test, what_the_library_reports_or_invents_is_refused_in_words) {
  expect_refused("open=-3", "Error accessing MCD format file");
  EXPECT_TRUE(session.user.logged("mcs_error_code=-3"));
  expect_refused("read=-1", "Error reading file");
  EXPECT_TRUE(session.user.logged("mcs_error_code=-1"));
  expect_refused("size=300", "Error reading file");
  expect_refused("contiguous=0", "Error reading file");
  expect_refused("entities=100", "Error reading file");  // more than there are
  expect_refused("entities=0", "# of entities in file is 0");
  expect_refused("entities=4000000000", "# of entities in file is 4000000000");
  expect_refused("stream=2", "# of channels in file is 0");
  expect_refused("channels=4097", "# of channels in file exceeds upper limit of 4096");
  expect_refused("items=0", "# of samples in file is 0");
  expect_refused("items=4000000000", "# of samples in file is 4000000000");
  expect_refused("items=20001", "# of samples in file is 20001, for which the file is too short");
  for (const char* rate : {"0", "-1", "nan", "1e9"}) {
    EXPECT_FALSE(open(std::string("rate=") + rate));
    EXPECT_TRUE(session.user.logged("Sampling frequency in file is")) << rate;
    EXPECT_FALSE(open(std::string("step=") + rate));
    EXPECT_TRUE(session.user.logged("Voltage scaling in file is")) << rate;
  }
}

TEST_F(neuroshare_test, a_configuration_beside_the_recording_is_used_if_the_user_says_so) {
  constexpr const char* question =
      "An electrode configuration file exists for this recording, use it?";
  const std::string config = "Probe\n1 2 0 50\n2 1 0 0\n";
  ASSERT_TRUE(open(""));
  EXPECT_FALSE(session.user.asked(question, "Electrode channels"));
  EXPECT_EQ(recording().chan_y[2], 200);
  write_bytes(folder.file("electrode.cfg"), {config.begin(), config.end()});
  ASSERT_TRUE(open(""));
  EXPECT_TRUE(session.user.asked(question, "Electrode channels"));
  expect_samples(2, 1, 1000);
  expect_samples(1, 2, 1000);
  EXPECT_EQ(recording().chan_y[2], 50);
  session.user.answers[question] = false;
  ASSERT_TRUE(open(""));
  expect_samples(1, 1, 1000);
  EXPECT_EQ(recording().chan_y[2], 200);
  // One that is named needs no question.
  request.configuration = folder.file("electrode.cfg");
  ASSERT_TRUE(open(""));
  EXPECT_FALSE(session.user.asked(question, "Electrode channels"));
  EXPECT_EQ(recording().chan_y[2], 50);
}

TEST_F(neuroshare_test, an_interrupted_read_leaves_an_empty_session) {
  for (const int poll : {1, 2, 3}) {
    session->operation.polls = 0;
    session->operation.interrupt_at_poll = poll;
    EXPECT_FALSE(open("items=40000", 200000));
    EXPECT_TRUE(session.user.logged("Reading interrupted"));
    EXPECT_TRUE(session.user.boxes.empty());
    EXPECT_EQ(recording().n_samples, 0);
    EXPECT_EQ(check_session(*session), "");
  }
}

}  // namespace
}  // namespace kestrelvane::test
