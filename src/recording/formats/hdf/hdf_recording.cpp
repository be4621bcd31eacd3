#include "recording/formats/hdf/hdf_recording.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <string_view>

#include "recording/formats/hdf/hdf_samples.h"
#include "recording/formats/hdf/hdf_walk.h"
#include "recording/header_checks.h"
#include "recording/site_layouts.h"
#include "recording/storage.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr const char* title = "Open a recording file";

// A read in progress.
struct hdf_read {
  session_state& session;
  hdf_file file;
  hdf_selection selection;
  hdf_id dataset;
  hdf_layout layout;
  hdf_conversion plan;
};

hdf_error fail(hdf_read& read, hdf_error error) {
  const std::string& problem = read.file.problem;
  if (!problem.empty()) log_message(read.session, "HDF5: " + problem);
  if (!read.file.refused.empty()) {
    log_message(read.session,
                read.file.refused + " is outside the folder of the recording; not opened");
  }
  return error;
}

// Opens the file and lets the user choose. none and no place: the user gave up.
hdf_error choose(hdf_read& read, const std::string& path) {
  const hdf_error error =
      open_hdf_file(read.file, path, &read.session.operation.reading_interrupted);
  if (error != hdf_error::none) return fail(read, error);
  // An interrupted look leaves no file open, and no error either.
  if (!read.file.file.ok()) return hdf_error::none;  // interrupted
  switch (choose_hdf_dataset(read.session, read.file, read.selection)) {
    case hdf_walk_end::chosen:
      break;
    case hdf_walk_end::cancelled:
      log_message(read.session, "User cancelled operation");
      return hdf_error::none;
    case hdf_walk_end::failed:
      log_message(read.session, "Unexpected error opening hdf folder");
      return fail(read, hdf_error::root);
  }
  recording_store& r = read.session.recording;
  // Only now, when there is something to read, does the earlier recording go.
  if (r.vd.max_time() == 0) return hdf_error::none;
  r.vd.release();
  log_message(read.session, "The previous file has been closed and all recording data deleted");
  return hdf_error::none;
}

// Rate and scale as they were accepted; false after the words when no recording has them.
bool take_rate_and_scale(hdf_read& read) {
  recording_store& r = read.session.recording;
  if (!check_voltage_scale(read.session, read.selection.scale)) return false;
  r.sampling_frequency = static_cast<std::int32_t>(std::lround(read.selection.rate));
  r.vscale_HP = static_cast<float>(read.selection.scale);
  // Told only where something is lost.
  if (r.sampling_frequency != read.selection.rate) {
    log_message(read.session, fmt::format("Sampling frequency {} Hz is rounded to {} Hz",
                                          read.selection.rate, r.sampling_frequency));
  }
  return true;
}

// Opens the dataset and makes room for its samples.
hdf_error prepare(hdf_read& read) {
  session_state& session = read.session;
  recording_store& r = session.recording;
  read.dataset = open_hdf_dataset(read.file, read.selection.folder);
  if (!read.dataset.ok() || !describe_hdf_layout(read.dataset, read.layout)) {
    return fail(read, hdf_error::dataset);
  }
  log_message(session, read.layout.words);
  std::string words;
  // What the file claims is tested before room is made for it.
  if (!hdf_file_holds_samples(read.file, read.dataset, read.layout, words)) {
    log_message(session, words);
    return fail(read, hdf_error::dataset);
  }
  if (!plan_hdf_conversion(session, read.dataset, read.selection, read.layout, read.plan)) {
    return hdf_error::contents;
  }
  // Both counts were held to their limits when the layout was described.
  r.n_channels = static_cast<std::int32_t>(read.layout.n_channels);
  r.n_samples = static_cast<std::int32_t>(read.layout.n_samples);
  r.is_continuous = true;
  return allocate_recording(session, r.n_samples + usual_spare_samples) ? hdf_error::none
                                                                        : hdf_error::memory;
}

std::string megabytes_per_second(const hdf_read& read, double seconds) {
  const double bytes = 2.0 * static_cast<double>(read.layout.n_channels) *
                       static_cast<double>(read.layout.n_samples);
  return fmt::format("{:.0f} MBytes/s", bytes / std::max(seconds, 1e-9) / 1e6);
}

void report_limited(const session_state& session, std::int64_t n_limited) {
  if (n_limited == 0) return;
  log_message(session,
              fmt::format("Warning: {} samples did not fit 16 bits and were limited", n_limited));
}

// The reader's own words for the end of a read differ in their first letter.
hdf_error report_end(hdf_read& read, const hdf_read_result& result, std::string_view good) {
  read.file.problem = result.problem;
  if (result.finished) {
    log_message(read.session, good);
    return hdf_error::none;
  }
  // The user who stopped it needs no words.
  if (read.session.operation.reading_interrupted) return hdf_error::none;
  log_message(read.session, "Warning: read finished with errors");
  return fail(read, hdf_error::contents);
}

// Channels that stand one after the other in the file.
hdf_error read_channels(hdf_read& read, std::string_view good) {
  session_state& session = read.session;
  set_progress(session, meter::reading, 40, 115);
  const auto start = std::chrono::steady_clock::now();
  const hdf_read_result result =
      read_hdf_samples(session, read.dataset, read.layout, read.plan, 40);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  const hdf_error error = report_end(read, result, good);
  if (!result.finished) return error;
  log_message(session, "reading rate =" + megabytes_per_second(read, elapsed.count()));
  log_message(session, "Finished reading hdf file");
  report_limited(session, result.n_limited);
  return hdf_error::none;
}

