#include "operations/recovery.h"

#include <fmt/format.h>
#include <cerrno>

#include "files/input_file.h"
#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "recording/recording_formats.h"
#include "results/curation_file.h"
#include "results/work_file.h"
#include "session/logical.h"
#include "session/run_log.h"
#include "signal/display_scale.h"
#include "signal/filter_chain.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t label_bytes = 24;  // in front of the path in a work file

// What is said while a state file is opened.
struct state_words {
  const char* ends_early;  // before the name; null: as a file that cannot be opened
  const char* reading;
  const char* success;
  const char* declined;  // before the name
  const char* failed;    // before the name
  bool tells_status;     // and behind it the two outcomes of the read: done, declined
  // After No to the filters. A crash was not the user's wish, so recovery forgets nothing.
  bool keeps_history;
};

constexpr state_words restart_words{nullptr,
                                    "Resuming previous state",
                                    "Resumption was successful",
                                    "Bad resume file name ",
                                    "Resume failed; error reading ",
                                    true,
                                    false};

constexpr state_words autorecover_words{"Autorecover failed; early end to file ",
                                        "Reading autorecover file",
                                        "Autorecover successfull",
                                        "Autorecover failed; bad file name ",
                                        "Autorecover failed; error reading ",
                                        false,
                                        true};

// A state file of the home.
struct state_file {
  const state_words& words;
  std::string name;
};

// Of an exit there is one for all instances: it is the next start that asks for it.
state_file restart_state() { return {restart_words, restart_file_name}; }

state_file autorecover_state(const session_state& session) {
  return {autorecover_words, numbered_name(autorecover_file_name, session.state_files.number)};
}

std::string home_file(const session_state& session, const std::string& name) {
  return session.home_directory + '/' + name;
}

// ---------------------------------------------------------------- saving

// Both files are written under one temporary name, which start-up clears away: the gate
// is held, and so there is never more than one save at a time.
bool save_state(const session_state& session, const state_file& file) {
  errno = 0;
  if (session.home_directory.empty()) return false;
  const session_hold hold(session);
  if (session.recording.n_samples <= 0) return false;
  // A reader that asks the user lets others have the gate; half a recording is no state.
  if (session.operation.reader_running) return false;
  session.operation.autorecover_busy = true;
  const std::string path = home_file(session, file.name);
  // Only of the recovery file can what stands there be this run's own.
  const bool is_own = &file.words == &autorecover_words;
  if (is_own) {
    keep_what_is_replaced(session, path);
  } else {
    keep_state(session, path);
  }
  const bool saved = write_work_file(session, path, autorecover_temporary(session));
  if (saved && is_own) session.state_files.own_recording = session.recording.recording_path;
  session.operation.autorecover_busy = false;
  return saved;
}

// ---------------------------------------------------------------- the state

bool samples_were_filtered(const session_state& session) {
  return session.recording.recording_filtered || session.filter_history.n_entries > 0;
}

// What the state file said of filters is repeated over the samples just read, when the
// user wants it. The samples are unfiltered until then.
void offer_filters(session_state& session, const state_file& file) {
  if (!samples_were_filtered(session)) return;
  session.recording.recording_filtered = false;
  if (ask(session, "Repeat previous filtering?", "Kestrelvane")) {
    repeat_filtering(session);
    autoscale_voltage_display(session);
  } else if (!file.words.keeps_history) {
    session.filter_history.n_entries = 0;
  }
}

void say_not_read(const session_state& session, const state_file& file, bool wrong_file) {
  std::string words = std::string(wrong_file ? file.words.declined : file.words.failed) + file.name;
  if (!wrong_file && file.words.tells_status) words += " 0 0";  // neither read nor declined
  log_message(session, words);
}

// The state file over the recording that is in memory.
bool read_state(session_state& session, const state_file& file) {
  log_message(session, file.words.reading);
  bool wrong_file = false;
  if (!read_work_file(session, home_file(session, file.name), wrong_file)) {
    say_not_read(session, file, wrong_file);
    return false;
  }
  const std::string path = home_file(session, file.name);
  std::int32_t later_edits = take_over_history(session, path);
  if (later_edits == 0) later_edits = take_over_later_review(session, path);
  // Edits to come belong beside the recovery file, where they are kept in any case.
  session.history.work_file.clear();
  autoscale_voltage_display(session);
  offer_filters(session, file);
  // Made after the last save; the crash was not the user's wish.
  if (later_edits > 0) repeat_later_edits(session);
  log_message(session, file.words.success);
  return true;
}

// ---------------------------------------------------------------- opening

// The recording that a state file was made from; false after the words that say why.
bool read_recording_path(const session_state& session, const state_file& file, std::string& path) {
  input_file in;
  text256 text;
  const bool opened =
      !session.home_directory.empty() && open_input_file(in, home_file(session, file.name));
  if (opened && read_at(in, label_bytes, &text, sizeof text)) {
    path = text.view();
    return true;
  }
  log_message(session, opened && file.words.ends_early != nullptr
                           ? file.words.ends_early + file.name
                           : std::string("Failed to read file ") + file.name);
  return false;
}

