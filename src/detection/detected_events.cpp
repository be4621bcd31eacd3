#include "detection/detected_events.h"

#include <cstring>

namespace kestrelvane {

void clear_detected_events(session_state& session) {
  session.events.n_events = 0;
  session.clusters.n_clusters = 0;
  session.clusters.current_cluster = 0;
  session.lists.n_kv_pairs = 0;
  session.detector.detection_incomplete = false;
  session.detector.n_proto_marks = 0;
}

void keep_detected_times(session_state& session) {
  event_table& events = session.events;
  events.event_detected_time.clear();
  std::memcpy(events.event_detected_time.first(), events.event_time.first(),
              sizeof(std::int32_t) * events.n_events);
}

}  // namespace kestrelvane
