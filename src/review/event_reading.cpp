#include "review/event_reading.h"

#include <algorithm>

#include "session/template_window.h"
#include "signal/interpolation.h"

namespace kestrelvane {

namespace {

// The waveform in bits. False, with values untouched, where the window leaves the recording.
bool read_bits(const session_state& session, std::int32_t event, std::int32_t channel,
               float* values) {
  const recording_store& r = session.recording;
  const std::int32_t n = session.templates.template_points;
  const std::int64_t first =
      std::int64_t{session.events.event_time[event]} + window_first_sample(session);
  // The taps of the interpolation, and the lanes that they are read in.
  const std::int32_t room = session.tables.width + 32;
  // A file may hold events at the very rim; a flat line is taken rather than memory that is not the
  // recording's.
  if (first - room < -vd_margin || first + n + room > r.vd.max_time()) return false;
  const std::int32_t step = interp_step(session, session.events.event_shift[event]);
  interp_run(session, r.vd.channel(channel) + first, step, n, values);
  return true;
}

}  // namespace

void read_event_waveform(const session_state& session, std::int32_t event, std::int32_t channel,
                         float* values) {
  const std::int32_t n = session.templates.template_points;
  if (!read_bits(session, event, channel, values)) {
    std::fill(values, values + n, 0.0f);
    return;
  }
  for (std::int32_t p = 0; p < n; ++p) values[p] *= session.recording.vscale_HP;
}

float event_height_uv(const session_state& session, std::int32_t event, std::int32_t channel) {
  float bits[waveform_room];
  if (!read_bits(session, event, channel, bits)) return 0.0f;
  const auto [low, high] = std::minmax_element(bits, bits + session.templates.template_points);
  // Scaled after the subtraction, which is exact in bits.
  return (*high - *low) * session.recording.vscale_HP;
}

shape_point event_place(const session_state& session, std::int32_t event, std::int32_t cluster) {
  const recording_store& r = session.recording;
  const std::int32_t* channels = session.templates.channels(cluster);
  double sum = 0, x = 0, y = 0;
  for (std::int32_t k = 1; k <= session.templates.template_n_channels[cluster]; ++k) {
    const double height = event_height_uv(session, event, channels[k]);
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
