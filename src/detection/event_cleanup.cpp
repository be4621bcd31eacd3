#include "detection/event_cleanup.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "numerics/parallel.h"

namespace kestrelvane {

namespace {

constexpr std::int32_t look_ahead = 50;

std::int32_t samples_of(const session_state& session, float ms) {
  return static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) * ms /
                                   1000.0f);
}

// Compacts time, channel and cluster past the marked events and zeroes the tail.
// Shifts stay where they are, so that each then stands against a later event than its own;
// alignment to templates follows and settles it.
std::int32_t compact_after_detection(event_table& events) {
  std::int32_t kept = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] == -1) continue;
    ++kept;
    events.event_time[kept] = events.event_time[e];
    events.event_channel[kept] = events.event_channel[e];
    events.event_cluster[kept] = events.event_cluster[e];
  }
  for (std::int32_t e = kept + 1; e <= events.n_events; ++e) {
    events.event_time[e] = 0;
    events.event_channel[e] = 0;
    events.event_cluster[e] = 0;
  }
  const std::int32_t removed = events.n_events - kept;
  events.n_events = kept;
  return removed;
}

bool any_mark_left(const event_table& events) {
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] == -1) return true;
  }
  return false;
}

}  // namespace

std::int32_t delete_coincident_events(session_state& session) {
  event_table& events = session.events;
  const std::int32_t tolerance = std::max(1, samples_of(session, session.detection.coincidence_ms));
  bool any = false;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    const std::int32_t last = std::min(e + look_ahead, events.n_events);
    for (std::int32_t other = e + 1; other <= last; ++other) {
      // An event that is marked itself still marks those after it.
      if (events.event_channel[other] == events.event_channel[e] &&
          std::abs(events.event_time[other] - events.event_time[e]) <= tolerance) {
        events.event_cluster[other] = -1;
        any = true;
      }
    }
  }
  if (!any) return 0;
  const std::int32_t removed = compact_after_detection(events);
  if (any_mark_left(events)) log_message(session, "Error deleting coincident events");
  return removed;
}

std::int32_t delete_large_events(session_state& session) {
  event_table& events = session.events;
  const recording_store& r = session.recording;
  const std::int32_t half = samples_of(session, 2.0f * session.detection.lockout_ms);
  // Each thread writes the flags of its own events; the table is marked afterwards.
  std::vector<char> large(events.n_events + 1, 0);
  parallel_for(threads_now(session), 1, events.n_events, [&](std::int64_t e, std::int32_t) {
    const std::int16_t* v = r.vd.channel(events.event_channel[e]);
    const std::int32_t t = events.event_time[e];
    // The store ends a little after the recording, and begins before it.
    const std::int64_t first = std::max(t - half, -vd_margin);
    const std::int64_t last = std::min<std::int64_t>(std::int64_t{t} + half, r.vd.max_time());
    std::int32_t high = v[first], low = v[first];
    for (std::int64_t i = first + 1; i <= last; ++i) {
      high = std::max<std::int32_t>(high, v[i]);
      low = std::min<std::int32_t>(low, v[i]);
    }
    // Strictly above: an event of just that height stays.
    large[e] = static_cast<float>(high - low) * r.vscale_HP > session.detection.max_event_pp_uv;
  });
  std::int32_t marked = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (large[e] == 0) continue;
    events.event_cluster[e] = -1;
    ++marked;
  }
  if (marked == 0) return 0;
  const std::int32_t removed = compact_after_detection(events);
  if (removed != marked) log_message(session, "Check on n_removed failed");
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_cluster[e] < 0) {
      log_message(session, "Error removing marked events " + std::to_string(e));
    }
  }
  return removed;
}

std::int32_t delete_marked_events(session_state& session) {
  event_table& events = session.events;
  return compact_events(events, [&](std::int32_t e) { return events.event_cluster[e] != -1; });
}

}  // namespace kestrelvane
