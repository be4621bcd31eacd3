// A worker that waits for the user comes back, whatever becomes of the window it waits for.
#include "session/long_operation.h"
#include "session/user_interface.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

TEST(Desk, AWindowThatGoesWithoutAnAnswerReleasesTheWorker) {
  const temporary_directory home;
  driven_workstation w(home.path);
  bool answer = true;
  std::string path = "unchanged";
  ASSERT_TRUE(start_operation(
      w.shell,
      [&](session_state& session) {
        answer = ask(session, "Go on?", "Test");
        tell(session, "Told", "Test");
        choose_file_to_save(session, "Save", "All files(*.*)", path);
      },
      nullptr));
  for (const char* name : {"question_box", "message_box", "choose_file"}) {
    QDialog* window = w.dialog(name);
    ASSERT_NE(window, nullptr) << name;
    delete window;
  }
  EXPECT_TRUE(wait_until([&] { return !w.shell.worker.running; }));
  EXPECT_FALSE(answer);
  EXPECT_EQ(path, "unchanged");
}

TEST(Desk, APauseThatComesAfterTheInterruptHoldsNobody) {
  const temporary_directory home;
  driven_workstation w(home.path);
  ASSERT_TRUE(start_operation(
      w.shell,
      [](session_state& session) {
        session.operation.autosort_interrupt = true;
        session.operation.pause_requested = true;
        pause_point(session);
      },
      nullptr));
  EXPECT_TRUE(wait_until([&] { return !w.shell.worker.running; }));
}

}  // namespace
}  // namespace kestrelvane::test
