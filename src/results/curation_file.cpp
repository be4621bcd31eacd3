#include "results/curation_file.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "files/text_lines.h"
#include "results/work_file.h"
#include "review/recorded_edit.h"
#include "review/replay.h"
#include "session/run_log.h"
#include "session/settings_table.h"
#include "sorting/undo_state.h"

namespace kestrelvane {

namespace {

using json = nlohmann::json;
using settings_list = std::vector<std::pair<std::string, std::string>>;

constexpr const char* file_mark = "kestrelvane_curation";
constexpr int file_version = 1;

// ---------------------------------------------------------------- a line

// As text: many readers of JSON keep no more than 53 bits of a number.
std::string fingerprint_text(std::uint64_t fingerprint) {
  return fmt::format("{:016x}", fingerprint);
}

std::uint64_t fingerprint_of(const std::string& text) {
  std::uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return value;
}

json settings_object(const settings_list& settings) {
  json object = json::object();
  for (const auto& [name, value] : settings) object[name] = value;
  return object;
}

settings_list settings_from(const json& object) {
  settings_list settings;
  for (const auto& [name, value] : object.items()) {
    settings.emplace_back(name, value.get<std::string>());
  }
  return settings;
}

// A comment may hold any bytes; those that are no text must not cost the line.
std::string line_of(const json& object) {
  return object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

std::string head_line(const session_state& session) {
  const edit_history& history = session.history;
  return line_of({{file_mark, file_version},
                  {"recording", file_name_of(session.recording.recording_path)},
                  {"fingerprint", fingerprint_text(history.fingerprint)},
                  {"settings", settings_object(history.settings)}});
}

std::string record_line(const edit_record& record) {
  json line = {{"edit", record.edit}, {"after", fingerprint_text(record.after)}};
  line["time"] = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                             fmt::gmtime(std::chrono::system_clock::to_time_t(record.time)));
  if (record.edit == edit_back) line["back_to"] = record.back_to;
  if (!record.clusters.empty()) line["clusters"] = record.clusters;
  if (!record.events.empty()) line["events"] = record.events;
  if (!record.places.empty()) line["places"] = record.places;
  if (!record.text.empty()) line["text"] = record.text;
  if (record.value != 0) line["value"] = record.value;
  if (record.with_lists) line["lists"] = true;
  line["current"] = record.current;
  if (!record.settings.empty()) line["settings"] = settings_object(record.settings);
  return line_of(line);
}

std::chrono::system_clock::time_point time_of(const std::string& text) {
  std::tm time{};
  if (strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time) == nullptr) return {};
  return std::chrono::system_clock::from_time_t(timegm(&time));
}

edit_record edit_record_of(const json& line) {
  edit_record record;
  record.edit = line.at("edit").get<std::string>();
  record.after = fingerprint_of(line.at("after").get<std::string>());
  record.time = time_of(line.value("time", ""));
  record.back_to = line.value("back_to", -1);
  record.clusters = line.value("clusters", record.clusters);
  record.events = line.value("events", record.events);
  record.places = line.value("places", "");
  record.text = line.value("text", "");
  record.value = line.value("value", 0);
  record.with_lists = line.value("lists", false);
  record.current = line.value("current", 0);
  if (line.contains("settings")) record.settings = settings_from(line["settings"]);
  return record;
}

// ---------------------------------------------------------------- files

std::string recovery_work_file(const session_state& session) {
  // The name of the recovery file, beside which its history lies (operations/recovery.h).
  return session.home_directory.empty()
             ? std::string()
             : session.home_directory + '/' +
                   numbered_name("kv_autorecover.sav", session.state_files.number);
}

std::vector<std::string> work_files_of(const session_state& session) {
  std::vector<std::string> files;
  for (std::string file : {session.history.work_file, recovery_work_file(session)}) {
    if (!file.empty()) files.push_back(std::move(file));
  }
  return files;
}

bool append_line(const std::string& path, const std::string& line) {
  const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (file < 0) return false;
  // In one piece: a line is there whole or is the last one.
  const ssize_t written = write(file, line.data(), line.size());
  const bool kept = fdatasync(file) == 0;
  close(file);
  return kept && written == static_cast<ssize_t>(line.size());
}

void say_not_kept(const session_state& session, const std::string& path) {
  log_message(session, "The history of edits could not be written to " + path);
}

// The beginning of a history that is about to take the place of another.
std::string next_beginning_path(const std::string& work_file) {
  return curation_beginning_path(work_file) + ".next";
}

// Beside the recovery file, as soon as a history begins: the sort in memory is its beginning. At
// any moment the lines that are there have the sort that they begin with beside them, under
// either name: a crash in between must not cost what the last save does not have.
void begin_recovery_files(const session_state& session) {
  const std::string work_file = recovery_work_file(session);
  if (work_file.empty()) return;
  const std::string next = next_beginning_path(work_file);
  std::error_code failed;
  if (!write_work_file(session, next) || !write_history(session, curation_path(work_file))) {
    return say_not_kept(session, curation_path(work_file));
  }
  std::filesystem::rename(next, curation_beginning_path(work_file), failed);
  if (failed) say_not_kept(session, curation_beginning_path(work_file));
}

bool copy_beginning(const std::string& from, const std::string& work_file) {
  std::error_code failed;
  if (from == curation_beginning_path(work_file)) return true;
  std::filesystem::copy_file(from, curation_beginning_path(work_file),
                             std::filesystem::copy_options::overwrite_existing, failed);
  return !failed;
}

// Beside the user's work file, with the first record.
void begin_work_files(const session_state& session, const std::string& work_file) {
  const std::string path = curation_path(work_file);
  std::error_code ignored;
  if (file_exists(path)) {
    std::filesystem::rename(path, replace_extension(work_file, ".curation.earlier.jsonl"), ignored);
  }
  const std::string beginning = curation_beginning_path(recovery_work_file(session));
  if (!write_history(session, path) || !copy_beginning(beginning, work_file)) {
    say_not_kept(session, path);
  }
}

// Where a copy of the beginning can be had.
std::string beginning_file(const session_state& session) {
  for (const std::string& file : work_files_of(session)) {
    if (file_exists(curation_beginning_path(file))) return curation_beginning_path(file);
  }
  return {};
}

// What every setting is after the last record.
settings_list settings_at_end(const edit_history& history) {
  std::map<std::string, std::string> now(history.settings.begin(), history.settings.end());
  for (const edit_record& record : history.records) {
    for (const auto& [name, value] : record.settings) now[name] = value;
  }
  return {now.begin(), now.end()};
}

// In the order of the table; a setting that the file does not know counts as changed.
std::vector<std::string> settings_now(const session_state& session, const edit_history& history) {
  const settings_list known = settings_at_end(history);
  const std::map<std::string, std::string> by_name(known.begin(), known.end());
  std::vector<std::string> values;
  for (const auto& [name, value] : settings_of_edits(session)) {
    const auto found = by_name.find(name);
    values.push_back(found == by_name.end() ? std::string() : found->second);
  }
  return values;
}

}  // namespace

