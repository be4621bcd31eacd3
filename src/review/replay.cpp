#include "review/replay.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "clustering/membership.h"
#include "review/cluster_marks.h"
#include "review/manage_clusters.h"
#include "review/pair_split.h"
#include "review/pair_values.h"
#include "review/post_processing.h"
#include "review/reclaim.h"
#include "review/recorded_edit.h"
#include "session/settings_table.h"
#include "session/template_window.h"
#include "sorting/cluster_edits.h"
#include "sorting/realign_steps.h"
#include "sorting/status_lists.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- one edit

bool replay_merge(session_state& session, const edit_record& record) {
  merge_pair(session, {record.clusters[0], record.clusters[1]});
  return true;
}

bool replay_split_pair(session_state& session, const edit_record& record) {
  const cluster_pair pair{record.clusters[0], record.clusters[1]};
  event_places places{record.clusters, {}, {}, 0, {}};
  const event_table& events = session.events;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t c = events.event_cluster[e];
    if (c == pair.a || c == pair.b) places.events.push_back(e);
  }
  if (places.events.size() != record.places.size()) return false;
  for (const char place : record.places) {
    if (place < '0' || place > '4') return false;
    places.place.push_back(place - '0');
    places.n_places = std::max(places.n_places, places.place.back());
  }
  if (places.n_places == 0) return false;
  share_out_events(session, places);
  // With one left there is no pair any more.
  if (places.n_places > 1) set_pair_mark(session, pair, pair_mark::ambiguous, true);
  return true;
}

bool replay_split(session_state& session, const edit_record& record) {
  session.clusters.current_cluster = record.clusters[0];
  unmark_events(session);
  label_events(session, record.events, 1);
  return split_label(session, 1);
}

bool replay_remove(session_state& session, const edit_record& record) {
  return remove_events(session, record.events) > 0;
}

bool replay_remove_and_realign(session_state& session, const edit_record& record) {
  return remove_events(session, record.events, template_renewal::realigned) > 0;
}

bool replay_realign(session_state& session, const edit_record& record) {
  renew_clusters(session, {record.clusters[0]}, template_renewal::realigned);
  return true;
}

bool replay_delete(session_state& session, const edit_record& record) {
  delete_clusters(session, record.clusters);
  return true;
}

bool replay_clear(session_state& session, const edit_record&) {
  clear_clusters(session);
  return true;
}

bool replay_renumber(session_state& session, const edit_record& record) {
  return permute_clusters(session, record.clusters);
}

bool replay_comment(session_state& session, const edit_record& record) {
  session.clusters.current_cluster = record.clusters[0];
  annotate_current_cluster(session, record.text);
  return true;
}

bool replay_label(session_state& session, const edit_record& record) {
  if (record.value < 0 || record.value >= std::ssize(unit_label_names)) return false;
  label_unit(session, record.clusters[0], static_cast<unit_label>(record.value));
  return true;
}

bool replay_labels(session_state& session, const edit_record& record) {
  std::vector<unit_label> labels;
  for (const char digit : record.places) {
    if (digit < '0' || digit - '0' >= std::ssize(unit_label_names)) return false;
    labels.push_back(static_cast<unit_label>(digit - '0'));
  }
  return label_units(session, record.clusters, labels);
}

bool replay_distinct(session_state& session, const edit_record& record) {
  const cluster_pair pair{record.clusters[0], record.clusters[1]};
  set_pair_mark(session, pair, pair_mark::distinct, record.value != 0);
  return true;
}

bool replay_ambiguous(session_state& session, const edit_record& record) {
  const cluster_pair pair{record.clusters[0], record.clusters[1]};
  set_pair_mark(session, pair, pair_mark::ambiguous, record.value != 0);
  return true;
}

reclaim_selectivity selectivity_of(const edit_record& record) {
  return static_cast<reclaim_selectivity>(std::clamp(record.value, 1, 3));
}

bool replay_reclaim(session_state& session, const edit_record& record) {
  session.clusters.current_cluster = record.clusters[0];
  reclaim_counts counts;
  return reclaim_events(session, selectivity_of(record), counts);
}

bool replay_reclaim_all(session_state& session, const edit_record& record) {
  reclaim_lost_events(session, selectivity_of(record));
  return true;
}

bool replay_remove_duplicates(session_state& session, const edit_record&) {
  remove_duplicates_after_sort(session);
  return true;
}

