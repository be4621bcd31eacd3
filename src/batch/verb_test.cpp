// make-test and score: recordings with known truth, and how well a sort finds it.
#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "batch/verbs.h"
#include "synthesis/score.h"

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
  // The one line on standard output, for scripts that go on with the file.
  return options.quiet ? batch_status::done : print_result(batch, options.output + "\n");
}

namespace {

// What is wrong with the options that tell the noise, or an empty text.
std::string noise_problem(const batch_options& options) {
  if (std::isnan(options.noise_uv)) return {};
  if (!options.recording.empty()) {
    return "--noise and --recording both tell the noise: give one of them";
  }
  // Infinite noise would put every unit in the lowest band.
  if (options.noise_uv <= 0 || std::isinf(options.noise_uv)) {
    return fmt::format("--noise {}: not a voltage above 0", options.noise_uv);
  }
  return {};
}

batch_status measure_noise(const batch_options& options, double& noise_uv) {
  batch_session batch;
  batch_options opening = options;
  opening.quiet = true;  // the table is all that this verb prints
  batch_status status = start_batch(batch, opening, "score");
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  status = finish_batch(batch, status);
  if (status != batch_status::done) return status;
  noise_uv = median_noise_uv(*batch.session);
  // A file of zeros has none, and would put every unit in the highest band.
  if (noise_uv > 0) return status;
  return fail_batch(batch, "No noise was found in " + options.recording);
}

}  // namespace

batch_status run_score(const batch_options& options) {
  std::string problem = noise_problem(options);
  if (!problem.empty()) return refuse_usage(problem);
  double noise_uv = std::isnan(options.noise_uv) ? 0 : options.noise_uv;
  if (!options.recording.empty()) {
    const batch_status status = measure_noise(options, noise_uv);
    if (status != batch_status::done) return status;
  }
  sort_score score;
  batch_session batch;
  if (!score_files(options.sorted_path, options.truth_path, score, problem)) {
    return fail_batch(batch, problem);
  }
  // Bands need both; noise alone says nothing.
  if (noise_uv > 0 && !score.has_amplitudes) {
    return fail_batch(
        batch, "No amplitudes are known: there is no list of units beside " + options.truth_path);
  }
  score.noise_uv = noise_uv;
  return print_result(batch, options.json ? score_json(score).dump(2) + "\n" : score_table(score));
}

}  // namespace kestrelvane