std::string curation_path(const std::string& work_file) {
  return replace_extension(work_file, ".curation.jsonl");
}
std::string curation_beginning_path(const std::string& work_file) {
  return replace_extension(work_file, ".curation.wrk");
}

void keep_record(const session_state& session, const edit_record* record) {
  if (record == nullptr) return begin_recovery_files(session);
  for (const std::string& work_file : work_files_of(session)) {
    const bool first = last_record(session.history) == 1;
    if (first && work_file == session.history.work_file) {
      begin_work_files(session, work_file);
    } else if (!append_line(curation_path(work_file), record_line(*record))) {
      // The folder may have come back, or the file been removed: all of it once more.
      if (!write_history(session, curation_path(work_file))) {
        say_not_kept(session, curation_path(work_file));
      }
    }
  }
}

bool read_history(const std::string& path, edit_history& history, std::string& problem) {
  text_lines lines;
  std::string_view line;
  if (!load_text(lines, path) || !next_line(lines, line)) {
    problem = "The history " + path + " cannot be read";
    return false;
  }
  try {
    const json head = json::parse(line);
    if (head.at(file_mark).get<int>() > file_version) {
      problem = "The history " + path + " is of a later version";
      return false;
    }
    history.fingerprint = fingerprint_of(head.at("fingerprint").get<std::string>());
    history.settings = settings_from(head.at("settings"));
  } catch (const json::exception&) {
    problem = path + " is no history of edits";
    return false;
  }
  try {
    while (next_line(lines, line)) history.records.push_back(edit_record_of(json::parse(line)));
  } catch (const json::exception&) {
    // A crash has cut it short; what stands before it is whole.
  }
  return true;
}

