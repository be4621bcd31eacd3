// Plain forms of the hot loops: one item after the other, one term after the other,
// as the methods are told. The product's fast forms must give the same bits;
// tests compare them and benchmarks time them side by side.
#pragma once

#include <cstdint>
#include <vector>

#include "clustering/gradient_ascent.h"
#include "detection/proto_events.h"
#include "detection/sample_test.h"
#include "session/session_state.h"
#include "sorting/pair_measures.h"

namespace kestrelvane::test {

// Labels, scouts left and iterations of one stage.
void plain_gac_stage(const session_state& session, const gac_points& points, std::int32_t s,
                     gac_tables& tables);

// Triggers sample by sample and, at each, channel by channel.
std::vector<trigger> plain_find_triggers(session_state& session, std::int32_t first,
                                         std::int32_t last);

// Neighbour table by comparing every two points of the list window; rounds without
// any shortcut.
void plain_build_proto_neighbours(const session_state& session, proto_event_table& points);
void plain_cluster_proto_events(const session_state& session, proto_event_table& points);

// Mean and s.d. of every channel with 64-bit accumulators.
void plain_template_values(const session_state& session, std::int32_t cluster,
                           std::vector<float>& mean, std::vector<float>& sd);

// align_events of a cluster, event by event.
void plain_align_events(session_state& session, std::int32_t cluster);

// The overlap measure with scalar rows, sums, rotations and search.
float plain_cluster_overlap(session_state& session, std::int32_t a, std::int32_t b,
                            std::int32_t scratch_slot, pair_shift shift);
// Every pair by itself, whether it meets or not, with scans over all events; marks are cleared.
void plain_status_lists(session_state& session);
// doublet_value by looking at every event in the window.
float plain_doublet_value(const session_state& session, std::int32_t a, std::int32_t b,
                          float window_ms);
float plain_nearest_neighbour_overlap(const std::vector<float>& coordinates,
                                      std::int32_t dimensions, std::int32_t n_a, std::int32_t n_b);

// A recording of noise with spikes of several units on neighbouring channels, from
// the plain generator of small_session.h; events are put where spikes were.
void make_busy_recording(session_state& session, std::int32_t n_channels, std::int32_t n_samples,
                         std::uint32_t seed);

// Clouds of points round a few centres, for clustering.
gac_points make_clouds(std::int32_t n, std::int32_t dimensions, std::uint32_t seed);

}  // namespace kestrelvane::test
