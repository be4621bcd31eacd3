#include "operations/program_run.h"
#include "files/safe_file.h"

#include <filesystem>
#include <system_error>

#include "files/input_file.h"
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

void remove_home_file(const session_state& session, const char* name) {
  if (session.home_directory.empty()) return;
  std::error_code ignored;
  std::filesystem::remove(session.home_directory + '/' + name, ignored);
}

// The first save of this run takes the place of a state that nobody was asked about; that
// one is put aside.
void keep_earlier_state(const session_state& session) {
  if (!has_home_file(session, autorecover_file_name)) return;
  std::error_code failed;
  std::filesystem::rename(session.home_directory + '/' + autorecover_file_name,
                          session.home_directory + '/' + earlier_state_name, failed);
  if (failed) return;
  rename_history_beside(session.home_directory + '/' + autorecover_file_name,
                        session.home_directory + '/' + earlier_state_name);
  log_message(session, std::string("The state that an earlier run saved is kept as work file ") +
                           earlier_state_name);
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
  if (session.recording.n_samples > 0) keep_earlier_state(session);
  save_autorecover(session);
  return true;
}

// What was resumed stands in for the timed save until there is one, so that a crash
// before then costs nothing.
void turn_into_recovery_file(const session_state& session) {
  std::error_code failed;
  std::filesystem::rename(session.home_directory + '/' + restart_file_name,
                          session.home_directory + '/' + autorecover_file_name, failed);
  if (failed) remove_home_file(session, restart_file_name);
  rename_history_beside(session.home_directory + '/' + restart_file_name,
                        session.home_directory + '/' + autorecover_file_name);
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
  if (way == exit_way::menu) remove_home_file(session, restart_file_name);
  if (answer == user_answer::no || save_restart(session)) {
    const std::string recovery = session.home_directory + '/' + autorecover_file_name;
    if (answer == user_answer::no) {
      remove_history_beside(recovery);
    } else {
      rename_history_beside(recovery, session.home_directory + '/' + restart_file_name);
    }
    return true;
  }
  const std::string why = why_not_saved(restart_file_name);
  remove_home_file(session, autorecover_temporary_name);
  tell(session, "Failed to save file " + why, "Exit Kestrelvane");
  return false;
}

}  // namespace

bool open_at_start(session_state& session, const std::string& argument) {
  if (!open_argument(session, argument)) {
    if (has_home_file(session, restart_file_name)) {
      offer_restart(session);
    } else {
      // What has the temporary name is a save that did not come to its end.
      remove_home_file(session, autorecover_temporary_name);
      if (has_home_file(session, autorecover_file_name) &&
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
  remove_home_file(session, autorecover_file_name);
  remove_home_file(session, autorecover_temporary_name);
  write_parameters(session);
  write_preferences(session);
  // Last, for what could not be saved.
  if (session.preferences.log_file_enabled) close_log_file(session);
  return true;
}

}  // namespace kestrelvane
