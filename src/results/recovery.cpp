#include "results/recovery.h"

#include <fmt/format.h>

#include <chrono>

#include "recording/input_file.h"
#include "recording/open_recording.h"
#include "results/work_file.h"
#include "session/logical.h"
#include "session/run_log.h"
#include "signal/display_scale.h"
#include "signal/filter_chain.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t label_bytes = 24;  // in front of the path in a work file

std::string home_file(const session_state& session, const char* name) {
  return session.home_directory + '/' + name;
}

bool may_save(const session_state& session) {
  return session.recording.n_samples > 0 && !session.home_directory.empty();
}

// The recording that a state file was made from; false when the file is too short.
bool read_recording_path(const std::string& state_file, std::string& path) {
  input_file in;
  if (!open_input_file(in, state_file)) return false;
  text256 text;
  if (!read_at(in, label_bytes, &text, sizeof text)) return false;
  path = text.view();
  return true;
}

// The open of a state file, from the path in it to the recording in memory.
bool open_from_state_file(session_state& session, const char* name) {
  const std::string& path = session.recording.open_path;
  if (!file_exists(path)) {
    tell(session, fmt::format("The data file in {} cannot be found", name),
         "Open a recording file");
    write_run_log_window(session, "Looking for " + path);
    return false;
  }
  write_run_log_window(session, "Restarting with " + path);
  return open_recording_worker(session);
}

bool samples_were_filtered(const session_state& session) {
  return session.recording.recording_filtered || session.filter_history.n_entries > 0;
}

// What the state file said of filters is repeated over the samples just read, when the
// user wants it. The samples are unfiltered until then.
void offer_filters(session_state& session, bool keep_history_on_no) {
  if (!samples_were_filtered(session)) return;
  session.recording.recording_filtered = false;
  if (ask(session, "Repeat previous filtering?", "Kestrelvane")) {
    repeat_filtering(session);
    autoscale_voltage_display(session);
  } else if (!keep_history_on_no) {
    session.filter_history.n_entries = 0;
  }
}

void read_restart(session_state& session) {
  log_message(session, "Resuming previous state");
  bool wrong_file = false;
  if (read_work_file(session, home_file(session, restart_file_name), wrong_file)) {
    autoscale_voltage_display(session);
    offer_filters(session, false);
    log_message(session, "Resumption was successful");
  } else if (wrong_file) {
    log_message(session, std::string("Bad resume file name ") + restart_file_name);
  } else {
    log_message(session, fmt::format("Resume failed; error reading {} {} {}", restart_file_name,
                                     session.events.n_events, session.clusters.n_clusters));
  }
}

void read_autorecover(session_state& session) {
  log_message(session, "Reading autorecover file");
  bool wrong_file = false;
  if (read_work_file(session, home_file(session, autorecover_file_name), wrong_file)) {
    autoscale_voltage_display(session);
    offer_filters(session, true);
    log_message(session, "Autorecover successfull");
  } else if (wrong_file) {
    log_message(session, std::string("Autorecover failed; bad file name ") + autorecover_file_name);
  } else {
    log_message(session, std::string("Autorecover failed; error reading ") + autorecover_file_name);
  }
}

// Waits half a second, or until there is something to do. False when the timer stops.
bool wait_for_turn(autorecover_timer& timer, bool& save_wanted) {
  std::unique_lock lock(timer.mutex);
  timer.wake.wait_for(lock, std::chrono::milliseconds(500),
                      [&] { return timer.stopping || timer.save_wanted; });
  save_wanted = timer.save_wanted;
  timer.save_wanted = false;
  return !timer.stopping;
}

void run_timer(autorecover_timer& timer, session_state& session) {
  using clock = std::chrono::steady_clock;
  clock::time_point last_save = clock::now();
  bool save_wanted = false;
  while (wait_for_turn(timer, save_wanted)) {
    const clock::time_point now = clock::now();
    const float minutes = std::chrono::duration<float>(now - last_save).count() / 60.0f;
    const bool due = minutes >= session.preferences.autorecover_minutes;
    if (!due && !save_wanted) continue;
    last_save = now;
    if (due) write_run_log_window(session, "Saving autorecover data");
    save_autorecover(session);
  }
}

}  // namespace

bool save_autorecover(session_state& session) {
  if (session.home_directory.empty()) return false;
  const session_hold hold(session);
  if (!may_save(session)) return false;
  session.operation.autorecover_busy = true;
  const bool saved = write_work_file(session, home_file(session, autorecover_file_name),
                                     home_file(session, autorecover_temporary_name));
  session.operation.autorecover_busy = false;
  return saved;
}

bool save_restart(session_state& session) {
  const session_hold hold(session);
  if (!may_save(session)) return false;
  session.operation.autorecover_busy = true;
  const bool saved = write_work_file(session, home_file(session, restart_file_name));
  session.operation.autorecover_busy = false;
  return saved;
}

bool open_restart(session_state& session) {
  std::string path;
  if (!read_recording_path(home_file(session, restart_file_name), path)) {
    log_message(session, std::string("Failed to read file ") + restart_file_name);
    return false;
  }
  session.recording.open_path = path;
  classify_path(session);
  session.recovery = {true, false};
  const bool opened = open_from_state_file(session, restart_file_name);
  session.recovery = {};
  return opened;
}

bool open_autorecover(session_state& session) {
  std::string path;
  if (!read_recording_path(home_file(session, autorecover_file_name), path)) {
    log_message(session,
                std::string("Autorecover failed; early end to file ") + autorecover_file_name);
    return false;
  }
  session.recording.open_path = path;
  classify_path(session);
  session.recovery = {false, true};
  const bool opened = open_from_state_file(session, autorecover_file_name);
  session.recovery = {};
  return opened;
}

void read_state_after_open(session_state& session) {
  if (session.recovery.resuming_restart) read_restart(session);
  if (session.recovery.resuming_autorecover) read_autorecover(session);
  if (session.recovery.resuming_restart || session.recovery.resuming_autorecover) {
    refresh_displays(session);
  }
}

void start_autorecover(autorecover_timer& timer, session_state& session) {
  timer.stopping = false;
  timer.save_wanted = false;
  timer.thread = std::thread([&] { run_timer(timer, session); });
}

void save_autorecover_soon(autorecover_timer& timer) {
  const std::lock_guard lock(timer.mutex);
  timer.save_wanted = true;
  timer.wake.notify_one();
}

void stop_autorecover(autorecover_timer& timer) {
  if (!timer.thread.joinable()) return;
  {
    const std::lock_guard lock(timer.mutex);
    timer.stopping = true;
    timer.wake.notify_one();
  }
  timer.thread.join();
}

}  // namespace kestrelvane
