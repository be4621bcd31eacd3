#include "batch/report.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "files/safe_file.h"
#include "results/work_file_rows.h"
#include "session/presets.h"
#include "session/settings_table.h"
#include "session/version.h"

namespace kestrelvane {

namespace {

using json = nlohmann::ordered_json;

// The shortest decimal that reads back as the same value of 32 bits.
double as_written(float value) { return std::stod(fmt::format("{}", value)); }

json describe_value(session_state& session, const setting_row& row, std::int32_t element) {
  const double value = setting_value(session, row, element);
  switch (row.type) {
    case setting_type::logical_word:
      return value != 0.0;
    case setting_type::integer:
      return static_cast<std::int64_t>(value);
    case setting_type::real:
      break;
  }
  // JSON has no word for what is no number.
  if (!std::isfinite(value)) return nullptr;
  return as_written(static_cast<float>(value));
}

json describe_settings(session_state& session) {
  json settings = json::object();
  for (const setting_row& row : settings_table()) {
    // A setting that stands in both files is told once.
    if (row.address == nullptr || settings.contains(row.name)) continue;
    if (row.count == 1) {
      settings[row.name] = describe_value(session, row, 0);
      continue;
    }
    json values = json::array();
    for (std::int32_t i = 0; i < row.count; ++i) values.push_back(describe_value(session, row, i));
    settings[row.name] = values;
  }
  return settings;
}

json describe_versions() {
  return {{"program", program_version},
          {"work_file", work_file_version},
          {"compiler", __VERSION__},
          {"fmt", FMT_VERSION},
          {"json", fmt::format("{}.{}.{}", NLOHMANN_JSON_VERSION_MAJOR, NLOHMANN_JSON_VERSION_MINOR,
                               NLOHMANN_JSON_VERSION_PATCH)}};
}

json describe_recording(const session_state& session) {
  const recording_store& r = session.recording;
  std::int32_t n_masked = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) n_masked += r.chan_mask[c] ? 1 : 0;
  return {{"path", r.recording_path},
          {"channels", r.n_channels},
          {"masked_channels", n_masked},
          {"samples", r.n_samples},
          {"sampling_frequency", r.sampling_frequency},
          {"duration_seconds", 60.0 * r.duration_mins},
          {"uv_per_bit", as_written(r.vscale_HP)}};
}

// Standard, and no preset at all, set nothing.
json describe_preset_used(const session_state& session) {
  const sort_preset* preset = session.autosort.preset;
  if (preset == nullptr) return nullptr;
  json settings = json::object();
  for (const preset_setting& s : preset->settings) {
    const bool is_logical = find_setting(s.name)->type == setting_type::logical_word;
    settings[s.name] = is_logical ? json(s.value != 0) : json(s.value);
  }
  json filters = json::array();
  for (const char* filter : preset->filters) filters.push_back(filter);
  return {{"name", preset->name}, {"filters", filters}, {"settings", settings}};
}

json describe_stages(const stage_clock& clock) {
  json stages = json::array();
  for (const stage_entry& s : clock.stages) {
    stages.push_back({{"name", s.name},
                      {"wall_seconds", s.wall_seconds},
                      {"cpu_seconds", s.cpu_seconds},
                      {"events", s.n_events},
                      {"clusters", s.n_clusters}});
  }
  return stages;
}

// What the samples had been through: the operation's code and its parameters.
json describe_filters(const filter_history_table& history) {
  json filters = json::array();
  for (std::int32_t i = 1; i <= history.n_entries; ++i) {
    const float param2 = history.param2[i] - (is_of_same_walk(history, i) ? same_walk_mark : 0.0f);
    filters.push_back({{"code", history.code[i]},
                       {"param1", as_written(history.param1[i])},
                       {"param2", as_written(param2)}});
  }
  return filters;
}

json describe_units(const std::vector<unit_row>& units) {
  json rows = json::array();
  for (const unit_row& u : units) {
    json row = {{"cluster", u.cluster},
                {"channel", u.channel},
                {"x_um", u.x},
                {"y_um", u.y},
                {"events", u.n_events},
                {"rate_hz", u.rate},
                {"peak_to_peak_uv", u.peak_to_peak},
                {"snr", u.snr}};
    // Without pair lists nobody knows.
    row["stable"] = u.status == cluster_status::unknown ? json(nullptr)
                                                        : json(u.status == cluster_status::stable);
    rows.push_back(row);
  }
  return rows;
}

// The report as indented text, ending with a line break.
std::string print_report(session_state& session, const run_report& report,
                         const std::vector<unit_row>& units) {
  double wall = 0, cpu = 0;
  for (const stage_entry& s : report.clock.stages) {
    // Of the stages alone: what lies between them is not counted.
    wall += s.wall_seconds;
    cpu += s.cpu_seconds;
  }
  json all;
  all["verb"] = report.verb;
  all["completed"] = report.completed;
  all["interrupted"] = report.interrupted;
  all["versions"] = describe_versions();
  all["recording"] = describe_recording(session);
  all["preset"] = describe_preset_used(session);
  all["filters"] = describe_filters(session.filter_history);
  all["threads"] = threads_now(session);
  all["stages"] = describe_stages(report.clock);
  all["wall_seconds"] = wall;
  all["cpu_seconds"] = cpu;
  all["peak_memory_bytes"] = peak_memory_bytes();
  all["events"] = session.events.n_events;
  all["clusters"] = session.clusters.n_clusters;
  // As the sort left them, before any export took duplicates out.
  all["units"] = describe_units(units);
  all["settings"] = describe_settings(session);
  // Paths need not be valid UTF-8; what is not is replaced rather than refused.
  return all.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace

bool write_report(session_state& session, const run_report& report,
                  const std::vector<unit_row>& units, const std::string& path) {
  safe_file out;
  if (open_safe_file(out, path)) write_text(out, print_report(session, report, units));
  return finish_safe_file(out);
}

}  // namespace kestrelvane
