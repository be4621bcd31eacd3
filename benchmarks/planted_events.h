// Events of known clusters in a recording of noise, as the benchmarks of displays and of the
// analysis plant them: a cluster is a site and a height, its events lie evenly over the recording.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "support/small_session.h"

namespace kestrelvane::test {

struct planted_clusters {
  std::int32_t n_events = 0, n_clusters = 0;
  std::int32_t sites_beside = 0;  // on either side, which see the spike, too
  int jitter = 0;                 // bits of a random number that are added to the height
  std::function<std::int32_t(vector_random& random)> draw;  // a cluster
};

inline void plant_events(session_state& session, const planted_clusters& plan) {
  recording_store& r = session.recording;
  event_table& events = session.events;
  events.n_events = plan.n_events;
  session.clusters.n_clusters = plan.n_clusters;
  vector_random random(2);
  const std::int64_t usable = r.n_samples - 400;
  for (std::int32_t e = 1; e <= plan.n_events; ++e) {
    const std::int32_t cluster = plan.draw(random);
    const std::int32_t channel = 1 + cluster * 7 % r.n_channels;
    events.event_time[e] = 200 + static_cast<std::int32_t>(e * usable / plan.n_events);
    events.event_shift[e] = static_cast<float>(random.next() >> 8 & 1023) / 1024.0f;
    events.event_channel[e] = channel;
    events.event_cluster[e] = cluster;
    int size = 60 + cluster % 90;
    if (plan.jitter > 0) size += static_cast<int>(random.next() >> 8 & ((1u << plan.jitter) - 1));
    for (std::int32_t k = std::max(channel - plan.sites_beside, 1);
         k <= std::min(channel + plan.sites_beside, r.n_channels); ++k) {
      std::int16_t* v = r.vd.channel(k) + events.event_time[e];
      const int height = size / (1 + std::abs(k - channel));
      for (int i = -4; i <= 4; ++i) {
        v[i] = static_cast<std::int16_t>(v[i] - height * (5 - std::abs(i)) / 5);
      }
    }
  }
}

}  // namespace kestrelvane::test
