#include "operations/open_recording.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "clustering/realignment.h"
#include "clustering/templates.h"
#include "files/input_file.h"
#include "recording/acquisition_facts.h"
#include "recording/channel_masks.h"
#include "recording/electrode_config.h"
#include "recording/formats/open_ephys.h"
#include "recording/recent_files.h"
#include "recording/recording_formats.h"
#include "recording/site_tables.h"
#include "session/template_window.h"
#include "signal/display_scale.h"
#include "signal/noise.h"
#include "signal/thresholds.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t bar_range = 115;
constexpr const char* open_title = "Open a recording file";

// Says why the file of a request cannot be opened; true when it may be. Whatever can be known
// of it now costs the recording in memory nothing.
bool check_readable(const session_state& session, const recording_request& request) {
  constexpr const char* title = "Open file failed";
  if (!file_exists(request.path)) {
    tell(session, "Can't find file " + request.path, title);
    return false;
  }
  input_file probe;
  if (!open_input_file(probe, request.path)) {
    tell(session, fmt::format("Can't open file {}: {}", request.path, probe.problem), title);
    return false;
  }
  const recording_format* format = find_recording_format(request.format);
  const std::string why =
      format == nullptr ? std::string{} : why_no_such_file(*format, request.path);
  if (why.empty()) return true;
  const std::string words =
      format->failure_text[0] != '\0' ? format->failure_text : "Can't open it";
  tell(session, fmt::format("{}: {} {}", words, request.path, why), title);
  return false;
}

// A folder stands for the recording in it; anything else for itself.
std::string recording_of_folder(const session_state& session, const std::string& path) {
  std::error_code ignored;
  if (!std::filesystem::is_directory(path, ignored)) return path;
  // Its header stands for a recording of many files.
  const std::string header = (std::filesystem::path(path) / "info.rhd").string();
  if (file_exists(header)) return header;
  const std::string inside = find_structure_file(session, path);
  return inside.empty() ? path : inside;
}

void remember_recent(const session_state& session, const std::string& path) {
  if (session.home_directory.empty()) return;
  std::error_code ignored;
  const std::filesystem::path absolute = std::filesystem::absolute(path, ignored);
  recent_files recent = read_recent_files(session);
  promote_recent_file(recent, absolute.empty() ? path : absolute.string());
  write_recent_files(session, recent);
}

void report_unknown_type(const session_state& session) {
  tell(session, "Unrecognised file type", open_title, box_icon::information);
}

// Where channels are named by their place, a configuration that happens to lie beside the
// recording may not be meant; one that the user has named is.
bool declines_configuration(const session_state& session, const recording_request& request,
                            const recording_format& format) {
  return format.configuration == config_use::offered && request.configuration.empty() &&
         !config_file_beside(request.path).empty() &&
         !ask(session, "An electrode configuration file exists for this recording, use it?",
              "Electrode channels");
}

// The electrode configuration of a format that wants one; false when the user would
// rather not go on without.
bool find_configuration(session_state& session, const recording_request& request,
                        const recording_format& format) {
  if (format.configuration == config_use::none ||
      declines_configuration(session, request, format) || load_configuration(session, request)) {
    return true;
  }
  return format.configuration == config_use::wanted ||
         ask(session, "Cannot find electrode configuration file, continue anyway?", "Warning");
}

// True, after the log line, when the user has asked to stop.
bool stopped_by_user(const session_state& session) {
  if (!reading_interrupted(session)) return false;
  log_message(session, "Reading interrupted");
  return true;
}

// True when the format of the request is one that can be read; says so otherwise.
bool has_reader(const session_state& session, const recording_format* format) {
  if (format != nullptr && format->read != nullptr) return true;
  if (format == nullptr) {
    report_unknown_type(session);
    return false;
  }
  const std::string extensions = format->extensions;
  const std::string title = format->failure_title;
  tell(session,
       fmt::format("Sorry, {} format support is not fully implemented yet",
                   extensions.substr(0, extensions.find(' '))),
       title.empty() ? open_title : title, box_icon::information);
  return false;
}

