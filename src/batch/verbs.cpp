#include "batch/verbs.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <string_view>

#include "session/version.h"

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
  takes_draw = 1u << 12,
  takes_hdf = 1u << 13,
  takes_hdf_edits = 1u << 14,
  takes_values = 1u << 15,
  takes_replay = 1u << 16,
  takes_family = 1u << 17,
  takes_check = 1u << 18,
  takes_report = 1u << 19,
};

// A flag_or_list stands alone or is followed by a list of numbers; a positional_or_list may be
// missing where the verb is asked for a list instead.
enum class option_kind {
  positional,
  positional_or_list,
  text,
  texts,
  flag,
  flag_or_list,
  count,
  seed,
  real
};
using enum option_kind;

struct option_row {
  option_kind kind;
  unsigned group;
  const char* name;  // as the parser takes it; a positional has no dashes
  void* (*where)(batch_options& options);
  const char* value;  // its name in --help
  const char* help;
  const char* choices = nullptr;  // allowed words, separated by blanks; null: any
};

#define AT(member) [](batch_options& o) -> void* { return &o.member; }

// clang-format off
constexpr option_row option_rows[] = {
  {positional, takes_recording, "recording", AT(recording), "RECORDING", "the recording"},
  {positional, takes_output, "output", AT(output), "OUT.tsf", "the TSF file to write"},
  {positional_or_list, takes_family, "output", AT(output), "OUT.tsf", "the TSF file to write"},
  {positional, takes_score, "sorted", AT(sorted_path), "SORTED.csv", "exported sort"},
  {positional, takes_score, "truth", AT(truth_path), "TRUTH.csv", "planted spikes"},

  {text, takes_work, "--work", AT(work), "FILE", "start from this work file"},
  {flag, takes_skips, "--skip-detection", AT(skip_detection), "", "keep its events"},
  {flag, takes_skips, "--skip-clustering", AT(skip_clustering), "", "keep its clusters too"},
  {text, takes_skips, "--preset", AT(preset),
      "NAME", "filters and settings that go together: Standard (what is stored), Sensitive, Thorough; --set and --filter on top of it"},
  {text, takes_settings, "--parameters", AT(parameters),
      "FILE", "settings from a kv_parameters.sav"},
  {texts, takes_settings, "--set", AT(set), "NAME=VALUE", "one setting; may be repeated"},
  {text, takes_settings, "--config", AT(config), "FILE", "electrode configuration (.cfg)"},
  {text, takes_settings, "--stream", AT(stream),
      "NAME", "of a recording with several streams: its name or number from 1"},
  {text, takes_settings, "--mask", AT(mask), "LIST", "channels that take no part, as 3,8-11"},
  {text, takes_hdf, "--hdf-path", AT(hdf_path),
      "PLACE", "dataset of voltages in an HDF5 or NWB file; info lists them"},
  {text, takes_hdf_edits, "--rate", AT(rate), "HZ", "its sampling frequency (as the file says)"},
  {text, takes_hdf_edits, "--scale", AT(scale), "UV", "µV per bit (as the file says)"},
  {texts, takes_settings, "--filter", AT(filters), "FILTER",
      "auto (a high pass if the recording looks unfiltered), means, common-mean, spatial:RADIUS, temporal, phase:F0:SHIFT, highpass:F0:POLES, "
      "lowpass:F0:POLES, notch or compressive:UV, with RADIUS in um, F0 in kHz, SHIFT in degrees "
      "per decade; may be repeated. Applied in this order, whatever the order here; a low pass "
      "follows a high pass"},
  {text, takes_settings, "--home", AT(home),
      "DIR", "directory of the state files; none are read or written without it"},
  {count, takes_settings, "--threads", AT(threads), "N", "threads of the heavy loops"},
  {flag, takes_settings, "--serial", AT(serial), "", "no threads at all"},
  {text, takes_settings, "--answer", AT(answer), "yes|no", "to every question (no)", "yes no"},
  {text, takes_settings, "--log", AT(log), "FILE", "write the run log there"},
  {text, takes_stop, "--stop-after", AT(stop_after),
      "STAGE", "detection, channel-clusters, first-pass, lists or all",
      "detection channel-clusters first-pass lists all"},
  {flag, takes_stop, "--checkpoint", AT(checkpoint),
      "", "write what has been done to NAME.partial.wrk after each stage, not only when interrupted"},
  {flag, takes_stop, "--resume", AT(resume),
      "", "go on with NAME.partial.wrk of an interrupted run, if there is one"},
  {text, takes_results, "--save-work", AT(save_work), "FILE", "write a work file"},
  {flag, takes_results, "--skip-existing", AT(skip_existing),
      "", "do nothing when all the files that are asked for are there"},
  {text, takes_replay, "--replay", AT(replay),
      "FILE", "the history of a review, NAME.curation.jsonl"},
  {count, takes_replay, "--upto", AT(upto), "N", "the last edit to do (all of them)"},
  {texts, takes_exports, "--export", AT(exports),
      "FORMAT=PATH", "csv, txt, plx, ntt, evt, nev, ptcs, tsf, phy, nwb, quality, noise, features or lfp; may be repeated"},
  {text, takes_results, "--report", AT(report),
      "FILE.json", "settings, times, memory and units as JSON"},
  {text, takes_test, "--electrode", AT(electrode),
      "NAME", "tetrode, polytrode, linear, utah or neuropixels"},
  {count, takes_test, "--channels", AT(test.n_channels), "N", "sites"},
  {real, takes_family, "--minutes", AT(minutes), "M", "duration (5, or as the family has it)"},
  {count, takes_test, "--rate", AT(test.sampling_frequency), "HZ", "sampling frequency"},
  {count, takes_test, "--units", AT(test.n_units), "N", "planted units"},
  {real, takes_test, "--amplitude-min", AT(test.amplitude_min_uv),
      "UV", "smallest trough on the nearest site"},
  {real, takes_test, "--amplitude-max", AT(test.amplitude_max_uv), "UV", "largest"},
  {real, takes_test, "--noise", AT(test.noise_uv), "UV", "sensor noise and far units, rms"},
  {real, takes_test, "--firing-rate", AT(test.median_rate), "HZ", "median over the units"},
  {real, takes_test, "--drift", AT(test.drift_um), "UM", "along the probe, from start to end"},
  {real, takes_test, "--overlap", AT(test.overlap),
      "CHANCE", "that a spike has one of the nearest unit within 0.5 ms, up to 0.9"},
  {real, takes_test, "--gain-change", AT(test.gain_change),
      "PART", "-0.2 ends at 0.8 of the start"},
  {text, takes_family, "--family", AT(family),
      "NAME", "a recording of this family instead, of which only --seed, --minutes and --threads are asked"},
  {flag, takes_family, "--families", AT(families), "", "list the families"},
  {seed, takes_test, "--seed", AT(test.seed), "N", "same seed, same bytes"},
  {count, takes_test, "--threads", AT(test.n_threads), "N", "threads"},
  {real, takes_score, "--noise", AT(noise_uv),
      "UV", "noise of the recording: count units by how far they stand above it"},
  {real, takes_score, "--min-snr", AT(min_snr),
      "SNR", "count units of that and more apart, by the list of units beside the truth"},
  {text, takes_score, "--recording", AT(recording),
      "FILE", "the same, the noise measured: median over its channels"},
  {text, takes_check, "--mask-out", AT(mask_out),
      "FILE.msk", "masks as they are, with the channels that had better take no part"},
  {flag, takes_check, "--include-masked", AT(check_masked), "", "check masked channels, too"},
  {text, takes_report, "--out", AT(report_folder), "FOLDER", "gets report.html"},
  {text, takes_draw, "--out", AT(picture),
      "FILE", "the picture: .png, .svg or .pdf; of a graph also its numbers: .csv or .gra"},
  {text, takes_draw, "--view", AT(view), "VIEW",
      "of the recording: voltage (traces), grey, graph (with axes, of the first ten rows in view), spectrum, amplitudes, deviations and distances (of the channel check); of "
      "the clusters named by --clusters: waveforms, components, templates, correlograms, acf-time, isi-heights, isi, trains (one against its neighbours), overlap, heights, spikes (voltage)",
      "voltage grey graph spectrum amplitudes deviations distances waveforms components templates correlograms acf-time isi-heights isi trains overlap heights spikes"},
  {real, takes_draw, "--from", AT(from_seconds), "SECONDS", "left edge (where signal begins)"},
  {real, takes_draw, "--scale", AT(time_scale), "PIXELS", "per sample (1)"},
  {real, takes_draw, "--voltage-scale", AT(voltage_scale), "PIXELS", "per µV (by the noise)"},
  {count, takes_draw, "--spacing", AT(spacing), "PIXELS", "from row to row (by the channels)"},
  {count, takes_draw, "--first-row", AT(first_row), "N", "row at the top (1)"},
  {text, takes_draw, "--size", AT(size), "WxH", "pixels (1280x800)"},
  {flag, takes_draw, "--events", AT(draw_events), "", "mark the events"},
  {flag_or_list, takes_draw, "--clusters", AT(draw_clusters), "LIST",
      "alone: events in the colours of their clusters; with a list as 3,7: the clusters of the view"},
  {flag, takes_draw, "--numbers", AT(draw_numbers), "", "with the numbers of their clusters"},
  {flag, takes_draw, "--on-template-channel", AT(draw_on_template_channel),
      "", "on the centre channels of their clusters"},
  {flag, takes_draw, "--grid", AT(draw_grid), "", "lines every 1 or 10 ms"},
  {flag, takes_draw, "--peaks", AT(draw_peaks), "", "keep the peaks of each pixel column"},
  {flag, takes_draw, "--density", AT(draw_density), "", "waveforms of all events, as counts per pixel"},
  {flag, takes_draw, "--reverse", AT(draw_reversed), "", "white on black"},
  {flag, takes_json, "--json", AT(json), "", "JSON instead of text"},
  {text, takes_values, "--values", AT(values),
      "FIRST:COUNT", "with info --json: so many samples from time index FIRST on, in µV"},
  {flag, takes_quiet, "--quiet", AT(quiet), "", "no progress; problems are told all the same"},
};

