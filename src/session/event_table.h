// The events: one entry per detected spike, in order of discovery.
//
// Events count from 1. The aligned time of an event is event_time + event_shift,
// in samples; event_shift is what detection left (-1..1) or what alignment to a
// template left (0 up to 1). Assignment to clusters lives here, in event_cluster;
// sorting/cluster_edits.h alone changes it once clusters exist.
#pragma once

#include <cstdint>
#include <vector>

#include "numerics/table.h"
#include "session/limits.h"

namespace kestrelvane {

struct event_table {
  std::int32_t n_events = 0;
  table<std::int32_t> event_time;           // time index, whole samples
  table<float> event_shift;                 // samples
  table<std::int32_t> event_detected_time;  // event_time as detection left it
  table<std::int32_t> event_channel;        // channel of registration
  table<std::int32_t> event_cluster;        // 0 unclustered, -1 during a removal pass
  // Label inside the event's own cluster: 0 none, 1..99 labels, 100 outlier.
  // Transient; not saved.
  table<std::int16_t> event_subcluster;
  // Of spikes that the template pass has found: how large they are beside their unit's template,
  // and how far beyond its threshold. 0 for all others.
  table<float> event_amplitude, event_gain;

  event_table() : event_table(event_limit) {}
  explicit event_table(std::int64_t capacity);
};

// Calls visit for each column of an event, or for the same column of several tables side
// by side. Whatever treats all of an event alike walks it, so that a new column is added
// here and nowhere else.
template <typename Visit, record_of<event_table>... Tables>
void for_each_column(Visit&& visit, Tables&... of) {
  visit(of.event_time...);
  visit(of.event_shift...);
  visit(of.event_detected_time...);
  visit(of.event_channel...);
  visit(of.event_cluster...);
  visit(of.event_subcluster...);
  visit(of.event_amplitude...);
  visit(of.event_gain...);
}

inline event_table::event_table(std::int64_t capacity) {
  for_each_column([capacity](auto& column) { column.reserve(capacity); }, *this);
}

// Whether the template pass has measured any of the events.
inline bool has_amplitudes(const event_table& events) {
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (events.event_amplitude[e] != 0.0f) return true;
  }
  return false;
}

inline void clear_events(event_table& events) {
  events.n_events = 0;
  for_each_column([](auto& column) { column.clear(); }, events);
}

// Keeps the events for which keep(event) is true, in their order; returns how many went.
template <typename Keep>
std::int32_t compact_events(event_table& events, Keep&& keep) {
  std::int32_t kept = 0;
  for (std::int32_t e = 1; e <= events.n_events; ++e) {
    if (!keep(e)) continue;
    ++kept;
    if (kept != e) for_each_column([&](auto& column) { column[kept] = column[e]; }, events);
  }
  const std::int32_t removed = events.n_events - kept;
  events.n_events = kept;
  return removed;
}

// Puts event order[i], from 1, into place i + 1; order names each of the n_events once.
inline void permute_events(event_table& events, const std::vector<std::int32_t>& order) {
  for_each_column(
      [&order](auto& column) {
        using entry = std::remove_reference_t<decltype(column[1])>;
        std::vector<entry> moved;
        moved.reserve(order.size());
        for (const std::int32_t e : order) moved.push_back(column[e]);
        for (std::size_t i = 0; i < moved.size(); ++i) {
          column[static_cast<std::int64_t>(i) + 1] = moved[i];
        }
      },
      events);
}

}  // namespace kestrelvane
