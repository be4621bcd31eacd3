// Resuming, recovering and leaving: state files, questions, and the timed save.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

#include "operations/kept_states.h"
#include "operations/open_recording.h"
#include "operations/program_run.h"
#include "operations/recovery.h"
#include "results/work_file.h"
#include "signal/filter_chain.h"
#include "support/fixture_files.h"
#include "support/full_device.h"
#include "support/small_session.h"
#include "support/work_file_fixture.h"

namespace kestrelvane::test {
namespace {

using std::filesystem::exists;

constexpr const char* resume_question = "Resume previous state?";
constexpr const char* recover_question = "Recover information from previous run?";
constexpr const char* filter_question = "Repeat previous filtering?";

// A home directory and a recording; each run of the program is a session of its own.
struct recovery_test : ::testing::Test {
  temporary_directory home, data;
  std::string recording = data.file("small.tsf");
  std::string restart = home.file(restart_file_name);
  std::string autorecover = home.file(autorecover_file_name);
  std::string temporary = home.file(autorecover_temporary_name);

  recovery_test() { write_recording(3); }

  void write_recording(std::int32_t n_channels) {
    tsf_fixture f;
    f.n_channels = n_channels;
    f.n_samples = 20000;
    write_bytes(recording, tsf_bytes(f));
  }

  // The recording with a sort of seven events over it.
  void open_sorted(small_session& run) {
    run->home_directory = home.path;
    ASSERT_TRUE(open_recording(*run, recording));
    work_file_content content;
    content.n_filters = 0;
    content.scalars["recording_filtered"] = 0;
    write_bytes(data.file("sort.wrk"), make_work_file(content).bytes);
    bool wrong_file = false;
    ASSERT_TRUE(read_work_file(*run, data.file("sort.wrk"), wrong_file));
  }

  // A state file as an earlier run left it; a comment tells the two apart.
  void leave_state(const std::string& path, bool filtered = false) {
    small_session run;
    open_sorted(run);
    if (filtered) {
      run->filter.do_channel_means = run->filter.do_high_pass = true;
      ASSERT_TRUE(run_filter_chain(*run));
    }
    run->clusters.cluster_comment[1].assign(path == restart ? "restart" : "autorecover");
    ASSERT_TRUE(path == restart ? save_restart(*run) : save_autorecover(*run));
  }

