// The boundary for a user at a console: messages and progress on standard error.
//
// On a terminal a bar is redrawn in place under the messages; elsewhere progress comes
// in plain lines, one per quarter of a bar. Quiet leaves only the boxes. Questions are answered
// from answer_yes and shown with their answer. Calls may come from any one thread at a time.
// Words that cannot be written are dropped, and what goes on goes on without them.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

struct console_interface {
  // --- set before attach_console
  bool quiet = false;
  bool terminal = false;    // draw a bar; see standard_error_is_terminal
  bool answer_yes = false;  // to every question
  std::string chosen_path;  // answers a file dialog; empty: cancelled
  // A walk through a container file: the dataset to take and what to put into the edits;
  // an empty rate or scale leaves what the file suggests, an empty path cancels.
  std::string hdf_path, hdf_rate, hdf_scale;
  std::FILE* out = stderr;
  bool show_log = false;     // lines of the run log are shown, as by the "Messages" dialog
  std::FILE* log = nullptr;  // every line of the run log goes here too
  std::function<void(const std::string& name)> on_stage;  // a stage begins

  // --- what has happened
  std::string last_problem;  // text of the latest error or warning box
  std::string log_problem;   // why the log lacks lines, in the system's words; empty: it has all
  int hdf_turns = 0;         // of the walk that goes on

  // --- the bar on show
  std::string bar_name;
  std::int32_t bar_percent = -1;
  std::int32_t bar_quarter = -1;  // last line printed without a terminal
  bool bar_visible = false;
};

// Makes the session talk to this console, which must outlive the session's use.
void attach_console(console_interface& console, session_state& session);

// True when standard error is a terminal.
bool standard_error_is_terminal();

// Opens the file that gets the run log, replacing it. False when it cannot be created.
bool open_console_log(console_interface& console, const std::string& path);

// Removes the bar and closes the log; to be called before the program's own output.
void finish_console(console_interface& console);

}  // namespace kestrelvane
