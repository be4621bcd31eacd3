// The work file (".wrk"): a snapshot of a session's results without the samples.
//
// It holds settings, events, clusters, templates, pair lists, run log and
// comments, names the recording it was made from, and can only be read over that
// recording. Version 8 is written; versions 4 to 8 are read; older ones are
// reported as unreadable. The layout is one table of rows (work_file_rows.h).
//
// Writing goes beside the target and is renamed over it (files/safe_file.h).
// A read that fails leaves the settings that were read so far, and no events and
// no clusters: half a sort is none. Called from the thread of the running
// operation; nothing else may change the session meanwhile.
#pragma once

#include <memory>
#include <string>

#include "session/session_state.h"

namespace kestrelvane {

// Writes version 8; work_save_busy is set meanwhile. temporary: the name until the file is
// whole, as in open_safe_file. False on any failure.
bool write_work_file(const session_state& session, const std::string& path,
                     const std::string& temporary = "");

// The bytes of such a file in memory, for a caller who may never need the file, with a note that
// a read finds in autosort.stage_note. Of a large sort they are some tens of megabytes: a table
// takes no more of them than are written.
struct work_image {
  std::unique_ptr<table<char>> bytes;
  std::size_t size = 0;
};
// False when there is no room for them.
bool write_work_image(const session_state& session, const std::string& note, work_image& image);

// Reads a work file of any readable version over the recording in memory. False
// on failure, after a log line that says why. wrong_file is true when the file
// belongs to another recording and the user declined; nothing has changed then.
//
// What later stages could not bear is put right or refused: counts are checked
// against the limits and the length of the file before anything is stored, events
// outside the samples are removed, and settings outside their range keep the value
// they had.
bool read_work_file(session_state& session, const std::string& path, bool& wrong_file);

// What a work file holds, without a session to read it into.
struct work_file_facts {
  std::string recording_path;
  std::int32_t n_events = 0, n_clusters = 0;
};
// False for what is no whole work file of a readable version.
bool read_work_file_facts(const std::string& path, work_file_facts& facts);

enum class work_file_outcome {
  retrieved,
  retrieved_with_filtering,  // and the samples have been through its filter chain again
  filtering_incomplete,      // retrieved, but that chain was stopped or could not be repeated
  wrong_file,                // another recording's, declined
  failed,
  cancelled,  // no file was chosen
};

// Reads a work file and tells the user how it went. When the saved samples had
// been filtered, asks whether to repeat that, and does so over the samples in memory,
// which may take minutes; No empties the filter history, since those have been through
// no filter.
work_file_outcome open_work_file_at(session_state& session, const std::string& path);
// The menu entry: tests for a recording, lets the user choose, and goes on as above. A review
// that went on after the file was saved (results/curation_file.h) is offered, too.
work_file_outcome open_work_file_dialog(session_state& session);

// Writes a work file and tells the user how it went.
bool save_work_file_at(session_state& session, const std::string& path);
// The menu entry: lets the user choose, the recording's name with ".wrk" offered.
// False when it failed or the user cancelled.
bool save_work_file_dialog(session_state& session);

}  // namespace kestrelvane
