#include "operations/sort_keeper.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <bit>
#include <nlohmann/json.hpp>
#include <vector>

#include "files/input_file.h"
#include "files/safe_file.h"
#include "results/work_file.h"
#include "session/fingerprint_sum.h"
#include "session/run_log.h"
#include "session/settings_table.h"
#include "session/version.h"

namespace kestrelvane {

namespace {

using json = nlohmann::json;

struct stage_name {
  const char* key;    // in the note
  const char* words;  // for the user
};
constexpr stage_name stage_names[] = {{"none", "the beginning"},
                                      {"detection", "detection"},
                                      {"first-pass", "the first pass"},
                                      {"merging", "merging"}};

// ---------------------------------------------------------------- which sort it is

// A display, a window or the number of threads changes no sort.
bool is_of_sort(const setting_row& row) {
  return row.address != nullptr &&
         (row.group == setting_group::parameters || row.group == setting_group::strategy);
}

void add_settings(fingerprint_sum& sum, const session_state& session) {
  for (const setting_row& row : settings_table()) {
    if (!is_of_sort(row)) continue;
    for (std::int32_t i = 0; i < row.count; ++i) {
      sum.add(std::bit_cast<std::uint64_t>(setting_value(session, row, i)));
    }
  }
}

// One sample in a thousand of each channel, not always of the same part of a second: enough to tell
// recordings and filters apart, in no time.
void add_samples(fingerprint_sum& sum, const recording_store& r) {
  constexpr std::int64_t step = 1009;
  std::vector<std::int16_t> some;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    some.clear();
    const std::int16_t* samples = r.vd.channel(c);
    for (std::int64_t t = 1; t <= r.n_samples; t += step) some.push_back(samples[t]);
    sum.add_bytes(some.data(), some.size() * sizeof(std::int16_t));
  }
}

std::string number_of_sort(const session_state& session) {
  const recording_store& r = session.recording;
  const filter_history_table& history = session.filter_history;
  fingerprint_sum sum;
  const std::string version = program_version;
  sum.add_bytes(version.data(), version.size());
  add_settings(sum, session);
  sum.add(static_cast<std::uint64_t>(session.autosort.stop_after));
  sum.add(static_cast<std::uint64_t>(r.n_samples));
  sum.add(static_cast<std::uint64_t>(r.sampling_frequency));
  sum.add(std::bit_cast<std::uint32_t>(r.vscale_HP));
  const auto n = static_cast<std::size_t>(history.n_entries);
  sum.add_bytes(history.code + 1, n * sizeof(history.code[1]));
  sum.add_bytes(history.param1 + 1, n * sizeof(history.param1[1]));
  sum.add_bytes(history.param2 + 1, n * sizeof(history.param2[1]));
  sum.add_column(r.chan_mask, r.n_channels);
  sum.add_column(r.chan_x, r.n_channels);
  sum.add_column(r.chan_y, r.n_channels);
  add_samples(sum, r);
  return fmt::format("{:016x}", sum.value);
}

// ---------------------------------------------------------------- the note

// Numbers keep the bandwidths that clusters have left there: the next cluster to get such a number
// gets its bandwidth as well, beyond those that the file has.
std::vector<std::uint32_t> all_bandwidths(const session_state& session) {
  std::vector<std::uint32_t> words;
  for (std::int32_t c = 1; c <= cluster_limit; ++c) {
    words.push_back(std::bit_cast<std::uint32_t>(session.clusters.cluster_sigma[c]));
  }
  while (!words.empty() && words.back() == 0) words.pop_back();
  return words;
}

std::string print_note(const session_state& session, kept_stage stage, const std::string& sort) {
  json note;
  note["sort"] = sort;
  note["stage"] = stage_names[static_cast<int>(stage)].key;
  note["repeated_with_lockout"] = static_cast<bool>(session.detector.repeated_with_lockout);
  note["detection_incomplete"] = static_cast<bool>(session.detector.detection_incomplete);
  note["split_obvious"] = static_cast<bool>(session.autosort.split_obvious);
  note["max_clusters_reached"] = static_cast<bool>(session.autosort.max_clusters_reached);
  note["bandwidths"] = all_bandwidths(session);
  std::vector<std::int32_t> signed_off;
  for (std::int32_t c = 1; c <= session.clusters.n_clusters; ++c) {
    if (session.clusters.cluster_signed_off[c]) signed_off.push_back(c);
  }
  note["signed_off"] = signed_off;
  return note.dump();
}

kept_stage stage_of(const std::string& key) {
  for (const kept_stage stage :
       {kept_stage::detection, kept_stage::first_pass, kept_stage::merging}) {
    if (key == stage_names[static_cast<int>(stage)].key) return stage;
  }
  return kept_stage::none;
}

// What the file left out. None when the note is not of this sort.
kept_stage apply_note(session_state& session, const std::string& sort) try {
  const json note = json::parse(session.autosort.stage_note);
  if (note.value("sort", "") != sort) return kept_stage::none;
  session.detector.repeated_with_lockout = note.value("repeated_with_lockout", false);
  session.detector.detection_incomplete = note.value("detection_incomplete", false);
  session.autosort.split_obvious = note.value("split_obvious", false);
  session.autosort.max_clusters_reached = note.value("max_clusters_reached", false);
  std::int32_t c = 0;
  session.clusters.cluster_sigma.clear();
  for (const auto word : note.value("bandwidths", std::vector<std::uint32_t>{})) {
    if (++c <= cluster_limit) session.clusters.cluster_sigma[c] = std::bit_cast<float>(word);
  }
  for (const auto signed_off : note.value("signed_off", std::vector<std::int32_t>{})) {
    if (signed_off < 1 || signed_off > session.clusters.n_clusters) return kept_stage::none;
    session.clusters.cluster_signed_off[signed_off] = true;
  }
  return stage_of(note.value("stage", ""));
} catch (const json::exception&) {
  // No note, or one that is damaged.
  return kept_stage::none;
}

// ---------------------------------------------------------------- the file

bool refuse(const session_state& session, const std::string& path, const std::string& why) {
  const std::string text = fmt::format("{} {}. Remove it to sort from the beginning", path, why);
  log_message(session, text);
  tell(session, text, "Autosort", box_icon::error);
  return false;
}

// The file, over the samples in memory. What it brings of settings is what is in force, but for
// those in whose place a run had to put others.
kept_stage read_kept_sort(session_state& session, const sort_keeper& keeper) {
  const logical use_lockout = session.detection.use_lockout;
  const logical split_obvious = session.strategy.split_obvious;
  bool wrong_file = false;
  kept_stage stage = kept_stage::none;
  if (read_work_file(session, keeper.path, wrong_file)) stage = apply_note(session, keeper.sort);
  session.detection.use_lockout = use_lockout;
  session.strategy.split_obvious = split_obvious;
  return stage;
}

}  // namespace

