#include "batch/batch_session.h"
#include "files/safe_file.h"

#include <fmt/format.h>

#include <algorithm>

#include "batch/channel_list.h"
#include "batch/hdf_tree.h"
#include "batch/interrupt.h"
#include "files/standard_streams.h"
#include "operations/high_pass_offer.h"
#include "operations/open_recording.h"
#include "recording/electrode_config.h"
#include "recording/recording_formats.h"
#include "recording/site_tables.h"
#include "results/work_file.h"
#include "session/run_log.h"
#include "session/settings_files.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "signal/slow_waves.h"
#include "sorting/realign_steps.h"

namespace kestrelvane {

namespace {

// Degrees: a two-column probe then reads across rows and down the shank.
constexpr float usual_scan_angle = 1.0f;

void print_error(const std::string& text) { put_text(stderr, text + "\n"); }

bool plan_exports(batch_session& batch, std::string& problem) {
  for (const std::string& text : batch.options.exports) {
    const std::size_t equals = text.find('=');
    const export_format* format = find_export_format(text.substr(0, equals));
    // A format alone, or an ending without a path, is a slip of the user's.
    if (equals == std::string::npos || equals + 1 == text.size() || format == nullptr) {
      problem = fmt::format("--export {}: not FORMAT=PATH with a format of this program", text);
      return false;
    }
    // All that follows the first sign of equality: a path may hold others.
    batch.exports.push_back({format, text.substr(equals + 1)});
  }
  return true;
}

// NAME=VALUE, in the order given: a later one wins.
bool apply_settings(batch_session& batch, std::string& problem) {
  for (const std::string& text : batch.options.set) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
      problem = fmt::format("--set {}: not NAME=VALUE", text);
      return false;
    }
    std::string why;
    if (!set_setting(*batch.session, text.substr(0, equals), text.substr(equals + 1), why)) {
      problem = fmt::format("--set {}: {}", text, why);
      return false;
    }
  }
  return true;
}

bool read_parameters_option(batch_session& batch) {
  if (batch.options.parameters.empty()) return true;
  if (!read_parameters_file(*batch.session, batch.options.parameters)) {
    fail_batch(batch, "Failed to read file " + why_not_saved(batch.options.parameters));
    return false;
  }
  // What is derived from settings is built anew from those of the file.
  settle_settings(*batch.session);
  return true;
}

// Those of the home, which log and status have told of where they cannot be read. With the defaults
// in their place hours would go into a sort that nobody has asked for.
bool read_kept_settings(batch_session& batch) {
  session_state& session = *batch.session;
  read_settings_files(session);
  const auto& unread = session.unread_settings;
  if (std::find(unread.begin(), unread.end(), true) != unread.end()) {
    fail_batch(batch, "Nothing is done without the settings in " + session.home_directory);
    session.home_directory.clear();  // or the end of the run would try to write them
    return false;
  }
  return read_parameters_option(batch);
}

// Threads and the skip boxes of Autosort belong to this run, whatever was kept from
// an earlier one; --set has the last word.
bool apply_run_options(batch_session& batch, std::string& problem) {
  session_state& session = *batch.session;
  const batch_options& options = batch.options;
  if (options.threads > 0) {
    set_thread_count(session, options.threads);
    // One thread is asked for as none: the plain loops.
    session.preferences.multi_threaded = options.threads > 1;
  }
  // After --threads, which would turn them on again.
  if (options.serial) session.preferences.multi_threaded = false;
  session.strategy.skip_event_detection = options.skip_detection;
  session.strategy.skip_clustering = options.skip_clustering;
  // On top of whatever was kept; --set may still change it.
  if (batch.preset != nullptr) batch.hold = hold_preset(session, *batch.preset);
  const bool applied = apply_settings(batch, problem);
  session.multi_threaded_now = session.preferences.multi_threaded;
  return applied;
}

// The preset, whose filters join those of --filter.
bool plan_preset(batch_session& batch, std::string& problem) {
  const std::string& name = batch.options.preset;
  if (name.empty()) return true;
  batch.preset = find_preset(name);
  if (batch.preset == nullptr) {
    problem = fmt::format("--preset {}: not one of {}", name, preset_names());
    return false;
  }
  return add_preset_filters(*batch.preset, batch.filters, problem);
}

batch_status start_console(batch_session& batch) {
  console_interface& console = batch.console;
  console.quiet = batch.options.quiet;
  console.terminal = standard_error_is_terminal();
  // Nobody is there to be asked: one answer holds for every question.
  console.answer_yes = batch.options.answer == "yes";
  console.chosen_path = batch.options.config;
  console.hdf_path = batch.options.hdf_path;
  console.hdf_rate = batch.options.rate;
  console.hdf_scale = batch.options.scale;
  console.on_stage = [&batch](const std::string& name) {
    begin_timed_stage(batch.report.clock, *batch.session, name);
  };
  // From here on what is said goes to the console.
  attach_console(console, *batch.session);
  if (!batch.options.log.empty() && !open_console_log(console, batch.options.log)) {
    return fail_batch(batch, "Error opening logfile " + batch.options.log);
  }
  return batch_status::done;
}

