// Dialogs beside the windows: which entries wait, and when all are back.
#include <gmock/gmock.h>

#include <QAction>
#include <QPointer>

#include "recording/recent_files.h"
#include "session/long_operation.h"
#include "workstation/commands/menu_table.h"
#include "workstation/driven_workstation.h"
#include "workstation/interface_desk.h"

namespace kestrelvane::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct beside_test : ::testing::Test {
  temporary_directory home, data;
  driven_workstation w{home.path, make_small_recording(data)};

  beside_test() { w.close_messages(); }
  QPointer<QDialog> open(const char* title, const QStringList& allowed) {
    auto* dialog = new QDialog(w.shell.frame);
    dialog->setWindowTitle(title);
    open_beside(w.shell, dialog, allowed);
    return dialog;
  }
  bool is_on(const char* action) { return w.shell.frame->findChild<QAction*>(action)->isEnabled(); }
  // The entries of the menus that are on, or off, in the order of the table; those on show.
  std::vector<std::string> entries(bool on) {
    std::vector<std::string> names;
    for (const menu_row& row : menu_table()) {
      if (!row.full && is_on(row.name) == on) names.emplace_back(row.name);
    }
    return names;
  }
};

TEST_F(beside_test, what_is_allowed_triggers_and_the_rest_waits) {
  const QPointer<QDialog> dialog = open("Pairs", {"messages", "strategy", "autosort", "about"});
  EXPECT_TRUE(dialog->isVisible() && !dialog->isModal());
  EXPECT_THAT(entries(true), ElementsAre("messages", "autosort", "strategy", "about"));
  EXPECT_TRUE(is_on("button_40012")) << "stands for autosort";
  EXPECT_FALSE(is_on("button_40006") || is_on("button_40004"));
  EXPECT_FALSE(w.shell.frame->acceptDrops()) << "a dropped recording would be opened";
  ASSERT_TRUE(write_recent_files(*w.session, {.paths = {data.file("small.tsf")}}));
  rebuild_recent_menu(w.shell);
  EXPECT_FALSE(is_on("recent_1")) << "made while the menus wait";

  w.choose_entry("strategy");
  w.dialog("strategy_dialog")->reject();
  w.shell.frame->findChild<QAction*>("preferences")->trigger();
  EXPECT_EQ(w.shell.frame->findChild<QDialog*>("preferences_dialog"), nullptr);

  dialog->close();
  EXPECT_THAT(entries(false), IsEmpty());
  EXPECT_TRUE(is_on("button_40006") && is_on("recent_1") && w.shell.frame->acceptDrops());
  EXPECT_FALSE(is_on("button_40007")) << "nothing is selected to be copied";
}

TEST_F(beside_test, however_it_closes_the_entries_are_back) {
  void (*const ways[])(QDialog*) = {
      [](QDialog* dialog) { dialog->accept(); }, [](QDialog* dialog) { dialog->reject(); },
      [](QDialog* dialog) { dialog->close(); }, [](QDialog* dialog) { dialog->done(7); },
      [](QDialog* dialog) { delete dialog; }};
  for (const auto close : ways) {
    const QPointer<QDialog> dialog = open("Pairs", {"about"});
    ASSERT_THAT(entries(true), ElementsAre("about"));
    close(dialog);
    EXPECT_THAT(entries(false), IsEmpty());
    EXPECT_TRUE(wait_until([&] { return dialog.isNull(); })) << "it deletes itself";
  }
  EXPECT_THAT(w.shell.menu_holds, IsEmpty());
}

TEST_F(beside_test, of_two_each_keeps_its_own_entries_waiting) {
  for (const bool first_goes_first : {true, false}) {
    const QPointer<QDialog> first = open("First", {"messages", "about"});
    const QPointer<QDialog> second = open("Second", {"messages", "strategy"});
    EXPECT_THAT(entries(true), ElementsAre("messages"));
    (first_goes_first ? first : second)->close();
    EXPECT_THAT(entries(true), ElementsAre("messages", first_goes_first ? "strategy" : "about"));
    (first_goes_first ? second : first)->close();
    EXPECT_THAT(entries(false), IsEmpty());
  }
}

TEST_F(beside_test, an_operation_inside_keeps_all_but_what_tells_waiting_through_its_pause) {
  const QPointer<QDialog> other = open("Other", {"about", "strategy"});
  auto* runner = new operation_dialog(w.shell, "runner", "Runner");
  open_beside(w.shell, runner, {"about", "messages"});
  EXPECT_THAT(entries(true), ElementsAre("about"));
  runner->run(
      [](session_state& session) {
        session.operation.pause_requested = true;
        pause_point(session);
      },
      nullptr);
  EXPECT_THAT(entries(true), ElementsAre("about"));
  EXPECT_TRUE(runner->isEnabled()) << "its buttons interrupt";
  const QPointer<QDialog> late = open("Late", {});
  EXPECT_FALSE(other->isEnabled() || late->isEnabled())
      << "they would change what the worker reads";

  ASSERT_TRUE(wait_until([&] { return w.shell.paused; }));
  EXPECT_TRUE(other->isEnabled() && late->isEnabled());
  late->close();
  EXPECT_THAT(entries(true), ElementsAre("about"));
  other->close();
  EXPECT_THAT(entries(true), ElementsAre("messages", "about")) << "closing it ends no operation";
  runner->close();
  EXPECT_TRUE(runner->isVisible()) << "not while its operation runs";
  w.shell.desk->resume();
  EXPECT_TRUE(runner->isVisible() && !runner->isModal()) << "still beside the windows";
  w.settle();
  EXPECT_THAT(entries(true), ElementsAre("messages", "about"));
  runner->close();
  EXPECT_THAT(entries(false), IsEmpty());
}

TEST_F(beside_test, one_that_is_deleted_while_its_operation_runs_is_not_missed) {
  auto* runner = new operation_dialog(w.shell, "runner", "Runner");
  open_beside(w.shell, runner, {"about"});
  bool finished = false;
  runner->run(
      [](session_state& session) {
        session.operation.pause_requested = true;
        pause_point(session);
      },
      [&] { finished = true; });
  ASSERT_TRUE(wait_until([&] { return w.shell.paused; }));
  delete runner;
  EXPECT_THAT(entries(true), ElementsAre("messages", "about")) << "they only tell";
  w.shell.desk->resume();
  w.settle();
  EXPECT_THAT(entries(false), IsEmpty());
  EXPECT_FALSE(finished) << "it would fill controls that are gone";
}

TEST_F(beside_test, the_program_is_left_after_it_and_the_frame_takes_it_along) {
  const QPointer<QDialog> dialog = open("Pairs", {"about"});
  w.shell.frame->close();
  w.settle();
  EXPECT_THAT(w.told, Contains("Close \"Pairs\" first."));
  EXPECT_TRUE(dialog && !w.shell.leaving);
  dialog->close();
  EXPECT_TRUE(w.leave(false));
  open("Late", {"about"});  // goes with the frame, when the frame's actions are half gone
}

}  // namespace
}  // namespace kestrelvane::test
