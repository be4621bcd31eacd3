// Samples that stand channel fastest, spread to one contiguous run per channel.
//
// Most acquisition systems write all channels of one time point side by side. Reading
// such a file is a transposition: blocks of time points are read and turned in tiles that
// stay in the nearest cache, and the blocks are shared out over the threads. Samples are
// 16-bit little-endian.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "files/input_file.h"
#include "session/session_state.h"

namespace kestrelvane {

// What becomes of the values of one time point.
struct interleaved_channels {
  // Program channel of each value, in file order; 0: read past. No channel twice. Its
  // size is the number of values in a time point.
  std::vector<std::int32_t> target;
  // Rewrites n samples of a value's run (value counted from 0) in vd; called on any
  // thread. Empty: the samples stay as they stand in the file.
  std::function<void(std::size_t value, std::int16_t* samples, std::int64_t n)> change;
};

// A stretch of time points without a gap.
struct interleaved_run {
  std::int64_t at = 0;           // offset of its first sample in the file
  std::int64_t n_points = 0;     // time points
  std::int64_t first_index = 1;  // time index of the first
};

enum class read_end { whole, early_end, interrupted };

// Reads a run into vd, which must hold its channels and time indices. The reading bar
// goes from bar_from to bar_to of 115. early_end: the file ended or failed before the
// last time point; interrupted: the user asked to stop. In both cases some blocks have
// been stored.
read_end read_interleaved(session_state& session, const input_file& file,
                          const interleaved_channels& channels, const interleaved_run& run,
                          std::int32_t bar_from = 0, std::int32_t bar_to = 100);

// The same for n_points time points in memory, on the calling thread.
void spread_points(session_state& session, const interleaved_channels& channels,
                   const std::int16_t* points, std::int64_t n_points, std::int64_t first_index);

// Targets for n values whose file channel numbers are 1 to n: where the configuration in
// use maps a number to a channel from 1 to n_channels, that channel; without one the
// channel of the same number, if there is one.
interleaved_channels map_interleaved(const session_state& session, std::int32_t n);

}  // namespace kestrelvane
