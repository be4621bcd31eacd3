// The history of a review as a file: whole, cut short, hostile, and beside its work file.
#include "results/curation_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "results/work_file.h"
#include "review/cluster_marks.h"
#include "review/manage_clusters.h"
#include "review/recorded_edit.h"
#include "review/replay.h"
#include "sorting/realign_steps.h"
#include "sorting/undo_state.h"
#include "support/fixture_files.h"
#include "support/plain_forms.h"
#include "support/random_review.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using std::filesystem::exists;

struct curation_test : ::testing::Test {
  temporary_directory folder, home;
  small_session session;
  random_review user{11};
  std::string work_file = folder.file("sorted.wrk");
  std::string history_file = folder.file("sorted.curation.jsonl");

  curation_test() {
    fill(*session);
    session.user.default_answer = true;
    session->home_directory = home.path;
    session->history.written = keep_record;
    EXPECT_TRUE(save_work_file_at(*session, work_file));
  }
  void fill(session_state& of) {
    make_busy_recording(of, 4, 60000, 17);
    recalculate_all_templates(of);
    of.recording.recording_path = folder.file("a.tsf");
    of.clusters.current_cluster = 1;
  }
  void review(int n) {
    const auto wanted = session->history.records.size() + static_cast<std::size_t>(n);
    while (session->history.records.size() < wanted) user.edit(*session);
  }
  // The work file of the beginning, in another session.
  void reopen(small_session& other, const std::string& path) {
    fill(*other);
    bool wrong_file = false;
    ASSERT_TRUE(read_work_file(*other, path, wrong_file));
  }
  std::string bytes_of(session_state& of) {
    const std::string path = folder.file("bytes.wrk");
    // The log tells of the way to the sort, and the selection of nothing.
    of.log.n_log_lines = 0;
    of.clusters.current_cluster = 1;
    EXPECT_TRUE(write_work_file(of, path));
    const std::vector<char> bytes = read_bytes(path);
    return {bytes.begin(), bytes.end()};
  }
  std::string text() {
    const std::vector<char> bytes = read_bytes(history_file);
    return {bytes.begin(), bytes.end()};
  }
};

TEST_F(curation_test, a_history_read_back_replays_to_the_same_work_file) {
  review(25);
  label_unit(*session, 1, unit_label::good);
  annotate_current_cluster(*session, "with \"quotes\", a tab\t and µV");
  for (const int threads : {1, 7}) {
    small_session other;
    reopen(other, work_file);
    set_thread_count(*other, threads);
    edit_history found;
    std::string problem;
    ASSERT_TRUE(read_history(history_file, found, problem)) << problem;
    ASSERT_EQ(found.records.size(), session->history.records.size());
    replay_result result;
    ASSERT_TRUE(replay_edits(*other, found, 0, last_record(found), result)) << result.problem;
    // Settings are the user's, and follow none of it.
    other->review.clean_threshold = session->review.clean_threshold;
    other->review.renumber_order = session->review.renumber_order;
    other->strategy.realign_window_ms = session->strategy.realign_window_ms;
    EXPECT_EQ(bytes_of(*other), bytes_of(*session)) << threads;
  }
}

TEST_F(curation_test, a_work_file_of_any_moment_takes_its_history_up_again) {
  review(8);
  const std::string later = folder.file("later.wrk");
  ASSERT_TRUE(save_work_file_at(*session, later));
  EXPECT_TRUE(exists(folder.file("later.curation.jsonl")));
  EXPECT_TRUE(exists(folder.file("later.curation.wrk")));
  review(4);
  const std::uint64_t end = sort_fingerprint(*session);

  small_session other;
  reopen(other, later);
  const std::int32_t missing = take_over_history(*other, later);
  if (missing > 0) {
    ASSERT_TRUE(repeat_later_edits(*other));
  }
  EXPECT_EQ(sort_fingerprint(*other), end);
  // The way back reaches beyond the moment of the save.
  ASSERT_TRUE(load_beginning(*other));
  ASSERT_TRUE(go_back_to(*other, 0));
  EXPECT_EQ(sort_fingerprint(*other), other->history.fingerprint);
  EXPECT_EQ(check_session(*other), "");
}

