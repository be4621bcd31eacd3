// What the parts of the ".plx" reader have in common: the plan that the scan makes, and how
// samples and events come into the session. For the sources of the reader alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/input_file.h"
#include "recording/formats/plexon/plx_blocks.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr float missing_plx_scale = 0.0075f;  // µV per bit, where the header gives none

// What the scan finds out before anything is allocated.
struct plx_plan {
  plx_headers headers;
  bool tetrodes = false;
  bool continuous = false;
  std::int32_t record_samples = 0;  // of one waveform
  std::int64_t estimate = 0;        // samples per channel
  std::int64_t blocks_end = 0;      // no block from here on is read
};

// Units of every channel or tetrode, and what was left out.
struct plx_units {
  std::vector<std::int32_t> n_units;  // by channel or tetrode, from 1: the largest
  std::int64_t n_bad_units = 0;
};

// Looks at the headers and, as far as the length of the recording asks for it, the blocks.
// Fills the plan, electrode_type, n_channels and is_continuous. False after the words for
// a file that cannot be read, or when the user stops it.
bool scan_plx(session_state& session, const input_file& file, plx_plan& plan);

// The rate of spike waveforms, Hz.
std::int32_t plx_waveform_rate(const plx_file_header& h);

// The blocks that are to be read.
plx_block_stream plx_stream(const input_file& file, const plx_plan& plan);
// The next block of a scan: false at the end, or when the user wants to stop.
bool next_scanned_block(const session_state& session, plx_block_stream& in, plx_block& block);

// Allocates vd for an estimated length.
bool allocate_plx_samples(session_state& session, std::int64_t estimate);

// Words from a time index on, as far as the recording has room for them. Any thread.
void store_plx_words(recording_store& r, std::int32_t channel, std::int64_t index,
                     const char* words, std::int64_t n);

// An event of a unit (0: none) of a channel or tetrode. Clusters are numbered when all units
// are known. False when the table is full.
bool add_plx_event(session_state& session, std::int64_t time, std::int32_t channel,
                   std::int32_t group, std::int32_t unit, plx_units& units);

// The two kinds of file. They fill vd and the events; false after the words that say why, or
// when the user stops it.
bool read_plx_records(session_state& session, const input_file& file, const plx_plan& plan,
                      plx_units& units);
bool read_plx_slow(session_state& session, const input_file& file, const plx_plan& plan,
                   const std::string& stream, plx_units& units);

// The rate at which a continuous file is read, Hz: that of the mapped slow channels that have
// samples. Of several the one that stream names, as a rate or as a number from 1, or the
// user; the channels of the others lose their program channel. 0 where the headers have none.
// False after the words that say why nothing can be read.
bool choose_plx_rate(session_state& session, const input_file& file, const plx_plan& plan,
                     const std::string& stream, std::int32_t& hz);

}  // namespace kestrelvane
