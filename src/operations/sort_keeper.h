// An unfinished sort on disk: what its last finished stage has left, for a run that goes on there.
//
// A sort that is to survive its process has a keeper. After detection, the first pass and merging
// the session is kept as a work file, at once on disk or in memory until somebody wants it. A run
// that goes on with it opens the recording and filters and cleans it as the first one did, since
// samples are in no work file; then events and clusters come from the file in the place of the
// stages that made them. What comes out is to the last bit that of a run in one go, at any number
// of threads: what a work file leaves out and a later stage or an export could tell is in its note.
//
// A file is taken up by the same sort alone: the same version of the program, settings that
// a result depends on, filters, masks and samples. The latter are told by a number.
#pragma once

#include <cstdint>
#include <string>

#include "results/work_file.h"
#include "session/session_state.h"

namespace kestrelvane {

// What has been finished, in order. Lists are made anew, which takes no time to speak of.
enum class kept_stage : std::int32_t { none, detection, first_pass, merging };

const char* name_of(kept_stage stage);  // as in "after the first pass"

struct sort_keeper {
  // --- set before the run
  std::string path;      // of the file
  bool at_once = false;  // write it after each stage
  bool resume = false;   // go on with what the file holds
  // --- what has happened
  kept_stage kept = kept_stage::none;  // what it would go on after
  bool on_disk = false;                // the file has that
  bool has_file = false;               // or what an earlier stage left
  work_image image;                    // or its bytes are here
  std::string sort;                    // number of this sort, as text
};

// For Autosort, with the samples as they will be sorted. Without a keeper, or a file to go on with:
// done stays at none. False, after words that say why, when the file is not of this sort or cannot
// be read; it stays as it is.
bool take_up_sort(session_state& session, kept_stage& done);

// For Autosort, when a stage has come to its end; what has been interrupted is not kept.
void keep_stage(session_state& session, kept_stage stage);

// The file, where there is a stage to keep. False when it could not be written; errno as in
// files/safe_file.h.
bool write_kept_sort(sort_keeper& keeper);

}  // namespace kestrelvane