TEST_F(curation_test, an_undo_after_the_save_is_repeated_too) {
  begin_cluster_review(*session);
  user.mark_some(*session);
  ASSERT_TRUE(split_label(*session, 1));
  label_unit(*session, 2, unit_label::noise);
  ASSERT_TRUE(write_work_file(*session, work_file));
  for (const bool goes_on : {false, true}) {
    // The save holds two edits of which the history has gone back behind the first.
    ASSERT_TRUE(go_back_to(*session, 0));
    if (goes_on) label_unit(*session, 1, unit_label::good);
    small_session other;
    reopen(other, work_file);
    other->home_directory = home.path;
    ASSERT_GT(take_over_history(*other, work_file), 0);
    ASSERT_TRUE(repeat_later_edits(*other));
    EXPECT_EQ(sort_fingerprint(*other), sort_fingerprint(*session)) << goes_on;
    EXPECT_EQ(check_session(*other), "");
    ASSERT_TRUE(go_back_to(*session, 2));
  }
}

TEST_F(curation_test, edits_that_are_left_stay_in_the_list_as_taken_back) {
  review(3);
  small_session other;
  reopen(other, work_file);
  ASSERT_GT(take_over_history(*other, work_file), 0);
  leave_later_edits(*other);
  const edit_history& history = other->history;
  EXPECT_EQ(history.records.back().edit, edit_back);
  EXPECT_TRUE(records_in_force(history, last_record(history)).empty());
}

TEST_F(curation_test, a_line_cut_short_ends_the_history_and_nonsense_is_none) {
  review(5);
  const std::string whole = text();
  edit_history found;
  std::string problem;
  const auto lines_of = [&](const std::string& bytes) {
    write_bytes(history_file, {bytes.begin(), bytes.end()});
    found = {};
    return read_history(history_file, found, problem) ? std::ssize(found.records) : -1;
  };
  const std::size_t last = whole.rfind('\n', whole.size() - 2) + 1;
  for (std::size_t length = last; length < whole.size() - 1; length += 7) {
    EXPECT_EQ(lines_of(whole.substr(0, length)), 4);
  }
  for (const char* nonsense :
       {"", "\n", "{}", "[1,2]", "no JSON", "{\"kestrelvane_curation\":\"x\"}",
        "{\"kestrelvane_curation\":99,\"fingerprint\":\"0\"}"}) {
    EXPECT_EQ(lines_of(nonsense), -1) << nonsense;
  }
  const std::string head = whole.substr(0, whole.find('\n') + 1);
  for (const char* line : {"{\"edit\":7,\"after\":\"0\"}", "{\"edit\":\"merge\"}",
                           "{\"edit\":\"merge\",\"after\":\"0\",\"clusters\":\"all\"}",
                           "{\"edit\":\"split\",\"after\":\"0\",\"settings\":{\"a\":1}}"}) {
    EXPECT_EQ(lines_of(head + line + "\n"), 0) << line;
  }
  // A step back that leads forward must not lead round in circles.
  EXPECT_EQ(lines_of(head + "{\"edit\":\"back\",\"after\":\"0\",\"back_to\":9}\n"), 1);
  EXPECT_TRUE(records_in_force(found, 1).empty());
}

TEST_F(curation_test, edits_after_a_line_cut_short_are_kept) {
  review(4);
  std::string cut = text();
  cut.resize(cut.size() - 9);
  write_bytes(history_file, {cut.begin(), cut.end()});
  small_session other;
  reopen(other, work_file);
  other->home_directory = home.path;
  other->history.written = keep_record;
  take_over_history(*other, work_file);
  ASSERT_TRUE(repeat_later_edits(*other));
  label_unit(*other, 1, unit_label::noise);
  for (const std::string& path : {history_file, home.file("kv_autorecover.curation.jsonl")}) {
    edit_history found;
    std::string problem;
    ASSERT_TRUE(read_history(path, found, problem));
    EXPECT_EQ(found.records.size(), 4u) << path;
    EXPECT_EQ(found.records.back().after, sort_fingerprint(*other)) << path;
  }
}

TEST_F(curation_test, another_sort_keeps_the_file_of_the_one_before) {
  review(3);
  const std::string before = text();
  // Outside the review, as a run of Autosort.
  session->events.event_time[1] += 1;
  review(1);
  const std::vector<char> kept = read_bytes(folder.file("sorted.curation.earlier.jsonl"));
  EXPECT_EQ(std::string(kept.begin(), kept.end()), before);
  small_session other;
  reopen(other, work_file);
  EXPECT_EQ(take_over_history(*other, work_file), 0) << "it is not of this sort";
}

TEST_F(curation_test, a_folder_that_takes_no_file_costs_no_edit) {
  session->history.work_file = "/proc/nowhere/sorted.wrk";
  review(2);
  EXPECT_TRUE(session.user.logged(
      "The history of edits could not be written to /proc/nowhere/sorted.curation.jsonl"));
  EXPECT_GE(session->history.records.size(), 2u);
}

}  // namespace
}  // namespace kestrelvane::test
