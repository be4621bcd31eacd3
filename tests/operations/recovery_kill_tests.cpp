// A process that is killed at any moment, the middle of a save included, loses no more
// than one interval.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <thread>

#include "operations/program_run.h"
#include "operations/recovery.h"
#include "results/work_file.h"
#include "support/child_process.h"
#include "support/fixture_files.h"
#include "support/recovery_victim.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using std::filesystem::exists;
constexpr double ms = 1e-6;  // of a ns

// One home directory through twenty runs, each of which takes up what the last one left.
struct kill_test : ::testing::Test {
  temporary_directory home, data;
  std::string recording = data.file("victim.tsf");
  std::string work_file = data.file("victim.wrk");
  std::string notes_path = data.file("notes");
  victim_notes* notes = map_notes(notes_path);
  std::mt19937 random{20260};
  std::int64_t recovered = 1, in_work_file = 1;  // changes
  std::int64_t killed_at = 0;
  int recovery_saves_hit = 0, work_saves_hit = 0;
  double greatest_age_ms = 0;

  kill_test() {
    tsf_fixture f;
    f.n_samples = victim_samples;
    write_bytes(recording, tsf_bytes(f));
    write_first_state(home.file(autorecover_file_name), recording);
    write_first_state(work_file, recording);
  }
  ~kill_test() override { unmap_notes(notes); }

  // The recovery file by its own temporary name, the work file by any.
  static bool is_being_written(const std::string& target) {
    return target.ends_with(".tmp") ? exists(target) : !partial_files(target).empty();
  }

  double random_ms(double most) { return std::uniform_real_distribution<double>(0, most)(random); }

  // At any moment, or soon after a save has begun to write this file.
  void wait_for_moment(const std::string& target) {
    if (target.empty()) {
      std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(random_ms(700)));
      return;
    }
    const std::int64_t patience = steady_ns() + 5'000'000'000;
    while (!is_being_written(target) && steady_ns() < patience) usleep(100);
    usleep(static_cast<useconds_t>(1000 * random_ms(3)));
  }

  void run_and_kill(const std::string& target) {
    notes->changes = recovered;
    notes->wrk_begun = notes->wrk_done = in_work_file;
    const process_result result =
        run_process(KESTRELVANE_RECOVERY_VICTIM, {home.path, work_file, notes_path},
                    [&](pid_t process, const std::string&) {
                      wait_for_moment(target);
                      killed_at = steady_ns();
                      kill(process, SIGKILL);
                    });
    ASSERT_EQ(result.status, -SIGKILL) << result.err;
    recovery_saves_hit += exists(home.file(autorecover_temporary_name));
    work_saves_hit += is_being_written(work_file);
  }

  // The longest time in which the run made no change: the time of a save, and how long
  // the machine let it wait for a processor.
  double longest_gap_ms(std::int64_t first) const {
    std::int64_t gap = 0;
    for (std::int64_t k = first + 1; k <= notes->changes; ++k) {
      gap = std::max(gap, notes->made_at[k] - notes->made_at[k - 1]);
    }
    return ms * static_cast<double>(std::max(gap, killed_at - notes->made_at[notes->changes]));
  }

  void check_age(std::int64_t before) {
    ASSERT_GE(recovered, before);
    ASSERT_LE(recovered, notes->changes);
    if (recovered == notes->changes) return;
    const double age = ms * static_cast<double>(killed_at - notes->made_at[recovered + 1]);
    // The save that would have come, one that was cut off, and a work file between them.
    const double allowed =
        victim_interval_ms + victim_look_ms + 50 + 3 * longest_gap_ms(before + 1);
    EXPECT_LE(age, allowed);
    greatest_age_ms = std::max(greatest_age_ms, age);
  }

  void start_next_run() {
    const std::int64_t before = recovered;
    small_session next;
    next->home_directory = home.path;
    next.user.default_answer = true;
    ASSERT_TRUE(open_at_start(*next, ""));
    EXPECT_TRUE(
        next.user.asked("Recover information from previous run?", "Kestrelvane crash recovery"));
    EXPECT_TRUE(next.user.logged("Autorecover successfull"));
    EXPECT_FALSE(exists(home.file(autorecover_temporary_name)));
    EXPECT_EQ(check_session(*next), "");
    recovered = change_of(*next);
    ASSERT_GE(recovered, 1) << "torn";
    check_age(before);

    bool wrong_file = false;
    ASSERT_TRUE(read_work_file(*next, work_file, wrong_file));
    EXPECT_EQ(check_session(*next), "");
    in_work_file = change_of(*next);
    EXPECT_TRUE(in_work_file == notes->wrk_done || in_work_file == notes->wrk_begun)
        << in_work_file << " of " << notes->wrk_begun;
    for (const std::string& partial : partial_files(work_file)) std::filesystem::remove(partial);
  }
};

TEST_F(kill_test, twenty_kills_lose_no_more_than_an_interval_each) {
  ASSERT_NE(notes, nullptr);
  const std::string targets[] = {"", home.file(autorecover_temporary_name), "", work_file};
  for (int i = 0; i < 20; ++i) {
    SCOPED_TRACE(i);
    run_and_kill(targets[i % 4]);
    start_next_run();
    if (HasFatalFailure()) return;
  }
  std::printf("%lld changes; %d recovery saves and %d work files hit; greatest loss %.0f ms\n",
              static_cast<long long>(recovered), recovery_saves_hit, work_saves_hit,
              greatest_age_ms);
  EXPECT_GE(recovery_saves_hit, 1);
  EXPECT_GE(work_saves_hit, 1);
  EXPECT_GT(recovered, 5);
}

}  // namespace
}  // namespace kestrelvane::test
