// Opening and saving work files as the user does it: boxes, questions, failed saves.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "results/work_file.h"
#include "support/full_device.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {
namespace {

struct dialog_test : ::testing::Test {
  small_session session;
  temporary_directory directory;
  std::string path = directory.file("a.wrk");

  dialog_test() { make_recording(*session, 3, 10000); }
};

TEST_F(dialog_test, opening_tells_how_it_went) {
  const std::string title = "Kestrelvane work file";
  small_session empty;
  EXPECT_EQ(open_work_file_dialog(*empty), work_file_outcome::failed);
  EXPECT_TRUE(empty.user.told("No recording data in memory", "Error "));

  EXPECT_EQ(open_work_file_dialog(*session), work_file_outcome::cancelled);
  session.user.chosen_path = path;
  EXPECT_EQ(open_work_file_dialog(*session), work_file_outcome::failed);
  EXPECT_TRUE(session.user.told("Failed to read file " + path, title));

  work_file_content content;
  content.recording_path = "other.tsf";
  write_bytes(path, make_work_file(content).bytes);
  EXPECT_EQ(open_work_file_dialog(*session), work_file_outcome::wrong_file);
  EXPECT_TRUE(session.user.told("Work file does not belong to current data file", title));

  content.recording_path = "small.tsf";
  content.n_filters = 0;
  content.scalars["recording_filtered"] = 0;
  write_bytes(path, make_work_file(content).bytes);
  EXPECT_EQ(open_work_file_dialog(*session), work_file_outcome::retrieved);
  EXPECT_TRUE(session.user.told("Retrieved file " + path, title));
  EXPECT_FALSE(session.user.asked("Repeat previous filtering?", "Kestrelvane"));
}

TEST_F(dialog_test, filtering_is_repeated_or_forgotten) {
  write_bytes(path, make_work_file({}).bytes);
  EXPECT_EQ(open_work_file_at(*session, path), work_file_outcome::retrieved);
  EXPECT_TRUE(session.user.asked("Repeat previous filtering?", "Kestrelvane"));
  EXPECT_EQ(session->filter_history.n_entries, 0);
  EXPECT_FALSE(session->recording.recording_filtered);

  // The samples go through what the file names: means, then a low pass at 1 kHz.
  session.user.default_answer = true;
  for (std::int32_t t = 1; t <= 10000; ++t) {
    session->recording.vd.channel(1)[t] = static_cast<std::int16_t>(t % 4 < 2 ? 600 : 500);
  }
  EXPECT_EQ(open_work_file_at(*session, path), work_file_outcome::retrieved_with_filtering);
  EXPECT_EQ(session->filter_history.n_entries, 2);
  EXPECT_TRUE(session.user.told("Finished filtering!"));
  EXPECT_TRUE(session->recording.recording_filtered);
  EXPECT_EQ(session->recording.vd.channel(1)[5000], 0);
  EXPECT_EQ(check_session(*session), "");

  // An interrupt between the two leaves the first.
  session.user.on_status = [&](const std::string& text) {
    if (text == "channel means") session->operation.filtering_interrupted = true;
  };
  EXPECT_EQ(open_work_file_at(*session, path), work_file_outcome::filtering_incomplete);
  EXPECT_EQ(session->filter_history.n_entries, 1);
}

TEST_F(dialog_test, saving_tells_how_it_went) {
  session.user.chosen_path = path;
  EXPECT_TRUE(save_work_file_dialog(*session));
  EXPECT_TRUE(session.user.told("Work saved in file " + path, "Kestrelvane work file"));
  EXPECT_FALSE(session->operation.work_save_busy);

  const std::string nowhere = directory.file("absent/a.wrk");
  EXPECT_FALSE(save_work_file_at(*session, nowhere));
  EXPECT_TRUE(session.user.told("Failed to save file " + nowhere + ": No such file or directory",
                                "Kestrelvane work file"));
  EXPECT_FALSE(session->operation.work_save_busy);
}

TEST_F(dialog_test, a_failed_save_leaves_the_old_file_whole) {
  ASSERT_TRUE(write_work_file(*session, path));
  const std::vector<char> old = read_bytes(path);
  session->strategy.min_cluster_size = 51;
  {
    const full_device full;
    EXPECT_FALSE(save_work_file_at(*session, path));
  }
  EXPECT_TRUE(session.user.told("Failed to save file " + path + ": File too large",
                                "Kestrelvane work file"));
  EXPECT_EQ(read_bytes(path), old);
  EXPECT_TRUE(partial_files(path).empty());
  EXPECT_FALSE(session->operation.work_save_busy);
  EXPECT_EQ(check_session(*session), "");

  ASSERT_TRUE(write_work_file(*session, path));
  EXPECT_NE(read_bytes(path), old);
  EXPECT_TRUE(partial_files(path).empty());
}

TEST_F(dialog_test, a_folder_without_permission_takes_no_file) {
  ASSERT_TRUE(write_work_file(*session, path));
  ASSERT_EQ(chmod(path.c_str(), 0000), 0);
  ASSERT_EQ(chmod(directory.path.c_str(), 0500), 0);
  // The superuser may do anything, so for a moment the test is somebody else.
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
  EXPECT_FALSE(save_work_file_at(*session, path));
  EXPECT_EQ(open_work_file_at(*session, path), work_file_outcome::failed);
  ASSERT_TRUE(user != 0 || seteuid(user) == 0);
  ASSERT_EQ(chmod(directory.path.c_str(), 0700), 0);
  EXPECT_TRUE(session.user.told("Failed to save file " + path + ": Permission denied",
                                "Kestrelvane work file"));
}

}  // namespace
}  // namespace kestrelvane::test