bool replay_remove_cluster_duplicates(session_state& session, const edit_record& record) {
  cluster_management management;
  return remove_cluster_duplicates(session, management, record.clusters[0]) > 0;
}

bool replay_relocate(session_state& session, const edit_record&) {
  return relocate_duplicate_events(session).n_relocated >= 0;
}

// ---------------------------------------------------------------- the table

// How many clusters an edit names; any number for -1.
struct edit_row {
  const char* edit;
  int n_clusters;
  bool (*replay)(session_state& session, const edit_record& record);
  // {0}: clusters, {1}: number of events, {2}: comment, {3}: label of a unit
  const char* text;
  const char* text_when_off = nullptr;  // of marks: value 0
};

constexpr edit_row edit_rows[] = {
    {"merge", 2, replay_merge, "Merge clusters {0}"},
    {"split_pair", 2, replay_split_pair, "Split the pair {0}"},
    {"split", 1, replay_split, "Split {1} events off cluster {0}"},
    {"remove", -1, replay_remove, "Take {1} events out of their clusters"},
    {"remove_and_realign", 1, replay_remove_and_realign, "Take {1} events out of cluster {0}"},
    {"realign", 1, replay_realign, "Realign cluster {0}"},
    {"delete_clusters", -1, replay_delete, "Delete clusters {0}"},
    {"clear_clusters", 0, replay_clear, "Delete all clusters"},
    {"renumber", -1, replay_renumber, "Renumber the clusters"},
    {"comment", 1, replay_comment, "Comment cluster {0}: {2}"},
    {"labels", -1, replay_labels, "Label clusters {0} by their figures"},
    {"label", 1, replay_label, "Label cluster {0} {3}"},
    {"distinct", 2, replay_distinct, "Mark {0} as distinct", "Mark {0} as not distinct"},
    {"ambiguous", 2, replay_ambiguous, "Mark {0} as ambiguous", "Mark {0} as not ambiguous"},
    {"reclaim", 1, replay_reclaim, "Reclaim events for cluster {0}"},
    {"reclaim_all", 0, replay_reclaim_all, "Reclaim lost events for all clusters"},
    {"remove_duplicates", 0, replay_remove_duplicates, "Remove duplicate events"},
    {"remove_cluster_duplicates", 1, replay_remove_cluster_duplicates,
     "Remove duplicate events of cluster {0}"},
    {"relocate_duplicates", 0, replay_relocate, "Relocate duplicate events"},
};

const edit_row* find_row(const std::string& edit) {
  const auto* row = std::find_if(std::begin(edit_rows), std::end(edit_rows),
                                 [&](const edit_row& known) { return known.edit == edit; });
  return row == std::end(edit_rows) ? nullptr : row;
}

// A record may come from a file that anybody has written.
bool fits(const session_state& session, const edit_row& row, const edit_record& record) {
  if (row.n_clusters >= 0 && record.clusters.size() != static_cast<std::size_t>(row.n_clusters)) {
    return false;
  }
  for (const std::int32_t c : record.clusters) {
    if (!is_cluster(session, c)) return false;
  }
  if (row.n_clusters == 2 && record.clusters[0] == record.clusters[1]) return false;
  for (std::size_t i = 0; i < record.events.size(); ++i) {
    if (record.events[i] < 1 || record.events[i] > session.events.n_events) return false;
    if (i > 0 && record.events[i] <= record.events[i - 1]) return false;
  }
  return true;
}

// ---------------------------------------------------------------- the run

using settings_list = std::vector<std::pair<std::string, std::string>>;

void use_settings(session_state& session, const settings_list& settings) {
  // What this version does not know, or no longer takes, cannot have shaped its edits.
  std::string problem;
  for (const auto& [name, value] : settings) set_setting(session, name, value, problem);
}

// While a replay runs: nobody is asked or told, nothing is recorded, and the settings of the
// caller come back.
class replay_run {
 public:
  explicit replay_run(session_state& session)
      : session_(session),
        settings_(settings_of_edits(session)),
        ui_(session.ui),
        replaying_(session.history.replaying) {
    session.ui.tell = nullptr;
    // "Clear all" asks; the answer was yes.
    session.ui.ask = [](void*, const std::string&, const std::string&) { return true; };
    session.history.replaying = true;
  }
  ~replay_run() {
    session_.ui = ui_;
    session_.history.replaying = replaying_;
    use_settings(session_, settings_);
  }
  replay_run(const replay_run&) = delete;
  replay_run& operator=(const replay_run&) = delete;

