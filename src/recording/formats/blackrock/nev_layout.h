// Where things stand in a .nev file: what its reader, its writer and the reader of the
// continuous files beside it share.
//
// A basic header of 336 bytes, extended headers of 32 bytes each, then packets of one size,
// each with a time stamp, an id and a payload. Ids from 1 up are electrodes, whose payload is
// one waveform of 16-bit samples; id 0 and high ids are events of other kinds. Version 2 has
// time stamps of 4 bytes, version 3 of 8. All fields are little-endian.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "files/byte_cursor.h"
#include "files/input_file.h"
#include "recording/record_start.h"
#include "session/session_state.h"

namespace kestrelvane {

constexpr std::int64_t nev_basic_bytes = 336;
constexpr std::int64_t nev_extended_bytes = 32;
// The comment inside the basic header.
constexpr std::size_t nev_comment_at = 76;
constexpr std::size_t nev_comment_bytes = 256;

// A time stamp that counts so finely is the time of day of a network clock.
constexpr std::int64_t wall_clock_resolution = 1'000'000'000;  // counts per second

// Waveforms that one channel can hold; the time stamp map of Utah arrays has no room for more.
constexpr std::int32_t nev_records_per_channel = 2'000'000;

// The eight 16-bit fields of a date and time that headers of both kinds of file have.
record_start take_blackrock_start(byte_cursor& in);

struct nev_layout {
  std::int64_t header_bytes = 0;     // offset of the first packet
  std::int64_t packet_bytes = 0;     // of every packet
  std::int64_t packet_head = 8;      // bytes of a packet in front of its samples: 8 or 12
  std::int64_t resolution = 0;       // counts of a time stamp per second
  std::int64_t sample_rate = 0;      // Hz
  std::int64_t n_extended = 0;       // extended headers
  std::int64_t n_packets = 0;        // whole ones; a cut one at the end does not count
  std::int64_t n_samples = 0;        // of one waveform
  std::int32_t n_file_channels = 0;  // largest electrode id; scan_nev_electrodes
  std::uint64_t first_stamp = 0;     // from which times count; not 0 with a wall clock
  record_start start;
  std::string_view application, comment;  // inside basic
  std::vector<char> basic;                // the basic header

  // Offset of the unit's byte inside a packet.
  std::size_t unit_at() const { return static_cast<std::size_t>(packet_head - 2); }
};

// Parses and tests the basic header. False, after the words for what is wrong, unless the
// packets can be walked.
bool read_nev_layout(const session_state& session, const input_file& file, nev_layout& layout);

// What an extended header says of an electrode.
struct nev_electrode {
  std::int32_t id = 0;  // from 1; up to 65535
  double scale = 0;     // µV per bit; 0: not said
};

// Calls on_electrode for each electrode header, in file order, and on_unknown with the number
// (from 1) of each header of unknown kind. Sets n_file_channels. False when the file ends
// within them.
bool scan_nev_electrodes(const input_file& file, nev_layout& layout,
                         const std::function<void(const nev_electrode&)>& on_electrode,
                         const std::function<void(std::int64_t)>& on_unknown);

// Program channel of each electrode id from 0 to n_file_channels, by the configuration in use
// if there is one; 0: not read.
std::vector<std::int32_t> list_nev_slots(const session_state& session,
                                         std::int32_t n_file_channels);

struct nev_packet {
  std::uint64_t stamp = 0;  // as it stands in the file
  std::int32_t id = 0;
  std::int32_t unit = 0;  // signed: below 0 is noise
};

nev_packet nev_packet_at(const nev_layout& layout, const char* bytes);

// Calls on_block with the bytes of some packets and their count, from front to back, about
// a megabyte at a time; it returns false to stop. False when stopped or when the file
// cannot be read.
bool walk_nev_packets(const input_file& file, const nev_layout& layout,
                      const std::function<bool(char* packets, std::int64_t n)>& on_block);

// A count of clock ticks in another unit: truncate(ticks * per_second / resolution), or
// the largest 64-bit value where that does not fit.
std::int64_t ticks_to(std::uint64_t ticks, std::int64_t per_second, std::int64_t resolution);

// Ticks of a packet since first_stamp; one in front of it counts as 0.
inline std::uint64_t ticks_of(const nev_layout& layout, std::uint64_t stamp) {
  return stamp > layout.first_stamp ? stamp - layout.first_stamp : 0;
}

}  // namespace kestrelvane
