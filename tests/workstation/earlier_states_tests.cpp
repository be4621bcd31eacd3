// The list of earlier states: what it says of each, and that one of them comes back.
#include <QTreeWidget>

#include "operations/home_lock.h"
#include "support/fixture_files.h"
#include "support/work_file_fixture.h"
#include "workstation/driven_workstation.h"

namespace kestrelvane::test {
namespace {

TEST(EarlierStates, OneIsChosenAndComesBack) {
  const temporary_directory home, data;
  const std::string recording = data.file("monday.tsf");
  tsf_fixture f;
  f.n_channels = 3;
  f.n_samples = 20000;
  write_bytes(recording, tsf_bytes(f));
  driven_workstation w(home.path, recording);
  w.choose_entry("earlier_states");
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("earlier_states_dialog"), nullptr);
  w.settle();
  EXPECT_TRUE(w.told.contains("No earlier states are kept"));

  work_file_content content;
  content.recording_path = recording;
  content.n_filters = 0;
  content.scalars["recording_filtered"] = 0;
  write_bytes(home.file("kv_autorecover_20260101-000000_monday.wrk"),
              make_work_file(content).bytes);
  w.choose_entry("earlier_states");
  QDialog* dialog = w.dialog("earlier_states_dialog");
  ASSERT_NE(dialog, nullptr);
  auto* list = w.control<QTreeWidget>(dialog, "earlier_states_list");
  ASSERT_EQ(list->topLevelItemCount(), 1);
  const QTreeWidgetItem* line = list->topLevelItem(0);
  EXPECT_EQ(line->text(0), "monday.tsf");
  EXPECT_EQ(line->text(2), "7");
  w.press(dialog, "open_state");
  w.settle(true);
  EXPECT_EQ(w.session->events.n_events, 7);
  EXPECT_EQ(check_session(*w.session), "");
}

TEST(EarlierStates, ASecondInstanceSaysSoAndKeepsItsOwnState) {
  const temporary_directory home;
  small_session other;
  other->home_directory = home.path;
  home_lock lock;
  lock_home(*other, lock);
  ASSERT_EQ(other->state_files.number, 1);
  driven_workstation w(home.path);
  EXPECT_EQ(w.session->state_files.number, 2);
  EXPECT_EQ(w.told.filter("kv_autorecover_2.sav").size(), 1);
}

}  // namespace
}  // namespace kestrelvane::test
