#include "recording/formats/blackrock/nsx_packets.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "numerics/parallel.h"
#include "recording/formats/blackrock/nev_layout.h"
#include "session/run_log.h"

namespace kestrelvane {

namespace {

constexpr std::int64_t farthest_index = std::int64_t{1} << 40;  // more than a session holds

struct nsx_packet {
  bool has_marker = false;
  std::uint64_t stamp = 0;
  std::int64_t n_points = 0;  // as stated
};

// Where the walk stands.
struct packet_walk {
  session_state& session;
  const input_file& file;
  const nsx_stream& stream;
  std::vector<nsx_run>& runs;
  std::int64_t head_bytes = 0;  // of a packet
  std::int64_t point_bytes = 0;
  std::int64_t at = 0;          // the next packet
  std::int64_t next_index = 1;  // after the last point so far
  bool is_first = true;
  std::uint64_t base = 0;        // stamp from which times count
  std::uint64_t last_stamp = 0;  // of the packet before, and its points
  std::int64_t last_points = 0;
  std::int64_t n_run_back = 0;
  std::int64_t no_leap_before = 0;  // offset up to which packets are taken one by one
  std::vector<char> window = {};    // bytes of the file, for headers that stand close together
  std::int64_t window_at = 0;

  bool has_wall_clock() const { return stream.resolution >= wall_clock_resolution; }
  std::int64_t room(std::int64_t points_at) const {
    return std::max<std::int64_t>((file.size - points_at) / point_bytes, 0);
  }
};

// The header of a packet; its points may reach beyond the end of the file. False when the
// file ends within it.
bool read_packet_head(packet_walk& walk, std::int64_t at, nsx_packet& packet) {
  constexpr std::int64_t window_bytes = 4096;
  // The file ends within the header: there is no packet.
  if (at + walk.head_bytes > walk.file.size) return false;
  const std::int64_t end = walk.window_at + std::ssize(walk.window);
  // Headers that stand close together share one read.
  if (at < walk.window_at || at + walk.head_bytes > end) {
    walk.window = read_block(walk.file, at, window_bytes);
    walk.window_at = at;
    if (std::ssize(walk.window) < walk.head_bytes) return false;
  }
  const char* head = walk.window.data() + (at - walk.window_at);
  packet = {};
  packet.has_marker = head[0] == 1;
  std::uint32_t n_points = 0;
  // Little-endian: the bytes of a short stamp are the low ones of a long one.
  std::memcpy(&packet.stamp, head + 1, static_cast<std::size_t>(walk.stream.stamp_bytes));
  std::memcpy(&n_points, head + 1 + walk.stream.stamp_bytes, sizeof n_points);
  packet.n_points = n_points;
  return true;
}

// Points by which a stamp lies after another, with their fraction.
double points_between(const packet_walk& walk, std::uint64_t from, std::uint64_t to) {
  const double ticks =
      to >= from ? static_cast<double>(to - from) : -static_cast<double>(from - to);
  return ticks * static_cast<double>(walk.stream.rate) /
         static_cast<double>(walk.stream.resolution);
}

// Time index of the packet's first point.
std::int64_t place_packet(packet_walk& walk, std::uint64_t stamp) {
  // Stamps of a wall clock tremble and drift against the sampling clock.
  if (!walk.is_first && walk.has_wall_clock()) {
    const double beyond =
        points_between(walk, walk.last_stamp, stamp) - static_cast<double>(walk.last_points);
    // Less than a point: the packet goes on where the one before ended.
    if (std::fabs(beyond) < 1.0) return walk.next_index;
  }
  // A stamp before the base counts as the base.
  const std::uint64_t ticks = stamp > walk.base ? stamp - walk.base : 0;
  const std::int64_t zero_based = ticks_to(ticks, walk.stream.rate, walk.stream.resolution);
  const std::int64_t index = std::min(zero_based, farthest_index) + 1;
  if (index >= walk.next_index) return index;
  // Trembling of a clock is no jump backwards.
  if (stamp < walk.last_stamp || !walk.has_wall_clock()) ++walk.n_run_back;
  return walk.next_index;
}

// A new run, or one point more for one whose points stand in packets of their own.
void add_points(packet_walk& walk, std::int64_t points_at, std::int64_t n_points,
                std::int64_t index) {
  const std::int64_t stride = walk.head_bytes + walk.point_bytes;
  nsx_run* last = walk.runs.empty() ? nullptr : &walk.runs.back();
  // Runs of single points have one stride, so that they are read in blocks.
  if (last != nullptr && n_points == 1 && index == walk.next_index && walk.last_points == 1 &&
      (last->skip_bytes > 0 || last->n_points == 1) &&
      points_at == last->at + last->n_points * stride) {
    last->skip_bytes = walk.head_bytes;
    ++last->n_points;
  } else {
    walk.runs.push_back({points_at, n_points, index, 0});
  }
  walk.next_index = index + n_points;
}

// Packets of one point, one after the other with neither gap nor jump between them, are
// taken many at a time, on the word of the last one. Returns false when there are no such.
bool take_many_points(packet_walk& walk) {
  constexpr std::int64_t many = 1024;
  if (walk.runs.empty() || walk.runs.back().skip_bytes == 0 || walk.last_points != 1) return false;
  if (walk.at < walk.no_leap_before) return false;
  const std::int64_t stride = walk.head_bytes + walk.point_bytes;
  const std::int64_t last_at = walk.at + (many - 1) * stride;
  // Whatever comes of it, packets up to there are not leapt over again.
  walk.no_leap_before = last_at + stride;
  nsx_packet last;
  if (last_at + stride > walk.file.size || !read_packet_head(walk, last_at, last)) return false;
  const double passed = points_between(walk, walk.last_stamp, last.stamp);
  // The stamps must have passed as many points as the packets hold.
  if (!last.has_marker || last.n_points != 1 || std::fabs(passed - many) > 0.5) return false;
  walk.runs.back().n_points += many;
  walk.next_index += many;
  walk.last_stamp = last.stamp;
  walk.at += many * stride;
  return true;
}

// Points of a packet, when it states none: an empty one, or the last of a file that was
// never closed.
std::int64_t count_unstated_points(packet_walk& walk, std::int64_t points_at) {
  nsx_packet next;
  const bool next_follows = read_packet_head(walk, points_at, next) && next.has_marker &&
                            // A header that fits the file is taken for the next packet, and this
                            // one for empty.
                            next.n_points >= 1 &&
                            next.n_points <= walk.room(points_at + walk.head_bytes);
  if (next_follows || walk.room(points_at) == 0) return 0;
  log_message(walk.session,
              "The last packet does not state its points: the rest of the file is "
              "taken for them");
  return walk.room(points_at);
}

void take_packet(packet_walk& walk, const nsx_packet& packet) {
  const std::int64_t points_at = walk.at + walk.head_bytes;
  std::int64_t n_points = packet.n_points;
  if (n_points == 0) n_points = count_unstated_points(walk, points_at);
  if (n_points > walk.room(points_at)) {
    log_message(walk.session,
                fmt::format("A packet of {} points is cut by the end of the file", n_points));
    n_points = walk.room(points_at);
  }
  walk.at = points_at + n_points * walk.point_bytes;
  if (n_points == 0) return;
  if (walk.is_first && walk.has_wall_clock()) {
    walk.base = packet.stamp;
    log_message(walk.session,
                fmt::format("Time stamps are those of a clock: times count from {}", walk.base));
  }
  add_points(walk, points_at, n_points, place_packet(walk, packet.stamp));
  walk.is_first = false;
  walk.last_stamp = packet.stamp;
  walk.last_points = n_points;
}

// Polls and moves the bar about every megabyte of packets.
bool goes_on(packet_walk& walk, std::int64_t& next_poll) {
  if (walk.at < next_poll) return true;
  next_poll = walk.at + (1 << 20);
  return !reading_interrupted(walk.session);
}

// --- reading

constexpr std::int64_t block_bytes = 1 << 20;

// What is known while runs are read: how far the bar is.
struct run_reading {
  session_state& session;
  const input_file& file;
  const interleaved_channels& channels;
  std::int64_t n_all = 0;   // points
  std::int64_t n_done = 0;  // of runs that have been read
  std::int64_t next_poll = 0;
  std::vector<std::int16_t> buffer = {};

