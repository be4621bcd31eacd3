// Opening: classification, the dialog's decisions, the recent list, the worker.
#include "operations/open_recording.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "files/byte_cursor.h"
#include "recording/recent_files.h"
#include "recording/recording_formats.h"
#include "support/fixture_files.h"
#include "support/interleaved_fixture.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(recording_formats, extensions_count_in_upper_or_lower_case_alone) {
  const std::pair<const char*, std::int32_t> cases[] = {
      {"a/rec.srf", 1},  {"rec.NTT", 2},    {"rec.ncs", 3},  {"rec.prf", 4},  {"rec.PLX", 5},
      {"rec.xml", 6},    {"rec.tsf", 7},    {"rec.TSF", 7},  {"rec.mcd", 8},  {"rec.hdf5", 9},
      {"rec.H5", 9},     {"rec.nwb", 10},   {"rec.nev", 11}, {"rec.ns1", 12}, {"rec.NS9", 12},
      {"rec.rhd", 13},   {"rec.bin", 14},   {"rec.pl2", 15}, {"rec.Tsf", 0},  {"rec.ns0", 0},
      {"rec.nsx", 0},    {"rec.hDF5", 0},   {"tsf", 0},      {"", 0},         {"rec.tsf.bak", 0},
      {"rec.tsf/no", 0}, {"two.tsf.plx", 5}};
  for (const auto& [path, code] : cases) EXPECT_EQ(classify_extension(path), code) << path;
  EXPECT_EQ(classify_extension("rec.Tsf", true), 7);
  EXPECT_EQ(classify_extension("rec.Hdf5", true), 9);
}

TEST(byte_cursor, gives_zero_from_the_end_on) {
  byte_sink out;
  out.i16(-2).i32(70000).f32(0.5);
  byte_cursor in{out.bytes.data(), out.bytes.size()};
  EXPECT_EQ(take_i16(in), -2);
  EXPECT_EQ(take_i32(in), 70000);
  EXPECT_FALSE(in.failed);
  EXPECT_EQ(take_value<double>(in), 0.0);
  EXPECT_TRUE(in.failed);
  EXPECT_EQ(take_f32(in), 0.0f);  // even though four bytes are there
  EXPECT_EQ(take_text(in, 1), "");
}

struct open_test : testing::Test {
  temporary_directory folder;
  temporary_directory home;
  small_session session;
  scripted_interface& user = session.user;

  std::string make(const std::string& name, const tsf_fixture& f = {}) {
    write_bytes(folder.file(name), tsf_bytes(f));
    return folder.file(name);
  }
};

TEST_F(open_test, a_good_read_says_what_there_is) {
  tsf_fixture f;
  f.n_channels = 4;
  f.n_samples = 25000;
  f.events = {{100, 1, 1}, {200, 1, 2}};
  const std::string path = make("rec.tsf", f);
  session->recording.recording_filtered = true;
  session->filter_history.n_entries = 4;
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_TRUE(user.boxes.empty());
  EXPECT_THAT(user.titles, ElementsAre("Kestrelvane  -  rec.tsf"));
  EXPECT_EQ(session->recording.recording_path, path);
  EXPECT_TRUE(session->operation.open_succeeded);
  EXPECT_FALSE(session->operation.reader_running);
  EXPECT_FALSE(session->recording.recording_filtered);
  EXPECT_EQ(session->filter_history.n_entries, 0);
  EXPECT_FLOAT_EQ(session->recording.duration_mins, 1000.0f / 60000.0f);
  EXPECT_GT(session->recording.chan_noise[4], 0.0f);
  EXPECT_EQ(session->display.vd_channel_spacing, (600 - 80) / 4);
  const std::string lines = user.all_lines();
  std::size_t at = 0;
  for (const char* line :
       {"Calculating channel noise values\n", "Recording duration = 0.02 mins\n",
        "# of voltage samples per channel = 25000\n", "# of events saved in file = 2\n",
        "Sampling frequency = 25000 Hz\n", "Finished reading recording file!\n\n"}) {
    at = lines.find(line, at);
    EXPECT_NE(at, std::string::npos) << line;
  }
  // A second open starts its lines with a blank one.
  user.lines.clear();
  user.default_answer = true;
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_EQ(user.lines.front(), "");
}

