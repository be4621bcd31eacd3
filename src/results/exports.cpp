#include "results/exports.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <system_error>
#include <vector>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "files/safe_set.h"
#include "recording/acquisition_facts.h"
#include "recording/formats/blackrock/nev.h"
#include "recording/formats/neuralynx/neuralynx.h"
#include "recording/formats/neuroscope.h"
#include "recording/formats/plexon/plx.h"
#include "recording/formats/tsf.h"
#include "recording/recording_formats.h"
#include "results/event_matrices.h"
#include "results/nwb_units.h"
#include "results/phy_folder.h"
#include "results/ptcs.h"
#include "results/quality_csv.h"
#include "results/spike_times.h"
#include "results/work_file.h"
#include "session/run_log.h"
#include "session/version.h"
#include "sorting/duplicates.h"

namespace kestrelvane {

namespace {

constexpr const char* failure_title = "Can't save data";

// clang-format off
constexpr export_format formats[] = {
  {"csv", ".csv file (.csv)", ".csv", "Comma separated text file (*.CSV)", {}, write_csv},
  {"txt", "unit numbered *_#.txt files", ".txt", "One file per unit (*.TXT)", {},
   write_unit_texts},
  {"plx", "Plexon (.plx)", ".plx", "Plexon files(*.PLX)", {}, save_plx,
   &recording_store::plx_path, true, file_type_plx},
  {"ntt", "Neuralynx (.ntt)", ".ntt", "Neuralynx (*.NTT)",
   {.format = file_type_ntt, .refusal = "No Neuralynx data in memory"}, write_ntt,
   nullptr, false, file_type_ntt},
  {"evt", "Neuroscope (.evt)", ".evt", "(Neuroscope text file (*.EVT)", {}, export_evt,
   nullptr, true},
  {"nev", "Blackrock (.nev)", ".nev", "Blackrock (Utah array) (*.NEV)",
   {.format = file_type_nev, .refusal = "No Blackrock .nev data in memory"},
   write_nev_with_units, nullptr, false, file_type_nev},
  {"ptcs", "Tarvik (.ptcs)", ".ptcs", "Multi-spike time files(*.PTCS)", {},
   export_ptcs, nullptr, true},
  {"tsf", ".tsf file (.tsf)", ".tsf", "TSF format (*.TSF)",
   {.continuous = true, .refusal = "TSF export not supported for  event based recording"},
   write_tsf},
  {"phy", "Phy folder", "_phy", "Phy folder(*)", {}, export_phy},
  {"nwb", "NWB units (.nwb)", ".nwb", "Neurodata Without Borders (*.NWB)", {},
   write_nwb_units},
  {"quality", "Quality of units (.csv)", "_quality.csv",
   "Comma separated text file (*.CSV)", {}, write_quality_csv},
  {"noise", "Event noise", "_noise", "Folder of .npy files(*)", {}, write_event_noise,
   nullptr, false, file_type_unknown, has_matrices},
  {"features", "Feature matrices", "_features", "Folder of .npy files(*)", {},
   write_feature_matrices, nullptr, false, file_type_unknown, has_matrices},
  {"lfp", "LFP values (.tsf)", "_lfp.tsf", "TSF format (*.TSF)", {}, write_lfp_tsf,
   nullptr, false, file_type_unknown, has_lfp},
};
// clang-format on

// --- text

// A number in its columns, or stars when it is too wide for them.
void append_columns(std::string& line, const std::string& number, std::size_t columns) {
  if (number.size() > columns) {
    line.append(columns, '*');
  } else {
    line.append(columns - number.size(), ' ').append(number);
  }
}

constexpr std::size_t time_columns = 12;

void append_seconds(std::string& line, double seconds) {
  append_columns(line, fmt::format("{:.5f}", seconds), time_columns);
}

// Events of every cluster in event order: those of cluster c stand at
// first[c] .. first[c + 1] - 1 of events.
struct events_by_cluster {
  std::vector<std::size_t> first;
  std::vector<std::int32_t> events;
};

events_by_cluster list_by_cluster(const session_state& session) {
  const event_table& e = session.events;
  const std::size_t n_clusters = static_cast<std::size_t>(session.clusters.n_clusters);
  events_by_cluster lists;
  lists.first.assign(n_clusters + 2, 0);
  // Sizes go one place up, so that their running sum gives where each cluster begins.
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] > 0) ++lists.first[static_cast<std::size_t>(e.event_cluster[i]) + 1];
  }
  std::partial_sum(lists.first.begin(), lists.first.end(), lists.first.begin());
  lists.events.resize(lists.first.back());
  std::vector<std::size_t> next = lists.first;
  for (std::int32_t i = 1; i <= e.n_events; ++i) {
    if (e.event_cluster[i] <= 0) continue;
    lists.events[next[e.event_cluster[i]]++] = i;
  }
  return lists;
}

// Without its name yet.
bool write_unit_text(const session_state& session, safe_file& out, const std::string& path,
                     std::span<const std::int32_t> events) {
  if (!open_safe_file(out, path)) return false;
  std::string line;
  for (const std::int32_t e : events) {
    line.clear();
    append_seconds(line, event_seconds(session, e));
    line += '\n';
    write_text(out, line);
  }
  return leave_in_set(out);
}

