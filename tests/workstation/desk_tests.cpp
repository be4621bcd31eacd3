// A worker that waits for the user comes back, whatever becomes of the window it waits for.
#include "session/long_operation.h"
#include "session/user_interface.h"
#include "sorting/cluster_edits.h"
#include "workstation/driven_workstation.h"
#include "workstation/interface_desk.h"

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

TEST(Desk, WhatABoxHoldsUpIsDrawnBeforeIt) {
  const temporary_directory home;
  driven_workstation w(home.path);
  int n_drawn = 0, drawn_last = 0;
  QObject::connect(w.shell.desk, &interface_desk::refresh_requested, w.shell.frame, [&] {
    ++n_drawn;
    drawn_last = w.session->current_channel;
  });
  start_operation(
      w.shell,
      [](session_state& s) {
        // The second comes too soon after the first, and is owed.
        for (s.current_channel = 1; s.current_channel < 3; ++s.current_channel) {
          refresh_displays(s);
        }
        tell(s, "That is all", "Done!", box_icon::information);
      },
      nullptr);
  QDialog* box = w.dialog("message_box");
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(n_drawn, 2);
  EXPECT_EQ(drawn_last, 3) << "what is there when the box is shown";
  box->accept();
  w.settle();
}

TEST(Desk, ChangesOfClustersArriveInTheirOrder) {
  const temporary_directory home;
  driven_workstation w(home.path);
  std::vector<std::int32_t> gone;
  QObject::connect(w.shell.desk, &interface_desk::clusters_changed, w.shell.frame,
                   [&](const cluster_change& change) {
                     gone.push_back(number_after(change, 1) == 0 ? change.before.front() : 0);
                   });
  ASSERT_TRUE(start_operation(
      w.shell,
      [](session_state& session) {
        session.clusters.n_clusters = 4;
        delete_cluster(session, 1);
        delete_clusters(session, {3, 1});
      },
      nullptr));
  EXPECT_TRUE(wait_until([&] { return !w.shell.worker.running && gone.size() == 2; }));
  EXPECT_EQ(gone, (std::vector<std::int32_t>{1, 1}));
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
