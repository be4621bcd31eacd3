// What an earlier session has left outlives the sessions after it, and instances that share a home
// stay out of each other's way.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "operations/home_lock.h"
#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "results/work_file.h"
#include "support/fixture_files.h"
#include "support/full_device.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {
namespace {

using std::filesystem::exists;

struct kept_states_test : ::testing::Test {
  temporary_directory home, data;
  std::string autorecover = home.file(autorecover_file_name);

  std::string recording(const std::string& name) {
    const std::string path = data.file(name);
    tsf_fixture f;
    f.n_channels = 3;
    f.n_samples = 20000;
    write_bytes(path, tsf_bytes(f));
    return path;
  }

  // A run of the program with a recording, and a sort of seven events over it.
  void open(small_session& run, const std::string& path, bool sorted) {
    run->home_directory = home.path;
    ASSERT_TRUE(open_recording(*run, path));
    if (!sorted) return;
    work_file_content content;
    content.recording_path = path;
    content.n_filters = 0;
    content.scalars["recording_filtered"] = 0;
    write_bytes(data.file("sort.wrk"), make_work_file(content).bytes);
    bool wrong_file = false;
    ASSERT_TRUE(read_work_file(*run, data.file("sort.wrk"), wrong_file));
  }

  void crash_with_sort(const std::string& path, const std::string& comment = "") {
    small_session run;
    open(run, path, true);
    run->clusters.cluster_comment[1].assign(comment);
    ASSERT_TRUE(save_autorecover(*run));
  }

  std::vector<kept_state> kept() {
    small_session any;
    any->home_directory = home.path;
    return list_kept_states(*any);
  }

  void start(small_session& run, bool yes, const std::string& argument = "") {
    run->home_directory = home.path;
    run.user.default_answer = yes;
    open_at_start(*run, argument);
    EXPECT_EQ(check_session(*run), "");
  }
};

std::string first_comment(small_session& run) {
  return std::string(run->clusters.cluster_comment[1].view());
}

// The second crash used to take the sort of the first with it.
TEST_F(kept_states_test, two_crashes_lose_no_sort) {
  const std::string path = recording("first day.tsf");
  crash_with_sort(path, "hours of work");
  for (int crash = 0; crash < 3; ++crash) {
    small_session run;
    start(run, true, path);
    EXPECT_TRUE(save_autorecover(*run));
  }
  const std::vector<kept_state> states = kept();
  ASSERT_EQ(states.size(), 1u) << "states without events are not worth a name";
  EXPECT_EQ(states[0].recording, path);
  EXPECT_EQ(states[0].n_events, 7);
  EXPECT_GT(states[0].n_clusters, 0);
  EXPECT_NE(states[0].path.find("_first-day.wrk"), std::string::npos) << states[0].path;
  const std::int64_t since = std::time(nullptr) - states[0].saved;
  EXPECT_TRUE(since >= 0 && since < 60) << since;

  small_session run;
  run->home_directory = home.path;
  ASSERT_TRUE(open_kept_state(*run, states[0].path));
  EXPECT_EQ(first_comment(run), "hours of work");
  EXPECT_EQ(check_session(*run), "");
}

TEST_F(kept_states_test, nothing_of_less_worth_takes_the_place_of_a_sort) {
  const std::string path = recording("a.tsf"), other = recording("b.tsf");
  crash_with_sort(path);
  {
    SCOPED_TRACE("No, and another recording sorted");
    small_session run;
    start(run, false);
    open(run, other, true);
    ASSERT_TRUE(save_autorecover(*run));
    ASSERT_EQ(kept().size(), 1u);
    EXPECT_EQ(kept()[0].recording, path);
    // A session follows its own sort, and keeps no copy of every save.
    ASSERT_TRUE(save_autorecover(*run));
    EXPECT_EQ(kept().size(), 1u);
    SCOPED_TRACE("the sort is given up for another");
    run->clusters.n_clusters = 0;
    for (std::int32_t e = 1; e <= run->events.n_events; ++e) run->events.event_cluster[e] = 0;
    ASSERT_TRUE(save_autorecover(*run));
    ASSERT_EQ(kept().size(), 2u);
    EXPECT_EQ(kept()[0].recording, other);
    ASSERT_TRUE(save_autorecover(*run));
    EXPECT_EQ(kept().size(), 2u);
  }
  crash_with_sort(path, "declined");
  {
    SCOPED_TRACE("No, and the program is left");
    small_session run;
    start(run, false);
    EXPECT_TRUE(end_session(*run, exit_way::menu));
    EXPECT_FALSE(exists(autorecover));
    EXPECT_EQ(kept().at(0).recording, path);
  }
}

TEST_F(kept_states_test, a_full_disk_leaves_the_state_that_would_have_been_replaced) {
  crash_with_sort(recording("a.tsf"));
  const std::vector<char> state = read_bytes(autorecover);
  small_session run;
  open(run, recording("b.tsf"), true);
  {
    const full_device full;
    EXPECT_FALSE(save_autorecover(*run));
  }
  EXPECT_EQ(read_bytes(autorecover), state);
}

TEST_F(kept_states_test, the_last_five_are_kept) {
  for (const char* name : {"1.tsf", "2.tsf", "3.tsf", "4.tsf", "5.tsf", "6.tsf", "7.tsf"}) {
    crash_with_sort(recording(name));
  }
  // A stranger, and a state that was cut off, are no entries of the list.
  const std::vector<char> whole = read_bytes(autorecover);
  write_bytes(home.file("kv_autorecover_x.wrk"), {whole.begin(), whole.begin() + 700});
  std::vector<std::string> names;
  for (const kept_state& state : kept()) {
    names.push_back(std::filesystem::path(state.recording).filename());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"6.tsf", "5.tsf", "4.tsf", "3.tsf", "2.tsf"}));
}