constexpr unsigned views = takes_recording | takes_settings | takes_quiet | takes_hdf;
constexpr unsigned opens = views | takes_hdf_edits;
constexpr unsigned sorts = opens | takes_work | takes_skips | takes_exports | takes_results;

constexpr batch_verb verbs[] = {
  {"info", "what a recording holds", opens | takes_json | takes_values, run_info},
  {"check", "look for faulty channels", opens | takes_json | takes_check, run_check},
  {"sort", "sort a recording into units", sorts | takes_stop, run_sort},
  {"detect", "find the events of a recording", sorts, run_detect},
  {"export", "write a saved sort, or the one in the file, for other tools", opens | takes_work | takes_exports, run_export},
  {"curate", "do the edits of a review again", opens | takes_work | takes_replay | takes_exports | takes_results, run_curate},
  {"convert", "write a recording as TSF", opens | takes_output, run_convert},
  {"make-test", "make a recording with known units", takes_test | takes_family | takes_quiet,
   run_make_test},
#ifdef KESTRELVANE_WITH_DISPLAYS
  {"draw", "draw the voltage record or sorted clusters to a file", views | takes_work | takes_draw, run_draw},
  {"report", "write a page with the units of a saved sort, their pictures and figures", opens | takes_work | takes_report, run_report},
#endif
  {"score", "how a sort agrees with planted units", takes_score | takes_json, run_score},
};
// clang-format on

