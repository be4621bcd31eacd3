// The run log: what the program says about its progress.
//
// log_message goes to three places at once: a ring of the latest 1024 lines,
// which the work file keeps; the list of the "Messages" dialog while it is open;
// and a text file beside the recording when that option is on. The run log
// window is a separate destination for plain lines that are kept nowhere.
// Any thread may call these routines. None has a failure result.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

#include "numerics/table.h"
#include "session/limits.h"
#include "session/logical.h"

namespace kestrelvane {

struct session_state;

struct run_log_table {
  std::int32_t n_log_lines = 0;              // at most log_line_limit
  table<text256> log_lines{log_line_limit};  // the ring, oldest first
  logical log_file_open = false;
  logical messages_dialog_open = false;  // new lines go into its list too
  logical log_threading_times = false;   // debug switch without a control
  logical short_menu = true;             // form of the menu; timing lines need it false
  std::string log_file_path;
  std::FILE* log_file = nullptr;
  std::mutex mutex;  // guards all of the above while lines are added
};

// Wraps a text into at most five lines (a cut at the first blank after 100
// characters, 256 at the latest) and adds them to the ring, the log file (whole,
// as one line) and the open dialog.
void log_message(const session_state& session, std::string_view text);

// Lines that the ring holds now. Other threads may log at any time.
std::int32_t count_log_lines(const session_state& session);

// Adds one line as given: no wrap, no copy to file or dialog.
void log_line(const session_state& session, std::string_view text);

// Plain output to the run log window; not kept.
void write_run_log_window(const session_state& session, std::string_view text);

// "Failed to save file " with the path and why, right after files/safe_file.h has failed to write
// it; the words are given back. Leaves errno as it was.
std::string log_failed_save(const session_state& session, const std::string& path);

// True when detail timing lines are wanted.
bool log_timing(const session_state& session);

// "Failed check " and the number, to the run log window; the operation goes on.
void report_failed_check(const session_state& session, std::int32_t number);

// Opens the log file beside the recording, named after it with the date and
// time; sets log_file_open. On failure clears it and log_file_enabled, logs and
// tells the user.
void open_log_file(session_state& session);
void close_log_file(const session_state& session);

}  // namespace kestrelvane
