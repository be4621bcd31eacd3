// The run log: wrapping, the ring, the log file.
#include "session/run_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using testing::ElementsAre;

std::string ring_line(const session_state& session, std::int32_t i) {
  return std::string(session.log.log_lines[i].view());
}

std::string contents(const std::string& path) {
  const std::vector<char> bytes = read_bytes(path);
  return {bytes.begin(), bytes.end()};
}

std::vector<std::string> log_files(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".log") found.push_back(entry.path().string());
  }
  return found;
}

TEST(run_log, lines_break_at_the_first_blank_after_100_characters) {
  small_session session;
  const std::string word100(100, 'a');
  log_message(*session, word100 + "   ");  // trailing blanks do not count
  log_message(*session, word100 + " bc");
  log_message(*session, word100 + "bb cc");
  log_message(*session, std::string(101, 'd'));
  log_message(*session, std::string(300, 'e'));
  log_message(*session, "");
  EXPECT_THAT(session.user.lines,
              ElementsAre(word100, word100, "bc", word100 + "bb", "cc", std::string(101, 'd'),
                          std::string(256, 'e'), std::string(44, 'e'), ""));
  EXPECT_EQ(session->log.n_log_lines, 9);
  EXPECT_EQ(ring_line(*session, 4), word100 + "bb");
}

TEST(run_log, a_long_line_never_tears_a_character) {
  small_session session;
  std::string text(255, 'x');
  text += "µV";  // the first byte of µ would be the 256th
  log_message(*session, text);
  EXPECT_THAT(session.user.lines, ElementsAre(std::string(255, 'x'), "µV"));
}

TEST(run_log, long_texts_keep_five_lines_in_the_ring_and_reach_the_file_whole) {
  temporary_directory folder;
  small_session session;
  session->recording.recording_path = folder.file("rec.one.tsf");
  session->preferences.log_file_enabled = true;
  open_log_file(*session);
  ASSERT_TRUE(session->log.log_file_open);
  std::string text;
  for (int i = 0; i < 70; ++i) text += "123456789 ";
  text.pop_back();
  session.user.lines.clear();
  log_message(*session, text);
  log_line(*session, "in the ring alone");
  EXPECT_EQ(session.user.lines.size(), 5u);
  EXPECT_EQ(ring_line(*session, session->log.n_log_lines), "in the ring alone");
  close_log_file(*session);
  log_message(*session, "after closing");

  const std::vector<std::string> files = log_files(folder.path);
  ASSERT_EQ(files.size(), 1u);
  const std::string name = std::filesystem::path(files[0]).filename().string();
  EXPECT_TRUE(name.starts_with("rec.one_")) << name;
  EXPECT_EQ(name.size(), std::string("rec.one_").size() + 16 + 4);
  EXPECT_EQ(contents(files[0]), "Opening logfile: " + files[0] + "\n" + text + "\n");
}

TEST(run_log, a_log_file_that_cannot_be_opened_turns_the_option_off) {
  small_session session;
  session->recording.recording_path = "/no such folder/rec.tsf";
  session->preferences.log_file_enabled = true;
  open_log_file(*session);
  EXPECT_FALSE(session->log.log_file_open);
  EXPECT_FALSE(session->preferences.log_file_enabled);
  EXPECT_TRUE(session.user.logged("Failed to open logfile"));
  EXPECT_TRUE(session.user.told("Error opening logfile", "File open error"));
}

TEST(run_log, the_ring_holds_the_latest_1024_lines) {
  small_session session;
  for (int i = 1; i <= 1025; ++i) log_line(*session, std::to_string(i));
  EXPECT_EQ(session->log.n_log_lines, 1024);
  EXPECT_EQ(ring_line(*session, 1), "2");
  EXPECT_EQ(ring_line(*session, 1024), "1025");
  log_message(*session, std::string(100, 'a') + " " + std::string(100, 'b') + " c");
  EXPECT_EQ(session->log.n_log_lines, 1024);
  EXPECT_EQ(ring_line(*session, 1), "5");
  EXPECT_EQ(ring_line(*session, 1024), "c");
}

TEST(run_log, the_dialog_gets_lines_only_while_it_is_open) {
  small_session session;
  session->log.messages_dialog_open = false;
  log_message(*session, "unseen");
  EXPECT_TRUE(session.user.lines.empty());
  EXPECT_EQ(ring_line(*session, 1), "unseen");
  report_failed_check(*session, 12);
  // The run log window has it all the same, by the time of day.
  EXPECT_THAT(session.user.run_log_window,
              ElementsAre(testing::MatchesRegex("[0-9:]{8}  unseen"), "Failed check 12"));
}

TEST(run_log, timing_lines_need_verbose_output_and_the_full_menu) {
  small_session session;
  session->preferences.verbose_log = true;
  EXPECT_FALSE(log_timing(*session));
  session->log.short_menu = false;
  EXPECT_TRUE(log_timing(*session));
  session->preferences.verbose_log = false;
  EXPECT_FALSE(log_timing(*session));
}

TEST(run_log, any_thread_may_log) {
  small_session session;
  session->ui = {};  // the scripted user has one thread
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k) {
    threads.emplace_back([&] {
      for (int i = 0; i < 400; ++i) log_message(*session, "a line of a worker");
    });
  }
  for (std::thread& t : threads) t.join();
  ASSERT_EQ(session->log.n_log_lines, 1024);
  for (std::int32_t i = 1; i <= 1024; ++i) EXPECT_EQ(ring_line(*session, i), "a line of a worker");
}

}  // namespace
}  // namespace kestrelvane::test
