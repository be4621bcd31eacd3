#include "sorting/duplicates.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "clustering/membership.h"

namespace kestrelvane {

std::int32_t duplicate_window_samples(const session_state& session) {
  // At least one sample, however short the lockout.
  return std::max(
      1, static_cast<std::int32_t>(static_cast<float>(session.recording.sampling_frequency) *
                                   session.detection.lockout_ms / 1000.0f));
}

namespace {

// Calls found(worse) for each duplicate, in order; only: of one cluster, 0 for all. Within its turn
// the first event keeps the cluster and time it had when the turn began; one removed later in the
// list is not compared again.
template <typename Found>
void find_duplicates(const session_state& session, std::int32_t only, Found&& found) {
  const event_table& events = session.events;
  constexpr std::int32_t look_ahead = 50;
  const std::int32_t window = duplicate_window_samples(session);
  for (std::int32_t i = 1; i < events.n_events; ++i) {
    const std::int32_t cluster = events.event_cluster[i];
    const std::int32_t time = events.event_time[i];
    if (cluster < 1 || (only != 0 && cluster != only)) continue;
    const std::int32_t last = std::min(i + look_ahead, events.n_events);
    for (std::int32_t j = i + 1; j <= last; ++j) {
      if (events.event_cluster[j] != cluster || std::abs(events.event_time[j] - time) > window) {
        continue;
      }
      const float d_i = distance_from_centre_squared(session, i, cluster);
      // The event in hand may lose several times over, and each time counts.
      const float d_j = distance_from_centre_squared(session, j, cluster);
      found(d_j <= d_i ? i : j);
    }
  }
}

}  // namespace

std::int32_t remove_duplicate_events(session_state& session, bool remove) {
  // Without removal the losers stay in play: the count of a trial may be above that of the removal
  // which follows it.
  std::int32_t count = 0;
  find_duplicates(session, 0, [&](std::int32_t worse) {
    ++count;
    if (!remove) return;
    event_table& events = session.events;
    events.event_cluster[worse] = 0;
    // 0 stands for an event whose time of detection is not known.
    if (events.event_detected_time[worse] != 0) {
      events.event_time[worse] = events.event_detected_time[worse];
    }
  });
  return count;
}

std::vector<std::int32_t> list_duplicate_events(session_state& session, std::int32_t cluster) {
  std::vector<std::int32_t> worse_events;
  table<std::int32_t>& of = session.events.event_cluster;
  find_duplicates(session, cluster, [&](std::int32_t worse) {
    // Out of play for the rest of the search, as in a removal.
    if (of[worse] == cluster) worse_events.push_back(worse);
    of[worse] = 0;
  });
  for (const std::int32_t e : worse_events) of[e] = cluster;
  std::sort(worse_events.begin(), worse_events.end());
  return worse_events;
}

std::int32_t remove_duplicates_by_hand(session_state& session) {
  const std::int32_t count = remove_duplicate_events(session, true);
  log_message(session, "Post-processing:" + std::to_string(count) +
                           " duplicate events removed from clusters");
  return count;
}

std::int32_t mark_duplicate_events(session_state& session) {
  session.events.event_subcluster.clear();
  std::int32_t count = 0;
  find_duplicates(session, 0, [&](std::int32_t worse) {
    session.events.event_subcluster[worse] = 1;
    ++count;
  });
  return count;
}

}  // namespace kestrelvane