// ---------------------------------------------------------------- instances

TEST_F(kept_states_test, two_instances_have_files_of_their_own_and_both_recover) {
  const std::string path = recording("a.tsf"), other = recording("b.tsf");
  {
    small_session first, second, third;
    home_lock locks[3];
    small_session* runs[] = {&first, &second, &third};
    for (int i = 0; i < 3; ++i) {
      (*runs[i])->home_directory = home.path;
      lock_home(**runs[i], locks[i]);
      EXPECT_EQ((*runs[i])->state_files.number, i + 1);
      EXPECT_EQ(runs[i]->user.boxes.size(), i == 0 ? 0u : 1u) << "said once";
    }
    open(first, path, true);
    open(second, other, true);
    first->clusters.cluster_comment[1].assign("first");
    second->clusters.cluster_comment[1].assign("second");
    ASSERT_TRUE(save_autorecover(*first));
    ASSERT_TRUE(save_autorecover(*second));
    EXPECT_TRUE(exists(home.file("kv_autorecover_2.sav")));
    // The start and the exit of a third leave both alone.
    start(third, true);
    EXPECT_TRUE(third.user.questions.empty());
    EXPECT_TRUE(end_session(*third, exit_way::menu));
    EXPECT_TRUE(exists(autorecover) && exists(home.file("kv_autorecover_2.sav")));
  }  // both are gone, and their locks with them
  small_session next;
  home_lock lock;
  next->home_directory = home.path;
  lock_home(*next, lock);
  EXPECT_EQ(next->state_files.number, 1);
  start(next, true);
  EXPECT_TRUE(
      next.user.asked("Recover information from previous run?", "Kestrelvane crash recovery"));
  EXPECT_EQ(first_comment(next), "second") << "the newest";
  EXPECT_FALSE(exists(home.file("kv_autorecover_2.sav")));
  ASSERT_EQ(kept().size(), 1u);
  ASSERT_TRUE(open_kept_state(*next, kept()[0].path));
  EXPECT_EQ(first_comment(next), "first");
  EXPECT_EQ(check_session(*next), "");
}

TEST_F(kept_states_test, an_exit_does_not_remove_what_another_instance_left_for_next_time) {
  const std::string path = recording("a.tsf"), other = recording("b.tsf");
  small_session first, second;
  open(first, path, true);
  open(second, other, true);
  second->state_files.number = 2;
  first.user.default_answer = true;
  EXPECT_TRUE(end_session(*first, exit_way::menu));
  second.user.default_answer = true;
  EXPECT_TRUE(end_session(*second, exit_way::menu));
  ASSERT_EQ(kept().size(), 1u);
  EXPECT_EQ(kept()[0].recording, path);
  small_session next;
  start(next, true);
  EXPECT_EQ(next->recording.recording_path, other);
}

}  // namespace
}  // namespace kestrelvane::test
