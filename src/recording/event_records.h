// The synthetic time axis of event-based recordings.
//
// Record m (from 1) of a channel or tetrode stands at time indices 100 + 2 L (m - 1) on,
// L being the samples of one record: each record is followed by a gap of its own length.
#pragma once

#include <cstdint>

namespace kestrelvane {

constexpr std::int64_t first_record_index = 100;

inline std::int64_t record_index(std::int64_t record, std::int64_t record_samples) {
  return first_record_index + 2 * record_samples * (record - 1);
}

}  // namespace kestrelvane
