#include "recording/formats/plexon/plx_blocks.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "recording/event_records.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t stretch_bytes = 1 << 22;
constexpr std::int64_t block_header_bytes = sizeof(plx_block_header);
constexpr std::int32_t most_tetrodes = 16;
constexpr std::int32_t blocks_of_a_record = 4;  // one for each channel of a tetrode

// Sees to it that the buffer holds count bytes from offset on, or all that the file has.
// Returns the number of these; read says whether the file was read for it.
std::int64_t buffer_range(plx_block_stream& in, std::int64_t offset, std::int64_t count,
                          bool& read) {
  count = std::min(count, in.file->size - offset);
  if (count <= 0) return 0;
  if (offset >= in.buffer_at && offset + count <= in.buffer_at + in.buffer_bytes) return count;
  const std::int64_t wanted = std::min(stretch_bytes, in.file->size - offset);
  in.buffer_bytes = 0;
  // The stretch before stays readable: samples of it may still be on their way.
  in.buffer.swap(in.previous);
  in.buffer.resize(static_cast<std::size_t>(std::min(stretch_bytes, in.file->size)));
  if (!read_at(*in.file, offset, in.buffer.data(), wanted)) return 0;
  in.buffer_at = offset;
  in.buffer_bytes = wanted;
  read = true;
  return count;
}

std::int32_t not_negative(std::int16_t n) { return n > 0 ? n : 0; }

template <typename T>
bool take_headers(const input_file& file, std::int64_t& at, std::int32_t n, std::vector<T>& to) {
  // Counts of the header are tested against the file before room is made.
  const std::int64_t bytes = std::int64_t{n} * static_cast<std::int64_t>(sizeof(T));
  if (n < 0 || bytes > file.size - at) return false;
  to.resize(static_cast<std::size_t>(n));
  if (!read_at(file, at, to.data(), bytes)) return false;
  at += bytes;
  return true;
}

}  // namespace

std::int64_t convert_ticks(std::int64_t ticks, std::int32_t from_hz, std::int32_t to_hz) {
  // The usual case, and exact for every stamp.
  if (from_hz == to_hz) return ticks;
  constexpr std::int64_t largest = std::numeric_limits<std::int64_t>::max();
  const std::int64_t whole = ticks / from_hz, rest = ticks % from_hz;
  const std::int64_t of_rest = rest * to_hz / from_hz;
  // Divided and not multiplied: stamps of a damaged file would leave 64 bits.
  if (whole > (largest - of_rest) / to_hz) return largest;
  return whole * to_hz + of_rest;
}

bool read_plx_headers(const input_file& file, plx_headers& headers) {
  plx_file_header& h = headers.file;
  if (!read_at(file, 0, &h, sizeof h) || h.magic != plx_magic) return false;
  std::int64_t at = sizeof h;
  std::vector<plx_event_header> unused;
  return take_headers(file, at, h.n_dsp_channels, headers.channels) &&
         take_headers(file, at, h.n_event_channels, unused) &&
         take_headers(file, at, h.n_slow_channels, headers.slow) && (headers.blocks_at = at) > 0;
}

void begin_blocks(plx_block_stream& in, const input_file& file, std::int64_t from,
                  std::int64_t end) {
  in.file = &file;
  in.next = from;
  in.end = std::min(end, file.size);
  in.buffer_bytes = 0;
}

bool next_block(plx_block_stream& in, plx_block& block) {
  if (in.next >= in.end) return false;
  block.offset = in.next;
  block.new_stretch = false;
  if (buffer_range(in, in.next, block_header_bytes, block.new_stretch) < block_header_bytes) {
    return false;
  }
  std::memcpy(&block.header, in.buffer.data() + (in.next - in.buffer_at), sizeof block.header);
  block.time = plx_time(block.header);
  // A block without a waveform has no words, whatever it says.
  block.n_words = block.header.n_waveforms > 0 ? not_negative(block.header.n_words) : 0;
  block.bytes =
      block_header_bytes + 2 * std::int64_t{not_negative(block.header.n_waveforms)} * block.n_words;
  const std::int64_t there = buffer_range(
      in, in.next, block_header_bytes + 2 * std::int64_t{block.n_words}, block.new_stretch);
  // The words that the file has: its end may cut a block.
  block.n_there =
      static_cast<std::int32_t>(std::max<std::int64_t>(there - block_header_bytes, 0) / 2);
  block.words = in.buffer.data();
  if (block.n_there > 0) block.words += in.next - in.buffer_at + block_header_bytes;
  // By what the block says of itself; its end may lie beyond the file.
  in.next += block.bytes;
  return true;
}

bool next_is_buffered(const plx_block_stream& in) {
  const std::int64_t left = in.buffer_at + in.buffer_bytes - in.next;
  if (in.next >= in.end || left < block_header_bytes) return false;
  plx_block_header h;
  std::memcpy(&h, in.buffer.data() + (in.next - in.buffer_at), sizeof h);
  return block_header_bytes + 2 * std::int64_t{not_negative(h.n_words)} <= left;
}

plx_record_counter begin_records(const session_state& session) {
  const recording_store& r = session.recording;
  plx_record_counter counter;
  counter.tetrodes = r.electrode_type == electrode_tetrode;
  counter.counts.resize(static_cast<std::size_t>(r.n_channels) + 1);
  return counter;
}

plx_block_use count_record(const session_state& session, plx_record_counter& counter,
                           const plx_block& block, plx_record& record) {
  constexpr std::int16_t strobed_words = 257;
  const recording_store& r = session.recording;
  const std::int16_t channel = block.header.channel;
  if (channel < 1 || channel > r.n_channels) {
    // Strobed words are events of the experiment, not a fault.
    return channel == strobed_words ? plx_block_use::passed_over : plx_block_use::unparsed;
  }
  if (block.header.type != plx_spike_block) return plx_block_use::passed_over;
  record.channel = plx_program_channel(session, channel);
  if (record.channel == 0) return plx_block_use::unparsed;
  record.unit_group =
      counter.tetrodes ? (record.channel - 1) / blocks_of_a_record + 1 : record.channel;
  // More tetrodes than any system had: the blocks are not what they seem.
  if (counter.tetrodes && record.unit_group > most_tetrodes) return plx_block_use::ends_read;

  std::int32_t& count = counter.counts[record.unit_group];
  if (count >= r.records_per_unit) return plx_block_use::ends_read;
  // Known before it is counted, since only whole records count.
  record.record = count + 1;
  record.is_first = !counter.tetrodes || counter.blocks_in_group == 0;
  if (!counter.tetrodes) {
    ++count;
  } else if (++counter.blocks_in_group == blocks_of_a_record) {
    counter.blocks_in_group = 0;
    ++count;
  }
  return plx_block_use::record;
}

std::int64_t plx_record_position(const session_state& session, const plx_record& record,
                                 std::int64_t stamp_us) {
  constexpr std::int32_t us_per_second = 1'000'000;
  const recording_store& r = session.recording;
  if (!session.preferences.treat_as_continuous) {
    return record_index(record.record, r.samples_per_event);
  }
  // A stamp before the first one stands at the beginning.
  return stamp_us < 0 ? 0 : convert_ticks(stamp_us, us_per_second, r.sampling_frequency);
}

std::int32_t plx_program_channel(const session_state& session, std::int64_t file_channel) {
  const recording_store& r = session.recording;
  if (file_channel < 1 || file_channel > channel_limit) return 0;
  const std::int32_t channel = r.channel_map[file_channel];
  return channel >= 1 && channel <= r.n_channels ? channel : 0;
}

}  // namespace kestrelvane
