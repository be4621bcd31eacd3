// The events: one entry per detected spike, in order of discovery.
//
// Events count from 1. The aligned time of an event is event_time + event_shift,
// in samples; event_shift is what detection left (-1..1) or what alignment to a
// template left (0 up to 1). Assignment to clusters lives here, in event_cluster;
// clustering/cluster_operations.h alone changes it once clusters exist.
#pragma once

#include <cstdint>

#include "numerics/table.h"
#include "session/limits.h"

namespace kestrelvane {

struct event_table {
  std::int32_t n_events = 0;
  table<std::int32_t> event_time{event_limit};           // time index, whole samples
  table<float> event_shift{event_limit};                 // samples
  table<std::int32_t> event_detected_time{event_limit};  // event_time as detection left it
  table<std::int32_t> event_channel{event_limit};        // channel of registration
  table<std::int32_t> event_cluster{event_limit};        // 0 unclustered, -1 during a removal pass
  // Label inside the event's own cluster: 0 none, 1..99 labels, 100 outlier.
  // Transient; not saved.
  table<std::int16_t> event_subcluster{event_limit};
};

}  // namespace kestrelvane
