#include "displays/clusters/event_reading.h"

#include <algorithm>

#include "signal/interpolation.h"

namespace kestrelvane {

void read_event_waveform(const session_state& session, std::int32_t event, std::int32_t channel,
                         float* values) {
  const recording_store& r = session.recording;
  const std::int32_t n = session.templates.template_points;
  const std::int64_t first =
      std::int64_t{session.events.event_time[event]} + session.templates.first_sample;
  // The taps of the interpolation, and the lanes that they are read in.
  const std::int32_t room = session.tables.width + 32;
  // A file may hold events at the very rim; a flat line is shown rather than memory that is not the
  // recording's.
  if (first - room < -vd_margin || first + n + room > r.vd.max_time()) {
    std::fill(values, values + n, 0.0f);
    return;
  }
  const std::int32_t step = interp_step(session, session.events.event_shift[event]);
  interp_run(session, r.vd.channel(channel) + first, step, n, values);
  for (std::int32_t p = 0; p < n; ++p) values[p] *= r.vscale_HP;
}

float read_event_height(const session_state& session, std::int32_t event, std::int32_t channel) {
  float values[waveform_room];
  read_event_waveform(session, event, channel, values);
  const auto [low, high] = std::minmax_element(values, values + session.templates.template_points);
  return *high - *low;
}

plane_point read_event_place(const session_state& session, std::int32_t event,
                             std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t* channels = session.templates.channels(cluster);
  double sum = 0, x = 0, y = 0;
  for (std::int32_t k = 1; k <= session.templates.template_n_channels[cluster]; ++k) {
    const double height = read_event_height(session, event, channels[k]);
    // By the square, as energy: with plain heights the noise of many far channels would draw every
    // spike to their middle.
    const double weight = height * height;
    sum += weight;
    x += weight * r.chan_x[channels[k]];
    y += weight * r.chan_y[channels[k]];
  }
  if (!(sum > 0))
    return {session.templates.template_x[cluster], session.templates.template_y[cluster]};
  return {static_cast<float>(x / sum), static_cast<float>(y / sum)};
}

}  // namespace kestrelvane
