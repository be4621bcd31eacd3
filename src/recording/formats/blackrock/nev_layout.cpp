#include "recording/formats/blackrock/nev_layout.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "recording/header_checks.h"
#include "recording/interleaved.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::size_t name_bytes = 8;

constexpr std::array<std::string_view, 11> known_headers = {
    "ARRAYNME", "ECOMMENT", "CCOMMENT", "MAPFILE",  "NEUEVWAV", "NEUEVLBL",
    "NEUEVFLT", "DIGLABEL", "VIDEOSYN", "TRACKOBJ", "NSASEXEV"};

// The true factor of analogue inputs, in nV, and what is left of it in its 16 bits.
constexpr std::uint16_t analog_factor_16 = 21516;
constexpr double analog_factor = 152592.547;

std::string_view up_to_nul(std::string_view text) { return text.substr(0, text.find('\0')); }

// The kind of file and its version; the cursor stands behind them.
bool take_kind(byte_cursor& in, nev_layout& layout) {
  const std::string_view kind = take_text(in, name_bytes);
  skip_bytes(in, 4);  // version, flags
  // The newer kind has stamps of eight bytes.
  layout.packet_head = kind == "BREVENTS" ? 12 : 8;
  return kind == "BREVENTS" || kind == "NEURALEV";
}

bool check_layout(const session_state& session, const input_file& file, const nev_layout& layout) {
  const std::int64_t least_header = nev_basic_bytes + nev_extended_bytes * layout.n_extended;
  // Every size is tested against the file before it is divided by or read.
  if (layout.header_bytes < nev_basic_bytes || layout.header_bytes > file.size ||
      least_header > file.size) {
    return refuse_file(session, fmt::format("Size of headers in file is {}, with {} extended "
                                            "headers; the file has {} bytes",
                                            layout.header_bytes, layout.n_extended, file.size));
  }
  constexpr std::int64_t longest_packet = 1 << 20;  // far beyond any system's
  // A bound for the blocks that are read at a time.
  if (layout.n_samples < 1 || layout.packet_bytes > longest_packet) {
    return refuse_file(session, fmt::format("Packet size in file is {}", layout.packet_bytes));
  }
  if (layout.resolution < 1) {
    return refuse_file(session,
                       fmt::format("Time stamp resolution in file is {}", layout.resolution));
  }
  return check_sampling_frequency(session, static_cast<double>(layout.sample_rate));
}

// Network clocks tell the time of day: the first packet is then where the recording begins.
void find_first_stamp(const session_state& session, const input_file& file, nev_layout& layout) {
  // Below that resolution stamps count from the start of the recording.
  if (layout.resolution < wall_clock_resolution || layout.n_packets == 0) return;
  const std::vector<char> packet = read_block(file, layout.header_bytes, layout.packet_head);
  if (std::ssize(packet) < layout.packet_head) return;
  layout.first_stamp = nev_packet_at(layout, packet.data()).stamp;
  log_message(session, fmt::format("Time stamps are those of a clock: times count from {}",
                                   layout.first_stamp));
}

nev_electrode take_electrode(byte_cursor& in) {
  nev_electrode electrode;
  electrode.id = take_value<std::uint16_t>(in);
  skip_bytes(in, 2);  // connector and pin
  const auto factor = take_value<std::uint16_t>(in);
  electrode.scale =
      // 16 bits do not hold the factor of analogue inputs, so that one value stands for it.
      (factor == analog_factor_16 ? analog_factor : static_cast<double>(factor)) / 1000;
  return electrode;
}

}  // namespace

record_start take_blackrock_start(byte_cursor& in) {
  record_start start;
  start.year = take_value<std::uint16_t>(in);
  start.month = take_value<std::uint16_t>(in);
  skip_bytes(in, 2);  // day of the week
  start.day = take_value<std::uint16_t>(in);
  start.hour = take_value<std::uint16_t>(in);
  start.minute = take_value<std::uint16_t>(in);
  start.second = take_value<std::uint16_t>(in);
  skip_bytes(in, 2);  // milliseconds
  return start;
}

