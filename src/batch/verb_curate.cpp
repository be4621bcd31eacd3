// curate: the edits of a review once more, over the sort that it began with.
#include <fmt/format.h>

#include "batch/verbs.h"
#include "results/curation_file.h"
#include "review/recorded_edit.h"
#include "review/replay.h"

namespace kestrelvane {

namespace {

// From the state of the history that the work file is, the beginning as a rule.
batch_status replay_for_batch(batch_session& batch) {
  session_state& session = *batch.session;
  edit_history& history = session.history;
  edit_history found;
  std::string problem;
  if (!read_history(batch.options.replay, found, problem)) return fail_batch(batch, problem);
  const std::int32_t from = find_state(found, sort_fingerprint(session));
  if (from < 0) {
    return fail_batch(batch, batch.options.replay + " does not belong to this sort");
  }
  const std::int32_t upto = batch.options.upto > 0 ? batch.options.upto : last_record(found);
  begin_timed_stage(batch.report.clock, session, "curation");
  replay_result result;
  const bool done = replay_edits(session, found, from, upto, result);
  end_timed_stage(batch.report.clock, session);
  if (!done) return fail_batch(batch, result.problem);
  log_message(session, fmt::format("{} edits were repeated", result.n_done));
  // A work file that is saved has the history beside it as far as it went.
  found.records.resize(static_cast<std::size_t>(std::min(upto, last_record(found))));
  history = std::move(found);
  return batch_status::done;
}

}  // namespace

batch_status run_curate(const batch_options& options) {
  if (options.replay.empty()) return refuse_usage("curate: --replay is required");
  if (options.work.empty()) return refuse_usage("curate: --work is required");
  batch_session batch;
  batch_status status = start_batch(batch, options, "curate");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = read_work_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) status = replay_for_batch(batch);
  if (status == batch_status::done) status = write_results(batch);
  return finish_batch(batch, status);
}

}  // namespace kestrelvane