TEST_F(open_test, data_in_memory_are_given_up_only_on_yes) {
  const std::string path = make("rec.tsf");
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_TRUE(user.questions.empty());
  EXPECT_FALSE(open_recording(*session, make("other.tsf")));
  EXPECT_TRUE(user.asked(
      "The new file will overwrite existing data in memory and you will lose any unsaved results!",
      "Are you sure?"));
  EXPECT_EQ(session->recording.recording_path, path);
  user.default_answer = true;
  EXPECT_TRUE(open_recording(*session, folder.file("other.tsf")));
  EXPECT_EQ(session->recording.recording_path, folder.file("other.tsf"));
}

TEST_F(open_test, paths_that_cannot_be_read_are_told_and_change_nothing) {
  ASSERT_TRUE(open_recording(*session, make("good.tsf")));
  user.default_answer = true;
  std::filesystem::create_directory(folder.file("folder.tsf"));
  ASSERT_EQ(mkfifo(folder.file("pipe.tsf").c_str(), 0600), 0);
  const std::pair<std::string, std::string> cases[] = {
      {"missing.tsf", "Can't find file " + folder.file("missing.tsf")},
      {"folder.tsf", "Can't open file " + folder.file("folder.tsf") + ": It is a folder"},
      {"pipe.tsf", "Can't open file " + folder.file("pipe.tsf") + ": It is not an ordinary file"},
  };
  for (const auto& [name, words] : cases) {
    EXPECT_FALSE(open_recording(*session, folder.file(name)));
    EXPECT_TRUE(user.told(words, "Open file failed")) << name;
  }
  if (geteuid() != 0) {
    const std::string locked = make("locked.tsf");
    std::filesystem::permissions(locked, std::filesystem::perms::none);
    EXPECT_FALSE(open_recording(*session, locked));
    EXPECT_TRUE(user.told("Can't open file " + locked + ": Permission denied"));
  }
  EXPECT_FALSE(open_recording(*session, make("rec.Tsf")));
  EXPECT_TRUE(user.told("Unrecognised file type", "Open a recording file"));
  EXPECT_EQ(session->recording.file_type, file_type_tsf);
  EXPECT_EQ(session->recording.recording_path, folder.file("good.tsf"));
  EXPECT_EQ(session->recording.n_samples, 60);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(open_test, the_title_names_a_configuration_without_its_folders) {
  neuroscope_fixture fixture;
  fixture.n_channels = 2;
  const std::string path = write_neuroscope(folder.path, fixture);
  const std::string name = std::filesystem::path(path).stem().string();
  const std::string config = "Shank 2 channels\n0 1 0 0\n1 2 0 20\n";
  write_bytes(folder.file(name + ".cfg"), {config.begin(), config.end()});
  ASSERT_TRUE(open_recording(*session, path));
  EXPECT_EQ(user.titles.back(), "Kestrelvane  -  " + name + ".xml + " + name + ".cfg");
}

TEST_F(open_test, a_chosen_filter_overrules_the_extension) {
  const std::string path = make("rec.data");
  EXPECT_FALSE(prepare_open_recording(*session, {path}));
  const auto request = prepare_open_recording(*session, {path, file_type_tsf});
  ASSERT_TRUE(request);
  EXPECT_TRUE(open_recording_worker(*session, *request));
  EXPECT_EQ(session->recording.file_type, file_type_tsf);
  EXPECT_EQ(session->preferences.open_dialog_format, file_type_tsf) << "offered the next time";
}

TEST_F(open_test, a_file_that_vanishes_before_the_read_leaves_an_empty_session) {
  const std::string path = make("rec.tsf");
  const auto request = prepare_open_recording(*session, {path});
  ASSERT_TRUE(request);
  std::filesystem::remove(path);
  EXPECT_FALSE(open_recording_worker(*session, *request));
  EXPECT_TRUE(user.logged("Error opening tsf file"));
  EXPECT_TRUE(user.told("Error reading tsf data file", "Possibly not enough memory"));
  EXPECT_TRUE(user.logged("Aborting read of " + path));
  EXPECT_EQ(session->recording.n_samples, 0);
}

TEST_F(open_test, a_press_before_the_first_block_is_not_lost) {
  const auto request = prepare_open_recording(*session, {make("rec.tsf")});
  ASSERT_TRUE(request);
  set_interrupts(session->operation, true);
  EXPECT_FALSE(open_recording_worker(*session, *request));
  EXPECT_EQ(session->recording.n_samples, 0);
  EXPECT_EQ(check_session(*session), "");
  set_interrupts(session->operation, false);
  EXPECT_TRUE(open_recording_worker(*session, *request));
}

TEST_F(open_test, formats_without_a_reader_say_so) {
  ASSERT_TRUE(open_recording(*session, make("good.tsf")));
  user.default_answer = true;
  EXPECT_FALSE(open_recording(*session, make("rec.pl2")));
  EXPECT_TRUE(user.told("Sorry, .pl2 format support is not fully implemented yet",
                        "Read Plexon .PL2 file"));
  EXPECT_EQ(session->recording.n_samples, 0);
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(open_test, the_log_file_opens_with_the_recording) {
  session->preferences.log_file_enabled = true;
  ASSERT_TRUE(open_recording(*session, make("rec.tsf")));
  EXPECT_TRUE(session->log.log_file_open);
  EXPECT_TRUE(user.logged("Opening logfile: " + folder.file("rec_")));
  reset_session(*session);
  EXPECT_FALSE(session->log.log_file_open);
}

TEST_F(open_test, a_spike_window_beyond_the_templates_is_shortened) {
  tsf_fixture f;
  f.sampling_frequency = 200'000;
  f.n_samples = 2000;
  f.events = {{700, 1, 1}, {1200, 1, 2}};
  ASSERT_TRUE(open_recording(*session, make("rec.tsf", f)));
  bool told = false;
  for (const auto& box : user.boxes) {
    told = told || box.text == "The spike temporal window was shortened to prevent overflow";
  }
  EXPECT_TRUE(told);
  EXPECT_FLOAT_EQ(session->strategy.template_window_start_ms, -0.375f);
  EXPECT_FLOAT_EQ(session->strategy.template_window_end_ms, 0.37f);
  EXPECT_EQ(session->templates.template_points, 150);
  EXPECT_TRUE(user.logged("Recalculating templates and realigning"));
  EXPECT_EQ(check_session(*session), "");
}

TEST_F(open_test, recent_files_come_back_most_recent_first) {
  session->home_directory = home.path;
  user.default_answer = true;
  for (int i = 1; i <= 11; ++i) {
    ASSERT_TRUE(open_recording(*session, make("rec" + std::to_string(i) + ".tsf")));
  }
  recent_files recent = read_recent_files(*session);
  ASSERT_EQ(recent.paths.size(), 10u);
  EXPECT_EQ(recent.paths.front(), folder.file("rec11.tsf"));
  EXPECT_EQ(recent.paths.back(), folder.file("rec2.tsf"));

  // Opening an entry moves it to the top without a copy.
  const auto request = prepare_open_recent(*session, 9);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->path, folder.file("rec2.tsf"));
  recent = read_recent_files(*session);
  EXPECT_EQ(recent.paths.size(), 10u);
  EXPECT_EQ(recent.paths.front(), folder.file("rec2.tsf"));
  EXPECT_EQ(recent.paths.back(), folder.file("rec3.tsf"));

  std::filesystem::remove(folder.file("rec3.tsf"));
  EXPECT_FALSE(prepare_open_recent(*session, 9));
  EXPECT_TRUE(user.told("Can't find file " + folder.file("rec3.tsf"), "Open file failed"));
  EXPECT_FALSE(prepare_open_recent(*session, 10));

  // From the list, mixed case is as good as any.
  promote_recent_file(recent, make("Mixed.Tsf"));
  ASSERT_TRUE(write_recent_files(*session, recent));
  const auto mixed = prepare_open_recent(*session, 0);
  ASSERT_TRUE(mixed);
  EXPECT_EQ(mixed->format, file_type_tsf);
}

TEST_F(open_test, the_recent_list_is_a_plain_byte_stream) {
  session->home_directory = home.path;
  byte_sink expected;
  expected.i32(3).i32(2).text("/b.tsf", 256).text("/a.tsf", 256);
  for (int i = 0; i < 8; ++i) expected.text("", 256);
  recent_files recent;
  recent.recent_version = 3;
  promote_recent_file(recent, "/a.tsf");
  promote_recent_file(recent, "/b.tsf");
  promote_recent_file(recent, std::string(257, 'x'));  // would come back cut short
  ASSERT_TRUE(write_recent_files(*session, recent));
  EXPECT_EQ(read_bytes(home.file("kv.ufl")), expected.bytes);
  EXPECT_THAT(read_recent_files(*session).paths, ElementsAre("/b.tsf", "/a.tsf"));
  EXPECT_EQ(read_recent_files(*session).recent_version, 3);

  for (const std::vector<char>& bad :
       {with_i32(expected.bytes, 4, 11), with_i32(expected.bytes, 4, -1),
        std::vector<char>(expected.bytes.begin(), expected.bytes.begin() + 300),
        std::vector<char>()}) {
    write_bytes(home.file("kv.ufl"), bad);
    EXPECT_TRUE(read_recent_files(*session).paths.empty());
  }
}

}  // namespace
}  // namespace kestrelvane::test
