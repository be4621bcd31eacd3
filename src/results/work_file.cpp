#include "results/work_file.h"
#include "files/safe_file.h"

#include "files/input_file.h"
#include "results/curation_file.h"
#include "signal/filter_chain.h"

namespace kestrelvane {

namespace {

constexpr const char* box_title = "Kestrelvane work file";
constexpr const char* file_filter = "Work files(*.WRK)";

// Whether to repeat the filtering that the saved samples had been through. No
// empties the history, which otherwise would claim filters for plain samples.
bool wants_filtering(session_state& session) {
  if (!session.recording.recording_filtered && session.filter_history.n_entries == 0) return false;
  if (ask(session, "Repeat previous filtering?", "Kestrelvane")) return true;
  session.filter_history.n_entries = 0;
  session.recording.recording_filtered = false;
  return false;
}

}  // namespace

work_file_outcome open_work_file_at(session_state& session, const std::string& path) {
  bool wrong_file = false;
  const bool read = read_work_file(session, path, wrong_file);
  if (wrong_file) {
    tell(session, "Work file does not belong to current data file", box_title);
    return work_file_outcome::wrong_file;
  }
  if (!read) {
    tell(session, "Failed to read file " + path, box_title);
    return work_file_outcome::failed;
  }
  tell(session, "Retrieved file " + path, box_title, box_icon::information);
  // Before the question, so that the user sees what is asked about.
  refresh_displays(session);
  if (!wants_filtering(session)) return work_file_outcome::retrieved;
  return repeat_filtering(session) ? work_file_outcome::retrieved_with_filtering
                                   : work_file_outcome::filtering_incomplete;
}

work_file_outcome open_work_file_dialog(session_state& session) {
  if (session.recording.n_samples == 0) {
    tell(session, "No recording data in memory", "Error ");
    return work_file_outcome::failed;
  }
  std::string path;
  if (!choose_file_to_open(session, "Open Kestrelvane Work File", file_filter, path)) {
    return work_file_outcome::cancelled;
  }
  const work_file_outcome outcome = open_work_file_at(session, path);
  // After the filters: edits go by the samples.
  if (outcome == work_file_outcome::retrieved ||
      outcome == work_file_outcome::retrieved_with_filtering) {
    offer_history_beside(session, path);
  }
  return outcome;
}

bool save_work_file_at(session_state& session, const std::string& path) {
  const bool written = write_work_file(session, path);
  if (written) {
    save_history_beside(session, path);
    tell(session, "Work saved in file " + path, box_title, box_icon::information);
  } else {
    tell(session, "Failed to save file " + why_not_saved(path), box_title);
  }
  return written;
}

bool save_work_file_dialog(session_state& session) {
  std::string path = replace_extension(session.recording.recording_path, ".wrk");
  return choose_file_to_save(session, "Save work file", file_filter, path) &&
         save_work_file_at(session, path);
}

}  // namespace kestrelvane
