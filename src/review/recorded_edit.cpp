#include "review/recorded_edit.h"

#include <algorithm>

#include "review/pair_values.h"
#include "session/fingerprint_sum.h"
#include "session/run_log.h"
#include "session/settings_table.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

// ---------------------------------------------------------------- fingerprint

// Only pairs with a mark: without any, lists that are there and lists that are not are alike.
void add_marks(fingerprint_sum& sum, const status_lists_table& lists) {
  for (std::int64_t k = 1; k <= lists.n_kv_pairs; ++k) {
    const bool distinct = lists.kv_user_distinct[k], ambiguous = lists.kv_user_ambiguous[k];
    if (distinct || ambiguous) {
      sum.add(static_cast<std::uint64_t>(4 * k + (distinct ? 1 : 0) + (ambiguous ? 2 : 0)));
    }
  }
}

// ---------------------------------------------------------------- settings

bool shapes_edits(const setting_row& row) {
  return row.file != setting_file::preferences && row.address != nullptr &&
         (row.group == setting_group::parameters || row.group == setting_group::strategy);
}

std::vector<std::string> values_of(
    const std::vector<std::pair<std::string, std::string>>& settings) {
  std::vector<std::string> values;
  for (const auto& [name, value] : settings) values.push_back(value);
  return values;
}

// ---------------------------------------------------------------- records

std::uint64_t last_fingerprint(const edit_history& history) {
  return history.records.empty() ? history.fingerprint : history.records.back().after;
}

void begin_history(session_state& session, std::uint64_t fingerprint) {
  forget_history(session);
  edit_history& history = session.history;
  history.fingerprint = fingerprint;
  history.settings = settings_of_edits(session);
  history.settings_now = values_of(history.settings);
  history.beginning = copy_sort(session);
  if (history.written != nullptr) history.written(session, nullptr);
}

// The settings that are others than at the record before.
void note_settings(const session_state& session, edit_history& history, edit_record& record) {
  auto now = settings_of_edits(session);
  std::vector<std::string> values = values_of(now);
  for (std::size_t i = 0; i < now.size(); ++i) {
    const bool known = i < history.settings_now.size() && history.settings_now[i] == values[i];
    if (!known) record.settings.push_back(std::move(now[i]));
  }
  history.settings_now = std::move(values);
}

}  // namespace

std::uint64_t sort_fingerprint(const session_state& session) {
  fingerprint_sum sum;
  const event_table& events = session.events;
  const cluster_table& clusters = session.clusters;
  sum.add(static_cast<std::uint64_t>(events.n_events));
  sum.add_column(events.event_time, events.n_events);
  sum.add_column(events.event_shift, events.n_events);
  sum.add_column(events.event_channel, events.n_events);
  sum.add_column(events.event_cluster, events.n_events);
  sum.add(static_cast<std::uint64_t>(clusters.n_clusters));
  // As text: what lies behind its end in the field is of no meaning.
  for (std::int32_t c = 1; c <= clusters.n_clusters; ++c) {
    const std::string_view comment = clusters.cluster_comment[c].view();
    sum.add(comment.size());
    sum.add_bytes(comment.data(), comment.size());
  }
  sum.add_column(clusters.cluster_label, clusters.n_clusters);
  add_marks(sum, session.lists);
  return sum.value;
}

std::vector<std::pair<std::string, std::string>> settings_of_edits(const session_state& session) {
  std::vector<std::pair<std::string, std::string>> settings;
  for (const setting_row& row : settings_table()) {
    if (!shapes_edits(row)) continue;
    for (std::int32_t i = 0; i < row.count; ++i) {
      settings.emplace_back(setting_name(row, i), setting_text(session, row, i));
    }
  }
  return settings;
}

