// The records of a Surf file, as the acquisition system writes them.
//
// After a header of 2050 bytes and any number of descriptor blocks, records follow to the
// end of the file. Each begins with a code of two bytes and six bytes of padding; time
// stamps are in µs since the recording began. Samples are 12-bit values in 16 bits, 2048
// standing for 0 V, all of one channel before those of the next.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/input_file.h"
#include "recording/record_start.h"

namespace kestrelvane {

// What a stream of samples was recorded with; its place in the file's order of layouts,
// from 0, is the probe number of data records.
struct surf_layout {
  char kind = ' ';  // 'S' spike stream, 'C' continuous (LFP), 'E' epochs
  std::int32_t program_major = 0;
  std::int32_t n_channels = 0;
  std::int32_t sampling_frequency = 0;  // Hz, per channel
  std::int32_t internal_gain = 0;
  std::int32_t external_gain = 0;  // of the first channel
  std::string description, electrode;
};

// A block of samples.
struct surf_block {
  std::int64_t at = 0;         // offset of the first sample
  std::int64_t timestamp = 0;  // µs, of the first sample
  std::int32_t n_values = 0;   // of all channels together
  std::int32_t probe = 0;
};

struct surf_file {
  record_start created;
  std::vector<surf_layout> layouts;
  std::vector<surf_block> spike_blocks, lfp_blocks;
};

// False, after the log line, for a file that does not begin as it should. Otherwise
// records are taken until the end, or until one that is cut off or not known, which is
// logged. Messages go to the log, digital values and stimulus headers to the session. The bar
// moves up to bar_to of 115.
bool parse_surf_file(session_state& session, const input_file& file, surf_file& surf,
                     std::int32_t bar_to);

}  // namespace kestrelvane