 private:
  session_state& session_;
  settings_list settings_;
  user_interface ui_;
  bool replaying_;
};

// Empty, or why not.
std::string replay_record(session_state& session, const edit_record& record) {
  const edit_row* row = find_row(record.edit);
  if (row == nullptr) return "is an edit that this version does not know";
  if (templates_are_outdated(session)) renew_outdated_templates(session);
  if (record.with_lists && session.lists.n_kv_pairs == 0) build_status_lists(session);
  if (!fits(session, *row, record)) return "does not fit this sort";
  const bool done = row->replay(session, record);
  if (session.operation.autosort_interrupt) return "was interrupted";
  if (!done) return "cannot be done";
  if (sort_fingerprint(session) != record.after) return "gives another sort than it did";
  session.clusters.current_cluster = std::clamp(
      record.current, std::min(1, session.clusters.n_clusters), session.clusters.n_clusters);
  return {};
}

}  // namespace

std::string edit_text(const edit_record& record) {
  if (record.edit == edit_back) {
    return record.back_to == 0 ? "Back to the beginning"
                               : fmt::format("Back to {}", record.back_to);
  }
  const edit_row* row = find_row(record.edit);
  if (row == nullptr) return record.edit;
  const bool off = record.value == 0 && row->text_when_off != nullptr;
  constexpr std::size_t most = 8;  // that a line has room for
  std::vector<std::int32_t> named = record.clusters;
  named.resize(std::min(named.size(), most));
  std::string clusters = fmt::format("{}", fmt::join(named, ", "));
  if (record.clusters.size() == 2) clusters.replace(clusters.find(", "), 2, " and ");
  if (record.clusters.size() > most) clusters += ", ...";
  const std::size_t label = static_cast<std::size_t>(record.value) % std::size(unit_label_names);
  return fmt::format(fmt::runtime(off ? row->text_when_off : row->text), clusters,
                     record.events.size(), record.text, unit_label_names[label].words);
}

bool replay_edits(session_state& session, const edit_history& history, std::int32_t from,
                  std::int32_t upto, replay_result& result) {
  result = {};
  const std::vector<std::int32_t> to_do = records_in_force(history, upto);
  if (!leads_on(history, from, upto)) {
    result.problem = "The edits take back more than this sort can: begin with an earlier one";
    return false;
  }
  const replay_run run(session);
  use_settings(session, history.settings);
  std::size_t next = records_in_force(history, from).size();
  for (std::int32_t i = 1; next < to_do.size(); ++i) {
    const edit_record& record = history.records[static_cast<std::size_t>(i - 1)];
    // Settings stay changed when an edit is taken back.
    use_settings(session, record.settings);
    if (i != to_do[next]) continue;
    const std::string problem = replay_record(session, record);
    if (!problem.empty()) {
      result.problem = fmt::format("Edit {} ({}) {}", i, edit_text(record), problem);
      return false;
    }
    ++next;
    ++result.n_done;
    set_progress(session, meter::clusters, static_cast<std::int32_t>(next),
                 static_cast<std::int32_t>(to_do.size()));
  }
  return true;
}

bool go_back_to(session_state& session, std::int32_t record) {
  constexpr const char* title = "History";
  edit_history& history = session.history;
  if (!history.beginning || record < 0 || record > last_record(history)) {
    tell(session, "The sort that this history began with is not in memory", title,
         box_icon::warning);
    return false;
  }
  const std::unique_ptr<undo_slot> present = copy_sort(session);
  if (!present) return false;
  restore_sort(session, *history.beginning);
  replay_result result;
  if (!replay_edits(session, history, 0, record, result)) {
    restore_sort(session, *present);
    tell(session, result.problem, title, box_icon::warning);
    return false;
  }
  edit_record back;
  back.edit = edit_back;
  back.back_to = record;
  add_record(session, std::move(back));
  // What a dialog has saved is of a sort that is no longer the one before its edit.
  session.undo.reset();
  note_unsaved(session, unsaved_results::edits);
  refresh_displays(session);
  return true;
}

}  // namespace kestrelvane
