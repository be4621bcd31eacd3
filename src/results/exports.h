// Sorted spikes for other tools.
//
// One row per format, in the order of the dialog's list. Every file is written
// beside its target and renamed over it. A format's writer says for itself how it
// went; what it cannot do for the recording in memory it refuses before the user
// is asked for a name.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "session/session_state.h"

namespace kestrelvane {

// What the recording in memory must be.
struct export_condition {
  std::int32_t format = file_type_unknown;  // file_type_code that was read; 0: any
  bool continuous = false;
  const char* refusal = "";  // said when it is not so
};

struct export_format {
  const char* name;       // of the batch command
  const char* label;      // in the "Data format" list
  const char* extension;  // with its dot
  const char* filter;     // of the file dialog
  export_condition needed;
  // Writes, and tells the user how it went; null: no writer yet.
  bool (*write)(const session_state& session, const std::string& path);
  // The path that the recording remembers for this kind of file; null: for none.
  std::string recording_store::*last_path = nullptr;
  // Times in it are time indices of the program, also where these are no times
  // (spike_times.h); the file that the recording came from is written again at its own times.
  bool in_time_indices = false;
  // Recordings of this type may be written over: the file keeps all that it holds besides.
  std::int32_t rewrites = file_type_unknown;
  // Not in the list: it has an entry of its own in the full menu. False, after saying why, when
  // there is nothing to write; asked before the user is for a name.
  bool (*in_full_menu)(const session_state& session) = nullptr;
};

// True when the recording in memory is of the type that the format writes anew.
bool may_rewrite_recording(const session_state& session, const export_format& format);

std::span<const export_format> export_formats();
// Null for an unknown name.
const export_format* find_export_format(std::string_view name);

// True when the format has a writer and accepts the recording; says so otherwise.
bool export_is_possible(const session_state& session, const export_format& format);

struct export_options {
  logical remove_duplicates = false;  // from within clusters, before writing
  logical save_work_file = false;     // beside the export, ".wrk"
  logical save_comments = false;      // beside the export, ".txt"
};

// "Save As": duplicates out, the export, the work file, the comments. progress is
// called on meter::saving, 0 to 100. A work file or comments file that is there already is
// replaced only when the user says so. False when any of the files failed; the later ones are
// tried all the same.
bool export_sorted_spikes(session_state& session, const export_format& format,
                          const std::string& path, const export_options& options);
// The same with the file dialog and the options kept in the settings.
bool export_sorted_spikes_dialog(session_state& session, const export_format& format,
                                 logical save_comments);

// An entry of the full menu: asks for the file, or the folder, and writes it.
bool export_from_full_menu(const session_state& session, const export_format& format);

// What opening the dialog says first: detection may have been incomplete.
void warn_of_incomplete_detection(const session_state& session);

// Path of the file that the recording came from, by its type.
std::string source_file_path(const session_state& session);

// The file of a unit in the unit numbered form: "_" and its number before ".txt".
std::string unit_text_path(const std::string& path, std::int32_t cluster);

// Time of an event in seconds, as the two text formats give it.
double event_seconds(const session_state& session, std::int32_t event);

// The writers. The csv has a heading line where review.export_csv_heading is on.
bool write_csv(const session_state& session, const std::string& path);
bool write_unit_texts(const session_state& session, const std::string& path);
bool write_comments_file(const session_state& session, const std::string& path);

}  // namespace kestrelvane
