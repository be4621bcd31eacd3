// info: what a recording holds.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

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

std::string describe_as_json(const session_state& session) {
  const recording_store& r = session.recording;
  json channels = json::array();
  for (std::int32_t c = 1; c <= r.n_channels; ++c) channels.push_back(describe_channel(session, c));
  const json all = {{"path", r.recording_path},
                    {"channels", r.n_channels},
                    {"sampling_frequency", r.sampling_frequency},
                    {"samples", r.n_samples},
                    {"duration_minutes", told(r.duration_mins)},
                    {"uv_per_bit", told(r.vscale_HP)},
                    {"events", session.events.n_events},
                    {"clusters", session.clusters.n_clusters},
                    {"sites", channels}};
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
  batch_session batch;
  batch_status status = start_batch(batch, options, "info");
  if (status == batch_status::wrong_usage) return status;
  if (status == batch_status::done) status = open_recording_for_batch(batch);
  if (status == batch_status::done) status = filter_for_batch(batch);
  finish_batch(batch);
  if (status == batch_status::done) {
    const session_state& session = *batch.session;
    fmt::print("{}", options.json ? describe_as_json(session) : describe_as_text(session));
  }
  return status;
}

}  // namespace kestrelvane
