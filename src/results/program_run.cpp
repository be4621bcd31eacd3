#include "results/program_run.h"

#include <filesystem>
#include <system_error>

#include "recording/input_file.h"
#include "recording/open_recording.h"
#include "results/recovery.h"
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

// The recording of the command line. False when there is no such file, and the questions
// about earlier runs follow.
bool open_argument(session_state& session, const std::string& argument) {
  if (argument.empty() || !file_exists(argument)) return false;
  session.recording.open_path = argument;
  classify_path(session);
  if (session.recording.file_type == file_type_unknown) {
    tell(session, "Unrecognised file type in command line", "Open a recording file",
         box_icon::information);
    return true;
  }
  open_recording_worker(session);
  save_autorecover(session);
  return true;
}

void offer_restart(session_state& session) {
  if (ask(session, "Resume previous state?", "Kestrelvane") && !open_restart(session)) {
    // Kept for a run that finds its recording again.
    return;
  }
  remove_home_file(session, restart_file_name);
}

}  // namespace

bool open_at_start(session_state& session, const std::string& argument) {
  if (!open_argument(session, argument)) {
    if (has_home_file(session, restart_file_name)) {
      offer_restart(session);
    } else {
      remove_home_file(session, autorecover_temporary_name);
      if (has_home_file(session, autorecover_file_name) &&
          ask(session, "Recover information from previous run?", "Kestrelvane crash recovery")) {
        open_autorecover(session);
      }
    }
  }
  return session.recording.n_samples > 0;
}

void end_session(session_state& session) {
  remove_home_file(session, autorecover_file_name);
  if (session.recording.n_samples > 0 &&
      ask(session, "Save program state for next time?", "Exit Kestrelvane")) {
    save_restart(session);
  }
  if (session.preferences.log_file_enabled) close_log_file(session);
  write_parameters(session);
  write_preferences(session);
}

void forget_restart(session_state& session) { remove_home_file(session, restart_file_name); }

}  // namespace kestrelvane
