// The "Messages" dialog: the run log as it grows, and the bar of a reader.
//
// It opens by itself when an operation begins to read a recording, and by its menu entry.
// OK is live when nothing runs, Interrupt while a recording is read. While it is open, new
// lines of the log go into its list. It waits for OK unless the user has ticked that it close
// by itself after a reading in which nothing went wrong: a recording is in memory, and no box
// has come.
#pragma once

#include "workstation/operation.h"

class QCheckBox;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;

namespace kestrelvane {

class messages_dialog : public operation_dialog {
  Q_OBJECT

 public:
  explicit messages_dialog(workstation& of);
  ~messages_dialog() override;

  // Called when the worker begins or ends.
  void set_reading(bool reading);

 protected:
  void reject() override;

 private:
  void lay_out();
  void add_line(const QString& line);
  void interrupt_reading();

  QListWidget* lines_;
  QLineEdit* file_name_;
  QProgressBar* bar_;
  QPushButton* ok_;
  QPushButton* interrupt_;
  QCheckBox* close_itself_;
  int boxes_before_ = 0;  // that the desk had shown when the reading began
  bool reading_ = false;
};

// The dialog, shown; made if it is not there.
messages_dialog* show_messages(workstation& w);

}  // namespace kestrelvane