// The open of a state file, from the path in it to recording and state in memory.
bool open_state(session_state& session, const state_file& file) {
  recording_request request;
  if (!read_recording_path(session, file, request.path)) return false;
  request.format = classify_extension(request.path);
  if (!file_exists(request.path)) {
    tell(session, fmt::format("The data file in {} cannot be found", file.name),
         "Open a recording file");
    write_run_log_window(session, "Looking for " + request.path);
    return false;
  }
  write_run_log_window(session, "Restarting with " + request.path);
  if (!open_recording_worker(session, request)) return false;
  // A question lets others have the gate: a timed save would put the recording without its
  // results in the place of the state that is being read.
  session.operation.reader_running = true;
  const bool state_read = read_state(session, file);
  refresh_displays(session);
  session.operation.reader_running = false;
  return state_read;
}

// ---------------------------------------------------------------- the timer

// Waits until it is time to look, or until there is something to do. False when the timer stops.
bool wait_for_turn(autorecover_timer& timer, bool& save_wanted) {
  std::unique_lock lock(timer.mutex);
  timer.wake.wait_for(lock, timer.look_every, [&] { return timer.stopping || timer.save_wanted; });
  save_wanted = timer.save_wanted;
  timer.save_wanted = false;
  return !timer.stopping;
}

using clock = std::chrono::steady_clock;

// From here on it stands for Never, the last entry of the list.
constexpr float never_minutes = 1.0e20f;

// Whether somebody could lose more than the interval promises: a run of hours that has just
// ended, or edits. Those of a run that still goes on are left to the interval.
bool results_are_waiting(const autorecover_timer& timer, const session_state& session,
                         clock::duration since_save) {
  if (timer.minutes >= never_minutes) return false;
  const unsaved_results unsaved = session.operation.unsaved;
  if (unsaved == unsaved_results::run) return true;
  if (unsaved == unsaved_results::none || since_save < timer.edit_rest) return false;
  if (!try_enter_session(session)) return false;
  leave_session(session);
  return true;
}

// Right after a save has failed; without a recording there was none.
bool log_lost_state(const session_state& session) {
  if (errno == 0) return false;
  log_failed_save(session, autorecover_path(session));
  return true;
}

void run_timer(autorecover_timer& timer, const session_state& session) {
  clock::time_point last_save = clock::now();
  bool save_wanted = false;
  bool told = false;  // that saves fail
  while (wait_for_turn(timer, save_wanted)) {
    const clock::time_point now = clock::now();
    const float minutes = std::chrono::duration<float>(now - last_save).count() / 60.0f;
    const bool due = minutes >= timer.minutes;
    if (!due && !save_wanted && !results_are_waiting(timer, session, now - last_save)) continue;
    // A save that was asked for counts as the timed one, and the interval begins anew.
    last_save = now;
    if (due) write_run_log_window(session, "Saving autorecover data");
    const unsaved_results taken = session.operation.unsaved.exchange(unsaved_results::none);
    // A full disk is tried again, but not every half second.
    const bool saved = save_autorecover(session);
    // One line until it is mended: the log keeps what was done to the sort, and has an end.
    told = !saved && (told || log_lost_state(session));
    if (!saved && taken != unsaved_results::none) {
      note_unsaved(session, unsaved_results::edits);
    }
  }
}

}  // namespace

std::string autorecover_path(const session_state& session) {
  return home_file(session, autorecover_state(session).name);
}

std::string autorecover_temporary(const session_state& session) {
  return home_file(session, numbered_name(autorecover_temporary_name, session.state_files.number));
}

bool save_autorecover(const session_state& session) {
  return save_state(session, autorecover_state(session));
}
bool save_restart(const session_state& session) { return save_state(session, restart_state()); }

bool open_restart(session_state& session) { return open_state(session, restart_state()); }

bool open_autorecover(session_state& session) {
  const bool opened = open_state(session, autorecover_state(session));
  if (!opened) return false;
  // A recording without the results of the file is another session than the one that saved it.
  session.state_files.own_recording = session.recording.recording_path;
  // What a review has led to may be in its history alone, which knows nothing of a sort that begins
  // before the next timed save.
  if (session.history.fingerprint != 0) save_autorecover(session);
  return true;
}

bool open_kept_state(session_state& session, const std::string& path) {
  if (session.events.n_events > 0) save_autorecover(session);
  // The next save is of another session, and what stands there by then goes among the kept.
  session.state_files.own_recording.clear();
  return open_state(session, {autorecover_words, path.substr(path.rfind('/') + 1)});
}

bool open_recording_or_return(session_state& session, const recording_request& request) {
  // The interval may have kept an older one, or none.
  const bool has_results = session.events.n_events > 0;
  const std::string earlier = session.recording.recording_path;
  const bool saved = has_results && save_autorecover(session);
  if (has_results && !saved) log_lost_state(session);
  if (open_recording_worker(session, request)) return true;
  if (!saved) return false;
  const user_answer answer = ask_openly(
      session,
      fmt::format("{} could not be read. The results of the recording before it have been kept. "
                  "Open {} again with them?",
                  request.path, earlier),
      "Open a recording file");
  if (answer != user_answer::yes) return false;
  // What ended the other reading is not meant for this one.
  session.operation.reading_interrupted = false;
  return open_autorecover(session);
}

void start_autorecover(autorecover_timer& timer, const session_state& session) {
  timer.stopping = false;
  timer.save_wanted = false;
  timer.minutes = session.preferences.autorecover_minutes;
  timer.thread = std::thread([&] { run_timer(timer, session); });
}

void set_autorecover_interval(autorecover_timer& timer, float minutes) { timer.minutes = minutes; }

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
