// Sessions of the program for tests that take the disk away, kill, or set everything at random.
//
//   save HOME RECORDING WORK   opens both and saves settings, recovery and restart file; a line
//                              "NAME saved" or "NAME failed" for each
//   settings SEED FOLDER       sorts and reviews a small recording with settings drawn by the
//                              seed; status 0 when it came to its end with the session in order
//   work HOME RECORDING FOLDER filters, detects, sorts, reviews, saves, exports, and again from
//                              the beginning, until it is killed; a line for each of these
//
// What the program says to its user goes to standard error.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "numerics/parallel.h"
#include "operations/autosort.h"
#include "operations/detection_run.h"
#include "operations/open_recording.h"
#include "operations/recovery.h"
#include "results/exports.h"
#include "results/work_file.h"
#include "review/post_processing.h"
#include "session/session_gate.h"
#include "session/settings_files.h"
#include "signal/filter_chain.h"
#include "support/random_review.h"
#include "support/random_settings.h"
#include "support/scripted_interface.h"
#include "support/small_session.h"
#include "synthesis/test_recording.h"

using namespace kestrelvane;
using namespace kestrelvane::test;

namespace {

void tell(const small_session& session) {
  for (const std::string& line : session.user.lines) std::fprintf(stderr, "%s\n", line.c_str());
  for (const auto& box : session.user.boxes) std::fprintf(stderr, "%s\n", box.text.c_str());
  for (const std::string& status : session.user.statuses) {
    std::fprintf(stderr, "%s\n", status.c_str());
  }
}

int save(const std::string& home, const std::string& recording, const std::string& work) {
  small_session session;
  session->home_directory = home;
  session.user.default_answer = true;
  bool wrong_file = false;
  if (!open_recording(*session, recording) || !read_work_file(*session, work, wrong_file)) return 3;
  session->clusters.cluster_comment[1].assign("new");
  session->strategy.min_cluster_size = 17;
  session->preferences.pc_display_scale = 3;
  const auto told = [](const char* name, bool saved) {
    std::printf("%s %s\n", name, saved ? "saved" : "failed");
  };
  told("parameters", write_parameters(*session));
  told("preferences", write_preferences(*session));
  told("recovery", save_autorecover(*session));
  told("restart", save_restart(*session));
  tell(session);
  return 0;
}

// ---------------------------------------------------------------- endings

// Of CPU time; what takes longer on a few seconds of four channels does not end.
constexpr rlim_t most_seconds = 60;

bool make_recording_of(std::uint32_t seed, const std::string& path) {
  constexpr test_electrode electrodes[] = {test_electrode::tetrode, test_electrode::polytrode,
                                           test_electrode::linear};
  test_recording_options options;
  options.electrode = electrodes[seed % 3];
  options.n_channels = 4 + static_cast<std::int32_t>(seed / 3 % 3) * 2;
  if (options.electrode == test_electrode::tetrode) options.n_channels = 4;
  options.minutes = 0.08;
  options.n_units = 3;
  options.median_rate = 30;
  options.sampling_frequency = 20000;
  options.seed = seed;
  std::string problem;
  if (make_test_recording(options, path, {}, problem)) return true;
  std::fprintf(stderr, "%s\n", problem.c_str());
  return false;
}

bool is_in_order(const small_session& session, const char* after) {
  const std::string problem = check_session(*session.state);
  if (!problem.empty()) std::fprintf(stderr, "after %s: %s\n", after, problem.c_str());
  return problem.empty();
}

// The tools of the review draw their own numbers; those of the settings are tried by these.
void post_process(session_state& session) {
  begin_post_processing(session);
  alignment_clean(session, false);
  delete_shifted_events(session);
  relocate_duplicate_events(session);
  remove_duplicates_after_sort(session);
  renumber_clusters(session);
  delete_weak_clusters(session);
}

int sort_with_drawn_settings(std::uint32_t seed, const std::string& folder) {
  const rlimit limit{most_seconds, most_seconds};
  setrlimit(RLIMIT_CPU, &limit);
  const std::string recording = folder + "/" + std::to_string(seed) + ".tsf";
  small_session session;
  session.user.default_answer = true;
  if (!make_recording_of(seed, recording) || !open_recording(*session, recording)) return 3;
  use_threads(*session, 1);
  session->preferences.multi_threaded = false;
  // A recording of seconds has no clusters of the default's size; it is drawn as others are.
  session->strategy.min_cluster_size = 10;
  std::fprintf(stderr, "%s", draw_settings(*session, seed).c_str());
  run_filter_chain(*session);
  if (!is_in_order(session, "filters")) return 4;
  autosort(*session);
  if (!is_in_order(session, "Autosort")) return 4;
  post_process(*session);
  if (!is_in_order(session, "post-processing")) return 4;
  random_review user(seed);
  for (int i = 0; i < 10; ++i) {
    user.edit(*session);
    if (!is_in_order(session, "an edit")) return 4;
  }
  std::printf("%d events, %d clusters\n", session->events.n_events, session->clusters.n_clusters);
  return 0;
}

// ---------------------------------------------------------------- work

void note(const char* stage) {
  std::fprintf(stderr, "%s\n", stage);
  std::fflush(stderr);
}

// One recording from its first sample to its files; the gate is held by who changes the session.
bool work_once(small_session& session, const std::string& recording, const std::string& folder,
               random_review& user) {
  const session_hold hold(*session);
  note("open");
  if (!open_recording(*session, recording)) return false;
  note("filter");
  session->filter.do_common_mean = true;
  run_filter_chain(*session);
  note("detect");
  run_detection(*session);
  note("sort");
  session->strategy.min_cluster_size = 5;
  autosort(*session);
  note("review");
  for (int i = 0; i < 30; ++i) {
    user.edit(*session);
    yield_session(*session);
  }
  note("save");
  save_work_file_at(*session, folder + "/a.wrk");
  note("export");
  const export_format* csv = find_export_format("csv");
  csv->write(*session, folder + "/a.csv");
  return true;
}

int work(const std::string& home, const std::string& recording, const std::string& folder) {
  small_session session;
  session->home_directory = home;
  session.user.default_answer = true;
  session->ui.run_log_window = nullptr;  // the timer's thread writes there
  session->preferences.autorecover_minutes = 0.1f / 60;
  autorecover_timer timer;
  timer.look_every = std::chrono::milliseconds(10);
  timer.edit_rest = std::chrono::milliseconds(20);
  start_autorecover(timer, *session);
  random_review user(static_cast<unsigned>(getpid()));
  bool good = true;
  // Should nobody come to kill it.
  for (int i = 0; i < 100 && good; ++i) good = work_once(session, recording, folder, user);
  stop_autorecover(timer);
  return good ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
  flush_denormals();
  const std::string_view verb = argc > 1 ? argv[1] : "";
  if (verb == "save" && argc == 5) return save(argv[2], argv[3], argv[4]);
  if (verb == "settings" && argc == 4) {
    return sort_with_drawn_settings(static_cast<std::uint32_t>(std::atol(argv[2])), argv[3]);
  }
  if (verb == "work" && argc == 5) return work(argv[2], argv[3], argv[4]);
  return 2;
}