// Whether a file holds nothing but times as they are written above.
bool is_unit_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    const bool is_time = line.size() == time_columns &&
                         line.find_first_not_of(" 0123456789.-*") == std::string::npos;
    if (!is_time || in.eof()) return false;
  }
  return in.eof();
}

// The files of an earlier export of more units, which a reader of the folder would take for units
// of this one. They go on from number to number; what somebody else has put there ends them.
std::vector<std::string> older_unit_texts(const std::string& path, std::int32_t n_clusters) {
  std::vector<std::string> older;
  if (n_clusters == 0) return older;
  for (std::int32_t c = n_clusters + 1; c <= cluster_limit; ++c) {
    const std::string file = unit_text_path(path, c);
    std::error_code failed;
    const auto status = std::filesystem::symlink_status(file, failed);
    if (!std::filesystem::is_regular_file(status) || !is_unit_text(file)) break;
    older.push_back(file);
  }
  return older;
}

// --- the steps of "Save As"

void take_out_duplicates(session_state& session) {
  const std::int32_t removed = remove_duplicate_events(session, true);
  if (removed == 0) return;
  say(session, fmt::format("{} duplicate events removed from clusters", removed));
}

// Where records stand end to end, a time index tells which record a spike lies in and not
// when it was. The format wants indices, and so the user is told.
void warn_of_program_axis(const session_state& session, const export_format& format) {
  if (!format.in_time_indices || has_unbroken_time(session)) return;
  if (format.write == save_plx && session.recording.file_type == file_type_plx) return;
  const std::string text = fmt::format(
      "The times in this {} file are not those of the recording: its stored records stand end to "
      "end, and the format takes their places. The csv, txt, phy and nwb exports have its times.",
      format.extension);
  log_message(session, text);
  tell(session, text, "Export data", box_icon::warning);
}

bool save_beside(const session_state& session, const std::string& path, const std::string& what,
                 bool (*write)(const session_state&, const std::string&)) {
  // Its name follows from that of the export: nobody has chosen it, and it may hold another
  // sort of the same recording.
  if (file_exists(path) && !ask(session, path + "\nReplace it?", "File already exists")) {
    log_message(session, fmt::format("The {} {} was left as it is", what, path));
    return true;
  }
  const bool written = write(session, path);
  if (written) {
    tell(session, fmt::format("Saved {} {}", what, path), "Export data", box_icon::information);
  } else {
    tell(session, "Failed to save file " + why_not_saved(path), "Export data");
  }
  return written;
}

}  // namespace

std::span<const export_format> export_formats() { return formats; }

const export_format* find_export_format(std::string_view name) {
  for (const export_format& format : formats) {
    if (name == format.name) return &format;
  }
  return nullptr;
}

bool may_rewrite_recording(const session_state& session, const export_format& format) {
  return format.rewrites != file_type_unknown && format.rewrites == session.recording.file_type;
}

bool export_is_possible(const session_state& session, const export_format& format) {
  const recording_store& r = session.recording;
  const export_condition& needed = format.needed;
  if ((needed.format != file_type_unknown && needed.format != r.file_type) ||
      (needed.continuous && !r.is_continuous)) {
    tell(session, needed.refusal, failure_title);
    return false;
  }
  return true;
}

bool export_sorted_spikes(session_state& session, const export_format& format,
                          const std::string& path, const export_options& options) {
  if (!export_is_possible(session, format)) return false;
  set_progress(session, meter::saving, 0, 100);
  warn_of_program_axis(session, format);
  if (options.remove_duplicates) take_out_duplicates(session);
  set_progress(session, meter::saving, 20, 100);
  bool done = format.write(session, path);
  // Remembered only when the file is there: a later save offers it as the target.
  if (done && format.last_path != nullptr) session.recording.*format.last_path = path;
  if (done) set_status(session, status_field::file_name, path);
  set_progress(session, meter::saving, 80, 100);
  if (options.save_work_file) {
    const auto write = [](const session_state& of, const std::string& to) {
      return write_work_file(of, to);
    };
    done &= save_beside(session, replace_extension(path, ".wrk"), "work file", write);
  }
  if (options.save_comments) {
    done &=
        save_beside(session, replace_extension(path, ".txt"), "comments file", write_comments_file);
  }
  set_progress(session, meter::saving, 100, 100);
  return done;
}

bool export_sorted_spikes_dialog(session_state& session, const export_format& format,
                                 logical save_comments) {
  if (!export_is_possible(session, format)) return false;
  std::string path = replace_extension(session.recording.recording_path, format.extension);
  const char* title = format.write == write_ntt ? "Export sorted data" : "Export data";
  if (!choose_file_to_save(session, title, format.filter, path,
                           may_rewrite_recording(session, format))) {
    return false;
  }
  const export_options options{session.review.export_remove_duplicates,
                               session.review.export_save_work_file, save_comments};
  return export_sorted_spikes(session, format, path, options);
}

