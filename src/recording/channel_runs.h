// Samples that stand channel by channel, each channel in one run: no turning is needed, they
// go straight into vd.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "recording/interleaved.h"

namespace kestrelvane {

// Reads n samples of a run (counted from 0) from sample first (from 0) on; called on any
// thread. False when they are not all there.
using run_reader =
    std::function<bool(std::size_t run, std::int64_t first, std::int64_t n, std::int16_t* to)>;

// Reads the first n_samples of every run into vd, time index 1 and on. targets has the program
// channel of each run, 0: it is passed over; no channel twice. Runs are read in pieces, which
// are shared out over the threads; between them the user can stop it. The reading bar goes
// from 0 to 100 of 115.
read_end read_channel_runs(session_state& session, const std::vector<std::int32_t>& targets,
                           std::int64_t n_samples, const run_reader& read);

}  // namespace kestrelvane