  std::int64_t values() const { return std::ssize(channels.target); }
  std::int32_t bar(std::int64_t n) const {
    return static_cast<std::int32_t>(100 * static_cast<double>(n) / static_cast<double>(n_all));
  }
};

// Long runs are shared out over the threads; short ones are not worth it.
bool read_plain_run(run_reading& r, const nsx_run& run) {
  if (2 * r.values() * run.n_points > block_bytes) {
    return read_interleaved(r.session, r.file, r.channels, {run.at, run.n_points, run.first_index},
                            r.bar(r.n_done), r.bar(r.n_done + run.n_points)) == read_end::whole;
  }
  r.buffer.resize(static_cast<std::size_t>(r.values() * run.n_points));
  if (!read_at(r.file, run.at, r.buffer.data(), 2 * std::ssize(r.buffer))) return false;
  spread_points(r.session, r.channels, r.buffer.data(), run.n_points, run.first_index);
  return true;
}

// Moves points that stand stride bytes apart together, at the front of their bytes.
void close_ranks(char* bytes, std::int64_t n_points, std::int64_t point_bytes,
                 std::int64_t stride) {
  for (std::int64_t p = 1; p < n_points; ++p) {
    std::memmove(bytes + p * point_bytes, bytes + p * stride,
                 static_cast<std::size_t>(point_bytes));
  }
}

// Points in packets of their own, in blocks shared out over the threads.
bool read_spaced_run(run_reading& r, const nsx_run& run) {
  const std::int64_t point_bytes = 2 * r.values();
  const std::int64_t stride = point_bytes + run.skip_bytes;
  const std::int64_t in_block = std::max<std::int64_t>(block_bytes / stride, 1);
  const std::int64_t n_blocks = (run.n_points - 1) / in_block + 1;
  const std::int32_t n_threads = threads_now(r.session);
  std::vector<std::vector<std::int16_t>> buffers(static_cast<std::size_t>(n_threads));
  std::atomic<bool> failed{false};
  std::atomic<std::int64_t> n_read{0};
  const std::atomic<bool>& interrupted = r.session.operation.reading_interrupted;
  parallel_for_dealt(n_threads, 0, n_blocks - 1, [&](std::int64_t b, std::int32_t rank) {
    if (failed || interrupted) return;
    const std::int64_t first = b * in_block;
    const std::int64_t n = std::min(in_block, run.n_points - first);
    const std::int64_t bytes = (n - 1) * stride + point_bytes;
    std::vector<std::int16_t>& buffer = buffers[rank];
    buffer.resize(static_cast<std::size_t>((bytes + 1) / 2));
    char* points = reinterpret_cast<char*>(buffer.data());
    if (!read_at(r.file, run.at + first * stride, points, bytes)) {
      failed = true;
      return;
    }
    close_ranks(points, n, point_bytes, stride);
    spread_points(r.session, r.channels, buffer.data(), n, run.first_index + first);
    n_read += n;
    if (rank != 0) return;
    set_progress(r.session, meter::reading, r.bar(r.n_done + n_read), 115);
    reading_interrupted(r.session);
  });
  return !failed && !interrupted;
}

}  // namespace

bool list_nsx_runs(session_state& session, const input_file& file, const nsx_stream& stream,
                   std::vector<nsx_run>& runs) {
  packet_walk walk{session, file, stream, runs};
  walk.head_bytes = 1 + stream.stamp_bytes + 4;
  walk.point_bytes = 2 * stream.n_channels;
  walk.at = stream.at;
  std::int64_t next_poll = 0;
  nsx_packet packet;
  while (read_packet_head(walk, walk.at, packet)) {
    if (!goes_on(walk, next_poll)) return false;
    // The first marker is not looked at: it is the only one there may be.
    if (!packet.has_marker && !walk.is_first) break;
    if (!take_many_points(walk)) take_packet(walk, packet);
  }
  if (walk.at < file.size) {
    log_message(session,
                fmt::format("{} bytes behind the last packet were not read", file.size - walk.at));
  }
  if (walk.n_run_back > 0) {
    log_message(session, fmt::format("Warning: the time stamps of {} packets run back; their "
                                     "samples follow those before them",
                                     walk.n_run_back));
  }
  return true;
}

bool read_nsx_runs(session_state& session, const input_file& file,
                   const interleaved_channels& channels, const std::vector<nsx_run>& runs) {
  run_reading r{session, file, channels};
  for (const nsx_run& run : runs) r.n_all += run.n_points;
  expect_sequential_reading(file);
  for (const nsx_run& run : runs) {
    if (run.at >= r.next_poll) {
      r.next_poll = run.at + block_bytes;
      set_progress(session, meter::reading, r.bar(r.n_done), 115);
      if (reading_interrupted(session)) return false;
    }
    const bool whole = run.skip_bytes > 0 ? read_spaced_run(r, run) : read_plain_run(r, run);
    if (!whole) {
      if (!session.operation.reading_interrupted) log_message(session, "Error or end of file");
      return false;
    }
    r.n_done += run.n_points;
  }
  return true;
}

}  // namespace kestrelvane