// --config for a format that carries positions of its own: those of the file hold.
batch_status place_channels(batch_session& batch) {
  session_state& session = *batch.session;
  const std::string& path = batch.options.config;
  const recording_format* format = find_recording_format(session.recording.file_type);
  if (path.empty() || format == nullptr || format->configuration != config_use::none) {
    return batch_status::done;
  }
  std::int32_t n_mapped = 0;
  if (!read_config_file(session, path, n_mapped, true)) {
    return fail_batch(batch, "Failed to read file " + path);
  }
  // Every channel needs a position, and no other.
  if (n_mapped != session.recording.n_channels) {
    return fail_batch(batch, fmt::format("{} maps {} channels, the recording has {}", path,
                                         n_mapped, session.recording.n_channels));
  }
  // What the worker derived from the file's own positions is derived anew.
  compute_site_pitch(session);
  build_site_tables(session);
  sort_channels(session, usual_scan_angle);
  return batch_status::done;
}

// A window of the command line beside templates of the work file. A sort makes them anew where
// it keeps the clusters; whatever else is done with them needs them now.
void follow_template_window(batch_session& batch) {
  session_state& session = *batch.session;
  // First, as templates would otherwise be made anew for a window that is cut right afterwards.
  shorten_spike_window(session);
  if (batch.report.verb != "sort") renew_outdated_templates(session);
}

batch_status mask_channels(batch_session& batch) {
  recording_store& r = batch.session->recording;
  // The list was parsed before the recording told how many there are.
  for (const std::int32_t channel : batch.masked_channels) {
    if (channel > r.n_channels) {
      return fail_batch(batch, fmt::format("--mask: the recording has {} channels, not {}",
                                           r.n_channels, channel));
    }
    r.chan_mask[channel] = true;
  }
  return batch_status::done;
}

}  // namespace

batch_status fail_batch(batch_session& batch, const std::string& text) {
  // Ends the line of the bar, so that the words begin one of their own.
  finish_console(batch.console);
  print_error(text);
  return batch_status::failed;
}

batch_status refuse_usage(const std::string& text) {
  print_error(text);
  print_error("Run with --help for more information.");
  return batch_status::wrong_usage;
}

batch_status start_batch(batch_session& batch, const batch_options& options,
                         const std::string& verb) {
  batch.options = options;
  batch.report.verb = verb;
  session_state& session = *batch.session;
  start_session(session);
  std::string problem;
  // All that can be wrong with the command line is said before anything is opened.
  if (!plan_exports(batch, problem)) return refuse_usage(problem);
  if (!options.mask.empty() && !parse_channel_list(options.mask, batch.masked_channels)) {
    return refuse_usage(fmt::format("--mask {}: not a list of channels", options.mask));
  }
  if (!parse_filters(options.filters, batch.filters, problem)) return refuse_usage(problem);
  if (!plan_preset(batch, problem)) return refuse_usage(problem);
  // The log is a file as any other, and is opened first.
  problem = find_clash(options, batch.exports);
  if (!problem.empty()) return refuse_usage(problem);
  // Here for its complaints; it is applied again once the kept settings are read.
  if (!apply_run_options(batch, problem)) return refuse_usage(problem);
  release_preset(session, batch.hold);
  const batch_status status = start_console(batch);
  if (status != batch_status::done) return status;
  // From here on a press of Ctrl+C has flags to raise; before it the system ends the program as it
  // would any other.
  catch_interrupt(session);
  session.home_directory = options.home;
  if (!read_kept_settings(batch)) return batch_status::failed;
  // The last word belongs to the command line.
  apply_run_options(batch, problem);
  batch.outputs = list_outputs(options, batch.exports);
  // Found now, and not after the hours of a sort that nothing would be left of.
  const std::string unwritable = try_outputs(batch.outputs);
  return unwritable.empty() ? batch_status::done : fail_batch(batch, unwritable);
}

batch_status open_recording_for_batch(batch_session& batch) {
  session_state& session = *batch.session;
  batch.console.show_log = true;
  if (!settle_hdf_path(batch)) return batch_status::failed;
  // No dialog has a say here: the extension counts in any case of letters.
  const batch_options& options = batch.options;
  const std::optional<recording_request> request = prepare_open_recording(
      session, {options.recording, classify_extension(options.recording, true), options.config,
                options.stream});
  const bool opened = request && open_recording_worker(session, *request);
  batch.console.show_log = false;
  end_timed_stage(batch.report.clock, session);
  if (!opened) return fail_batch(batch, "Aborting read of " + options.recording);
  // Refused now, not after the sort that the export was to follow.
  for (const planned_export& planned : batch.exports) {
    if (!export_is_possible(session, *planned.format)) return batch_status::failed;
  }
  const batch_status status = place_channels(batch);
  // Masks come last: a configuration has just placed the channels.
  return status == batch_status::done ? mask_channels(batch) : status;
}

