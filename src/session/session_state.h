// session_state: everything the program holds in memory.
//
// One recording at a time, the events and clusters derived from it, and the
// settings. main creates the one session and passes it first to every routine.
// Nothing here is locked: a long operation runs on one worker, and what could
// disturb it is disabled meanwhile. A worker's parallel loops write only their
// own items.
//
// Channels, events, clusters and pairs are numbers counted from 1, in memory and
// in the files that store them. Voltages are in bits everywhere; µV is bits times
// vscale_HP. Positions are in µm.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "session/cluster_table.h"
#include "session/edit_history.h"
#include "session/event_table.h"
#include "session/filter_history.h"
#include "session/long_operation.h"
#include "session/recording_store.h"
#include "session/run_log.h"
#include "session/session_gate.h"
#include "session/settings.h"
#include "session/state_files.h"
#include "session/status_lists_table.h"
#include "session/template_table.h"
#include "session/undo_slot.h"
#include "session/user_interface.h"
#include "session/voltage_view.h"

namespace kestrelvane {

// What a detection run carries from sample to sample and from run to run.
struct detection_state {
  std::int32_t threshold_pos = 0;   // bits, of the channel under test
  std::int32_t threshold_neg = 0;   // bits
  std::int16_t threshold_bits = 0;  // bits, fixed or variable threshold
  float teager_threshold = 0.0f;    // bits squared; the lockout detector alone sets it
  table<float> auto_threshold_pos{channel_limit};  // bits; compute_auto_thresholds
  table<float> auto_threshold_neg{channel_limit};
  logical detection_incomplete = false;  // the last run was cut short
  logical pe_alloc_failed = false;       // proto-event storage could not be had
  // The last run was set to proto-events and repeated with the lockout detector, since
  // the table of events had filled.
  logical repeated_with_lockout = false;
  // Proto-events of the last run as the voltage record shows them, in order of time.
  std::int32_t n_proto_marks = 0;
  table<std::int32_t> proto_mark_time{event_limit};  // time index of the trigger
  table<std::int16_t> proto_mark_channel{event_limit};
};

// The events that a run has pooled last, with the labels that tell them apart, as points in the
// plane of their components: what a paused run shows. Held in the stages of pairs alone.
struct event_pool {
  std::vector<std::int32_t> pooled;    // clusters, by the numbers that they had; empty: no pool
  std::vector<std::int32_t> clusters;  // that have come of them, by the numbers that they have now
  std::vector<std::int32_t> events;    // ascending
  std::vector<std::int16_t> labels;    // of each
  std::int32_t dimensions = 0;
  std::vector<float> values;  // of each so many, clustering units
};

struct sort_preset;
struct sort_keeper;

// What an Autosort run carries between its stages and leaves for its caller.
struct autosort_state {
  logical next_stage_requested = true;
  logical max_clusters_reached = false;
  logical autosort_pair_stage = false;
  logical found_no_events = false;  // and ended with that
  // Clusters were split early where that was obvious, as every run does. A work file tells
  // it in place of the setting, which is for splits by hand.
  logical split_obvious = false;
  event_pool pool;
  // What the run goes by (presets.h); null: settings as they stand.
  const sort_preset* preset = nullptr;
  // Keeps what stages have finished (operations/sort_keeper.h); null: nobody does.
  sort_keeper* keeper = nullptr;
  // What the work file that was read last says for the run that goes on with an unfinished sort;
  // empty: nothing.
  std::string stage_note;
  // The batch command and tests may end a run after a stage; autosort.h.
  std::int32_t stop_after = 0;
};

// Where the user is in the review by hand, as it stays between two dialogs.
struct review_place {
  std::int32_t compare_a = 0, compare_b = 0;  // pair on show; 0: none yet
  std::int32_t match_position = 0;  // in the match list; 0: the pair was not taken from it
  float last_split_sigma = 0;       // µV, of the last split that was found for a pair
};

// Sinc interpolation and kernel tables, built from the settings.
struct interpolation_tables {
  // 1000 entries, and zeros behind them for taps that fall beyond the width.
  float interp_table[1000 + 101] = {};
  std::int32_t depth = 0, width = 0;  // what interp_table was built for
  float gac_table[10001 + 1] = {};    // exp(-k / 500), k = 0..10000, and a 0 behind
};

struct cluster_event_lists;
struct deferred_templates;

struct session_state {
  recording_store recording;
  event_table events;
  cluster_table clusters;
  template_table templates;
  status_lists_table lists;
  filter_history_table filter_history;
  std::unique_ptr<undo_slot> undo;  // null: nothing to go back to; sorting/undo_state.h
  edit_history history;             // of the review; review/recorded_edit.h

