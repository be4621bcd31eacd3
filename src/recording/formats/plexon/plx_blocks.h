// Walking the data blocks of a ".plx" file, and what they are to an event-based recording.
//
// The stream reads a few megabytes at a time. A block's counts are tested against the
// file before anything is taken from it; a block that runs past the end of the file is
// given with the words that are there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "files/input_file.h"
#include "recording/formats/plexon/plx_layout.h"
#include "session/session_state.h"

namespace kestrelvane {

// The headers of a file and where its blocks begin.
struct plx_headers {
  plx_file_header file;
  std::vector<plx_channel_header> channels;
  std::vector<plx_slow_header> slow;
  std::int64_t blocks_at = 0;
};

// False when the file is none of ours, or too short for the headers it tells of.
bool read_plx_headers(const input_file& file, plx_headers& headers);

struct plx_block {
  plx_block_header header;
  std::int64_t offset = 0;      // of the header in the file
  std::int64_t time = 0;        // ticks
  std::int64_t bytes = 0;       // of header and all samples, as the header has it
  std::int32_t n_words = 0;     // of the first waveform, as the header has it
  std::int32_t n_there = 0;     // of these, in the file
  const char* words = nullptr;  // valid while the next stretch is walked
  bool new_stretch = false;     // the stream has just read from the file: time for a poll
};

struct plx_block_stream {
  const input_file* file = nullptr;
  std::int64_t next = 0;               // offset of the next block
  std::int64_t end = 0;                // no block begins here or later
  std::vector<char> buffer, previous;  // the stretch being walked, and the one before it
  std::int64_t buffer_at = 0, buffer_bytes = 0;
};

void begin_blocks(plx_block_stream& in, const input_file& file, std::int64_t from,
                  std::int64_t end);
// False after the last block.
bool next_block(plx_block_stream& in, plx_block& block);
// True when the next block is there without another read from the file.
bool next_is_buffered(const plx_block_stream& in);

// Of a continuous file: spikes of higher channels are not read.
constexpr std::int32_t highest_plx_spike_channel = 256;

// Which record of an event-based recording a spike block is.
struct plx_record {
  std::int32_t channel = 0;     // program channel
  std::int32_t unit_group = 0;  // the channel, or its tetrode: what units are numbered within
  std::int64_t record = 0;      // from 1, within the group
  bool is_first = false;        // the block an event may be made of
};

enum class plx_block_use { record, passed_over, unparsed, ends_read };

// Counts records block by block; reader and rewriter must see the same ones.
struct plx_record_counter {
  bool tetrodes = false;
  std::int32_t blocks_in_group = 0;  // of the tetrode's four
  std::vector<std::int32_t> counts;  // by unit group
};

plx_record_counter begin_records(const session_state& session);
plx_block_use count_record(const session_state& session, plx_record_counter& counter,
                           const plx_block& block, plx_record& record);

// Time index of a record's first sample: on the synthetic axis, or with treat_as_continuous
// at its time stamp, µs from the first record.
std::int64_t plx_record_position(const session_state& session, const plx_record& record,
                                 std::int64_t stamp_us);

// Program channel of a file channel from 1; 0 when it has none in the recording.
std::int32_t plx_program_channel(const session_state& session, std::int64_t file_channel);

}  // namespace kestrelvane
