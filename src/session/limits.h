// Limits of the session.
//
// Every array of the session has a fixed capacity, given here beside the reason
// for it. Storage is reserved at these sizes and committed only where it is
// touched (table.h), so a limit costs nothing until it is used.
#pragma once

#include <cstdint>

namespace kestrelvane {

constexpr std::int32_t channel_limit = 4096;
constexpr std::int32_t event_limit = 50'000'000;

// Per-cluster arrays hold 4000 records; the template arrays have room above
// them, because each worker thread uses the slot n_clusters + 1 + thread as a
// scratch template.
constexpr std::int32_t cluster_limit = 4000;
constexpr std::int32_t template_slot_limit = 4064;

// Points of one template; a wider spike window is shortened.
constexpr std::int32_t template_point_limit = 151;

constexpr std::int32_t epoch_limit = 50;
constexpr std::int32_t log_line_limit = 1024;
constexpr std::int32_t filter_history_limit = 50;

// Pairs of 4000 clusters: 4000 * 3999 / 2 is 7,998,000.
constexpr std::int32_t pair_limit = 7'998'000;

// Planted spikes of an old test file.
constexpr std::int32_t fake_spike_limit = 1'000'000;

// Samples in front of time index 1 that exist and are zero, so that windowed
// reads near the start of the recording need no test.
constexpr std::int32_t vd_margin = 250;

}  // namespace kestrelvane
