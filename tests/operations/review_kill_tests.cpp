// A process that is killed in the middle of a review loses at most the last edit.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <thread>

#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "results/curation_file.h"
#include "results/work_file.h"
#include "review/recorded_edit.h"
#include "support/child_process.h"
#include "support/fixture_files.h"
#include "support/recovery_victim.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct review_kill_test : ::testing::Test {
  temporary_directory home, data;
  std::string notes_path = data.file("notes");
  victim_notes* notes = map_notes(notes_path);
  std::mt19937 random{2026};

  void batch(const std::vector<std::string>& arguments) {
    const process_result result = run_process(KESTRELVANE_BATCH, arguments);
    ASSERT_EQ(result.status, 0) << result.err;
  }
  void make_sort() {
    const std::string recording = data.file("t.tsf");
    batch({"make-test", recording, "--electrode", "tetrode", "--minutes", "0.3", "--units", "5",
           "--seed", "4", "--quiet"});
    batch({"sort", recording, "--quiet", "--save-work", home.file(autorecover_file_name)});
  }
  void review_and_kill() {
    notes->made_at[0] = 0;
    const process_result result =
        run_process(KESTRELVANE_RECOVERY_VICTIM, {home.path, "review", notes_path},
                    [&](pid_t process, const std::string&) {
                      // On a busy machine its start alone may take longer than the wait.
                      for (int i = 0; i < 6000 && notes->made_at[0] == 0; ++i) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(10));
                      }
                      const int wait = std::uniform_int_distribution<int>(200, 1500)(random);
                      std::this_thread::sleep_for(std::chrono::milliseconds(wait));
                      kill(process, SIGKILL);
                    });
    ASSERT_EQ(result.status, -SIGKILL) << result.err;
  }
};

TEST_F(review_kill_test, a_kill_loses_at_most_the_last_edit) {
  ASSERT_NE(notes, nullptr);
  make_sort();
  std::int64_t edits = 0;
  for (int i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    review_and_kill();
    if (HasFatalFailure()) return;
    small_session next;
    next->home_directory = home.path;
    next.user.default_answer = true;
    ASSERT_TRUE(open_at_start(*next, ""));
    EXPECT_EQ(check_session(*next), "");
    const std::int64_t last = notes->changes;
    edits += last;
    const auto now = static_cast<std::int64_t>(sort_fingerprint(*next));
    // An edit whose record was written may be killed before it is noted.
    const edit_history& history = next->history;
    const std::int32_t n = last_record(history);
    const std::uint64_t before = n > 1 ? history.records[n - 2u].after : history.fingerprint;
    const bool one_more = n > 0 && static_cast<std::int64_t>(before) == notes->made_at[last] &&
                          static_cast<std::int64_t>(history.records[n - 1u].after) == now;
    EXPECT_TRUE(now == notes->made_at[last] || one_more)
        << last << " edits, " << n << " records; "
        << (next.user.boxes.empty() ? "" : next.user.boxes.back().text);
  }
  EXPECT_GT(edits, 20);
}

// The last timed save was before the sort, which only the history of its review holds; and the user
// sorts anew at once.
TEST_F(review_kill_test, a_new_sort_after_recovery_leaves_the_reviewed_one) {
  ASSERT_NE(notes, nullptr);
  make_sort();
  review_and_kill();
  if (HasFatalFailure()) return;
  const std::string state = home.file(autorecover_file_name);
  {
    small_session before;
    ASSERT_TRUE(open_recording(*before, data.file("t.tsf")));
    ASSERT_TRUE(write_work_file(*before, state));
    namespace fs = std::filesystem;
    fs::last_write_time(state, fs::last_write_time(curation_path(state)) - std::chrono::seconds(5));
  }
  std::uint64_t reviewed = 0;
  {
    small_session next;
    next->home_directory = home.path;
    next.user.default_answer = true;
    ASSERT_TRUE(open_at_start(*next, ""));
    ASSERT_GT(next->clusters.n_clusters, 0);
    reviewed = sort_fingerprint(*next);
    clear_events(next->events);
    next->clusters.n_clusters = 0;
    ASSERT_TRUE(save_autorecover(*next));
  }
  small_session later;
  later->home_directory = home.path;
  later.user.default_answer = true;
  const std::vector<kept_state> kept = list_kept_states(*later);
  ASSERT_EQ(kept.size(), 1u);
  ASSERT_TRUE(open_kept_state(*later, kept[0].path));
  EXPECT_EQ(sort_fingerprint(*later), reviewed);
}

}  // namespace
}  // namespace kestrelvane::test