bool read_nev_layout(const session_state& session, const input_file& file, nev_layout& layout) {
  layout.basic = read_block(file, 0, nev_basic_bytes);
  byte_cursor in{layout.basic.data(), layout.basic.size()};
  if (!take_kind(in, layout)) {
    log_message(session, "The file does not begin as a Blackrock .nev file does");
    return false;
  }
  layout.header_bytes = take_value<std::uint32_t>(in);
  layout.packet_bytes = take_value<std::uint32_t>(in);
  layout.resolution = take_value<std::uint32_t>(in);
  layout.sample_rate = take_value<std::uint32_t>(in);
  layout.start = take_blackrock_start(in);
  layout.application = up_to_nul(take_text(in, 32));
  layout.comment = up_to_nul(take_text(in, nev_comment_bytes));
  layout.n_extended = take_value<std::uint32_t>(in);
  if (in.failed) return refuse_file(session, "Early end to file");
  layout.n_samples = (layout.packet_bytes - layout.packet_head) / 2;
  if (!check_layout(session, file, layout)) return false;
  // What is left after the last whole packet is no packet.
  layout.n_packets = (file.size - layout.header_bytes) / layout.packet_bytes;
  find_first_stamp(session, file, layout);
  return true;
}

bool scan_nev_electrodes(const input_file& file, nev_layout& layout,
                         const std::function<void(const nev_electrode&)>& on_electrode,
                         const std::function<void(std::int64_t)>& on_unknown) {
  const std::vector<char> headers =
      read_block(file, nev_basic_bytes, nev_extended_bytes * layout.n_extended);
  byte_cursor all{headers.data(), headers.size()};
  for (std::int64_t h = 1; h <= layout.n_extended; ++h) {
    const std::string_view header = take_text(all, nev_extended_bytes);
    if (all.failed) return false;
    const std::string_view name = up_to_nul(header.substr(0, name_bytes));
    // Unknown headers are named and passed over: their size is that of the others.
    if (std::find(known_headers.begin(), known_headers.end(), name) == known_headers.end()) {
      on_unknown(h);
    }
    if (name != "NEUEVWAV") continue;
    byte_cursor in{header.data(), header.size(), name_bytes};
    const nev_electrode electrode = take_electrode(in);
    layout.n_file_channels = std::max(layout.n_file_channels, electrode.id);
    on_electrode(electrode);
  }
  return true;
}

std::vector<std::int32_t> list_nev_slots(const session_state& session,
                                         std::int32_t n_file_channels) {
  std::vector<std::int32_t> slots = map_interleaved(session, n_file_channels).target;
  slots.insert(slots.begin(), 0);
  return slots;
}

nev_packet nev_packet_at(const nev_layout& layout, const char* bytes) {
  nev_packet packet;
  std::uint32_t short_stamp = 0;
  std::uint16_t id = 0;
  const std::size_t stamp_bytes = layout.packet_head == 12 ? 8 : 4;
  if (stamp_bytes == 8) {
    std::memcpy(&packet.stamp, bytes, 8);
  } else {
    std::memcpy(&short_stamp, bytes, 4);
    packet.stamp = short_stamp;
  }
  std::memcpy(&id, bytes + stamp_bytes, 2);
  packet.id = id;
  packet.unit = static_cast<signed char>(bytes[layout.unit_at()]);
  return packet;
}

bool walk_nev_packets(const input_file& file, const nev_layout& layout,
                      const std::function<bool(char* packets, std::int64_t n)>& on_block) {
  constexpr std::int64_t block_bytes = 1 << 20;
  // At least one packet, however long.
  const std::int64_t in_block = std::max<std::int64_t>(block_bytes / layout.packet_bytes, 1);
  std::vector<char> block(
      static_cast<std::size_t>(std::min(in_block, layout.n_packets) * layout.packet_bytes));
  expect_sequential_reading(file);
  for (std::int64_t p = 0; p < layout.n_packets; p += in_block) {
    const std::int64_t n = std::min(in_block, layout.n_packets - p);
    const std::int64_t at = layout.header_bytes + p * layout.packet_bytes;
    if (!read_at(file, at, block.data(), n * layout.packet_bytes)) return false;
    if (!on_block(block.data(), n)) return false;
  }
  return true;
}

std::int64_t ticks_to(std::uint64_t ticks, std::int64_t per_second, std::int64_t resolution) {
  const auto divisor = static_cast<std::uint64_t>(resolution);
  const auto rate = static_cast<std::uint64_t>(per_second);
  const std::uint64_t seconds = ticks / divisor;
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  // rest * rate stays below 2^32 * 10^6.
  const std::uint64_t rest = ticks % divisor * rate / divisor;
  // Divided and not multiplied: clock times of a hostile file would leave 64 bits.
  if (seconds > (static_cast<std::uint64_t>(most) - rest) / rate) return most;
  return static_cast<std::int64_t>(seconds * rate + rest);
}

}  // namespace kestrelvane
