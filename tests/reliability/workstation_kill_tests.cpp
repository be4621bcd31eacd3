// The workstation itself, windows and all, is killed at any moment of a user's day: the recording
// is untouched, work file and export are whole, the next start offers to recover and does, and a
// sort that a state has held is in one ever after.
#ifdef KESTRELVANE_PROGRAM
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "reliability/killed_runs.h"
#include "results/work_file.h"
#include "session/settings_files.h"
#include "support/child_process.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

struct workstation_kill : ::testing::Test {
  temporary_directory home, data, aside;
  std::string recording = data.file("a.tsf"), work_file = data.file("a.wrk");
  std::string csv = data.file("a.csv");
  std::mt19937 random{wanted_seed()};
  std::string stage;  // that the last run was killed in
  bool offered = false, recovered = false;

  workstation_kill() {
    make_killed_recording(recording);
    small_session user;
    user->home_directory = home.path;
    user->preferences.autorecover_minutes = 0.01f;
    user->strategy.min_cluster_size = 20;
    EXPECT_TRUE(write_preferences(*user) && write_parameters(*user));
  }

  void hear(const std::string& line) {
    if (line.starts_with("box Recover information")) offered = true;
    if (line == "recovered") recovered = true;
    for (const char* name : {"open", "filter", "sort", "review", "save", "export"}) {
      if (line == name) stage = name;
    }
  }

  // Killed so many ms after a stage has begun, or after the start where it never does.
  process_result run_and_kill(const std::string& argument, const std::string& in_stage, int ms) {
    std::thread killer;
    stage = "start";
    offered = recovered = false;
    std::vector<std::string> words{
        "-C",
        home.path,
        "LD_PRELOAD=" KESTRELVANE_WORKSTATION_DRIVER,
        "KESTRELVANE_DRIVE=" + recording + ':' + work_file + ':' + csv,
        "XDG_CONFIG_HOME=" + aside.path,
        "ASAN_OPTIONS=verify_asan_link_order=0",
        "QT_QPA_PLATFORM=" + variable("KESTRELVANE_KILL_PLATFORM", "offscreen"),
        KESTRELVANE_PROGRAM};
    if (!argument.empty()) words.push_back(argument);
    const auto kill_later = [&](pid_t process) {
      killer = std::thread([process, ms] {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        kill(process, SIGKILL);
      });
    };
    process_result result =
        run_process("/usr/bin/env", words, [&](pid_t process, const std::string& text) {
          hear(text.substr(0, text.find('\n')));
          if (!killer.joinable() && stage == in_stage) kill_later(process);
        });
    if (killer.joinable()) killer.join();
    return result;
  }

  bool has_recovery() const { return fs::exists(home.file(autorecover_file_name)); }

  // In a copy, since a look for states moves them.
  void expect_readable_state(bool& has_sort) const {
    const temporary_directory copy;
    fs::copy(home.path, copy.path, fs::copy_options::recursive);
    small_session next;
    next->home_directory = copy.path;
    next.user.default_answer = true;
    EXPECT_TRUE(open_at_start(*next, "")) << next.user.all_lines();
    EXPECT_EQ(check_session(*next), "");
    bool found = next->clusters.n_clusters > 0;
    for (const kept_state& state : list_kept_states(*next)) found |= state.n_clusters > 0;
    EXPECT_TRUE(found || !has_sort) << "a sort is lost";
    has_sort |= found;
  }

  void expect_whole_files() const {
    const std::vector<char> lines = read_bytes(csv);
    if (!lines.empty()) {
      EXPECT_EQ(lines.back(), '\n');
      EXPECT_EQ(std::count(lines.begin(), lines.end(), ','),
                2 * std::count(lines.begin(), lines.end(), '\n'));
    }
    if (!fs::exists(work_file)) return;
    small_session session;
    session.user.default_answer = true;
    bool wrong_file = false;
    ASSERT_TRUE(open_recording(*session, recording));
    EXPECT_TRUE(read_work_file(*session, work_file, wrong_file));
    EXPECT_EQ(check_session(*session), "");
  }
};

TEST_F(workstation_kill, of_the_program_costs_no_file_and_the_next_start_recovers) {
  const int n = wanted_kills("6");
  const std::vector<char> samples = read_bytes(recording);
  const char* const stages[] = {"sort", "review", "save", "export", "open", "filter"};
  bool has_sort = false;
  std::map<std::string, int> hits;
  int n_recovered = 0;
  for (int i = 0; i < n; ++i) {
    const std::string wanted = stages[i % 6];
    SCOPED_TRACE(std::to_string(i) + ", in " + wanted);
    const bool had_recovery = has_recovery();
    const int ms = std::uniform_int_distribution<int>(0, wanted == "sort" ? 1500 : 120)(random);
    const process_result result = run_and_kill(i == 0 ? recording : "", wanted, ms);
    ASSERT_EQ(result.status, -SIGKILL) << result.err;
    ++hits[stage];
    EXPECT_TRUE(i == 0 || had_recovery);
    EXPECT_EQ(offered, i > 0) << result.err;
    EXPECT_EQ(recovered, i > 0) << result.err;
    n_recovered += recovered;
    EXPECT_TRUE(read_bytes(recording) == samples) << "the recording itself";
    expect_readable_state(has_sort);
    expect_whole_files();
  }
  EXPECT_TRUE(has_sort);
  std::printf("%d kills, %d recovered:", n, n_recovered);
  for (const auto& [name, count] : hits) std::printf(" %s %d", name.c_str(), count);
  std::printf("\n");
}

}  // namespace
}  // namespace kestrelvane::test
#endif
