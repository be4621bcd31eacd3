// make-test and score: recordings with known truth, and how well a sort finds it.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "batch/score.h"
#include "batch/verbs.h"

namespace kestrelvane {

batch_status run_make_test(const batch_options& options) {
  test_recording_options test = options.test;
  if (!electrode_from_name(options.electrode, test.electrode)) {
    return refuse_usage(
        fmt::format("--electrode {}: not one of {}", options.electrode, electrode_names()));
  }
  const std::string wrong = validate_test_recording(test);
  if (!wrong.empty()) return refuse_usage(wrong);
  // The maker needs the console for its bar alone.
  batch_session batch;
  console_interface& console = batch.console;
  console.quiet = options.quiet;
  console.terminal = standard_error_is_terminal();
  attach_console(console, *batch.session);
  std::string problem;
  const bool made = make_test_recording(
      test, options.output,
      [&](int percent) { set_progress(*batch.session, meter::saving, percent, 100); }, problem);
  if (!made) return fail_batch(batch, problem);
  finish_console(console);
  if (!options.quiet) fmt::print("{}\n", options.output);
  return batch_status::done;
}

batch_status run_score(const batch_options& options) {
  sort_score score;
  std::string problem;
  if (!score_files(options.sorted_path, options.truth_path, score, problem)) {
    fmt::print(stderr, "{}\n", problem);
    return batch_status::failed;
  }
  fmt::print("{}", options.json ? score_json(score).dump(2) + "\n" : score_table(score));
  return batch_status::done;
}

}  // namespace kestrelvane
