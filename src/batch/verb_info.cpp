// info: what a recording holds.
#include <fmt/format.h>

#include <cinttypes>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>

#include "batch/hdf_tree.h"
#include "batch/verbs.h"

namespace kestrelvane {

namespace {

using json = nlohmann::ordered_json;

// A float as text and back, so that 0.1f is told as 0.1.
double told(float value) { return std::stod(fmt::format("{}", value)); }

json describe_channel(const session_state& session, std::int32_t c) {
  const recording_store& r = session.recording;
  return {{"channel", c},
          {"x_um", r.chan_x[c]},
          {"y_um", r.chan_y[c]},
          {"masked", static_cast<bool>(r.chan_mask[c])},
          {"noise_uv", told(r.chan_noise[c] * r.vscale_HP)}};
}

// Samples of every channel in µV from time index first on, as far as there are any.
json list_values(const session_state& session, std::int64_t first, std::int64_t count) {
  const recording_store& r = session.recording;
  json all = json::array();
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    json values = json::array();
    for (std::int64_t t = first; t < first + count && t <= r.n_samples; ++t) {
      values.push_back(told(r.vd.channel(c)[t] * r.vscale_HP));
    }
    all.push_back(values);
  }
  return all;
}

// FIRST:COUNT, both 1 or more.
bool parse_values(const std::string& text, std::int64_t& first, std::int64_t& count) {
  char rest = 0;
  // The character behind is asked for to be missed: with it the text says more than two numbers.
  const int n = std::sscanf(text.c_str(), "%" SCNd64 ":%" SCNd64 "%c", &first, &count, &rest);
  // A bound for what is shown, and none for where it begins but the count of samples.
  constexpr std::int64_t most = 1'000'000;
  return n == 2 && first >= 1 && first <= std::numeric_limits<std::int32_t>::max() && count >= 1 &&
         count <= most;
}

std::string describe_as_json(const session_state& session, const std::string& values) {
  const recording_store& r = session.recording;
  json channels = json::array();
  for (std::int32_t c = 1; c <= r.n_channels; ++c) channels.push_back(describe_channel(session, c));
  json all = {{"path", r.recording_path},
              {"channels", r.n_channels},
              {"sampling_frequency", r.sampling_frequency},
              {"samples", r.n_samples},
              {"duration_minutes", told(r.duration_mins)},
              {"uv_per_bit", told(r.vscale_HP)},
              {"events", session.events.n_events},
              {"clusters", session.clusters.n_clusters},
              {"sites", channels}};
  std::int64_t first = 0, count = 0;
  if (parse_values(values, first, count)) all["values_uv"] = list_values(session, first, count);
  return all.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

std::string describe_as_text(const session_state& session) {
  const recording_store& r = session.recording;
  std::string text;
  const auto line = [&text](const char* name, const std::string& value) {
    text += fmt::format("{:<20} {}\n", name, value);
  };
  line("recording", r.recording_path);
  line("channels", fmt::format("{}", r.n_channels));
  line("sampling frequency", fmt::format("{} Hz", r.sampling_frequency));
  line("samples per channel", fmt::format("{}", r.n_samples));
  line("duration", fmt::format("{:.3f} minutes", r.duration_mins));
  line("voltage scale", fmt::format("{} µV/bit", r.vscale_HP));
  line("events", fmt::format("{}", session.events.n_events));
  line("clusters", fmt::format("{}", session.clusters.n_clusters));
  text +=
      fmt::format("\n{:>7} {:>7} {:>7} {:>9}  {}\n", "channel", "x/µm", "y/µm", "noise/µV", "mask");
  for (std::int32_t c = 1; c <= r.n_channels; ++c) {
    text += fmt::format("{:>7} {:>7} {:>7} {:>9.2f}  {}\n", c, r.chan_x[c], r.chan_y[c],
                        r.chan_noise[c] * r.vscale_HP, r.chan_mask[c] ? "masked" : "-");
  }
  return text;
}

}  // namespace

batch_status run_info(const batch_options& options) {
  std::int64_t first = 0, count = 0;
  if (!options.values.empty() && !parse_values(options.values, first, count)) {
    return refuse_usage(fmt::format("--values {}: not FIRST:COUNT", options.values));
  }
  batch_session batch;
  batch_status status = start_batch(batch, options, "info");
  if (status == batch_status::wrong_usage) return status;
  // A container of which no dataset was named: its tree is what it holds.
  if (status == batch_status::done && wants_hdf_tree(batch)) {
    status = print_hdf_tree(batch);
    return finish_batch(batch, status);
  }
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  if (status == batch_status::done) {
    const session_state& session = *batch.session;
    status = print_result(batch, options.json ? describe_as_json(session, options.values)
                                              : describe_as_text(session));
  }
  return finish_batch(batch, status);
}

}  // namespace kestrelvane
