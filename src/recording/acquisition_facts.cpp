#include "recording/acquisition_facts.h"

#include <fmt/format.h>

#include <algorithm>

namespace kestrelvane {

namespace {

const char* continuity_text(bool continuous) { return continuous ? "continuous" : "event based"; }

std::int32_t count_masked(const recording_store& r) {
  std::int32_t masked = 0;
  for (std::int32_t c = 1; c <= r.n_channels; ++c) masked += r.chan_mask[c] ? 1 : 0;
  return masked;
}

void add_files_and_sites(const session_state& session, acquisition_facts& facts) {
  const recording_store& r = session.recording;
  facts.recording_file = r.recording_path;
  facts.config_file = r.no_config_file ? "none" : r.config_path;
  facts.n_channels = fmt::format("{}", r.n_channels);
  facts.n_masked = fmt::format("{}", count_masked(r));
  const site_spacing spacing = measure_site_spacing(session);
  facts.spacing_from = r.n_channels < 2 ? "n/a" : fmt::format("{:.4g}", spacing.from);
  facts.spacing_to = r.n_channels < 2 ? "n/a" : fmt::format("{:.4g}", spacing.to);
  facts.electrode_name = r.electrode_name;
  facts.electrode_type = electrode_type_text(r);
}

void add_times(const recording_store& r, acquisition_facts& facts) {
  const auto [year, month, day] = r.record_date;
  const auto [seconds, minutes, hours] = r.record_time;
  // Many formats carry neither; midnight of a known day is a time.
  const bool dated = year != 0 || month != 0 || day != 0;
  const bool timed = dated || hours != 0 || minutes != 0 || seconds != 0;
  const double decimal = hours + minutes / 60.0 + seconds / 3600.0;
  facts.date = dated ? fmt::format("{}/{}/{}", day, month, year) : "n/a";
  facts.time = timed ? fmt::format("{}/{}/{}", hours, minutes, seconds) : "n/a";
  facts.decimal_time = timed ? fmt::format("{:.4f}", decimal) : "n/a";
  facts.duration = fmt::format("{:.3f}", r.duration_mins);
  facts.n_epochs = fmt::format("{}", r.n_epochs);
}

}  // namespace

double exact_rate(const recording_store& recording) {
  return recording.sampling_frequency_exact > 0 ? recording.sampling_frequency_exact
                                                : recording.sampling_frequency;
}

std::string rate_text(const recording_store& recording) {
  return fmt::format("{:.12g}", exact_rate(recording));
}

site_spacing measure_site_spacing(const session_state& session) {
  const recording_store& r = session.recording;
  site_spacing spacing;
  for (std::int32_t c = 1; c <= r.n_channels && r.n_channels > 1; ++c) {
    float nearest = r.distance(c, c == 1 ? 2 : 1);
    for (std::int32_t other = 1; other <= r.n_channels; ++other) {
      if (other != c) nearest = std::min(nearest, r.distance(c, other));
    }
    spacing.from = c == 1 ? nearest : std::min(spacing.from, nearest);
    spacing.to = std::max(spacing.to, nearest);
  }
  return spacing;
}

std::string electrode_type_text(const recording_store& recording) {
  switch (recording.electrode_type) {
    case electrode_tetrode:
      return recording.n_tetrodes > 1 ? "multi tetrode" : "tetrode";
    case electrode_polytrode:
      return "polytrode";
    case electrode_utah_array:
      return "Utah array";
    default:
      return {};
  }
}

std::int32_t display_position(const recording_store& recording, std::int32_t channel) {
  for (std::int32_t place = 1; place <= recording.n_channels; ++place) {
    if (recording.chan_sort_order[place] == channel) return place;
  }
  return 0;
}

acquisition_facts list_acquisition_facts(const session_state& session) {
  const recording_store& r = session.recording;
  acquisition_facts facts;
  add_files_and_sites(session, facts);
  add_times(r, facts);
  facts.recording_type = continuity_text(r.is_continuous);
  facts.treated_as =
      r.is_continuous ? "n/a" : continuity_text(session.preferences.treat_as_continuous);
  facts.samples_per_event = r.is_continuous ? "n/a" : fmt::format("{}", r.samples_per_event);
  facts.sampling_frequency = rate_text(r);
  facts.voltage_scaling = fmt::format("{}", r.vscale_HP);
  facts.vscale_norm = fmt::format("{}", r.vscale_norm);
  facts.n_samples = fmt::format("{}", r.n_samples);
  return facts;
}

}  // namespace kestrelvane
