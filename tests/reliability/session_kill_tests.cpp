// A run that is killed at any moment, from opening to export: the files that were there are
// whole, those that it wrote are whole, and the newest recovery can be read.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <thread>

#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "reliability/killed_runs.h"
#include "results/work_file.h"
#include "support/child_process.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

namespace fs = std::filesystem;

struct session_kill : ::testing::Test {
  temporary_directory home, data;
  std::string recording = data.file("a.tsf"), work_file = data.file("a.wrk");
  std::string csv = data.file("a.csv");
  std::mt19937 random{wanted_seed()};
  std::string stage;                // that a killed run was in
  std::map<std::string, int> hits;  // by stage

  session_kill() { make_killed_recording(recording); }

  process_result run_and_kill(const std::string& command, const std::vector<std::string>& arguments,
                              int most_ms, bool waits_for_recovery = false) {
    std::thread killer;
    stage.clear();
    const int wait = std::uniform_int_distribution<int>(0, most_ms)(random);
    process_result result =
        run_process(command, arguments, [&](pid_t process, const std::string& line) {
          stage = line.substr(0, line.find('\n'));
          if (killer.joinable()) return;
          killer = std::thread([this, process, wait, waits_for_recovery] {
            const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (waits_for_recovery && !has_recovery() &&
                   std::chrono::steady_clock::now() < patience) {
              std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(wait));
            kill(process, SIGKILL);
          });
        });
    if (killer.joinable()) killer.join();
    return result;
  }

  bool has_recovery() const {
    return std::any_of(fs::directory_iterator(home.path), fs::directory_iterator(),
                       [](const fs::directory_entry& entry) {
                         const std::string name = entry.path().filename();
                         return name.find("recover") != std::string::npos &&
                                !name.ends_with(".tmp");
                       });
  }

  void expect_readable_work_file() const {
    if (!fs::exists(work_file)) return;
    small_session session;
    session.user.default_answer = true;
    bool wrong_file = false;
    ASSERT_TRUE(open_recording(*session, recording));
    EXPECT_TRUE(read_work_file(*session, work_file, wrong_file));
    EXPECT_EQ(check_session(*session), "");
  }

  // Lines of three fields to the last byte: a torn one would end within a line.
  void expect_whole_csv() const {
    const std::vector<char> bytes = read_bytes(csv);
    if (bytes.empty()) return;
    EXPECT_EQ(bytes.back(), '\n');
    const auto lines = std::count(bytes.begin(), bytes.end(), '\n');
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), ','), 2 * lines);
  }

  void remove_partial_files() {
    for (const std::string& target : {work_file, csv}) {
      for (const std::string& partial : partial_files(target)) fs::remove(partial);
    }
  }

  void print_hits(int n) {
    std::printf("%d kills:", n);
    for (const auto& [name, count] : hits) std::printf(" %s %d", name.c_str(), count);
    std::printf("\n");
  }
};

TEST_F(session_kill, of_a_session_leaves_its_files_whole_and_its_recovery_readable) {
  const int n = wanted_kills("10");
  for (int i = 0; i < n; ++i) {
    SCOPED_TRACE(i);
    const std::vector<char> samples = read_bytes(recording);
    const process_result result = run_and_kill(
        KESTRELVANE_SESSION_VICTIM, {"work", home.path, recording, data.path}, 1500, i == 0);
    ASSERT_EQ(result.status, -SIGKILL) << result.err;
    ++hits[stage];
    EXPECT_TRUE(read_bytes(recording) == samples) << "the recording itself";
    expect_readable_work_file();
    expect_whole_csv();
    small_session next;
    next->home_directory = home.path;
    next.user.default_answer = true;
    // The first run has lived until there was one, and no later kill may cost it.
    EXPECT_TRUE(open_at_start(*next, ""));
    EXPECT_EQ(check_session(*next), "");
    remove_partial_files();
  }
  print_hits(n);
}

TEST_F(session_kill, of_a_batch_leaves_the_old_files_or_the_new) {
  const std::vector<std::string> arguments{
      "sort",        recording, "--filter", "common-mean", "--set",     "min_cluster_size=5",
      "--save-work", work_file, "--export", "csv=" + csv,  "--threads", "1"};
  // From its first line on, as the hand that kills waits for that.
  std::chrono::steady_clock::time_point began;
  const process_result whole =
      run_process(KESTRELVANE_BATCH, arguments, [&began](pid_t, const std::string&) {
        if (began == std::chrono::steady_clock::time_point{}) {
          began = std::chrono::steady_clock::now();
        }
      });
  const auto took = std::chrono::steady_clock::now() - began;
  ASSERT_EQ(whole.status, 0) << whole.err;
  const std::vector<char> new_csv = read_bytes(csv);
  const int most_ms =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
  const int n = wanted_kills("10");
  int n_killed = 0, n_runs = 0;
  for (; n_killed < n && n_runs < 10 * n; ++n_runs) {
    SCOPED_TRACE(n_runs);
    write_bytes(csv, {'o', 'l', 'd', '\n'});
    const process_result result = run_and_kill(KESTRELVANE_BATCH, arguments, most_ms);
    // One that was quicker than the hand that kills has come to its end.
    ASSERT_TRUE(result.status == -SIGKILL || result.status == 0) << result.err;
    n_killed += result.status == -SIGKILL ? 1 : 0;
    const std::vector<char> now = read_bytes(csv);
    EXPECT_TRUE(now == new_csv || now == std::vector<char>({'o', 'l', 'd', '\n'}));
    expect_readable_work_file();
    remove_partial_files();
  }
  std::printf("%d of %d runs were killed\n", n_killed, n_runs);
  EXPECT_EQ(n_killed, n);
}

}  // namespace
}  // namespace kestrelvane::test
