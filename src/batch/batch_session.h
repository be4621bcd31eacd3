// What the verbs that work on a recording have in common.
//
// A batch_session owns the one session of the process and its console. The steps
// of a run are separate routines that a verb calls in order; each says what went
// wrong and returns the exit status that the program then ends with.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "batch/batch_options.h"
#include "batch/outputs.h"
#include "batch/report.h"
#include "operations/planned_filters.h"
#include "operations/sort_keeper.h"
#include "results/exports.h"
#include "session/console_interface.h"
#include "session/session_state.h"

namespace kestrelvane {

// Exit status of the program.
enum class batch_status : int { done = 0, failed = 1, wrong_usage = 2, no_events = 3 };

struct batch_session {
  batch_options options;
  std::unique_ptr<session_state> session = std::make_unique<session_state>();
  console_interface console;
  run_report report;
  std::vector<unit_row> units;  // as the sort left them, before any export
  // What the command line says, checked before anything is opened.
  std::vector<planned_export> exports;
  std::vector<planned_output> outputs;  // all files that the run is to leave
  std::vector<std::int32_t> masked_channels;
  std::vector<planned_filter> filters;
  const sort_preset* preset = nullptr;  // of --preset; null: none
  preset_hold hold;                     // what it has set
  sort_keeper keeper;                   // of an unfinished sort
};

// Checks what can be checked without opening a recording, whether the outputs can be written
// among it; starts the session and gives it console, settings and threads.
batch_status start_batch(batch_session& batch, const batch_options& options,
                         const std::string& verb);

// Opens the recording, refuses exports that it cannot have, then masks channels.
// Timed as stage "reading".
batch_status open_recording_for_batch(batch_session& batch);

// Reads --work over the recording, if given; settings of the command line then hold
// again, since they were given for this run.
batch_status read_work_for_batch(batch_session& batch);

// Runs the filters of --filter over the recording, on top of those that a work file
// repeated: a work file brings its own history, so theirs come first.
batch_status filter_for_batch(batch_session& batch);

// A line where most of the power lies below the spikes: before a detection.
void warn_of_slow_waves(batch_session& batch);

// Takes down the table of units, then writes the work file, the exports and the
// report that were asked for. All are tried; failed when one could not be written.
batch_status write_results(batch_session& batch);

// The report alone, where it was asked for, of a run without results. False when it could not be
// written.
bool write_run_report(batch_session& batch);

// Writes a result on standard output, after the bar has gone. Failed, with the reason on
// standard error, when it could not be written.
batch_status print_result(batch_session& batch, std::string_view text);

// State files of --home, as at the program's exit. The status of the whole run: status, or
// failed when the settings or the log could not be written.
batch_status finish_batch(batch_session& batch, batch_status status);

// A line on standard error, and the status "failed" or "wrong usage" to go with it.
batch_status fail_batch(batch_session& batch, const std::string& text);
batch_status refuse_usage(const std::string& text);

}  // namespace kestrelvane
