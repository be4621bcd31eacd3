// A review by hand, done again by the batch command: the same bits at any number of threads.
#include <gtest/gtest.h>

#include "operations/open_recording.h"
#include "results/curation_file.h"
#include "results/exports.h"
#include "results/work_file.h"
#include "review/recorded_edit.h"
#include "session/settings_table.h"
#include "support/child_process.h"
#include "support/compare_work_files.h"
#include "support/fixture_files.h"
#include "support/random_review.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

struct curate_test : ::testing::Test {
  temporary_directory folder, home;
  std::string recording = folder.file("t.tsf"), sorted = folder.file("sorted.wrk");
  std::string history = folder.file("sorted.curation.jsonl");

  process_result batch(const std::vector<std::string>& arguments) {
    return run_process(KESTRELVANE_BATCH, arguments);
  }
  void make_sort() {
    ASSERT_EQ(batch({"make-test", recording, "--electrode", "polytrode", "--channels", "16",
                     "--minutes", "0.4", "--units", "8", "--seed", "5", "--quiet"})
                  .status,
              0);
    ASSERT_EQ(batch({"sort", recording, "--quiet", "--save-work", sorted}).status, 0);
  }
  // As a user with the workstation would, saved under another name.
  void review_by_hand() {
    small_session session;
    session.user.default_answer = true;
    session->home_directory = home.path;
    session->history.written = keep_record;
    ASSERT_TRUE(open_recording_worker(*session, {recording, file_type_tsf}));
    bool wrong_file = false;
    ASSERT_TRUE(read_work_file(*session, sorted, wrong_file));
    take_over_history(*session, sorted);
    random_review user(3);
    for (int i = 0; i < 40; ++i) user.edit(*session);
    ASSERT_GT(session->history.records.size(), 20u);
    // The settings of the sort, which a replay leaves alone.
    std::string problem;
    for (const auto& [name, value] : session->history.settings) {
      set_setting(*session, name, value, problem);
    }
    // Where the last edit left the user; he may have looked elsewhere since.
    const edit_history& h = session->history;
    const std::int32_t last = records_in_force(h, last_record(h)).back();
    session->clusters.current_cluster = h.records[static_cast<std::size_t>(last - 1)].current;
    ASSERT_TRUE(write_work_file(*session, folder.file("expected.wrk")));
    ASSERT_TRUE(export_sorted_spikes(*session, *find_export_format("csv"),
                                     folder.file("expected.csv"), {}));
  }
  std::string text(const std::string& name) {
    const std::vector<char> bytes = read_bytes(folder.file(name));
    return {bytes.begin(), bytes.end()};
  }
};

TEST_F(curate_test, a_replay_leaves_the_bits_of_the_review) {
  make_sort();
  review_by_hand();
  if (HasFatalFailure()) return;
  for (const char* threads : {"1", "7"}) {
    const std::string work = folder.file(std::string("replayed") + threads + ".wrk");
    const process_result result =
        batch({"curate", recording, "--work", sorted, "--replay", history, "--threads", threads,
               "--quiet", "--save-work", work, "--export", "csv=" + folder.file("replayed.csv")});
    ASSERT_EQ(result.status, 0) << result.err;
    std::string words;
    EXPECT_EQ(compare_work_files(work, folder.file("expected.wrk"), words), work_files::alike)
        << words;
    EXPECT_EQ(text("replayed.csv"), text("expected.csv"));
  }
  // What has been replayed has its history beside it, and can be gone on with.
  EXPECT_EQ(text("replayed1.curation.jsonl").empty(), false);
}

TEST_F(curate_test, a_history_of_another_sort_is_refused) {
  make_sort();
  review_by_hand();
  if (HasFatalFailure()) return;
  const std::string other = folder.file("other.wrk");
  ASSERT_EQ(
      batch({"sort", recording, "--quiet", "--set", "variable_multiplier=6", "--save-work", other})
          .status,
      0);
  const process_result result =
      batch({"curate", recording, "--work", other, "--replay", history, "--quiet"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("does not belong to this sort"), std::string::npos) << result.err;
  EXPECT_EQ(batch({"curate", recording, "--work", sorted}).status, 2);
}

}  // namespace
}  // namespace kestrelvane::test
