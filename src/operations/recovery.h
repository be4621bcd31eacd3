// Recovery: the two state files that carry a session over a crash and over an exit.
//
// kv_autorecover.sav is the last complete timed save, kv_restart.sav what the user asked
// to keep at exit; both are work files in home_directory, read over the recording when it
// is opened again. While home_directory is empty, nothing is read or written. A failed
// save shows nothing: its file does not appear, and an older one stays. A second instance in the
// same home has names with its number (home_lock.h); what a save would take the place of and is
// of another session is put aside (kept_states.h).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "session/recording_request.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr const char* restart_file_name = "kv_restart.sav";
constexpr const char* autorecover_file_name = "kv_autorecover.sav";
constexpr const char* autorecover_temporary_name = "kv_autorecover.tmp";

// Waits its turn at the session gate, writes the temporary file and gives it its name.
// True when a complete save stands; nothing is done without a recording.
bool save_autorecover(const session_state& session);
// The same for kv_restart.sav.
bool save_restart(const session_state& session);

// Takes the recording's path from a state file, reads that recording and then the state over
// it, on the calling thread; asks about the filters of the state, and repeats them. True when
// recording and state are in memory. Otherwise the user or the log has been told why, and there is
// the recording without the results, or nothing.
bool open_restart(session_state& session);
bool open_autorecover(session_state& session);
// The same for a state that was put aside. The one in memory is saved before it.
bool open_kept_state(session_state& session, const std::string& path);

// The recovery file of this instance, and the name of a save that is under way.
std::string autorecover_path(const session_state& session);
std::string autorecover_temporary(const session_state& session);

// Opens another recording. The state of the one in memory is saved before it, and when the other
// cannot be read, the user is offered to have it back. True when a recording is in memory.
bool open_recording_or_return(session_state& session, const recording_request& request);

// The timed save: a thread that saves every so many minutes, looking at the clock twice a
// second, and at once when a long run has ended; edits of clusters at most once a minute. A
// save waits for the session gate, so the loss in a crash is one interval, and the time until
// an operation comes to its next poll. An interval of Never means no saves but those asked for.
struct autorecover_timer {
  std::thread thread;
  std::mutex mutex;
  std::condition_variable wake;
  bool stopping = false;
  bool save_wanted = false;
  // A copy of the preference, which the thread that shows it may write at any time.
  std::atomic<float> minutes{0.0f};
  std::chrono::milliseconds look_every{500};    // set before the start
  std::chrono::milliseconds edit_rest{60'000};  // between saves of edits; likewise
};
// Begins with the interval of the preferences; the first save is due one interval later.
void start_autorecover(autorecover_timer& timer, const session_state& session);
// A new interval, counted from the last save.
void set_autorecover_interval(autorecover_timer& timer, float minutes);
// Has the thread save at once.
void save_autorecover_soon(autorecover_timer& timer);
// Returns when a save under way has come to its end. The caller must not hold the gate,
// which that save may be waiting for.
void stop_autorecover(autorecover_timer& timer);

}  // namespace kestrelvane