#undef AT

std::vector<std::string> words_of(const char* text) { return CLI::detail::split(text, ' '); }

void add_option(CLI::App& verb, const option_row& row, batch_options& options) {
  void* where = row.where(options);
  // The values stand in one record, so that verbs may share rows.
  const auto add = [&](auto* value) { return verb.add_option(row.name, *value, row.help); };
  CLI::Option* option = nullptr;
  switch (row.kind) {
    case flag:
      verb.add_flag(row.name, *static_cast<bool*>(where), row.help);
      return;
    case flag_or_list:
      verb.add_flag(row.name, *static_cast<std::string*>(where), row.help)->type_name(row.value);
      return;
    case positional:
      option = add(static_cast<std::string*>(where))->required();
      break;
    case positional_or_list:
    case text:
      option = add(static_cast<std::string*>(where));
      break;
    case texts:
      // One value each, so that a positional may follow.
      option = add(static_cast<std::vector<std::string>*>(where))->allow_extra_args(false);
      break;
    case count:
      // Zero and below are no counts.
      option = add(static_cast<std::int32_t*>(where))->check(CLI::PositiveNumber);
      break;
    case seed:
      option = add(static_cast<std::uint64_t*>(where));
      break;
    case real:
      option = add(static_cast<double*>(where));
      break;
  }
  option->type_name(row.value);
  // Their defaults are worth showing; those of the other verbs are told in words.
  if (row.group == takes_test) option->capture_default_str();
  if (row.choices != nullptr) option->check(CLI::IsMember(words_of(row.choices)));
}