// Time points that stand one after the other.
hdf_error read_time_points(hdf_read& read) {
  session_state& session = read.session;
  set_progress(session, meter::reading, 33, 115);
  const hdf_read_result result =
      read_hdf_samples(session, read.dataset, read.layout, read.plan, 33);
  if (result.finished) {
    log_message(session, "initial read, rate =" + megabytes_per_second(read, result.read_seconds));
  }
  const hdf_error error = report_end(read, result, "read finished without errors");
  if (!result.finished) return error;
  log_message(session, "redimensioning data");
  log_message(session, "redimensioning rate =" + megabytes_per_second(read, result.spread_seconds));
  log_message(session, "finished redimensioning");
  report_limited(session, result.n_limited);
  return hdf_error::none;
}

hdf_error read_samples(hdf_read& read, std::string_view good) {
  log_message(read.session, "Reading, please wait ...");
  const hdf_error error =
      read.layout.channels_first ? read_channels(read, good) : read_time_points(read);
  if (error != hdf_error::none) return error;
  // Containers have no positions that this reader knows.
  if (read.session.recording.no_config_file) place_channels_in_line(read.session);
  set_progress(read.session, meter::reading, 100, 115);
  return hdf_error::none;
}

// --- the date of a Multi Channel Systems file

struct month_name {
  std::string_view start;  // as many letters as tell it apart, lower case
  std::int32_t month;
};
// English and German; the recorder writes the date in the language of its system.
constexpr month_name month_names[] = {
    {"jan", 1},  {"jän", 1},  {"feb", 2},  {"mar", 3},  {"mär", 3}, {"apr", 4},
    {"may", 5},  {"mai", 5},  {"jun", 6},  {"jul", 7},  {"aug", 8}, {"sep", 9},
    {"oct", 10}, {"okt", 10}, {"nov", 11}, {"dec", 12}, {"dez", 12}};

std::int32_t month_of(std::string word) {
  for (char& letter : word) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  for (const month_name& name : month_names) {
    if (word.starts_with(name.start)) return name.month;
  }
  return 0;
}

// A long date with the month in letters; what is missing stays 0.
std::array<std::int32_t, 3> parse_long_date(const std::string& text) {
  std::array<std::int32_t, 3> date{};
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find_first_of(" .,/-", at), text.size());
    const std::string word = text.substr(at, end - at);
    at = end + 1;
    if (word.empty()) continue;
    // Words are months; the first that is one counts, days of the week are none.
    if (word.find_first_not_of("0123456789") != std::string::npos) {
      if (date[1] == 0) date[1] = month_of(word);
    } else if (word.size() == 4) {
      date[0] = std::stoi(word);
    } else if (word.size() <= 2 && date[2] == 0) {
      date[2] = std::stoi(word);
    }
  }
  return date;
}

void take_date(recording_store& r, const std::string& text) {
  const std::array<std::int32_t, 3> date = parse_long_date(text);
  // A date that lacks a part is none.
  if (date[0] == 0 || date[1] == 0 || date[2] < 1 || date[2] > 31) return;
  std::copy(date.begin(), date.end(), r.record_date);
}

void tell_of_array(hdf_read& read) {
  struct fact {
    const char *attribute, *words;
  };
  static constexpr fact facts[] = {{"Date", "Recording date = "},
                                   {"MeaName", "MEA name = "},
                                   {"MeaLayout", "MEA layout = "},
                                   {"MeaSN", "MEA serial number = "}};
  for (const fact& f : facts) {
    const std::string value = read_hdf_text(read.file, "/Data", f.attribute);
    log_message(read.session, f.words + value);
    // By its address: the first fact is the date.
    if (f.attribute == facts[0].attribute) take_date(read.session.recording, value);
  }
}

// Tells a failure; true when there is none and samples are in vd.
bool conclude(hdf_read& read, hdf_error error, bool chosen) {
  session_state& session = read.session;
  if (error == hdf_error::none) return chosen && !session.operation.reading_interrupted;
  const std::string words =
      fmt::format("Error #{} reading hdf file", static_cast<std::int32_t>(error));
  log_message(session, words);
  tell(session, words, title);
  return false;
}

}  // namespace

bool read_hdf_recording(session_state& session, const recording_request& request) {
  hdf_read read{session, {}, {}, {}, {}, {}};
  hdf_error error = choose(read, request.path);
  const bool chosen = !read.selection.folder.empty();
  if (error != hdf_error::none || !chosen) return conclude(read, error, chosen);
  tell_of_array(read);
  if (!take_rate_and_scale(read)) return false;
  const recording_store& r = session.recording;
  log_message(session, fmt::format("Sampling frequency in HDF file={}", r.sampling_frequency));
  log_message(session, fmt::format("Voltage scaling factor={}", r.vscale_HP));
  error = prepare(read);
  if (error == hdf_error::none) error = read_samples(read, "read finished without errors");
  return conclude(read, error, chosen);
}

bool read_hdf_folder(session_state& session, const recording_request& request) {
  hdf_read read{session, {}, {}, {}, {}, {}};
  hdf_error error = choose(read, request.path);
  const bool chosen = !read.selection.folder.empty();
  if (error != hdf_error::none || !chosen) return conclude(read, error, chosen);
  log_message(session, "Reading voltage data from folder " + read.selection.folder);
  if (!take_rate_and_scale(read)) return false;
  error = prepare(read);
  if (error == hdf_error::none) {
    log_message(session,
                fmt::format("There are {} channels in the folder", read.layout.n_channels));
    error = read_samples(read, "Read finished without errors");
  }
  return conclude(read, error, chosen);
}

}  // namespace kestrelvane
