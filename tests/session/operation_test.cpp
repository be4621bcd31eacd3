// Polls, pauses, progress, and the console as a listener.
#include <gtest/gtest.h>

#include <cstdio>

#include "session/console_interface.h"
#include "session/run_log.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

TEST(long_operation, interrupts_at_the_planned_poll) {
  for (int at : {0, 1, 3}) {
    small_session session;
    session->operation.interrupt_at_poll = at;
    int polls = 1;
    while (polls < 10 &&
           !(polls % 2 ? autosort_interrupted(*session) : detection_interrupted(*session))) {
      ++polls;
    }
    EXPECT_EQ(polls, std::max(at, 1));
    EXPECT_TRUE(session->operation.autosort_interrupt);
    EXPECT_TRUE(session->operation.detection_interrupted);
    // An interrupt that was dealt with does not come back by itself.
    session->operation.autosort_interrupt = false;
    EXPECT_FALSE(autosort_interrupted(*session));
  }
  small_session session;
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(autosort_interrupted(*session));
  EXPECT_EQ(session->operation.polls, 100);
}

TEST(long_operation, a_pause_waits_once_and_says_so) {
  small_session session;
  pause_point(*session);
  EXPECT_EQ(session.user.pauses, 0);
  session->operation.pause_requested = true;
  session.user.on_pause = [&] { EXPECT_EQ(session.user.lines.size(), 1u); };
  pause_point(*session);
  pause_point(*session);
  EXPECT_EQ(session.user.pauses, 1);
  EXPECT_EQ(session.user.all_lines(), "Paused, press resume button to continue ...\nresuming\n");
}

TEST(user_interface, progress_is_posted_when_value_or_range_changes) {
  small_session session;
  std::vector<std::pair<int, int>> posted;
  session->ui.context = &posted;
  session->ui.progress = [](void* c, meter, std::int32_t value, std::int32_t range) {
    static_cast<std::vector<std::pair<int, int>>*>(c)->emplace_back(value, range);
  };
  for (int i = 0; i < 100; ++i) set_progress(*session, meter::reading, i / 50, 115);
  set_progress(*session, meter::reading, 1, 10);
  EXPECT_EQ(posted, (std::vector<std::pair<int, int>>{{0, 115}, {1, 115}, {1, 10}}));
}

TEST(user_interface, without_a_listener_notices_drop_and_questions_get_no) {
  auto session = std::make_unique<session_state>();
  start_session(*session);
  tell(*session, "text", "title");
  say(*session, "words");
  set_progress(*session, meter::saving, 1, 2);
  std::string path;
  EXPECT_FALSE(ask(*session, "Sure?", "title"));
  EXPECT_FALSE(choose_file_to_open(*session, "title", "All files(*.*)", path));
  EXPECT_EQ(session->log.log_lines[1].view(), "words");
}

struct console_test : testing::Test {
  std::unique_ptr<session_state> session = std::make_unique<session_state>();
  console_interface console;

  console_test() {
    start_session(*session);
    console.out = std::tmpfile();
  }
  ~console_test() override { std::fclose(console.out); }

  std::string output() {
    std::fflush(console.out);
    std::rewind(console.out);
    std::string text;
    for (int c = std::fgetc(console.out); c != EOF; c = std::fgetc(console.out)) {
      text += static_cast<char>(c);
    }
    return text;
  }

  void run_something() {
    say(*session, "Working");
    for (int i = 0; i <= 1000; ++i) set_progress(*session, meter::detection, i, 1000);
    tell(*session, "It broke", "Problem");
    ask(*session, "Go on?", "Question");
  }
};

TEST_F(console_test, plain_lines_without_a_terminal) {
  attach_console(console, *session);
  run_something();
  EXPECT_EQ(output(),
            "Working\ndetecting 25%\ndetecting 50%\ndetecting 75%\ndetecting 100%\n"
            "Problem: It broke\nQuestion: Go on? No\n");
  EXPECT_EQ(console.last_problem, "It broke");
}

TEST_F(console_test, quiet_leaves_the_boxes) {
  console.quiet = true;
  console.answer_yes = true;
  attach_console(console, *session);
  run_something();
  EXPECT_TRUE(ask(*session, "Go on?", "Question"));
  EXPECT_EQ(output(), "Problem: It broke\n");
}

TEST_F(console_test, a_terminal_bar_is_gone_at_its_end_and_under_messages) {
  console.terminal = true;
  attach_console(console, *session);
  set_progress(*session, meter::reading, 50, 100);
  say(*session, "A message");
  set_progress(*session, meter::reading, 100, 100);
  finish_console(console);
  const std::string text = output();
  EXPECT_NE(text.find("50%\r\033[KA message\n\r\033[K"), std::string::npos) << text;
  EXPECT_TRUE(text.ends_with("\r\033[K")) << text;
}

TEST_F(console_test, the_log_gets_every_line) {
  temporary_directory folder;
  console.quiet = true;
  ASSERT_TRUE(open_console_log(console, folder.file("run.log")));
  attach_console(console, *session);
  log_message(*session, "one");
  say(*session, "two");
  finish_console(console);
  const std::vector<char> bytes = read_bytes(folder.file("run.log"));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "one\ntwo\n");
  EXPECT_FALSE(open_console_log(console, folder.file("no/such/folder")));
}

}  // namespace
}  // namespace kestrelvane::test
