// A sort that is stopped wherever it polls and gone on with by another process is the sort in one
// go: work file, bandwidths of all numbers and signs of approval.
#include "operations/sort_keeper.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <set>
#include <vector>

#include "operations/autosort.h"
#include "operations/open_recording.h"
#include "results/work_file.h"
#include "support/compare_work_files.h"
#include "support/small_session.h"
#include "synthesis/test_recording.h"

namespace kestrelvane::test {
namespace {

struct sort_keeper_test : ::testing::Test {
  temporary_directory folder;
  std::string tsf = folder.file("a.tsf");
  sort_keeper keeper;

  void SetUp() override {
    test_recording_options options;
    options.n_channels = 8;
    options.minutes = 0.4;
    options.n_units = 8;
    options.amplitude_min_uv = 60;
    options.median_rate = 16;
    options.seed = 12;
    std::string problem;
    ASSERT_TRUE(make_test_recording(options, tsf, {}, problem)) << problem;
    keeper.path = folder.file("a.partial.wrk");
  }

  // Opened, with settings under which every stage and every step of cleaning has something to do.
  void prepare(small_session& session, std::int32_t n_threads) const {
    session.user.default_answer = true;
    ASSERT_TRUE(open_recording(*session, tsf));
    use_threads(*session, n_threads);
    session->preferences.multi_threaded = n_threads > 1;
    session->cleaning.mask_bad_channels = session->cleaning.blank_artefacts = true;
    session->cleaning.remove_common_noise = true;
    session->matching.template_pass = true;
  }

  bool sort(small_session& session, sort_keeper* keeps) const {
    session->autosort.keeper = keeps;
    const bool done = autosort(*session);
    EXPECT_EQ(check_session(*session), "");
    return done;
  }

  std::vector<char> saved(const small_session& session) const {
    EXPECT_TRUE(write_work_file(*session.state, folder.file("s.wrk")));
    return read_bytes(folder.file("s.wrk"));
  }
};

std::vector<float> approval(const small_session& session) {
  const cluster_table& c = session.state->clusters;
  std::vector<float> all(c.cluster_sigma.first(), c.cluster_sigma.first() + cluster_limit);
  for (std::int32_t n = 1; n <= c.n_clusters; ++n) all.push_back(c.cluster_signed_off[n] ? 1 : 0);
  return all;
}

TEST_F(sort_keeper_test, goes_on_to_the_same_bits_wherever_it_was_stopped) {
  small_session whole;
  prepare(whole, 1);
  const std::int64_t first_poll = whole->operation.polls;
  ASSERT_TRUE(sort(whole, nullptr));
  const std::int64_t n_polls = whole->operation.polls - first_poll;
  const std::vector<char> file = saved(whole);
  ASSERT_GE(whole->clusters.n_clusters, 4);
  std::set<kept_stage> stages;
  constexpr std::int64_t n_stops = 14;
  for (std::int64_t stop = 1; stop <= n_stops; ++stop) {
    SCOPED_TRACE(stop);
    sort_keeper first;
    first.path = keeper.path;
    small_session stopped;
    prepare(stopped, stop % 2 == 0 ? 1 : 4);
    stopped->operation.interrupt_at_poll = stopped->operation.polls + stop * n_polls / n_stops;
    EXPECT_FALSE(sort(stopped, &first));
    stages.insert(first.kept);
    ASSERT_TRUE(write_kept_sort(first));

    sort_keeper second;
    second.path = keeper.path;
    second.resume = true;
    small_session resumed;
    prepare(resumed, stop % 2 == 0 ? 4 : 1);
    ASSERT_TRUE(sort(resumed, &second)) << resumed.user.all_lines();
    std::string told;
    compare_work_file_bytes(file, saved(resumed), told);
    EXPECT_EQ(told, "");
    EXPECT_TRUE(approval(resumed) == approval(whole));
    std::remove(keeper.path.c_str());
  }
  EXPECT_TRUE(stages.contains(kept_stage::detection));
  EXPECT_TRUE(stages.contains(kept_stage::first_pass));
  EXPECT_TRUE(stages.contains(kept_stage::merging));
}

TEST_F(sort_keeper_test, is_taken_up_by_the_same_sort_alone) {
  keeper.at_once = true;
  small_session first;
  prepare(first, 1);
  first->autosort.stop_after = stop_after_lists;
  ASSERT_TRUE(sort(first, &keeper));
  EXPECT_EQ(keeper.kept, kept_stage::first_pass);
  EXPECT_TRUE(keeper.on_disk && keeper.image.size == 0);
  const std::vector<char> whole = read_bytes(keeper.path);

  // The display, threads: nothing of the sort. A setting, a mask, a sample: another one.
  const auto takes_it_up = [&](auto&& change) {
    small_session session;
    prepare(session, 2);
    session->autosort.stop_after = stop_after_lists;
    change(*session);
    sort_keeper again;
    again.path = keeper.path;
    again.resume = true;
    const bool done = sort(session, &again);
    EXPECT_EQ(done, session.user.logged("Going on after the first pass"));
    EXPECT_NE(done, session.user.logged("is not of this sort"));
    EXPECT_TRUE(std::filesystem::exists(keeper.path));
    return done;
  };
  EXPECT_TRUE(takes_it_up([](session_state& s) { s.preferences.pixels_per_msec = 7; }));
  EXPECT_FALSE(takes_it_up([](session_state& s) { s.strategy.gac_threshold = 5; }));
  EXPECT_FALSE(takes_it_up([](session_state& s) { s.recording.chan_mask[2] = true; }));
  EXPECT_FALSE(takes_it_up([](session_state& s) { s.recording.vd.channel(3)[1010] ^= 64; }));

  // Torn anywhere, the note at its end among it; or without it, as saved by hand.
  for (const std::size_t length : {whole.size() - 1, whole.size() - 200, whole.size() / 2}) {
    write_bytes(keeper.path, {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)});
    EXPECT_FALSE(takes_it_up([](session_state&) {})) << length;
  }
  ASSERT_TRUE(write_work_file(*first, keeper.path));
  EXPECT_FALSE(takes_it_up([](session_state&) {}));
}

}  // namespace
}  // namespace kestrelvane::test
