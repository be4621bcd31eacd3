#include "operations/program_run.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "operations/recovery.h"
#include "recording/recording_formats.h"
#include "results/curation_file.h"
#include "session/run_log.h"
#include "session/settings_files.h"

namespace kestrelvane {

namespace {

bool has_home_file(const session_state& session, const char* name) {
  return !session.home_directory.empty() && file_exists(session.home_directory + '/' + name);
}

void remove_file(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
}

void remove_home_file(const session_state& session, const char* name) {
  if (!session.home_directory.empty()) remove_file(session.home_directory + '/' + name);
}

// The user decides at the exit about the sort in memory alone.
void keep_state_of_another(const session_state& session) {
  const bool is_own = session.recording.n_samples > 0 &&
                      session.state_files.own_recording == session.recording.recording_path;
  if (!is_own && !session.home_directory.empty()) keep_state(session, autorecover_path(session));
}

void remove_recovery_file(const session_state& session) {
  if (session.home_directory.empty()) return;
  remove_file(autorecover_path(session));
  remove_file(autorecover_temporary(session));
}

// The recording of the command line. False when there is no such file, and the questions
// about earlier runs follow.
bool open_argument(session_state& session, const std::string& argument) {
  if (argument.empty() || !file_exists(argument)) return false;
  // A state file may be opened from another directory than this one.
  std::error_code ignored;
  const std::string absolute = std::filesystem::absolute(argument, ignored).string();
  recording_request request{absolute.empty() ? argument : absolute};
  request.format = classify_extension(request.path);
  if (request.format == file_type_unknown) {
    tell(session, "Unrecognised file type in command line", "Open a recording file",
         box_icon::information);
    return true;
  }
  open_recording_worker(session, request);
  save_autorecover(session);
  return true;
}

// What was resumed stands in for the timed save until there is one, so that a crash
// before then costs nothing.
void turn_into_recovery_file(const session_state& session) {
  const std::string restart = session.home_directory + '/' + restart_file_name;
  const std::string recovery = autorecover_path(session);
  keep_state(session, recovery);
  std::error_code failed;
  std::filesystem::rename(restart, recovery, failed);
  if (failed) remove_home_file(session, restart_file_name);
  rename_history_beside(restart, recovery);
  session.state_files.own_recording = failed ? "" : session.recording.recording_path;
}

// A state that was wanted and could not be read is kept for a run that has more luck; No
// is the way to be rid of it.
void offer_restart(session_state& session) {
  const user_answer answer = ask_openly(session, "Resume previous state?", "Kestrelvane");
  if (answer == user_answer::no) remove_home_file(session, restart_file_name);
  if (answer == user_answer::yes && open_restart(session)) turn_into_recovery_file(session);
}

// False when the program is not to be left.
bool offer_to_keep_state(session_state& session, exit_way way) {
  const bool has_state = session.recording.n_samples > 0 && !session.home_directory.empty();
  const user_answer answer =
      has_state ? ask_openly(session, "Save program state for next time?", "Exit Kestrelvane")
                : user_answer::no;
  if (answer == user_answer::none) return false;
  if (way == exit_way::menu && !session.home_directory.empty()) {
    // It may be that of another instance, which has been left before this one.
    keep_state(session, session.home_directory + '/' + restart_file_name);
    remove_home_file(session, restart_file_name);
  }
  keep_state_of_another(session);
  if (answer == user_answer::no || save_restart(session)) {
    const std::string recovery = autorecover_path(session);
    if (answer == user_answer::no) {
      remove_history_beside(recovery);
    } else {
      rename_history_beside(recovery, session.home_directory + '/' + restart_file_name);
    }
    return true;
  }
  const std::string why = why_not_saved(restart_file_name);
  remove_file(autorecover_temporary(session));
  tell(session, "Failed to save file " + why, "Exit Kestrelvane");
  return false;
}

}  // namespace

bool open_at_start(session_state& session, const std::string& argument) {
  adopt_states(session);
  if (const std::size_t n = list_kept_states(session).size(); n > 0) {
    write_run_log_window(
        session, fmt::format("{} earlier state{} kept: see \"Earlier states\" in the File menu", n,
                             n == 1 ? " is" : "s are"));
  }
  if (!open_argument(session, argument)) {
    if (has_home_file(session, restart_file_name)) {
      offer_restart(session);
    } else {
      // What has the temporary name is a save that did not come to its end.
      remove_file(autorecover_temporary(session));
      if (!session.home_directory.empty() && file_exists(autorecover_path(session)) &&
          ask_openly(session, "Recover information from previous run?",
                     "Kestrelvane crash recovery") == user_answer::yes) {
        open_autorecover(session);
      }
    }
  }
  return session.recording.n_samples > 0;
}

bool end_session(session_state& session, exit_way way) {
  if (!offer_to_keep_state(session, way)) return false;
  // The recovery file goes last: a machine that dies before the answer leaves the next run
  // something to offer.
  remove_recovery_file(session);
  write_parameters(session);
  write_preferences(session);
  // Last, for what could not be saved.
  if (session.preferences.log_file_enabled) close_log_file(session);
  return true;
}

}  // namespace kestrelvane