const char* name_of(kept_stage stage) { return stage_names[static_cast<int>(stage)].words; }

bool take_up_sort(session_state& session, kept_stage& done) {
  done = kept_stage::none;
  sort_keeper* keeper = session.autosort.keeper;
  if (keeper == nullptr) return true;
  keeper->sort = number_of_sort(session);
  if (!keeper->resume) return true;
  if (!file_exists(keeper->path)) {
    say(session, fmt::format("There is no {}: the sort begins anew", keeper->path));
    return true;
  }
  done = read_kept_sort(session, *keeper);
  if (done == kept_stage::none) {
    return refuse(session, keeper->path,
                  "is not of this sort: settings, filters, masks or samples were others, or the "
                  "version of the program, or it is damaged");
  }
  keeper->kept = done;
  keeper->on_disk = keeper->has_file = true;
  say(session, fmt::format("Going on after {}, with {} events and {} clusters of {}", name_of(done),
                           session.events.n_events, session.clusters.n_clusters, keeper->path));
  return true;
}

void keep_stage(session_state& session, kept_stage stage) {
  sort_keeper* keeper = session.autosort.keeper;
  // A press that came during the stage may have cut it short.
  if (keeper == nullptr || session.operation.autosort_interrupt) return;
  // What an earlier stage left goes first, for want of room; on disk it stays for now.
  keeper->kept = kept_stage::none;
  if (!write_work_image(session, print_note(session, stage, keeper->sort), keeper->image)) {
    log_message(session, fmt::format("No room to keep the sort after {}", name_of(stage)));
    return;
  }
  keeper->kept = stage;
  keeper->on_disk = false;
  // The next stage may go better; a sort need not fail for want of its safety net.
  if (keeper->at_once && !write_kept_sort(*keeper)) log_failed_save(session, keeper->path);
}

bool write_kept_sort(sort_keeper& keeper) {
  if (keeper.kept == kept_stage::none || keeper.on_disk) return true;
  safe_file out;
  if (open_safe_file(out, keeper.path))
    write_bytes(out, keeper.image.bytes->first(), keeper.image.size);
  keeper.on_disk = finish_safe_file(out);
  if (!keeper.on_disk) return false;
  keeper.has_file = true;
  keeper.image = {};
  return true;
}

}  // namespace kestrelvane
