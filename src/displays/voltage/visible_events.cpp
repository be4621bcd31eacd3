#include "displays/voltage/visible_events.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "numerics/simd.h"

namespace kestrelvane {

namespace {

// Time indices that may lie between two pixels; the pixel test decides.
struct time_range {
  std::int32_t first, last;
};

std::int32_t held_index(double t) {
  constexpr double least = std::numeric_limits<std::int32_t>::min();
  constexpr double greatest = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(t, least, greatest));
}

time_range times_between(const voltage_layout& layout, std::int32_t margin, std::int32_t left,
                         std::int32_t right) {
  const double scale = layout.time_scale;
  // Two pixels more, for the rounding of places.
  // In 64 bits, as a scale may be so small that 32 would round whole samples away.
  const double before = (left - margin - 2) / scale, after = (right - margin + 2) / scale;
  return {held_index(layout.first_sample + std::floor(before) - 2),
          held_index(layout.first_sample + std::ceil(after) + 2)};
}

// How many of n times lie in the range; a plain count, so that it runs in wide lanes.
KESTRELVANE_CLONES std::int32_t count_between(const std::int32_t* times, std::int32_t n,
                                              std::int32_t first, std::int32_t last) {
  std::int32_t count = 0;
  for (std::int32_t i = 0; i < n; ++i) count += (times[i] >= first) & (times[i] <= last);
  return count;
}

// Pixel of a time index when it lies strictly between two others; 0 is no such pixel.
std::int32_t pixel_between(const voltage_layout& layout, std::int32_t t, std::int32_t margin,
                           std::int32_t left, std::int32_t right) {
  const float place = place_of_sample(layout, t, margin);
  // Negated, so that what is no number is not shown.
  if (!(place >= static_cast<float>(left + 1) && place < static_cast<float>(right))) return 0;
  return static_cast<std::int32_t>(place);
}

// The channel an event is shown on: its own, or with vd_show_template_channel and a
// cluster the centre channel of that cluster's template.
std::int32_t shown_channel(const session_state& session, std::int32_t event) {
  const std::int32_t cluster = session.events.event_cluster[event];
  // A cluster without a template has no channel to be shown on.
  if (session.view.vd_show_template_channel && cluster > 0 &&
      session.templates.template_n_channels[cluster] > 0) {
    return session.templates.centre_channel(cluster);
  }
  return session.events.event_channel[event];
}

}  // namespace

std::vector<visible_event> find_visible_events(const session_state& session,
                                               const voltage_layout& layout, std::int32_t margin,
                                               std::int32_t left, std::int32_t right) {
  constexpr std::int32_t block = 4096;
  const event_table& events = session.events;
  const time_range range = times_between(layout, margin, left, right);
  std::vector<visible_event> found;
  for (std::int32_t first = 1; first <= events.n_events; first += block) {
    const std::int32_t n = std::min(block, events.n_events - first + 1);
    const std::int32_t* times = events.event_time.base() + first;
    // Most blocks of a long recording lie outside the window.
    if (count_between(times, n, range.first, range.last) == 0) continue;
    for (std::int32_t e = first; e < first + n; ++e) {
      const std::int32_t x = pixel_between(layout, times[e - first], margin, left, right);
      if (x == 0) continue;
      const std::int32_t channel = shown_channel(session, e);
      const std::int32_t row = drawn_row(layout, channel);
      if (row > 0) found.push_back({e, x, channel, row});
    }
  }
  return found;
}

std::vector<visible_event> find_visible_proto_events(const session_state& session,
                                                     const voltage_layout& layout,
                                                     std::int32_t margin, std::int32_t left,
                                                     std::int32_t right) {
  const detection_state& d = session.detector;
  const time_range range = times_between(layout, margin, left, right);
  const std::int32_t* begin = d.proto_mark_time.base() + 1;
  const std::int32_t* end = begin + d.n_proto_marks;
  std::vector<visible_event> found;
  // Marks stand in order of time, unlike events.
  for (const std::int32_t* t = std::lower_bound(begin, end, range.first);
       t < end && *t <= range.last; ++t) {
    const auto mark = static_cast<std::int32_t>(t - begin) + 1;
    const std::int32_t x = pixel_between(layout, *t, margin, left, right);
    const std::int32_t channel = d.proto_mark_channel[mark];
    const std::int32_t row = drawn_row(layout, channel);
    if (x > 0 && row > 0) found.push_back({mark, x, channel, row});
  }
  return found;
}

}  // namespace kestrelvane
