// sort and detect: the road of Autosort.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>
#include <vector>

#include "batch/interrupt.h"
#include "batch/verbs.h"
#include "files/safe_file.h"
#include "operations/autosort.h"

namespace kestrelvane {

namespace {

constexpr std::array<std::pair<std::string_view, std::int32_t>, 5> stop_names{{
    {"detection", stop_after_detection},
    {"channel-clusters", stop_after_channel_clusters},
    {"first-pass", stop_after_first_pass},
    {"lists", stop_after_lists},
    {"all", stop_after_all},
}};

std::int32_t stop_of_name(std::string_view name) {
  for (const auto& [known, code] : stop_names) {
    if (name == known) return code;
  }
  // The parser lets no other word through.
  return stop_after_all;
}

batch_status print_units(batch_session& batch) {
  const session_state& session = *batch.session;
  if (batch.options.quiet) return batch_status::done;
  std::string text =
      fmt::format("{} events, {} clusters\n", session.events.n_events, session.clusters.n_clusters);
  if (session.clusters.n_clusters > 0) text += print_unit_table(batch.units);
  return print_result(batch, text);
}

// Only a whole sort stands under the names that were asked for; of another there is what its last
// finished stage has left.
batch_status keep_interrupted(batch_session& batch) {
  sort_keeper& keeper = batch.keeper;
  // With --skip-existing the next run would take the report for that of the whole.
  if (!batch.options.skip_existing) write_run_report(batch);
  if (keeper.kept == kept_stage::none) {
    return fail_batch(batch, "Interrupted. Nothing was saved: no stage had been finished");
  }
  if (!write_kept_sort(keeper)) {
    return fail_batch(batch, "Interrupted. Failed to save file " + why_not_saved(keeper.path));
  }
  return fail_batch(batch, fmt::format("Interrupted. {} has the sort after {}; the same command "
                                       "goes on there with --resume",
                                       keeper.path, name_of(keeper.kept)));
}

// A run without events has its report, as it ran to its end; one that stopped at a guard has
// nothing.
batch_status end_without_sort(batch_session& batch) {
  if (!batch.session->autosort.found_no_events) return batch_status::failed;
  return write_run_report(batch) ? batch_status::no_events : batch_status::failed;
}

// A detection that was cut short leaves events, which are not all that there are.
bool sort_is_whole(batch_session& batch) {
  session_state& session = *batch.session;
  return !interrupt_was_pressed() && autosort(session) &&
         !(interrupt_was_pressed() && session.detector.detection_incomplete);
}

batch_status sort_recording(batch_session& batch) {
  session_state& session = *batch.session;
  session.autosort.stop_after = stop_of_name(batch.options.stop_after);
  sort_keeper& keeper = batch.keeper;
  if (!keeper.path.empty()) session.autosort.keeper = &keeper;
  if (!session.strategy.skip_event_detection) warn_of_slow_waves(batch);
  batch.report.completed = sort_is_whole(batch);
  session.autosort.keeper = nullptr;
  end_timed_stage(batch.report.clock, session);
  batch.report.interrupted = !batch.report.completed && interrupt_was_pressed();
  if (batch.report.interrupted) return keep_interrupted(batch);
  if (!batch.report.completed) return end_without_sort(batch);
  const batch_status written = write_results(batch);
  // What it was kept for is there.
  if (written == batch_status::done && keeper.has_file) std::remove(keeper.path.c_str());
  const batch_status printed = print_units(batch);
  return written == batch_status::done ? printed : written;
}

batch_status skip_recording(batch_session& batch) {
  if (!batch.options.quiet) {
    say(*batch.session, "Skipped " + batch.options.recording + ": all its files are there");
  }
  return finish_batch(batch, batch_status::done);
}

// A recording of spike waveforms has nothing between its spikes: they are there already, and a
// detector would find few of them again. --set has the last word.
void keep_spikes_of_file(batch_session& batch) {
  session_state& session = *batch.session;
  const std::vector<std::string>& set = batch.options.set;
  const bool is_set = std::any_of(set.begin(), set.end(), [](const std::string& text) {
    return text.starts_with("skip_event_detection=");
  });
  logical& skip = session.strategy.skip_event_detection;
  if (session.recording.is_continuous || session.events.n_events == 0 || is_set || skip) return;
  skip = true;
  say(session, fmt::format("The recording consists of spikes: its {} events are sorted, and event "
                           "detection is skipped",
                           session.events.n_events));
}

batch_status take_the_road(const batch_options& options, const std::string& verb) {
  if ((options.checkpoint || options.resume) && options.save_work.empty() &&
      options.exports.empty()) {
    return refuse_usage("--checkpoint and --resume: no work file and no export is asked for");
  }
  if (options.skip_existing && list_outputs(options, {}).empty() && options.exports.empty()) {
    return refuse_usage("--skip-existing: no files are asked for");
  }
  batch_session batch;
  batch_status status = start_batch(batch, options, verb);
  if (status == batch_status::wrong_usage) return status;
  // Before the recording is opened, which alone may take minutes.
  if (status == batch_status::done && options.skip_existing && outputs_are_there(batch.outputs)) {
    return skip_recording(batch);
  }
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = read_work_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) {
    if (verb == "sort") {
      keep_spikes_of_file(batch);
      batch.keeper.path = partial_path(options, batch.exports);
      batch.keeper.at_once = options.checkpoint;
      batch.keeper.resume = options.resume;
    }
    status = sort_recording(batch);
  }
  return finish_batch(batch, status);
}

}  // namespace

batch_status run_sort(const batch_options& options) { return take_the_road(options, "sort"); }

batch_status run_detect(const batch_options& options) {
  batch_options detection = options;
  // Whatever the options say: this verb ends there.
  detection.stop_after = "detection";
  return take_the_road(detection, "detect");
}

}  // namespace kestrelvane
