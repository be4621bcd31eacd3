// make-test and score: recordings with known truth, and how well a sort finds it.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "batch/outputs.h"
#include "batch/verbs.h"
#include "synthesis/family_recording.h"
#include "synthesis/score.h"

namespace kestrelvane {

namespace {

// Makes a recording under a bar; what it is follows from the verb's options.
template <typename Make>
batch_status make_recording(const batch_options& options, Make&& make) {
  // Links may make one file of two of the three.
  const std::string stem = path_stem(options.output);
  const std::string clash = find_clash(options, {}, {stem + ".truth.csv", stem + ".units.csv"});
  if (!clash.empty()) return refuse_usage(clash);
  // The maker needs the console for its bar alone.
  batch_session batch;
  console_interface& console = batch.console;
  console.quiet = options.quiet;
  console.terminal = standard_error_is_terminal();
  attach_console(console, *batch.session);
  const auto progress = [&](int percent) {
    set_progress(*batch.session, meter::saving, percent, 100);
    return true;
  };
  std::string problem;
  if (!make(progress, problem)) return fail_batch(batch, problem);
  finish_console(console);
  // The one line on standard output, for scripts that go on with the file.
  return options.quiet ? batch_status::done : print_result(batch, options.output + "\n");
}

batch_status make_family(const batch_options& options) {
  const recording_family* family = find_family(options.family);
  if (family == nullptr) {
    return refuse_usage(
        fmt::format("--family {}: not one of those that --families lists", options.family));
  }
  family_options made;
  family->set(made);
  if (!std::isnan(options.minutes)) made.seconds = 60 * options.minutes;
  return make_recording(options, [&](const auto& progress, std::string& problem) {
    return make_family_recording(made, options.test.seed, options.test.n_threads, options.output,
                                 progress, problem);
  });
}

}  // namespace

batch_status run_make_test(const batch_options& options) {
  if (options.families) {
    batch_session batch;
    return print_result(batch, family_list());
  }
  if (options.output.empty()) return refuse_usage("output is required");
  if (!options.family.empty()) return make_family(options);
  test_recording_options test = options.test;
  if (!std::isnan(options.minutes)) test.minutes = options.minutes;
  if (!electrode_from_name(options.electrode, test.electrode)) {
    return refuse_usage(
        fmt::format("--electrode {}: not one of {}", options.electrode, electrode_names()));
  }
  const std::string wrong = validate_test_recording(test);
  if (!wrong.empty()) return refuse_usage(wrong);
  return make_recording(options, [&](const auto& progress, std::string& problem) {
    return make_test_recording(test, options.output, progress, problem);
  });
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

bool knows_snr(const sort_score& score) {
  return std::any_of(score.units.begin(), score.units.end(),
                     [](const unit_score& u) { return u.snr > 0; });
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
  if (options.min_snr <= 0 || std::isinf(options.min_snr)) {
    return refuse_usage(fmt::format("--min-snr {}: not a number above 0", options.min_snr));
  }
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
  score.min_snr = std::isnan(options.min_snr) ? 0 : options.min_snr;
  // A list without SNRs would count no unit at all, as if none stood out.
  if (score.min_snr > 0 && !knows_snr(score)) {
    return fail_batch(batch,
                      "No SNR is known: there is no list with them beside " + options.truth_path);
  }
  return print_result(batch, options.json ? score_json(score).dump(2) + "\n" : score_table(score));
}

}  // namespace kestrelvane
