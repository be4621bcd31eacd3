// A review that is recorded can be done again, to the same bits.
#include "review/replay.h"

#include "review/cluster_marks.h"
#include "review/recorded_edit.h"
#include "review_fixture.h"
#include "sorting/undo_state.h"
#include "support/random_review.h"

namespace kestrelvane {
namespace {

struct replay_test : test::review_test {
  test::random_review user{7};

  // What a work file holds of the sort, as numbers; labels of events are not in it.
  std::vector<double> saved() {
    session->events.event_subcluster.clear();
    session->clusters.current_cluster = 1;
    // By how a cluster came to be, for the eye of this session alone.
    session->clusters.cluster_source.clear();
    return fingerprint();
  }

  void split_some() {
    user.mark_some(*session);
    ASSERT_TRUE(split_label(*session, 1));
  }

  // The state that a history began with, as if its work file had been read.
  void go_to_beginning() { restore_sort(*session, *session->history.beginning); }

  void expect_replay(std::int32_t threads) {
    set_thread_count(*session, threads);
    session->multi_threaded_now = threads > 1;
    replay_result result;
    ASSERT_TRUE(replay_edits(*session, session->history, 0, last_record(session->history), result))
        << result.problem;
    EXPECT_EQ(static_cast<std::size_t>(result.n_done),
              records_in_force(session->history, last_record(session->history)).size());
  }
};

TEST_F(replay_test, RandomEditsGiveTheSameBitsAtOneAndSevenThreads) {
  session.user.default_answer = true;
  for (int i = 0; i < 300; ++i) {
    user.edit(*session);
    expect_consistent();
  }
  ASSERT_GT(session->history.records.size(), 20u);
  EXPECT_EQ(session->history.records.back().after, sort_fingerprint(*session));
  const std::vector<double> wanted = saved();
  for (const std::int32_t threads : {1, 7}) {
    go_to_beginning();
    expect_replay(threads);
    expect_consistent();
    EXPECT_EQ(saved(), wanted) << threads;
  }
}

TEST_F(replay_test, GoingBackReachesEveryRecordAndCanItselfBeTakenBack) {
  session.user.default_answer = true;
  std::vector<std::uint64_t> after;
  while (after.size() < 12) {
    user.edit(*session);
    const auto now = static_cast<std::size_t>(last_record(session->history));
    while (after.size() < now) after.push_back(session->history.records[after.size()].after);
  }
  const std::uint64_t beginning = session->history.fingerprint;
  const auto last = static_cast<std::int32_t>(after.size());
  for (const std::int32_t to : {3, 0, last, 1}) {
    ASSERT_TRUE(go_back_to(*session, to));
    EXPECT_EQ(sort_fingerprint(*session), to == 0 ? beginning : after[to - 1u]) << to;
    expect_consistent();
  }
  // What follows stands on the state that was gone back to.
  split_some();
  const std::vector<std::int32_t> in_force =
      records_in_force(session->history, last_record(session->history));
  ASSERT_FALSE(in_force.empty());
  EXPECT_LE(in_force.size(), 2u);
}

TEST_F(replay_test, AnotherSortBeginsAnotherHistory) {
  split_some();
  EXPECT_EQ(last_record(session->history), 1);
  // Outside the review, as a run of Autosort.
  session->events.event_cluster[events_of(1)[0]] = 2;
  split_some();
  EXPECT_EQ(last_record(session->history), 1);
}

TEST_F(replay_test, RecordsThatDoNotFitAreToldAndChangeNothing) {
  split_some();
  go_to_beginning();
  const std::vector<double> before = saved();
  edit_record& record = session->history.records[0];
  const auto expect_refused = [&](const char* words) {
    replay_result result;
    EXPECT_FALSE(replay_edits(*session, session->history, 0, 1, result));
    EXPECT_NE(result.problem.find(words), std::string::npos) << result.problem;
    EXPECT_EQ(saved(), before);
  };
  const edit_record good = record;
  record.clusters = {n() + 1};
  expect_refused("does not fit");
  record = good;
  record.events.push_back(session->events.n_events + 1);
  expect_refused("does not fit");
  record = good;
  record.edit = "dance";
  expect_refused("does not know");
  record = good;
  record.edit = "split_pair";
  record.clusters = {1, 2};
  record.places = "12";
  expect_refused("cannot be done");
}

TEST_F(replay_test, UndoLeadsBackAndIsTold) {
  split_some();
  ASSERT_TRUE(undo_cluster_review(*session));
  ASSERT_EQ(last_record(session->history), 2);
  EXPECT_EQ(session->history.records[1].edit, edit_back);
  EXPECT_EQ(session->history.records[1].back_to, 0);
  EXPECT_TRUE(records_in_force(session->history, 2).empty());
  EXPECT_EQ(edit_text(session->history.records[1]), "Back to the beginning");
  EXPECT_EQ(edit_text(session->history.records[0]).rfind("Split ", 0), 0u);
}

}  // namespace
}  // namespace kestrelvane