std::vector<std::int32_t> records_in_force(const edit_history& history, std::int32_t upto) {
  std::vector<std::int32_t> in_force;
  for (std::int32_t i = std::min(upto, last_record(history)); i > 0;) {
    const edit_record& record = history.records[static_cast<std::size_t>(i - 1)];
    if (record.edit == edit_back) {
      // Always earlier, whatever a file says, so that this ends.
      i = std::min(record.back_to, i - 1);
      continue;
    }
    in_force.push_back(i);
    --i;
  }
  std::reverse(in_force.begin(), in_force.end());
  return in_force;
}

bool leads_on(const edit_history& history, std::int32_t from, std::int32_t to) {
  const std::vector<std::int32_t> done = records_in_force(history, from);
  const std::vector<std::int32_t> wanted = records_in_force(history, to);
  return done.size() <= wanted.size() && std::equal(done.begin(), done.end(), wanted.begin());
}

std::int32_t find_state(const edit_history& history, std::uint64_t fingerprint) {
  for (std::int32_t i = last_record(history); i > 0; --i) {
    if (history.records[static_cast<std::size_t>(i - 1)].after == fingerprint) return i;
  }
  return history.fingerprint == fingerprint ? 0 : -1;
}

void add_record(session_state& session, edit_record record) {
  edit_history& history = session.history;
  record.after = sort_fingerprint(session);
  record.time = std::chrono::system_clock::now();
  record.with_lists = session.lists.n_kv_pairs > 0;
  record.current = session.clusters.current_cluster;
  note_settings(session, history, record);
  history.records.push_back(std::move(record));
  if (history.written != nullptr) history.written(session, &history.records.back());
}

// ---------------------------------------------------------------- recording

recorded_edit::recorded_edit(session_state& session, const char* edit)
    : session_(session), outermost_(session.history.depth++ == 0 && !session.history.replaying) {
  record.edit = edit;
  if (!outermost_) return;
  before_ = sort_fingerprint(session);
  const edit_history& history = session.history;
  if (history.fingerprint == 0 || before_ != last_fingerprint(history)) {
    begin_history(session, before_);
  }
}

recorded_edit::~recorded_edit() {
  edit_history& history = session_.history;
  --history.depth;
  if (!outermost_ || sort_fingerprint(session_) == before_) return;
  // Where a tool that goes by a rule was stopped depends on the moment: it cannot be done again.
  if (session_.operation.autosort_interrupt) {
    log_message(session_, "An interrupted tool cannot be repeated: the history begins anew");
    forget_history(session_);
    return;
  }
  if (record.edit == edit_back) {
    record.back_to = find_state(history, sort_fingerprint(session_));
    // A state of which no record tells, as when templates had to be made anew.
    if (record.back_to < 0) {
      forget_history(session_);
      return;
    }
  }
  add_record(session_, std::move(record));
}

table<logical>& marks_of(session_state& session, pair_mark mark) {
  return mark == pair_mark::distinct ? session.lists.kv_user_distinct
                                     : session.lists.kv_user_ambiguous;
}

void set_pair_mark(session_state& session, cluster_pair pair, pair_mark mark, bool on) {
  const std::int64_t k = find_pair(session, pair);
  if (k == 0) return;
  recorded_edit edit(session, mark == pair_mark::distinct ? "distinct" : "ambiguous");
  edit.record.clusters = {pair.a, pair.b};
  edit.record.value = on;
  auto& marks = mark == pair_mark::distinct ? session.lists.kv_user_distinct
                                            : session.lists.kv_user_ambiguous;
  marks[k] = on;
  // No cluster changes, which would be noted by itself.
  note_unsaved(session, unsaved_results::edits);
}

void prepare_history(session_state& session) {
  const edit_history& history = session.history;
  if (history.fingerprint == 0 && !history.replaying) {
    begin_history(session, sort_fingerprint(session));
  }
}

bool restore_recorded(session_state& session, undo_owner owner) {
  const recorded_edit edit(session, edit_back);
  return restore_undo_state(session, owner);
}

}  // namespace kestrelvane
