// A workstation driven by a test as by a user: menu entries, buttons, boxes, files.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QFileDialog>
#include <QMessageBox>
#include <functional>
#include <memory>

#include "support/small_session.h"
#include "workstation/frame.h"
#include "workstation/workstation.h"

namespace kestrelvane::test {

// Runs the event loop until a condition holds; false when it does not within the time.
bool wait_until(const std::function<bool()>& condition, int ms = 30000);

// A recording of 4 channels and 12 seconds with a few planted units, in a directory.
std::string make_small_recording(const temporary_directory& directory,
                                 const std::string& name = "small.tsf");

struct driven_workstation {
  std::unique_ptr<session_state> session = std::make_unique<session_state>();
  workstation shell{*session};
  QStringList told;   // text of every message box that was closed by the driver
  QStringList asked;  // text of every question

  // Starts with an own home directory; argument: a recording, "" for none. Waits until
  // the start is over, answering what it asks with `answer_yes`.
  explicit driven_workstation(const std::string& home, const std::string& argument = "",
                              bool answer_yes = false);
  ~driven_workstation();

  // --- what a user does
  void choose_entry(const char* action);  // a menu entry or tool button
  QDialog* dialog(const char* name);      // waits for it to open; null when it does not
  template <typename Widget>
  Widget* control(QDialog* in, const char* name) {
    auto* found = in->findChild<Widget*>(name);
    EXPECT_NE(found, nullptr) << name;
    return found;
  }
  void press(QDialog* in, const char* button);
  void set_number(QDialog* in, const char* field, double value);
  void tick(QDialog* in, const char* box, bool on);
  // Closes boxes as they come, Yes or No to questions, until nothing runs and no box is
  // open. Paths are given to file dialogs in order.
  void settle(bool yes = false, QStringList paths = {});
  void close_messages();  // OK of the Messages dialog, when it is open

  // Closes the program by its frame, answering with yes; true when it has left.
  bool leave(bool yes);

  // Handles one open box or file dialog; false when there is none.
  bool answer_box(bool yes, QStringList& paths);
};

}  // namespace kestrelvane::test