  detection_settings detection;
  filter_settings filter;
  cleaning_settings cleaning;
  sorting_strategy_settings strategy;
  template_pass_settings matching;
  review_settings review;
  quality_settings quality;
  display_settings display;
  preferences_record preferences;
  carried_settings carried;
  // By setting_file: a file that is there and could not be read is not written over, either.
  std::array<bool, 2> unread_settings{};
  voltage_view view;
  review_place reviewed;

  detection_state detector;
  autosort_state autosort;
  interpolation_tables tables;

  std::int32_t current_channel = 1;  // selected in all dialogs

  // The ways in which running code speaks and is spoken to. They hold nothing that a result
  // depends on, so a routine that changes nothing may log, tell and poll: they can be written
  // through a const session.
  mutable run_log_table log;
  mutable long_operation_flags operation;
  mutable session_gate gate;
  mutable state_file_use state_files;
  // Held over each store of settings, masks and selections that belong together, and while a save
  // copies them: for a moment, and never by somebody who waits for the gate, a disk or the user.
  mutable std::recursive_mutex settings_mutex;

  user_interface ui;

  std::string home_directory;  // where state files live; empty: none are read or written
  std::int32_t n_cpus = 1;     // logical processors, or the threads asked for if more
  std::int32_t n_threads = 1;  // threads of parallel loops when multi_threaded_now
  std::int32_t max_clusters = cluster_limit - 1;  // cluster_limit - n_cpus
  logical multi_threaded_now = false;             // what the running operation uses
  // Set for as long as events stay with their clusters; clustering/membership.h.
  const cluster_event_lists* event_lists = nullptr;
  // Set while templates are made in part; clustering/deferred_templates.h.
  deferred_templates* deferred = nullptr;
  // Called by the holder of the gate before it lets somebody else have it.
  struct {
    void (*run)(void* context) = nullptr;
    void* context = nullptr;
  } before_sharing;
};

// Start-up: processors, limits, defaults, interpolation and kernel tables.
void start_session(session_state& session);

// Uses n threads; more than the machine has processors lowers max_clusters further.
void set_thread_count(session_state& session, std::int32_t n);

// Threads for a parallel loop of the running operation: n_threads when
// multi_threaded_now, otherwise 1.
inline std::int32_t threads_now(const session_state& session) {
  return session.multi_threaded_now ? session.n_threads : 1;
}

// Sets duration_mins (minutes) from samples, epochs or record time stamps.
void compute_duration(session_state& session);

// Real time of the stored record that holds a time index of an event-based recording, from
// first_timestamp on, in µs and in whole ms; 0 when there is none.
std::int64_t event_record_time_us(const session_state& session, std::int64_t time_index,
                                  std::int32_t channel);
std::int64_t event_record_time_ms(const session_state& session, std::int64_t time_index,
                                  std::int32_t channel);

// Gives back the time stamps of stored records.
void release_timestamp_map(recording_store& recording);

// Forgets recording, events and clusters, closes the log file; settings stay, and
// so does the allocation of vd, which the next recording replaces.
void reset_session(session_state& session);

// Forgets the history of edits: what comes next begins another.
void forget_history(session_state& session);

// Consistency of counters and tables: dense clusters, events in range, lists in
// step, templates with channels. Returns an empty text, or what is wrong.
std::string check_session(const session_state& session);

}  // namespace kestrelvane
