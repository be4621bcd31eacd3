// A recovery save takes its turn in the middle of a sort, wherever that polls. What it
// catches reads back whole, and the sort does not notice.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "operations/autosort.h"
#include "operations/recovery.h"
#include "results/work_file.h"
#include "support/plain_forms.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

void make_raw(session_state& session, bool use_lockout) {
  make_busy_recording(session, 4, 500000, 52);
  session.events.n_events = 0;
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
  session.detection.use_lockout = use_lockout;
}

std::vector<std::int32_t> assignments(const session_state& session) {
  const std::int32_t n = session.events.n_events;
  std::vector<std::int32_t> all(session.events.event_cluster.first(),
                                session.events.event_cluster.first() + n);
  all.insert(all.end(), session.events.event_time.first(), session.events.event_time.first() + n);
  return all;
}

struct save_during_sort : ::testing::TestWithParam<bool> {
  temporary_directory home;
  small_session sorted, read_back;
  std::atomic<bool> finished{false};
  int saves = 0, with_events = 0, with_clusters = 0;

  save_during_sort() {
    make_raw(*sorted, GetParam());
    make_raw(*read_back, GetParam());
    sorted->home_directory = home.path;
    // The saver and the logging thread share the session, not this user.
    sorted->log.messages_dialog_open = false;
    sorted->ui.run_log_window = nullptr;
  }

  // Holds the gate while it looks, so that hardly a poll goes by unsaved.
  void save_at_every_poll() {
    while (!finished) {
      const session_hold hold(*sorted);
      if (!save_autorecover(*sorted)) continue;
      ++saves;
      bool wrong_file = false;
      ASSERT_TRUE(read_work_file(*read_back, home.file(autorecover_file_name), wrong_file))
          << read_back.user.all_lines();
      ASSERT_EQ(check_session(*read_back), "") << "save " << saves;
      ASSERT_EQ(assignments(*read_back), assignments(*sorted)) << "save " << saves;
      with_events += read_back->events.n_events > 0;
      with_clusters += read_back->clusters.n_clusters > 0;
    }
  }

  void log_meanwhile() {
    while (!finished) {
      log_message(*sorted, "a line from another thread");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  }
};

TEST_P(save_during_sort, reads_back_whole_at_every_poll) {
  small_session undisturbed;
  make_raw(*undisturbed, GetParam());
  ASSERT_TRUE(autosort(*undisturbed));

  enter_session(*sorted);
  std::thread saver([&] { save_at_every_poll(); });
  std::thread logger([&] { log_meanwhile(); });
  while (sorted->gate.next_ticket < 2) std::this_thread::yield();
  EXPECT_TRUE(autosort(*sorted));
  finished = true;
  leave_session(*sorted);
  saver.join();
  logger.join();

  EXPECT_EQ(assignments(*sorted), assignments(*undisturbed));
  EXPECT_GT(saves, 10);
  EXPECT_GT(with_events, 5);
  EXPECT_GT(with_clusters, 5);
  RecordProperty("saves", saves);
}

INSTANTIATE_TEST_SUITE_P(detectors, save_during_sort, testing::Bool(),
                         [](const auto& of) { return of.param ? "lockout" : "proto_events"; });

}  // namespace
}  // namespace kestrelvane::test