// The format's own part: reset, banner, configuration, reader, and its words on failure.
bool read_format(session_state& session, const recording_request& request) {
  const recording_format* format = find_recording_format(request.format);
  // First of all, so that a failure leaves an empty session and not half of two.
  reset_session(session);
  if (!has_reader(session, format)) return false;
  session.recording.file_type = request.format;
  if (format->banner[0] != '\0') log_message(session, format->banner);
  if (!find_configuration(session, request, *format)) return false;
  const bool good = format->read(session, request);
  // Whoever stopped it knows why there is no recording.
  if (stopped_by_user(session)) return false;
  if (good) return true;
  if (format->failure_text[0] != '\0') {
    tell(session, format->failure_text, format->failure_title);
  }
  return false;
}

// What the file demands of settings becomes the setting, and stays so until the user or the
// next recording changes it. Readers change none: one that fails leaves them as they were.
void meet_demands(session_state& session) {
  const recording_store& r = session.recording;
  if (r.file_window_start_ms < r.file_window_end_ms) {
    session.strategy.template_window_start_ms = r.file_window_start_ms;
    session.strategy.template_window_end_ms = r.file_window_end_ms;
  }
  if (r.suits_lockout) session.detection.use_lockout = true;
  if (r.records_stay_apart && session.preferences.treat_as_continuous) {
    log_message(session, "Turning off option to 'treat_event_based_recording_as_continuous'");
    session.preferences.treat_as_continuous = false;
  }
}

// Tables of the sites, and what a file does not tell: row distance and display order.
void settle_geometry(session_state& session) {
  recording_store& r = session.recording;
  build_site_tables(session);
  if (r.site_pitch == 0) compute_site_pitch(session);
  constexpr float scan_angle = 1.0f;  // degrees: across rows and down the shank
  if (r.chan_sort_order[1] == 0) sort_channels(session, scan_angle);
}

// Templates of the clusters that came with the file. A unit number without events has
// none, but no cluster may be without a channel.
void make_file_templates(session_state& session) {
  const std::int32_t n = session.clusters.n_clusters;
  compute_template_points(session);
  // The window before was that of another recording, and so were its templates.
  shorten_template_rows(session);
  templates_are_current(session);
  for (std::int32_t c = 1; c <= n; ++c) {
    if (session.templates.template_n_channels[c] > 0) continue;
    session.templates.template_n_channels[c] = 1;
    session.templates.channels(c)[1] = 1;
  }
  // A window that reaches out of vd is shortened later, and the templates are made then.
  if (n == 0 || session.recording.clusters_are_planted || !spike_window_is_readable(session)) {
    return;
  }
  const bool tells = habits_of(session.recording).announces_templates;
  if (tells) log_message(session, "Making templates");
  calculate_all_templates(session);
  if (tells) log_message(session, "Finished making templates");
}

// By the file that the format goes by, which need not be the one that was chosen.
void name_recording(session_state& session, const recording_request& request) {
  recording_store& r = session.recording;
  const recording_format* format = find_recording_format(r.file_type);
  r.recording_path = format->source_path == nullptr ? request.path : r.*format->source_path;
  session.operation.open_succeeded = true;
  std::string name = file_name_of(r.recording_path);
  if (r.show_config_in_title) name += " + " + file_name_of(r.config_path);
  set_frame_title(session, "Kestrelvane  -  " + name);
}

void measure_recording(session_state& session) {
  recording_store& r = session.recording;
  set_progress(session, meter::reading, 110, bar_range);
  log_message(session, "Calculating channel noise values");
  compute_noise(session);
  // Marks of the recording before; this one is as the file has it.
  r.recording_filtered = false;
  session.filter_history.n_entries = 0;
  // Depends on the µV of a bit, which the reader has just set.
  set_fixed_threshold_bits(session);
  compute_duration(session);
  log_message(session, fmt::format("Recording duration = {:.2f} mins", r.duration_mins));
  log_message(session, fmt::format("# of voltage samples per channel = {}", r.n_samples));
  log_message(session, fmt::format("# of events saved in file = {}", session.events.n_events));
  log_message(session, fmt::format("Sampling frequency = {} Hz", rate_text(r)));
}

void check_spike_window(session_state& session) {
  const bool shortened = shorten_spike_window(session);
  compute_template_points(session);
  if (!shortened || session.clusters.n_clusters == 0) return;
  log_message(session, "Recalculating templates and realigning");
  realign_all_clusters(session);
}