bool write_history(const session_state& session, const std::string& path) {
  safe_file out;
  if (!open_safe_file(out, path)) return false;
  write_text(out, head_line(session));
  for (const edit_record& record : session.history.records) write_text(out, record_line(record));
  return finish_safe_file(out);
}

void save_history_beside(session_state& session, const std::string& work_file) {
  edit_history& history = session.history;
  const std::string beginning = beginning_file(session);
  history.work_file = work_file;
  if (history.records.empty()) return;
  if (!write_history(session, curation_path(work_file))) {
    say_not_kept(session, curation_path(work_file));
  }
  if (!beginning.empty() && !copy_beginning(beginning, work_file)) {
    say_not_kept(session, curation_beginning_path(work_file));
  }
}

namespace {

// Lines to come need whole lines before them, where a crash has cut the last one, and the same
// history beside the recovery file, where another one may lie.
void continue_files(const session_state& session, const std::string& work_file) {
  for (const std::string& file : work_files_of(session)) {
    if (!write_history(session, curation_path(file))) say_not_kept(session, curation_path(file));
  }
  const std::string recovery = recovery_work_file(session);
  const std::string beginning = curation_beginning_path(work_file);
  if (recovery.empty() || !file_exists(beginning)) return;
  if (!copy_beginning(beginning, recovery)) say_not_kept(session, curation_path(recovery));
}

}  // namespace

std::int32_t take_over_history(session_state& session, const std::string& work_file) {
  forget_history(session);
  session.history.work_file = work_file == recovery_work_file(session) ? "" : work_file;
  edit_history found;
  std::string problem;
  if (!file_exists(curation_path(work_file))) return 0;
  if (!read_history(curation_path(work_file), found, problem)) {
    log_message(session, problem);
    return 0;
  }
  const std::int32_t here = find_state(found, sort_fingerprint(session));
  // Of another sort, or of one that has been changed by other means since.
  if (here < 0) return 0;
  edit_history& history = session.history;
  history.fingerprint = found.fingerprint;
  history.settings = std::move(found.settings);
  history.records = std::move(found.records);
  history.settings_now = settings_now(session, history);
  continue_files(session, work_file);
  const std::int32_t last = last_record(history);
  return records_in_force(history, last) == records_in_force(history, here) ? 0 : last - here;
}

namespace {

bool is_later(const std::string& path, const std::string& than) {
  std::error_code failed, absent;
  const auto time = std::filesystem::last_write_time(path, failed);
  const auto other = std::filesystem::last_write_time(than, absent);
  return !failed && !absent && time >= other;
}

// The sort of a file, when it is the one that a history began with; else the sort stays.
bool read_beginning(session_state& session, const std::string& path, std::uint64_t fingerprint) {
  const std::unique_ptr<undo_slot> present = file_exists(path) ? copy_sort(session) : nullptr;
  if (!present) return false;
  bool wrong_file = false;
  const bool read = read_work_file(session, path, wrong_file);
  if (read && sort_fingerprint(session) == fingerprint) return true;
  if (!wrong_file) restore_sort(session, *present);
  return false;
}

}  // namespace

