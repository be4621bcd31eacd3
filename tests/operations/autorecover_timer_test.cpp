// The timed save on its own thread, beside a worker that holds the session.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "operations/recovery.h"
#include "results/work_file.h"
#include "support/recovery_victim.h"
#include "support/small_session.h"

namespace kestrelvane::test {
namespace {

using namespace std::chrono_literals;
using std::filesystem::exists;

constexpr float interval_ms = 100;
constexpr float never = 1.0e27f;

// Waits for what another thread does, far longer than it can take.
bool comes_true(const std::function<bool()>& condition) {
  for (int i = 0; i < 20000 && !condition(); ++i) std::this_thread::sleep_for(1ms);
  return condition();
}

struct timer_test : ::testing::Test {
  temporary_directory home;
  small_session session;
  autorecover_timer timer;
  std::string saved = home.file(autorecover_file_name);
  std::atomic<int> announced = 0;  // lines that the timer wrote
  std::atomic<bool> other_lines = false;

  timer_test() {
    make_recording(*session, 3, 10000);
    session->home_directory = home.path;
    session->preferences.autorecover_minutes = never;
    timer.look_every = 5ms;
    session->ui = {};
    session->ui.context = this;
    session->ui.run_log_window = [](void* context, std::string_view line) {
      auto& test = *static_cast<timer_test*>(context);
      if (line != "Saving autorecover data") test.other_lines = true;
      ++test.announced;
    };
    session->ui.tell = [](void*, const std::string&, const std::string&, box_icon) {};
  }
  ~timer_test() override { stop_autorecover(timer); }

  void run_every(float ms) {
    session->preferences.autorecover_minutes = ms / 60000.0f;
    start_autorecover(timer, *session);
  }
  // The timer's thread waits at the gate that the caller holds.
  bool save_is_waiting() {
    return comes_true([&] { return session->gate.next_ticket > session->gate.now_serving + 1; });
  }
};

TEST_F(timer_test, saves_come_at_the_interval) {
  const auto begun = std::chrono::steady_clock::now();
  run_every(interval_ms);
  for (int n = 1; n <= 4; ++n) {
    ASSERT_TRUE(comes_true([&] { return announced >= n; }));
    const std::chrono::duration<float, std::milli> passed =
        std::chrono::steady_clock::now() - begun;
    EXPECT_GE(passed.count(), static_cast<float>(n) * interval_ms);
    ASSERT_TRUE(comes_true([&] { return exists(saved); }));
    std::filesystem::remove(saved);
  }
  EXPECT_FALSE(other_lines);
  stop_autorecover(timer);
  const int at_stop = announced;
  std::this_thread::sleep_for(3ms * static_cast<int>(interval_ms) / 2);
  EXPECT_EQ(announced, at_stop);
}

TEST_F(timer_test, never_means_never_until_it_is_changed_or_asked_for) {
  start_autorecover(timer, *session);
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(announced, 0);
  EXPECT_FALSE(exists(saved));
  save_autorecover_soon(timer);
  EXPECT_TRUE(comes_true([&] { return exists(saved); }));
  EXPECT_EQ(announced, 0) << "not a timed one";
  set_autorecover_interval(timer, interval_ms / 60000.0f);
  EXPECT_TRUE(comes_true([&] { return announced > 0; }));
}

// A crash after a sort of hours must not wait for the interval.
TEST_F(timer_test, a_run_that_has_ended_is_saved_at_once_and_edits_now_and_then) {
  timer.edit_rest = 300ms;
  run_every(3'600'000);
  const auto begun = std::chrono::steady_clock::now();
  note_unsaved(*session, unsaved_results::run);
  ASSERT_TRUE(comes_true([&] { return exists(saved); }));
  std::filesystem::remove(saved);
  {
    // A worker that holds the session is not held up for its edits.
    const session_hold hold(*session);
    note_unsaved(*session, unsaved_results::edits);
    std::this_thread::sleep_for(350ms);
    EXPECT_EQ(session->gate.next_ticket, session->gate.now_serving + 1);
  }
  ASSERT_TRUE(comes_true([&] { return exists(saved); }));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, timer.edit_rest);
  EXPECT_EQ(announced, 0) << "not timed ones";

  set_autorecover_interval(timer, never);
  std::filesystem::remove(saved);
  note_unsaved(*session, unsaved_results::run);
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(exists(saved));
}

TEST_F(timer_test, without_a_recording_nothing_is_written) {
  reset_session(*session);
  run_every(interval_ms / 10);
  ASSERT_TRUE(comes_true([&] { return announced >= 3; }));
  stop_autorecover(timer);
  EXPECT_TRUE(std::filesystem::is_empty(home.path));
}

// A save takes its turn where the tables are whole, and nowhere else.
TEST_F(timer_test, a_worker_lets_the_save_in_at_its_polls_and_boxes) {
  const std::pair<const char*, std::function<void()>> places[] = {
      {"poll", [&] { autosort_interrupted(*session); }},
      {"box", [&] { tell(*session, "text", "title"); }},
  };
  start_autorecover(timer, *session);
  for (const auto& [name, wait] : places) {
    SCOPED_TRACE(name);
    std::filesystem::remove(saved);
    const session_hold hold(*session);
    save_autorecover_soon(timer);
    ASSERT_TRUE(save_is_waiting());
    EXPECT_FALSE(exists(saved));
    wait();
    EXPECT_TRUE(exists(saved));
    EXPECT_TRUE(holds_session(*session));
  }
}

TEST_F(timer_test, saves_between_changes_never_see_half_of_one) {
  small_session reader;
  make_recording(*reader, 3, victim_samples);
  make_recording(*session, 3, victim_samples);
  write_first_state(home.file("first.wrk"), "small.tsf");
  bool wrong_file = false;
  ASSERT_TRUE(read_work_file(*session, home.file("first.wrk"), wrong_file));
  run_every(10);
  std::int64_t k = 1, seen = 1;
  for (int i = 0; i < 5; ++i) {
    const int before = announced;
    ASSERT_TRUE(comes_true([&] {
      const session_hold hold(*session);
      make_change(*session, ++k);
      return announced >= before + 2;
    }));
    ASSERT_TRUE(read_work_file(*reader, saved, wrong_file));
    EXPECT_GT(change_of(*reader), seen);
    EXPECT_EQ(check_session(*reader), "");
    seen = change_of(*reader);
  }
}

TEST_F(timer_test, stopping_waits_for_the_save_under_way) {
  start_autorecover(timer, *session);
  const session_hold hold(*session);
  save_autorecover_soon(timer);
  ASSERT_TRUE(save_is_waiting());
  {
    const session_pause pause(*session);
    stop_autorecover(timer);
  }
  EXPECT_TRUE(exists(saved));
  EXPECT_FALSE(exists(home.file(autorecover_temporary_name)));
  stop_autorecover(timer);  // nothing to stop
}

}  // namespace
}  // namespace kestrelvane::test
