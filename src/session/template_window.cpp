#include "session/template_window.h"

#include <algorithm>
#include <cstring>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

std::int32_t window_edge(float ms, std::int32_t sampling_frequency) {
  // Towards zero on both sides, the product first: -0.8 ms at 25 kHz is -20 samples, and the window
  // never reaches beyond what was asked for.
  const float samples = ms * static_cast<float>(sampling_frequency) / 1000.0f;
  // A damaged file may say anything until its settings have been settled, also what is no number;
  // no integer holds that.
  constexpr float most = 1.0e9f;
  if (!(samples > -most)) return static_cast<std::int32_t>(-most);
  return static_cast<std::int32_t>(std::min(samples, most));
}

// Lanes that are read beyond the last point find zeros.
std::int32_t row_for(std::int32_t points) {
  return std::min(whole_lanes(points) + n_lanes, template_point_limit);
}

}  // namespace

std::int32_t window_first_sample(const session_state& session) {
  return window_edge(session.strategy.template_window_start_ms,
                     session.recording.sampling_frequency);
}

std::int32_t window_last_sample(const session_state& session) {
  return window_edge(session.strategy.template_window_end_ms, session.recording.sampling_frequency);
}

void compute_template_points(session_state& session) {
  template_table& templates = session.templates;
  const template_extent before{templates.first_sample, templates.template_points};
  const std::int32_t points = window_last_sample(session) - window_first_sample(session) + 1;
  const template_extent now{window_first_sample(session),
                            std::clamp(points, 3, template_point_limit)};
  widen_template_rows(session, now.points);
  templates.first_sample = now.first;
  templates.template_points = now.points;
  if (session.clusters.n_clusters == 0) shorten_template_rows(session);
  // What counts is the window that the templates were made for, over how many changes ever.
  if (templates.outdated.points == 0) templates.outdated = before;
  if (session.clusters.n_clusters == 0 || templates.outdated == now) templates.outdated = {};
}

void release_spare_templates(session_state& session) {
  template_table& t = session.templates;
  const std::int64_t used =
      std::int64_t{session.clusters.n_clusters} * t.allocated_channels * t.row;
  t.template_mean.clear_from(used + 1);
  t.template_sd.clear_from(used + 1);
}

void shorten_template_rows(session_state& session) {
  template_table& t = session.templates;
  t.template_mean.clear();
  t.template_sd.clear();
  t.outdated = {};
  t.row = row_for(t.template_points);
}

void widen_template_rows(session_state& session, std::int32_t points) {
  template_table& t = session.templates;
  const std::int64_t row = t.row, wider = row_for(points);
  if (row >= wider) return;
  release_spare_templates(session);
  const std::int64_t n_rows = std::int64_t{session.clusters.n_clusters} * t.allocated_channels;
  for (table<float>* waveforms : {&t.template_mean, &t.template_sd}) {
    // From the last: a row goes to where none lies that has not gone yet.
    for (std::int64_t i = n_rows - 1; i >= 0; --i) {
      float* to = waveforms->first() + i * wider;
      std::memmove(to, waveforms->first() + i * row, sizeof(float) * static_cast<std::size_t>(row));
      std::fill(to + row, to + wider, 0.0f);
    }
  }
  t.row = static_cast<std::int32_t>(wider);
}

bool templates_are_outdated(const session_state& session) {
  return session.clusters.n_clusters > 0 && session.templates.outdated.points > 0;
}

void templates_are_current(session_state& session) {
  session.templates.first_sample = window_first_sample(session);
  session.templates.outdated = {};
}

bool spike_window_is_readable(const session_state& session) {
  // A realignment and a template shift may each move a window by 50 samples, and the taps of the
  // interpolation stand out at its ends.
  const std::int32_t reach = 100 + session.tables.width;
  return window_first_sample(session) >= -(vd_margin - 1 - reach) &&
         window_last_sample(session) <= 1000 - 2 * n_lanes - reach;
}

bool shorten_spike_window(session_state& session) {
  const std::int32_t width = window_last_sample(session) - window_first_sample(session);
  if (width < template_point_limit && spike_window_is_readable(session)) return false;
  const auto f = static_cast<float>(session.recording.sampling_frequency);
  std::unique_lock lock(session.settings_mutex);
  // 75 samples before and 74 after, with the sample itself 150 of the 151 points that a template
  // has room for.
  session.strategy.template_window_start_ms = -75000.0f / f;
  session.strategy.template_window_end_ms = 74000.0f / f;
  compute_template_points(session);
  lock.unlock();
  tell(session, "The spike temporal window was shortened to prevent overflow", "Warning",
       box_icon::information);
  return true;
}

}  // namespace kestrelvane
