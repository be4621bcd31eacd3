#include "operations/planned_filters.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>

#include "operations/high_pass_offer.h"
#include "session/run_log.h"
#include "session/settings_table.h"
#include "signal/filter_chain.h"
#include "signal/slow_waves.h"

namespace kestrelvane {

// The settings that the values of a filter become stand in the order of its words.
struct filter_word {
  const char* name;
  std::int32_t code;        // of the filter history
  const char* form;         // as the user writes it
  const char* settings[2];  // null: no such value
  void (*tick)(filter_settings&);
};

namespace {

constexpr const char* auto_name = "auto";  // a high pass where the recording wants one

// In the order of a chain.
constexpr filter_word words[] = {
    {"means", 1, "means", {}, [](filter_settings& f) { f.do_channel_means = true; }},
    {"common-mean", 2, "common-mean", {}, [](filter_settings& f) { f.do_common_mean = true; }},
    {"spatial",
     3,
     "spatial:RADIUS",
     {"smooth_radius_um", nullptr},
     [](filter_settings& f) { f.do_spatial_smooth = true; }},
    {"temporal", 4, "temporal", {}, [](filter_settings& f) { f.do_temporal_smooth = true; }},
    {"phase",
     7,
     "phase:F0:SHIFT",
     {"phase_f0_khz", "phase_shift_degs_per_decade"},
     [](filter_settings& f) { f.do_phase_correction = true; }},
    {"highpass",
     5,
     "highpass:F0:POLES",
     {"bw_f0_khz", "bw_poles"},
     [](filter_settings& f) { f.do_high_pass = true; }},
    {"lowpass",
     -5,
     "lowpass:F0:POLES",
     {"bw_f0_khz", "bw_poles"},
     [](filter_settings& f) { f.do_high_pass = f.make_low_pass = true; }},
    {"notch", 6, "notch", {}, [](filter_settings& f) { f.do_notch = true; }},
    {"compressive",
     8,
     "compressive:UV",
     {"compressive_75pct_uv", nullptr},
     [](filter_settings& f) { f.do_compressive = true; }},
    {auto_name, 5, auto_name, {}, set_offered_high_pass},
};

const filter_word* find_word(std::string_view name) {
  for (const filter_word& word : words) {
    if (name == word.name) return &word;
  }
  return nullptr;
}

std::vector<std::string_view> split_at_colons(std::string_view text) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t colon = text.find(':');
    parts.push_back(text.substr(0, colon));
    if (colon == std::string_view::npos) return parts;
    text.remove_prefix(colon + 1);
  }
}

bool parse_value(std::string_view text, double& value) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  return result.ec == std::errc() && result.ptr == end;
}

// One value against the setting that it becomes; the reason when it does not fit.
std::string check_value(std::string_view text, const setting_row& row, double& value) {
  const bool whole = row.type == setting_type::integer;
  if (!parse_value(text, value) || !setting_in_range(row, value) ||
      // Settings of whole numbers would cut the rest off in silence.
      (whole && value != static_cast<std::int32_t>(value))) {
    return fmt::format("\"{}\" is not {} from {} to {}", text,
                       whole ? "a whole number" : "a number", row.low, row.high);
  }
  return {};
}

std::string parse_filter(const std::string& text, planned_filter& filter) {
  const std::vector<std::string_view> parts = split_at_colons(text);
  filter.filter = find_word(parts[0]);
  if (filter.filter == nullptr) {
    std::string known;
    for (const filter_word& word : words) known += fmt::format(" {}", word.form);
    return "not one of" + known;
  }
  const auto n_values =
      std::count_if(std::begin(filter.filter->settings), std::end(filter.filter->settings),
                    [](const char* name) { return name != nullptr; });
  // The name and its values, no more and no fewer.
  if (static_cast<std::ptrdiff_t>(parts.size()) != n_values + 1) {
    return fmt::format("not of the form {}", filter.filter->form);
  }
  for (std::size_t i = 1; i < parts.size(); ++i) {
    double value = 0.0;
    const setting_row* row = find_setting(filter.filter->settings[i - 1]);
    const std::string problem = check_value(parts[i], *row, value);
    if (!problem.empty()) return problem;
    filter.values.push_back(value);
  }
  return {};
}

bool names(std::span<const planned_filter> filters, std::string_view name) {
  return std::any_of(filters.begin(), filters.end(),
                     [&](const planned_filter& f) { return f.filter->name == name; });
}

bool names_butterworth(std::span<const planned_filter> filters) {
  return names(filters, "highpass") || names(filters, "lowpass");
}

