#include "operations/kept_states.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <system_error>

#include "files/input_file.h"
#include "operations/home_lock.h"
#include "operations/recovery.h"
#include "results/curation_file.h"
#include "results/work_file.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kept_prefix = "kv_autorecover_", kept_ending = ".wrk";

std::string home_file(const session_state& session, const std::string& name) {
  return session.home_directory + '/' + name;
}

// To the ns, since saves of two instances may fall into one second. 0 without a file.
std::int64_t time_of_file(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return 0;
  return std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec;
}

std::time_t seconds_of_file(const std::string& path) {
  return static_cast<std::time_t>(time_of_file(path) / 1'000'000'000);
}

void rename_state(const std::string& from, const std::string& to, std::error_code& failed) {
  fs::rename(from, to, failed);
  if (!failed) rename_history_beside(from, to);
}

void remove_state(const std::string& path) {
  std::error_code ignored;
  fs::remove(path, ignored);
  remove_history_beside(path);
}

// A recording's name may hold what a file system refuses, and be as long as names may be.
std::string plain_stem(const std::string& recording) {
  constexpr std::size_t most = 60;
  std::string stem = fs::path(recording).stem().string().substr(0, most);
  for (char& c : stem) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_') c = '-';
  }
  return stem;
}

std::string kept_path(const session_state& session, const std::string& state_file,
                      const std::string& recording) {
  const std::string stem = home_file(
      session, fmt::format("{}{:%Y%m%d-%H%M%S}_{}", kept_prefix,
                           fmt::localtime(seconds_of_file(state_file)), plain_stem(recording)));
  std::string path = stem + std::string(kept_ending);
  for (int i = 2; file_exists(path); ++i) path = fmt::format("{}_{}{}", stem, i, kept_ending);
  return path;
}

bool is_kept_name(const std::string& name) {
  // The sort that a review began with is no state of its own.
  return name.starts_with(kept_prefix) && name.ends_with(kept_ending) &&
         !name.ends_with(".curation.wrk");
}

// Newest first, whatever they hold.
std::vector<std::string> kept_files(const session_state& session) {
  std::vector<std::pair<std::int64_t, std::string>> files;
  std::error_code failed;
  for (const fs::directory_entry& entry : fs::directory_iterator(session.home_directory, failed)) {
    if (!is_kept_name(entry.path().filename().string())) continue;
    files.emplace_back(time_of_file(entry.path().string()), entry.path().string());
  }
  std::sort(files.rbegin(), files.rend());
  std::vector<std::string> paths;
  for (auto& [time, path] : files) paths.push_back(std::move(path));
  return paths;
}

void drop_oldest(const session_state& session) {
  const std::vector<std::string> files = kept_files(session);
  for (std::size_t i = most_kept_states; i < files.size(); ++i) remove_state(files[i]);
}

// How much of a sort there is: nothing, events, clusters.
int worth(std::int32_t n_events, std::int32_t n_clusters) {
  return n_events <= 0 ? 0 : n_clusters <= 0 ? 1 : 2;
}

// Of instances that are gone, with the number that is in their names. Held until the end: another
// instance that starts now would take them over, too.
struct orphan {
  std::string path;
  home_lock lock;
};

void find_orphans(const session_state& session, std::vector<std::unique_ptr<orphan>>& orphans) {
  for (std::int32_t number = 1; number <= most_instances; ++number) {
    if (number == session.state_files.number) continue;
    auto found = std::make_unique<orphan>();
    found->path = home_file(session, numbered_name(autorecover_file_name, number));
    const std::string temporary =
        home_file(session, numbered_name(autorecover_temporary_name, number));
    if (!file_exists(found->path) && !file_exists(temporary)) continue;
    if (!lock_number(session, number, found->lock)) continue;
    std::error_code ignored;
    fs::remove(temporary, ignored);
    // Taken over by another instance since.
    if (file_exists(found->path)) orphans.push_back(std::move(found));
  }
}

}  // namespace

std::vector<kept_state> list_kept_states(const session_state& session) {
  std::vector<kept_state> states;
  if (session.home_directory.empty()) return states;
  for (const std::string& path : kept_files(session)) {
    work_file_facts facts;
    if (!read_work_file_facts(path, facts)) continue;
    states.push_back(
        {path, facts.recording_path, seconds_of_file(path), facts.n_events, facts.n_clusters});
  }
  return states;
}

bool keep_state(const session_state& session, const std::string& state_file) {
  work_file_facts facts;
  // What cannot be read just now may be hours of work all the same.
  if (read_work_file_facts(state_file, facts) && facts.n_events == 0) return true;
  const std::string path = kept_path(session, state_file, facts.recording_path);
  std::error_code failed;
  // A second name, so that the old state is offered until the new one is whole.
  fs::create_hard_link(state_file, path, failed);
  if (failed) fs::rename(state_file, path, failed);
  if (failed) return false;
  // Once this session has edits, the history beside the recovery file is its own.
  if (session.history.records.empty() && !rename_history_beside(state_file, path)) {
    log_message(session, "The history of edits of an earlier state failed to be kept with it");
  }
  drop_oldest(session);
  log_message(session,
              "An earlier state is kept as work file " + fs::path(path).filename().string());
  return true;
}

void keep_what_is_replaced(const session_state& session, const std::string& state_file) {
  if (!file_exists(state_file)) return;
  if (session.state_files.own_recording == session.recording.recording_path) {
    work_file_facts facts;
    const int now = worth(session.events.n_events, session.clusters.n_clusters);
    if (now == 2) return;
    const bool known = read_work_file_facts(state_file, facts);
    if (known && worth(facts.n_events, facts.n_clusters) <= now) return;
  }
  keep_state(session, state_file);
}

void adopt_states(const session_state& session) {
  if (session.home_directory.empty()) return;
  std::vector<std::unique_ptr<orphan>> orphans;
  find_orphans(session, orphans);
  std::sort(orphans.begin(), orphans.end(), [](const auto& a, const auto& b) {
    return time_of_file(a->path) < time_of_file(b->path);
  });
  const std::string own =
      home_file(session, numbered_name(autorecover_file_name, session.state_files.number));
  for (const std::unique_ptr<orphan>& found : orphans) {
    std::error_code failed;
    if (time_of_file(found->path) < time_of_file(own)) {
      if (keep_state(session, found->path)) remove_state(found->path);
    } else if (keep_state(session, own)) {
      rename_state(found->path, own, failed);
    }
  }
}

}  // namespace kestrelvane