bool is_verb(std::string_view word) {
  for (const batch_verb& verb : verbs) {
    if (word == verb.name) return true;
  }
  return false;
}

bool is_list(std::string_view word) {
  // No recording is named by digits, commas and dashes alone; with a dash in front it is an option.
  return !word.empty() && word.find_first_not_of("0123456789,-") == word.npos && word[0] != '-';
}

bool takes_list(std::string_view word) {
  for (const option_row& row : option_rows) {
    if (row.kind == flag_or_list && word == row.name) return true;
  }
  return false;
}

// The words of the command line from the last to the first, as the parser takes them. It knows
// no option that takes a list or none, and would have to guess whether the word behind is the
// recording: a list is joined to its option here.
std::vector<std::string> join_lists(int argc, const char* const* argv) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    words.emplace_back(argv[i]);
    if (i + 1 < argc && takes_list(argv[i]) && is_list(argv[i + 1])) {
      words.back() += std::string("=") + argv[++i];
    }
  }
  return {words.rbegin(), words.rend()};
}

}  // namespace

int run_batch_command(int argc, const char* const* argv) {
  // Said here, since the parser would take the word for a misplaced argument.
  if (argc > 1 && argv[1][0] != '-' && !is_verb(argv[1])) {
    return static_cast<int>(refuse_usage(fmt::format("There is no verb \"{}\"", argv[1])));
  }
  CLI::App app{"Kestrelvane: spike sorting without windows", "kestrelvane-batch"};
  app.set_version_flag("--version", fmt::format("kestrelvane-batch {}", program_version));
  app.require_subcommand(1);
  batch_options options;
  for (const batch_verb& verb : verbs) {
    CLI::App* command = app.add_subcommand(verb.name, verb.summary);
    // A row is offered to every verb that takes one of its groups.
    for (const option_row& row : option_rows) {
      if ((row.group & verb.option_groups) != 0) add_option(*command, row, options);
    }
  }
  try {
    app.parse(join_lists(argc, argv));
  } catch (const CLI::ParseError& error) {
    // Help and version are results; anything else is wrong usage.
    if (app.exit(error) != 0) return static_cast<int>(batch_status::wrong_usage);
    return static_cast<int>(std::cout.flush() ? batch_status::done : batch_status::failed);
  }
  for (const batch_verb& verb : verbs) {
    if (app.got_subcommand(verb.name)) return static_cast<int>(verb.run(options));
  }
  return static_cast<int>(batch_status::wrong_usage);
}

}  // namespace kestrelvane