  // The next run, up to where the user takes over.
  bool start(small_session& run, bool yes, const std::string& argument = "") {
    run->home_directory = home.path;
    run.user.default_answer = yes;
    const bool opened = open_at_start(*run, argument);
    EXPECT_EQ(check_session(*run), "");
    EXPECT_FALSE(run->operation.reader_running);
    return opened;
  }
};

std::string first_comment(small_session& run) {
  return std::string(run->clusters.cluster_comment[1].view());
}

// ---------------------------------------------------------------- start

TEST_F(recovery_test, what_is_asked_at_the_start_follows_the_files) {
  struct row {
    bool restart, autorecover, yes;
    const char* question;  // the only one; empty: none
    const char* result;    // comment of the state in memory; empty: no recording
    bool leaves_restart, leaves_autorecover;
  };
  const row rows[] = {
      {false, false, true, "", "", false, false},
      {true, false, false, resume_question, "", false, false},
      {false, true, false, recover_question, "", false, true},
      {false, true, true, recover_question, "autorecover", false, true},
      {true, true, false, resume_question, "", false, true},
      // What was resumed is what a crash before the next save would lose.
      {true, false, true, resume_question, "restart", false, true},
      {true, true, true, resume_question, "restart", false, true},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.restart << r.autorecover << r.yes);
    std::filesystem::remove(restart);
    std::filesystem::remove(autorecover);
    if (r.restart) leave_state(restart);
    if (r.autorecover) leave_state(autorecover);
    write_bytes(temporary, {'x'});
    small_session run;
    EXPECT_EQ(start(run, r.yes), *r.result != '\0');
    ASSERT_EQ(run.user.questions.size(), *r.question != '\0' ? 1u : 0u);
    EXPECT_TRUE(*r.question == '\0' || run.user.questions[0].text == r.question);
    EXPECT_EQ(first_comment(run), r.result);
    EXPECT_EQ(run->events.n_events, *r.result != '\0' ? 7 : 0);
    EXPECT_EQ(exists(restart), r.leaves_restart);
    EXPECT_EQ(exists(autorecover), r.leaves_autorecover);
    EXPECT_TRUE(r.restart || !exists(temporary)) << "a save that was cut off";
    if (!r.leaves_autorecover || !r.yes) continue;
    small_session after_crash;
    EXPECT_TRUE(start(after_crash, true));
    EXPECT_EQ(first_comment(after_crash), r.result);
  }
}

TEST_F(recovery_test, a_named_recording_comes_before_earlier_states) {
  leave_state(restart);
  leave_state(autorecover);
  {
    small_session run;
    EXPECT_FALSE(start(run, false, recording + "absent"));
    EXPECT_EQ(run.user.questions.size(), 1u) << "as without an argument";
  }
  leave_state(restart);
  const std::vector<char> before = read_bytes(autorecover);
  {
    small_session run;
    write_bytes(data.file("a.txt"), {'x'});
    EXPECT_FALSE(start(run, true, data.file("a.txt")));
    EXPECT_TRUE(run.user.questions.empty());
    EXPECT_TRUE(run.user.told("Unrecognised file type in command line", "Open a recording file"));
    EXPECT_TRUE(exists(restart));
    EXPECT_EQ(read_bytes(autorecover), before);
  }
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(data.path);
  small_session run;
  EXPECT_TRUE(start(run, true, "small.tsf"));
  std::filesystem::current_path(here);
  EXPECT_TRUE(run.user.questions.empty());
  EXPECT_NE(read_bytes(autorecover), before) << "saved once";
  const std::vector<kept_state> kept = list_kept_states(*run);
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(read_bytes(kept[0].path), before) << "nobody was asked about it";
  std::filesystem::remove(restart);
  // From another directory than that one.
  small_session next;
  EXPECT_TRUE(start(next, true));
  EXPECT_EQ(next->recording.recording_path, recording);
}

// ---------------------------------------------------------------- what cannot be had

TEST_F(recovery_test, without_its_recording_a_state_waits) {
  for (const std::string& path : {restart, autorecover}) {
    leave_state(path);
    const std::vector<char> state = read_bytes(path);
    const std::string name = std::filesystem::path(path).filename();
    {
      SCOPED_TRACE("moved away: " + name);
      std::filesystem::remove(recording);
      small_session run;
      EXPECT_FALSE(start(run, true));
      EXPECT_TRUE(
          run.user.told("The data file in " + name + " cannot be found", "Open a recording file"));
      EXPECT_EQ(run.user.run_log_window, std::vector<std::string>{"Looking for " + recording});
      EXPECT_EQ(read_bytes(path), state);
    }
    {
      SCOPED_TRACE("not readable: " + name);
      write_bytes(recording, {'x', 'y'});
      small_session run;
      EXPECT_FALSE(start(run, true));
      EXPECT_EQ(run.user.run_log_window.at(0), "Restarting with " + recording);
      EXPECT_TRUE(run.user.logged("Aborting read of " + recording));
      EXPECT_EQ(read_bytes(path), state);
    }
    {
      SCOPED_TRACE("another one in its place: " + name);
      write_recording(2);
      small_session run;
      EXPECT_TRUE(start(run, true)) << "the recording without the results";
      EXPECT_EQ(run->events.n_events, 0);
      EXPECT_TRUE(run.user.logged("error reading " + name));
      EXPECT_EQ(read_bytes(path), state);
    }
    write_recording(3);
    small_session run;
    EXPECT_TRUE(start(run, true));
    EXPECT_EQ(run->events.n_events, 7);
    std::filesystem::remove(autorecover);
  }
}

TEST_F(recovery_test, damaged_states_are_told_of_and_do_no_harm) {
  struct damage {
    std::int64_t length;  // negative: from the end
    const char* restart;
    const char* autorecover;
  };
  const char* resume_failed = "Resume failed; error reading kv_restart.sav 0 0";
  const char* recover_failed = "Autorecover failed; error reading kv_autorecover.sav";
  const char* no_path = "Failed to read file kv_restart.sav";
  const char* early_end = "Autorecover failed; early end to file kv_autorecover.sav";
  const damage damages[] = {{0, no_path, early_end},
                            {24, no_path, early_end},
                            {279, no_path, early_end},
                            {280, resume_failed, recover_failed},
                            {2000, resume_failed, recover_failed},
                            {-1, resume_failed, recover_failed}};
  for (const std::string& path : {restart, autorecover}) {
    std::filesystem::remove(restart);
    leave_state(path);
    const std::vector<char> whole = read_bytes(path);
    for (const damage& d : damages) {
      SCOPED_TRACE(path + " cut at " + std::to_string(d.length));
      std::vector<char> cut = whole;
      cut.resize(d.length < 0 ? cut.size() - 1 : static_cast<std::size_t>(d.length));
      write_bytes(path, cut);
      small_session run;
      EXPECT_EQ(start(run, true), d.length < 0 || d.length >= 280);
      EXPECT_EQ(run.user.lines.empty() ? "" : run.user.lines.back(),
                path == restart ? d.restart : d.autorecover);
      EXPECT_EQ(run->events.n_events, 0);
      EXPECT_TRUE(exists(path));
    }
    std::mt19937 random(7);
    std::vector<char> garbage(5000);
    for (char& byte : garbage) byte = static_cast<char>(random());
    write_bytes(path, garbage);
    small_session run;
    EXPECT_FALSE(start(run, true));
    EXPECT_EQ(run.user.boxes.size(), 1u);
  }
}

TEST_F(recovery_test, a_state_of_another_recording_needs_consent) {
  leave_state(restart);
  work_file_content content;
  content.recording_path = "other.tsf";
  // Another program exchanges the file while the recording is read.
  small_session run;
  run.user.on_status = [&](const std::string& text) {
    if (text == recording) write_bytes(restart, make_work_file(content).bytes);
  };
  run->home_directory = home.path;
  EXPECT_FALSE(open_restart(*run));
  ASSERT_EQ(run.user.questions.size(), 1u);
  EXPECT_EQ(run.user.questions[0].title, "Warning: filename mismatch");
  EXPECT_TRUE(run.user.logged("Bad resume file name kv_restart.sav"));
  EXPECT_EQ(run->recording.recording_path, recording);
  EXPECT_EQ(run->events.n_events, 0) << "not read";
  EXPECT_FALSE(run->operation.reader_running);
}

// ---------------------------------------------------------------- filters

TEST_F(recovery_test, filtering_is_repeated_over_the_samples_read_again) {
  small_session filtered;
  open_sorted(filtered);
  filtered->filter.do_channel_means = filtered->filter.do_high_pass = true;
  ASSERT_TRUE(run_filter_chain(*filtered));
  for (const std::string& path : {restart, autorecover}) {
    SCOPED_TRACE(path);
    std::filesystem::remove(autorecover);
    leave_state(path, true);
    small_session run;
    ASSERT_TRUE(start(run, true));
    EXPECT_TRUE(run.user.asked(filter_question, "Kestrelvane"));
    for (std::int32_t c = 1; c <= 3; ++c) {
      const std::int16_t* now = run->recording.vd.channel(c);
      const std::int16_t* then = filtered->recording.vd.channel(c);
      EXPECT_TRUE(std::equal(now + 1, now + 20001, then + 1)) << "channel " << c;
      EXPECT_EQ(run->recording.chan_noise[c], filtered->recording.chan_noise[c]);
    }
    EXPECT_EQ(run->filter_history.n_entries, 2);
    EXPECT_TRUE(run->recording.recording_filtered);
    EXPECT_TRUE(run->recording.means_zeroed);
    EXPECT_EQ(run->events.n_events, 7);
  }
}

TEST_F(recovery_test, no_to_the_filters_forgets_them_on_resuming_alone) {
  for (const std::string& path : {restart, autorecover}) {
    SCOPED_TRACE(path);
    std::filesystem::remove(autorecover);
    leave_state(path, true);
    small_session run;
    run.user.answers[filter_question] = false;
    ASSERT_TRUE(start(run, true));
    EXPECT_TRUE(run.user.asked(filter_question, "Kestrelvane"));
    EXPECT_EQ(run->filter_history.n_entries, path == restart ? 0 : 2);
    EXPECT_FALSE(run->recording.recording_filtered);
    EXPECT_FALSE(run->recording.means_zeroed);
    EXPECT_EQ(run->recording.vd.channel(2)[77], fixture_sample(2, 77));
    EXPECT_EQ(run->events.n_events, 7);
  }
}

// ---------------------------------------------------------------- leaving

TEST_F(recovery_test, a_clean_exit_leaves_what_the_answer_says) {
  for (const bool yes : {false, true}) {
    SCOPED_TRACE(yes);
    small_session run;
    open_sorted(run);
    ASSERT_TRUE(save_autorecover(*run));
    write_bytes(temporary, {'x'});
    run.user.default_answer = yes;
    EXPECT_TRUE(end_session(*run, exit_way::frame));
    EXPECT_TRUE(run.user.asked("Save program state for next time?", "Exit Kestrelvane"));
    EXPECT_EQ(exists(restart), yes);
    EXPECT_FALSE(exists(autorecover));
    EXPECT_FALSE(exists(temporary));
    EXPECT_TRUE(exists(home.file("kv_parameters.sav")));
    EXPECT_TRUE(exists(home.file("kv_prefs.sav")));
  }
  // Without a recording nothing is asked, and an earlier state is not touched.
  small_session empty;
  empty->home_directory = home.path;
  EXPECT_TRUE(end_session(*empty, exit_way::frame));
  EXPECT_TRUE(empty.user.questions.empty());
  EXPECT_TRUE(exists(restart));
  EXPECT_TRUE(end_session(*empty, exit_way::menu));
  EXPECT_FALSE(exists(restart));
}

// What can be known of a file before the read costs the sort in memory nothing; what cannot is
// paid for from the state that was saved first.
TEST_F(recovery_test, a_failed_open_gives_the_earlier_sort_back) {
  small_session run;
  open_sorted(run);
  run->clusters.cluster_comment[1].assign("hours of work");
  run.user.default_answer = true;
  write_bytes(data.file("empty.tsf"), {});
  write_bytes(data.file("label.plx"), std::vector<char>(8000, 'x'));
  write_bytes(data.file("short.ncs"), std::vector<char>(200, '#'));
  const std::pair<const char*, const char*> cases[] = {
      {"empty.tsf", "Error reading tsf data file: {} is empty"},
      {"label.plx", "Can't open it: {} does not begin as a file of this format does"},
      {"short.ncs", "Error reading .ncs file: {} ends within its header"}};
  for (const auto& [name, words] : cases) {
    EXPECT_FALSE(prepare_open_recording(*run, {data.file(name)})) << name;
    EXPECT_TRUE(run.user.told(fmt::format(fmt::runtime(words), data.file(name)))) << name;
  }
  EXPECT_EQ(first_comment(run), "hours of work");

  // Cut off after its label: the reader finds out.
  const std::string cut = data.file("cut.tsf");
  std::vector<char> bytes = read_bytes(recording);
  bytes.resize(200);
  write_bytes(cut, bytes);
  const auto request = prepare_open_recording(*run, {cut});
  ASSERT_TRUE(request);
  EXPECT_TRUE(open_recording_or_return(*run, *request));
  EXPECT_EQ(run->recording.recording_path, recording);
  EXPECT_EQ(first_comment(run), "hours of work");
  EXPECT_EQ(check_session(*run), "");

  // A reading that the user ends is no other, and the press is not for the way back.
  run->operation.reading_interrupted = true;
  EXPECT_TRUE(open_recording_or_return(*run, {recording, file_type_tsf}));
  EXPECT_EQ(first_comment(run), "hours of work") << "the recording alone has none";

  run.user.default_answer = false;
  EXPECT_FALSE(open_recording_or_return(*run, *request));
  EXPECT_EQ(run->recording.n_samples, 0);
}

TEST_F(recovery_test, escape_is_no_answer) {
  small_session run;
  open_sorted(run);
  ASSERT_TRUE(save_autorecover(*run));
  ASSERT_TRUE(save_restart(*run));
  run.user.leaves_boxes = true;
  EXPECT_FALSE(end_session(*run, exit_way::menu));
  EXPECT_TRUE(exists(autorecover) && exists(restart));
  EXPECT_FALSE(exists(home.file("kv_parameters.sav")));

  small_session next;
  next->home_directory = home.path;
  next.user.leaves_boxes = true;
  EXPECT_FALSE(open_at_start(*next, ""));
  EXPECT_TRUE(next.user.asked("Resume previous state?", "Kestrelvane"));
  EXPECT_TRUE(exists(restart)) << "offered again";
}

TEST_F(recovery_test, the_recovery_file_outlives_the_question_and_a_full_disk) {
  small_session run;
  open_sorted(run);
  ASSERT_TRUE(save_autorecover(*run));
  const std::vector<char> state = read_bytes(autorecover);
  // The machine may die while the question stands.
  static std::string watched;
  static bool stood = false;
  watched = autorecover;
  run->ui.ask_openly = [](void*, const std::string&, const std::string&) {
    stood = exists(watched);
    return user_answer::yes;
  };
  {
    const full_device full;
    EXPECT_FALSE(end_session(*run, exit_way::frame)) << "the program stays, with the sort";
  }
  EXPECT_TRUE(stood);
  EXPECT_TRUE(
      run.user.told("Failed to save file kv_restart.sav: File too large", "Exit Kestrelvane"));
  EXPECT_FALSE(exists(restart));
  EXPECT_FALSE(exists(temporary));
  EXPECT_EQ(read_bytes(autorecover), state) << "offered by the next run";
}

TEST_F(recovery_test, a_state_that_cannot_be_saved_is_one_line_of_the_log) {
  small_session run;
  open_sorted(run);
  run->home_directory = home.file("gone");
  autorecover_timer timer;
  timer.look_every = timer.edit_rest = std::chrono::milliseconds(1);
  run->operation.unsaved = unsaved_results::run;
  start_autorecover(timer, *run);
  // Edits, once a first save has failed, which are tried again from then on.
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (run->operation.unsaved != unsaved_results::edits &&
         std::chrono::steady_clock::now() < patience) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  stop_autorecover(timer);
  const auto is_loss = [](const std::string& line) {
    return line.find("/kv_autorecover.sav: No such file") != std::string::npos;
  };
  EXPECT_EQ(std::count_if(run.user.lines.begin(), run.user.lines.end(), is_loss), 1);
  EXPECT_TRUE(run.user.boxes.empty());
}

TEST_F(recovery_test, failed_saves_show_nothing_and_keep_the_older_file) {
  small_session run;
  open_sorted(run);
  ASSERT_TRUE(save_autorecover(*run));
  const std::vector<char> state = read_bytes(autorecover);
  run->clusters.cluster_comment[1].assign("newer");
  run.user.boxes.clear();
  {
    const full_device full;
    EXPECT_FALSE(save_autorecover(*run));
  }
  EXPECT_EQ(read_bytes(autorecover), state);
  EXPECT_TRUE(run.user.boxes.empty());
  EXPECT_FALSE(run->operation.autorecover_busy || run->operation.work_save_busy);

  small_session empty;
  empty->home_directory = home.path;
  EXPECT_FALSE(save_autorecover(*empty) || save_restart(*empty)) << "no recording";
  EXPECT_EQ(read_bytes(autorecover), state);
}

TEST_F(recovery_test, without_a_home_nothing_is_read_or_written) {
  const temporary_directory elsewhere;
  const auto here = std::filesystem::current_path();
  std::filesystem::current_path(elsewhere.path);
  small_session run;
  open_sorted(run);
  run->home_directory.clear();
  run.user.default_answer = true;
  EXPECT_FALSE(save_autorecover(*run) || save_restart(*run));
  EXPECT_FALSE(open_restart(*run) || open_autorecover(*run));
  open_at_start(*run, recording);
  end_session(*run, exit_way::menu);
  std::filesystem::current_path(here);
  EXPECT_TRUE(run.user.questions.empty());
  EXPECT_TRUE(run.user.boxes.empty());
  EXPECT_TRUE(std::filesystem::is_empty(elsewhere.path));
}

}  // namespace
}  // namespace kestrelvane::test
