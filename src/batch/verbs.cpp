#include "batch/verbs.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <string_view>

#include "batch/batch_version.h"

namespace kestrelvane {

namespace {

// Groups of options that a verb takes or not.
enum option_group : unsigned {
  takes_recording = 1u << 0,
  takes_output = 1u << 1,
  takes_settings = 1u << 2,
  takes_work = 1u << 3,
  takes_skips = 1u << 4,
  takes_stop = 1u << 5,
  takes_exports = 1u << 6,
  takes_results = 1u << 7,
  takes_json = 1u << 8,
  takes_score = 1u << 9,
  takes_test = 1u << 10,
  takes_quiet = 1u << 11,
};

enum class option_kind { text, texts, flag, count, seed, real };

struct option_row {
  unsigned group;
  const char* name;  // as CLI11 takes it; a positional has no dashes
  option_kind kind;
  void* (*where)(batch_options& options);
  const char* value;  // name of the value in --help
  const char* help;
  bool required;
  const char* choices;  // allowed words, separated by blanks; null: any
};

#define AT(member) [](batch_options& o) -> void* { return &o.member; }

// clang-format off
constexpr option_row option_rows[] = {
  {takes_recording, "recording", option_kind::text, AT(recording), "RECORDING", "the recording", true, nullptr},
  {takes_output, "output", option_kind::text, AT(output), "OUT.tsf", "the TSF file to write", true, nullptr},
  {takes_score, "sorted", option_kind::text, AT(sorted_path), "SORTED.csv", "exported sort", true, nullptr},
  {takes_score, "truth", option_kind::text, AT(truth_path), "TRUTH.csv", "planted spikes", true, nullptr},

  {takes_work, "--work", option_kind::text, AT(work), "FILE", "start from this work file", false, nullptr},
  {takes_skips, "--skip-detection", option_kind::flag, AT(skip_detection), "", "keep the events of the work file", false, nullptr},
  {takes_skips, "--skip-clustering", option_kind::flag, AT(skip_clustering), "", "keep the clusters of the work file", false, nullptr},
  {takes_settings, "--parameters", option_kind::text, AT(parameters), "FILE", "settings from a kv_parameters.sav", false, nullptr},
  {takes_settings, "--set", option_kind::texts, AT(set), "NAME=VALUE", "one setting; may be repeated", false, nullptr},
  {takes_settings, "--config", option_kind::text, AT(config), "FILE", "electrode configuration (.cfg)", false, nullptr},
  {takes_settings, "--mask", option_kind::text, AT(mask), "LIST", "channels that take no part, as 3,8-11", false, nullptr},
  {takes_settings, "--home", option_kind::text, AT(home), "DIR", "directory of the state files; none are read or written without it", false, nullptr},
  {takes_settings, "--threads", option_kind::count, AT(threads), "N", "threads of the heavy loops", false, nullptr},
  {takes_settings, "--serial", option_kind::flag, AT(serial), "", "no threads at all", false, nullptr},
  {takes_settings, "--answer", option_kind::text, AT(answer), "yes|no", "answer to every question (no)", false, "yes no"},
  {takes_settings, "--log", option_kind::text, AT(log), "FILE", "write the run log there", false, nullptr},
  {takes_stop, "--stop-after", option_kind::text, AT(stop_after), "STAGE", "detection, channel-clusters, first-pass, lists or all", false, "detection channel-clusters first-pass lists all"},
  {takes_results, "--save-work", option_kind::text, AT(save_work), "FILE", "write a work file", false, nullptr},
  {takes_exports, "--export", option_kind::texts, AT(exports), "FORMAT=PATH", "csv, txt or tsf; may be repeated", false, nullptr},
  {takes_results, "--report", option_kind::text, AT(report), "FILE.json", "settings, times, memory and units as JSON", false, nullptr},
  {takes_test, "--electrode", option_kind::text, AT(electrode), "NAME", "tetrode, polytrode, linear, utah or neuropixels", false, nullptr},
  {takes_test, "--channels", option_kind::count, AT(test.n_channels), "N", "sites", false, nullptr},
  {takes_test, "--minutes", option_kind::real, AT(test.minutes), "M", "duration", false, nullptr},
  {takes_test, "--rate", option_kind::count, AT(test.sampling_frequency), "HZ", "sampling frequency", false, nullptr},
  {takes_test, "--units", option_kind::count, AT(test.n_units), "N", "planted units", false, nullptr},
  {takes_test, "--amplitude-min", option_kind::real, AT(test.amplitude_min_uv), "UV", "smallest trough on the nearest site", false, nullptr},
  {takes_test, "--amplitude-max", option_kind::real, AT(test.amplitude_max_uv), "UV", "largest", false, nullptr},
  {takes_test, "--noise", option_kind::real, AT(test.noise_uv), "UV", "sensor noise and far units, rms", false, nullptr},
  {takes_test, "--firing-rate", option_kind::real, AT(test.median_rate), "HZ", "median over the units", false, nullptr},
  {takes_test, "--drift", option_kind::real, AT(test.drift_um), "UM", "along the probe, from start to end", false, nullptr},
  {takes_test, "--gain-change", option_kind::real, AT(test.gain_change), "PART", "-0.2 ends at 0.8 of the start", false, nullptr},
  {takes_test, "--seed", option_kind::seed, AT(test.seed), "N", "same seed, same bytes", false, nullptr},
  {takes_test, "--threads", option_kind::count, AT(test.n_threads), "N", "threads", false, nullptr},
  {takes_json, "--json", option_kind::flag, AT(json), "", "JSON instead of text", false, nullptr},
  {takes_quiet, "--quiet", option_kind::flag, AT(quiet), "", "no progress; problems are told all the same", false, nullptr},
};

constexpr unsigned sorts = takes_recording | takes_settings | takes_work | takes_skips |
                           takes_exports | takes_results | takes_quiet;

constexpr batch_verb verbs[] = {
  {"info", "what a recording holds", takes_recording | takes_settings | takes_json | takes_quiet, run_info},
  {"sort", "sort a recording into units", sorts | takes_stop, run_sort},
  {"detect", "find the events of a recording", sorts, run_detect},
  {"export", "write a saved sort for other tools", takes_recording | takes_settings | takes_work | takes_exports | takes_quiet, run_export},
  {"convert", "write a recording as TSF", takes_recording | takes_output | takes_settings | takes_quiet, run_convert},
  {"make-test", "make a recording with known units", takes_output | takes_test | takes_quiet, run_make_test},
  {"score", "how a sort agrees with planted units", takes_score | takes_json, run_score},
};
// clang-format on

#undef AT

std::vector<std::string> words_of(const char* text) { return CLI::detail::split(text, ' '); }

void add_option(CLI::App& verb, const option_row& row, batch_options& options) {
  void* where = row.where(options);
  CLI::Option* option = nullptr;
  switch (row.kind) {
    case option_kind::flag:
      verb.add_flag(row.name, *static_cast<bool*>(where), row.help);
      return;
    case option_kind::text:
      option = verb.add_option(row.name, *static_cast<std::string*>(where), row.help);
      break;
    case option_kind::texts:
      // One value each, so that a positional may follow.
      option = verb.add_option(row.name, *static_cast<std::vector<std::string>*>(where), row.help);
      option->expected(1)->take_all();
      break;
    case option_kind::count:
      option = verb.add_option(row.name, *static_cast<std::int32_t*>(where), row.help);
      option->check(CLI::PositiveNumber);
      break;
    case option_kind::seed:
      option = verb.add_option(row.name, *static_cast<std::uint64_t*>(where), row.help);
      break;
    case option_kind::real:
      option = verb.add_option(row.name, *static_cast<double*>(where), row.help);
      break;
  }
  option->type_name(row.value)->required(row.required);
  if ((row.group & takes_test) != 0) option->capture_default_str();
  if (row.choices != nullptr) option->check(CLI::IsMember(words_of(row.choices)));
}

bool is_verb(std::string_view word) {
  for (const batch_verb& verb : verbs) {
    if (word == verb.name) return true;
  }
  return false;
}

}  // namespace

int run_batch_command(int argc, const char* const* argv) {
  if (argc > 1 && argv[1][0] != '-' && !is_verb(argv[1])) {
    return static_cast<int>(refuse_usage(fmt::format("There is no verb \"{}\"", argv[1])));
  }
  CLI::App app{"Kestrelvane: spike sorting without windows", "kestrelvane-batch"};
  app.set_version_flag("--version", fmt::format("kestrelvane-batch {}", program_version));
  app.require_subcommand(1);
  batch_options options;
  for (const batch_verb& verb : verbs) {
    CLI::App* command = app.add_subcommand(verb.name, verb.summary);
    for (const option_row& row : option_rows) {
      if ((row.group & verb.option_groups) != 0) add_option(*command, row, options);
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // Help and version are results; anything else is wrong usage.
    return app.exit(error) == 0 ? 0 : static_cast<int>(batch_status::wrong_usage);
  }
  for (const batch_verb& verb : verbs) {
    if (app.got_subcommand(verb.name)) return static_cast<int>(verb.run(options));
  }
  return static_cast<int>(batch_status::wrong_usage);
}

}  // namespace kestrelvane