// Why filters cannot be in one command; empty: they can.
std::string clash_of(std::span<const planned_filter> filters) {
  if (!names(filters, auto_name) || !names_butterworth(filters)) return {};
  return "auto is a high pass itself, beside which no other fits";
}

void clear_options(filter_settings& f) {
  f.do_channel_means = f.do_common_mean = f.do_spatial_smooth = f.do_temporal_smooth = false;
  // Smoothing, too: what a kept setting has ticked was not asked for here.
  f.do_phase_correction = f.do_high_pass = f.make_low_pass = f.do_one_over_f = false;
  f.do_low_pass_too = false;
  f.do_notch = f.do_compressive = false;
}

void tick(session_state& session, const planned_filter& planned) {
  for (std::size_t i = 0; i < planned.values.size(); ++i) {
    store_setting(session, *find_setting(planned.filter->settings[i]), 0, planned.values[i]);
  }
  planned.filter->tick(session.filter);
}

// Of each filter before the first of them runs.
bool corners_are_possible(session_state& session, std::span<const planned_filter> filters) {
  for (const planned_filter& planned : filters) {
    tick(session, planned);
    const bool possible = !session.filter.do_high_pass || corner_is_possible(session);
    clear_options(session.filter);
    if (!possible) return false;
  }
  return true;
}

bool is_high_pass(const planned_filter& planned) {
  return planned.filter->name == std::string_view("highpass");
}

// A low pass that has been ticked makes room for a high pass beside it.
void keep_low_pass(filter_settings& f) {
  f.do_low_pass_too = true;
  f.low_pass_f0_khz = f.bw_f0_khz;
  f.low_pass_poles = f.bw_poles;
  f.make_low_pass = false;
}

}  // namespace

bool parse_filters(const std::vector<std::string>& texts, std::vector<planned_filter>& filters,
                   std::string& problem) {
  for (const std::string& text : texts) {
    planned_filter filter;
    problem = parse_filter(text, filter);
    // A chain has each filter once.
    if (problem.empty() && names(filters, filter.filter->name)) problem = "given twice";
    if (problem.empty()) filters.push_back(filter);
    // In either order on the command line, so that it is asked after each.
    if (problem.empty()) problem = clash_of(filters);
    if (!problem.empty()) {
      problem = fmt::format("--filter {}: {}", text, problem);
      return false;
    }
  }
  return true;
}

bool add_preset_filters(const sort_preset& preset, std::vector<planned_filter>& filters,
                        std::string& problem) {
  for (const char* text : preset.filters) {
    planned_filter filter;
    problem = parse_filter(text, filter);
    if (problem.empty() && names(filters, filter.filter->name)) continue;
    filter.of_preset = true;
    if (problem.empty()) filters.push_back(filter);
    problem = clash_of(filters);
    if (problem.empty()) continue;
    problem = fmt::format("Preset {}, filter {}: {}", preset.name, text, problem);
    return false;
  }
  return true;
}

void drop_idle_preset_filters(session_state& session, std::vector<planned_filter>& filters) {
  const bool keeps_events =
      session.strategy.skip_event_detection || !session.recording.is_continuous;
  const filter_history_table& history = session.filter_history;
  std::erase_if(filters, [&](const planned_filter& f) {
    const auto* end = history.code + 1 + history.n_entries;
    const bool done = std::find(history.code + 1, end, f.filter->code) != end;
    if (!f.of_preset || (!keeps_events && !done)) return false;
    log_message(session, fmt::format("The preset's {} is left out: {}", f.filter->name,
                                     keeps_events ? "events of the samples as they are are kept"
                                                  : "the samples have been through one"));
    return true;
  });
}

bool drop_automatic_filter(const session_state& session, std::vector<planned_filter>& filters) {
  if (!names(filters, auto_name) || looks_unfiltered(session)) return false;
  std::erase_if(filters, [](const planned_filter& f) { return f.filter->name == auto_name; });
  return true;
}

bool run_planned_filters(session_state& session, std::span<const planned_filter> filters,
                         bool (*run)(session_state&)) {
  clear_options(session.filter);
  if (!corners_are_possible(session, filters)) return false;
  clear_options(session.filter);
  for (const planned_filter& planned : filters) {
    // The settings that a low pass brings are those of the high pass, which is ticked last.
    if (!is_high_pass(planned)) tick(session, planned);
  }
  const bool low_pass = session.filter.make_low_pass;
  for (const planned_filter& planned : filters) {
    if (!is_high_pass(planned)) continue;
    if (low_pass) keep_low_pass(session.filter);
    tick(session, planned);
  }
  // Cleared on both sides, so that no later chain finds a filter of this one.
  const bool done = run(session);
  clear_options(session.filter);
  return done;
}

}  // namespace kestrelvane