std::int32_t take_over_later_review(session_state& session, const std::string& state_file) {
  edit_history found;
  std::string problem;
  if (session.history.fingerprint != 0 || !is_later(curation_path(state_file), state_file) ||
      !read_history(curation_path(state_file), found, problem)) {
    return 0;
  }
  for (const std::string& beginning :
       {curation_beginning_path(state_file), next_beginning_path(state_file)}) {
    if (read_beginning(session, beginning, found.fingerprint)) {
      return take_over_history(session, state_file);
    }
  }
  return 0;
}

void offer_history_beside(session_state& session, const std::string& work_file) {
  const std::int32_t n = take_over_history(session, work_file);
  if (n == 0) return;
  if (ask(session,
          fmt::format("The review went on after this file was saved. Repeat the {} edits that it "
                      "does not have?",
                      n),
          "History")) {
    repeat_later_edits(session);
  } else {
    leave_later_edits(session);
  }
}

bool repeat_later_edits(session_state& session) {
  const edit_history& history = session.history;
  std::int32_t here = find_state(history, sort_fingerprint(session));
  const std::int32_t last = last_record(history);
  const std::unique_ptr<undo_slot> present = copy_sort(session);
  if (!leads_on(history, here, last) && load_beginning(session)) {
    restore_sort(session, *history.beginning);
    here = 0;
  }
  replay_result result;
  if (present && replay_edits(session, history, here, last, result)) {
    log_message(session, fmt::format("{} edits were repeated", result.n_done));
    return true;
  }
  if (present) restore_sort(session, *present);
  tell(session, result.problem, "History", box_icon::warning);
  leave_later_edits(session);
  return false;
}

void leave_later_edits(session_state& session) {
  edit_record back;
  back.edit = edit_back;
  back.back_to = find_state(session.history, sort_fingerprint(session));
  // The sort that an unfinished replay has left is of no record: a new history begins with it.
  if (back.back_to < 0) {
    forget_history(session);
  } else if (back.back_to < last_record(session.history)) {
    add_record(session, std::move(back));
  }
}

bool load_beginning(session_state& session) {
  edit_history& history = session.history;
  if (history.beginning) return true;
  const std::string path = beginning_file(session);
  const std::unique_ptr<undo_slot> present = path.empty() ? nullptr : copy_sort(session);
  if (!present) return false;
  // A work file brings its settings with it; those of the moment hold.
  std::vector<std::vector<std::string>> settings;
  for (const setting_row& row : settings_table()) {
    std::vector<std::string>& values = settings.emplace_back();
    for (std::int32_t i = 0; row.address != nullptr && i < row.count; ++i) {
      values.push_back(setting_text(session, row, i));
    }
  }
  const filter_history_table filters = session.filter_history;
  const logical filtered = session.recording.recording_filtered;
  bool wrong_file = false;
  const bool read = read_work_file(session, path, wrong_file);
  if (read && sort_fingerprint(session) == history.fingerprint) {
    history.beginning = copy_sort(session);
  }
  std::size_t at = 0;
  for (const setting_row& row : settings_table()) {
    const std::vector<std::string>& values = settings[at++];
    for (std::size_t i = 0; i < values.size(); ++i) {
      std::string problem;
      const std::string name = setting_name(row, static_cast<std::int32_t>(i));
      set_setting(session, name, values[i], problem);
    }
  }
  session.filter_history = filters;
  session.recording.recording_filtered = filtered;
  restore_sort(session, *present);
  return history.beginning != nullptr;
}

void remove_history_beside(const std::string& state_file) {
  std::error_code ignored;
  std::filesystem::remove(next_beginning_path(state_file), ignored);
  std::filesystem::remove(curation_path(state_file), ignored);
  std::filesystem::remove(curation_beginning_path(state_file), ignored);
}

bool rename_history_beside(const std::string& from, const std::string& to) {
  const auto rename_one = [](const std::string& old_path, const std::string& new_path) {
    std::error_code failed;
    std::filesystem::rename(old_path, new_path, failed);
    return !failed || failed == std::errc::no_such_file_or_directory;
  };
  const bool steps = rename_one(curation_path(from), curation_path(to));
  return rename_one(curation_beginning_path(from), curation_beginning_path(to)) && steps;
}

}  // namespace kestrelvane