// Rows as high as the window and the number of channels suggest.
void choose_channel_spacing(session_state& session) {
  const recording_store& r = session.recording;
  std::int32_t& spacing = session.display.vd_channel_spacing;
  if (habits_of(r).one_tetrode) {
    spacing = 60;
  } else if (r.n_channels > 16) {
    spacing = 20;
  } else {
    const std::int32_t height = session.preferences.voltage_window_size[1];
    spacing = std::clamp((height - 80) / std::max(r.n_channels, 1), 1, 500);
  }
}

void show_from_start(session_state& session) {
  choose_channel_spacing(session);
  reset_voltage_view(session);
  find_start_of_signal(session);
  autoscale_voltage_display(session);
}

void finish_open(session_state& session) {
  set_progress(session, meter::reading, 112, bar_range);
  if (session.preferences.log_file_enabled) open_log_file(session);
  log_message(session, "Finished reading recording file!");
  log_message(session, "");
  if (habits_of(session.recording).reads_mask_file) read_mask_file(session);
  refresh_displays(session);
  set_progress(session, meter::reading, bar_range, bar_range);
  // From here on a timed save may take the session.
  session.operation.reader_running = false;
}

void abort_open(session_state& session, const recording_request& request) {
  session.operation.reader_running = false;
  session.operation.open_succeeded = false;
  reset_session(session);
  reset_voltage_view(session);
  // reset_session keeps the samples' storage for the recording that follows; here none does.
  session.recording.vd.release();
  set_frame_title(session, "Kestrelvane");
  refresh_displays(session);
  log_message(session, "Aborting read of " + request.path);
  log_message(session, "");
}

}  // namespace

std::optional<recording_request> prepare_open_recording(const session_state& session,
                                                        recording_request request) {
  if (session.recording.n_samples > 0 && !ask(session, overwrite_question, overwrite_title)) {
    return std::nullopt;
  }
  return prepare_chosen_recording(session, std::move(request));
}

std::optional<recording_request> prepare_chosen_recording(const session_state& session,
                                                          recording_request request) {
  request.path = recording_of_folder(session, request.path);
  if (request.format == file_type_unknown) request.format = classify_extension(request.path);
  if (request.format == file_type_unknown) {
    report_unknown_type(session);
    return std::nullopt;
  }
  if (!check_readable(session, request)) return std::nullopt;
  remember_recent(session, request.path);
  return request;
}

std::optional<recording_request> prepare_open_recent(const session_state& session,
                                                     std::size_t entry) {
  const recent_files recent = read_recent_files(session);
  if (entry >= recent.paths.size()) return std::nullopt;
  const recording_request request{recent.paths[entry],
                                  classify_extension(recent.paths[entry], true)};
  if (!check_readable(session, request)) return std::nullopt;
  if (request.format == file_type_unknown) {
    report_unknown_type(session);
    return std::nullopt;
  }
  remember_recent(session, request.path);
  return request;
}

bool open_recording_worker(session_state& session, const recording_request& request) {
  session.multi_threaded_now = session.preferences.multi_threaded;
  session.preferences.open_dialog_format = request.format;
  session.operation.reader_running = true;
  session.operation.open_succeeded = false;
  begin_stage(session, "reading");
  set_status(session, status_field::file_name, request.path);
  if (count_log_lines(session) > 0) log_message(session, "");
  set_progress(session, meter::reading, 0, bar_range);
  if (!read_format(session, request)) {
    abort_open(session, request);
    return false;
  }
  meet_demands(session);
  settle_geometry(session);
  make_file_templates(session);
  name_recording(session, request);
  measure_recording(session);
  // The measuring may have taken long enough for a change of mind.
  if (stopped_by_user(session)) {
    abort_open(session, request);
    return false;
  }
  check_spike_window(session);
  show_from_start(session);
  finish_open(session);
  return true;
}

bool open_recording(session_state& session, const std::string& path) {
  set_interrupts(session.operation, false);
  const std::optional<recording_request> request = prepare_open_recording(session, {path});
  return request && open_recording_worker(session, *request);
}

}  // namespace kestrelvane