batch_status read_work_for_batch(batch_session& batch) {
  if (batch.options.work.empty()) return batch_status::done;
  session_state& session = *batch.session;
  batch.console.show_log = true;
  begin_timed_stage(batch.report.clock, session, "work file");
  release_preset(session, batch.hold);
  const work_file_outcome outcome = open_work_file_at(session, batch.options.work);
  end_timed_stage(batch.report.clock, session);
  batch.console.show_log = false;
  if (outcome == work_file_outcome::filtering_incomplete) {
    return fail_batch(batch, "The filters of the work file could not all be repeated");
  }
  // Boxes have told why.
  if (outcome != work_file_outcome::retrieved &&
      outcome != work_file_outcome::retrieved_with_filtering) {
    return batch_status::failed;
  }
  std::string problem;
  if (!read_parameters_option(batch)) return batch_status::failed;
  // The work file has brought settings of its own; those of the command line hold for this run.
  apply_run_options(batch, problem);
  follow_template_window(batch);
  return mask_channels(batch);
}

batch_status filter_for_batch(batch_session& batch) {
  session_state& session = *batch.session;
  session.autosort.preset = batch.preset;
  if (batch.preset != nullptr) log_message(session, describe_preset(*batch.preset));
  if (drop_automatic_filter(session, batch.filters)) {
    log_message(session, "--filter auto: nothing to do, the recording has been filtered");
  }
  drop_idle_preset_filters(session, batch.filters);
  if (batch.filters.empty()) return batch_status::done;
  batch.console.show_log = true;
  begin_timed_stage(batch.report.clock, session, "filtering");
  const filter_settings kept = session.filter;
  const bool done = !interrupt_was_pressed() && run_planned_filters(session, batch.filters);
  // A preset's values are of this run alone.
  if (batch.preset != nullptr) session.filter = kept;
  end_timed_stage(batch.report.clock, session);
  batch.console.show_log = false;
  return done ? batch_status::done : fail_batch(batch, "The recording could not be filtered");
}

void warn_of_slow_waves(batch_session& batch) {
  session_state& session = *batch.session;
  // Said here in its own words; nobody is there to take the offer of the operation.
  session.recording.high_pass_offered = true;
  if (!looks_unfiltered(session)) return;
  tell(session, unfiltered_words(session) + "--filter auto high passes it first", "",
       box_icon::warning);
}

bool write_run_report(batch_session& batch) {
  const std::string& path = batch.options.report;
  if (path.empty() || write_report(*batch.session, batch.report, batch.units, path)) return true;
  fail_batch(batch, "Failed to save file " + why_not_saved(path));
  return false;
}

batch_status write_results(batch_session& batch) {
  session_state& session = *batch.session;
  const batch_options& options = batch.options;
  // The table tells of the sort as the work file holds it; an export may take
  // duplicates out afterwards.
  batch.units = make_unit_table(session);
  // Every file is tried, also after one has failed.
  bool written = true;
  begin_timed_stage(batch.report.clock, session, "saving");
  if (!options.save_work.empty()) written &= save_work_file_at(session, options.save_work);
  for (const planned_export& planned : batch.exports) {
    const export_options wanted{.remove_duplicates = session.review.export_remove_duplicates};
    written &= export_sorted_spikes(session, *planned.format, planned.path, wanted);
  }
  end_timed_stage(batch.report.clock, session);
  written &= write_run_report(batch);
  return written ? batch_status::done : batch_status::failed;
}

batch_status print_result(batch_session& batch, std::string_view text) {
  finish_console(batch.console);
  std::string problem;
  if (put_result(text, problem)) return batch_status::done;
  return problem.empty() ? batch_status::failed
                         : fail_batch(batch, "Can't write to standard output: " + problem);
}

batch_status finish_batch(batch_session& batch, batch_status status) {
  finish_console(batch.console);
  release_interrupt();
  session_state& session = *batch.session;
  // The results are there by now, whatever became of the log and the settings; the status tells
  // that not all that was asked for is.
  if (!batch.console.log_problem.empty()) {
    status = fail_batch(batch, fmt::format("The logfile {} lacks lines: {}", batch.options.log,
                                           batch.console.log_problem));
  }
  release_preset(session, batch.hold);
  // Without a home nothing is kept.
  if (session.home_directory.empty()) return status;
  if (!write_parameters(session) || !write_preferences(session)) {
    status = fail_batch(batch,
                        "Failed to save the settings in " + why_not_saved(session.home_directory));
  }
  return status;
}

}  // namespace kestrelvane