bool export_from_full_menu(const session_state& session, const export_format& format) {
  if (!export_is_possible(session, format) || !format.in_full_menu(session)) return false;
  std::string path = replace_extension(session.recording.recording_path, format.extension);
  if (!choose_file_to_save(session, format.label, format.filter, path)) return false;
  return format.write(session, path);
}

void warn_of_incomplete_detection(const session_state& session) {
  if (!session.detector.detection_incomplete) return;
  tell(session,
       "Event detection was probably incomplete due to memory limitations or was interrupted "
       "manually before completion.",
       "Export data", box_icon::warning);
}

std::string source_file_path(const session_state& session) {
  const recording_store& r = session.recording;
  const recording_format* format = find_recording_format(r.file_type);
  if (format == nullptr || format->source_path == nullptr) return r.recording_path;
  const std::string& path = r.*format->source_path;
  return path.empty() ? r.recording_path : path;
}

std::string unit_text_path(const std::string& path, std::int32_t cluster) {
  std::string stem = path;
  // Other spellings of the ending stay, and the new one follows them.
  if (stem.ends_with(".txt") || stem.ends_with(".TXT")) stem.resize(stem.size() - 4);
  return fmt::format("{}_{}.txt", stem, cluster);
}

double event_seconds(const session_state& session, std::int32_t event) {
  const recording_store& r = session.recording;
  const std::int32_t t = session.events.event_time[event];
  if (has_unbroken_time(session)) {
    // The step of a whole rate is held in single precision, as these formats have always had it.
    const double step = r.sampling_frequency_exact > 0
                            ? 1.0 / exact_rate(r)
                            : double{1.0f / static_cast<float>(r.sampling_frequency)};
    // Time indices count from 1, so the first sample stands at one step and not at 0.
    return t * step;
  }
  const std::int64_t ms = event_record_time_ms(session, t, session.events.event_channel[event]);
  // The start is held in single precision, as the format has always had it.
  return static_cast<double>(ms) / 1000.0 + double{static_cast<float>(r.first_timestamp) / 1.0e6f};
}

bool write_csv(const session_state& session, const std::string& path) {
  const event_table& e = session.events;
  safe_file out;
  std::string line;
  if (open_safe_file(out, path)) {
    // Only of a sort that has been labelled: others keep the three columns that scripts know.
    const bool labelled = has_unit_labels(session.clusters);
    if (session.review.export_csv_heading) {
      write_text(out, labelled ? "seconds,cluster,channel,label\n" : "seconds,cluster,channel\n");
    }
    for (std::int32_t i = 1; i <= e.n_events; ++i) {
      if (e.event_cluster[i] <= 0) continue;
      line.clear();
      append_seconds(line, event_seconds(session, i));
      line += ',';
      append_columns(line, fmt::format("{}", e.event_cluster[i]), 4);
      line += ',';
      append_columns(line, fmt::format("{}", e.event_channel[i]), 4);
      if (labelled) {
        line += ',';
        line += name_of(session.clusters.cluster_label[e.event_cluster[i]]).name;
      }
      line += '\n';
      write_text(out, line);
    }
  }
  const bool written = finish_safe_file(out);
  if (written) {
    tell(session, "CSV data saved", "Export data", box_icon::information);
  } else {
    tell(session, "Error exporting CSV format data " + why_not_saved(path), "Export data");
  }
  return written;
}

bool write_unit_texts(const session_state& session, const std::string& path) {
  const events_by_cluster lists = list_by_cluster(session);
  const std::int32_t n_clusters = session.clusters.n_clusters;
  const auto tell_failure = [&](const std::string& file) {
    tell(session, "Error saving file " + why_not_saved(file), "Save TXT data");
    return false;
  };
  safe_set set(static_cast<std::size_t>(n_clusters));
  // Units without events get their file, too: one for every number.
  for (std::int32_t c = 1; c <= n_clusters; ++c) {
    const std::size_t i = static_cast<std::size_t>(c);
    const std::span<const std::int32_t> events{lists.events.data() + lists.first[i],
                                               lists.first[i + 1] - lists.first[i]};
    const std::string file = unit_text_path(path, c);
    if (!write_unit_text(session, set.files[i - 1], file, events)) return tell_failure(file);
  }
  set.goes = older_unit_texts(path, n_clusters);
  if (!finish_safe_set(set)) return tell_failure(set.failed);
  for (const std::string& old : set.goes) {
    log_message(session, "Removed " + old + ", of an earlier export of more units");
  }
  return true;
}

bool write_comments_file(const session_state& session, const std::string& path) {
  safe_file out;
  if (open_safe_file(out, path)) {
    write_text(out, "Comments on units sorted from data file: " + source_file_path(session) + "\n");
    write_text(out, fmt::format("Exported by Kestrelvane {} \n", program_version));
    for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
      const std::string_view comment = session.clusters.cluster_comment[c].view();
      if (!comment.empty()) write_text(out, fmt::format("Unit {}\n{}\n", c, comment));
    }
  }
  return finish_safe_file(out);
}

}  // namespace kestrelvane
